// sr_delete_table_1: deletes a table by registry path.  An open record leaves
// the tree's set at once and lives on until its last close; a persistent
// table's files are unlinked, and open handles keep their descriptor.
#include <errno.h>
#include <search.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "sr_i_files.h"
#include "sr_i_frame.h"
#include "sr_i_table.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_x_delete_table", "1.1");

namespace {

qx_int32_t delete_table(sr_i_tree_t *p_tree, qx_char_ptr_t p_registry_path) {
    qx_char_ptr_t p_absolute = nullptr;
    qx_uint32_t block_size = 0;
    qx_int32_t rc = sr_i_resolve_path(p_tree, p_registry_path, &p_absolute, &block_size);
    if (rc != 0) return rc;
    void *p_node = tfind(p_absolute, &p_tree->p_tables, sr_i_string_to_table_compare);
    if (p_node != nullptr) {
        sr_i_table_t *p_table = *static_cast<sr_i_table_t **>(p_node);
        tdelete(p_table, &p_tree->p_tables, sr_i_table_compare);
        // Openers keep using the record; their last close frees it, since it
        // is no longer in the set.
        if (p_table->references == 0) sr_i_close_table(p_table);
    }
    if (block_size == 0) {
        if (p_node == nullptr) rc = SR_ERROR(SR_E_NO_TABLE);
        return rc;
    }
    size_t length = std::strlen(p_absolute);
    if (sr_i_sys_unlink(p_absolute) != 0) {
        rc = SR_ERROR_FILE("unlink", errno, true);
    } else {
        // A ".rewrite" file left by a crash goes too; it may well not exist.
        // The resolved path has room for the suffix.
        std::memcpy(p_absolute + length, ".rewrite", 9);
        (void)sr_i_sys_unlink(p_absolute);
        // Gone for good only once the directory is synced; the table is
        // gone either way, so a failure is captured, not returned.
        (void)sr_i_sync_directory_of(p_absolute);
    }
    std::free(p_absolute);
    return rc;
}

}  // namespace

extern "C" qx_int32_t sr_delete_table_1(sr_opaque_handle_t tree_handle,
                                        qx_char_ptr_t p_registry_path) {
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_delete_table_1",
                                         .entry_id = 33,
                                         .api_mutex = true,
                                         .lock = sr_i_lock_kind::tree_write};
    return sr_i_api_call<sr_i_tree_t>(
        sr_i_this_source, kFrame, tree_handle,
        [&](sr_i_tree_t *p_tree) { return delete_table(p_tree, p_registry_path); });
}
