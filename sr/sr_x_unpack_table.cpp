// sr_unpack_table_1: makes one table of a packed buffer into a read-only
// transient table of a tree.  The table's rows are the buffer's own records,
// so the buffer must outlive the table; the locks are those of creation.
#include "sr_i_frame.h"
#include "sr_i_pack.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_x_unpack_table", "1.1");

extern "C" qx_int32_t sr_unpack_table_1(void *p_buffer, qx_uint32_t total_hash_buckets,
                                        sr_hash_function_t *hash_function,
                                        sr_hash_keys_compare_function_t *compare_function,
                                        sr_opaque_handle_t tree_handle, qx_uint32_t table_index,
                                        sr_opaque_handle_t *p_table) {
    constexpr qx_uint32_t kEntry = 111;
    sr_i_trace_entry(kEntry);
    qx_int32_t rc = 0;
    if (!sr_i_required_present({.pointers = {p_buffer, p_table}})) {
        rc = SR_ERROR(SR_E_NULL_POINTER);
    } else {
        rc = sr_i_unpack_table(p_buffer, total_hash_buckets, hash_function, compare_function,
                               static_cast<sr_i_tree_t *>(tree_handle), table_index, p_table);
    }
    if (rc == 0) cu_set_no_error_1();
    return sr_i_trace_exit(kEntry, rc);
}
