// sr_close_table_1: gives up one open of a table.  A persistent table (and a
// table unpacked from a caller's buffer) is freed at its last close; a named
// transient table stays in its tree, rows and all, until it is deleted; an
// unnamed table is freed at once.
#include <search.h>

#include "sr_i_frame.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_table.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_x_close_table", "1.1");

namespace {

// Caller holds the tree's write lock.
void close_table(sr_i_tree_t *p_tree, sr_i_table_t *p_table) {
    SR_I_ASSERT_WRITE_LOCKED(&p_tree->lock);
    if (p_table->p_name == nullptr) {
        tdelete(p_table, &p_tree->p_unnamed_tables, sr_i_pointer_compare);
        sr_i_close_table(p_table);
        return;
    }
    if (p_table->references > 0) --p_table->references;
    if (p_table->references != 0) return;
    // The set may by now hold another record of the same name (this one was
    // deleted and the table made again), which must stay.
    void *p_node = tfind(p_table, &p_tree->p_tables, sr_i_table_compare);
    bool in_set = p_node != nullptr && *static_cast<sr_i_table_t **>(p_node) == p_table;
    // A persistent table is read again from its file; a table unpacked from
    // a caller's buffer reads its rows in place, and the caller may free that
    // buffer once the table is closed.  Neither outlives its last close.
    if (p_table->p_file_path != nullptr || p_table->p_packed_rows_array != nullptr) {
        if (in_set) tdelete(p_table, &p_tree->p_tables, sr_i_table_compare);
        sr_i_close_table(p_table);
    } else if (!in_set) {
        sr_i_close_table(p_table);
    }
}

}  // namespace

extern "C" qx_int32_t sr_close_table_1(sr_opaque_handle_t table_handle) {
    // The lock taken is the tree's, reached through the table handle; no
    // ForkMutex.
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_close_table_1",
                                         .entry_id = 13,
                                         .lock = sr_i_lock_kind::tree_of_table_write};
    return sr_i_api_call<sr_i_table_t>(sr_i_this_source, kFrame, table_handle,
                                       [&](sr_i_table_t *p_table) -> qx_int32_t {
                                           if (p_table->p_tree == nullptr) {
                                               sr_i_close_table(p_table);
                                           } else {
                                               close_table(p_table->p_tree, p_table);
                                           }
                                           return 0;
                                       });
}
