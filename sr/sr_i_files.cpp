// The file primitives: the one door through which table files are opened,
// written and synced.
//
// Each primitive finishes what a system call left half done (a short write
// is resumed where it stopped), retries what a signal interrupted (every
// 10 ms, at most 100 times, then leaving a development record of the retries
// so slow or noisy disks show up in the trace), and turns failures into
// result codes with one errno mapping for the whole file layer.  The system
// calls themselves are made through sr_i_sys_* (sr_i_system_calls.cpp), which
// test builds route through a table, so that tests can make them fail in
// exactly the way a real disk or signal would.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "sr_i_files.h"
#include "sr_i_pool.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_i_files", "1.1");

namespace {

// Retries made by one primitive call.  retry() sleeps and says whether the
// limit still allows another attempt; finish() writes the record of the
// retries, when there were any, whatever the outcome.
struct sr_i_retries_t {
    qx_uint32_t count = 0;

    bool retry() {
        if (count >= SR_I_RETRY_LIMIT) return false;
        sr_i_sys_usleep(SR_I_RETRY_INTERVAL);
        ++count;
        return true;
    }

    void finish(int line) const {
        if (count == 0) return;
        int saved_errno = errno;  // sr_i_open_file's caller still reads it
        SR_DV_TRACE("DV|RET|%.3d|%u|%d", line, count, SR_I_RETRY_LIMIT);
        errno = saved_errno;
    }
};

}  // namespace

qx_int32_t sr_i_set_file_error(const sr_i_source_t &source, const char *p_function, int line,
                               const char *p_call, int the_errno, bool table_must_exist) {
    if (the_errno == EACCES) return sr_i_set_error(source, p_function, line, SR_E_ACCESS);
    if (the_errno == ENOSPC) return sr_i_set_error(source, p_function, line, SR_E_FILESYSTEM_FULL);
    if (the_errno == ENOENT && table_must_exist) {
        return sr_i_set_error(source, p_function, line, SR_E_NO_TABLE);
    }
    return sr_i_set_error(source, p_function, line, SR_E_SYSTEM_CALL, p_call, the_errno);
}

qx_int32_t sr_i_open_file(const char *path, int OFlag, mode_t Mode) {
    sr_i_retries_t retries;
    int fd;
    for (;;) {
        fd = sr_i_sys_open(path, OFlag, Mode);
        if (fd >= 0 || errno != EINTR || !retries.retry()) break;
    }
    retries.finish(__LINE__);
    return fd;
}

namespace {

// A write at a given offset is one system call where a seek and a write
// would be two, and leaves the descriptor's offset (which a forked child
// shares) alone.  `at` < 0: at the descriptor's offset.
ssize_t write_once(int fd, const void *p_buffer, size_t length, off64_t at) {
    return at < 0 ? sr_i_sys_write(fd, p_buffer, length)
                  : sr_i_sys_pwrite(fd, p_buffer, length, at);
}

ssize_t writev_once(int fd, const struct iovec *p_vector, int count, off64_t at) {
    return at < 0 ? sr_i_sys_writev(fd, p_vector, count)
                  : sr_i_sys_pwritev(fd, p_vector, count, at);
}

// Failures are reported as sr_i_write's and sr_i_writev's, whichever form
// was called.
qx_int32_t write_all(qx_int32_t fd, void *p_buffer, size_t total_bytes_to_write, off64_t at) {
    const char *p_next = static_cast<const char *>(p_buffer);
    size_t remaining = total_bytes_to_write;
    sr_i_retries_t retries;
    qx_int32_t rc = 0;
    for (;;) {
        ssize_t written = write_once(fd, p_next, remaining, at);
        if (written >= 0 && static_cast<size_t>(written) == remaining) break;
        if (written > 0) {
            // A short write is progress, not an interruption: no retry counted.
            p_next += written;
            remaining -= static_cast<size_t>(written);
            if (at >= 0) at += written;
            continue;
        }
        int the_errno = written == 0 ? EIO : errno;  // no progress at all: give up
        if (the_errno == EINTR && retries.retry()) continue;
        rc = sr_i_set_file_error(sr_i_this_source, "sr_i_write", __LINE__, "write", the_errno,
                                 false);
        break;
    }
    retries.finish(__LINE__);
    return rc;
}

qx_int32_t writev_all(qx_int32_t fd, struct iovec *io_vector, qx_uint32_t total_io_vector_elements,
                      ssize_t total_bytes_to_write, qx_uint32_t *cumulative_bytes_written,
                      off64_t at) {
    struct iovec *p_vector = io_vector;
    qx_uint32_t elements = total_io_vector_elements;
    ssize_t expected = total_bytes_to_write;
    sr_i_retries_t retries;
    qx_int32_t rc = 0;
    for (;;) {
        ssize_t written = writev_once(fd, p_vector, static_cast<int>(elements), at);
        if (written == expected) {
            *cumulative_bytes_written += static_cast<qx_uint32_t>(written);
            break;
        }
        if (written > expected) {
            // The caller's total undercounts its own vector.
            *cumulative_bytes_written += static_cast<qx_uint32_t>(written);
            rc = sr_i_set_error(sr_i_this_source, "sr_i_writev", __LINE__, SR_E_INTERNAL);
            break;
        }
        if (written > 0) {
            // Count what reached the file before anything else can fail, so
            // that an abort knows the file's true length.
            *cumulative_bytes_written += static_cast<qx_uint32_t>(written);
            expected -= written;
            if (at >= 0) at += written;
            size_t done = static_cast<size_t>(written);
            while (elements > 0 && done >= p_vector->iov_len) {
                done -= p_vector->iov_len;
                ++p_vector;
                --elements;
            }
            if (elements == 0) {
                // More bytes were expected than the vector holds.
                rc = sr_i_set_error(sr_i_this_source, "sr_i_writev", __LINE__, SR_E_INTERNAL);
                break;
            }
            p_vector->iov_base = static_cast<char *>(p_vector->iov_base) + done;
            p_vector->iov_len -= done;
            continue;
        }
        int the_errno = written == 0 ? EIO : errno;  // no progress at all: give up
        if (the_errno == EINTR && retries.retry()) continue;
        rc = sr_i_set_file_error(sr_i_this_source, "sr_i_writev", __LINE__, "writev", the_errno,
                                 false);
        break;
    }
    retries.finish(__LINE__);
    return rc;
}

}  // namespace

qx_int32_t sr_i_write(qx_int32_t fd, void *p_buffer, size_t total_bytes_to_write) {
    return write_all(fd, p_buffer, total_bytes_to_write, -1);
}

qx_int32_t sr_i_write_at(qx_int32_t fd, void *p_buffer, size_t total_bytes_to_write,
                         qx_uint64_t offset) {
    return write_all(fd, p_buffer, total_bytes_to_write, static_cast<off64_t>(offset));
}

qx_int32_t sr_i_writev(qx_int32_t fd, struct iovec *io_vector, qx_uint32_t total_io_vector_elements,
                       ssize_t total_bytes_to_write, qx_uint32_t *cumulative_bytes_written) {
    return writev_all(fd, io_vector, total_io_vector_elements, total_bytes_to_write,
                      cumulative_bytes_written, -1);
}

qx_int32_t sr_i_writev_at(qx_int32_t fd, struct iovec *io_vector,
                          qx_uint32_t total_io_vector_elements, ssize_t total_bytes_to_write,
                          qx_uint32_t *cumulative_bytes_written, qx_uint64_t offset) {
    return writev_all(fd, io_vector, total_io_vector_elements, total_bytes_to_write,
                      cumulative_bytes_written, static_cast<off64_t>(offset));
}

qx_int32_t sr_i_image_writer_add(sr_i_image_writer_t *p_writer, const void *p_piece,
                                 qx_uint32_t length) {
    if (static_cast<qx_uint64_t>(p_writer->offset) + length > SR_I_LARGEST_FILE_LENGTH) {
        return SR_ERROR(SR_E_FILESYSTEM_FULL);
    }
    struct iovec &element = p_writer->p_vector[p_writer->elements];
    element.iov_base = const_cast<void *>(p_piece);
    element.iov_len = length;
    ++p_writer->elements;
    p_writer->batch_bytes += length;
    p_writer->offset += length;
    return p_writer->elements == SR_I_IO_VECTOR_SIZE ? sr_i_image_writer_flush(p_writer) : 0;
}

qx_int32_t sr_i_image_writer_flush(sr_i_image_writer_t *p_writer) {
    if (p_writer->elements == 0) return 0;
    // The batch lands where its first piece belongs.
    qx_int32_t rc = sr_i_writev_at(p_writer->fd, p_writer->p_vector, p_writer->elements,
                                   static_cast<ssize_t>(p_writer->batch_bytes), &p_writer->written,
                                   p_writer->offset - p_writer->batch_bytes);
    p_writer->elements = 0;
    p_writer->batch_bytes = 0;
    return rc;
}

qx_int32_t sr_i_fdatasync(qx_int32_t fd) {
    sr_i_retries_t retries;
    qx_int32_t rc = 0;
    for (;;) {
        if (sr_i_sys_fdatasync(fd) == 0) break;
        int the_errno = errno;
        // Captured before anything else: a failed sync may mean lost data,
        // and the capture file survives the process for a post-mortem.
        sr_i_capture_errno("fdatasync", the_errno, __LINE__, sr_i_this_source.version);
        if (the_errno == EINTR && retries.retry()) continue;
        rc = SR_ERROR_FILE("fdatasync", the_errno, false);
        break;
    }
    retries.finish(__LINE__);
    return rc;
}

// Name changes live in the directory, not in the file: a synced file that
// was renamed into place, or a table that was unlinked, can come back as it
// was after a power loss until the directory itself is synced.  Once per
// call that ends in such a change (create, commit by rename, copy, move,
// delete, repair); appends and in-place commits change no name.
qx_int32_t sr_i_sync_directory_of(const char *p_path) {
    const char *p_slash = std::strrchr(p_path, '/');
    const size_t length = p_slash == nullptr ? 0 : static_cast<size_t>(p_slash - p_path);
    char *p_directory = static_cast<char *>(sr_i_malloc(length + 2));
    if (p_directory == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    if (p_slash == nullptr) {
        std::memcpy(p_directory, ".", 2);
    } else if (length == 0) {
        std::memcpy(p_directory, "/", 2);
    } else {
        std::memcpy(p_directory, p_path, length);
        p_directory[length] = '\0';
    }
    int fd = sr_i_open_file(p_directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
    std::free(p_directory);
    if (fd < 0) {
        int the_errno = errno;
        sr_i_capture_errno("open", the_errno, __LINE__, sr_i_this_source.version);
        return SR_ERROR_FILE("open", the_errno, false);
    }
    sr_i_retries_t retries;
    qx_int32_t rc = 0;
    for (;;) {
        if (sr_i_sys_fsync(fd) == 0) break;
        int the_errno = errno;
        sr_i_capture_errno("fsync", the_errno, __LINE__, sr_i_this_source.version);
        if (the_errno == EINTR && retries.retry()) continue;
        rc = SR_ERROR_FILE("fsync", the_errno, false);
        break;
    }
    retries.finish(__LINE__);
    close(fd);
    return rc;
}

bool sr_i_fd_names_path(qx_int32_t fd, const char *p_path) {
    struct stat held, named;
    return fstat(fd, &held) == 0 && stat(p_path, &named) == 0 && held.st_dev == named.st_dev &&
           held.st_ino == named.st_ino;
}
