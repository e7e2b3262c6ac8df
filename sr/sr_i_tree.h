/*
 * sr_i_tree.h - open trees, their mount points and the process-wide state
 * (sr_i_tree.cpp).
 */
#ifndef SR_I_TREE_H
#define SR_I_TREE_H

#include <pthread.h>

#include "sr_i_read_write_lock.h"

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

#endif /* SR_I_TREE_H */
