// sr_mount_local_tree_1: binds a registry path prefix of a tree to a
// directory, creating the directory and its parents when missing.
#include "sr_i_files.h"
#include "sr_i_frame.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_x_mount_local_tree", "1.1");

extern "C" qx_int32_t sr_mount_local_tree_1(sr_opaque_handle_t tree_handle,
                                            qx_char_ptr_t p_registry_path,
                                            qx_char_ptr_t p_filesystem_path,
                                            qx_int32_t /*create*/) {
    // `create` is accepted and ignored: missing directories are always made.
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_mount_local_tree_1",
                                         .entry_id = 71,
                                         .api_mutex = true,
                                         .lock = sr_i_lock_kind::tree_write};
    return sr_i_api_call<sr_i_tree_t>(
        sr_i_this_source, kFrame, tree_handle, {.pointers = {p_filesystem_path}},
        [&](sr_i_tree_t *p_tree) -> qx_int32_t {
            return sr_i_mount_local_tree(p_tree, p_registry_path, p_filesystem_path);
        });
}
