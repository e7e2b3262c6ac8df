// sr_free_table_metadata_1: releases what sr_get_table_metadata_1 returned.
#include <cstdlib>

#include "sr_i_frame.h"
#include "sr_i_rows.h"

SR_SOURCE_FILE("sr/sr_x_free_table_metadata", "1.1");

extern "C" qx_int32_t sr_free_table_metadata_1(sr_table_metadata_t *p_metadata) {
    // No handle and no lock: the metadata is the caller's own memory, so the
    // table frame does not apply; only its trace and error steps do.
    constexpr qx_uint32_t kEntry = 37;
    sr_i_trace_entry(kEntry);
    qx_int32_t rc = 0;
    if (!sr_i_required_present({.pointers = {p_metadata}})) {
        rc = SR_ERROR(SR_E_NULL_POINTER);
    } else {
        sr_i_free_column_metadata(p_metadata->column_definitions, p_metadata->number_of_columns);
        std::free(p_metadata->column_definitions);
        std::free(p_metadata->name);
        std::free(p_metadata);
        cu_set_no_error_1();
    }
    return sr_i_trace_exit(kEntry, rc);
}
