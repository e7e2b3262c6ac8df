// sr_repair_tables_1: deletes the ".rewrite" files left beside the named
// tables by interrupted rewrites.  Unlike the other state-changing calls it
// takes only the tree's write lock, not the API mutex.
#include "sr_i_frame.h"
#include "sr_i_management.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_x_repair_tables", "1.1");

extern "C" qx_int32_t sr_repair_tables_1(sr_opaque_handle_t tree_handle,
                                         qx_char_ptr_t *p_table_names, qx_uint32_t array_count) {
    static constexpr sr_i_frame_t kFrame{
        .p_function = "sr_repair_tables_1", .entry_id = 87, .lock = sr_i_lock_kind::tree_write};
    return sr_i_api_call<sr_i_tree_t>(
        sr_i_this_source, kFrame, tree_handle, {.paths = {p_table_names}, .count = array_count},
        [&](sr_i_tree_t *p_tree) {
            return sr_i_repair_tables(p_tree, p_table_names, array_count);
        });
}
