// Abort: brings a table back to its last committed state, on disk and in
// memory, whether its changes were only pending or already applied.
//
// On disk only what apply wrote goes: the tail behind the committed commit
// record is cut off, or the ".rewrite" file is removed.  The results of the
// truncation and its sync are not needed (a tail left behind lies after the
// first commit record, where no reader looks, and the next apply writes over
// it).
//
// One write to the committed file comes first, on purpose: a commit whose
// sync failed and whose write-back of the old switch failed too may have left
// the committed commit record retired (type word 0) in the page cache.  Cut
// off behind such a record, the file would have no current commit record and
// no process could read it again.  So the switch is written back before the
// tail goes; if even that write fails, the tail and its commit record stay,
// and the file reads as the committed or the applied state, never as none.
#include <unistd.h>

#include <cstdint>

#include "sr_i_application_metadata.h"
#include "sr_i_files.h"
#include "sr_i_hash_table.h"
#include "sr_i_rows.h"
#include "sr_i_table.h"
#include "sr_i_transaction.h"

SR_SOURCE_FILE("sr/sr_i_abort", "1.1");

namespace {

// Development trace points.
enum abort_point : int {
    kStart = 1,
    kTruncate = 2,
    kFailed = 3,
    kAborted = 4,
};

void trace_abort(int point, const sr_i_table_t *p_table) {
    SR_DV_TRACE("DV|ABT|%.3d|%x|%u|%u|%u|%u|%u|%d|%d", point,
                static_cast<unsigned>(reinterpret_cast<uintptr_t>(p_table)),
                p_table->ready_for_commit, p_table->commit_record_offset,
                p_table->applied_commit_record_offset, p_table->file_length,
                p_table->rewrite_file_length, p_table->file_fd, p_table->rewrite_file_fd);
}

}  // namespace

qx_int32_t sr_i_abort_in_memory(sr_i_table_t *p_table,
                                sr_i_change_entry_t *p_current_change_entry) {
    // Rows deleted or re-keyed come back with keys the index of keys has
    // dropped or never had.
    sr_i_unique_key_forget(p_table);
    for (sr_i_change_entry_t *p_change = p_current_change_entry; p_change != nullptr;
         p_change = p_change->p_next) {
        sr_i_index_entry_t *p_entry = p_change->p_index_entry;
        if (p_entry->p_committed == nullptr) {
            // Added in this transaction (and perhaps deleted again): the row
            // never existed.
            if (p_table->p_rows_hash_table != nullptr && p_entry->p_hash_table_element != nullptr) {
                (void)sr_i_hash_table_remove_element(
                    p_table->p_rows_hash_table, p_entry->hash_index, p_entry->p_hash_table_element);
            }
            if (p_entry->p_applied != nullptr) {
                qx_int32_t rc = sr_i_free_row_record(p_table, p_entry->p_applied);
                if (rc != 0) return rc;
                p_entry->p_applied = nullptr;
            }
            sr_i_remove_row_from_packed_index(p_table, p_entry);
            continue;
        }
        if (p_entry->p_applied == nullptr) {
            p_entry->p_applied = p_entry->p_committed;
        } else if (p_entry->p_applied != p_entry->p_committed) {
            qx_int32_t rc = sr_i_free_row_record(p_table, p_entry->p_applied);
            if (rc != 0) return rc;
            p_entry->p_applied = p_entry->p_committed;
        }
        p_entry->applied_file_offset = 0;
        p_entry->p_pending_change = nullptr;
    }
    return 0;
}

namespace {

// Writes the committed commit record's type word back as a current commit
// record's; whether the tail behind it may be cut off.
bool restore_switch(sr_i_table_t *p_table) {
    const qx_uint64_t type_word = static_cast<qx_uint64_t>(p_table->commit_record_offset) + 8;
    qx_uint32_t word = static_cast<qx_uint32_t>(SR_I_RECORD_TYPE_COMMIT);
    return sr_i_write_at(p_table->file_fd, &word, sizeof word, type_word) == 0;
}

}  // namespace

qx_int32_t sr_i_abort(sr_i_table_t *p_table) {
    trace_abort(kStart, p_table);
    // A child forked from the writer holds no lock: the files are the
    // writer's, only the memory is aborted.
    if (p_table->p_file_path != nullptr && !sr_i_data_file_claimed(p_table->file_fd)) {
        p_table->applied_commit_record_offset = 0;
        p_table->applied_commit_record_length = 0;
    } else if (p_table->p_file_path != nullptr) {
        if (p_table->ready_for_commit == 2) {
            sr_i_close_data_file(p_table->rewrite_file_fd);
            p_table->rewrite_file_fd = -1;
            sr_i_sys_unlink(sr_i_set_rewrite_path(p_table));
            sr_i_set_data_path(p_table);
            p_table->rewrite_file_length = 0;
        } else if (p_table->ready_for_commit == 1 && restore_switch(p_table)) {
            trace_abort(kTruncate, p_table);
            // file_length keeps its larger value: it only ever grows, and the
            // next apply writes from the committed end whatever it says.
            if (sr_i_sys_ftruncate(p_table->file_fd,
                                          static_cast<off_t>(p_table->commit_record_offset) +
                                              p_table->commit_record_length) != 0) {
                // Ignored: see the file comment.
            }
            (void)sr_i_fdatasync(p_table->file_fd);
        }
        p_table->applied_commit_record_offset = 0;
        p_table->applied_commit_record_length = 0;
    }
    qx_int32_t rc = sr_i_abort_in_memory(p_table, p_table->p_rows_change_list);
    if (rc == 0) rc = sr_i_abort_in_memory(p_table, p_table->p_delete_rows_change_list);
    if (rc != 0) {
        trace_abort(kFailed, p_table);
        return rc;
    }
    sr_i_free_change_lists(p_table);
    if (p_table->p_application_metadata != nullptr) {
        sr_i_abort_application_metadata_buffer_updates(p_table->p_application_metadata);
    }
    p_table->applied_deletions = 0;
    p_table->ready_for_commit = 0;
    trace_abort(kAborted, p_table);
    return 0;
}
