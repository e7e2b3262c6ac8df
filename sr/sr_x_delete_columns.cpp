// sr_delete_columns_1: deletes columns of an open table.  The table is
// rebuilt as a selection of every row with the remaining columns, written
// over its file and swapped into the record every handle shares.
#include "sr_i_frame.h"
#include "sr_i_management.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_delete_columns", "1.1");

extern "C" qx_int32_t sr_delete_columns_1(sr_opaque_handle_t table_handle,
                                          qx_char_ptr_t *column_names, qx_uint32_t array_count) {
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_delete_columns_1",
                                         .entry_id = 27,
                                         .api_mutex = true,
                                         .lock = sr_i_lock_kind::table_write};
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle,
        {.pointers = {column_names}, .arrays = {column_names}, .count = array_count},
        [&](sr_i_table_t *p_table) {
            sr_i_table_t *p_new = nullptr;
            qx_int32_t rc = sr_i_delete_columns(p_table, column_names, array_count, &p_new);
            return rc != 0 ? rc : sr_i_install_rebuilt_table(p_table, p_new);
        });
}
