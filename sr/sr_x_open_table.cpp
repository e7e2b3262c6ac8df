// sr_open_table_1: opens a table by registry path, sharing the tree's record
// when the table is already open there.
#include "sr_i_frame.h"
#include "sr_i_table.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_x_open_table", "1.1");

extern "C" qx_int32_t sr_open_table_1(sr_opaque_handle_t tree_handle, qx_char_ptr_t p_registry_path,
                                      qx_int32_t mode, sr_opaque_handle_t *p_result_table_handle) {
    // No ForkMutex: opening serialises on the tree's write lock, which
    // do_open_table takes itself after checking the mode.
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_open_table_1", .entry_id = 77};
    return sr_i_api_call<sr_i_tree_t>(
        sr_i_this_source, kFrame, tree_handle, {.pointers = {p_result_table_handle}},
        [&](sr_i_tree_t *p_tree) {
            return do_open_table(p_tree, p_registry_path, mode, nullptr, p_result_table_handle,
                                 nullptr);
        });
}
