/*
 * sr_i.h - the registry library's internal records and routines.
 *
 * One header for every internal record (tree, lock, mount point, table, row
 * index, change entries, record buffer pool, hashed key index, application
 * metadata) so that every source file sees one definition of each.  Field
 * names and order follow the records as the file format, the dumps and the
 * rest of the library expect them.
 *
 * Nothing here is exported from libqx_sr.so; the unit tests reach it through
 * the static archive.
 */
#ifndef SR_I_H
#define SR_I_H

#include <pthread.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/uio.h>

#include <atomic>
#include <initializer_list>

#include "qx_cu.h"
#include "qx_pmsg.h"
#include "qx_sr.h"
#include "qx_tr.h"

/* ===========================================================================
 * Foundation: error reporting, tracing, the reader/writer lock, trees.
 */

/* Where a failure was detected: one per source file. */
struct sr_i_source_t {
    const char *file;    /* path below the source root without extension, e.g. "sr/sr_i_paths" */
    const char *version; /* the file's version identification string */
};

/* Declares a source file's identification; every sr/ file opens with it. */
#define SR_SOURCE_FILE(path, version) \
    [[maybe_unused]] static constexpr sr_i_source_t sr_i_this_source{path, version}

/*
 * The one error-reporting helper.  Records `code` for the calling thread with
 * its message and substitution values, then writes the error trace record
 * when error tracing is on, and returns `code` so callers can `return` it.
 *   10: p_text = the system call's name, value = errno
 *   11: p_text = the library function's name, value = what it returned
 *   12, 15: neither (the function, line, file and version are added here)
 *   102: p_text = the offending path (NULL gives "<NULL POINTER>")
 *   109: p_text = the offending text
 *   any other code: neither.
 */
qx_int32_t sr_i_set_error(const sr_i_source_t &source, const char *p_function, int line,
                          qx_int32_t code, const char *p_text = nullptr, int value = 0);

/* The message number of a result code (its position in the message table),
 * or 0 for a value that is not a result code. */
qx_uint32_t sr_i_message_index(qx_int32_t code);

#define SR_ERROR(code) sr_i_set_error(sr_i_this_source, __func__, __LINE__, (code))
#define SR_ERROR_SYSCALL(name, err) \
    sr_i_set_error(sr_i_this_source, __func__, __LINE__, SR_E_SYSTEM_CALL, (name), (err))
#define SR_ERROR_LIBCALL(name, rc) \
    sr_i_set_error(sr_i_this_source, __func__, __LINE__, SR_E_LIBRARY_CALL, (name), (int)(rc))
#define SR_ERROR_TEXT(code, text) \
    sr_i_set_error(sr_i_this_source, __func__, __LINE__, (code), (text))

/* Writes "function(%s) errno(%d) line(%d) sccsid(%s)\n" into
 * "reginfo_pid.<pid>" in the working directory, replacing any earlier capture
 * of this process.  Used when a sync fails. */
void sr_i_capture_errno(const char *p_function_name, int the_errno, int line_number,
                        const char *p_sccsid);

/* Trace state of the component "_SRA". */
#define SR_TRACE_COMPONENT "_SRA"
#define SR_TRACE_API 0
#define SR_TRACE_ERRORS 1
#define SR_TRACE_WHEREVER 2
extern qx_uint8_t Sr_Trace_Level_Of_Detail[3];
extern qx_uint32_t Sr_Library_Registered_For_Trace;
extern const tr_category_description_t Sr_Trace_Categories[3];

/* Development records: unconditional, "DV|" + tag + "|%.3d" + the fields. */
#define SR_DV_TRACE(fmt, ...) \
    tr_record_fmt_string_1(SR_TRACE_COMPONENT, TR_CATEGORY_ALWAYS, fmt, __VA_ARGS__)

/* The reader/writer lock of every tree and table.  Readers count themselves
 * in one of several shards (each on its own cache line, chosen per thread)
 * so that readers on different cores never write the same line; a writer
 * announces itself in `writers` and waits for the shards to sum to zero.
 * The lock has no owner, so a release may land on another shard than its
 * acquire: a shard may go negative, only the sum means anything. */
#define SR_I_RW_SHARDS 8
typedef struct sr_i_read_write_shard_struct_t {
    std::atomic<qx_int32_t> readers;
    char padding[64 - sizeof(std::atomic<qx_int32_t>)];
} sr_i_read_write_shard_t;

typedef struct sr_i_read_write_lock_struct_t {
    sr_i_read_write_shard_t shards[SR_I_RW_SHARDS];
    std::atomic<qx_int32_t> writers; /* writers waiting or holding: readers' fast path reads it */
    char padding[64 - sizeof(std::atomic<qx_int32_t>)];
    pthread_mutex_t lock; /* guards the fields below and every wait */
    pthread_cond_t read_condition;
    pthread_cond_t write_condition;
    qx_int32_t writer_holding;
    qx_int32_t waiting_readers;
    qx_int32_t waiting_writers; /* writers that have come (never decremented on success) */
} sr_i_read_write_lock_t;

/* Readers holding it (counting readers that wait for a writer), -1 while a
 * writer holds it, 0 when free.  Exact only when nothing changes it. */
qx_int32_t sr_i_rw_state(sr_i_read_write_lock_t *p_rwlock);
void sr_i_rw_open(sr_i_read_write_lock_t *p_rwlock);
void sr_i_rw_close(sr_i_read_write_lock_t *p_rwlock);
qx_int32_t sr_i_rw_lock_read(sr_i_read_write_lock_t *p_rwlock);
qx_int32_t sr_i_rw_unlock_read(sr_i_read_write_lock_t *p_rwlock);
qx_int32_t sr_i_rw_lock_write(sr_i_read_write_lock_t *p_rwlock);
qx_int32_t sr_i_rw_unlock_write(sr_i_read_write_lock_t *p_rwlock);

/* One open tree; the tree handle points to it. */
typedef struct sr_i_tree_struct {
    void *p_tables;         /* ordered set of named tables (sr_i_table_compare) */
    void *p_unnamed_tables; /* ordered set of unnamed tables, by address */
    void *p_mount_points;   /* ordered set of sr_i_mount_point_t by p_name */
    cu_iconv_t *p_to_table_string_conversion_handle;
    cu_iconv_t *p_from_table_string_conversion_handle;
    sr_i_read_write_lock_t lock;
    qx_char_ptr_t *p_list; /* work area of sr_list_tables_1 */
    qx_char_ptr_t p_list_prefix;
    qx_uint32_t total_list_entries;
    qx_uint32_t max_list_entries;
    qx_int32_t list_rc;
} sr_i_tree_t;

/* One mount point of a tree. */
typedef struct sr_i_mount_point_struct_t {
    qx_char_ptr_t p_name;            /* registry path with "/" appended */
    qx_char_ptr_t p_filesystem_path; /* the directory, as passed */
    qx_uint32_t block_size;          /* always 512 */
} sr_i_mount_point_t;

/* Process-wide state. */
extern pthread_mutex_t ForkMutex;
extern pthread_mutex_t Registry_Trees_Mutex;
extern void *P_Registry_Trees;

/* Ordered-set comparators (tsearch family: key first, stored record second). */
int sr_i_table_compare(const void *p_key, const void *p_stored);
int sr_i_string_to_table_compare(const void *p_key, const void *p_stored);
int sr_i_mount_point_compare(const void *p_key, const void *p_stored);
int sr_i_string_to_mount_point_compare(const void *p_key, const void *p_stored);
int sr_i_string_to_mount_point_delete_compare(const void *p_key, const void *p_stored);
int sr_i_pointer_compare(const void *p_key, const void *p_stored);

qx_int32_t sr_i_get_string_conversion_handles(cu_iconv_t **p_to_table_string_conversion_handle,
                                              cu_iconv_t **p_from_table_string_conversion_handle);
qx_int32_t sr_i_close_tree(sr_i_tree_t *p_tree);

/* The library's once-only set-up (fork handlers, trace registration); run by
 * every tree open. */
void sr_i_library_once();

/* ===========================================================================
 * Table engine records.
 */

/* Record header of the pool and of the table file: 12 bytes, host order. */
#define SR_I_RECORD_HEADER_LENGTH 12
#define SR_I_RECORD_TYPE_FREE 0
#define SR_I_RECORD_TYPE_METADATA 1
#define SR_I_RECORD_TYPE_ROW 2

typedef struct sr_i_record_buffer_struct_t sr_i_record_buffer_t;

typedef struct sr_i_record_buffer_pool_struct_t {
    qx_uint32_t total_bytes; /* all buffers, buffer headers included */
    qx_uint32_t used_bytes;  /* total_bytes minus the data bytes of free records */
    char *p_free_chain;      /* first free record (header address), address order */
    sr_i_record_buffer_t *p_first_record_buffer;
    sr_i_record_buffer_t *p_last_record_buffer;
} sr_i_record_buffer_pool_t;

typedef struct sr_i_record_buffer_pool_duplication_map_struct_t {
    qx_uint32_t total; /* number of source buffers */
    char **p_begin;    /* first data byte of each source buffer */
    char **p_end;      /* end of each source buffer */
    qx_int64_t *p_offset; /* distance from a source address to its copy */
} sr_i_record_buffer_pool_duplication_map_t;

typedef struct sr_hash_table_element_struct_t {
    qx_uint32_t row_index; /* the row's fixed index */
    char *p_key_value;     /* the key inside the row record */
    struct sr_hash_table_element_struct_t *p_next;
} sr_hash_table_element_t;

typedef struct sr_hash_table_struct_t {
    qx_uint32_t total_hash_buckets;
    sr_hash_function_t *p_hash_function;
    sr_hash_keys_compare_function_t *p_compare_function;
    sr_hash_table_element_t **p_elements;
    /* Elements come from slabs owned by the index (one malloc per slab, not
     * per row); removed elements wait on a free list for the next add.  A
     * slab is an array of elements whose first links the slabs. */
    sr_hash_table_element_t *p_slabs; /* newest first */
    sr_hash_table_element_t *p_free_elements;
    qx_uint32_t slab_used;     /* elements handed out of the newest slab */
    qx_uint32_t slab_capacity; /* elements the newest slab holds */
} sr_hash_table_t;

typedef struct sr_i_application_metadata_index_element_struct_t {
    qx_uint32_t type;
    qx_binary_t *p_applied;   /* current version; NULL when deleted pending commit */
    qx_binary_t *p_committed; /* last committed version; NULL when added since */
} sr_i_application_metadata_index_element_t;

typedef struct sr_i_application_metadata_struct_t {
    qx_uint32_t max_elements;
    qx_uint32_t total_elements;
    sr_i_application_metadata_index_element_t *p_index; /* sorted by type */
} sr_i_application_metadata_t;

struct sr_i_change_entry_struct_t;

/* One fixed-index slot. */
typedef struct sr_i_index_entry_struct_t {
    char *p_applied;   /* working version's record data, NULL when deleted or free */
    char *p_committed; /* committed record data, NULL when added since */
    qx_uint32_t file_offset;
    qx_uint32_t applied_file_offset;
    void *p_pending_change; /* sr_i_change_entry_t, or the free-chain link */
    qx_uint32_t hash_index;
    sr_hash_table_element_t *p_hash_table_element;
    qx_uint32_t packed_index;
} sr_i_index_entry_t;

typedef struct sr_i_change_entry_struct_t {
    qx_uint32_t deletion; /* 1 deletion, 0 addition or update */
    sr_i_index_entry_t *p_index_entry;
    struct sr_i_change_entry_struct_t *p_next;
    struct sr_i_change_entry_struct_t *p_prev;
} sr_i_change_entry_t;

/* Gather writes of apply: at most this many records per writev. */
#define SR_I_IO_VECTOR_SIZE 16

/* One open table, shared by every open of it through one tree. */
typedef struct sr_i_table_struct {
    qx_char_ptr_t p_name;
    qx_uint32_t references;
    char *p_metadata_record_data;
    sr_column_t *p_columns;
    qx_uint32_t total_columns;
    qx_uint32_t total_variable_length_columns;
    qx_uint32_t maximum_rows;
    qx_uint32_t total_applied_rows;
    qx_uint32_t total_committed_rows;
    sr_i_index_entry_t *p_rows_fixed_index;
    qx_uint32_t *p_rows_packed_index;
    sr_i_change_entry_t *p_rows_change_list;
    sr_i_change_entry_t *p_rows_change_list_tail;
    sr_i_change_entry_t *p_delete_rows_change_list;
    sr_i_change_entry_t *p_delete_rows_change_list_tail;
    qx_uint32_t implicitly_controlled;
    qx_uint32_t uncommitted_updates_visible;
    qx_uint64_t change_counter;
    qx_uint64_t applied_change_counter;
    sr_i_tree_t *p_tree;
    struct sr_i_table_struct *p_next;
    qx_uint32_t mode;
    qx_uint32_t block_size;
    qx_uint32_t ready_for_commit; /* 0 nothing, 1 appended, 2 rewrite file written */
    qx_uint32_t applied_deletions;
    qx_int32_t file_fd;
    qx_int32_t rewrite_file_fd;
    char *p_file_path; /* file name followed by ".rewrite" in one buffer */
    qx_uint32_t file_path_length;
    qx_uint32_t commit_record_offset;
    qx_uint32_t applied_commit_record_offset;
    qx_uint32_t commit_record_length;
    qx_uint32_t applied_commit_record_length;
    qx_uint32_t file_length;
    qx_uint32_t rewrite_file_length;
    qx_char_ptr_t p_persistent_table_registry_path;
    sr_hash_table_t *p_rows_hash_table;
    sr_i_index_entry_t *p_rows_free_chain;
    sr_i_application_metadata_t *p_application_metadata;
    qx_array_t *p_packed_rows_array;
    sr_i_read_write_lock_t lock;
    sr_i_record_buffer_pool_t record_buffer_pool;
    struct iovec io_vector[SR_I_IO_VECTOR_SIZE];
    /* Memory-only overlays: each overlaid column's qualifier and default as
     * the file has them and as overlaid (sr_i_update_metadata.cpp). */
    struct sr_i_overlay_struct *p_overlays;
    qx_uint32_t total_overlays;
    qx_uint32_t overlays_hidden;
    /* Pools of contents replaced by reading the file again for another
     * opener; values handed out from them stay valid until the last close. */
    struct sr_i_retired_pool_struct *p_retired_pools;
} sr_i_table_t;

/* ===========================================================================
 * The call frame of the exported operations.
 */

/* Which lock an exported operation takes around its work. */
enum class sr_i_lock_kind { none, table_read, table_write, tree_read, tree_write };

struct sr_i_frame_t {
    const char *p_function = nullptr;            /* the exported operation, for error reports */
    qx_uint32_t entry_id = 0;                    /* odd; the exit id is entry_id + 1 */
    bool api_mutex = false;                      /* state-changing: hold ForkMutex */
    sr_i_lock_kind lock = sr_i_lock_kind::none;  /* lock taken on the handle's object */
    bool write_mode = false;                     /* refuse a table without mode & 2 (206) */
    bool implicit = false;                       /* apply and commit an implicit table */
};

/* The frame of a row or application-metadata update: ForkMutex and the
 * table's write lock for the whole call, including the apply and commit an
 * implicitly controlled table makes at once, after the write-mode check. */
constexpr sr_i_frame_t sr_i_update_frame(const char *p_function, qx_uint32_t entry_id) {
    return {.p_function = p_function,
            .entry_id = entry_id,
            .api_mutex = true,
            .lock = sr_i_lock_kind::table_write,
            .write_mode = true,
            .implicit = true};
}

/* The pointer arguments a call requires (101 when one is NULL): each of
 * `pointers`, and, when `count` is not 0, each array of `arrays` and its
 * first `count` entries (pointers themselves: names, value pointers) and
 * each array of `paths` (whose entries are registry paths: a NULL one is
 * the path check's to report, as 102). */
struct sr_i_required_t {
    std::initializer_list<const void *> pointers = {};
    std::initializer_list<const void *> arrays = {};
    std::initializer_list<const void *> paths = {};
    qx_uint32_t count = 0;
};

/* Whether every pointer `required` names is there. */
inline bool sr_i_required_present(const sr_i_required_t &required) {
    for (const void *p : required.pointers) {
        if (p == nullptr) return false;
    }
    if (required.count == 0) return true;
    for (const void *p_array : required.paths) {
        if (p_array == nullptr) return false;
    }
    for (const void *p_array : required.arrays) {
        if (p_array == nullptr) return false;
        for (qx_uint32_t i = 0; i < required.count; ++i) {
            const void *p_entry;
            memcpy(&p_entry, static_cast<const char *>(p_array) + i * sizeof(void *),
                   sizeof p_entry);
            if (p_entry == nullptr) return false;
        }
    }
    return true;
}

/* Applies and commits an implicitly controlled table after an update, or
 * aborts it when apply fails; returns apply's or commit's result.  Provided
 * by the transaction layer. */
qx_int32_t sr_i_implicit_apply_commit(sr_i_table_t *p_table);

/* Frame pieces used by sr_i_api_call below. */
void sr_i_trace_entry(qx_uint32_t entry_id);
qx_int32_t sr_i_trace_exit(qx_uint32_t entry_id, qx_int32_t result);
void sr_i_fork_mutex_lock();
void sr_i_fork_mutex_unlock();

/*
 * The frame every exported operation runs in: trace entry, ForkMutex for
 * state-changing operations, the handle check (100), the required pointers
 * (101), the tree's or table's lock, the write-mode check (206), the work,
 * the implicit apply/commit/abort, release in reverse order, error clearing
 * on success, trace exit.
 *
 * `Object` is sr_i_table_t or sr_i_tree_t; `work` is called with the object
 * and returns a result code.  `source` is the calling sr_x_ file's
 * sr_i_this_source, so that 100, 101 and 206 are reported against it.
 */
template <typename Object, typename Work>
qx_int32_t sr_i_api_call(const sr_i_source_t &source, const sr_i_frame_t &frame, void *handle,
                         const sr_i_required_t &required, Work &&work) {
    sr_i_trace_entry(frame.entry_id);
    if (frame.api_mutex) sr_i_fork_mutex_lock();
    qx_int32_t rc = 0;
    Object *p_object = static_cast<Object *>(handle);
    if (p_object == nullptr) {
        rc = sr_i_set_error(source, frame.p_function, __LINE__, SR_E_INVALID_HANDLE);
    } else if (!sr_i_required_present(required)) {
        rc = sr_i_set_error(source, frame.p_function, __LINE__, SR_E_NULL_POINTER);
    } else {
        sr_i_read_write_lock_t *p_lock = &p_object->lock;
        bool write_lock = frame.lock == sr_i_lock_kind::table_write ||
                          frame.lock == sr_i_lock_kind::tree_write;
        bool locked = false;
        if (frame.lock != sr_i_lock_kind::none) {
            rc = write_lock ? sr_i_rw_lock_write(p_lock) : sr_i_rw_lock_read(p_lock);
            locked = rc == 0;
        }
        if (rc == 0) {
            if constexpr (requires { p_object->mode; }) {
                if (frame.write_mode && (p_object->mode & SR_MODE_WRITE) == 0) {
                    rc = sr_i_set_error(source, frame.p_function, __LINE__, SR_E_ACCESS);
                }
            }
            if (rc == 0) rc = work(p_object);
            if constexpr (requires { p_object->implicitly_controlled; }) {
                if (rc == 0 && frame.implicit && p_object->implicitly_controlled) {
                    rc = sr_i_implicit_apply_commit(p_object);
                }
            }
        }
        if (locked) {
            qx_int32_t unlock_rc =
                write_lock ? sr_i_rw_unlock_write(p_lock) : sr_i_rw_unlock_read(p_lock);
            if (rc == 0) rc = unlock_rc;
        }
    }
    if (frame.api_mutex) sr_i_fork_mutex_unlock();
    if (rc == 0) cu_set_no_error_1();
    return sr_i_trace_exit(frame.entry_id, rc);
}

/* A call without pointer arguments beyond its handle. */
template <typename Object, typename Work>
qx_int32_t sr_i_api_call(const sr_i_source_t &source, const sr_i_frame_t &frame, void *handle,
                         Work &&work) {
    return sr_i_api_call<Object>(source, frame, handle, sr_i_required_t{},
                                 static_cast<Work &&>(work));
}

/* ===========================================================================
 * Table file, create, open, close.
 */

/* Record types that exist only in the table file (the pool knows 0, 1, 2). */
#define SR_I_RECORD_TYPE_DELETION 3
#define SR_I_RECORD_TYPE_COMMIT (-1)

/* Length of a commit record without application metadata. */
#define SR_I_COMMIT_RECORD_LENGTH 24

/* Alignment-safe loads and stores: records, slots and column entries lie at
 * any alignment in a file image, a pool or a packed buffer. */
inline qx_uint32_t sr_i_load_u32(const void *p) {
    qx_uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}
inline void sr_i_store_u32(void *p, qx_uint32_t v) {
    memcpy(p, &v, sizeof v);
}
inline qx_uint64_t sr_i_load_u64(const void *p) {
    qx_uint64_t v;
    memcpy(&v, p, sizeof v);
    return v;
}
inline void sr_i_store_u64(void *p, qx_uint64_t v) {
    memcpy(p, &v, sizeof v);
}
/* A copy of p_text in memory from sr_i_malloc, or NULL. */
char *sr_i_strdup(const char *p_text);

/* The metadata record's data, the same bytes in the pool and in the file on
 * every host: byte-order flag, 0, total_columns and
 * total_variable_length_columns (16 bytes), one 32-byte entry per column, then
 * the indirect data area (packed defaults, names, structured-data
 * definitions).  An entry: name offset (u32) at 0, type at 4, qualifier at 8,
 * properties at 12, sd_defn offset (u32, 0 for none) at 16, 4 bytes of
 * padding, the default's 8-byte value slot at 24; offsets count from the
 * start of the indirect data area.  The record lies at any alignment and is
 * read and written with memcpy only. */
#define SR_I_METADATA_FIXED_LENGTH 16
#define SR_I_COLUMN_ENTRY_LENGTH 32
#define SR_I_COLUMN_ENTRY_NAME 0
#define SR_I_COLUMN_ENTRY_TYPE 4
#define SR_I_COLUMN_ENTRY_QUALIFIER 8
#define SR_I_COLUMN_ENTRY_PROPERTIES 12
#define SR_I_COLUMN_ENTRY_SD_DEFN 16
#define SR_I_COLUMN_ENTRY_DEFAULT 24

inline char *sr_i_column_entry(char *p_metadata_record_data, qx_uint32_t column) {
    return p_metadata_record_data + SR_I_METADATA_FIXED_LENGTH +
           static_cast<size_t>(column) * SR_I_COLUMN_ENTRY_LENGTH;
}
inline char *sr_i_metadata_indirect_area(char *p_metadata_record_data, qx_uint32_t total_columns) {
    return sr_i_column_entry(p_metadata_record_data, total_columns);
}

/* p_columns is the table's own native copy of the metadata record's column
 * array (malloc'd, freed at close): name and sd_defn point into the record's
 * indirect data area (sd_defn at the packed definition: field count, then per
 * field its type word and NUL-terminated name), default_value is the entry's
 * slot as it stands (an anchor into the indirect data area for pointer
 * types).  Rebuilt from the record whenever the record moves or changes; 12
 * on memory, the old copy kept. */
qx_int32_t sr_i_load_columns(sr_i_table_t *p_table);
/* Change one column's qualifier in the record and the copy. */
void sr_i_set_column_qualifier(sr_i_table_t *p_table, qx_uint32_t column, sr_qualifier_t qualifier);

/* A copy of a column definition of a table's p_columns. */
inline sr_column_t sr_i_load_column(const sr_column_t *p_column) {
    sr_column_t column;
    memcpy(&column, p_column, sizeof column);
    return column;
}

/* Allocates and fills a commit record for `change_counter` and the applied (or
 * else committed) application metadata; the caller frees it with free(). */
qx_int32_t sr_i_create_commit_record(sr_i_application_metadata_t *p_application_metadata,
                                     qx_uint64_t change_counter,
                                     qx_uint32_t *p_commit_record_length,
                                     char **p_p_commit_record);

/* Reads the commit record whose header is at p_commit_record (any alignment):
 * its change counter, and its application metadata added to and committed in
 * the store.  The record's own length bounds every field (14 when it lies). */
qx_int32_t sr_i_open_commit_record(const char *p_commit_record,
                                   sr_i_application_metadata_t *p_application_metadata,
                                   qx_uint64_t *p_change_counter);

/* Reads the table file p_file_name into a new table record (one read, one
 * pass).  p_name is the registry path (may be NULL).  The record owns
 * p_rows_hash_table from the start: on failure it has been closed. */
qx_int32_t sr_i_open_persistent_table(sr_i_tree_t *p_tree, const char *p_name,
                                      const char *p_file_name, qx_uint32_t mode,
                                      qx_uint32_t block_size, sr_hash_table_t *p_rows_hash_table,
                                      sr_i_table_t **p_table);

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

/* Creating tables.  sr_x_create_table consumes p_rows_hash_table and
 * p_packed_rows_array whatever the outcome; the workers own them from their
 * first step.  A packed rows array makes a read-only transient table whose
 * rows stay in the caller's buffer (named by the registry path even under a
 * mount point). */
qx_int32_t sr_x_create_table(sr_opaque_handle_t tree_handle, qx_char_ptr_t p_registry_path,
                             sr_column_t *p_columns, qx_uint32_t array_count, qx_int32_t mode,
                             sr_hash_table_t *p_rows_hash_table, qx_array_t *p_packed_rows_array,
                             sr_opaque_handle_t *p_result_table_handle);
qx_int32_t sr_i_create_null_table(sr_i_table_t **p_table);
qx_int32_t sr_i_create_transient_table_common(sr_i_tree_t *p_tree, const char *p_name,
                                              sr_column_t *p_columns, qx_uint32_t total_columns,
                                              qx_uint32_t mode, sr_hash_table_t *p_rows_hash_table,
                                              sr_i_table_t **p_table);
qx_int32_t sr_i_create_transient_table(sr_i_tree_t *p_tree, const char *p_name,
                                       sr_column_t *p_columns, qx_uint32_t total_columns,
                                       qx_uint32_t mode, sr_hash_table_t *p_rows_hash_table,
                                       sr_i_table_t **p_table);
qx_int32_t sr_i_create_read_only_transient_table_from_packed_rows(
    sr_i_tree_t *p_tree, const char *p_name, sr_column_t *p_columns, qx_uint32_t total_columns,
    sr_hash_table_t *p_rows_hash_table, qx_array_t *p_packed_rows_array, sr_i_table_t **p_table);
qx_int32_t sr_i_create_persistent_table(sr_i_tree_t *p_tree, const char *p_name,
                                        const char *p_file_name, sr_column_t *p_columns,
                                        qx_uint32_t total_columns, qx_uint32_t mode,
                                        qx_uint32_t block_size, sr_hash_table_t *p_rows_hash_table,
                                        sr_i_table_t **p_table);
qx_uint32_t sr_i_valid_column_name(const char *column_name);
qx_int32_t sr_i_pack_variable_length_default_values(sr_column_t *p_columns,
                                                    qx_uint32_t total_columns,
                                                    char **p_default_value_indirect_data,
                                                    qx_uint32_t *default_value_indirect_data_length,
                                                    qx_uint32_t *total_variable_length_columns_return,
                                                    cu_iconv_t *p_string_conversion_handle);
void sr_i_swap_columns(sr_column_t *p_column1, sr_column_t *p_column2);

/* Opening and closing.  On success do_open_table sets *p_new_record (when
 * given) to whether it made a new record, which then owns p_rows_hash_table;
 * a shared record leaves the index with the caller.  On failure it has
 * released the index. */
qx_int32_t do_open_table(sr_opaque_handle_t tree_handle, qx_char_ptr_t p_registry_path,
                         qx_int32_t mode, sr_hash_table_t *p_rows_hash_table,
                         sr_opaque_handle_t *p_result_table_handle, bool *p_new_record);
/* Frees a table record and everything it owns; writes nothing. */
qx_int32_t sr_i_close_table(sr_i_table_t *p_table);

/* ===========================================================================
 * Namespace and files: paths, files, mount points.
 */

#include <sys/types.h>

/* --- registry paths (sr_i_paths.cpp) --- */

/* Longest registry path accepted, in bytes. */
#define SR_I_MAX_PATH_LENGTH 255
/* Bytes beyond the file path that a resolved path buffer always has, so a
 * suffix such as ".rewrite" can be appended in place. */
#define SR_I_PATH_SLACK 32

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
#define SR_I_MOUNT_BLOCK_SIZE 512

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
#define SR_I_RETRY_LIMIT 100
#define SR_I_RETRY_INTERVAL 10000

/* The system calls under the file primitives.  The defaults are the real
 * calls; tests swap entries (with no primitive running) to inject EINTR,
 * short writes and errors, and put sr_i_default_file_ops back afterwards. */
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
    /* rename(2) that fails with EEXIST instead of replacing p_to. */
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

/* ===========================================================================
 * Transactions: apply, commit, abort and the implicit cycle.  Every routine
 * runs under ForkMutex and the table's write lock, taken by the exported
 * call.
 */

/* Reports failures as one routine's own, whichever of its helpers detects
 * them: apply and commit each name themselves in every error they report.
 * The line reported is the caller's. */
struct sr_i_reporter_t {
    const sr_i_source_t &source;
    const char *p_function;

    qx_int32_t error(qx_int32_t code, int line = __builtin_LINE()) const {
        return sr_i_set_error(source, p_function, line, code);
    }
    qx_int32_t syscall(const char *p_call, int the_errno, int line = __builtin_LINE()) const {
        return sr_i_set_error(source, p_function, line, SR_E_SYSTEM_CALL, p_call, the_errno);
    }
    qx_int32_t file(const char *p_call, int the_errno, int line = __builtin_LINE()) const {
        return sr_i_set_file_error(source, p_function, line, p_call, the_errno, false);
    }
};

/* Size above which a table file may be rewritten instead of appended to. */
#define SR_I_REWRITE_MINIMUM_FILE_LENGTH 16384

/* Whether the next apply should write a complete new file: the file is
 * longer than 16 KiB and less than half of it is live data (32-bit
 * arithmetic, as the decision has always been made). */
qx_uint32_t sr_i_rewrite_wanted(const sr_i_table_t *p_table);
/* Writes the pending changes and a new commit record: appended after the
 * committed commit record (rewrite 0) or as a complete image in the
 * ".rewrite" file (rewrite non-zero), then synced.  0 leaves the table
 * applied (ready_for_commit 1 or 2); 212 when it already is. */
/* Closes and removes the .rewrite file of a failed rewrite or switch. */
void sr_i_discard_rewrite_file(sr_i_table_t *p_table);
qx_int32_t sr_i_apply(sr_i_table_t *p_table, qx_uint32_t rewrite,
                      qx_uint64_t table_change_counter);
/* Makes the applied state the committed one: one 4-byte write and a sync, or
 * the rename of the rewrite file; then the in-memory walks.  0 with nothing to
 * commit; 210 with changes that were never applied. */
qx_int32_t sr_i_commit(sr_i_table_t *p_table);
/* sr_i_commit, and in *p_unsynced why nothing was switched on disk when the
 * table is left applied by a failed switch: the code of the failed sync
 * after which the old switch was put back (commit itself then returns 0), or
 * the code commit returns; 0 otherwise. */
qx_int32_t sr_i_commit_unless_unsynced(sr_i_table_t *p_table, qx_int32_t *p_unsynced);
/* Throws pending and applied changes away, on disk and in memory. */
qx_int32_t sr_i_abort(sr_i_table_t *p_table);
/* The in-memory halves, over one change list from p_current_change_entry. */
qx_int32_t sr_i_commit_in_memory(sr_i_table_t *p_table, sr_i_change_entry_t *p_current_change_entry);
qx_int32_t sr_i_abort_in_memory(sr_i_table_t *p_table, sr_i_change_entry_t *p_current_change_entry);

/*
 * Test-only pause points on the durable path.  QX_SR_TEST_PAUSE names one
 * point, read once per process (sr_i_test_pause_reload reads it again, for a
 * forked child that set it):
 *   "<point>"                 the process stops itself with SIGSTOP there;
 *   "<point>@<n>"             only at the n-th time the point is reached;
 *   "<point>[@<n>],<file>"    instead writes the point's name to <file> and
 *                             sleeps until it is killed.
 * Points: "apply-written" (apply's records written, not yet synced),
 * "implicit-applied" (between apply and commit of an implicit update),
 * "commit-written" (commit's 4-byte switch written, not yet synced),
 * "commit-synced" (the switch synced, memory not yet updated),
 * "rewrite-before-rename" and "rewrite-after-rename" (commit of a rewrite).
 * Unset, a point costs one load and one branch.
 */
void sr_i_test_pause(const char *p_point);
void sr_i_test_pause_reload();

/* ===========================================================================
 * Rows: adding, reading, writing and deleting rows; metadata queries.
 * Every routine runs under the table's lock taken by the exported call (write
 * for changes, read for readers) and returns 0 or a code it has reported.
 */

/* --- building row records (sr_i_add_row.cpp) --- */

/* Copies the 8-byte value; a NULL pointer becomes the empty value of `type`,
 * so a row never stores a NULL pointer. */
void sr_i_dup_nonscalar_value(qx_data_type_t type, qx_value_t *p_from_value,
                              qx_value_t *p_to_value);
/* Finds (does not take) a free pool record of at least *length data bytes,
 * stores its capacity in *length, and copies into it what *p_record holds so
 * far (the header word, the slots and running_indirect_data_offset indirect
 * bytes) when it is another record.  *p_pmsg and *p_indirect_data are moved to
 * the same places in the new record.  *p_record NULL: nothing is copied. */
qx_int32_t acquire_row_record(sr_i_table_t *p_table, qx_uint32_t running_indirect_data_offset,
                              qx_uint32_t *length, qx_char_ptr_t *p_record,
                              qx_pmsg_value_t **p_pmsg, qx_char_ptr_t *p_indirect_data,
                              qx_char_ptr_t *p_previous_free_record);
/* The default of column `column`: the 8-byte slot, and for a pointer-valued
 * column the bytes its anchor designates in the table's default-value data. */
void sr_i_column_default(const sr_i_table_t *p_table, qx_uint32_t column, qx_value_t *p_slot,
                         const char **p_p_bytes, qx_uint32_t *p_length);
/* Places `length` stored bytes (a complete protocol form) at the running
 * offset of an indirect area, end to end as the value library places forms,
 * and writes their anchor into p_slot.  5 (unreported) when room is short. */
qx_int32_t sr_i_place_indirect_bytes(char *p_slot, char *p_indirect_data, qx_uint32_t room,
                                     qx_uint32_t *p_running_offset, const char *p_bytes,
                                     qx_uint32_t length);
/* What sr_i_build_row_record built: the record (found, not yet taken), its
 * predecessor on the pool's free chain, the bytes used (header word, slots and
 * indirect data) and how many caller values were used. */
typedef struct {
    char *p_record;
    char *p_previous;
    qx_uint32_t used_length;
    qx_uint32_t values_used;
} sr_i_row_build_t;
/* Builds a row record from the caller's named values in a free pool record of
 * at least `length` bytes, growing and retrying the same column when room runs
 * short.  Columns left out take their default when adding (p_current NULL; the
 * key column left out: 107), and when setting the current record's value
 * (header and slots copied from p_current) unless the column is reset to its
 * default when unspecified; naming a protected column in a set: 105.  *p_key,
 * when given, receives the key column's value.  Allocates nothing. */
qx_int32_t sr_i_build_row_record(sr_i_table_t *p_table, char *p_current,
                                 qx_char_ptr_t *p_column_names, qx_value_t **p_p_values,
                                 qx_uint32_t total_values, qx_uint32_t length,
                                 sr_i_row_build_t *p_build, qx_value_t *p_key);
/* Gives a row record back to the pool, first releasing the client values that
 * readers were handed from its slots.  A NULL record is the pool's to refuse. */
qx_int32_t sr_i_free_row_record(sr_i_table_t *p_table, char *p_record_data);

/* --- adding rows and change lists (sr_i_add_row.cpp) --- */

qx_int32_t sr_i_add_row(sr_i_table_t *p_table, qx_char_ptr_t *p_column_names,
                        qx_value_t **p_p_values, qx_uint32_t total_values);
/* Attaches a finished record (found in the pool, not necessarily taken) to an
 * index entry and enforces key uniqueness.  *p_p_existing_hash_table_element
 * is non-NULL only when a row deleted since the last commit was revived. */
qx_int32_t sr_i_add_row_raw(sr_i_table_t *p_table, qx_char_ptr_t p_record_data,
                            qx_value_t *p_input_key_value,
                            sr_i_index_entry_t **p_p_new_index_entry,
                            sr_hash_table_element_t **p_p_existing_hash_table_element);
/* Puts the row on the deleted-rows list (deletion 1) or the rows change list
 * (0), moving its pending change between the lists; 12 on memory. */
qx_int32_t sr_i_common_add_change_entry(sr_i_table_t *p_table, sr_i_index_entry_t *p_index_entry,
                                        qx_uint32_t deletion);
qx_int32_t sr_i_add_change_entry(sr_i_table_t *p_table, sr_i_index_entry_t *p_index_entry);

/* --- reading fields (sr_i_get_values.cpp) --- */

/* A caller's value against a stored slot (any alignment): <0, 0, >0.  Floats
 * compare equal unless ordered (NaN matches); binary, structured data and
 * arrays never compare equal. */
qx_int32_t sr_i_compare_values(qx_value_t *p_value, const qx_pmsg_value_t *p_pmsg_value,
                               qx_data_type_t type, qx_char_ptr_t p_indirect_data);
/* The position of a column by exact name, or -1. */
qx_int32_t sr_i_find_column(const sr_i_table_t *p_table, const char *p_column_name);
/* Pointer values point into table memory (cached client values): they stay
 * valid until the row changes or the table is closed.  p_row_state may be
 * NULL; it is stored whenever the index is in range. */
qx_int32_t sr_i_get_value_for_fixed_index(sr_i_table_t *p_table, qx_uint32_t fixed_row_index,
                                          qx_char_ptr_t p_column_name, qx_value_t *p_value,
                                          qx_uint32_t uncommitted_updates_visible,
                                          sr_row_state_t *p_row_state);
qx_int32_t sr_i_get_values_for_fixed_index(sr_i_table_t *p_table, qx_uint32_t fixed_row_index,
                                           qx_char_ptr_t *p_column_names, qx_value_t **p_values,
                                           qx_uint32_t total_values,
                                           qx_uint32_t uncommitted_updates_visible,
                                           sr_row_state_t *p_row_state);
qx_int32_t sr_i_get_value_for_packed_index(sr_i_table_t *p_table, qx_uint32_t row_index,
                                           qx_char_ptr_t p_column_name, qx_value_t *p_value,
                                           qx_uint32_t uncommitted_updates_visible,
                                           sr_row_state_t *p_row_state);
qx_int32_t sr_i_get_values_for_packed_index(sr_i_table_t *p_table, qx_uint32_t row_index,
                                            qx_char_ptr_t *p_column_names, qx_value_t **p_values,
                                            qx_uint32_t total_values,
                                            qx_uint32_t uncommitted_updates_visible,
                                            sr_row_state_t *p_row_state);
qx_int32_t sr_i_get_value_for_key(sr_i_table_t *p_table, qx_value_t row_key,
                                  qx_char_ptr_t p_column_name, qx_value_t *p_value,
                                  qx_uint32_t uncommitted_updates_visible,
                                  sr_row_state_t *p_row_state);
qx_int32_t sr_i_get_values_for_key(sr_i_table_t *p_table, qx_value_t row_key,
                                   qx_char_ptr_t *p_column_names, qx_value_t **p_values,
                                   qx_uint32_t total_values,
                                   qx_uint32_t uncommitted_updates_visible,
                                   sr_row_state_t *p_row_state);
/* The fixed index of the row at packed index row_index; 203 when there is none. */
qx_int32_t sr_i_fixed_row_index_for_packed_index(const sr_i_table_t *p_table, qx_uint32_t row_index,
                                                 qx_uint32_t *p_fixed_row_index);
/* By the hashed key index when there is one, else by a linear walk of the
 * packed index over committed keys first (visibility plays no part); 202. */
qx_int32_t sr_i_get_fixed_row_index_for_key(sr_i_table_t *p_table, qx_value_t row_key,
                                            qx_uint32_t *p_fixed_row_index);
/* Fixed indices of the rows change list, then of the deleted-rows list, in a
 * malloc'd array; the count is that of the first list only.  NULL and 0 when
 * nothing is pending. */
qx_int32_t sr_i_get_updated_rows(sr_i_table_t *p_table, qx_uint32_t *p_updated_rows_count,
                                 qx_uint32_t **p_p_updated_rows_fixed_indices);

/* --- writing fields (sr_i_set_values.cpp) --- */

qx_int32_t sr_i_set_values_for_fixed_index(sr_i_table_t *p_table, qx_uint32_t fixed_row_index,
                                           qx_char_ptr_t *p_column_names, qx_value_t **p_p_values,
                                           qx_uint32_t total_values);
qx_int32_t sr_i_set_value_for_fixed_index(sr_i_table_t *p_table, qx_uint32_t fixed_row_index,
                                          qx_char_ptr_t p_column_name, qx_value_t *p_value);
qx_int32_t sr_i_set_values_for_packed_index(sr_i_table_t *p_table, qx_uint32_t row_index,
                                            qx_char_ptr_t *p_column_names, qx_value_t **p_p_values,
                                            qx_uint32_t total_values);
qx_int32_t sr_i_set_value_for_packed_index(sr_i_table_t *p_table, qx_uint32_t row_index,
                                           qx_char_ptr_t p_column_name, qx_value_t *p_value);
qx_int32_t sr_i_set_values_for_key(sr_i_table_t *p_table, qx_value_t row_key,
                                   qx_char_ptr_t *p_column_names, qx_value_t **p_p_values,
                                   qx_uint32_t total_values);
qx_int32_t sr_i_set_value_for_key(sr_i_table_t *p_table, qx_value_t row_key,
                                  qx_char_ptr_t p_column_name, qx_value_t *p_value);

/* --- deleting rows (sr_i_delete_rows.cpp) --- */

/* Drops the row's applied record and moves it to the deleted-rows list. */
qx_int32_t sr_i_delete_row(sr_i_table_t *p_table, sr_i_index_entry_t *p_current_index_entry);
/* Every live row when p_selection_criteria is NULL, else the rows the
 * selection expression matches. */
qx_int32_t sr_i_delete_rows(sr_i_table_t *p_table, qx_char_ptr_t p_selection_criteria);

/* --- table metadata (sr_i_table_metadata.cpp) --- */

/* all_metadata: 0 no column definitions, -1 all of them, any
 * other value all but the invisible ones.  The result is the caller's, freed
 * with sr_free_table_metadata_1. */
qx_int32_t sr_i_get_table_metadata(sr_i_table_t *p_table, qx_int32_t all_metadata,
                                   sr_table_metadata_t **p_p_metadata);
void sr_i_free_column_metadata(sr_column_t *p_column, qx_uint32_t total_columns);

/* ===========================================================================
 * Packed buffers and dumps.
 *
 * A packed table buffer: a 40-byte head (the length word, four header bytes,
 * the slots holding 0, 1, the length again and the table count N), then four
 * 8-byte slots per table (name, fixed metadata, column metadata, rows), then
 * the indirect area they anchor into.  A received buffer is untrusted: its
 * own length word bounds everything read from it; a head that disagrees with
 * it, or metadata values of the wrong shape, make the table unreadable (14),
 * and a value the protocol library refuses is 11 naming that call.
 */
#define SR_I_PACKED_HEAD_LENGTH 40
#define SR_I_PACKED_TABLE_SLOTS_LENGTH 32

/* The fixed metadata of a table (name, rows of the view, columns, change
 * counter, 0) as one malloc'd structured-data value whose text points into
 * the table.  Caller holds the table's lock; frees the value with free(). */
qx_int32_t sr_i_get_table_fixed_metadata_SD(sr_i_table_t *p_table, qx_uint32_t view_applied,
                                            qx_structured_data_t **p_p_fixed_metadata);
/* One structured-data value per column (name, type, qualifier, properties,
 * default, field count, and for structured columns the field types and
 * names), pointing into the table's metadata record.  Release it with
 * sr_i_free_packed_table_column_metadata_array. */
qx_int32_t sr_i_get_table_column_metadata_array(sr_i_table_t *p_table,
                                                qx_array_t **p_p_column_metadata_array);
void sr_i_free_packed_table_column_metadata_array(qx_array_t *p_column_metadata_array);
/* The view's row records in fixed-index order, as an array whose elements
 * hold record header addresses; freed with free(). */
qx_int32_t sr_i_get_table_row_array(sr_i_table_t *p_table, qx_uint32_t view_applied,
                                    qx_array_t **p_p_row_array);
/* The records of the given fixed indices: 203 for an index beyond the table,
 * 204 for a slot without the view's record. */
qx_int32_t sr_i_get_table_row_array_by_fixed_index(sr_i_table_t *p_table, qx_uint32_t view_applied,
                                                   qx_uint32_t total_row_fixed_indices,
                                                   const qx_uint32_t *p_row_fixed_indices,
                                                   qx_array_t **p_p_row_array);
/* Column definitions from an unpacked column metadata array; names point
 * into the array's value.  Free with sr_i_free_unpacked_column_definitions. */
qx_int32_t sr_i_unpack_column_definitions(const qx_array_t *p_column_metadata_array,
                                          qx_uint32_t *p_total_columns, sr_column_t **p_p_columns);
void sr_i_free_unpacked_column_definitions(sr_column_t *p_columns, qx_uint32_t total_columns);

/* The work of the exported calls; the tables' read locks are the caller's. */
qx_int32_t sr_i_pack_tables(qx_uint32_t total_tables, sr_i_table_t **p_tables,
                            const qx_uint32_t *p_view_applied,
                            const qx_uint32_t *p_total_row_fixed_indices,
                            const qx_uint32_t *p_row_fixed_indices, void **p_p_buffer);
/* Checks a buffer's head against its length word: N and the indirect area. */
qx_int32_t sr_i_packed_buffer_head(const void *p_buffer, qx_uint32_t *p_total_tables,
                                   const char **p_p_indirect_area,
                                   qx_uint32_t *p_indirect_area_length);
qx_int32_t sr_i_get_packed_table_name(const void *p_buffer, qx_uint32_t table_index,
                                      qx_char_ptr_t *p_table_name);
qx_int32_t sr_i_convert_packed_table_buffer(void *p_buffer, qx_uint32_t header_already_converted,
                                            qx_int32_t do_conversion);
qx_int32_t sr_i_unpack_table(void *p_buffer, qx_uint32_t total_hash_buckets,
                             sr_hash_function_t *hash_function,
                             sr_hash_keys_compare_function_t *compare_function,
                             sr_i_tree_t *p_tree, qx_uint32_t table_index,
                             sr_opaque_handle_t *p_table);

/* Dumps (sr_i_dump_table.cpp).  Detail bits of sr_i_dump_table: */
#define SR_I_DUMP_NAME 0x1ull
#define SR_I_DUMP_REFERENCES 0x2ull
#define SR_I_DUMP_TOTAL_COLUMNS 0x4ull
#define SR_I_DUMP_COLUMN 0x8ull
#define SR_I_DUMP_COLUMN_NAME 0x10ull
#define SR_I_DUMP_COLUMN_TYPE 0x20ull
#define SR_I_DUMP_COLUMN_QUALIFIER 0x40ull
#define SR_I_DUMP_COLUMN_MODIFIERS 0x80ull
#define SR_I_DUMP_COLUMN_PROPERTIES 0x100ull
#define SR_I_DUMP_COLUMN_SD_DEFN 0x200ull
#define SR_I_DUMP_COLUMN_DEFAULT 0x400ull
#define SR_I_DUMP_ROW_COUNTS 0x800ull
#define SR_I_DUMP_ROWS 0x1000ull
#define SR_I_DUMP_APPLIED_RECORDS 0x2000ull
#define SR_I_DUMP_COMMITTED_RECORDS 0x4000ull
#define SR_I_DUMP_POINTERS 0x8000ull
#define SR_I_DUMP_APPLICATION_METADATA 0x10000ull
#define SR_I_DUMP_VARIABLE_LENGTH_COLUMNS 0x20000ull
#define SR_I_DUMP_IMPLICITLY_CONTROLLED 0x40000ull
#define SR_I_DUMP_UNCOMMITTED_VISIBLE 0x80000ull
#define SR_I_DUMP_CHANGE_COUNTER 0x100000ull
#define SR_I_DUMP_APPLIED_CHANGE_COUNTER 0x200000ull
#define SR_I_DUMP_FILE_STATE 0x400000ull
#define SR_I_DUMP_RECORD_BUFFER_POOL 0x800000ull
#define SR_I_DUMP_ALL 0xFFFFFFFFFFFFFFFFull

/* vfprintf when required_detail & detail_flags; else 0 and nothing printed. */
int sr_i_printf(qx_uint64_t required_detail, qx_uint64_t detail_flags, FILE *p_stream,
                const char *p_format, ...) __attribute__((format(printf, 4, 5)));
/* Hex lines of width * 4 bytes, each "prefix0x<address> " and the bytes in
 * groups of four; lines are separated by "\n" (the caller ends the last). */
void sr_i_dump_storage(const void *start, qx_uint32_t length, qx_uint32_t width,
                       const char *p_indent_prefix, FILE *p_stream, qx_uint64_t detail_flags,
                       qx_uint64_t required_detail);
/* "QX_INT32" ... for a data type, "GARBAGE" outside the enumeration. */
const char *sr_i_get_type_string(qx_data_type_t type);
/* "SR_STANDARD" ... for qualifier & 0xF, "GARBAGE" otherwise. */
const char *sr_i_get_qualifier_type_string(sr_qualifier_t qualifier);
/* One row record's column values, bounded by the record's own length. */
void dump_columns(sr_i_table_t *p_table, const char *p_record_data, const char *p_indent_prefix,
                  FILE *p_stream, qx_uint64_t detail_flags, qx_uint64_t required_detail);
void dump_record_buffer_pool(sr_i_record_buffer_pool_t *p_record_buffer_pool, FILE *p_stream,
                             qx_uint64_t detail_flags);

/* ===========================================================================
 * Selection (sr_i_select.cpp): `$` formatting, compiling expressions against
 * a table's columns, and the rows an expression chooses.  Callers hold the
 * table's lock (write for deletions).
 */

/* Makes room for length more bytes of a result growing in 4096-byte steps
 * (*to follows the buffer) and, when buffer is not NULL, appends them.  12. */
qx_int32_t sr_i_append_buffer_to_result(qx_uint32_t *currentResultBytes,
                                        qx_uint32_t *maxResultBytes, qx_uint32_t length,
                                        qx_char_ptr_t *result, qx_char_ptr_t *to,
                                        qx_char_ptr_t buffer);
/* The selection string with every `$` item replaced by its argument's text,
 * in a malloc'd buffer the caller frees.  109 for a bad item, 12. */
qx_int32_t sr_i_select_printf(qx_char_ptr_t *result, qx_char_ptr_t selectionCriteria, va_list ap);
/* The expression compiler's name lookup; token is the sr_i_table_t. */
qx_int32_t sr_i_validate_column_callback(void *token, qx_char_t *p_name, qx_uint32_t length,
                                         qx_uint32_t parent_id, cu_validate_data_t *p_return_data);
/* Converts the criteria to the table's code set and compiles them; free the
 * result with cu_free_expr_1.  15 without a handle, 11 naming the call. */
qx_int32_t sr_i_compile_expression(qx_char_ptr_t p_selection_criteria, sr_i_table_t *p_table,
                                   void **p_compiled_expression,
                                   cu_iconv_t *p_string_conversion_handle);
/* Deletes the live rows the criteria match (the criteria branch of
 * sr_i_delete_rows, whose checks have run). */
qx_int32_t sr_i_delete_rows_matching(sr_i_table_t *p_table, qx_char_ptr_t p_selection_criteria);
/* Fixed indices of the rows of the view the criteria match (all of them for
 * NULL criteria) in a malloc'd array the caller frees. */
qx_int32_t sr_i_get_selected_rows(sr_i_table_t *p_table, qx_char_ptr_t p_selection_criteria,
                                  qx_uint32_t uncommitted_updates_visible,
                                  qx_uint32_t *p_total_selected_rows,
                                  qx_uint32_t **p_p_selected_rows_fixed_index);
/* A new unnamed transient table: the key, then the named columns (all for
 * total_column_names 0), holding copies of the matching rows, committed.
 * The caller registers it in its tree. */
qx_int32_t sr_i_select(sr_i_table_t *p_table, qx_char_ptr_t *p_column_names,
                       qx_uint32_t total_column_names, qx_char_ptr_t p_selection_criteria,
                       sr_i_table_t **p_select_table);
/* Copies one record of p_table into p_new_table as a committed row, keeping
 * column p_column_indices[j] as column j (all columns when NULL). */
qx_int32_t sr_i_copy_row(sr_i_table_t *p_table, qx_char_ptr_t p_from_record_data,
                         sr_i_table_t *p_new_table, qx_uint32_t *p_column_indices);
/* Fixed indices of every row whose key equals *p_key_value in the view the
 * argument alone chooses, in a malloc'd array the caller frees; 202. */
qx_int32_t sr_i_get_duplicate_rows(sr_i_table_t *p_table, qx_value_t *p_key_value,
                                   qx_uint32_t *p_duplicate_rows_count,
                                   qx_uint32_t **p_p_duplicate_rows_fixed_indices,
                                   qx_uint32_t uncommitted_updates_visible);

/* ===========================================================================
 * Table management: listing, repair, copying, moving and removing tables,
 * schema changes and in-memory overlays.
 */

/* --- listing (sr_i_list_tables.cpp) --- */

/* Initial capacity of a listing and the step it grows by. */
#define SR_I_LIST_STEP 100

/* The names under p_registry_path in a malloc'd array of malloc'd names
 * (released with sr_free_table_list_1): files of the mount point's directory
 * for a persistent path, the tree's open transient tables otherwise.  Caller
 * holds the tree's write lock (the work fields live in the tree).  An empty
 * result is a valid array with *p_count 0.  0, 102, 206, 10, 12 or 15. */
qx_int32_t sr_i_list_tables(sr_i_tree_t *p_tree, qx_char_ptr_t p_registry_path,
                            qx_char_ptr_t **p_p_table_list, qx_uint32_t *p_count);

/* --- repair (sr_i_repair.cpp) --- */

/* Unlinks the ".rewrite" file of every persistent name, in order; stops at
 * the first name that does not resolve and returns its code.  Caller holds
 * the tree's write lock. */
qx_int32_t sr_i_repair_tables(sr_i_tree_t *p_tree, qx_char_ptr_t *p_table_names,
                              qx_uint32_t array_count);

/* --- copying, moving and removing (sr_i_duplicate_table.cpp) --- */

/* Test pause points of table management (see sr_i_test_pause):
 * "copy-before-rename" (a copy's complete image synced, not yet renamed over
 * the target) and "schema-applied" (a rebuilt table written to the rewrite
 * file, its commit not yet begun). */

/* The work of the four copy and move calls; the caller holds ForkMutex.
 * Takes the tree's write lock, the source record's read lock and, for a file
 * target, the directory's ",Lock" file and the target file's lock. */
qx_int32_t sr_i_duplicate_table(sr_opaque_handle_t tree_handle,
                                sr_opaque_handle_t source_table_handle, qx_char_ptr_t p_source_path,
                                qx_char_ptr_t p_target_path, qx_uint32_t remove_source,
                                qx_int32_t overwrite_target);
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
/* Workers.  Each leaves its source as it was. */
qx_int32_t sr_i_duplicate_table_from_persistent_to_memory(sr_i_tree_t *p_tree,
                                                          const char *p_source_file,
                                                          const char *p_target_path,
                                                          sr_i_table_t **p_p_new_table);
qx_int32_t sr_i_duplicate_table_from_memory_to_memory(sr_i_table_t *p_source,
                                                      const char *p_target_path,
                                                      sr_i_table_t **p_p_new_table);
qx_int32_t sr_i_duplicate_table_from_memory_to_persistent(sr_i_table_t *p_source,
                                                          char *p_target_rewrite_path,
                                                          const char *p_target_file);
qx_int32_t sr_i_duplicate_table_from_persistent_to_persistent(const char *p_source_file,
                                                              char *p_target_rewrite_path,
                                                              const char *p_target_file);
/* Moves an open record to p_target_path: it leaves the tree's set (its file,
 * if any, removed) and becomes a transient table of the new name.  0 or 12,
 * with the record untouched on failure. */
qx_int32_t sr_i_rename_memory_table(sr_i_table_t *p_table, const char *p_target_path);
qx_int32_t sr_i_rename_persistent_table(const char *p_source_file, const char *p_target_file);
/* Unlinks a persistent table's files and takes the record out of its tree's
 * set; the record itself is not freed. */
qx_int32_t sr_i_remove_table(sr_i_table_t *p_table);
/* Unlinks a table file and its ".rewrite" file and drops the path from the
 * tree's set of open tables. */
qx_int32_t sr_i_remove_persistent_table_without_handle(sr_i_tree_t *p_tree,
                                                       const char *p_absolute_table_path);

/* --- schema changes and overlays (sr_i_update_metadata.cpp) --- */

/* A new private transient table with p_table's columns plus the new ones,
 * one column renamed, or one column's default changed, holding every row of
 * p_table (added, not yet applied).  206, 209, 105, 12 or the creation's
 * codes; p_table is untouched. */
qx_int32_t sr_i_update_metadata(sr_i_table_t *p_table, sr_column_t *p_new_columns,
                                qx_uint32_t total_new_columns, qx_char_ptr_t p_old_column_name,
                                qx_char_ptr_t p_new_column_name, qx_value_t *p_new_value,
                                sr_i_table_t **p_result_table);
/* A new private transient table with every column but the named ones,
 * holding every row (committed).  206, 209, 101, 104, 105, 107 or 12. */
qx_int32_t sr_i_delete_columns(sr_i_table_t *p_table, qx_char_ptr_t *column_names,
                               qx_uint32_t array_count, sr_i_table_t **p_p_result_table);
/* Exchanges the loaded contents (columns, rows, indexes, pool, file state)
 * of two records of one table; identity stays with each record. */
void sr_i_swap_after_metadata_update(sr_i_table_t *p_table, sr_i_table_t *p_new_table);

/* Moves p_table's record buffer pool aside, empty in its place, to be freed
 * at the record's last close: a reload for another opener must not free the
 * memory that values already handed out point into.  0 or 12 (p_table then
 * unchanged). */
qx_int32_t sr_i_retire_record_buffer_pool(sr_i_table_t *p_table);
/* Writes a rebuilt table over p_table's file as a full rewrite (a persistent
 * table), commits it, and swaps it into p_table; consumes p_new_table.  On
 * failure p_table and its file are as they were. */
qx_int32_t sr_i_install_rebuilt_table(sr_i_table_t *p_table, sr_i_table_t *p_new_table);
/* Memory-only changes of one column definition; nothing is written. */
qx_int32_t sr_i_overlay_memory_default_value(sr_i_table_t *p_table, qx_char_ptr_t p_column_name,
                                             qx_value_t new_default_value);
/* Overlays change only the native column copy (p_columns); the metadata
 * record in the pool keeps the file's definitions, so whatever writes it
 * writes no overlay.  Hiding puts the file's definitions into p_columns for
 * code that builds a new table from them (calls nest); reapplying puts the
 * overlays back after p_columns was rebuilt from the record. */
void sr_i_overlays_hide(sr_i_table_t *p_table);
void sr_i_overlays_show(sr_i_table_t *p_table);
void sr_i_overlays_reapply(sr_i_table_t *p_table);
qx_int32_t sr_i_overlay_memory_column_qualifier(sr_i_table_t *p_table, qx_char_ptr_t p_column_name,
                                                sr_qualifier_t new_qualifier);

/* ===========================================================================
 * Engine routines: record buffer pool, hashed key index, table record,
 * application metadata.  (Declared by their owners below.)
 */

/* --- record buffer pool (sr_i_record_buffer_pool.cpp) --- */

/*
 * One heap block of a pool.  The records' bookkeeping counts a buffer header
 * of 8 bytes (block = capacity + 20 with the first record header), which is
 * what total_bytes holds; the real header below is larger because 64-bit
 * addresses do not fit the 32-bit link word of a record header.  So each
 * buffer keeps its own part of the free chain: a free record's link word holds
 * the block offset (8 + distance from the buffer's data) of the next free
 * record in the same buffer, 0 after the last, and the buffer header knows
 * its first and last free record.  The first buffer of a pool also keeps the
 * directory of all buffers by address, through which the chain passes from
 * one buffer to the next in ascending address order and an address finds its
 * buffer.  Records are walked from sr_i_rb_buffer_data() by length to
 * sr_i_rb_buffer_end().
 */
typedef struct sr_i_record_buffer_slot_struct_t {
    sr_i_record_buffer_t *p_buffer;
    qx_uint32_t max_free;       /* no free record of the buffer is longer (a bound) */
    qx_uint32_t group_max_free; /* first slot of each SR_I_RECORD_BUFFER_GROUP slots:
                                   no max_free of the group is larger */
} sr_i_record_buffer_slot_t;
#define SR_I_RECORD_BUFFER_GROUP 64

struct sr_i_record_buffer_struct_t {
    sr_i_record_buffer_t *p_next; /* next buffer in order of creation */
    qx_uint32_t total_bytes;      /* block size as counted: 8 + the records */
    qx_uint32_t first_free;       /* block offset of the first free record, 0 none */
    qx_uint32_t last_free;        /* block offset of the last free record, 0 none */
    qx_uint32_t total_directory;  /* first buffer only: entries in p_directory */
    qx_uint32_t max_directory;    /* first buffer only: room in p_directory */
    qx_uint32_t insert_hint;      /* block offset of a free record to start inserting after */
    sr_i_record_buffer_slot_t *p_directory; /* first buffer only: buffers by address */
    void *p_free_index; /* where free records lie, for inserting by address; built on need */
};

/* Accounted size of a buffer header. */
#define SR_I_RECORD_BUFFER_HEADER_LENGTH 8

static inline char *sr_i_rb_buffer_data(sr_i_record_buffer_t *p_buffer) {
    return reinterpret_cast<char *>(p_buffer) + sizeof(sr_i_record_buffer_t);
}
static inline char *sr_i_rb_buffer_end(sr_i_record_buffer_t *p_buffer) {
    return sr_i_rb_buffer_data(p_buffer) + p_buffer->total_bytes - SR_I_RECORD_BUFFER_HEADER_LENGTH;
}

/* Record header fields, read and written in place at any alignment.
 * p_header is the record's header address (its data address - 12). */
static inline qx_uint32_t sr_i_record_length(const char *p_header) {
    qx_uint32_t v;
    memcpy(&v, p_header, 4);
    return v;
}
static inline void sr_i_set_record_length(char *p_header, qx_uint32_t length) {
    memcpy(p_header, &length, 4);
}
static inline qx_uint32_t sr_i_record_link(const char *p_header) {
    qx_uint32_t v;
    memcpy(&v, p_header + 4, 4);
    return v;
}
static inline void sr_i_set_record_link(char *p_header, qx_uint32_t link) {
    memcpy(p_header + 4, &link, 4);
}
static inline qx_int32_t sr_i_record_type(const char *p_header) {
    qx_int32_t v;
    memcpy(&v, p_header + 8, 4);
    return v;
}
static inline void sr_i_set_record_type(char *p_header, qx_int32_t type) {
    memcpy(p_header + 8, &type, 4);
}

/* total_pages 0: an empty pool.  Otherwise one buffer of total_pages system
 * pages holding one free record.  12 when it cannot be allocated. */
qx_int32_t sr_i_rb_initialize_record_buffer_pool(qx_uint32_t total_pages,
                                                 sr_i_record_buffer_pool_t *p_record_buffer_pool);
/* Frees every buffer and zeroes the pool; 0. */
qx_int32_t sr_i_rb_uninitialize_record_buffer_pool(sr_i_record_buffer_pool_t *p_record_buffer_pool);
/* First fit: a free record with at least data_length data bytes, adding a
 * buffer when none fits.  Reports its data address, its predecessor on the
 * free chain (header address, NULL at the head) and its data capacity.  The
 * record is not taken; the caller may write its data before taking it. */
qx_int32_t sr_i_rb_find_suitable_record(sr_i_record_buffer_pool_t *p_record_buffer_pool,
                                        qx_uint32_t data_length, char **p_data,
                                        char **p_previous_free_record,
                                        qx_uint32_t *actual_data_length);
/* Takes the free record found by sr_i_rb_find_suitable_record for
 * data_length bytes of type record_type (split, or whole with up to 13 bytes
 * of slack).  15 when data_length does not fit or p_data is no free record. */
qx_int32_t sr_i_rb_allocate_record(sr_i_record_buffer_pool_t *p_record_buffer_pool, char *p_data,
                                   char *p_previous_free_record, qx_uint32_t data_length,
                                   qx_int32_t record_type);
/* Find and take in one step; *p_record_data receives the data address. */
qx_int32_t sr_i_reserve_record(sr_i_record_buffer_pool_t *p_record_buffer_pool, qx_uint32_t length,
                               qx_int32_t type, char **p_record_data);
/* Frees the record whose data address is p_data, merging it with free
 * neighbours; 0 (15 when p_data lies in no buffer of the pool). */
qx_int32_t sr_i_rb_free_record(sr_i_record_buffer_pool_t *p_record_buffer_pool, char *p_data);
/* Links the record with header p_new_free_record (its length set, type 0)
 * into the free chain with merging; returns the data bytes that became free
 * and reports the free record now preceding it (NULL when it is the head).
 * used_bytes is the caller's to adjust. */
qx_uint32_t sr_i_rb_insert_free_record(sr_i_record_buffer_pool_t *p_record_buffer_pool,
                                       char *p_new_free_record,
                                       char **p_previous_free_record_returned);
/* Copies p_from into one buffer in p_to (which must be empty) and returns a
 * map from addresses in p_from to their copies; free it with
 * sr_i_rb_free_duplication_map.  12 on memory, with nothing left allocated. */
qx_int32_t sr_i_rb_duplicate_record_buffer_pool(
    sr_i_record_buffer_pool_t *p_from, sr_i_record_buffer_pool_t *p_to,
    sr_i_record_buffer_pool_duplication_map_t **p_duplication_map);
/* The copy of an address of the source pool; NULL for an address outside it. */
char *sr_i_rb_map_duplicated_address(
    const sr_i_record_buffer_pool_duplication_map_t *p_duplication_map, const char *p_from);
qx_int32_t sr_i_rb_free_duplication_map(
    sr_i_record_buffer_pool_duplication_map_t *p_duplication_map);

/* --- hashed key index (sr_i_hash_table.cpp) --- */

/* Buckets of the default index. */
#define SR_I_DEFAULT_HASH_BUCKETS 16384

/* The default hash: the word at byte 16 of the key (a resource handle's
 * fourth identifier word), low 14 bits. */
qx_uint32_t sr_i_default_hash(const void *p_key_value);

/* A new, empty index.  A NULL hash function selects the defaults whatever
 * else is passed (16,384 buckets, sr_i_default_hash, cu_rsrc_hndl_cmp_1).
 * 12 on memory; 101 for a hash function without a compare function. */
qx_int32_t sr_i_hash_table_open(qx_uint32_t total_hash_buckets, sr_hash_function_t *p_hash_function,
                                sr_hash_keys_compare_function_t *p_compare_function,
                                sr_hash_table_t **p_hash_table);
/* Frees the elements, the buckets and the index; NULL accepted; 0. */
qx_int32_t sr_i_hash_table_close(sr_hash_table_t *p_hash_table);
/* Adds a key that lies inside a row record (it is not copied).  For an
 * SR_PRIMARY_KEY qualifier an equal key already present gives 108, unreported,
 * with the existing element (and its bucket) stored in the outputs. */
qx_int32_t sr_i_hash_table_add(sr_hash_table_t *p_hash_table, char *p_key_value,
                               qx_uint32_t row_index, qx_uint32_t *p_hash_index,
                               sr_hash_table_element_t **p_p_hash_table_element,
                               sr_qualifier_t qualifier);
/* Removes the most recently added element with an equal key; 202 if none. */
qx_int32_t sr_i_hash_table_remove(sr_hash_table_t *p_hash_table, const void *p_key_value);
/* Removes that very element from bucket hash_index; 202 if it is not there. */
qx_int32_t sr_i_hash_table_remove_element(sr_hash_table_t *p_hash_table, qx_uint32_t hash_index,
                                          sr_hash_table_element_t *p_hash_table_element);
/* The row of the most recently added equal key and the address of its
 * element's p_key_value field; 202 if none. */
qx_int32_t sr_i_hash_table_get_index(sr_hash_table_t *p_hash_table, const void *p_key_value,
                                     qx_uint32_t *row_index, char ***p_p_p_key_value);
/* Bucket lengths and totals on standard output. */
void sr_i_hash_table_output_stats(sr_hash_table_t *p_hash_table);

/* --- table record (sr_i_table.cpp) --- */

/* Row record fields, read and written in place at any alignment (with
 * sr_i_load_u32 and the other loads above).  A row record's data starts with the 4-byte
 * replaces_offset word; column i's 8-byte slot lies at 4 + 8 * i; the indirect data area follows
 * the last slot. */
static inline void sr_i_store_i32(void *p, qx_int32_t v) {
    memcpy(p, &v, sizeof v);
}
static inline char *sr_i_row_slot(char *p_record_data, qx_uint32_t column) {
    return p_record_data + 4 + 8 * static_cast<size_t>(column);
}
static inline qx_value_t sr_i_load_slot(const char *p_record_data, qx_uint32_t column) {
    qx_value_t v;
    memcpy(&v, p_record_data + 4 + 8 * static_cast<size_t>(column), sizeof v);
    return v;
}
static inline void sr_i_store_slot(char *p_record_data, qx_uint32_t column, const qx_value_t &v) {
    memcpy(p_record_data + 4 + 8 * static_cast<size_t>(column), &v, sizeof v);
}
static inline char *sr_i_row_indirect_area(char *p_record_data, qx_uint32_t total_columns) {
    return p_record_data + 4 + 8 * static_cast<size_t>(total_columns);
}

/* True for the types kept by (offset, length) anchor in a row's slot. */
bool sr_i_is_pointer_type(qx_data_type_t type);
/* Address of a row's key as the hashed key index sees it: column 0's slot
 * for a fixed-size key, column 0's indirect data for a pointer-type key. */
char *sr_i_row_key_value(const sr_i_table_t *p_table, char *p_record_data);

/* Both row indexes for maximum_rows slots (10 for 0), all on the free chain. */
qx_int32_t sr_i_establish_rows_index(sr_i_table_t *p_table, qx_uint32_t maximum_rows);
/* Adds total_new_rows slots (the index doubles when given maximum_rows); the
 * new slots become the whole free chain, which must be empty. */
qx_int32_t sr_i_grow_index(sr_i_table_t *p_table, qx_uint32_t total_new_rows);
/* Zeroes a slot and chains it in ascending order. */
void sr_i_rows_free_chain_insert(sr_i_table_t *p_table, sr_i_index_entry_t *p_new_entry);
/* The lowest free slot, unlinked and all zero; NULL when none is free. */
sr_i_index_entry_t *sr_i_rows_free_chain_remove(sr_i_table_t *p_table);
/* After a load: the packed index and the hashed key index from the fixed one. */
qx_int32_t sr_i_establish_secondary_row_access(sr_i_table_t *p_table);
/* Moves the last packed row into the removed row's packed slot, frees the
 * removed row's slot and counts one live row less. */
void sr_i_remove_row_from_packed_index(sr_i_table_t *p_table, sr_i_index_entry_t *p_index_entry);
/* Frees every change entry of both lists and empties them. */
void sr_i_free_change_lists(sr_i_table_t *p_table);
/* The data file's name / the ".rewrite" name, from the one path buffer. */
char *sr_i_set_data_path(sr_i_table_t *p_table);
char *sr_i_set_rewrite_path(sr_i_table_t *p_table);
/* *block_id = offset / block_size; whether the record ends in that block. */
qx_uint32_t sr_i_record_contained_in_block(sr_i_table_t *p_table, qx_uint32_t offset,
                                           qx_uint32_t length, qx_uint32_t *block_id);
/* The state of a slot from its two record pointers. */
sr_row_state_t sr_i_get_row_state_for_fixed_index(sr_i_table_t *p_table,
                                                  qx_uint32_t fixed_row_index);

/* --- application metadata (sr_i_application_metadata.cpp) --- */

/* Every call returns 0 or a result code it has reported (12, 101, 108, 202,
 * 204).  Blocks are qx_binary_t-shaped (length word, then the bytes). */
qx_int32_t sr_i_allocate_application_metadata_buffer(
    qx_uint32_t max_elements, sr_i_application_metadata_t **p_application_metadata);
qx_int32_t sr_i_free_application_metadata(sr_i_application_metadata_t *p_application_metadata);
qx_int32_t sr_i_add_application_metadata_element(
    sr_i_application_metadata_t *p_application_metadata, qx_uint32_t type, qx_uint32_t length,
    qx_char_ptr_t p_data);
qx_int32_t sr_i_delete_application_metadata_element(
    sr_i_application_metadata_t *p_application_metadata, qx_uint32_t type);
qx_int32_t sr_i_set_application_metadata_element(
    sr_i_application_metadata_t *p_application_metadata, qx_uint32_t type, qx_uint32_t length,
    qx_char_ptr_t p_data);
/* Set, or add when the type is absent. */
qx_int32_t sr_i_set_application_metadata(sr_i_application_metadata_t *p_application_metadata,
                                         qx_uint32_t type, qx_uint32_t length,
                                         qx_char_ptr_t p_data);
/* array_count triples (qx_uint32_t type, qx_uint32_t length, char *data). */
qx_int32_t sr_i_set_application_metadata_v(sr_i_application_metadata_t *p_application_metadata,
                                           qx_uint32_t array_count, va_list ap);
/* A malloc'd copy of the bytes (the caller frees it). */
qx_int32_t sr_i_get_application_metadata_element(
    sr_i_application_metadata_t *p_application_metadata, qx_uint32_t type,
    qx_uint32_t uncommitted_updates_visible, qx_uint32_t *p_length, qx_char_ptr_t *p_p_data);
qx_int32_t sr_i_get_application_metadata(sr_i_application_metadata_t *p_application_metadata,
                                         qx_uint32_t uncommitted_updates_visible, qx_uint32_t type,
                                         qx_uint32_t *p_length, qx_char_ptr_t *p_p_data);
/* A malloc'd copy of the whole block as a qx_binary_t (the caller frees it). */
qx_int32_t sr_i_get_application_metadata_element_binary(
    sr_i_application_metadata_t *p_application_metadata, qx_uint32_t type,
    qx_uint32_t uncommitted_updates_visible, qx_binary_t **p_p_application_data);
qx_int32_t sr_i_commit_application_metadata_buffer_updates(
    sr_i_application_metadata_t *p_application_metadata);
qx_int32_t sr_i_abort_application_metadata_buffer_updates(
    sr_i_application_metadata_t *p_application_metadata);
qx_int32_t sr_i_duplicate_application_metadata_buffer(
    sr_i_application_metadata_t *p_from_application_metadata,
    sr_i_application_metadata_t **p_p_to_application_metadata);

/* --- allocation seam (sr_i_alloc.cpp) --- */

/* Every registry allocation goes through these; the memory is released with
 * free().  A zero-byte request still returns a distinct pointer. */
void *sr_i_malloc(size_t size);
void *sr_i_calloc(size_t count, size_t size);
void *sr_i_realloc(void *p_memory, size_t size);
/* Test hook: let the next successful_allocations allocations through and make
 * the one after them fail, once; a negative value disarms the hook. */
void sr_i_alloc_fail_after(qx_int64_t successful_allocations);
/* Non-zero while an armed failure has not happened yet. */
int sr_i_alloc_failure_pending();
/* Test device: makes every sr_i_realloc move its block (true) or lets the
 * heap decide again (false). */
void sr_i_alloc_move_reallocations(bool move);

#endif /* SR_I_H */
