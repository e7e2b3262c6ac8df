// sr_get_field_by_key_and_visibility_1: reads one field of the row with a given key, with the
// caller's visibility, and the row's state.
#include "sr_i_frame.h"
#include "sr_i_rows.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_get_field_by_key_and_visibility", "1.1");

extern "C" qx_int32_t sr_get_field_by_key_and_visibility_1(
    sr_opaque_handle_t table_handle, qx_value_t row_key, qx_char_ptr_t column_name,
    qx_value_t *result, qx_uint32_t uncommitted_updates_visible, sr_row_state_t *p_row_state) {
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_get_field_by_key_and_visibility_1",
                                         .entry_id = 51,
                                         .lock = sr_i_lock_kind::table_read};
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle, {.pointers = {column_name, result}},
        [&](sr_i_table_t *p_table) -> qx_int32_t {
            return sr_i_get_value_for_key(p_table, row_key, column_name, result,
                                          uncommitted_updates_visible, p_row_state);
        });
}
