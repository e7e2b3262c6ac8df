// sr_close_tree_1: closes every table still open in the tree (discarding
// their unapplied changes), frees its mount points and the tree.
#include <pthread.h>
#include <search.h>

#include "sr_i_frame.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_x_close_tree", "1.1");

extern "C" qx_int32_t sr_close_tree_1(sr_opaque_handle_t tree_handle) {
    constexpr qx_uint32_t kEntry = 15;
    sr_i_trace_entry(kEntry);
    qx_int32_t rc = 0;
    if (tree_handle == nullptr) {
        rc = SR_ERROR(SR_E_INVALID_HANDLE);
    } else {
        int lock_rc = pthread_mutex_lock(&Registry_Trees_Mutex);
        if (lock_rc != 0) {
            // The raw error number, with no error recorded: a mutex that
            // cannot be locked leaves nothing sensible to report through.
            return sr_i_trace_exit(kEntry, lock_rc);
        }
        // Closing a tree that is not registered still proceeds.
        tdelete(tree_handle, &P_Registry_Trees, sr_i_pointer_compare);
        pthread_mutex_unlock(&Registry_Trees_Mutex);
        rc = sr_i_close_tree(static_cast<sr_i_tree_t *>(tree_handle));
    }
    if (rc == 0) cu_set_no_error_1();
    return sr_i_trace_exit(kEntry, rc);
}
