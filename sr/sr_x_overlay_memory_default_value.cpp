// sr_overlay_memory_default_value_1: changes a column's default in memory
// only; rows added afterwards take it, the file never sees it.
#include "sr_i_frame.h"
#include "sr_i_management.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_overlay_memory_default_value", "1.1");

extern "C" qx_int32_t sr_overlay_memory_default_value_1(sr_opaque_handle_t table_handle,
                                                        qx_char_ptr_t p_column_name,
                                                        qx_value_t new_default_value) {
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_overlay_memory_default_value_1",
                                         .entry_id = 85,
                                         .api_mutex = true,
                                         .lock = sr_i_lock_kind::table_write};
    return sr_i_api_call<sr_i_table_t>(sr_i_this_source, kFrame, table_handle,
                                       {.pointers = {p_column_name}}, [&](sr_i_table_t *p_table) {
                                           return sr_i_overlay_memory_default_value(
                                               p_table, p_column_name, new_default_value);
                                       });
}
