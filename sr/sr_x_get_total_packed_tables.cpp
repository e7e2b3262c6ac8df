// sr_get_total_packed_tables_1: the number of tables a packed buffer holds,
// once its head has been found consistent with its length word.
#include "sr_i_frame.h"
#include "sr_i_pack.h"

SR_SOURCE_FILE("sr/sr_x_get_total_packed_tables", "1.1");

extern "C" qx_int32_t sr_get_total_packed_tables_1(void *p_buffer,
                                                   qx_uint32_t *p_total_packed_tables) {
    constexpr qx_uint32_t kEntry = 113;
    sr_i_trace_entry(kEntry);
    qx_int32_t rc = 0;
    if (!sr_i_required_present({.pointers = {p_buffer, p_total_packed_tables}})) {
        rc = SR_ERROR(SR_E_NULL_POINTER);
    } else {
        rc = sr_i_packed_buffer_head(p_buffer, p_total_packed_tables, nullptr, nullptr);
    }
    if (rc == 0) cu_set_no_error_1();
    return sr_i_trace_exit(kEntry, rc);
}
