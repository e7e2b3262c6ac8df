// sr_get_fixed_row_index_for_key_1: the fixed index of the row with a given key.
#include "sr_i.h"

SR_SOURCE_FILE("sr/sr_x_get_fixed_row_index_for_key", "1.1");

extern "C" qx_int32_t sr_get_fixed_row_index_for_key_1(sr_opaque_handle_t table_handle,
                                                       qx_value_t key_value,
                                                       qx_uint32_t *p_fixed_row_index) {
    // Readers take only the table's read lock: reads of one table run side
    // by side and exclude only its writer.
    static constexpr sr_i_frame_t kFrame{"sr_get_fixed_row_index_for_key_1", 107,   false,
                                         sr_i_lock_kind::table_read,         false, false};
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle, [&](sr_i_table_t *p_table) -> qx_int32_t {
            if (p_fixed_row_index == nullptr) return SR_ERROR(101);
            return sr_i_get_fixed_row_index_for_key(p_table, key_value, p_fixed_row_index);
        });
}
