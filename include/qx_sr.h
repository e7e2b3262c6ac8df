/*
 * qx_sr.h - the registry library (libqx_sr.so): an embedded table store.
 *
 * A process opens a tree (sr_open_tree_1), mounts local trees that map
 * registry path prefixes onto directories (sr_mount_local_tree_1), and creates
 * or opens tables by absolute registry path.  Tables under a mount point are
 * persistent (one file each); any other path names a transient table kept in
 * memory for the life of the process.
 *
 * Updates are staged: add, set and delete change the working ("applied")
 * version of rows; sr_apply_1 writes the pending changes to the table file,
 * sr_commit_1 makes them the committed state durably, sr_abort_1 throws them
 * away.  A table opened without SR_MODE_EXPLICIT_CONTROL does all three inside
 * every update call.
 *
 * Every sr_*_1 call returns 0 on success or a result code whose message the
 * calling thread can fetch with cu_get_error_1 / cu_get_errmsg_1 (qx_cu.h).
 * Values of pointer types that the library hands out point into table-owned
 * memory: they stay valid until that row changes or the table is closed, and
 * callers never free them.  Lists and metadata the library allocates are
 * released with the matching sr_free_*_1 call or free().
 *
 * Compiles as C11 and as C++20.
 */
#ifndef QX_SR_H
#define QX_SR_H

#include <stdarg.h>
#include <stdio.h>

#include "qx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Only the declarations below are exported from the shared library. */
#pragma GCC visibility push(default)

/* ---------------------------------------------------------------------------
 * Column definitions.
 */
typedef qx_uint32_t sr_qualifier_t;

/* Base qualifier: qualifier & SR_QUALIFIER_BASE_MASK. */
#define SR_QUALIFIER_BASE_MASK 0xF
#define SR_UNKNOWN_QUALIFIER 0
#define SR_SYSTEM 1
#define SR_STANDARD 2
#define SR_PRIMARY_KEY 3
#define SR_PRIMARY_KEY_NOCHECK 4
/* Modifier bits, OR-ed onto the base qualifier. */
#define SR_PROTECTED 16
#define SR_INVISIBLE 32
#define SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED 64

typedef struct sr_sd_field_def_struct {
    qx_data_type_t type;
    qx_char_ptr_t name;
} sr_sd_field_def_t;

/* Layout of structured data: number_of_fields field definitions follow. */
typedef struct sr_sd_def_struct {
    qx_uint32_t number_of_fields;
    sr_sd_field_def_t field_def[1];
} sr_sd_def_t;

typedef struct sr_column_struct {
    qx_char_ptr_t name;
    qx_data_type_t type;
    sr_qualifier_t qualifier;
    qx_int32_t properties;   /* caller-defined, stored and returned unchanged */
    sr_sd_def_t *sd_defn;    /* layout of QX_SD_PTR / QX_SD_PTR_ARRAY columns, else NULL */
    qx_value_t default_value;
} sr_column_t;

/* ---------------------------------------------------------------------------
 * Row states, as a read that asks for them reports.
 */
typedef enum sr_row_state {
    SR_ROW_STATE_COMMITTED = 0,
    SR_ROW_STATE_ADDED = 1,
    SR_ROW_STATE_UPDATED = 2,
    SR_ROW_STATE_DELETED = 3,
    SR_ROW_STATE_NO_ROW = 4,
    SR_ROW_STATE_FORCE_32BIT = 0x7fffffff
} sr_row_state_t;

/* Result of sr_get_table_metadata_1; release with sr_free_table_metadata_1. */
typedef struct sr_table_metadata_struct {
    qx_char_ptr_t name;
    qx_uint32_t number_of_rows;
    qx_uint32_t number_of_columns;
    qx_uint64_t table_change_counter;
    qx_int32_t properties;
    sr_column_t *column_definitions;
} sr_table_metadata_t;

/* A tree or table handle.  Callers never look inside. */
typedef void *sr_opaque_handle_t;

/* Hashed key index callbacks.  They receive the address of a key value: the
 * scalar itself for fixed-size key types, the text for QX_CHAR_PTR and the
 * 20-byte handle for QX_RSRC_HANDLE_PTR.  A hash function must return a value
 * below the table's bucket count; a compare function returns 0 for equal keys. */
typedef qx_uint32_t sr_hash_function_t(const void *p_key_value);
typedef qx_int32_t sr_hash_keys_compare_function_t(const void *p_key_value1,
                                                   const void *p_key_value2);

/* ---------------------------------------------------------------------------
 * Directory compatibility records.
 */
typedef enum sr_entry {
    SR_UNKNOWN_ENTRY = 0,
    SR_TABLE = 1,
    SR_DIRECTORY = 2,
    SR_MOUNT_POINT = 3,
    SR_DIRECTORY_CONTAINER = 4,
    SR_LOCAL_PERSISTENCE_MOUNT_POINT = 5,
    SR_TREE = 6,
    SR_REGISTRY = 7,
    SR_ENTRY_FORCE_32BIT = 0x7fffffff
} sr_entry_t;

typedef enum sr_storage {
    SR_UNKNOWN_STORAGE = 0,
    SR_PERSISTENT = 1,
    SR_TRANSIENT = 2,
    SR_REMOTE = 3,
    SR_STORAGE_FORCE_32BIT = 0x7fffffff
} sr_storage_t;

typedef struct sr_entry_metadata_struct {
    qx_char_ptr_t name;
    sr_entry_t type;
    sr_storage_t storage;
    qx_char_ptr_t *p_table_list;
} sr_entry_metadata_t;

/* ---------------------------------------------------------------------------
 * Table open and create modes.  Accepted: 1, 2, 3 (as 2), 6, 7 (as 6).
 */
#define SR_MODE_READ 1
#define SR_MODE_WRITE 2
#define SR_MODE_EXPLICIT_CONTROL 4

/* ---------------------------------------------------------------------------
 * Result codes (the number after "2605-" in each message).
 */
#define SR_OK 0
#define SR_E_SYSTEM_CALL 10
#define SR_E_LIBRARY_CALL 11
#define SR_E_NO_MEMORY 12
#define SR_E_FILESYSTEM_FULL 13
#define SR_E_TABLE_UNREADABLE 14
#define SR_E_INTERNAL 15
#define SR_E_INVALID_HANDLE 100
#define SR_E_NULL_POINTER 101
#define SR_E_INVALID_PATH 102
#define SR_E_INVALID_MODE 103
#define SR_E_NO_COLUMNS 104
#define SR_E_INVALID_COLUMN 105
#define SR_E_DUPLICATE_COLUMN 106
#define SR_E_NO_KEY 107
#define SR_E_DUPLICATE_KEY 108
#define SR_E_INVALID_SUBSTITUTION 109
#define SR_E_NO_TABLE 200
#define SR_E_TABLE_EXISTS 201
#define SR_E_NO_ROW_FOR_KEY 202
#define SR_E_NO_ROW_FOR_INDEX 203
#define SR_E_ROW_DELETED 204
#define SR_E_NO_ROWS_TO_DELETE 205
#define SR_E_ACCESS 206
#define SR_E_MOUNT_POINT_EXISTS 207
#define SR_E_NO_MOUNT_POINT 208
#define SR_E_NOT_COMMITTED 209
#define SR_E_NOT_APPLIED 210
#define SR_E_EXCLUSIVE_MODES 211
#define SR_E_APPLIED_NOT_COMMITTED 212

/* The message texts, indexed by message number (index 0 is reserved). */
#define SR_NUMBER_OF_MESSAGES 30
extern const char *const cu_mesgtbl_qx_sr_set[SR_NUMBER_OF_MESSAGES];

/* The message catalogue and set the library reports its errors under. */
#define SR_MESSAGE_CATALOGUE "qx_sr.cat"
#define SR_MESSAGE_SET 1

/* ---------------------------------------------------------------------------
 * Trees and mount points.
 */
qx_int32_t sr_open_tree_1(sr_opaque_handle_t *tree_handle, qx_uint32_t number_of_retries,
                          qx_uint64_t timeout);
qx_int32_t sr_close_tree_1(sr_opaque_handle_t tree_handle);

qx_int32_t sr_mount_local_tree_1(sr_opaque_handle_t tree_handle, qx_char_ptr_t p_registry_path,
                                 qx_char_ptr_t p_filesystem_path, qx_int32_t create);
qx_int32_t sr_unmount_local_tree_1(sr_opaque_handle_t tree_handle, qx_char_ptr_t p_registry_path);

/* ---------------------------------------------------------------------------
 * Listing.
 */
qx_int32_t sr_list_tables_1(sr_opaque_handle_t tree_handle, qx_char_ptr_t p_registry_path,
                            qx_char_ptr_t **p_table_list, qx_uint32_t *array_count);
qx_int32_t sr_free_table_list_1(qx_char_ptr_t *p_table_list, qx_uint32_t array_count);

qx_int32_t sr_i_get_directory_list_compat(sr_opaque_handle_t tree_handle,
                                          qx_char_ptr_t directory_name,
                                          sr_entry_metadata_t **entry_list,
                                          qx_uint32_t *array_count);
qx_int32_t sr_i_free_directory_list_compat(sr_entry_metadata_t *entry_list,
                                           qx_uint32_t array_count);
qx_int32_t sr_i_create_directory_compat(void);
qx_int32_t sr_i_delete_directory_compat(void);

/* ---------------------------------------------------------------------------
 * Creating, opening, closing, deleting, copying, moving and repairing tables.
 */
/* A successful create writes over the default_value of every pointer-type
 * column in the caller's array: it then holds where that default was packed
 * in the table's metadata (offset and length), not the caller's pointer.
 * Callers have long read it there.  To create another table from the same
 * array, set those defaults again first.  A failed create leaves the array
 * exactly as it was given. */
qx_int32_t sr_create_table_1(sr_opaque_handle_t tree_handle, qx_char_ptr_t p_registry_path,
                             sr_column_t *p_columns, qx_uint32_t array_count, qx_int32_t mode,
                             sr_opaque_handle_t *p_result_table_handle);
qx_int32_t sr_create_hashed_key_table_1(sr_opaque_handle_t tree_handle,
                                        qx_char_ptr_t p_registry_path, sr_column_t *p_columns,
                                        qx_uint32_t array_count, qx_int32_t mode,
                                        qx_uint32_t total_hash_buckets,
                                        sr_hash_function_t *p_hash_function,
                                        sr_hash_keys_compare_function_t *p_compare_function,
                                        sr_opaque_handle_t *p_result_table_handle);
qx_int32_t sr_open_table_1(sr_opaque_handle_t tree_handle, qx_char_ptr_t p_registry_path,
                           qx_int32_t mode, sr_opaque_handle_t *p_result_table_handle);
qx_int32_t sr_open_hashed_key_table_1(sr_opaque_handle_t tree_handle,
                                      qx_char_ptr_t p_registry_path, qx_int32_t mode,
                                      qx_uint32_t total_hash_buckets,
                                      sr_hash_function_t *p_hash_function,
                                      sr_hash_keys_compare_function_t *p_compare_function,
                                      sr_opaque_handle_t *p_result_table_handle);
qx_int32_t sr_close_table_1(sr_opaque_handle_t table_handle);
qx_int32_t sr_delete_table_1(sr_opaque_handle_t tree_handle, qx_char_ptr_t p_registry_path);

qx_int32_t sr_copy_table_by_handle_1(sr_opaque_handle_t table_handle,
                                     qx_char_ptr_t p_target_table_name, qx_int32_t overwrite);
qx_int32_t sr_copy_table_by_name_1(sr_opaque_handle_t tree_handle,
                                   qx_char_ptr_t p_source_table_name,
                                   qx_char_ptr_t p_target_table_name, qx_int32_t overwrite);
qx_int32_t sr_move_table_by_handle_1(sr_opaque_handle_t table_handle,
                                     qx_char_ptr_t p_target_table_name, qx_int32_t overwrite);
qx_int32_t sr_move_table_by_name_1(sr_opaque_handle_t tree_handle,
                                   qx_char_ptr_t p_source_table_name,
                                   qx_char_ptr_t p_target_table_name, qx_int32_t overwrite);

qx_int32_t sr_repair_tables_1(sr_opaque_handle_t tree_handle, qx_char_ptr_t *p_table_names,
                              qx_uint32_t array_count);

/* ---------------------------------------------------------------------------
 * Transactions.
 */
qx_int32_t sr_apply_1(sr_opaque_handle_t table_handle, qx_uint64_t table_change_counter);
qx_int32_t sr_commit_1(sr_opaque_handle_t table_handle);
qx_int32_t sr_abort_1(sr_opaque_handle_t table_handle);

/* ---------------------------------------------------------------------------
 * Schema changes and metadata.
 */
qx_int32_t sr_add_columns_1(sr_opaque_handle_t table_handle, sr_column_t *columns,
                            qx_uint32_t array_count);
qx_int32_t sr_delete_columns_1(sr_opaque_handle_t table_handle, qx_char_ptr_t *column_names,
                               qx_uint32_t array_count);
qx_int32_t sr_change_column_name_1(sr_opaque_handle_t table_handle, qx_char_ptr_t column_name,
                                   qx_char_ptr_t new_name);
qx_int32_t sr_change_default_value_1(sr_opaque_handle_t table_handle, qx_char_ptr_t column_name,
                                     qx_value_t new_value);
/* Overlays change a column's default or qualifier modifiers in this open
 * table's memory only: no file ever sees them, and they end at the table's
 * last close or at its next schema change (add, delete or rename columns,
 * change a default), which builds the table anew from the file's
 * definitions. */
qx_int32_t sr_overlay_memory_default_value_1(sr_opaque_handle_t table_handle,
                                             qx_char_ptr_t p_column_name,
                                             qx_value_t new_default_value);
qx_int32_t sr_overlay_memory_column_qualifier_1(sr_opaque_handle_t table_handle,
                                                qx_char_ptr_t p_column_name,
                                                sr_qualifier_t new_qualifier);

qx_int32_t sr_get_table_metadata_1(sr_opaque_handle_t table_handle, qx_int32_t all_metadata,
                                   sr_table_metadata_t **p_p_metadata);
qx_int32_t sr_free_table_metadata_1(sr_table_metadata_t *p_metadata);

/* The returned binary is allocated by the library; release it with free(). */
qx_int32_t sr_get_application_metadata_1(sr_opaque_handle_t table_handle,
                                         qx_binary_t **p_p_application_metadata);
qx_int32_t sr_set_application_metadata_1(sr_opaque_handle_t table_handle,
                                         qx_binary_t *p_application_metadata);

/* ---------------------------------------------------------------------------
 * Adding rows.  p_column_names[i] names the column of *p_p_fields[i].
 */
qx_int32_t sr_add_row_1(sr_opaque_handle_t table_handle, qx_char_ptr_t *p_column_names,
                        qx_value_t **p_p_fields, qx_uint32_t total_values);

/* ---------------------------------------------------------------------------
 * Reading fields.  row_index is a packed index (0 .. live rows - 1);
 * fixed_row_index a row's stable slot.  The plural forms fill *result[i] for
 * column_names[i].
 */
qx_int32_t sr_get_field_by_index_1(sr_opaque_handle_t table_handle, qx_int32_t row_index,
                                   qx_char_ptr_t column_name, qx_value_t *result);
qx_int32_t sr_get_field_by_index_and_visibility_1(sr_opaque_handle_t table_handle,
                                                  qx_int32_t row_index,
                                                  qx_char_ptr_t column_name, qx_value_t *result,
                                                  qx_uint32_t uncommitted_updates_visible,
                                                  sr_row_state_t *p_row_state);
qx_int32_t sr_get_field_by_fixed_index_and_visibility_1(sr_opaque_handle_t table_handle,
                                                        qx_int32_t fixed_row_index,
                                                        qx_char_ptr_t column_name,
                                                        qx_value_t *result,
                                                        qx_uint32_t uncommitted_updates_visible,
                                                        sr_row_state_t *p_row_state);
qx_int32_t sr_get_field_by_key_1(sr_opaque_handle_t table_handle, qx_value_t row_key,
                                 qx_char_ptr_t column_name, qx_value_t *result);
qx_int32_t sr_get_field_by_key_and_visibility_1(sr_opaque_handle_t table_handle,
                                                qx_value_t row_key, qx_char_ptr_t column_name,
                                                qx_value_t *result,
                                                qx_uint32_t uncommitted_updates_visible,
                                                sr_row_state_t *p_row_state);
qx_int32_t sr_get_fields_by_index_1(sr_opaque_handle_t table_handle, qx_int32_t row_index,
                                    qx_char_ptr_t *column_names, qx_value_t **result,
                                    qx_uint32_t array_count);
qx_int32_t sr_get_fields_by_index_and_visibility_1(sr_opaque_handle_t table_handle,
                                                   qx_int32_t row_index,
                                                   qx_char_ptr_t *column_names,
                                                   qx_value_t **result, qx_uint32_t array_count,
                                                   qx_uint32_t uncommitted_updates_visible,
                                                   sr_row_state_t *p_row_state);
qx_int32_t sr_get_fields_by_fixed_index_and_visibility_1(
    sr_opaque_handle_t table_handle, qx_int32_t fixed_row_index, qx_char_ptr_t *column_names,
    qx_value_t **result, qx_uint32_t array_count, qx_uint32_t uncommitted_updates_visible,
    sr_row_state_t *p_row_state);
qx_int32_t sr_get_fields_by_key_1(sr_opaque_handle_t table_handle, qx_value_t row_key,
                                  qx_char_ptr_t *column_names, qx_value_t **result,
                                  qx_uint32_t array_count);
qx_int32_t sr_get_fields_by_key_and_visibility_1(sr_opaque_handle_t table_handle,
                                                 qx_value_t row_key, qx_char_ptr_t *column_names,
                                                 qx_value_t **result, qx_uint32_t array_count,
                                                 qx_uint32_t uncommitted_updates_visible,
                                                 sr_row_state_t *p_row_state);
qx_int32_t sr_get_fixed_row_index_for_key_1(sr_opaque_handle_t table_handle,
                                            qx_value_t key_value,
                                            qx_uint32_t *p_fixed_row_index);
/* The array is allocated by the library; release it with free(). */
qx_int32_t sr_get_updated_rows_1(sr_opaque_handle_t table_handle,
                                 qx_uint32_t *p_updated_rows_count,
                                 qx_uint32_t **p_p_updated_rows_fixed_indices);

/* ---------------------------------------------------------------------------
 * Writing fields.
 */
qx_int32_t sr_set_field_by_index_1(sr_opaque_handle_t table_handle, qx_int32_t row_index,
                                   qx_char_ptr_t column_name, qx_value_t *new_field);
qx_int32_t sr_set_field_by_fixed_index_1(sr_opaque_handle_t table_handle,
                                         qx_int32_t fixed_row_index, qx_char_ptr_t column_name,
                                         qx_value_t *new_field);
qx_int32_t sr_set_field_by_key_1(sr_opaque_handle_t table_handle, qx_value_t row_key,
                                 qx_char_ptr_t column_name, qx_value_t *result);
qx_int32_t sr_set_fields_by_index_1(sr_opaque_handle_t table_handle, qx_int32_t row_index,
                                    qx_char_ptr_t *column_names, qx_value_t **new_fields,
                                    qx_uint32_t array_count);
qx_int32_t sr_set_fields_by_fixed_index_1(sr_opaque_handle_t table_handle,
                                          qx_int32_t fixed_row_index,
                                          qx_char_ptr_t *column_names, qx_value_t **new_fields,
                                          qx_uint32_t array_count);
qx_int32_t sr_set_fields_by_key_1(sr_opaque_handle_t table_handle, qx_value_t row_key,
                                  qx_char_ptr_t *column_names, qx_value_t **new_values,
                                  qx_uint32_t array_count);

/* ---------------------------------------------------------------------------
 * Deleting and selecting rows.  Selection strings may carry typed '$'
 * substitutions whose values follow as variadic arguments.
 *
 * A $S item is inserted between double quotes exactly as given: its bytes
 * are not escaped.  A string that holds a double quote or a backslash
 * therefore ends the quoted text early or starts an escape, and the rest of
 * it is read as expression text: a value taken from an untrusted source can
 * change what the selection matches (`x" || "" == "` selects every row, and
 * with sr_delete_rows_1 deletes every row) or make it fail to compile.  Pass
 * such values only after checking them, or with an item that cannot carry
 * quotes ($I, $UI, $L, $UL, $D, $B, $RH).
 */
qx_int32_t sr_delete_rows_1(sr_opaque_handle_t table_handle, qx_char_ptr_t selection_criteria,
                            ...);
qx_int32_t sr_delete_row_by_index_1(sr_opaque_handle_t table_handle, qx_uint32_t row_index);

qx_int32_t sr_select_1(sr_opaque_handle_t table_handle, qx_char_ptr_t *column_names,
                       qx_uint32_t array_count, sr_opaque_handle_t *result,
                       qx_char_ptr_t selection_string, ...);
/* The array is allocated by the library; release it with free(). */
qx_int32_t sr_get_selected_rows_v_1(sr_opaque_handle_t table_handle,
                                    qx_char_ptr_t p_selection_criteria, va_list ap,
                                    qx_uint32_t uncommitted_updates_visible,
                                    qx_uint32_t *p_total_selected_rows,
                                    qx_uint32_t **p_p_selected_rows_fixed_index);
/* The array is allocated by the library; release it with free(). */
qx_int32_t sr_get_duplicate_rows_1(sr_opaque_handle_t table_handle, qx_value_t key_value,
                                   qx_uint32_t *p_duplicate_rows_count,
                                   qx_uint32_t **p_p_duplicate_rows_fixed_indices,
                                   qx_uint32_t uncommitted_updates_visible);

/* ---------------------------------------------------------------------------
 * Packed table buffers.  sr_pack_tables_1 returns one malloc'd buffer (release
 * it with free()).  A table made by sr_unpack_table_1 is read-only and keeps
 * using the buffer's own row records: the buffer must stay alive, unchanged,
 * until that table (or its tree) is closed.
 */
qx_int32_t sr_pack_tables_1(qx_uint32_t total_tables, sr_opaque_handle_t *p_table_handles,
                            qx_uint32_t *p_uncommitted_updates_visible,
                            qx_uint32_t *p_total_row_fixed_indices,
                            qx_uint32_t *p_row_fixed_indices, void **p_p_buffer);
qx_int32_t sr_get_total_packed_tables_1(void *p_buffer, qx_uint32_t *p_total_packed_tables);
qx_int32_t sr_get_packed_table_name_1(void *p_buffer, qx_uint32_t table_index,
                                      qx_char_ptr_t *p_table_name);
qx_int32_t sr_convert_packed_table_buffer_1(void *p_buffer, qx_uint32_t header_already_converted,
                                            qx_int32_t do_conversion);
qx_int32_t sr_unpack_table_1(void *p_buffer, qx_uint32_t total_hash_buckets,
                             sr_hash_function_t *hash_function,
                             sr_hash_keys_compare_function_t *compare_function,
                             sr_opaque_handle_t tree_handle, qx_uint32_t table_index,
                             sr_opaque_handle_t *p_table);

/* ---------------------------------------------------------------------------
 * Diagnostic dumps.  They take no locks: the caller keeps the tree or table
 * still meanwhile.  Pass a tree handle or a table handle.
 */
struct sr_i_tree_struct;
struct sr_i_table_struct;
qx_int32_t sr_i_dump_tree(struct sr_i_tree_struct *p_tree);
qx_int32_t sr_i_dump_table(struct sr_i_table_struct *p_table, FILE *p_stream,
                           qx_uint64_t detail_flags);

#pragma GCC visibility pop

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* QX_SR_H */
