/*
 * sr_i_select.h - selection (sr_i_select.cpp): `$` formatting, compiling
 * expressions against a table's columns, and the rows an expression chooses.
 * Callers hold the table's lock (write for deletions).
 */
#ifndef SR_I_SELECT_H
#define SR_I_SELECT_H

#include <stdarg.h>

#include "sr_i_table.h"

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

#endif /* SR_I_SELECT_H */
