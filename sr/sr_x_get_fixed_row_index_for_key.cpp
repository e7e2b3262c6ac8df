// sr_get_fixed_row_index_for_key_1: the fixed index of the row with a given key.
#include "sr_i_frame.h"
#include "sr_i_rows.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_get_fixed_row_index_for_key", "1.1");

extern "C" qx_int32_t sr_get_fixed_row_index_for_key_1(sr_opaque_handle_t table_handle,
                                                       qx_value_t key_value,
                                                       qx_uint32_t *p_fixed_row_index) {
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_get_fixed_row_index_for_key_1",
                                         .entry_id = 107,
                                         .lock = sr_i_lock_kind::table_read};
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle, {.pointers = {p_fixed_row_index}},
        [&](sr_i_table_t *p_table) -> qx_int32_t {
            return sr_i_get_fixed_row_index_for_key(p_table, key_value, p_fixed_row_index);
        });
}
