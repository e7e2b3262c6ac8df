// sr_get_updated_rows_1: the fixed indices of the rows with pending changes, in an array the caller
// frees.
#include "sr_i.h"

SR_SOURCE_FILE("sr/sr_x_get_updated_rows", "1.1");

extern "C" qx_int32_t sr_get_updated_rows_1(sr_opaque_handle_t table_handle,
                                            qx_uint32_t *p_updated_rows_count,
                                            qx_uint32_t **p_p_updated_rows_fixed_indices) {
    // Readers take only the table's read lock: reads of one table run side
    // by side and exclude only its writer.
    static constexpr sr_i_frame_t kFrame{"sr_get_updated_rows_1",    67,    false,
                                         sr_i_lock_kind::table_read, false, false};
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle, [&](sr_i_table_t *p_table) -> qx_int32_t {
            if (p_updated_rows_count == nullptr || p_p_updated_rows_fixed_indices == nullptr) {
                return SR_ERROR(101);
            }
            return sr_i_get_updated_rows(p_table, p_updated_rows_count,
                                         p_p_updated_rows_fixed_indices);
        });
}
