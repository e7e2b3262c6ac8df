/*
 * sr_i_pack.h - packed table buffers (sr_i_pack.cpp).
 *
 * A packed table buffer: a 40-byte head (the length word, four header bytes,
 * the slots holding 0, 1, the length again and the table count N), then four
 * 8-byte slots per table (name, fixed metadata, column metadata, rows), then
 * the indirect area they anchor into.  A received buffer is untrusted: its
 * own length word bounds everything read from it; a head that disagrees with
 * it, or metadata values of the wrong shape, make the table unreadable (14),
 * and a value the protocol library refuses is 11 naming that call.
 */
#ifndef SR_I_PACK_H
#define SR_I_PACK_H

#include "sr_i_table.h"

constexpr auto SR_I_PACKED_HEAD_LENGTH = 40;
constexpr auto SR_I_PACKED_TABLE_SLOTS_LENGTH = 32;

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
                             sr_hash_keys_compare_function_t *compare_function, sr_i_tree_t *p_tree,
                             qx_uint32_t table_index, sr_opaque_handle_t *p_table);

#endif /* SR_I_PACK_H */
