// Apply: the first of the two durable steps of a table update.
//
// The pending changes of a table are written, followed by a fresh commit
// record, either behind the committed commit record of the table file
// (append) or as a complete image of the table in the ".rewrite" file beside
// it (rewrite, which also drops the dead records a long-lived file collects).
// Either way the new bytes are synced before apply returns, and nothing that
// a reader of the file can see has changed: a reader stops at the first
// commit record, which is still the committed one.  Commit (sr_i_commit.cpp)
// makes the new state current with one 4-byte write or one rename; abort
// (sr_i_abort.cpp) throws it away.
//
// Records go to the file straight from the record buffer pool, header
// included, in gather writes of at most 16 records through the table's own
// io_vector: no copy, and no allocation apart from the commit record and, when
// committed rows are deleted, the deletion record.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include "sr_i_files.h"
#include "sr_i_pool.h"
#include "sr_i_table.h"
#include "sr_i_test_pause.h"
#include "sr_i_transaction.h"

SR_SOURCE_FILE("sr/sr_i_apply", "1.1");

namespace {

// Failures are reported as sr_i_apply's own, whichever helper detects them.
constexpr sr_i_reporter_t kTx{sr_i_this_source, "sr_i_apply"};

constexpr qx_uint32_t kHeader = SR_I_RECORD_HEADER_LENGTH;

// Development trace points.
enum apply_point : int {
    kRefused = 1,
    kNoCommitRecord = 2,
    kFailed = 3,
    kApplied = 4,
};

void trace_apply(int point, const sr_i_table_t *p_table, qx_uint32_t rewrite) {
    SR_DV_TRACE("DV|APP|%.3d|%x|%u|%u|%u|%u|%u|%d|%d|%u", point,
                static_cast<unsigned>(reinterpret_cast<uintptr_t>(p_table)),
                p_table->ready_for_commit, p_table->commit_record_offset,
                p_table->applied_commit_record_offset, p_table->file_length,
                p_table->rewrite_file_length, p_table->file_fd, p_table->rewrite_file_fd, rewrite);
}

// Appends the pending changes after the committed commit record of the data
// file.  Whatever an earlier apply that was aborted or failed left there is
// overwritten.
qx_int32_t apply_append(sr_i_table_t *p_table, char *p_commit_record) {
    const qx_uint32_t start = p_table->commit_record_offset + p_table->commit_record_length;
    sr_i_image_writer_t batch{p_table->file_fd, p_table->io_vector, start, 0, 0, 0};
    qx_int32_t rc = 0;

    // Added and updated rows, in the order of their first change.  A row
    // whose change list entry is here has a record: deletions move the entry
    // to the other list.
    for (sr_i_change_entry_t *p_change = p_table->p_rows_change_list;
         p_change != nullptr && rc == 0; p_change = p_change->p_next) {
        sr_i_index_entry_t *p_entry = p_change->p_index_entry;
        if (p_entry->p_applied == nullptr) continue;
        char *p_record = p_entry->p_applied - kHeader;
        p_entry->applied_file_offset = batch.offset;
        rc = sr_i_image_writer_add(&batch, p_record, sr_i_record_length(p_record));
    }

    // One deletion record naming the committed record of every deleted row
    // that the file holds.  Rows added and deleted again since the last
    // commit never reached the file and leave no trace in it.
    char *p_deletion = nullptr;
    if (rc == 0 && p_table->p_delete_rows_change_list != nullptr) {
        qx_uint32_t total = 0;
        for (sr_i_change_entry_t *p_change = p_table->p_delete_rows_change_list;
             p_change != nullptr; p_change = p_change->p_next) {
            if (p_change->p_index_entry->p_committed != nullptr) ++total;
        }
        if (total != 0) {
            const qx_uint64_t length = 16 + 4 * static_cast<qx_uint64_t>(total);
            p_deletion = length > SR_I_LARGEST_FILE_LENGTH
                             ? nullptr
                             : static_cast<char *>(sr_i_malloc(length));
            if (p_deletion == nullptr) {
                rc = kTx.error(SR_E_NO_MEMORY);
            } else {
                sr_i_store_u32(p_deletion, static_cast<qx_uint32_t>(length));
                sr_i_store_u32(p_deletion + 4, 0);
                sr_i_store_i32(p_deletion + 8, SR_I_RECORD_TYPE_DELETION);
                sr_i_store_u32(p_deletion + 12, total);
                char *p_next = p_deletion + 16;
                for (sr_i_change_entry_t *p_change = p_table->p_delete_rows_change_list;
                     p_change != nullptr; p_change = p_change->p_next) {
                    const sr_i_index_entry_t *p_entry = p_change->p_index_entry;
                    if (p_entry->p_committed == nullptr) continue;
                    sr_i_store_u32(p_next, p_entry->file_offset);
                    p_next += 4;
                }
                rc = sr_i_image_writer_add(&batch, p_deletion, static_cast<qx_uint32_t>(length));
            }
        }
    }

    // The new commit record closes the batch.  It lies behind the committed
    // one, so no reader stops at it until commit retires the old one.
    const qx_uint32_t commit_offset = batch.offset;
    if (rc == 0)
        rc = sr_i_image_writer_add(&batch, p_commit_record, p_table->applied_commit_record_length);
    if (rc == 0) rc = sr_i_image_writer_flush(&batch);
    std::free(p_deletion);
    // The file really is this long now, whatever happens next; abort cuts it
    // back but keeps the larger length.
    const qx_uint64_t end = static_cast<qx_uint64_t>(start) + batch.written;
    if (end > p_table->file_length) p_table->file_length = static_cast<qx_uint32_t>(end);
    if (rc != 0) return rc;

    sr_i_test_pause("apply-written");
    rc = sr_i_fdatasync(p_table->file_fd);
    if (rc != 0) return rc;
    p_table->applied_commit_record_offset = commit_offset;
    p_table->ready_for_commit = 1;
    return 0;
}

// After a failed rewrite: the records of pending changes get back the word
// naming the record they replace (the rewrite cleared it in memory), so that a
// later append still writes them as updates, and no live row keeps an offset
// in the abandoned file.
void undo_rewrite_in_memory(sr_i_table_t *p_table) {
    for (sr_i_change_entry_t *p_change = p_table->p_rows_change_list; p_change != nullptr;
         p_change = p_change->p_next) {
        sr_i_index_entry_t *p_entry = p_change->p_index_entry;
        if (p_entry->p_applied == nullptr || p_entry->p_applied == p_entry->p_committed) continue;
        sr_i_store_u32(p_entry->p_applied,
                       p_entry->p_committed != nullptr ? p_entry->file_offset : 0);
    }
    for (qx_uint32_t f = 0; f < p_table->maximum_rows; ++f) {
        p_table->p_rows_fixed_index[f].applied_file_offset = 0;
    }
}

// Writes the whole table (metadata record, every live row in fixed index
// order as a new row, the commit record) into the ".rewrite" file and syncs
// it.  The file stays open and locked for commit to rename or abort to remove.
qx_int32_t apply_rewrite(sr_i_table_t *p_table, char *p_commit_record) {
    const char *p_path = sr_i_set_rewrite_path(p_table);
    // Not truncated: a longer file left by a crash keeps bytes past the new
    // commit record, where no reader looks.
    qx_int32_t fd = -1;
    for (;;) {
        fd = sr_i_open_file(p_path, O_RDWR | O_CREAT, 0644);
        if (fd < 0) {
            qx_int32_t rc = kTx.file("open", errno);
            sr_i_set_data_path(p_table);
            return rc;
        }
        p_table->rewrite_file_fd = fd;
        // Another process writing an image of the same table waits here
        // until this one has renamed or removed the file.
        while (lockf(fd, F_LOCK, 0) != 0) {
            if (errno == EINTR) continue;
            qx_int32_t rc = kTx.syscall("lockf", errno);
            sr_i_discard_rewrite_file(p_table);
            return rc;
        }
        // A file the holder renamed into place meanwhile is a live table.
        if (sr_i_fd_names_path(fd, p_path)) break;
        close(fd);
        p_table->rewrite_file_fd = -1;
    }
    // Registered as a lock holder: after the rename this descriptor is the
    // data file's, and the writer's lock must survive other opens of the file
    // in this process closing theirs.
    qx_int32_t rc = sr_i_register_data_file(fd, 2);
    if (rc != 0) {
        sr_i_discard_rewrite_file(p_table);
        return rc;
    }
    sr_i_set_data_path(p_table);

    sr_i_image_writer_t batch{fd, p_table->io_vector, 0, 0, 0, 0};
    char *p_metadata_record = p_table->p_metadata_record_data - kHeader;
    rc = sr_i_image_writer_add(&batch, p_metadata_record, sr_i_record_length(p_metadata_record));

    // Live rows are the entries with a working record; as many as the
    // working version has, taken in fixed index order.
    const qx_uint32_t live = p_table->total_applied_rows > p_table->applied_deletions
                                 ? p_table->total_applied_rows - p_table->applied_deletions
                                 : 0;
    qx_uint32_t taken = 0;
    for (qx_uint32_t f = 0; f < p_table->maximum_rows && taken < live && rc == 0; ++f) {
        sr_i_index_entry_t *p_entry = &p_table->p_rows_fixed_index[f];
        if (p_entry->p_applied == nullptr) continue;
        char *p_record = p_entry->p_applied - kHeader;
        // Every row is new in the new file: it replaces nothing.
        if (sr_i_record_type(p_record) == SR_I_RECORD_TYPE_ROW) {
            sr_i_store_u32(p_entry->p_applied, 0);
        }
        p_entry->applied_file_offset = batch.offset;
        rc = sr_i_image_writer_add(&batch, p_record, sr_i_record_length(p_record));
        ++taken;
    }

    const qx_uint32_t commit_offset = batch.offset;
    if (rc == 0)
        rc = sr_i_image_writer_add(&batch, p_commit_record, p_table->applied_commit_record_length);
    if (rc == 0) rc = sr_i_image_writer_flush(&batch);
    if (rc == 0) {
        sr_i_test_pause("apply-written");
        rc = sr_i_fdatasync(fd);
    }
    if (rc != 0) {
        sr_i_discard_rewrite_file(p_table);
        undo_rewrite_in_memory(p_table);
        return rc;
    }
    p_table->applied_commit_record_offset = commit_offset;
    p_table->rewrite_file_length = batch.written;
    p_table->ready_for_commit = 2;
    return 0;
}

}  // namespace

qx_uint32_t sr_i_rewrite_wanted(const sr_i_table_t *p_table) {
    if (p_table->file_length <= SR_I_REWRITE_MINIMUM_FILE_LENGTH) return 0;
    // The product is deliberately kept in 32 bits, as the decision has always
    // been made: a pool past 42 MB wraps and may rewrite early or late, which
    // costs time, never data.
    const qx_uint32_t scaled = p_table->record_buffer_pool.used_bytes * 100u;
    return scaled / p_table->file_length < 50 ? 1 : 0;
}

qx_int32_t sr_i_apply(sr_i_table_t *p_table, qx_uint32_t rewrite,
                      qx_uint64_t table_change_counter) {
    if (p_table->ready_for_commit != 0) {
        trace_apply(kRefused, p_table, rewrite);
        return kTx.error(SR_E_APPLIED_NOT_COMMITTED);
    }
    // An implicitly controlled table numbers its commits itself; an explicit
    // caller may choose the number the new commit record carries.
    p_table->applied_change_counter = table_change_counter == 0 || p_table->implicitly_controlled
                                          ? p_table->change_counter + 1
                                          : table_change_counter;
    if (p_table->p_file_path == nullptr) {
        // A transient table has nothing to write: applied is a state of mind.
        p_table->ready_for_commit = 1;
        trace_apply(kApplied, p_table, rewrite);
        return 0;
    }
    // A child forked from the writer inherits the descriptor, not the lock.
    if (!sr_i_data_file_claimed(p_table->file_fd)) return kTx.error(SR_E_ACCESS);
    char *p_commit_record = nullptr;
    qx_int32_t rc =
        sr_i_create_commit_record(p_table->p_application_metadata, p_table->applied_change_counter,
                                  &p_table->applied_commit_record_length, &p_commit_record);
    if (rc != 0) {
        trace_apply(kNoCommitRecord, p_table, rewrite);
        return rc;
    }
    rc = rewrite != 0 ? apply_rewrite(p_table, p_commit_record)
                      : apply_append(p_table, p_commit_record);
    std::free(p_commit_record);
    trace_apply(rc == 0 ? kApplied : kFailed, p_table, rewrite);
    return rc;
}

// Closes and removes the rewrite file of a failed rewrite or a failed switch
// to it; the data file and its committed state are untouched.
void sr_i_discard_rewrite_file(sr_i_table_t *p_table) {
    sr_i_close_data_file(p_table->rewrite_file_fd);
    p_table->rewrite_file_fd = -1;
    sr_i_sys_unlink(sr_i_set_rewrite_path(p_table));
    sr_i_set_data_path(p_table);
}
