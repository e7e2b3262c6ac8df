/*
 * sr_i_pool.h - the record buffer pool (sr_i_record_buffer_pool.cpp) and the
 * one door of every allocation (sr_i_alloc.cpp).
 */
#ifndef SR_I_POOL_H
#define SR_I_POOL_H

#include "sr_i_common.h"

/* Record header of the pool and of the table file: 12 bytes, host order. */
constexpr auto SR_I_RECORD_HEADER_LENGTH = 12;
constexpr auto SR_I_RECORD_TYPE_FREE = 0;
constexpr auto SR_I_RECORD_TYPE_METADATA = 1;
constexpr auto SR_I_RECORD_TYPE_ROW = 2;

typedef struct sr_i_record_buffer_struct_t sr_i_record_buffer_t;

typedef struct sr_i_record_buffer_pool_struct_t {
    qx_uint32_t total_bytes; /* all buffers, buffer headers included */
    qx_uint32_t used_bytes;  /* total_bytes minus the data bytes of free records */
    char *p_free_chain;      /* first free record (header address), address order */
    sr_i_record_buffer_t *p_first_record_buffer;
    sr_i_record_buffer_t *p_last_record_buffer;
    /* First fit's memo: no free record of the buffers at directory positions
     * below fit_index is fit_length bytes long (header included) or longer.
     * All zero is always true. */
    qx_uint64_t fit_length;
    qx_uint32_t fit_index;
} sr_i_record_buffer_pool_t;

typedef struct sr_i_record_buffer_pool_duplication_map_struct_t {
    qx_uint32_t total;    /* number of source buffers */
    char **p_begin;       /* first data byte of each source buffer */
    char **p_end;         /* end of each source buffer */
    qx_int64_t *p_offset; /* distance from a source address to its copy */
} sr_i_record_buffer_pool_duplication_map_t;

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
constexpr auto SR_I_RECORD_BUFFER_GROUP = 64;

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
constexpr auto SR_I_RECORD_BUFFER_HEADER_LENGTH = 8;

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

/* --- allocation (sr_i_alloc.cpp) --- */

/* Every registry allocation goes through these; the memory is released with
 * free().  A zero-byte request still returns a distinct pointer. */
void *sr_i_malloc(size_t size);
void *sr_i_calloc(size_t count, size_t size);
void *sr_i_realloc(void *p_memory, size_t size);
/* A copy of p_text in memory from sr_i_malloc, or NULL. */
char *sr_i_strdup(const char *p_text);

/* Test builds only (QX_TEST_SEAMS: the static archive).  Lets the next
 * successful_allocations allocations through and makes the one after them
 * fail, once; a negative value disarms the hook. */
void sr_i_alloc_fail_after(qx_int64_t successful_allocations);
/* Test builds only: non-zero while an armed failure has not happened yet. */
int sr_i_alloc_failure_pending();
/* Test builds only: makes every sr_i_realloc move its block (true) or lets
 * the heap decide again (false). */
void sr_i_alloc_move_reallocations(bool move);

#endif /* SR_I_POOL_H */
