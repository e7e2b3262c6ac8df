// sr_create_table_1: creates a table (persistent under a mount point,
// transient elsewhere) and opens it for write.
#include "sr_i_frame.h"
#include "sr_i_table.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_x_create_table", "1.1");

extern "C" qx_int32_t sr_create_table_1(sr_opaque_handle_t tree_handle,
                                        qx_char_ptr_t p_registry_path, sr_column_t *p_columns,
                                        qx_uint32_t array_count, qx_int32_t mode,
                                        sr_opaque_handle_t *p_result_table_handle) {
    // ForkMutex for the whole call: a fork never sees a half-written file.
    // The tree's write lock is taken inside, after the argument checks.
    static constexpr sr_i_frame_t kFrame{
        .p_function = "sr_create_table_1", .entry_id = 23, .api_mutex = true};
    return sr_i_api_call<sr_i_tree_t>(
        sr_i_this_source, kFrame, tree_handle, {.pointers = {p_columns, p_result_table_handle}},
        [&](sr_i_tree_t *p_tree) {
            return sr_x_create_table(p_tree, p_registry_path, p_columns, array_count, mode, nullptr,
                                     nullptr, p_result_table_handle);
        });
}
