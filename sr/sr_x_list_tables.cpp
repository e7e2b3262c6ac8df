// sr_list_tables_1: the registry names of the tables under a path, in a
// list the caller releases with sr_free_table_list_1.  No API mutex: the
// tree's write lock alone guards the tree's listing work fields.
#include "sr_i_frame.h"
#include "sr_i_management.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_x_list_tables", "1.1");

extern "C" qx_int32_t sr_list_tables_1(sr_opaque_handle_t tree_handle,
                                       qx_char_ptr_t p_registry_path, qx_char_ptr_t **p_table_list,
                                       qx_uint32_t *array_count) {
    static constexpr sr_i_frame_t kFrame{
        .p_function = "sr_list_tables_1", .entry_id = 69, .lock = sr_i_lock_kind::tree_write};
    return sr_i_api_call<sr_i_tree_t>(
        sr_i_this_source, kFrame, tree_handle, {.pointers = {p_table_list, array_count}},
        [&](sr_i_tree_t *p_tree) {
            return sr_i_list_tables(p_tree, p_registry_path, p_table_list, array_count);
        });
}
