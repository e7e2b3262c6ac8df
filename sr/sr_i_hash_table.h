/*
 * sr_i_hash_table.h - the hashed key index of a table (sr_i_hash_table.cpp).
 */
#ifndef SR_I_HASH_TABLE_H
#define SR_I_HASH_TABLE_H

#include "sr_i_common.h"

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

/* Buckets of the default index. */
constexpr auto SR_I_DEFAULT_HASH_BUCKETS = 16384;

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
/* Makes room for count more elements in one block, so that adding them
 * allocates nothing more.  12 on memory. */
qx_int32_t sr_i_hash_table_reserve(sr_hash_table_t *p_hash_table, qx_uint32_t count);
/* For building a whole index at once (sr_i_establish_secondary_row_access).
 * The bucket of a key; false, with nothing reported, when the hash function
 * gives one outside the index. */
bool sr_i_hash_table_bucket(const sr_hash_table_t *p_hash_table, const void *p_key_value,
                            qx_uint32_t *p_bucket);
/* A new element for the key at the head of its bucket (in range), compared
 * with nothing; NULL, unreported, when short of memory. */
sr_hash_table_element_t *sr_i_hash_table_link(sr_hash_table_t *p_hash_table, char *p_key_value,
                                              qx_uint32_t row_index, qx_uint32_t bucket);
/* Whether the index's compare function finds two keys equal. */
bool sr_i_hash_table_keys_equal(const sr_hash_table_t *p_hash_table, const void *p_key1,
                                const void *p_key2);
/* Removes every element; the buckets and functions stay.  NULL accepted. */
void sr_i_hash_table_clear(sr_hash_table_t *p_hash_table);
/* Removes the most recently added element with an equal key; 202 if none. */
qx_int32_t sr_i_hash_table_remove(sr_hash_table_t *p_hash_table, const void *p_key_value);
/* Removes that very element from bucket hash_index; 202 if it is not there. */
qx_int32_t sr_i_hash_table_remove_element(sr_hash_table_t *p_hash_table, qx_uint32_t hash_index,
                                          sr_hash_table_element_t *p_hash_table_element);
/* The row of the most recently added equal key and the address of its
 * element's p_key_value field; 202 if none. */
qx_int32_t sr_i_hash_table_get_index(sr_hash_table_t *p_hash_table, const void *p_key_value,
                                     qx_uint32_t *row_index, char ***p_p_p_key_value);
/* As sr_i_hash_table_get_index for a caller that reads the row's slot next:
 * entry row_index of the array p_slots of slot_bytes-byte entries is fetched
 * ahead while the keys are compared. */
qx_int32_t sr_i_hash_table_find_row(sr_hash_table_t *p_hash_table, const void *p_key_value,
                                    qx_uint32_t *row_index, const void *p_slots, size_t slot_bytes);
/* Bucket lengths and totals on standard output. */
void sr_i_hash_table_output_stats(sr_hash_table_t *p_hash_table);

#endif /* SR_I_HASH_TABLE_H */
