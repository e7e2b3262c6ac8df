/*
 * sr_i_rows.h - adding, reading, writing and deleting rows; metadata queries
 * (sr_i_add_row.cpp, sr_i_get_values.cpp, sr_i_set_values.cpp,
 * sr_i_delete_rows.cpp, sr_i_table_metadata.cpp).  Every routine runs under
 * the table's lock taken by the exported call (write for changes, read for
 * readers) and returns 0 or a code it has reported.
 */
#ifndef SR_I_ROWS_H
#define SR_I_ROWS_H

#include "sr_i_table.h"

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
                            qx_value_t *p_input_key_value, sr_i_index_entry_t **p_p_new_index_entry,
                            sr_hash_table_element_t **p_p_existing_hash_table_element);
/* Puts the row on the deleted-rows list (deletion 1) or the rows change list
 * (0), moving its pending change between the lists; 12 on memory. */
qx_int32_t sr_i_common_add_change_entry(sr_i_table_t *p_table, sr_i_index_entry_t *p_index_entry,
                                        qx_uint32_t deletion);
qx_int32_t sr_i_add_change_entry(sr_i_table_t *p_table, sr_i_index_entry_t *p_index_entry);

/* --- the key check of unhashed unique tables (sr_i_unique_key.cpp) --- */

/* Sets *p_exists to whether the add of the row whose slot p_new_entry was
 * just taken (its p_applied already the new record) must be refused for its
 * key *p_key: the answer of the walk over the fixed index, found through the
 * table's index of keys, which the first call builds.  0, or 12 without
 * memory for that index. */
qx_int32_t sr_i_unique_key_check(sr_i_table_t *p_table, qx_value_t *p_key,
                                 sr_i_index_entry_t *p_new_entry, bool *p_exists);
/* The row's working record is new (added, or set, which may change its key):
 * its key is noted in the table's index of keys, if the table has one. */
void sr_i_unique_key_note_row(sr_i_table_t *p_table, sr_i_index_entry_t *p_entry);
/* Drops the table's index of keys (abort brings back records it was not told
 * about; close). */
void sr_i_unique_key_forget(sr_i_table_t *p_table);

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

#endif /* SR_I_ROWS_H */
