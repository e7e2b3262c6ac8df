// sr_get_fields_by_fixed_index_and_visibility_1: reads several fields of a row by fixed index with
// the caller's visibility, and the row's state.
#include "sr_i_frame.h"
#include "sr_i_rows.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_get_fields_by_fixed_index_and_visibility", "1.1");

extern "C" qx_int32_t sr_get_fields_by_fixed_index_and_visibility_1(
    sr_opaque_handle_t table_handle, qx_int32_t fixed_row_index, qx_char_ptr_t *column_names,
    qx_value_t **result, qx_uint32_t array_count, qx_uint32_t uncommitted_updates_visible,
    sr_row_state_t *p_row_state) {
    static constexpr sr_i_frame_t kFrame{
        .p_function = "sr_get_fields_by_fixed_index_and_visibility_1",
        .entry_id = 53,
        .lock = sr_i_lock_kind::table_read};
    return sr_i_api_call<sr_i_table_t>(sr_i_this_source, kFrame, table_handle,
                                       {.arrays = {column_names, result}, .count = array_count},
                                       [&](sr_i_table_t *p_table) -> qx_int32_t {
                                           return sr_i_get_values_for_fixed_index(
                                               p_table, static_cast<qx_uint32_t>(fixed_row_index),
                                               column_names, result, array_count,
                                               uncommitted_updates_visible, p_row_state);
                                       });
}
