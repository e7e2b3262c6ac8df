// sr_add_row_1: adds one row; p_column_names[i] names the column of *p_p_fields[i], and the key
// column must be among them.
#include "sr_i_frame.h"
#include "sr_i_rows.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_add_row", "1.1");

extern "C" qx_int32_t sr_add_row_1(sr_opaque_handle_t table_handle, qx_char_ptr_t *p_column_names,
                                   qx_value_t **p_p_fields, qx_uint32_t total_values) {
    static constexpr sr_i_frame_t kFrame = sr_i_update_frame("sr_add_row_1", 5);
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle,
        {.arrays = {p_column_names, p_p_fields}, .count = total_values},
        [&](sr_i_table_t *p_table) -> qx_int32_t {
            return sr_i_add_row(p_table, p_column_names, p_p_fields, total_values);
        });
}
