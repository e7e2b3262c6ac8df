// sr_copy_table_by_name_1: copies a table, open or only a file, to another
// registry path of the tree.  The locks are taken inside the copy.
#include "sr_i_frame.h"
#include "sr_i_management.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_x_copy_table_by_name", "1.1");

extern "C" qx_int32_t sr_copy_table_by_name_1(sr_opaque_handle_t tree_handle,
                                              qx_char_ptr_t p_source_table_name,
                                              qx_char_ptr_t p_target_table_name,
                                              qx_int32_t overwrite) {
    static constexpr sr_i_frame_t kFrame{
        .p_function = "sr_copy_table_by_name_1", .entry_id = 21, .api_mutex = true};
    return sr_i_api_call<sr_i_tree_t>(
        sr_i_this_source, kFrame, tree_handle, [&](sr_i_tree_t *p_tree) {
            return sr_i_duplicate_table(p_tree, nullptr, p_source_table_name, p_target_table_name,
                                        0, overwrite);
        });
}
