// Commit: the second durable step, which makes what apply wrote the table's
// state, on disk and then in memory.
//
// After an append the switch is one 4-byte write: the type word of the old
// commit record becomes 0 (free space), so that a reader walks on to the
// commit record apply wrote behind it.  A 4-byte write inside one sector
// either lands or does not; a reader sees the old state or the new one, never
// a mix.  After a rewrite the switch is the rename of the complete, already
// synced ".rewrite" file over the data file.
//
// Thread cancellation is disabled for the whole commit: a thread cancelled
// between the switch on disk and the walks in memory would leave a table
// whose memory disagrees with its file.
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>

#include "sr_i_application_metadata.h"
#include "sr_i_files.h"
#include "sr_i_hash_table.h"
#include "sr_i_pool.h"
#include "sr_i_rows.h"
#include "sr_i_table.h"
#include "sr_i_test_pause.h"
#include "sr_i_transaction.h"

SR_SOURCE_FILE("sr/sr_i_commit", "1.1");

namespace {

// Failures are reported as sr_i_commit's own, whichever helper detects them.
constexpr sr_i_reporter_t kTx{sr_i_this_source, "sr_i_commit"};

// Development trace points.
enum commit_point : int {
    kStart = 1,
    kSyncFailed = 2,
    kFailed = 3,
    kCommitted = 4,
};

void trace_commit(int point, const sr_i_table_t *p_table) {
    SR_DV_TRACE("DV|COM|%.3d|%x|%u|%u|%u|%u|%u|%d|%d", point,
                static_cast<unsigned>(reinterpret_cast<uintptr_t>(p_table)),
                p_table->ready_for_commit, p_table->commit_record_offset,
                p_table->applied_commit_record_offset, p_table->file_length,
                p_table->rewrite_file_length, p_table->file_fd, p_table->rewrite_file_fd);
}

// A failure to change the cancellation state means the thread library is
// broken; going on could leave a half-switched table behind, so the process
// stops as an assertion would, also in builds without assertions.
void check_pthread_rc(int pthread_rc, int line) {
    if (pthread_rc == 0) return;
    fprintf(stderr, "%s:%d: %s: Assertion `pthread_rc == 0' failed.\n", sr_i_this_source.file, line,
            "sr_i_commit");
    abort();
}

// Keeps the thread uncancellable for its lifetime and then restores the
// caller's cancellation state, on every way out of commit.
class cancellation_off_t {
  public:
    cancellation_off_t() {
        check_pthread_rc(pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_), __LINE__);
    }
    ~cancellation_off_t() {
        int ignored = 0;
        check_pthread_rc(pthread_setcancelstate(old_, &ignored), __LINE__);
    }
    cancellation_off_t(const cancellation_off_t &) = delete;
    cancellation_off_t &operator=(const cancellation_off_t &) = delete;

  private:
    int old_ = PTHREAD_CANCEL_ENABLE;
};

// What the switch on disk did.
enum class switched { yes, restored };

// Retires the committed commit record of an appended file.  When the sync of
// the switch fails the write may or may not be on the disk; the old type word
// is written back so that the file keeps reading as the committed state, and
// the table stays applied for the caller's next commit or abort.
qx_int32_t switch_in_place(sr_i_table_t *p_table, switched *p_switched, qx_int32_t *p_sync_rc) {
    const qx_uint64_t type_word = static_cast<qx_uint64_t>(p_table->commit_record_offset) + 8;
    qx_uint32_t word = 0;
    qx_int32_t rc = sr_i_write_at(p_table->file_fd, &word, sizeof word, type_word);
    if (rc != 0) return rc;
    sr_i_test_pause("commit-written");
    *p_sync_rc = sr_i_fdatasync(p_table->file_fd);
    if (*p_sync_rc == 0) {
        sr_i_test_pause("commit-synced");
        *p_switched = switched::yes;
        return 0;
    }
    trace_commit(kSyncFailed, p_table);
    word = static_cast<qx_uint32_t>(SR_I_RECORD_TYPE_COMMIT);
    rc = sr_i_write_at(p_table->file_fd, &word, sizeof word, type_word);
    if (rc != 0) return rc;
    // Nothing more can be done about a second failure: the capture file
    // already holds the first.
    (void)sr_i_fdatasync(p_table->file_fd);
    *p_switched = switched::restored;
    return 0;
}

// Renames the synced rewrite file over the data file.  The rename is the
// switch: no sync follows it, the new file's contents were synced by apply.
qx_int32_t switch_by_rename(sr_i_table_t *p_table) {
    // The one path buffer holds one of the two names at a time; rename needs
    // both.
    char *p_rewrite_path = sr_i_strdup(sr_i_set_rewrite_path(p_table));
    if (p_rewrite_path == nullptr) {
        sr_i_discard_rewrite_file(p_table);
        return kTx.error(SR_E_NO_MEMORY);
    }
    sr_i_test_pause("rewrite-before-rename");
    if (sr_i_sys_rename(p_rewrite_path, sr_i_set_data_path(p_table)) != 0) {
        int err = errno;
        free(p_rewrite_path);
        sr_i_discard_rewrite_file(p_table);
        return kTx.file("rename", err);
    }
    free(p_rewrite_path);
    // Without its directory the rename may be undone by a power loss, and
    // with it this commit.  The switch is made: a failure is captured only.
    (void)sr_i_sync_directory_of(sr_i_set_data_path(p_table));
    sr_i_test_pause("rewrite-after-rename");
    // The old file goes, and with it its lock; the rewrite file's descriptor
    // already holds the lock of what is now the data file.
    sr_i_close_data_file(p_table->file_fd);
    p_table->file_fd = p_table->rewrite_file_fd;
    p_table->rewrite_file_fd = -1;
    return 0;
}

}  // namespace

qx_int32_t sr_i_commit_in_memory(sr_i_table_t *p_table,
                                 sr_i_change_entry_t *p_current_change_entry) {
    sr_hash_table_t *p_hash_table = p_table->p_rows_hash_table;
    for (sr_i_change_entry_t *p_change = p_current_change_entry; p_change != nullptr;
         p_change = p_change->p_next) {
        sr_i_index_entry_t *p_entry = p_change->p_index_entry;
        if (p_entry->p_applied == nullptr) {
            // A deletion: the row leaves every index and its slot is free.
            if (p_hash_table != nullptr && p_entry->p_hash_table_element != nullptr) {
                (void)sr_i_hash_table_remove_element(p_hash_table, p_entry->hash_index,
                                                     p_entry->p_hash_table_element);
            }
            if (p_entry->p_committed != nullptr) {
                qx_int32_t rc = sr_i_free_row_record(p_table, p_entry->p_committed);
                if (rc != 0) return rc;
                p_entry->p_committed = nullptr;
            }
            sr_i_remove_row_from_packed_index(p_table, p_entry);
            continue;
        }
        if (p_entry->p_committed == nullptr) {
            p_entry->p_committed = p_entry->p_applied;
        } else if (p_entry->p_committed != p_entry->p_applied) {
            qx_int32_t rc = sr_i_free_row_record(p_table, p_entry->p_committed);
            if (rc != 0) return rc;
            p_entry->p_committed = p_entry->p_applied;
            // The index holds no key copies: its element pointed into the
            // record just freed.
            if (p_hash_table != nullptr && p_entry->p_hash_table_element != nullptr) {
                p_entry->p_hash_table_element->p_key_value =
                    sr_i_row_key_value(p_table, p_entry->p_applied);
            }
        }
        p_entry->file_offset = p_entry->applied_file_offset;
        p_entry->applied_file_offset = 0;
        p_entry->p_pending_change = nullptr;
    }
    return 0;
}

qx_int32_t sr_i_commit(sr_i_table_t *p_table) {
    qx_int32_t unsynced = 0;
    return sr_i_commit_unless_unsynced(p_table, &unsynced);
}

qx_int32_t sr_i_commit_unless_unsynced(sr_i_table_t *p_table, qx_int32_t *p_unsynced) {
    *p_unsynced = 0;
    trace_commit(kStart, p_table);
    if (p_table->ready_for_commit == 0) {
        if (p_table->p_rows_change_list == nullptr &&
            p_table->p_delete_rows_change_list == nullptr) {
            return 0;
        }
        return kTx.error(SR_E_NOT_APPLIED);
    }
    cancellation_off_t cancellation_off;
    const bool rewritten = p_table->ready_for_commit == 2;
    if (p_table->p_file_path != nullptr) {
        qx_int32_t rc = 0;
        if (!sr_i_data_file_claimed(p_table->file_fd)) {
            // A child forked from the writer holds no lock on the file.
            rc = kTx.error(SR_E_ACCESS);
        } else if (rewritten) {
            rc = switch_by_rename(p_table);
        } else {
            switched outcome = switched::yes;
            qx_int32_t sync_rc = 0;
            rc = switch_in_place(p_table, &outcome, &sync_rc);
            // Reported as success: the caller's next commit or abort
            // finishes the transaction, which is still applied.
            if (rc == 0 && outcome == switched::restored) {
                *p_unsynced = sync_rc;
                return 0;
            }
        }
        if (rc != 0) {
            *p_unsynced = rc;
            trace_commit(kFailed, p_table);
            return rc;
        }
        if (rewritten) {
            p_table->file_length = p_table->rewrite_file_length;
            p_table->rewrite_file_length = 0;
        }
    }

    qx_int32_t rc = sr_i_commit_in_memory(p_table, p_table->p_rows_change_list);
    if (rc == 0) rc = sr_i_commit_in_memory(p_table, p_table->p_delete_rows_change_list);
    if (rc != 0) {
        trace_commit(kFailed, p_table);
        return rc;
    }
    sr_i_free_change_lists(p_table);
    p_table->change_counter = p_table->applied_change_counter;
    p_table->commit_record_offset = p_table->applied_commit_record_offset;
    p_table->commit_record_length = p_table->applied_commit_record_length;
    p_table->total_committed_rows = p_table->total_applied_rows;

    if (rewritten) {
        // Every live row moved, not only the changed ones.  No row lies at
        // offset 0, where the metadata record is.
        qx_uint32_t seen = 0;
        for (qx_uint32_t f = 0; f < p_table->maximum_rows && seen < p_table->total_committed_rows;
             ++f) {
            sr_i_index_entry_t *p_entry = &p_table->p_rows_fixed_index[f];
            if (p_entry->p_committed == nullptr) continue;
            ++seen;
            if (p_entry->applied_file_offset != 0) {
                p_entry->file_offset = p_entry->applied_file_offset;
                p_entry->applied_file_offset = 0;
            }
        }
    }
    if (p_table->p_application_metadata != nullptr) {
        sr_i_commit_application_metadata_buffer_updates(p_table->p_application_metadata);
    }
    p_table->applied_deletions = 0;
    p_table->ready_for_commit = 0;
    trace_commit(kCommitted, p_table);
    return 0;
}
