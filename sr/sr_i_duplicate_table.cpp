// Copying, moving, renaming and removing tables.
//
// One routine serves the four exported calls.  The source is an open table
// record or, for a persistent path nobody has open in the tree, only its
// file; the target is a file or memory.  Six workers cover the combinations.
// A file target only ever appears by the rename of a complete, synced image
// written beside it under the ".rewrite" name, so a reader (or a crash) sees
// the old target or the whole new one, never a part.  A move removes its
// source only after the target exists.
//
// Copies into one directory are serialised between processes by the
// directory's ",Lock" file, and against a writer of an existing target by the
// target file's own lock.  A target that is open in the tree is refreshed in
// place afterwards, so that the handles its openers hold see the new
// contents.
#include <errno.h>
#include <fcntl.h>
#include <search.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "sr_i_application_metadata.h"
#include "sr_i_files.h"
#include "sr_i_hash_table.h"
#include "sr_i_management.h"
#include "sr_i_pool.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_table.h"
#include "sr_i_test_pause.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_i_duplicate_table", "1.1");

namespace {

constexpr qx_uint32_t kHeader = SR_I_RECORD_HEADER_LENGTH;
constexpr char kRewriteSuffix[] = ".rewrite";
constexpr char kLockFile[] = "/,Lock";
constexpr size_t kCopyChunk = 512;

// A malloc'd copy of p_path followed by ".rewrite".
char *rewrite_path_of(const char *p_path) {
    const size_t length = std::strlen(p_path);
    char *p_rewrite = static_cast<char *>(sr_i_malloc(length + sizeof kRewriteSuffix));
    if (p_rewrite == nullptr) return nullptr;
    std::memcpy(p_rewrite, p_path, length);
    std::memcpy(p_rewrite + length, kRewriteSuffix, sizeof kRewriteSuffix);
    return p_rewrite;
}

qx_int32_t lock_whole_file(qx_int32_t fd, int lock_type) {
    while (lockf(fd, lock_type, 0) != 0) {
        if (errno != EINTR) return -1;
    }
    return 0;
}

// The record's current place in its tree, if it is the one registered under
// its name (a deleted and re-created table may have taken the name).
void drop_from_tree(sr_i_table_t *p_table) {
    sr_i_tree_t *p_tree = p_table->p_tree;
    if (p_tree == nullptr) return;
    if (p_table->p_name == nullptr) {
        tdelete(p_table, &p_tree->p_unnamed_tables, sr_i_pointer_compare);
        return;
    }
    void *p_node = tfind(p_table, &p_tree->p_tables, sr_i_table_compare);
    if (p_node != nullptr && *static_cast<sr_i_table_t **>(p_node) == p_table) {
        tdelete(p_table, &p_tree->p_tables, sr_i_table_compare);
    }
}

// Cuts a persistent record loose from its file: it becomes a writable
// memory table with the same rows.  Its descriptors go (through the register
// of data files, which keeps another open's lock on the file alive).
void make_transient(sr_i_table_t *p_table) {
    if (p_table->p_file_path == nullptr) return;
    sr_i_close_data_file(p_table->file_fd);
    sr_i_close_data_file(p_table->rewrite_file_fd);
    p_table->file_fd = -1;
    p_table->rewrite_file_fd = -1;
    std::free(p_table->p_file_path);
    p_table->p_file_path = nullptr;
    p_table->file_path_length = 0;
    p_table->block_size = 0;
    p_table->commit_record_offset = 0;
    p_table->commit_record_length = 0;
    p_table->applied_commit_record_offset = 0;
    p_table->applied_commit_record_length = 0;
    p_table->file_length = 0;
    p_table->rewrite_file_length = 0;
    std::free(p_table->p_persistent_table_registry_path);
    p_table->p_persistent_table_registry_path = nullptr;
    for (qx_uint32_t f = 0; f < p_table->maximum_rows; ++f) {
        p_table->p_rows_fixed_index[f].file_offset = 0;
        p_table->p_rows_fixed_index[f].applied_file_offset = 0;
    }
}

// Whether a table has anything pending or applied: such a table cannot be
// replaced under its openers.
bool has_uncommitted_state(const sr_i_table_t *p_table) {
    return p_table->ready_for_commit != 0 || p_table->p_rows_change_list != nullptr ||
           p_table->p_delete_rows_change_list != nullptr;
}

// Opens, locks and empties the ".rewrite" file a new image is written to.
// The lock keeps a rewriting writer of the same table in another process
// out until the image is renamed or removed; emptying it only after the lock
// is held never cuts such a writer's image short.
qx_int32_t open_image_file(char *p_rewrite_path, qx_int32_t *p_fd) {
    qx_int32_t fd = -1;
    for (;;) {
        fd = sr_i_open_file(p_rewrite_path, O_RDWR | O_CREAT, 0644);
        if (fd < 0) return SR_ERROR_FILE("open", errno, false);
        if (lock_whole_file(fd, F_LOCK) != 0) {
            qx_int32_t rc = SR_ERROR_SYSCALL("lockf", errno);
            close(fd);
            unlink(p_rewrite_path);
            return rc;
        }
        // The holder we waited for may have renamed this very file into
        // place: it is a live table now, not ours to empty.
        if (sr_i_fd_names_path(fd, p_rewrite_path)) break;
        close(fd);
    }
    if (sr_i_sys_ftruncate(fd, 0) != 0) {
        qx_int32_t rc = SR_ERROR_FILE("ftruncate", errno, false);
        close(fd);
        unlink(p_rewrite_path);
        return rc;
    }
    *p_fd = fd;
    return 0;
}

// Syncs a complete image and renames it over the target.  On failure the
// image is gone and the target untouched.  Closes fd in every case.
qx_int32_t finish_image_file(qx_int32_t fd, char *p_rewrite_path, const char *p_target_file) {
    qx_int32_t rc = sr_i_fdatasync(fd);
    if (rc == 0) {
        sr_i_test_pause("copy-before-rename");
        rc = sr_i_rename_persistent_table(p_rewrite_path, p_target_file);
    }
    if (rc != 0) sr_i_sys_unlink(p_rewrite_path);
    close(fd);
    return rc;
}

// A private copy of the source's metadata record, as the file holds it.
char *metadata_image_of(const sr_i_table_t *p_table) {
    const char *p_record = p_table->p_metadata_record_data - kHeader;
    const qx_uint32_t length = sr_i_record_length(p_record);
    char *p_image = static_cast<char *>(sr_i_malloc(length));
    if (p_image == nullptr) return nullptr;
    std::memcpy(p_image, p_record, length);
    return p_image;
}

// Releases the old record of an open target that is being replaced: it
// leaves the tree's set at once and, like a deleted table, lives on until
// the last of its openers closes it.
void retire_target(sr_i_tree_t *p_tree, sr_i_table_t *p_target) {
    tdelete(p_target, &p_tree->p_tables, sr_i_table_compare);
    if (p_target->references == 0) sr_i_close_table(p_target);
}

// Reads the target's file into a fresh record and swaps it into the open
// record, whose handles then see the new contents.  Caller holds the tree's
// write lock.
qx_int32_t refresh_open_target(sr_i_table_t *p_target, qx_int32_t rc) {
    SR_I_ASSERT_WRITE_LOCKED(&p_target->p_tree->lock);
    sr_hash_table_t *p_hash_table = nullptr;
    if (p_target->p_rows_hash_table != nullptr) {
        // A hashed target is refreshed whatever happened before: the index's
        // result becomes the call's, as it always has.
        const sr_hash_table_t *p_old = p_target->p_rows_hash_table;
        rc = sr_i_hash_table_open(p_old->total_hash_buckets, p_old->p_hash_function,
                                  p_old->p_compare_function, &p_hash_table);
    }
    if (rc != 0) return rc;
    sr_i_table_t *p_fresh = nullptr;
    // A writer's record takes over its own claim on the file.
    sr_i_hand_over_claim(true);
    rc = sr_i_open_persistent_table(p_target->p_tree, p_target->p_persistent_table_registry_path,
                                    sr_i_set_data_path(p_target), p_target->mode,
                                    p_target->block_size, p_hash_table, &p_fresh);
    sr_i_hand_over_claim(false);
    if (rc != 0) return rc;
    rc = sr_i_rw_lock_write(&p_target->lock);
    if (rc != 0) {
        sr_i_close_table(p_fresh);
        return rc;
    }
    // Values other openers read from the old rows stay valid until they
    // close; the old pool waits for the record's last close.
    rc = sr_i_retire_record_buffer_pool(p_target);
    if (rc != 0) {
        sr_i_rw_unlock_write(&p_target->lock);
        sr_i_close_table(p_fresh);
        return rc;
    }
    sr_i_swap_after_metadata_update(p_target, p_fresh);
    // The copied file's application metadata comes with its rows.
    std::swap(p_target->p_application_metadata, p_fresh->p_application_metadata);
    qx_int32_t unlock_rc = sr_i_rw_unlock_write(&p_target->lock);
    sr_i_close_table(p_fresh);
    return unlock_rc;
}

// The copy of a source address, trying first the buffer the previous
// address lay in: rows added one after another lie in the same buffer, and a
// pool of many buffers would otherwise make the remapping of every row a
// walk over all of them.
char *map_address(const sr_i_record_buffer_pool_duplication_map_t *p_map, const char *p_from,
                  qx_uint32_t *p_hint) {
    const qx_uint32_t i = *p_hint;
    if (i < p_map->total && p_map->p_begin[i] <= p_from && p_from < p_map->p_end[i]) {
        return const_cast<char *>(p_from) + p_map->p_offset[i];
    }
    for (qx_uint32_t j = 0; j < p_map->total; ++j) {
        if (p_map->p_begin[j] <= p_from && p_from < p_map->p_end[j]) {
            *p_hint = j;
            return const_cast<char *>(p_from) + p_map->p_offset[j];
        }
    }
    return nullptr;
}

// A new row record in p_table's pool with the data of the row record at
// p_data, which lies outside any pool.  0 or 12.
qx_int32_t copy_foreign_record(sr_i_table_t *p_table, const char *p_data, char **p_copy) {
    const qx_uint32_t length = sr_i_record_length(p_data - SR_I_RECORD_HEADER_LENGTH);
    const qx_uint32_t data_length =
        length > SR_I_RECORD_HEADER_LENGTH ? length - SR_I_RECORD_HEADER_LENGTH : 0;
    qx_int32_t rc = sr_i_reserve_record(&p_table->record_buffer_pool, data_length,
                                        SR_I_RECORD_TYPE_ROW, p_copy);
    if (rc == 0) std::memcpy(*p_copy, p_data, data_length);
    return rc;
}

}  // namespace

qx_int32_t sr_i_lock_tree(const char *p_absolute_path, int lock_type, qx_int32_t *p_fd) {
    *p_fd = -1;
    const size_t length = std::strlen(p_absolute_path);
    char *p_lock_path = static_cast<char *>(sr_i_malloc(length + 32));
    if (p_lock_path == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    std::memcpy(p_lock_path, p_absolute_path, length + 1);
    char *p_last_slash = std::strrchr(p_lock_path, '/');
    std::memcpy(p_last_slash != nullptr ? p_last_slash : p_lock_path, kLockFile, sizeof kLockFile);
    qx_int32_t fd = sr_i_open_file(p_lock_path, O_RDWR | O_CREAT, 0644);
    std::free(p_lock_path);
    if (fd < 0) return SR_ERROR_SYSCALL("open", errno);
    if (lock_whole_file(fd, lock_type) != 0) {
        qx_int32_t rc = SR_ERROR_SYSCALL("lockf", errno);
        close(fd);
        return rc;
    }
    *p_fd = fd;
    return 0;
}

qx_int32_t sr_i_lock_local_tree_and_target_table_if_it_exists(const char *p_absolute_target_path,
                                                              qx_int32_t *p_target_fd,
                                                              qx_int32_t *p_local_tree_lock_fd,
                                                              qx_uint32_t *p_target_length) {
    const qx_int32_t given_fd = *p_target_fd;
    *p_target_fd = -1;
    *p_local_tree_lock_fd = -1;
    *p_target_length = 0;
    qx_int32_t lock_fd = -1;
    qx_int32_t rc = sr_i_lock_tree(p_absolute_target_path, F_LOCK, &lock_fd);
    if (rc != 0) return rc;
    qx_int32_t fd = given_fd;
    for (;;) {
        if (fd < 0) {
            // A missing target is not made here: it appears only by the rename of
            // a complete image, so that a copy that dies half-way leaves no
            // empty, unreadable table behind.  Nobody can hold the lock of a
            // file that does not exist, and other copiers wait on ",Lock".
            fd = sr_i_open_file(p_absolute_target_path, O_RDWR, 0644);
            if (fd < 0 && errno == ENOENT) {
                *p_local_tree_lock_fd = lock_fd;
                return 0;
            }
            if (fd < 0) {
                rc = SR_ERROR_FILE("open", errno, false);
                close(lock_fd);
                return rc;
            }
            // Registered: if this process has the target open for write in
            // another tree, closing this descriptor must not drop that lock.
            rc = sr_i_register_data_file(fd, 1);
            if (rc != 0) {
                sr_i_close_unregistered_data_file(fd);
                close(lock_fd);
                return rc;
            }
        }
        // A writer of the target in another tree of this process holds the
        // process's own lock, which lockf would grant again: writing beside
        // it would overwrite its commits.  Waiting for it could wait for the
        // caller itself, so the copy is refused.  The claim also keeps such a
        // writer out until the copy is done.
        if (given_fd < 0) rc = sr_i_try_claim_data_file(fd);
        // Waits for a writer of the target in another process to close it.
        if (rc != 0) {
            // refused above
        } else if (lock_whole_file(fd, F_LOCK) != 0) {
            rc = SR_ERROR_SYSCALL("lockf", errno);
        } else {
            off64_t end = lseek64(fd, 0, SEEK_END);
            if (end < 0) {
                rc = SR_ERROR_SYSCALL("lseek64", errno);
            } else {
                *p_target_length = end > static_cast<off64_t>(UINT32_MAX)
                                       ? UINT32_MAX
                                       : static_cast<qx_uint32_t>(end);
            }
        }
        if (rc == 0 && given_fd < 0 && !sr_i_fd_names_path(fd, p_absolute_target_path)) {
            // While we waited, the writer renamed a rewritten file over the
            // target (or removed it): the lock we hold is on a file the path no
            // longer names, and its writer may still be writing the new one.
            sr_i_close_data_file(fd);
            fd = -1;
            continue;
        }
        break;
    }
    if (rc != 0) {
        if (given_fd < 0) sr_i_close_data_file(fd);
        close(lock_fd);
        *p_target_length = 0;
        return rc;
    }
    *p_target_fd = fd;
    *p_local_tree_lock_fd = lock_fd;
    return 0;
}

qx_int32_t sr_i_duplicate_table_from_persistent_to_memory(sr_i_tree_t *p_tree,
                                                          const char *p_source_file,
                                                          const char *p_target_path,
                                                          sr_i_table_t **p_p_new_table) {
    sr_i_table_t *p_table = nullptr;
    qx_int32_t rc = sr_i_open_persistent_table(p_tree, nullptr, p_source_file, SR_MODE_READ,
                                               SR_I_MOUNT_BLOCK_SIZE, nullptr, &p_table);
    if (rc != 0) return rc;
    char *p_name = sr_i_strdup(p_target_path);
    if (p_name == nullptr) {
        sr_i_close_table(p_table);
        return SR_ERROR(SR_E_NO_MEMORY);
    }
    make_transient(p_table);
    p_table->mode = SR_MODE_WRITE;
    std::free(p_table->p_name);
    p_table->p_name = p_name;
    *p_p_new_table = p_table;
    return 0;
}

qx_int32_t sr_i_duplicate_table_from_memory_to_memory(sr_i_table_t *p_source,
                                                      const char *p_target_path,
                                                      sr_i_table_t **p_p_new_table) {
    sr_i_table_t *p_new = nullptr;
    qx_int32_t rc = sr_i_create_null_table(&p_new);
    if (rc != 0) return rc;
    p_new->p_tree = p_source->p_tree;
    p_new->mode = SR_MODE_WRITE;
    p_new->change_counter = p_source->change_counter;
    p_new->p_name = sr_i_strdup(p_target_path);
    if (p_new->p_name == nullptr) rc = SR_ERROR(SR_E_NO_MEMORY);

    // Every record at once: one copy of the pool, then each address of the
    // source translated into the copy.
    sr_i_record_buffer_pool_duplication_map_t *p_map = nullptr;
    if (rc == 0) {
        rc = sr_i_rb_duplicate_record_buffer_pool(&p_source->record_buffer_pool,
                                                  &p_new->record_buffer_pool, &p_map);
    }
    if (rc == 0) {
        p_new->p_metadata_record_data =
            sr_i_rb_map_duplicated_address(p_map, p_source->p_metadata_record_data);
        p_new->total_columns = p_source->total_columns;
        p_new->total_variable_length_columns = p_source->total_variable_length_columns;
        rc = sr_i_load_columns(p_new);
    }
    if (rc == 0) rc = sr_i_establish_rows_index(p_new, p_source->maximum_rows);
    if (rc == 0 && p_source->p_rows_hash_table != nullptr) {
        const sr_hash_table_t *p_index = p_source->p_rows_hash_table;
        rc = sr_i_hash_table_open(p_index->total_hash_buckets, p_index->p_hash_function,
                                  p_index->p_compare_function, &p_new->p_rows_hash_table);
    }
    if (rc == 0) {
        // The copy holds the working version of every row, committed; other
        // versions are given back to its pool.  Rows keep their fixed index.
        qx_uint32_t live = 0;
        qx_uint32_t hint = 0;
        for (qx_uint32_t f = 0; f < p_new->maximum_rows && rc == 0; ++f) {
            const sr_i_index_entry_t &from = p_source->p_rows_fixed_index[f];
            sr_i_index_entry_t &to = p_new->p_rows_fixed_index[f];
            std::memset(&to, 0, sizeof to);
            char *p_applied =
                from.p_applied != nullptr ? map_address(p_map, from.p_applied, &hint) : nullptr;
            if (from.p_applied != nullptr && p_applied == nullptr) {
                // A table unpacked from a caller's buffer reads its rows in
                // that buffer, outside its pool: the copy takes its own.
                rc = copy_foreign_record(p_new, from.p_applied, &p_applied);
            }
            if (from.p_committed != nullptr && from.p_committed != from.p_applied) {
                rc = sr_i_rb_free_record(&p_new->record_buffer_pool,
                                         map_address(p_map, from.p_committed, &hint));
            }
            if (p_applied != nullptr) {
                to.p_applied = p_applied;
                to.p_committed = p_applied;
                ++live;
            }
        }
        // The free chain again, from the top down so that each insertion is
        // at its head.
        p_new->p_rows_free_chain = nullptr;
        for (qx_uint32_t f = p_new->maximum_rows; f-- > 0;) {
            sr_i_index_entry_t *p_entry = &p_new->p_rows_fixed_index[f];
            if (p_entry->p_applied == nullptr) sr_i_rows_free_chain_insert(p_new, p_entry);
        }
        p_new->total_applied_rows = live;
        p_new->total_committed_rows = live;
    }
    if (rc == 0) rc = sr_i_establish_secondary_row_access(p_new);
    if (rc == 0) {
        if (p_source->p_application_metadata != nullptr) {
            rc = sr_i_duplicate_application_metadata_buffer(p_source->p_application_metadata,
                                                            &p_new->p_application_metadata);
        } else {
            rc = sr_i_allocate_application_metadata_buffer(1, &p_new->p_application_metadata);
        }
    }
    if (p_map != nullptr) sr_i_rb_free_duplication_map(p_map);
    if (rc != 0) {
        sr_i_close_table(p_new);
        return rc;
    }
    *p_p_new_table = p_new;
    return 0;
}

qx_int32_t sr_i_rename_memory_table(sr_i_table_t *p_table, const char *p_target_path) {
    // The record itself moves: its openers keep their handles, which now
    // name the target.  Its name is allocated first so that a failure
    // leaves the table where it was.
    char *p_name = sr_i_strdup(p_target_path);
    if (p_name == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    (void)sr_i_remove_table(p_table);
    make_transient(p_table);
    std::free(p_table->p_name);
    p_table->p_name = p_name;
    return 0;
}

qx_int32_t sr_i_duplicate_table_from_memory_to_persistent(sr_i_table_t *p_source,
                                                          char *p_target_rewrite_path,
                                                          const char *p_target_file) {
    char *p_metadata = metadata_image_of(p_source);
    if (p_metadata == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    char *p_commit_record = nullptr;
    qx_uint32_t commit_length = 0;
    qx_int32_t rc =
        sr_i_create_commit_record(p_source->p_application_metadata, p_source->change_counter,
                                  &commit_length, &p_commit_record);
    qx_int32_t fd = -1;
    if (rc == 0) rc = open_image_file(p_target_rewrite_path, &fd);
    if (rc != 0) {
        std::free(p_commit_record);
        std::free(p_metadata);
        return rc;
    }

    // The image of a rewrite: metadata record, every live row of the working
    // version as a new row, the commit record.  A new row replaces nothing:
    // its first word goes out as 0 without touching the source's record,
    // whose word a later apply of the source still needs.
    static const qx_uint32_t kZero = 0;
    struct iovec vector[SR_I_IO_VECTOR_SIZE];
    sr_i_image_writer_t image{fd, vector, 0, 0, 0, 0};
    rc = sr_i_image_writer_add(&image, p_metadata, sr_i_record_length(p_metadata));
    const qx_uint32_t live = p_source->total_applied_rows > p_source->applied_deletions
                                 ? p_source->total_applied_rows - p_source->applied_deletions
                                 : 0;
    qx_uint32_t taken = 0;
    for (qx_uint32_t f = 0; f < p_source->maximum_rows && taken < live && rc == 0; ++f) {
        const char *p_data = p_source->p_rows_fixed_index[f].p_applied;
        if (p_data == nullptr) continue;
        const char *p_record = p_data - kHeader;
        const qx_uint32_t length = sr_i_record_length(p_record);
        if (sr_i_record_type(p_record) == SR_I_RECORD_TYPE_ROW && length >= kHeader + 4) {
            rc = sr_i_image_writer_add(&image, p_record, kHeader);
            if (rc == 0) rc = sr_i_image_writer_add(&image, &kZero, 4);
            if (rc == 0 && length > kHeader + 4)
                rc = sr_i_image_writer_add(&image, p_data + 4, length - kHeader - 4);
        } else {
            rc = sr_i_image_writer_add(&image, p_record, length);
        }
        ++taken;
    }
    if (rc == 0) rc = sr_i_image_writer_add(&image, p_commit_record, commit_length);
    if (rc == 0) rc = sr_i_image_writer_flush(&image);
    std::free(p_commit_record);
    std::free(p_metadata);
    if (rc != 0) {
        close(fd);
        unlink(p_target_rewrite_path);
        return rc;
    }
    return finish_image_file(fd, p_target_rewrite_path, p_target_file);
}

qx_int32_t sr_i_duplicate_table_from_persistent_to_persistent(const char *p_source_file,
                                                              char *p_target_rewrite_path,
                                                              const char *p_target_file) {
    qx_int32_t source_fd = sr_i_open_file(p_source_file, O_RDONLY, 0644);
    if (source_fd < 0) return SR_ERROR_FILE("open", errno, true);
    // This process may hold the source's writer lock through another
    // descriptor; the register keeps it alive when this one closes.
    qx_int32_t rc = sr_i_register_data_file(source_fd, 0);
    if (rc != 0) {
        close(source_fd);
        return rc;
    }
    qx_int32_t fd = -1;
    rc = open_image_file(p_target_rewrite_path, &fd);
    if (rc != 0) {
        sr_i_close_data_file(source_fd);
        return rc;
    }
    // The bytes as they stand: whatever follows the source's first commit
    // record is never read in the copy either.
    char buffer[kCopyChunk];
    for (;;) {
        ssize_t got = read(source_fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            rc = SR_ERROR_SYSCALL("read", errno);
            break;
        }
        if (got == 0) break;
        rc = sr_i_write(fd, buffer, static_cast<size_t>(got));
        if (rc != 0) break;
    }
    sr_i_close_data_file(source_fd);
    if (rc != 0) {
        close(fd);
        unlink(p_target_rewrite_path);
        return rc;
    }
    return finish_image_file(fd, p_target_rewrite_path, p_target_file);
}

qx_int32_t sr_i_rename_persistent_table(const char *p_source_file, const char *p_target_file) {
    if (sr_i_sys_rename(p_source_file, p_target_file) != 0) {
        return SR_ERROR_FILE("rename", errno, true);
    }
    // The copy or move is durable only with the directories that changed;
    // it is made, so a failure to sync them is captured, not returned.
    (void)sr_i_sync_directory_of(p_target_file);
    const char *p_source_slash = std::strrchr(p_source_file, '/');
    const char *p_target_slash = std::strrchr(p_target_file, '/');
    const size_t source_directory = p_source_slash == nullptr ? 0 : p_source_slash - p_source_file;
    const size_t target_directory = p_target_slash == nullptr ? 0 : p_target_slash - p_target_file;
    if (source_directory != target_directory ||
        std::strncmp(p_source_file, p_target_file, source_directory) != 0) {
        (void)sr_i_sync_directory_of(p_source_file);
    }
    return 0;
}

qx_int32_t sr_i_remove_table(sr_i_table_t *p_table) {
    if (p_table->file_path_length != 0 && p_table->p_file_path != nullptr) {
        if (sr_i_sys_unlink(sr_i_set_data_path(p_table)) != 0) {
            return SR_ERROR_FILE("unlink", errno, true);
        }
        // A rewrite file left by a crash goes too; usually there is none.
        (void)sr_i_sys_unlink(sr_i_set_rewrite_path(p_table));
        (void)sr_i_sync_directory_of(sr_i_set_data_path(p_table));
    }
    drop_from_tree(p_table);
    return 0;
}

qx_int32_t sr_i_remove_persistent_table_without_handle(sr_i_tree_t *p_tree,
                                                       const char *p_absolute_table_path) {
    if (sr_i_sys_unlink(p_absolute_table_path) != 0) {
        return SR_ERROR_FILE("unlink", errno, true);
    }
    char *p_rewrite = rewrite_path_of(p_absolute_table_path);
    if (p_rewrite != nullptr) {
        (void)sr_i_sys_unlink(p_rewrite);
        std::free(p_rewrite);
    }
    (void)sr_i_sync_directory_of(p_absolute_table_path);
    void *p_node = tfind(p_absolute_table_path, &p_tree->p_tables, sr_i_string_to_table_compare);
    if (p_node != nullptr) {
        sr_i_table_t *p_table = *static_cast<sr_i_table_t **>(p_node);
        tdelete(p_table, &p_tree->p_tables, sr_i_table_compare);
        if (p_table->references == 0) sr_i_close_table(p_table);
    }
    return 0;
}

namespace {

// Everything one duplication holds, released in reverse order by its
// destructor on every way out.
struct duplication_t {
    sr_i_tree_t *p_tree = nullptr;
    bool tree_locked = false;
    sr_i_table_t *p_source = nullptr;
    bool source_locked = false;
    bool free_source = false;       // a moved transient source nobody has open
    char *p_source_file = nullptr;  // resolved persistent source path (ours)
    char *p_target_file = nullptr;  // resolved persistent target path (ours)
    char *p_target_rewrite = nullptr;

    ~duplication_t() {
        std::free(p_target_rewrite);
        std::free(p_target_file);
        std::free(p_source_file);
        if (source_locked) sr_i_rw_unlock_read(&p_source->lock);
        if (free_source) sr_i_close_table(p_source);
        if (tree_locked) sr_i_rw_unlock_write(&p_tree->lock);
    }
};

// A memory target: a new record (or the moved source itself) is put in the
// tree's set under the target's name.
qx_int32_t duplicate_to_memory(duplication_t &d, const char *p_source_path_resolved,
                               const char *p_target_path, sr_i_table_t *p_target,
                               qx_uint32_t remove_source, qx_int32_t overwrite_target) {
    if (p_target != nullptr && overwrite_target == 0) return SR_ERROR(SR_E_TABLE_EXISTS);
    sr_i_table_t *p_new = nullptr;
    qx_int32_t rc = 0;
    if (d.p_source == nullptr) {
        rc = sr_i_duplicate_table_from_persistent_to_memory(d.p_tree, p_source_path_resolved,
                                                            p_target_path, &p_new);
        if (rc != 0) return rc;
        // Nobody holds a handle of the new table yet.
        p_new->references = 0;
        if (remove_source) {
            (void)sr_i_remove_persistent_table_without_handle(d.p_tree, p_source_path_resolved);
        }
    } else if (remove_source == 0) {
        rc = sr_i_duplicate_table_from_memory_to_memory(d.p_source, p_target_path, &p_new);
        if (rc != 0) return rc;
        p_new->references = 0;
    } else {
        rc = sr_i_rename_memory_table(d.p_source, p_target_path);
        if (rc != 0) return rc;
        p_new = d.p_source;
    }
    if (p_target != nullptr) retire_target(d.p_tree, p_target);
    if (tsearch(p_new, &d.p_tree->p_tables, sr_i_table_compare) == nullptr) {
        if (p_new != d.p_source) sr_i_close_table(p_new);
        return SR_ERROR(SR_E_NO_MEMORY);
    }
    return 0;
}

// A file target, under the directory's lock and the target file's lock.
qx_int32_t duplicate_to_file(duplication_t &d, const char *p_source_path_resolved,
                             sr_i_table_t *p_target, qx_uint32_t remove_source,
                             qx_int32_t overwrite_target) {
    d.p_target_rewrite = rewrite_path_of(d.p_target_file);
    if (d.p_target_rewrite == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    // An open writer of the target in this tree already holds the file's
    // lock through its descriptor; a reader's descriptor cannot take one.
    const bool use_open_fd =
        p_target != nullptr && (p_target->mode & SR_MODE_WRITE) != 0 && p_target->file_fd >= 0;
    qx_int32_t target_fd = use_open_fd ? p_target->file_fd : -1;
    qx_int32_t lock_fd = -1;
    qx_uint32_t target_length = 0;
    qx_int32_t rc = sr_i_lock_local_tree_and_target_table_if_it_exists(d.p_target_file, &target_fd,
                                                                       &lock_fd, &target_length);
    if (rc == 0) {
        if (target_length != 0 && overwrite_target == 0) {
            rc = SR_ERROR(SR_E_TABLE_EXISTS);
        } else if (d.p_source == nullptr) {
            if (remove_source == 0) {
                rc = sr_i_duplicate_table_from_persistent_to_persistent(
                    p_source_path_resolved, d.p_target_rewrite, d.p_target_file);
            } else {
                rc = sr_i_rename_persistent_table(p_source_path_resolved, d.p_target_file);
                if (rc == 0) {
                    // The rename took the source's name away with its file;
                    // a left-over rewrite file of the source goes too.
                    char *p_source_rewrite = rewrite_path_of(p_source_path_resolved);
                    if (p_source_rewrite != nullptr) {
                        (void)unlink(p_source_rewrite);
                        std::free(p_source_rewrite);
                    }
                }
            }
        } else {
            rc = sr_i_duplicate_table_from_memory_to_persistent(d.p_source, d.p_target_rewrite,
                                                                d.p_target_file);
            if (rc == 0 && remove_source != 0) {
                (void)sr_i_remove_table(d.p_source);
                // A transient source kept after its last close has no opener
                // to free it later.
                if (d.p_source->p_file_path == nullptr && d.p_source->references == 0) {
                    d.free_source = true;
                }
            }
        }
        if (target_fd >= 0 && !use_open_fd) sr_i_close_data_file(target_fd);
        close(lock_fd);
    }
    // Whatever happened, an open target is read again (for a hashed one even
    // after a failure, whose code then gives way to the index's).
    if (p_target != nullptr) rc = refresh_open_target(p_target, rc);
    return rc;
}

}  // namespace

qx_int32_t sr_i_duplicate_table(sr_opaque_handle_t tree_handle,
                                sr_opaque_handle_t source_table_handle, qx_char_ptr_t p_source_path,
                                qx_char_ptr_t p_target_path, qx_uint32_t remove_source,
                                qx_int32_t overwrite_target) {
    duplication_t d;
    d.p_tree = static_cast<sr_i_tree_t *>(tree_handle);
    if (d.p_tree == nullptr) return SR_ERROR(SR_E_INVALID_HANDLE);
    qx_int32_t rc = sr_i_rw_lock_write(&d.p_tree->lock);
    if (rc != 0) return rc;
    d.tree_locked = true;

    // The source: the given record, an open record of the path, or the file
    // of a persistent path alone.
    const char *p_source_name = nullptr;
    if (source_table_handle != nullptr) {
        d.p_source = static_cast<sr_i_table_t *>(source_table_handle);
        p_source_name = d.p_source->p_name;
    } else {
        qx_char_ptr_t p_resolved = nullptr;
        qx_uint32_t block_size = 0;
        rc = sr_i_resolve_path(d.p_tree, p_source_path, &p_resolved, &block_size);
        if (rc != 0) return rc;
        if (block_size != 0) d.p_source_file = p_resolved;
        p_source_name = p_resolved;
        void *p_node = tfind(p_resolved, &d.p_tree->p_tables, sr_i_string_to_table_compare);
        if (p_node != nullptr) {
            d.p_source = *static_cast<sr_i_table_t **>(p_node);
        } else if (block_size == 0) {
            return SR_ERROR(SR_E_NO_TABLE);
        }
    }

    // The target, and its open record if it has one.
    qx_char_ptr_t p_target_resolved = nullptr;
    qx_uint32_t target_block_size = 0;
    rc = sr_i_resolve_path(d.p_tree, p_target_path, &p_target_resolved, &target_block_size);
    if (rc != 0) return rc;
    if (target_block_size != 0) d.p_target_file = p_target_resolved;
    void *p_node = tfind(p_target_resolved, &d.p_tree->p_tables, sr_i_string_to_table_compare);
    sr_i_table_t *p_target = p_node != nullptr ? *static_cast<sr_i_table_t **>(p_node) : nullptr;

    // A table is never its own target: a move would remove what it made.
    if ((p_target != nullptr && p_target == d.p_source) ||
        (p_source_name != nullptr && std::strcmp(p_source_name, p_target_resolved) == 0)) {
        return SR_ERROR(SR_E_TABLE_EXISTS);
    }
    // An open target with changes in flight cannot be replaced (or, for a
    // file, read again) under its openers; a memory target that is not to be
    // replaced is simply refused below.
    if (p_target != nullptr && has_uncommitted_state(p_target) &&
        (overwrite_target != 0 || target_block_size != 0)) {
        return SR_ERROR(SR_E_NOT_COMMITTED);
    }

    if (d.p_source != nullptr) {
        rc = sr_i_rw_lock_read(&d.p_source->lock);
        if (rc != 0) return rc;
        d.source_locked = true;
    }
    // For a source record the file path is its own; for a file-only source
    // it is the resolved one.
    const char *p_source_file = d.p_source_file;
    if (target_block_size == 0) {
        return duplicate_to_memory(d, p_source_file, p_target_resolved, p_target, remove_source,
                                   overwrite_target);
    }
    return duplicate_to_file(d, p_source_file, p_target, remove_source, overwrite_target);
}
