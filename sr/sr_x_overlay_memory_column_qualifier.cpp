// sr_overlay_memory_column_qualifier_1: changes the modifier bits of a
// standard column in memory only; the file never sees it.
#include "sr_i_frame.h"
#include "sr_i_management.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_overlay_memory_column_qualifier", "1.1");

extern "C" qx_int32_t sr_overlay_memory_column_qualifier_1(sr_opaque_handle_t table_handle,
                                                           qx_char_ptr_t p_column_name,
                                                           sr_qualifier_t new_qualifier) {
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_overlay_memory_column_qualifier_1",
                                         .entry_id = 83,
                                         .api_mutex = true,
                                         .lock = sr_i_lock_kind::table_write};
    return sr_i_api_call<sr_i_table_t>(sr_i_this_source, kFrame, table_handle,
                                       {.pointers = {p_column_name}}, [&](sr_i_table_t *p_table) {
                                           return sr_i_overlay_memory_column_qualifier(
                                               p_table, p_column_name, new_qualifier);
                                       });
}
