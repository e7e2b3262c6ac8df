// Trees: the once-only library set-up (fork handlers, trace registration),
// the process's set of open trees, the ordered-set comparators, the
// conversion handles a tree carries, and releasing a tree with everything
// in it.
#include <pthread.h>
#include <search.h>

#include <cassert>
#include <cstdlib>
#include <cstring>

#include "sr_i_read_write_lock.h"
#include "sr_i_table.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_i_tree", "1.1");

pthread_mutex_t Registry_Trees_Mutex = PTHREAD_MUTEX_INITIALIZER;
void *P_Registry_Trees = nullptr;

// ---------------------------------------------------------------------------
// Fork handling.  A state-changing call holds ForkMutex for its whole run, so
// holding it across fork means a child never inherits a half-done change; the
// child gets a fresh mutex because the parent's holder does not exist there.

extern "C" {
static void ForkPrepareHandler(void) {
    pthread_mutex_lock(&ForkMutex);
}
static void ForkParentHandler(void) {
    pthread_mutex_unlock(&ForkMutex);
}
static void ForkChildHandler(void) {
    pthread_mutex_init(&ForkMutex, nullptr);
}

static void sr_reg_once(void) {
    int rc = pthread_atfork(ForkPrepareHandler, ForkParentHandler, ForkChildHandler);
    assert(0 == rc &&
           "0 == pthread_atfork(ForkPrepareHandler, ForkParentHandler, ForkChildHandler)");
    if (rc != 0) std::abort();
}
}

static pthread_once_t ForkHandlersAreEstablished = PTHREAD_ONCE_INIT;

void sr_i_library_once() {
    pthread_once(&ForkHandlersAreEstablished, sr_reg_once);
    // Tested and set without a lock: trees are normally opened before the
    // library is shared between threads, and a second registration is
    // harmless (it refreshes the same detail bytes).
    if (Sr_Library_Registered_For_Trace == 0) {
        tr_register_component_1(SR_TRACE_COMPONENT, Sr_Trace_Level_Of_Detail, Sr_Trace_Categories,
                                3);
        Sr_Library_Registered_For_Trace = 1;
    }
}

// ---------------------------------------------------------------------------
// Comparators: the search key first, the stored record second.

int sr_i_table_compare(const void *p_key, const void *p_stored) {
    return std::strcmp(static_cast<const sr_i_table_t *>(p_key)->p_name,
                       static_cast<const sr_i_table_t *>(p_stored)->p_name);
}

int sr_i_string_to_table_compare(const void *p_key, const void *p_stored) {
    return std::strcmp(static_cast<const char *>(p_key),
                       static_cast<const sr_i_table_t *>(p_stored)->p_name);
}

int sr_i_mount_point_compare(const void *p_key, const void *p_stored) {
    return std::strcmp(static_cast<const sr_i_mount_point_t *>(p_key)->p_name,
                       static_cast<const sr_i_mount_point_t *>(p_stored)->p_name);
}

int sr_i_string_to_mount_point_compare(const void *p_key, const void *p_stored) {
    const char *p_text = static_cast<const char *>(p_key);
    const char *p_name = static_cast<const sr_i_mount_point_t *>(p_stored)->p_name;
    // A mount point's name ends in "/", so a plain prefix test finds the
    // mount point a path lies under.
    size_t length = std::strlen(p_name);
    if (std::strncmp(p_text, p_name, length) == 0) return 0;
    return std::strcmp(p_text, p_name);
}

int sr_i_string_to_mount_point_delete_compare(const void *p_key, const void *p_stored) {
    return std::strcmp(static_cast<const char *>(p_key),
                       static_cast<const sr_i_mount_point_t *>(p_stored)->p_name);
}

int sr_i_pointer_compare(const void *p_key, const void *p_stored) {
    auto a = reinterpret_cast<uintptr_t>(p_key);
    auto b = reinterpret_cast<uintptr_t>(p_stored);
    return a < b ? -1 : (a > b ? 1 : 0);
}

// ---------------------------------------------------------------------------

qx_int32_t sr_i_get_string_conversion_handles(cu_iconv_t **p_to_table_string_conversion_handle,
                                              cu_iconv_t **p_from_table_string_conversion_handle) {
    cu_locale_info_t *p_info = nullptr;
    int rc = cu_get_locale_info_1(&p_info);
    if (rc != 0) return SR_ERROR_LIBCALL("qx_get_local_info", rc);
    qx_uint32_t extra = cu_utf8_is_not_modified_1(p_info) ? CU_ICONV_UTF8_UNMODIFIED : 0;
    qx_int32_t result = 0;
    rc = cu_iconv_open_1(p_info, CU_ICONV_TO_TABLE | extra, p_to_table_string_conversion_handle);
    if (rc != 0) {
        result = SR_ERROR_LIBCALL("qx_iconv_open", rc);
    } else {
        rc = cu_iconv_open_1(p_info, CU_ICONV_FROM_TABLE | extra,
                             p_from_table_string_conversion_handle);
        if (rc != 0) result = SR_ERROR_LIBCALL("qx_iconv_open", rc);
    }
    cu_rel_locale_info_1(p_info);
    return result;
}

namespace {

extern "C" void sr_i_mount_point_delete_action(void *p_node) {
    auto *p_mount = static_cast<sr_i_mount_point_t *>(p_node);
    std::free(p_mount->p_filesystem_path);
    std::free(p_mount->p_name);
    std::free(p_mount);
}

extern "C" void sr_i_table_delete_action(void *p_node) {
    sr_i_close_table(static_cast<sr_i_table_t *>(p_node));
}

extern "C" void sr_i_unnamed_table_delete_action(void *p_node) {
    sr_i_close_table(static_cast<sr_i_table_t *>(p_node));
}

}  // namespace

qx_int32_t sr_i_close_tree(sr_i_tree_t *p_tree) {
    qx_int32_t rc = sr_i_rw_lock_write(&p_tree->lock);
    if (rc != 0) return rc;
    if (p_tree->p_to_table_string_conversion_handle != nullptr) {
        cu_iconv_close_1(p_tree->p_to_table_string_conversion_handle);
    }
    if (p_tree->p_from_table_string_conversion_handle != nullptr) {
        cu_iconv_close_1(p_tree->p_from_table_string_conversion_handle);
    }
    // Tables still open are closed with their unapplied changes discarded;
    // handles callers still hold become invalid.
    tdestroy(p_tree->p_tables, sr_i_table_delete_action);
    tdestroy(p_tree->p_unnamed_tables, sr_i_unnamed_table_delete_action);
    tdestroy(p_tree->p_mount_points, sr_i_mount_point_delete_action);
    sr_i_rw_unlock_write(&p_tree->lock);
    sr_i_rw_close(&p_tree->lock);
    std::free(p_tree);
    return 0;
}
