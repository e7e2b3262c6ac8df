/*
 * sr_i_table.h - the table record and its row index (sr_i_table.cpp), the
 * metadata and row record layouts, and creating, opening and closing tables
 * (sr_i_create_table.cpp, sr_i_table_file.cpp, sr_i_open_table.cpp).
 * Field names and order follow the records as the file format, the dumps and
 * the rest of the library expect them.
 */
#ifndef SR_I_TABLE_H
#define SR_I_TABLE_H

#include <sys/uio.h>

#include "sr_i_application_metadata.h"
#include "sr_i_hash_table.h"
#include "sr_i_pool.h"
#include "sr_i_tree.h"

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
constexpr auto SR_I_IO_VECTOR_SIZE = 16;

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
    /* Slots by key hash for the key check of an unhashed unique table; built
     * by the first check, dropped by abort (sr_i_unique_key.cpp). */
    struct sr_i_unique_key_index_struct *p_unique_key_index;
    /* Change entries are carved from slabs the table owns, newest first (one
     * allocation per slab, not per change), and released together when the
     * lists are emptied; the oldest, smallest slab stays for the next
     * transaction (sr_i_table.cpp). */
    struct sr_i_change_slab_struct *p_change_slabs;
} sr_i_table_t;

/* --- table file records --- */

/* Record types that exist only in the table file (the pool knows 0, 1, 2). */
constexpr auto SR_I_RECORD_TYPE_DELETION = 3;
constexpr auto SR_I_RECORD_TYPE_COMMIT = -1;

/* Length of a commit record without application metadata. */
constexpr auto SR_I_COMMIT_RECORD_LENGTH = 24;

/* The metadata record's data, the same bytes in the pool and in the file on
 * every host: byte-order flag, 0, total_columns and
 * total_variable_length_columns (16 bytes), one 32-byte entry per column, then
 * the indirect data area (packed defaults, names, structured-data
 * definitions).  An entry: name offset (u32) at 0, type at 4, qualifier at 8,
 * properties at 12, sd_defn offset (u32, 0 for none) at 16, 4 bytes of
 * padding, the default's 8-byte value slot at 24; offsets count from the
 * start of the indirect data area.  The record lies at any alignment and is
 * read and written with memcpy only. */
constexpr auto SR_I_METADATA_FIXED_LENGTH = 16;
constexpr auto SR_I_COLUMN_ENTRY_LENGTH = 32;
constexpr auto SR_I_COLUMN_ENTRY_NAME = 0;
constexpr auto SR_I_COLUMN_ENTRY_TYPE = 4;
constexpr auto SR_I_COLUMN_ENTRY_QUALIFIER = 8;
constexpr auto SR_I_COLUMN_ENTRY_PROPERTIES = 12;
constexpr auto SR_I_COLUMN_ENTRY_SD_DEFN = 16;
constexpr auto SR_I_COLUMN_ENTRY_DEFAULT = 24;

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
                                     qx_uint32_t *p_commit_record_length, char **p_p_commit_record);

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
qx_int32_t sr_i_pack_variable_length_default_values(
    sr_column_t *p_columns, qx_uint32_t total_columns, char **p_default_value_indirect_data,
    qx_uint32_t *default_value_indirect_data_length,
    qx_uint32_t *total_variable_length_columns_return, cu_iconv_t *p_string_conversion_handle);
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

/* --- table record and row index (sr_i_table.cpp) --- */

/* Row record fields, read and written in place at any alignment (with
 * sr_i_load_u32 and the other loads of sr_i_common.h).  A row record's data starts with the 4-byte
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
/* Loading a file: the fixed index for up to capacity slots, none of them
 * set up and none on the free chain; the loader hands out slots 0, 1, 2, ...
 * itself (taking slots it freed again first, from the chain), each with its
 * own number as packed_index.  Completing it with the count of slots handed
 * out sizes the index from that count, chains the slots never used behind
 * those freed (the same free chain as if every slot had been on it from the
 * start) and makes the packed index of the live slots (total_applied_rows). */
qx_int32_t sr_i_reserve_rows_index(sr_i_table_t *p_table, qx_uint32_t capacity);
qx_int32_t sr_i_complete_rows_index(sr_i_table_t *p_table, qx_uint32_t used);
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
/* A change entry from the table's slabs, its fields unset; NULL when a new
 * slab cannot be allocated. */
sr_i_change_entry_t *sr_i_new_change_entry(sr_i_table_t *p_table);
/* Empties both change lists and gives back the entries' slabs but the
 * oldest, which is emptied for the next transaction. */
void sr_i_free_change_lists(sr_i_table_t *p_table);
/* Frees the slab sr_i_free_change_lists keeps (closing the table). */
void sr_i_release_change_slabs(sr_i_table_t *p_table);
/* The data file's name / the ".rewrite" name, from the one path buffer. */
char *sr_i_set_data_path(sr_i_table_t *p_table);
char *sr_i_set_rewrite_path(sr_i_table_t *p_table);
/* *block_id = offset / block_size; whether the record ends in that block. */
qx_uint32_t sr_i_record_contained_in_block(sr_i_table_t *p_table, qx_uint32_t offset,
                                           qx_uint32_t length, qx_uint32_t *block_id);
/* The state of a slot from its two record pointers. */
sr_row_state_t sr_i_get_row_state_for_fixed_index(sr_i_table_t *p_table,
                                                  qx_uint32_t fixed_row_index);

#endif /* SR_I_TABLE_H */
