// The system calls under the file layer, in one place so that tests can stand
// between the registry and the disk.
//
// This file is compiled twice.  Into the shared library, which is what gets
// installed, each sr_i_sys_* makes its call directly: the shipped library has
// nothing a test or a stray setting could redirect.  Into the static archive
// the tests link, with QX_TEST_SEAMS, each goes through the table
// sr_i_file_ops, whose entries a fault-injection test swaps to make a call fail
// exactly as a full disk, a failing device or a signal would.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "sr_i_files.h"

SR_SOURCE_FILE("sr/sr_i_system_calls", "1.1");

namespace {

int real_open(const char *p_path, int flags, mode_t mode) {
    return open(p_path, flags, mode);
}

// Where the file system cannot rename without replacing, a link and an
// unlink give the same guarantee; only a crash between the two can leave
// both names (the ".rewrite" name is then cleaned up like any left-over).
int real_rename_noreplace(const char *p_from, const char *p_to) {
    if (renameat2(AT_FDCWD, p_from, AT_FDCWD, p_to, RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return -1;
    if (link(p_from, p_to) != 0) return -1;
    (void)unlink(p_from);
    return 0;
}

int real_usleep(unsigned int microseconds) {
    return usleep(static_cast<useconds_t>(microseconds));
}

}  // namespace

#if defined(QX_TEST_SEAMS)

namespace {

// Constant-initialised, so the table is set before any static constructor of
// the process could use it.
constexpr sr_i_file_ops_t kRealFileOps = {
    real_open,
    write,
    writev,
    fdatasync,
    mkdir,
    real_usleep,
    fsync,
    rename,
    unlink,
    ftruncate,
    real_rename_noreplace,
};

}  // namespace

const sr_i_file_ops_t sr_i_default_file_ops = kRealFileOps;
sr_i_file_ops_t sr_i_file_ops = kRealFileOps;

int sr_i_sys_open(const char *p_path, int flags, mode_t mode) {
    return sr_i_file_ops.p_open(p_path, flags, mode);
}
ssize_t sr_i_sys_write(int fd, const void *p_buffer, size_t length) {
    return sr_i_file_ops.p_write(fd, p_buffer, length);
}
ssize_t sr_i_sys_writev(int fd, const struct iovec *p_vector, int count) {
    return sr_i_file_ops.p_writev(fd, p_vector, count);
}
int sr_i_sys_fdatasync(int fd) {
    return sr_i_file_ops.p_fdatasync(fd);
}
int sr_i_sys_mkdir(const char *p_path, mode_t mode) {
    return sr_i_file_ops.p_mkdir(p_path, mode);
}
int sr_i_sys_usleep(unsigned int microseconds) {
    return sr_i_file_ops.p_usleep(microseconds);
}
int sr_i_sys_fsync(int fd) {
    return sr_i_file_ops.p_fsync(fd);
}
int sr_i_sys_rename(const char *p_from, const char *p_to) {
    return sr_i_file_ops.p_rename(p_from, p_to);
}
int sr_i_sys_unlink(const char *p_path) {
    return sr_i_file_ops.p_unlink(p_path);
}
int sr_i_sys_ftruncate(int fd, off_t length) {
    return sr_i_file_ops.p_ftruncate(fd, length);
}
int sr_i_sys_rename_noreplace(const char *p_from, const char *p_to) {
    return sr_i_file_ops.p_rename_noreplace(p_from, p_to);
}
// A test that replaced the plain write or writev to watch or fail it still
// sees every positioned write through it, after a seek.
ssize_t sr_i_sys_pwrite(int fd, const void *p_buffer, size_t length, off64_t at) {
    if (sr_i_file_ops.p_write == sr_i_default_file_ops.p_write) {
        return pwrite64(fd, p_buffer, length, at);
    }
    if (lseek64(fd, at, SEEK_SET) < 0) return -1;
    return sr_i_file_ops.p_write(fd, p_buffer, length);
}
ssize_t sr_i_sys_pwritev(int fd, const struct iovec *p_vector, int count, off64_t at) {
    if (sr_i_file_ops.p_writev == sr_i_default_file_ops.p_writev) {
        return pwritev64(fd, p_vector, count, at);
    }
    if (lseek64(fd, at, SEEK_SET) < 0) return -1;
    return sr_i_file_ops.p_writev(fd, p_vector, count);
}

#else

int sr_i_sys_open(const char *p_path, int flags, mode_t mode) {
    return real_open(p_path, flags, mode);
}
ssize_t sr_i_sys_write(int fd, const void *p_buffer, size_t length) {
    return write(fd, p_buffer, length);
}
ssize_t sr_i_sys_writev(int fd, const struct iovec *p_vector, int count) {
    return writev(fd, p_vector, count);
}
ssize_t sr_i_sys_pwrite(int fd, const void *p_buffer, size_t length, off64_t at) {
    return pwrite64(fd, p_buffer, length, at);
}
ssize_t sr_i_sys_pwritev(int fd, const struct iovec *p_vector, int count, off64_t at) {
    return pwritev64(fd, p_vector, count, at);
}
int sr_i_sys_fdatasync(int fd) {
    return fdatasync(fd);
}
int sr_i_sys_mkdir(const char *p_path, mode_t mode) {
    return mkdir(p_path, mode);
}
int sr_i_sys_usleep(unsigned int microseconds) {
    return real_usleep(microseconds);
}
int sr_i_sys_fsync(int fd) {
    return fsync(fd);
}
int sr_i_sys_rename(const char *p_from, const char *p_to) {
    return rename(p_from, p_to);
}
int sr_i_sys_unlink(const char *p_path) {
    return unlink(p_path);
}
int sr_i_sys_ftruncate(int fd, off_t length) {
    return ftruncate(fd, length);
}
int sr_i_sys_rename_noreplace(const char *p_from, const char *p_to) {
    return real_rename_noreplace(p_from, p_to);
}

#endif
