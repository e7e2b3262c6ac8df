// sr_delete_row_by_index_1: deletes the row at a packed index (pending until commit).
#include "sr_i_frame.h"
#include "sr_i_rows.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_delete_row_by_index", "1.1");

extern "C" qx_int32_t sr_delete_row_by_index_1(sr_opaque_handle_t table_handle,
                                               qx_uint32_t row_index) {
    static constexpr sr_i_frame_t kFrame = sr_i_update_frame("sr_delete_row_by_index_1", 29);
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle, [&](sr_i_table_t *p_table) -> qx_int32_t {
            qx_uint32_t fixed = 0;
            qx_int32_t rc = sr_i_fixed_row_index_for_packed_index(p_table, row_index, &fixed);
            if (rc != 0) return rc;
            // Neither a pending apply nor an earlier deletion of the row is
            // looked at here; sr_i_delete_row refuses the missing record.
            return sr_i_delete_row(p_table, &p_table->p_rows_fixed_index[fixed]);
        });
}
