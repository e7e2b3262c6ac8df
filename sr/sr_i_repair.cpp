// Repair: removes what an interrupted rewrite leaves behind.  A process that
// dies between writing a complete table image into the ".rewrite" file and
// renaming it over the table file leaves that file beside a table file that
// still holds the committed state; the left-over image is simply deleted.
// No table is opened and no file is read.
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "sr_i_files.h"
#include "sr_i_management.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_i_repair", "1.1");

qx_int32_t sr_i_repair_tables(sr_i_tree_t *p_tree, qx_char_ptr_t *p_table_names,
                              qx_uint32_t array_count) {
    SR_I_ASSERT_WRITE_LOCKED(&p_tree->lock);
    if (array_count == 0) return 0;
    if (p_table_names == nullptr) return SR_ERROR(SR_E_NULL_POINTER);
    for (qx_uint32_t i = 0; i < array_count; ++i) {
        qx_char_ptr_t p_file = nullptr;
        qx_uint32_t block_size = 0;
        // Names before a bad one stay repaired; the ones after it are left.
        qx_int32_t rc = sr_i_resolve_path(p_tree, p_table_names[i], &p_file, &block_size);
        if (rc != 0) return rc;
        if (block_size == 0) continue;  // transient tables have no files
        // The resolved path has room for the suffix.  A missing rewrite file
        // is the normal case and no error.
        std::strcat(p_file, ".rewrite");
        if (sr_i_sys_unlink(p_file) == 0) (void)sr_i_sync_directory_of(p_file);
        std::free(p_file);
    }
    return 0;
}
