// sr_get_packed_table_name_1: the name of one table of a packed buffer, as a
// pointer into the buffer itself (valid only as long as the buffer).
#include "sr_i_frame.h"
#include "sr_i_pack.h"

SR_SOURCE_FILE("sr/sr_x_get_packed_table_name", "1.1");

extern "C" qx_int32_t sr_get_packed_table_name_1(void *p_buffer, qx_uint32_t table_index,
                                                 qx_char_ptr_t *p_table_name) {
    constexpr qx_uint32_t kEntry = 115;
    sr_i_trace_entry(kEntry);
    qx_int32_t rc = 0;
    if (!sr_i_required_present({.pointers = {p_buffer, p_table_name}})) {
        rc = SR_ERROR(SR_E_NULL_POINTER);
    } else {
        rc = sr_i_get_packed_table_name(p_buffer, table_index, p_table_name);
    }
    if (rc == 0) cu_set_no_error_1();
    return sr_i_trace_exit(kEntry, rc);
}
