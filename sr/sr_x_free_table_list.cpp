// sr_free_table_list_1: releases a list made by sr_list_tables_1.
#include <cstdlib>

#include "sr_i_frame.h"

SR_SOURCE_FILE("sr/sr_x_free_table_list", "1.1");

extern "C" qx_int32_t sr_free_table_list_1(qx_char_ptr_t *p_table_list, qx_uint32_t array_count) {
    // No handle and no lock: the list belongs to the caller alone.
    constexpr qx_uint32_t kEntry = 35;
    sr_i_trace_entry(kEntry);
    qx_int32_t rc = 0;
    if (!sr_i_required_present({.pointers = {p_table_list}})) {
        rc = SR_ERROR(SR_E_NULL_POINTER);
    } else {
        for (qx_uint32_t i = 0; i < array_count; ++i) std::free(p_table_list[i]);
        std::free(p_table_list);
        cu_set_no_error_1();
    }
    return sr_i_trace_exit(kEntry, rc);
}
