// sr_change_default_value_1: changes a column's default value for good: the
// table is rebuilt with the new default, written over its file and swapped
// into the shared record.  Rows keep the values they have.
#include "sr_i_frame.h"
#include "sr_i_management.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_change_default_value", "1.1");

extern "C" qx_int32_t sr_change_default_value_1(sr_opaque_handle_t table_handle,
                                                qx_char_ptr_t column_name, qx_value_t new_value) {
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_change_default_value_1",
                                         .entry_id = 11,
                                         .api_mutex = true,
                                         .lock = sr_i_lock_kind::table_write};
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle, {.pointers = {column_name}},
        [&](sr_i_table_t *p_table) {
            sr_i_table_t *p_new = nullptr;
            qx_int32_t rc =
                sr_i_update_metadata(p_table, nullptr, 0, column_name, nullptr, &new_value, &p_new);
            return rc != 0 ? rc : sr_i_install_rebuilt_table(p_table, p_new);
        });
}
