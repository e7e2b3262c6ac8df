// The exported selection calls: sr_select_1 (a new unnamed table of the
// matching rows), sr_get_selected_rows_v_1 (their fixed indices) and
// sr_get_duplicate_rows_1 (the rows sharing one key).  Each formats its
// selection string with the caller's values before the work, and frees the
// text before its locks are released.
#include <search.h>
#include <stdarg.h>
#include <stdlib.h>

#include "sr_i_frame.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_select.h"
#include "sr_i_table.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_x_select", "1.1");

namespace {

// Frees a formatted selection string at the end of a scope.
struct TextGuard {
    char *p = nullptr;
    ~TextGuard() { free(p); }
};

}  // namespace

extern "C" qx_int32_t sr_select_1(sr_opaque_handle_t table_handle, qx_char_ptr_t *column_names,
                                  qx_uint32_t array_count, sr_opaque_handle_t *result,
                                  qx_char_ptr_t selection_string, ...) {
    // No global mutex: the tree's write lock guards the set the new table
    // joins, and the source is only read.  The locks are taken here, tree
    // first, because the frame locks one object only.
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_select_1", .entry_id = 89};
    va_list ap;
    va_start(ap, selection_string);
    qx_int32_t rc = sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle, {.pointers = {result}},
        [&](sr_i_table_t *p_table) -> qx_int32_t {
            sr_i_tree_t *p_tree = p_table->p_tree;
            if (p_tree == nullptr) return SR_ERROR(SR_E_INTERNAL);
            qx_int32_t work_rc = sr_i_rw_lock_write(&p_tree->lock);
            if (work_rc != 0) return work_rc;
            work_rc = sr_i_rw_lock_read(&p_table->lock);
            if (work_rc != 0) {
                sr_i_rw_unlock_write(&p_tree->lock);
                return work_rc;
            }
            TextGuard text;
            if (selection_string != nullptr) {
                work_rc = sr_i_select_printf(&text.p, selection_string, ap);
            }
            sr_i_table_t *p_new = nullptr;
            if (work_rc == 0) {
                work_rc = sr_i_select(p_table, column_names, array_count, text.p, &p_new);
            }
            free(text.p);
            text.p = nullptr;
            if (work_rc == 0) {
                if (tsearch(p_new, &p_tree->p_unnamed_tables, sr_i_pointer_compare) == nullptr) {
                    sr_i_close_table(p_new);
                    work_rc = SR_ERROR(SR_E_NO_MEMORY);
                } else {
                    *result = p_new;
                }
            }
            qx_int32_t unlock_rc = sr_i_rw_unlock_read(&p_table->lock);
            qx_int32_t unlock_tree_rc = sr_i_rw_unlock_write(&p_tree->lock);
            if (work_rc == 0) work_rc = unlock_rc != 0 ? unlock_rc : unlock_tree_rc;
            return work_rc;
        });
    va_end(ap);
    return rc;
}

extern "C" qx_int32_t sr_get_selected_rows_v_1(sr_opaque_handle_t table_handle,
                                               qx_char_ptr_t p_selection_criteria, va_list ap,
                                               qx_uint32_t uncommitted_updates_visible,
                                               qx_uint32_t *p_total_selected_rows,
                                               qx_uint32_t **p_p_selected_rows_fixed_index) {
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_get_selected_rows_v_1",
                                         .entry_id = 63,
                                         .lock = sr_i_lock_kind::table_read};
    va_list values;
    va_copy(values, ap);
    qx_int32_t rc = sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle,
        {.pointers = {p_total_selected_rows, p_p_selected_rows_fixed_index}},
        [&](sr_i_table_t *p_table) -> qx_int32_t {
            TextGuard text;
            if (p_selection_criteria != nullptr) {
                qx_int32_t work_rc = sr_i_select_printf(&text.p, p_selection_criteria, values);
                if (work_rc != 0) return work_rc;
            }
            return sr_i_get_selected_rows(p_table, text.p, uncommitted_updates_visible,
                                          p_total_selected_rows, p_p_selected_rows_fixed_index);
        });
    va_end(values);
    return rc;
}

extern "C" qx_int32_t sr_get_duplicate_rows_1(sr_opaque_handle_t table_handle, qx_value_t key_value,
                                              qx_uint32_t *p_duplicate_rows_count,
                                              qx_uint32_t **p_p_duplicate_rows_fixed_indices,
                                              qx_uint32_t uncommitted_updates_visible) {
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_get_duplicate_rows_1",
                                         .entry_id = 41,
                                         .lock = sr_i_lock_kind::table_read};
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle,
        {.pointers = {p_duplicate_rows_count, p_p_duplicate_rows_fixed_indices}},
        [&](sr_i_table_t *p_table) -> qx_int32_t {
            return sr_i_get_duplicate_rows(p_table, &key_value, p_duplicate_rows_count,
                                           p_p_duplicate_rows_fixed_indices,
                                           uncommitted_updates_visible);
        });
}
