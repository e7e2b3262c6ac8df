/*
 * sr_i_management.h - table management: listing (sr_i_list_tables.cpp), repair
 * (sr_i_repair.cpp), copying, moving and removing tables
 * (sr_i_duplicate_table.cpp), schema changes and in-memory overlays
 * (sr_i_update_metadata.cpp).
 */
#ifndef SR_I_MANAGEMENT_H
#define SR_I_MANAGEMENT_H

#include "sr_i_table.h"

/* --- listing (sr_i_list_tables.cpp) --- */

/* Initial capacity of a listing and the step it grows by. */
constexpr auto SR_I_LIST_STEP = 100;

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

/* The work of the four copy and move calls; the caller holds ForkMutex.
 * Takes the tree's write lock, the source record's read lock and, for a file
 * target, the directory's ",Lock" file and the target file's lock. */
qx_int32_t sr_i_duplicate_table(sr_opaque_handle_t tree_handle,
                                sr_opaque_handle_t source_table_handle, qx_char_ptr_t p_source_path,
                                qx_char_ptr_t p_target_path, qx_uint32_t remove_source,
                                qx_int32_t overwrite_target);
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

#endif /* SR_I_MANAGEMENT_H */
