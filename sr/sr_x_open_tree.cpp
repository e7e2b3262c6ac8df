// sr_open_tree_1: the library's one-time start-up and a new tree.
#include <search.h>
#include <cerrno>
#include <cstdlib>

#include "sr_i_frame.h"
#include "sr_i_pool.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_x_open_tree", "1.1");

extern "C" qx_int32_t sr_open_tree_1(sr_opaque_handle_t *tree_handle,
                                     qx_uint32_t /*number_of_retries*/, qx_uint64_t /*timeout*/) {
    // A tree open never waits or retries, so the retry count and timeout are
    // accepted and ignored.  No ForkMutex: only the trees set is touched.  A
    // missing out-pointer is reported as an invalid handle.
    static constexpr sr_i_frame_t kFrame{
        .p_function = "sr_open_tree_1", .entry_id = 81, .library_start = true};
    return sr_i_api_call<sr_opaque_handle_t>(
        sr_i_this_source, kFrame, tree_handle, [&](sr_opaque_handle_t *p_handle) -> qx_int32_t {
            auto *p_tree = static_cast<sr_i_tree_t *>(sr_i_calloc(1, sizeof(sr_i_tree_t)));
            if (p_tree == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
            sr_i_rw_open(&p_tree->lock);
            qx_int32_t rc =
                sr_i_get_string_conversion_handles(&p_tree->p_to_table_string_conversion_handle,
                                                   &p_tree->p_from_table_string_conversion_handle);
            if (rc == 0) {
                int lock_rc = pthread_mutex_lock(&Registry_Trees_Mutex);
                if (lock_rc != 0) {
                    errno = lock_rc;
                    rc = SR_ERROR_SYSCALL("pthread_mutex_lock", errno);
                } else {
                    if (tsearch(p_tree, &P_Registry_Trees, sr_i_pointer_compare) == nullptr) {
                        rc = SR_ERROR(SR_E_NO_MEMORY);
                    }
                    pthread_mutex_unlock(&Registry_Trees_Mutex);
                }
            }
            if (rc != 0) {
                // Nothing of a failed open is left behind.
                sr_i_close_tree(p_tree);
                return rc;
            }
            *p_handle = p_tree;
            return 0;
        });
}
