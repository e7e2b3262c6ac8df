// sr_add_row_1: adds one row; p_column_names[i] names the column of *p_p_fields[i], and the key
// column must be among them.
#include "sr_i.h"

SR_SOURCE_FILE("sr/sr_x_add_row", "1.1");

extern "C" qx_int32_t sr_add_row_1(sr_opaque_handle_t table_handle, qx_char_ptr_t *p_column_names,
                                   qx_value_t **p_p_fields, qx_uint32_t total_values) {
    // ForkMutex and the table's write lock for the whole call, including the
    // apply and commit an implicitly controlled table makes at once.
    static constexpr sr_i_frame_t kFrame{"sr_add_row_1", 5,   true, sr_i_lock_kind::table_write,
                                         true,           true};
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle, [&](sr_i_table_t *p_table) -> qx_int32_t {
            if (total_values != 0 && (p_column_names == nullptr || p_p_fields == nullptr)) {
                return SR_ERROR(101);
            }
            for (qx_uint32_t i = 0; i < total_values; ++i) {
                if (p_column_names[i] == nullptr || p_p_fields[i] == nullptr) return SR_ERROR(101);
            }
            return sr_i_add_row(p_table, p_column_names, p_p_fields, total_values);
        });
}
