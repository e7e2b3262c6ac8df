/*
 * sr_i_frame.h - the call frame every exported operation runs in
 * (sr_i_frame.cpp).
 */
#ifndef SR_I_FRAME_H
#define SR_I_FRAME_H

#include <initializer_list>
#include <type_traits>

#include "sr_i_table.h"

/* Which lock an exported operation takes around its work.  tree_of_table_write
 * is the write lock of the tree a table handle belongs to (none for a table
 * outside any tree). */
enum class sr_i_lock_kind {
    none,
    /* Readers take only the table's read lock: reads of one table run side
     * by side and exclude only its writer. */
    table_read,
    table_write,
    tree_read,
    tree_write,
    tree_of_table_write
};

struct sr_i_frame_t {
    const char *p_function = nullptr;           /* the exported operation, for error reports */
    qx_uint32_t entry_id = 0;                   /* odd; the exit id is entry_id + 1 */
    bool api_mutex = false;                     /* state-changing: hold ForkMutex */
    sr_i_lock_kind lock = sr_i_lock_kind::none; /* lock taken on the handle's object */
    bool write_mode = false;                    /* refuse a table without mode & 2 (206) */
    bool implicit = false;                      /* apply and commit an implicit table */
    bool library_start = false;                 /* the library's one-time start-up first */
};

/* The frame of a row or application-metadata update: ForkMutex and the
 * table's write lock for the whole call, including the apply and commit an
 * implicitly controlled table makes at once, after the write-mode check. */
constexpr sr_i_frame_t sr_i_update_frame(const char *p_function, qx_uint32_t entry_id) {
    return {.p_function = p_function,
            .entry_id = entry_id,
            .api_mutex = true,
            .lock = sr_i_lock_kind::table_write,
            .write_mode = true,
            .implicit = true};
}

/* The pointer arguments a call requires (101 when one is NULL): each of
 * `pointers`, and, when `count` is not 0, each array of `arrays` and its
 * first `count` entries (pointers themselves: names, value pointers) and
 * each array of `paths` (whose entries the call checks itself: a NULL
 * registry path is the path check's to report, as 102, a NULL handle 100). */
struct sr_i_required_t {
    std::initializer_list<const void *> pointers = {};
    std::initializer_list<const void *> arrays = {};
    std::initializer_list<const void *> paths = {};
    qx_uint32_t count = 0;
};

/* Whether every pointer `required` names is there. */
inline bool sr_i_required_present(const sr_i_required_t &required) {
    for (const void *p : required.pointers) {
        if (p == nullptr) return false;
    }
    if (required.count == 0) return true;
    for (const void *p_array : required.paths) {
        if (p_array == nullptr) return false;
    }
    for (const void *p_array : required.arrays) {
        if (p_array == nullptr) return false;
        for (qx_uint32_t i = 0; i < required.count; ++i) {
            const void *p_entry;
            memcpy(&p_entry, static_cast<const char *>(p_array) + i * sizeof(void *),
                   sizeof p_entry);
            if (p_entry == nullptr) return false;
        }
    }
    return true;
}

/* Applies and commits an implicitly controlled table after an update, or
 * aborts it when apply fails; returns apply's or commit's result.  Provided
 * by the transaction layer. */
qx_int32_t sr_i_implicit_apply_commit(sr_i_table_t *p_table);

/* Frame pieces used by sr_i_api_call below. */
void sr_i_trace_entry(qx_uint32_t entry_id);
qx_int32_t sr_i_trace_exit(qx_uint32_t entry_id, qx_int32_t result);
void sr_i_fork_mutex_lock();
void sr_i_fork_mutex_unlock();

/* The lock `frame` takes on p_object, or NULL for none. */
template <typename Object>
sr_i_read_write_lock_t *sr_i_frame_lock(const sr_i_frame_t &frame, Object *p_object) {
    if (frame.lock == sr_i_lock_kind::none) return nullptr;
    if constexpr (requires { p_object->p_tree->lock; }) {
        if (frame.lock == sr_i_lock_kind::tree_of_table_write) {
            return p_object->p_tree != nullptr ? &p_object->p_tree->lock : nullptr;
        }
    }
    if constexpr (requires { p_object->lock; }) {
        return &p_object->lock;
    } else {
        return nullptr;
    }
}

/*
 * The frame every exported operation runs in: trace entry, ForkMutex for
 * state-changing operations, the handle check (100), the required pointers
 * (101), the tree's or table's lock, the write-mode check (206), the work,
 * the implicit apply/commit/abort, release in reverse order, error clearing
 * on success, trace exit.
 *
 * `Object` is sr_i_table_t or sr_i_tree_t, the type an out-pointer handle
 * points to (a NULL one is 100 too), or void for a call without a handle;
 * `work` is called with the object and returns a result code.  `source` is
 * the calling sr_x_ file's sr_i_this_source, so that 100, 101 and 206 are
 * reported against it.
 */
template <typename Object, typename Work>
qx_int32_t sr_i_api_call(const sr_i_source_t &source, const sr_i_frame_t &frame, void *handle,
                         const sr_i_required_t &required, Work &&work) {
    sr_i_trace_entry(frame.entry_id);
    if (frame.library_start) sr_i_library_once();
    if (frame.api_mutex) sr_i_fork_mutex_lock();
    qx_int32_t rc = 0;
    Object *p_object = static_cast<Object *>(handle);
    bool handle_missing = false;
    if constexpr (!std::is_void_v<Object>) handle_missing = p_object == nullptr;
    if (handle_missing) {
        rc = sr_i_set_error(source, frame.p_function, __LINE__, SR_E_INVALID_HANDLE);
    } else if (!sr_i_required_present(required)) {
        rc = sr_i_set_error(source, frame.p_function, __LINE__, SR_E_NULL_POINTER);
    } else {
        sr_i_read_write_lock_t *p_lock = sr_i_frame_lock(frame, p_object);
        bool write_lock = frame.lock == sr_i_lock_kind::table_write ||
                          frame.lock == sr_i_lock_kind::tree_write ||
                          frame.lock == sr_i_lock_kind::tree_of_table_write;
        bool locked = false;
        if (p_lock != nullptr) {
            rc = write_lock ? sr_i_rw_lock_write(p_lock) : sr_i_rw_lock_read(p_lock);
            locked = rc == 0;
        }
        if (rc == 0) {
            if constexpr (requires { p_object->mode; }) {
                if (frame.write_mode && (p_object->mode & SR_MODE_WRITE) == 0) {
                    rc = sr_i_set_error(source, frame.p_function, __LINE__, SR_E_ACCESS);
                }
            }
            if (rc == 0) rc = work(p_object);
            if constexpr (requires { p_object->implicitly_controlled; }) {
                if (rc == 0 && frame.implicit && p_object->implicitly_controlled) {
                    rc = sr_i_implicit_apply_commit(p_object);
                }
            }
        }
        if (locked) {
            qx_int32_t unlock_rc =
                write_lock ? sr_i_rw_unlock_write(p_lock) : sr_i_rw_unlock_read(p_lock);
            if (rc == 0) rc = unlock_rc;
        }
    }
    if (frame.api_mutex) sr_i_fork_mutex_unlock();
    if (rc == 0) cu_set_no_error_1();
    return sr_i_trace_exit(frame.entry_id, rc);
}

/* A call without pointer arguments beyond its handle. */
template <typename Object, typename Work>
qx_int32_t sr_i_api_call(const sr_i_source_t &source, const sr_i_frame_t &frame, void *handle,
                         Work &&work) {
    return sr_i_api_call<Object>(source, frame, handle, sr_i_required_t{},
                                 static_cast<Work &&>(work));
}

#endif /* SR_I_FRAME_H */
