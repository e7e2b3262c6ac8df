// sr_unmount_local_tree_1: removes a mount point from a tree.  Files on disk
// and tables already open under it are left alone.
#include "sr_i_files.h"
#include "sr_i_frame.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_x_unmount_local_tree", "1.1");

extern "C" qx_int32_t sr_unmount_local_tree_1(sr_opaque_handle_t tree_handle,
                                              qx_char_ptr_t p_registry_path) {
    // No ForkMutex: only the tree's own set changes, under its write lock.
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_unmount_local_tree_1",
                                         .entry_id = 105,
                                         .lock = sr_i_lock_kind::tree_write};
    return sr_i_api_call<sr_i_tree_t>(sr_i_this_source, kFrame, tree_handle,
                                      [&](sr_i_tree_t *p_tree) -> qx_int32_t {
                                          return sr_i_unmount_local_tree(p_tree, p_registry_path);
                                      });
}
