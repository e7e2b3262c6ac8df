// sr_get_updated_rows_1: the fixed indices of the rows with pending changes, in an array the caller
// frees.
#include "sr_i_frame.h"
#include "sr_i_rows.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_get_updated_rows", "1.1");

extern "C" qx_int32_t sr_get_updated_rows_1(sr_opaque_handle_t table_handle,
                                            qx_uint32_t *p_updated_rows_count,
                                            qx_uint32_t **p_p_updated_rows_fixed_indices) {
    static constexpr sr_i_frame_t kFrame{
        .p_function = "sr_get_updated_rows_1", .entry_id = 67, .lock = sr_i_lock_kind::table_read};
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle,
        {.pointers = {p_updated_rows_count, p_p_updated_rows_fixed_indices}},
        [&](sr_i_table_t *p_table) -> qx_int32_t {
            return sr_i_get_updated_rows(p_table, p_updated_rows_count,
                                         p_p_updated_rows_fixed_indices);
        });
}
