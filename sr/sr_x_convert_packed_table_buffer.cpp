// sr_convert_packed_table_buffer_1: converts a received packed buffer in
// place to this machine's byte order.  Works on the caller's buffer only and
// takes no lock; a failure leaves the buffer partly converted.
#include "sr_i_frame.h"
#include "sr_i_pack.h"

SR_SOURCE_FILE("sr/sr_x_convert_packed_table_buffer", "1.1");

extern "C" qx_int32_t sr_convert_packed_table_buffer_1(void *p_buffer,
                                                       qx_uint32_t header_already_converted,
                                                       qx_int32_t do_conversion) {
    constexpr qx_uint32_t kEntry = 117;
    sr_i_trace_entry(kEntry);
    qx_int32_t rc = 0;
    if (!sr_i_required_present({.pointers = {p_buffer}})) {
        rc = SR_ERROR(SR_E_NULL_POINTER);
    } else {
        rc = sr_i_convert_packed_table_buffer(p_buffer, header_already_converted, do_conversion);
    }
    if (rc == 0) cu_set_no_error_1();
    return sr_i_trace_exit(kEntry, rc);
}
