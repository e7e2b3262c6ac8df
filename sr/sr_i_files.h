/*
 * sr_i_files.h - registry paths and mount points (sr_i_paths.cpp), the file
 * primitives and the register of data file descriptors with their locks
 * (sr_i_files.cpp), and the directory lock (sr_i_duplicate_table.cpp).
 */
#ifndef SR_I_FILES_H
#define SR_I_FILES_H

#include <sys/types.h>
#include <sys/uio.h>

#include "sr_i_tree.h"

/* --- registry paths (sr_i_paths.cpp) --- */

/* Longest registry path accepted, in bytes. */
constexpr auto SR_I_MAX_PATH_LENGTH = 255;
/* Bytes beyond the file path that a resolved path buffer always has, so a
 * suffix such as ".rewrite" can be appended in place. */
constexpr auto SR_I_PATH_SLACK = 32;

/* 0, or 102 (reported, with the path or "<NULL POINTER>"). */
qx_int32_t sr_i_check_path_syntax(qx_char_ptr_t p_path);
/* Maps a registry path through the tree's mount points.  Persistent:
 * *p_persistent is the mount point's block size and *p_absolute_registry_path
 * a malloc'd file path (SR_I_PATH_SLACK spare bytes) the caller frees.
 * Transient: *p_persistent is 0 and *p_absolute_registry_path is p_registry_path
 * itself.  Caller holds the tree's lock.  0, 102 or 12. */
qx_int32_t sr_i_resolve_path(sr_i_tree_t *p_tree, qx_char_ptr_t p_registry_path,
                             qx_char_ptr_t *p_absolute_registry_path, qx_uint32_t *p_persistent);
/* mkdir -p with mode 0755; p_path is cut and restored in place.  0, 10 or 13. */
qx_int32_t sr_i_create_all_directories_in_path(qx_char_ptr_t p_path);

/* --- mount points (sr_i_paths.cpp) --- */

/* Mount block size handed to the table code through path resolution. */
constexpr auto SR_I_MOUNT_BLOCK_SIZE = 512;

/* The work of sr_mount_local_tree_1; caller holds ForkMutex and the tree's
 * write lock.  0, 102, 201, 207, 10, 12 or 13; the tree is unchanged on
 * failure (directories already created stay). */
qx_int32_t sr_i_mount_local_tree(sr_i_tree_t *p_tree, qx_char_ptr_t p_registry_path,
                                 const char *p_filesystem_path);
/* The work of sr_unmount_local_tree_1; caller holds the tree's write lock.
 * 0, 102, 208 or 12. */
qx_int32_t sr_i_unmount_local_tree(sr_i_tree_t *p_tree, qx_char_ptr_t p_registry_path);

/* --- file primitives (sr_i_files.cpp) --- */

/* An interrupted call is retried after SR_I_RETRY_INTERVAL microseconds, at
 * most SR_I_RETRY_LIMIT times. */
constexpr auto SR_I_RETRY_LIMIT = 100;
constexpr auto SR_I_RETRY_INTERVAL = 10000;

/* The system calls under the file layer (sr_i_system_calls.cpp).  Every
 * open, write, sync, rename, unlink and truncation of a table or directory
 * goes through these.  The shipped library makes the calls directly; the
 * static archive the tests link is built with QX_TEST_SEAMS, and there each
 * goes through sr_i_file_ops below. */
int sr_i_sys_open(const char *p_path, int flags, mode_t mode);
ssize_t sr_i_sys_write(int fd, const void *p_buffer, size_t length);
ssize_t sr_i_sys_writev(int fd, const struct iovec *p_vector, int count);
/* write(2) and writev(2) at a file offset (pwrite64, pwritev64). */
ssize_t sr_i_sys_pwrite(int fd, const void *p_buffer, size_t length, off64_t at);
ssize_t sr_i_sys_pwritev(int fd, const struct iovec *p_vector, int count, off64_t at);
int sr_i_sys_fdatasync(int fd);
int sr_i_sys_mkdir(const char *p_path, mode_t mode);
int sr_i_sys_usleep(unsigned int microseconds);
int sr_i_sys_fsync(int fd);
int sr_i_sys_rename(const char *p_from, const char *p_to);
int sr_i_sys_unlink(const char *p_path);
int sr_i_sys_ftruncate(int fd, off_t length);
/* rename(2) that fails with EEXIST instead of replacing p_to. */
int sr_i_sys_rename_noreplace(const char *p_from, const char *p_to);

/* Test builds only (QX_TEST_SEAMS): the table the calls above go through.
 * The defaults are the real calls; tests swap entries (with no primitive
 * running) to inject EINTR, short writes and errors, and put
 * sr_i_default_file_ops back afterwards. */
struct sr_i_file_ops_t {
    int (*p_open)(const char *p_path, int flags, mode_t mode);
    ssize_t (*p_write)(int fd, const void *p_buffer, size_t length);
    ssize_t (*p_writev)(int fd, const struct iovec *p_vector, int count);
    int (*p_fdatasync)(int fd);
    int (*p_mkdir)(const char *p_path, mode_t mode);
    int (*p_usleep)(unsigned int microseconds);
    int (*p_fsync)(int fd);
    int (*p_rename)(const char *p_from, const char *p_to);
    int (*p_unlink)(const char *p_path);
    int (*p_ftruncate)(int fd, off_t length);
    int (*p_rename_noreplace)(const char *p_from, const char *p_to);
};
extern const sr_i_file_ops_t sr_i_default_file_ops;
extern sr_i_file_ops_t sr_i_file_ops;

/* Reports a failed file system call with the one errno mapping of the file
 * layer: EACCES 206, ENOSPC 13, ENOENT 200 when the table must exist,
 * anything else 10 naming the call.  Returns the code. */
qx_int32_t sr_i_set_file_error(const sr_i_source_t &source, const char *p_function, int line,
                               const char *p_call, int the_errno, bool table_must_exist);
#define SR_ERROR_FILE(call, err, must_exist) \
    sr_i_set_file_error(sr_i_this_source, __func__, __LINE__, (call), (err), (must_exist))

/* open(2) with the EINTR retry; the descriptor, or -1 with errno as open left
 * it.  Records no error: the caller reports with its own code. */
qx_int32_t sr_i_open_file(const char *path, int OFlag, mode_t Mode);
/* Writes the whole buffer, resuming short writes.  0, 10, 13 or 206. */
qx_int32_t sr_i_write(qx_int32_t fd, void *p_buffer, size_t total_bytes_to_write);
/* Writes the whole vector, resuming short writes across its elements (the
 * caller's vector is modified).  Every byte written, also before a failure,
 * is added to *cumulative_bytes_written.  0, 10, 13 or 206. */
qx_int32_t sr_i_writev(qx_int32_t fd, struct iovec *io_vector, qx_uint32_t total_io_vector_elements,
                       ssize_t total_bytes_to_write, qx_uint32_t *cumulative_bytes_written);
/* sr_i_write and sr_i_writev at a file offset, in one system call each, the
 * descriptor's own offset left as it is. */
qx_int32_t sr_i_write_at(qx_int32_t fd, void *p_buffer, size_t total_bytes_to_write,
                         qx_uint64_t offset);
qx_int32_t sr_i_writev_at(qx_int32_t fd, struct iovec *io_vector,
                          qx_uint32_t total_io_vector_elements, ssize_t total_bytes_to_write,
                          qx_uint32_t *cumulative_bytes_written, qx_uint64_t offset);
/* The reader refuses table files this close to 4 GiB (offsets are 32-bit and
 * its read guess adds a page), so no writer makes one. */
constexpr qx_uint64_t SR_I_LARGEST_FILE_LENGTH = UINT32_MAX - 4 * 4096;
/* The records of one apply or file image on their way to the file: pieces
 * are queued in p_vector (SR_I_IO_VECTOR_SIZE entries, straight from where
 * they lie, no copy) and written with one writev per full vector.  `offset`
 * is the file offset the next piece lands at; `written` counts every byte
 * that reached the file, also before a failure.  Start one as
 * {fd, vector, first offset}. */
typedef struct {
    qx_int32_t fd;
    struct iovec *p_vector;
    qx_uint32_t offset;
    qx_uint32_t elements;
    qx_uint64_t batch_bytes;
    qx_uint32_t written;
} sr_i_image_writer_t;
/* Queues a piece; writes the vector when it is full.  13 when the file would
 * grow past SR_I_LARGEST_FILE_LENGTH; else 0 or what sr_i_writev returns. */
qx_int32_t sr_i_image_writer_add(sr_i_image_writer_t *p_writer, const void *p_piece,
                                 qx_uint32_t length);
/* Writes what is queued.  0 or what sr_i_writev returns. */
qx_int32_t sr_i_image_writer_flush(sr_i_image_writer_t *p_writer);
/* fdatasync(2); every failure is first captured in "reginfo_pid.<pid>".
 * 0, 10, 13 or 206. */
qx_int32_t sr_i_fdatasync(qx_int32_t fd);
/* fsync(2) of the directory that holds p_path, so that a rename or unlink
 * made there survives a power loss.  A failure is captured as a failed sync
 * is and reported (10 naming "fsync", or "open"); the name change itself has
 * been made and stays. */
qx_int32_t sr_i_sync_directory_of(const char *p_path);
/* Whether p_path still names the file fd is open on.  After waiting for a
 * file's lock, the file may have been renamed over the path (or the path
 * removed) by the holder; the waiter must then start again on the path. */
bool sr_i_fd_names_path(qx_int32_t fd, const char *p_path);

/* --- data file register (sr_i_files.cpp) --- */

/* Data file descriptors of the process.  A lockf lock belongs to the process
 * and dies with the first close of ANY descriptor of its file, so every data
 * file descriptor is registered here and closed only through
 * sr_i_close_data_file, which keeps it open while another descriptor of the
 * same file still holds the writer's lock. */
qx_int32_t sr_i_register_data_file(qx_int32_t fd, qx_uint32_t holds_lock);
void sr_i_close_data_file(qx_int32_t fd);
/* A writer's claim on its file (holds_lock 2 above registers a descriptor
 * whose lock is already held as claimed).  sr_i_lock_data_file waits until
 * no other descriptor of the file in this process is claimed, claims the
 * registered fd and lockf's it (waiting for other processes): 0, 10 "lockf".
 * sr_i_data_file_claimed says whether fd is claimed by this process (false
 * in a forked child: the lock stayed with the parent).  Between
 * sr_i_hand_over_claim(true) and (false), this thread's claims ignore the
 * claims of others: for a record that replaces an open writer's. */
qx_int32_t sr_i_lock_data_file(qx_int32_t fd);
/* Claims the registered fd without waiting: 211 when another descriptor of
 * the file is claimed by this process (a writer in another tree, whose
 * release the caller cannot wait for), 0 otherwise. */
qx_int32_t sr_i_try_claim_data_file(qx_int32_t fd);
bool sr_i_data_file_claimed(qx_int32_t fd);
/* A parked descriptor of the file p_path names, taken back into use for a
 * reader (registered, holding no lock), or -1 when there is none. */
qx_int32_t sr_i_reuse_parked_data_file(const char *p_path);
/* Closes a data file descriptor that could not be registered, unless a
 * writer of this process holds the file's lock (then it stays open). */
void sr_i_close_unregistered_data_file(qx_int32_t fd);
void sr_i_hand_over_claim(bool on);

/* --- directory and target locks (sr_i_duplicate_table.cpp) --- */

/* Opens (creating it when missing) the ",Lock" file of the directory of
 * p_absolute_path and lockf's it with lock_type; the lock lasts until *p_fd
 * is closed.  12, or 10 naming "open" or "lockf". */
qx_int32_t sr_i_lock_tree(const char *p_absolute_path, int lock_type, qx_int32_t *p_fd);
/* The directory lock, then the target file's lock (*p_target_fd -1 on entry
 * means "open it here") and the target's length.  A missing target is not
 * created: the outputs are then -1 and length 0 under the directory lock.  On
 * failure everything opened here is closed and the outputs are -1, -1, 0. */
qx_int32_t sr_i_lock_local_tree_and_target_table_if_it_exists(const char *p_absolute_target_path,
                                                              qx_int32_t *p_target_fd,
                                                              qx_int32_t *p_local_tree_lock_fd,
                                                              qx_uint32_t *p_target_length);

#endif /* SR_I_FILES_H */
