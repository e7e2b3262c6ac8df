// The table file: its commit record, the process's register of data file
// descriptors, and the reader that turns a file into a table record with one
// read and one pass over the records, in place.
//
// A table file is a log of records with the pool's 12-byte header: the
// metadata record at offset 0, then row, deletion, free and commit records.
// Only the prefix up to the FIRST commit record is the table; anything after
// it is an apply that was never committed.  Integers are in the writer's
// byte order; every other byte is the same on every host (32-byte column
// entries with offsets, values end to end), so the image is used in place.
//
// The file is untrusted input.  Every length, offset and count is checked in
// 64-bit arithmetic against the bytes actually read before it is used, every
// record is read through memcpy accessors (records after an odd-length
// commit record lie at odd addresses), and any inconsistency is 14.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "sr_i_application_metadata.h"
#include "sr_i_files.h"
#include "sr_i_hash_table.h"
#include "sr_i_pool.h"
#include "sr_i_table.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_i_table_file", "1.1");

namespace {

constexpr qx_uint32_t kHeader = SR_I_RECORD_HEADER_LENGTH;
// Metadata record data: byte-order flag, 0, total_columns,
// total_variable_length_columns, then the column array.
constexpr qx_uint32_t kMetadataFixed = SR_I_METADATA_FIXED_LENGTH;
constexpr qx_uint32_t kColumnSize = SR_I_COLUMN_ENTRY_LENGTH;
constexpr qx_uint64_t kMaximumRoomHint = 16u << 20;

inline qx_uint32_t rec_length(const char *p_header) {
    return sr_i_record_length(p_header);
}
inline qx_int32_t rec_type(const char *p_header) {
    return sr_i_record_type(p_header);
}

bool is_pointer_type(qx_uint32_t type) {
    return sr_i_is_pointer_type(static_cast<qx_data_type_t>(type));
}

}  // namespace

// ---------------------------------------------------------------------------
// Commit records.

qx_int32_t sr_i_create_commit_record(sr_i_application_metadata_t *p_application_metadata,
                                     qx_uint64_t change_counter,
                                     qx_uint32_t *p_commit_record_length,
                                     char **p_p_commit_record) {
    qx_uint64_t length = SR_I_COMMIT_RECORD_LENGTH;
    qx_uint32_t elements = 0;
    if (p_application_metadata != nullptr) {
        for (qx_uint32_t i = 0; i < p_application_metadata->total_elements; ++i) {
            const auto &element = p_application_metadata->p_index[i];
            const qx_binary_t *p_block =
                element.p_applied != nullptr ? element.p_applied : element.p_committed;
            if (p_block == nullptr) continue;
            length += 8 + static_cast<qx_uint64_t>(sr_i_load_u32(&p_block->length));
            ++elements;
        }
    }
    if (elements > 0) length += 4;
    if (length > UINT32_MAX) return SR_ERROR(SR_E_NO_MEMORY);
    char *p_record = static_cast<char *>(sr_i_malloc(length));
    if (p_record == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    sr_i_store_u32(p_record, static_cast<qx_uint32_t>(length));
    sr_i_store_u32(p_record + 4, 0);
    sr_i_store_u32(p_record + 8, static_cast<qx_uint32_t>(SR_I_RECORD_TYPE_COMMIT));
    sr_i_store_u32(p_record + 12, static_cast<qx_uint32_t>(length - 16));
    sr_i_store_u64(p_record + 16, change_counter);
    if (elements > 0) {
        sr_i_store_u32(p_record + 24, elements);
        char *p = p_record + 28;
        for (qx_uint32_t i = 0; i < p_application_metadata->total_elements; ++i) {
            const auto &element = p_application_metadata->p_index[i];
            const qx_binary_t *p_block =
                element.p_applied != nullptr ? element.p_applied : element.p_committed;
            if (p_block == nullptr) continue;
            qx_uint32_t data_length = sr_i_load_u32(&p_block->length);
            sr_i_store_u32(p, element.type);
            sr_i_store_u32(p + 4, data_length);
            std::memcpy(p + 8, p_block->data, data_length);
            p += 8 + data_length;
        }
    }
    *p_commit_record_length = static_cast<qx_uint32_t>(length);
    *p_p_commit_record = p_record;
    return 0;
}

namespace {

// Whether the commit record whose header is at p_commit_record holds
// together: its length words and every application metadata element lie
// inside it.
bool commit_record_is_sound(const char *p_commit_record) {
    qx_uint64_t record_length = rec_length(p_commit_record);
    if (record_length < SR_I_COMMIT_RECORD_LENGTH) return false;
    qx_uint64_t following = sr_i_load_u32(p_commit_record + 12);
    if (16 + following > record_length || following < 8) return false;
    if (following < 9) return true;
    if (following < 12) return false;
    const qx_uint64_t end = 16 + following;
    qx_uint32_t elements = sr_i_load_u32(p_commit_record + 24);
    qx_uint64_t at = 28;
    for (qx_uint32_t i = 0; i < elements; ++i) {
        if (at + 8 > end) return false;
        qx_uint64_t data_length = sr_i_load_u32(p_commit_record + at + 4);
        if (at + 8 + data_length > end) return false;
        at += 8 + data_length;
    }
    return true;
}

}  // namespace

qx_int32_t sr_i_open_commit_record(const char *p_commit_record,
                                   sr_i_application_metadata_t *p_application_metadata,
                                   qx_uint64_t *p_change_counter) {
    qx_uint64_t record_length = rec_length(p_commit_record);
    if (record_length < SR_I_COMMIT_RECORD_LENGTH) return SR_ERROR(SR_E_TABLE_UNREADABLE);
    qx_uint64_t following = sr_i_load_u32(p_commit_record + 12);
    if (16 + following > record_length || following < 8) return SR_ERROR(SR_E_TABLE_UNREADABLE);
    *p_change_counter = sr_i_load_u64(p_commit_record + 16);
    if (following < 9) return 0;
    if (following < 12) return SR_ERROR(SR_E_TABLE_UNREADABLE);
    // Every element is checked against the record before the store is touched,
    // so a lying count or length leaves the store as it was.
    const qx_uint64_t end = 16 + following;
    qx_uint32_t elements = sr_i_load_u32(p_commit_record + 24);
    qx_uint64_t at = 28;
    bool ascending = true;  // as commit writes them
    for (qx_uint32_t i = 0, previous = 0; i < elements; ++i) {
        if (at + 8 > end) return SR_ERROR(SR_E_TABLE_UNREADABLE);
        qx_uint32_t type = sr_i_load_u32(p_commit_record + at);
        if (i > 0 && type <= previous) ascending = false;
        previous = type;
        qx_uint64_t data_length = sr_i_load_u32(p_commit_record + at + 4);
        if (at + 8 + data_length > end) return SR_ERROR(SR_E_TABLE_UNREADABLE);
        at += 8 + data_length;
    }
    // The store is sorted by type, so elements in ascending order are each
    // appended at its end.  Elements in any other order are sorted first, so
    // that a crafted record costs O(n log n) to read, not a quadratic series
    // of insertions.  The store comes out the same either way, and two
    // elements of one type are refused either way.
    struct placed_t {
        qx_uint32_t type;
        qx_uint64_t at;
    };
    placed_t *p_order = nullptr;
    if (!ascending) {
        const qx_uint64_t order_bytes = static_cast<qx_uint64_t>(elements) * sizeof(placed_t);
        if (order_bytes > SIZE_MAX) return SR_ERROR(SR_E_NO_MEMORY);  // 32-bit hosts
        p_order = static_cast<placed_t *>(sr_i_malloc(static_cast<size_t>(order_bytes)));
        if (p_order == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
        at = 28;
        for (qx_uint32_t i = 0; i < elements; ++i) {
            p_order[i] = placed_t{sr_i_load_u32(p_commit_record + at), at};
            at += 8 + static_cast<qx_uint64_t>(sr_i_load_u32(p_commit_record + at + 4));
        }
        std::sort(p_order, p_order + elements,
                  [](const placed_t &a, const placed_t &b) { return a.type < b.type; });
    }
    at = 28;
    qx_int32_t rc = 0;
    for (qx_uint32_t i = 0; i < elements && rc == 0; ++i) {
        qx_uint64_t element_at = p_order != nullptr ? p_order[i].at : at;
        qx_uint32_t type = sr_i_load_u32(p_commit_record + element_at);
        qx_uint32_t data_length = sr_i_load_u32(p_commit_record + element_at + 4);
        rc = sr_i_add_application_metadata_element(
            p_application_metadata, type, data_length,
            const_cast<qx_char_ptr_t>(p_commit_record + element_at + 8));
        at += 8 + static_cast<qx_uint64_t>(data_length);
    }
    free(p_order);
    // Two elements of one type cannot come from a commit record this library
    // wrote: the file is damaged, not the caller's key.
    if (rc == SR_E_DUPLICATE_KEY) rc = SR_ERROR(SR_E_TABLE_UNREADABLE);
    qx_int32_t commit_rc = sr_i_commit_application_metadata_buffer_updates(p_application_metadata);
    return rc != 0 ? rc : commit_rc;
}

// ---------------------------------------------------------------------------
// Data file descriptors.
//
// POSIX record locks belong to the process, not to the descriptor: closing
// any descriptor of a file drops every lock the process holds on it.  A table
// opened for write holds its file's lock through its descriptor for as long as
// it is open; if a reader of the same file in another tree of this process
// (or the read-only record a read-to-write reload replaces) simply closed its
// own descriptor, the writer would lose its lock silently and a second
// process could write the file under it.  Such closes are therefore deferred:
// the descriptor is parked until the last lock holder of the file closes.
//
// For the same reason the lock does not keep a second writer of this process
// out: lockf grants a process a lock it already holds.  A writer therefore
// also claims its file in the register (by device and inode); a second writer
// of the same file in this process waits for the claim as one in another
// process waits for the lock.  The claim names the process that took it: a
// child forked from a writer inherits the descriptor but not the lock, and
// must not write through it.

namespace {

struct data_file_t {
    qx_int32_t fd;
    dev_t dev;
    ino_t ino;
    bool holds_lock;
    bool parked;
    pid_t claimed_by;  // the writer's claim: the process that took it, or 0
    pid_t opened_by;   // a forked child shares the descriptor's file offset
};

pthread_mutex_t Data_Files_Mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t Data_Files_Released = PTHREAD_COND_INITIALIZER;
// Set by a record that takes over an open writer's file in this thread (the
// writer's record is being replaced, so its claim is this one's).
thread_local bool Claim_Handed_Over = false;
data_file_t *P_Data_Files = nullptr;
qx_uint32_t Total_Data_Files = 0;
qx_uint32_t Max_Data_Files = 0;

// The process's id without a system call per check, which every apply and
// commit makes: kept, and renewed in the child of every fork, whose checks
// must see its own id and not its parent's.  Without the fork handler every
// check asks the system.
std::atomic<pid_t> Process_Id{0};
bool Process_Id_Kept = false;
pthread_once_t Process_Id_Once = PTHREAD_ONCE_INIT;

void renew_process_id() {
    Process_Id.store(getpid(), std::memory_order_relaxed);
}

pid_t this_process() {
    (void)pthread_once(&Process_Id_Once, [] {
        renew_process_id();
        Process_Id_Kept = pthread_atfork(nullptr, nullptr, renew_process_id) == 0;
    });
    return Process_Id_Kept ? Process_Id.load(std::memory_order_relaxed) : getpid();
}

void remove_data_file(qx_uint32_t i) {
    P_Data_Files[i] = P_Data_Files[Total_Data_Files - 1];
    --Total_Data_Files;
}

// The entry of a descriptor in use (not parked), or Total_Data_Files.  A
// descriptor has at most one such entry.  Caller holds Data_Files_Mutex.
qx_uint32_t live_entry(qx_int32_t fd) {
    for (qx_uint32_t i = 0; i < Total_Data_Files; ++i) {
        if (P_Data_Files[i].fd == fd && !P_Data_Files[i].parked) return i;
    }
    return Total_Data_Files;
}

// Whether this process has claimed the file of entry `index` for writing
// through another entry.  Caller holds Data_Files_Mutex.
bool claimed_elsewhere(qx_uint32_t index, pid_t self) {
    for (qx_uint32_t i = 0; i < Total_Data_Files; ++i) {
        const data_file_t &f = P_Data_Files[i];
        if (i != index && f.dev == P_Data_Files[index].dev && f.ino == P_Data_Files[index].ino &&
            f.claimed_by == self) {
            return true;
        }
    }
    return false;
}

}  // namespace

qx_int32_t sr_i_register_data_file(qx_int32_t fd, qx_uint32_t holds_lock) {
    struct stat st;
    if (fstat(fd, &st) != 0) return SR_ERROR_SYSCALL("fstat", errno);
    pthread_mutex_lock(&Data_Files_Mutex);
    qx_int32_t rc = 0;
    // A number the process reused after someone closed it behind our back.
    for (qx_uint32_t i = 0; i < Total_Data_Files; ++i) {
        if (P_Data_Files[i].fd == fd) {
            remove_data_file(i);
            break;
        }
    }
    if (Total_Data_Files == Max_Data_Files) {
        qx_uint32_t new_max = Max_Data_Files == 0 ? 16 : Max_Data_Files * 2;
        auto *p_new = static_cast<data_file_t *>(
            sr_i_realloc(P_Data_Files, static_cast<size_t>(new_max) * sizeof(data_file_t)));
        if (p_new == nullptr) {
            rc = SR_ERROR(SR_E_NO_MEMORY);
        } else {
            P_Data_Files = p_new;
            Max_Data_Files = new_max;
        }
    }
    if (rc == 0) {
        P_Data_Files[Total_Data_Files++] = {
            fd,      st.st_dev, st.st_ino, holds_lock != 0, false, holds_lock == 2 ? getpid() : 0,
            getpid()};
    }
    pthread_mutex_unlock(&Data_Files_Mutex);
    return rc;
}

qx_int32_t sr_i_lock_data_file(qx_int32_t fd) {
    const pid_t self = getpid();
    pthread_mutex_lock(&Data_Files_Mutex);
    qx_uint32_t index = Total_Data_Files;
    for (;;) {
        index = live_entry(fd);
        if (index == Total_Data_Files) break;
        if (Claim_Handed_Over || !claimed_elsewhere(index, self)) break;
        pthread_cond_wait(&Data_Files_Released, &Data_Files_Mutex);
    }
    if (index == Total_Data_Files) {
        pthread_mutex_unlock(&Data_Files_Mutex);
        return SR_ERROR(SR_E_INTERNAL);
    }
    P_Data_Files[index].claimed_by = self;
    pthread_mutex_unlock(&Data_Files_Mutex);
    // Then the lock, for writers in other processes.
    int err = 0;
    while (lockf(fd, F_LOCK, 0) != 0) {
        err = errno;
        if (err != EINTR) break;
        err = 0;
    }
    if (err == 0) return 0;
    pthread_mutex_lock(&Data_Files_Mutex);
    for (qx_uint32_t i = 0; i < Total_Data_Files; ++i) {
        if (P_Data_Files[i].fd == fd) P_Data_Files[i].claimed_by = 0;
    }
    pthread_cond_broadcast(&Data_Files_Released);
    pthread_mutex_unlock(&Data_Files_Mutex);
    return SR_ERROR_SYSCALL("lockf", err);
}

void sr_i_close_unregistered_data_file(qx_int32_t fd) {
    struct stat st;
    bool holder = false;
    if (fstat(fd, &st) == 0) {
        pthread_mutex_lock(&Data_Files_Mutex);
        for (qx_uint32_t i = 0; i < Total_Data_Files; ++i) {
            const data_file_t &f = P_Data_Files[i];
            if (f.dev == st.st_dev && f.ino == st.st_ino && f.holds_lock && !f.parked) {
                holder = true;
            }
        }
        pthread_mutex_unlock(&Data_Files_Mutex);
    }
    // Closing it would drop the lock a writer of this process holds on the
    // file, and there was no memory to park it: one descriptor is given up
    // rather than the lock.
    if (!holder) close(fd);
}

qx_int32_t sr_i_reuse_parked_data_file(const char *p_path) {
    struct stat st;
    if (stat(p_path, &st) != 0) return -1;
    // Only a descriptor this process opened: one inherited across fork
    // shares its file offset with the parent, whose reads would move it
    // under ours.
    const pid_t self = getpid();
    pthread_mutex_lock(&Data_Files_Mutex);
    qx_int32_t fd = -1;
    for (qx_uint32_t i = 0; i < Total_Data_Files; ++i) {
        data_file_t &f = P_Data_Files[i];
        if (f.parked && f.opened_by == self && f.dev == st.st_dev && f.ino == st.st_ino) {
            f.parked = false;
            f.holds_lock = false;
            fd = f.fd;
            break;
        }
    }
    pthread_mutex_unlock(&Data_Files_Mutex);
    return fd;
}

bool sr_i_data_file_claimed(qx_int32_t fd) {
    const pid_t self = this_process();
    pthread_mutex_lock(&Data_Files_Mutex);
    const qx_uint32_t index = live_entry(fd);
    const bool claimed = index != Total_Data_Files && P_Data_Files[index].claimed_by == self;
    pthread_mutex_unlock(&Data_Files_Mutex);
    return claimed;
}

qx_int32_t sr_i_try_claim_data_file(qx_int32_t fd) {
    const pid_t self = getpid();
    pthread_mutex_lock(&Data_Files_Mutex);
    const qx_uint32_t index = live_entry(fd);
    qx_int32_t rc = index == Total_Data_Files ? SR_ERROR(SR_E_INTERNAL) : 0;
    if (rc == 0 && claimed_elsewhere(index, self)) rc = SR_ERROR(SR_E_EXCLUSIVE_MODES);
    if (rc == 0) P_Data_Files[index].claimed_by = self;
    pthread_mutex_unlock(&Data_Files_Mutex);
    return rc;
}

void sr_i_hand_over_claim(bool on) {
    Claim_Handed_Over = on;
}

void sr_i_close_data_file(qx_int32_t fd) {
    if (fd < 0) return;
    pthread_mutex_lock(&Data_Files_Mutex);
    const qx_uint32_t index = live_entry(fd);
    struct stat st;
    if (index == Total_Data_Files || fstat(fd, &st) != 0 || st.st_dev != P_Data_Files[index].dev ||
        st.st_ino != P_Data_Files[index].ino) {
        // Unknown or stale: nothing of ours depends on it.
        if (index != Total_Data_Files) remove_data_file(index);
        pthread_mutex_unlock(&Data_Files_Mutex);
        close(fd);
        return;
    }
    const dev_t dev = P_Data_Files[index].dev;
    const ino_t ino = P_Data_Files[index].ino;
    P_Data_Files[index].holds_lock = false;
    if (P_Data_Files[index].claimed_by != 0) {
        P_Data_Files[index].claimed_by = 0;
        pthread_cond_broadcast(&Data_Files_Released);
    }
    bool other_holder = false;
    for (qx_uint32_t i = 0; i < Total_Data_Files; ++i) {
        const data_file_t &f = P_Data_Files[i];
        if (f.dev == dev && f.ino == ino && f.holds_lock && !f.parked) other_holder = true;
    }
    if (other_holder) {
        P_Data_Files[index].parked = true;
    } else {
        // No lock of this process left on the file: every parked descriptor
        // can go with this one.
        remove_data_file(index);
        close(fd);
        for (qx_uint32_t i = 0; i < Total_Data_Files;) {
            const data_file_t &f = P_Data_Files[i];
            if (f.dev == dev && f.ino == ino && f.parked) {
                close(f.fd);
                remove_data_file(i);
            } else {
                ++i;
            }
        }
    }
    pthread_mutex_unlock(&Data_Files_Mutex);
}

// ---------------------------------------------------------------------------
// The reader.

namespace {

// Checks the metadata record (header at p_image, real length meta_length,
// already within the image) and returns its column counts.  A record create
// could not have written is refused, as strictly as create refuses columns:
// every name valid and unique, every type and base qualifier one create
// accepts, exactly one key column and that at 0, a structured-data
// definition exactly for the structured columns, every offset inside the
// record and the count of variable-length columns right.  The rest of the
// library relies on all of it (a name bound to two columns, a key that is
// not column 0).
qx_int32_t check_metadata_record(const char *p_image, qx_uint64_t meta_length,
                                 qx_uint32_t *p_total_columns,
                                 qx_uint32_t *p_total_variable_length_columns) {
    const char *p_data = p_image + kHeader;
    if (meta_length < kHeader + kMetadataFixed) return SR_ERROR(SR_E_TABLE_UNREADABLE);
    const qx_uint64_t data_length = meta_length - kHeader;
    qx_uint64_t total_columns = sr_i_load_u32(p_data + 8);
    qx_uint32_t total_variable = sr_i_load_u32(p_data + 12);
    if (total_columns == 0) return SR_ERROR(SR_E_TABLE_UNREADABLE);
    const qx_uint64_t area_start = kMetadataFixed + total_columns * kColumnSize;
    if (area_start > data_length) return SR_ERROR(SR_E_TABLE_UNREADABLE);
    const qx_uint64_t area_length = data_length - area_start;
    const char *p_area = p_data + area_start;
    qx_uint32_t counted_variable = 0;
    for (qx_uint64_t i = 0; i < total_columns; ++i) {
        const char *p_entry = p_data + kMetadataFixed + i * kColumnSize;
        const qx_uint32_t type = sr_i_load_u32(p_entry + SR_I_COLUMN_ENTRY_TYPE);
        if (type < QX_INT32 || type > QX_SD_PTR_ARRAY) return SR_ERROR(SR_E_TABLE_UNREADABLE);
        const qx_uint32_t qualifier = sr_i_load_u32(p_entry + SR_I_COLUMN_ENTRY_QUALIFIER);
        qx_uint64_t name = sr_i_load_u32(p_entry + SR_I_COLUMN_ENTRY_NAME);
        if (name >= area_length ||
            std::memchr(p_area + name, '\0', area_length - name) == nullptr) {
            return SR_ERROR(SR_E_TABLE_UNREADABLE);
        }
        if (!sr_i_valid_column_name(p_area + name)) return SR_ERROR(SR_E_TABLE_UNREADABLE);
        for (qx_uint64_t j = 0; j < i; ++j) {
            const qx_uint32_t other =
                sr_i_load_u32(p_data + kMetadataFixed + j * kColumnSize + SR_I_COLUMN_ENTRY_NAME);
            if (std::strcmp(p_area + name, p_area + other) == 0)
                return SR_ERROR(SR_E_TABLE_UNREADABLE);
        }
        // Column 0 is the key and the only one: the row index and any hashed
        // key index read it from every row.
        const qx_uint32_t base = qualifier & SR_QUALIFIER_BASE_MASK;
        const bool key = base == SR_PRIMARY_KEY || base == SR_PRIMARY_KEY_NOCHECK;
        if (!key && base != SR_STANDARD) return SR_ERROR(SR_E_TABLE_UNREADABLE);
        if (key != (i == 0)) return SR_ERROR(SR_E_TABLE_UNREADABLE);
        if (key && type > QX_CHAR_PTR && type != QX_RSRC_HANDLE_PTR)
            return SR_ERROR(SR_E_TABLE_UNREADABLE);
        qx_uint64_t sd = sr_i_load_u32(p_entry + SR_I_COLUMN_ENTRY_SD_DEFN);
        const bool structured = type == QX_SD_PTR || type == QX_SD_PTR_ARRAY;
        if ((sd != 0) != structured) return SR_ERROR(SR_E_TABLE_UNREADABLE);
        if (sd != 0) {
            if (sd + 4 > area_length) return SR_ERROR(SR_E_TABLE_UNREADABLE);
            qx_uint32_t fields = sr_i_load_u32(p_area + sd);
            qx_uint64_t at = sd + 4;
            for (qx_uint32_t f = 0; f < fields; ++f) {
                if (at + 4 >= area_length) return SR_ERROR(SR_E_TABLE_UNREADABLE);
                const void *p_nul = std::memchr(p_area + at + 4, '\0', area_length - at - 4);
                if (p_nul == nullptr) return SR_ERROR(SR_E_TABLE_UNREADABLE);
                at = static_cast<qx_uint64_t>(static_cast<const char *>(p_nul) - p_area) + 1;
            }
        }
        if (is_pointer_type(type)) {
            ++counted_variable;
            // The default's protocol form must lie inside the area, nested
            // anchors included: building a deep client value checks them all.
            const char *p_default = p_entry + SR_I_COLUMN_ENTRY_DEFAULT;
            qx_pmsg_anchor_t anchor;
            std::memcpy(&anchor, p_default, sizeof anchor);
            if (static_cast<qx_uint64_t>(anchor.offset) + anchor.length > area_length) {
                return SR_ERROR(SR_E_TABLE_UNREADABLE);
            }
            qx_value_t value;
            int pmsg_rc = qx_pmsg_build_conv_packed_client_value_1(
                nullptr, QX_PMSG_CLIENT_MALLOC | QX_PMSG_CLIENT_DEEP,
                static_cast<qx_data_type_t>(type), &value, p_default, p_area,
                static_cast<qx_int64_t>(area_length));
            if (pmsg_rc != 0) return SR_ERROR(SR_E_TABLE_UNREADABLE);
            std::free(value.ptr_char);
        }
    }
    if (counted_variable != total_variable) return SR_ERROR(SR_E_TABLE_UNREADABLE);
    *p_total_columns = static_cast<qx_uint32_t>(total_columns);
    *p_total_variable_length_columns = total_variable;
    return 0;
}

// Whether the key of a row record (data at p_data, data_length bytes) lies
// inside the record, so that a hashed key index can read it; pointer_key
// says whether key_type is a pointer type (known once per file).
bool row_key_is_sound(const char *p_data, qx_uint64_t data_length, qx_uint32_t total_columns,
                      qx_uint32_t key_type, bool pointer_key) {
    if (!pointer_key) return true;
    const qx_uint64_t area_start = 4 + 8 * static_cast<qx_uint64_t>(total_columns);
    const qx_uint64_t area_length = data_length - area_start;
    qx_uint64_t offset = sr_i_load_u32(p_data + 4);
    qx_uint64_t length = sr_i_load_u32(p_data + 8);
    if (offset + length > area_length) return false;
    if (key_type == QX_CHAR_PTR) {
        // The text's form ends in its NUL.
        return length > 0 && p_data[area_start + offset + length - 1] == '\0';
    }
    return length >= sizeof(qx_resource_handle_t);
}

bool is_torn_commit_switch(qx_int32_t type);

// A file with far fewer blocks on disk than its length has holes; reading it
// whole would spend memory on bytes no record may need.  Beyond this much
// slack its records are first walked by their headers alone.
constexpr qx_uint64_t kHoleSlack = 1u << 20;

// How far from its start the file's records reach, walked by their headers
// alone without keeping them: through the first commit record (what follows
// it was left by an apply and is never read), or through a torn commit
// switch that nothing sound follows.  14 when a header is missing or makes
// no sense, so that a hole where records must be costs no memory.
qx_int32_t measure_records(qx_int32_t fd, qx_uint64_t file_length, qx_uint64_t *p_records_end) {
    constexpr size_t kChunk = 64 * 1024;
    char *p_chunk = static_cast<char *>(sr_i_malloc(kChunk));
    if (p_chunk == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    qx_uint64_t chunk_at = 0;
    qx_uint64_t chunk_bytes = 0;
    qx_uint64_t offset = 0;
    qx_uint64_t torn_end = 0;
    qx_int32_t rc = SR_I_RECORD_TYPE_METADATA;  // the type the first record must have
    for (;;) {
        if (offset + kHeader > file_length) break;
        if (offset < chunk_at || offset + kHeader > chunk_at + chunk_bytes) {
            ssize_t n;
            do {
                n = pread64(fd, p_chunk, kChunk, static_cast<off64_t>(offset));
            } while (n < 0 && errno == EINTR);
            if (n < 0) {
                const int err = errno;
                std::free(p_chunk);
                return SR_ERROR_SYSCALL("pread64", err);
            }
            chunk_at = offset;
            chunk_bytes = static_cast<qx_uint64_t>(n);
            if (chunk_bytes < kHeader) break;
        }
        const char *p_record = p_chunk + (offset - chunk_at);
        const qx_uint64_t length = rec_length(p_record);
        const qx_int32_t type = rec_type(p_record);
        if (length < kHeader || offset + length > file_length) break;
        if (rc == SR_I_RECORD_TYPE_METADATA) {
            if (type != SR_I_RECORD_TYPE_METADATA) break;
            rc = 0;
        } else if (type == SR_I_RECORD_TYPE_COMMIT) {
            std::free(p_chunk);
            *p_records_end = offset + length;
            return 0;
        } else if (is_torn_commit_switch(type)) {
            if (torn_end == 0) torn_end = offset + length;
        } else if (type != SR_I_RECORD_TYPE_FREE && type != SR_I_RECORD_TYPE_ROW &&
                   type != SR_I_RECORD_TYPE_DELETION) {
            break;
        }
        offset += length;
    }
    std::free(p_chunk);
    if (torn_end == 0) return SR_ERROR(SR_E_TABLE_UNREADABLE);
    *p_records_end = torn_end;
    return 0;
}

// Reads the whole file into the pool as one record of type 1 whose length is
// then set back to the metadata record's own, so that the pool walks the
// file's records from there.  The room is asked for read_guess - 12 data
// bytes and the file read from its header on.  Returns the image (the
// metadata record's header), the bytes read and the image's end (the length
// of its pool record).  A file with holes is read only as far as its records
// reach (measure_records); *p_records_end is how far they may reach.
qx_int32_t read_file_image(sr_i_table_t *p_table, qx_int32_t fd, char **p_p_image,
                           qx_uint64_t *p_bytes_read, qx_uint64_t *p_image_end,
                           qx_uint64_t *p_records_end) {
    for (;;) {
        off64_t end = lseek64(fd, 0, SEEK_END);
        if (end < 0) return SR_ERROR_SYSCALL("lseek64", errno);
        if (end < kHeader + 1) return SR_ERROR(SR_E_TABLE_UNREADABLE);
        // Offsets in the file and its records are 32-bit.
        if (static_cast<qx_uint64_t>(end) > UINT32_MAX - 4 * 4096)
            return SR_ERROR(SR_E_TABLE_UNREADABLE);
        p_table->file_length = static_cast<qx_uint32_t>(end);
        qx_uint64_t wanted = static_cast<qx_uint64_t>(end);
        struct stat held;
        const bool holes = fstat(fd, &held) == 0 &&
                           static_cast<qx_uint64_t>(held.st_blocks) * 512 + kHoleSlack < wanted;
        if (holes) {
            qx_int32_t rc = measure_records(fd, wanted, &wanted);
            if (rc != 0) return rc;
        }
        if (lseek64(fd, 0, SEEK_SET) < 0) return SR_ERROR_SYSCALL("lseek64", errno);
        // Exactly the records of a file with holes; a whole file otherwise,
        // with room to notice that it grew.
        const qx_uint64_t read_guess = holes ? wanted : wanted + 4096;

        sr_i_rb_uninitialize_record_buffer_pool(&p_table->record_buffer_pool);
        char *p_data = nullptr;
        char *p_previous = nullptr;
        qx_uint32_t room = 0;
        qx_int32_t rc = sr_i_rb_find_suitable_record(&p_table->record_buffer_pool,
                                                     static_cast<qx_uint32_t>(read_guess - kHeader),
                                                     &p_data, &p_previous, &room);
        if (rc != 0) return rc;
        char *p_image = p_data - kHeader;
        // The free record's header belongs to the pool: its link word must
        // survive the read, since the file's own link words mean nothing.
        char saved_header[kHeader];
        std::memcpy(saved_header, p_image, kHeader);

        qx_uint64_t bytes_read = 0;
        for (;;) {
            ssize_t n = read(fd, p_image + bytes_read, read_guess - bytes_read);
            if (n < 0) {
                if (errno == EINTR) continue;
                int err = errno;
                std::memcpy(p_image, saved_header, kHeader);
                return SR_ERROR_SYSCALL("read", err);
            }
            bytes_read += static_cast<qx_uint64_t>(n);
            // One read normally returns the whole file; only a read cut short
            // before the measured end is repeated.
            if (n == 0 || bytes_read >= read_guess || bytes_read >= wanted) break;
        }
        const qx_uint32_t meta_length = rec_length(p_image);
        const qx_int32_t meta_type = rec_type(p_image);
        std::memcpy(p_image, saved_header, kHeader);
        if (!holes && bytes_read == read_guess) continue;  // the file grew meanwhile: again
        if (bytes_read < kHeader + 1) return SR_ERROR(SR_E_TABLE_UNREADABLE);
        rc = sr_i_rb_allocate_record(&p_table->record_buffer_pool, p_data, p_previous,
                                     static_cast<qx_uint32_t>(bytes_read - kHeader),
                                     SR_I_RECORD_TYPE_METADATA);
        if (rc != 0) return rc;
        *p_p_image = p_image;
        *p_bytes_read = bytes_read;
        *p_image_end = rec_length(p_image);
        *p_records_end = holes || bytes_read > wanted ? bytes_read : wanted;
        // Until the metadata record is known good the image stays one record
        // of the pool, so that a failure can simply close the table.
        if (meta_type != SR_I_RECORD_TYPE_METADATA || meta_length > bytes_read) {
            return SR_ERROR(SR_E_TABLE_UNREADABLE);
        }
        sr_i_set_record_length(p_image, meta_length);
        return 0;
    }
}

// A commit switches the old commit record off by writing 0 over its type
// word (-1).  The word lies at any offset, so that write can straddle two
// sectors, and a power loss before its sync can leave some bytes old and some
// new.  A type word made only of 0x00 and 0xFF bytes (and neither 0 nor -1)
// is taken for such a switch caught halfway, on purpose: it was written by no
// one else, and reading it as either side of the switch keeps the table
// readable where refusing it would lose every committed state.
bool is_torn_commit_switch(qx_int32_t type) {
    if (type == SR_I_RECORD_TYPE_FREE || type == SR_I_RECORD_TYPE_COMMIT) return false;
    const qx_uint32_t word = static_cast<qx_uint32_t>(type);
    for (int shift = 0; shift < 32; shift += 8) {
        const qx_uint32_t byte = (word >> shift) & 0xFF;
        if (byte != 0 && byte != 0xFF) return false;
    }
    return true;
}

// Whether the records from `offset` on reach a sound commit record, walked
// by their lengths and types only (free, row and deletion records between).
bool commit_record_follows(const char *p_image, qx_uint64_t offset, qx_uint64_t bytes_read) {
    while (offset + kHeader <= bytes_read) {
        const char *p_record = p_image + offset;
        const qx_uint64_t length = rec_length(p_record);
        const qx_int32_t type = rec_type(p_record);
        if (length < kHeader || offset + length > bytes_read) return false;
        if (type == SR_I_RECORD_TYPE_COMMIT) return commit_record_is_sound(p_record);
        if (type != SR_I_RECORD_TYPE_FREE && type != SR_I_RECORD_TYPE_ROW &&
            type != SR_I_RECORD_TYPE_DELETION) {
            return false;
        }
        offset += length;
    }
    return false;
}

// The single pass over the records after the metadata record.  Slots are
// handed out as the free chain of a fresh index would: the lowest one freed
// by a deletion first, else the next never used; *p_used counts the latter.
qx_int32_t load_records(sr_i_table_t *p_table, char *p_image, qx_uint64_t bytes_read,
                        qx_uint64_t image_end, qx_uint32_t *p_used) {
    const qx_uint64_t meta_length = rec_length(p_image);
    const qx_uint32_t total_columns = p_table->total_columns;
    const qx_uint32_t key_type =
        static_cast<qx_uint32_t>(sr_i_load_column(p_table->p_columns).type);
    const qx_uint64_t row_minimum = kHeader + 4 + 8 * static_cast<qx_uint64_t>(total_columns);
    sr_i_record_buffer_pool_t *p_pool = &p_table->record_buffer_pool;
    sr_i_index_entry_t *const p_slots = p_table->p_rows_fixed_index;
    const bool pointer_key = is_pointer_type(key_type);
    qx_uint32_t used = 0;
    qx_uint64_t current = meta_length;
    for (;;) {
        if (current + kHeader > bytes_read)
            return SR_ERROR(SR_E_TABLE_UNREADABLE);  // no commit record
        char *p_record = p_image + current;
        const qx_uint64_t length = rec_length(p_record);
        qx_int32_t type = rec_type(p_record);
        // A length below the header would stall or reverse the walk.
        if (length < kHeader || current + length > bytes_read)
            return SR_ERROR(SR_E_TABLE_UNREADABLE);
        char *p_data = p_record + kHeader;
        if (is_torn_commit_switch(type)) {
            // Commit switched this commit record off with a 4-byte write that
            // only partly landed.  If the apply behind it had synced its
            // records up to a sound commit record, the switch was made: free
            // space.  Otherwise it is still the commit record.
            type = commit_record_follows(p_image, current + length, bytes_read)
                       ? SR_I_RECORD_TYPE_FREE
                       : SR_I_RECORD_TYPE_COMMIT;
            sr_i_set_record_type(p_record, type);
        }
        switch (type) {
            case SR_I_RECORD_TYPE_FREE:
                sr_i_rb_free_record(p_pool, p_data);
                break;
            case SR_I_RECORD_TYPE_ROW: {
                if (length < row_minimum ||
                    !row_key_is_sound(p_data, length - kHeader, total_columns, key_type,
                                      pointer_key)) {
                    return SR_ERROR(SR_E_TABLE_UNREADABLE);
                }
                qx_uint64_t replaces = sr_i_load_u32(p_data);
                sr_i_index_entry_t *p_entry = nullptr;
                if (replaces != 0) {
                    // The superseded record's first word holds its row's fixed
                    // index; it must name a slot whose current record is the
                    // one at that very offset.
                    if (replaces < meta_length || replaces + kHeader + 4 > current) {
                        return SR_ERROR(SR_E_TABLE_UNREADABLE);
                    }
                    qx_uint32_t fixed = sr_i_load_u32(p_image + replaces + kHeader);
                    if (fixed >= used) return SR_ERROR(SR_E_TABLE_UNREADABLE);
                    p_entry = &p_slots[fixed];
                    if (p_entry->p_committed == nullptr || p_entry->file_offset != replaces) {
                        return SR_ERROR(SR_E_TABLE_UNREADABLE);
                    }
                    sr_i_rb_free_record(p_pool, p_entry->p_committed);
                } else {
                    if (p_table->p_rows_free_chain != nullptr) {
                        p_entry = sr_i_rows_free_chain_remove(p_table);
                    } else if (used < p_table->maximum_rows) {
                        p_entry = &p_slots[used++];
                    } else {
                        return SR_ERROR(SR_E_TABLE_UNREADABLE);
                    }
                    ++p_table->total_applied_rows;
                }
                const qx_uint32_t f = static_cast<qx_uint32_t>(p_entry - p_slots);
                *p_entry = sr_i_index_entry_t{};
                p_entry->p_applied = p_data;
                p_entry->p_committed = p_data;
                p_entry->file_offset = static_cast<qx_uint32_t>(current);
                // Right as it stands when every slot handed out stays live.
                p_entry->packed_index = f;
                sr_i_store_u32(p_data, f);
                break;
            }
            case SR_I_RECORD_TYPE_DELETION: {
                if (length < kHeader + 4) return SR_ERROR(SR_E_TABLE_UNREADABLE);
                const qx_uint64_t count = sr_i_load_u32(p_data);
                if (kHeader + 4 + 4 * count > length) return SR_ERROR(SR_E_TABLE_UNREADABLE);
                for (qx_uint64_t i = 0; i < count; ++i) {
                    qx_uint64_t offset = sr_i_load_u32(p_data + 4 + 4 * i);
                    if (offset < meta_length || offset + kHeader + 4 > current) {
                        return SR_ERROR(SR_E_TABLE_UNREADABLE);
                    }
                    qx_uint32_t fixed = sr_i_load_u32(p_image + offset + kHeader);
                    if (fixed >= used) return SR_ERROR(SR_E_TABLE_UNREADABLE);
                    sr_i_index_entry_t *p_entry = &p_slots[fixed];
                    // A row listed twice is free by its second mention.
                    if (p_entry->p_committed == nullptr || p_entry->file_offset != offset) {
                        return SR_ERROR(SR_E_TABLE_UNREADABLE);
                    }
                    sr_i_rb_free_record(p_pool, p_entry->p_committed);
                    sr_i_rows_free_chain_insert(p_table, p_entry);
                    --p_table->total_applied_rows;
                }
                sr_i_rb_free_record(p_pool, p_data);
                break;
            }
            case SR_I_RECORD_TYPE_COMMIT: {
                p_table->commit_record_offset = static_cast<qx_uint32_t>(current);
                p_table->commit_record_length = static_cast<qx_uint32_t>(length);
                qx_int32_t rc = sr_i_open_commit_record(p_record, p_table->p_application_metadata,
                                                        &p_table->change_counter);
                if (rc != 0) return rc;
                // The commit record and whatever an uncommitted apply left
                // after it become one free record of the pool.
                sr_i_store_u32(p_record, static_cast<qx_uint32_t>(image_end - current));
                sr_i_rb_free_record(p_pool, p_data);
                *p_used = used;
                return 0;
            }
            default:
                return SR_ERROR(SR_E_TABLE_UNREADABLE);
        }
        current += length;
    }
}

}  // namespace

qx_int32_t sr_i_open_persistent_table(sr_i_tree_t *p_tree, const char *p_name,
                                      const char *p_file_name, qx_uint32_t mode,
                                      qx_uint32_t block_size, sr_hash_table_t *p_rows_hash_table,
                                      sr_i_table_t **p_table) {
    sr_i_table_t *p_new = nullptr;
    qx_int32_t rc = sr_i_create_null_table(&p_new);
    if (rc != 0) {
        sr_i_hash_table_close(p_rows_hash_table);
        return rc;
    }
    p_new->p_rows_hash_table = p_rows_hash_table;
    p_new->mode = mode;
    p_new->p_tree = p_tree;
    p_new->implicitly_controlled = (mode & SR_MODE_EXPLICIT_CONTROL) ? 0 : 1;
    if (p_file_name == nullptr) {
        sr_i_close_table(p_new);
        return SR_ERROR(SR_E_NULL_POINTER);
    }
    size_t name_length = std::strlen(p_file_name);
    p_new->p_name = sr_i_strdup(p_file_name);
    if (p_name != nullptr) p_new->p_persistent_table_registry_path = sr_i_strdup(p_name);
    p_new->p_file_path = static_cast<char *>(sr_i_malloc(name_length + 9));
    if (p_new->p_name == nullptr ||
        (p_name != nullptr && p_new->p_persistent_table_registry_path == nullptr) ||
        p_new->p_file_path == nullptr) {
        sr_i_close_table(p_new);
        return SR_ERROR(SR_E_NO_MEMORY);
    }
    std::memcpy(p_new->p_file_path, p_file_name, name_length);
    std::memcpy(p_new->p_file_path + name_length, ".rewrite", 9);
    p_new->file_path_length = static_cast<qx_uint32_t>(name_length);
    p_new->block_size = block_size;

    const bool writer = (mode & SR_MODE_WRITE) != 0;
    qx_int32_t fd = -1;
    for (;;) {
        // A reader takes a descriptor of the file parked beside this
        // process's writer, if there is one, rather than parking one more.
        fd = writer ? -1 : sr_i_reuse_parked_data_file(sr_i_set_data_path(p_new));
        if (fd >= 0) {
            p_new->file_fd = fd;
            break;
        }
        fd = sr_i_open_file(sr_i_set_data_path(p_new), writer ? O_RDWR : O_RDONLY, 0644);
        if (fd < 0) {
            rc = SR_ERROR_FILE("open", errno, true);
            sr_i_close_table(p_new);
            return rc;
        }
        rc = sr_i_register_data_file(fd, writer ? 1 : 0);
        if (rc != 0) {
            sr_i_close_unregistered_data_file(fd);
            sr_i_close_table(p_new);
            return rc;
        }
        p_new->file_fd = fd;
        if (!writer) break;
        // A writer holds the whole file's lock for as long as the table is
        // open; a second writer in this or another process waits here.
        // Readers rely on the commit protocol instead.
        rc = sr_i_lock_data_file(fd);
        if (rc != 0) {
            sr_i_close_table(p_new);
            return rc;
        }
        // While we waited, the writer before us may have committed a rewrite
        // (a rename over the path) or deleted the table: then the lock and the
        // bytes we would read belong to a file the path no longer names, and
        // our commits would go to an unlinked file.  Start again on the file
        // the path names now.
        struct stat held, named;
        if (fstat(fd, &held) != 0) {
            rc = SR_ERROR_SYSCALL("fstat", errno);
            sr_i_close_table(p_new);
            return rc;
        }
        if (stat(sr_i_set_data_path(p_new), &named) != 0) {
            rc = SR_ERROR_FILE("stat", errno, true);
            sr_i_close_table(p_new);
            return rc;
        }
        if (held.st_dev == named.st_dev && held.st_ino == named.st_ino) break;
        sr_i_close_data_file(fd);
        p_new->file_fd = -1;
    }

    char *p_image = nullptr;
    qx_uint64_t bytes_read = 0;
    qx_uint64_t image_end = 0;
    qx_uint64_t records_end = 0;
    rc = read_file_image(p_new, fd, &p_image, &bytes_read, &image_end, &records_end);
    if (rc == 0) {
        rc = check_metadata_record(p_image, rec_length(p_image), &p_new->total_columns,
                                   &p_new->total_variable_length_columns);
        // Until the walk, the pool must stay walkable for a close: the
        // image is one record again.
        if (rc != 0) sr_i_set_record_length(p_image, static_cast<qx_uint32_t>(image_end));
    }
    if (rc == 0) {
        p_new->p_metadata_record_data = p_image + kHeader;
        rc = sr_i_load_columns(p_new);
        if (rc != 0) sr_i_set_record_length(p_image, static_cast<qx_uint32_t>(image_end));
    }
    if (rc == 0) {
        // Found, not taken: makes the pool add its next buffer now, so that
        // the first rows added later come from it.  Only a hint, so a column
        // count no real table has cannot make it a huge allocation.
        const qx_uint64_t hint =
            static_cast<qx_uint64_t>(p_new->total_columns) * 800 +
            static_cast<qx_uint64_t>(p_new->total_variable_length_columns) * 10000 + 1600;
        char *p_room = nullptr;
        char *p_previous = nullptr;
        qx_uint32_t actual = 0;
        rc = sr_i_rb_find_suitable_record(
            &p_new->record_buffer_pool,
            static_cast<qx_uint32_t>(hint < kMaximumRoomHint ? hint : kMaximumRoomHint), &p_room,
            &p_previous, &actual);
    }
    if (rc == 0) {
        // Room for as many row records as the file can hold; the index is
        // sized to the slots the rows take once the pass has counted them.
        const qx_uint64_t meta_length = rec_length(p_image);
        qx_uint64_t capacity =
            (records_end - meta_length) / (8 * static_cast<qx_uint64_t>(p_new->total_columns) + 12);
        rc = sr_i_reserve_rows_index(p_new, static_cast<qx_uint32_t>(capacity));
    }
    if (rc == 0 && p_new->p_rows_hash_table == nullptr &&
        sr_i_load_column(p_new->p_columns).type == QX_RSRC_HANDLE_PTR) {
        rc = sr_i_hash_table_open(0, nullptr, nullptr, &p_new->p_rows_hash_table);
    }
    if (rc == 0) rc = sr_i_allocate_application_metadata_buffer(1, &p_new->p_application_metadata);
    qx_uint32_t used = 0;
    if (rc == 0) rc = load_records(p_new, p_image, bytes_read, image_end, &used);
    if (rc == 0) rc = sr_i_complete_rows_index(p_new, used);
    if (rc == 0) {
        p_new->total_committed_rows = p_new->total_applied_rows;
        // The key index once the pass has settled which rows live, as if
        // they had been added in fixed index order.
        if (p_new->p_rows_hash_table != nullptr) rc = sr_i_establish_secondary_row_access(p_new);
    }
    if (rc != 0) {
        sr_i_close_table(p_new);
        return rc;
    }
    *p_table = p_new;
    return 0;
}
