/*
 * sr_i_application_metadata.h - the application metadata of a table
 * (sr_i_application_metadata.cpp).
 */
#ifndef SR_I_APPLICATION_METADATA_H
#define SR_I_APPLICATION_METADATA_H

#include "sr_i_common.h"

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

#endif /* SR_I_APPLICATION_METADATA_H */
