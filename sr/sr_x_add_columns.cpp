// sr_add_columns_1: adds columns to an open table.  The table is rebuilt with
// the new columns (their defaults in every row), written over its file and
// swapped into the record every handle shares.
#include "sr_i_frame.h"
#include "sr_i_management.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_add_columns", "1.1");

extern "C" qx_int32_t sr_add_columns_1(sr_opaque_handle_t table_handle, sr_column_t *columns,
                                       qx_uint32_t array_count) {
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_add_columns_1",
                                         .entry_id = 3,
                                         .api_mutex = true,
                                         .lock = sr_i_lock_kind::table_write};
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle, {.pointers = {columns}},
        [&](sr_i_table_t *p_table) {
            if (array_count == 0) return SR_ERROR(SR_E_NO_COLUMNS);
            sr_i_table_t *p_new = nullptr;
            qx_int32_t rc = sr_i_update_metadata(p_table, columns, array_count, nullptr, nullptr,
                                                 nullptr, &p_new);
            return rc != 0 ? rc : sr_i_install_rebuilt_table(p_table, p_new);
        });
}
