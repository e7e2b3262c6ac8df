// Opening and closing tables.  One table record serves every open of a table
// through one tree, counted by `references`; a persistent table is read from
// its file on its first open and dropped at its last close, while a named
// transient table lives in the tree's set, rows and all, until it is deleted
// or the tree closes.
#include <search.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "sr_i_application_metadata.h"
#include "sr_i_files.h"
#include "sr_i_hash_table.h"
#include "sr_i_management.h"
#include "sr_i_pool.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_rows.h"
#include "sr_i_table.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_i_open_table", "1.1");

namespace {

// A reader's record becomes a writer's: the file is read again with write
// access (which takes the file lock) and the fresh contents go into the
// shared record.  Caller holds the tree's and the table's write locks.
qx_int32_t reload_for_write(sr_i_table_t *p_table, qx_uint32_t mode) {
    SR_I_ASSERT_WRITE_LOCKED(&p_table->p_tree->lock);
    SR_I_ASSERT_WRITE_LOCKED(&p_table->lock);
    sr_hash_table_t *p_hash_table = nullptr;
    if (p_table->p_rows_hash_table != nullptr) {
        const sr_hash_table_t *p_old = p_table->p_rows_hash_table;
        qx_int32_t rc = sr_i_hash_table_open(p_old->total_hash_buckets, p_old->p_hash_function,
                                             p_old->p_compare_function, &p_hash_table);
        if (rc != 0) return rc;
    }
    sr_i_table_t *p_fresh = nullptr;
    qx_int32_t rc = sr_i_open_persistent_table(
        p_table->p_tree, p_table->p_persistent_table_registry_path, sr_i_set_data_path(p_table),
        mode, p_table->block_size, p_hash_table, &p_fresh);
    if (rc == 0) rc = sr_i_retire_record_buffer_pool(p_table);
    if (rc != 0) {
        sr_i_close_table(p_fresh);
        return rc;
    }
    // Every holder of the shared record sees the reloaded contents; the fresh
    // record leaves with the old ones, all but the memory of their values.
    sr_i_swap_after_metadata_update(p_table, p_fresh);
    // The application metadata is the file's as much as the rows are: the
    // old copy may predate another process's commit, and the next commit
    // would write it back over that one.
    std::swap(p_table->p_application_metadata, p_fresh->p_application_metadata);
    // The old read-only descriptor goes with the old contents; the register
    // of data files keeps it open while this record holds the file's lock.
    sr_i_close_table(p_fresh);
    return 0;
}

// Releases the client values cached for the records of a pool and frees it.
void release_pool(sr_i_record_buffer_pool_t *p_pool) {
    for (sr_i_record_buffer_t *p_buffer = p_pool->p_first_record_buffer; p_buffer != nullptr;
         p_buffer = p_buffer->p_next) {
        char *p_begin = sr_i_rb_buffer_data(p_buffer);
        qx_pmsg_release_client_values_1(
            p_begin, static_cast<size_t>(sr_i_rb_buffer_end(p_buffer) - p_begin));
    }
    sr_i_rb_uninitialize_record_buffer_pool(p_pool);
}

}  // namespace

struct sr_i_retired_pool_struct {
    sr_i_record_buffer_pool_t pool;
    sr_i_retired_pool_struct *p_next;
};

// Values read through one handle point into the pool and the caller may use
// them until that handle's table changes the row or closes; a reload done
// for another opener is neither, so the old pool lives as long as the record.
// Only reloads retire pools (an upgrade to write at most once per record, a
// copy over the open table once per copy), so the cost is bounded by them.
qx_int32_t sr_i_retire_record_buffer_pool(sr_i_table_t *p_table) {
    auto *p_retired =
        static_cast<sr_i_retired_pool_struct *>(sr_i_calloc(1, sizeof(sr_i_retired_pool_struct)));
    if (p_retired == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    p_retired->pool = p_table->record_buffer_pool;
    p_retired->p_next = p_table->p_retired_pools;
    p_table->p_retired_pools = p_retired;
    std::memset(&p_table->record_buffer_pool, 0, sizeof p_table->record_buffer_pool);
    return 0;
}

qx_int32_t do_open_table(sr_opaque_handle_t tree_handle, qx_char_ptr_t p_registry_path,
                         qx_int32_t mode, sr_hash_table_t *p_rows_hash_table,
                         sr_opaque_handle_t *p_result_table_handle, bool *p_new_record) {
    auto *p_tree = static_cast<sr_i_tree_t *>(tree_handle);
    if (p_new_record != nullptr) *p_new_record = false;
    qx_int32_t rc = 0;
    if (p_tree == nullptr) {
        rc = SR_ERROR(SR_E_INVALID_HANDLE);
    } else if (p_result_table_handle == nullptr) {
        rc = SR_ERROR(SR_E_NULL_POINTER);
    } else if (mode == 3 || mode == 7) {
        mode &= ~SR_MODE_READ;  // write implies read
    } else if (mode != 1 && mode != 2 && mode != 6) {
        rc = SR_ERROR(SR_E_INVALID_MODE);
    }
    if (rc != 0) {
        sr_i_hash_table_close(p_rows_hash_table);
        return rc;
    }
    const qx_uint32_t new_mode = static_cast<qx_uint32_t>(mode);
    const bool wants_write = (new_mode & SR_MODE_WRITE) != 0;
    const qx_uint32_t new_implicit = (new_mode & SR_MODE_EXPLICIT_CONTROL) ? 0 : 1;

    rc = sr_i_rw_lock_write(&p_tree->lock);
    if (rc != 0) {
        sr_i_hash_table_close(p_rows_hash_table);
        return rc;
    }
    qx_char_ptr_t p_absolute = nullptr;
    qx_uint32_t block_size = 0;
    rc = sr_i_resolve_path(p_tree, p_registry_path, &p_absolute, &block_size);
    void *p_node = nullptr;
    if (rc == 0) p_node = tfind(p_absolute, &p_tree->p_tables, sr_i_string_to_table_compare);
    bool hash_table_used = false;
    if (rc != 0) {
        // nothing found, nothing made
    } else if (p_node != nullptr) {
        sr_i_table_t *p_table = *static_cast<sr_i_table_t **>(p_node);
        rc = sr_i_rw_lock_write(&p_table->lock);
        if (rc == 0) {
            ++p_table->references;
            if (p_table->p_packed_rows_array != nullptr && wants_write) {
                // A table unpacked from a buffer reads the caller's buffer in
                // place: it stays read-only whoever opens it.
                --p_table->references;
                rc = SR_ERROR(SR_E_ACCESS);
            } else if (p_table->references == 1) {
                // A transient table kept after its last close: this open sets
                // its modes afresh.
                p_table->implicitly_controlled = new_implicit;
                p_table->mode = wants_write ? SR_MODE_WRITE : SR_MODE_READ;
            } else if ((p_table->mode & SR_MODE_WRITE) != 0 && wants_write) {
                if (p_table->implicitly_controlled != new_implicit) {
                    --p_table->references;
                    rc = SR_ERROR(SR_E_EXCLUSIVE_MODES);
                }
            } else if (wants_write) {
                if (p_table->p_file_path != nullptr) {
                    rc = reload_for_write(p_table, new_mode);
                }
                if (rc == 0) {
                    p_table->implicitly_controlled = new_implicit;
                    p_table->mode = p_table->p_file_path != nullptr ? new_mode : SR_MODE_WRITE;
                } else {
                    --p_table->references;
                }
            }
            qx_int32_t unlock_rc = sr_i_rw_unlock_write(&p_table->lock);
            if (rc == 0) rc = unlock_rc;
            if (rc == 0) *p_result_table_handle = p_table;
        }
    } else if (block_size != 0) {
        sr_i_table_t *p_table = nullptr;
        hash_table_used = true;  // the new record owns it from its first step
        rc = sr_i_open_persistent_table(p_tree, p_registry_path, p_absolute, new_mode, block_size,
                                        p_rows_hash_table, &p_table);
        if (rc == 0 && tsearch(p_table, &p_tree->p_tables, sr_i_table_compare) == nullptr) {
            sr_i_close_table(p_table);
            rc = SR_ERROR(SR_E_NO_MEMORY);
        }
        if (rc == 0) {
            *p_result_table_handle = p_table;
            if (p_new_record != nullptr) *p_new_record = true;
        }
    } else {
        rc = SR_ERROR(SR_E_NO_TABLE);
    }
    // An open that made no record leaves no index behind.
    if (!hash_table_used && rc != 0) sr_i_hash_table_close(p_rows_hash_table);
    if (block_size != 0) std::free(p_absolute);
    qx_int32_t unlock_rc = sr_i_rw_unlock_write(&p_tree->lock);
    if (unlock_rc != 0 && rc == 0) return unlock_rc;
    return rc;
}

qx_int32_t sr_i_close_table(sr_i_table_t *p_table) {
    if (p_table == nullptr) return 0;
    // Client values handed out from this table's records are cached by slot
    // address; the addresses are about to be freed and reused.
    release_pool(&p_table->record_buffer_pool);
    while (p_table->p_retired_pools != nullptr) {
        sr_i_retired_pool_struct *p_retired = p_table->p_retired_pools;
        p_table->p_retired_pools = p_retired->p_next;
        release_pool(&p_retired->pool);
        std::free(p_retired);
    }
    if (p_table->p_packed_rows_array != nullptr) {
        const qx_array_t *p_rows = p_table->p_packed_rows_array;
        for (qx_uint32_t i = 0; i < sr_i_load_u32(&p_rows->element_count); ++i) {
            const char *p_header;
            std::memcpy(&p_header, &p_rows->elements[i], sizeof p_header);
            qx_pmsg_release_client_values_1(p_header, sr_i_record_length(p_header));
        }
        std::free(p_table->p_packed_rows_array);
    }
    sr_i_rw_close(&p_table->lock);
    sr_i_hash_table_close(p_table->p_rows_hash_table);
    sr_i_unique_key_forget(p_table);
    std::free(p_table->p_rows_fixed_index);
    std::free(p_table->p_rows_packed_index);
    std::free(p_table->p_columns);
    sr_i_release_change_slabs(p_table);
    std::free(p_table->p_name);
    if (p_table->p_file_path != nullptr) {
        std::free(p_table->p_file_path);
        // Closing the data file's descriptor gives up its lock, unless
        // another open of the file in this process still needs it.
        sr_i_close_data_file(p_table->file_fd);
        sr_i_close_data_file(p_table->rewrite_file_fd);
    }
    std::free(p_table->p_persistent_table_registry_path);
    std::free(p_table->p_overlays);
    if (p_table->p_application_metadata != nullptr) {
        sr_i_free_application_metadata(p_table->p_application_metadata);
    }
    std::free(p_table);
    return 0;
}
