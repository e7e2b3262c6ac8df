// sr_move_table_by_handle_1: moves an open table to another registry path of
// its tree; the source goes only once the target exists.  The locks are
// taken inside the move.
#include "sr_i_frame.h"
#include "sr_i_management.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_move_table_by_handle", "1.1");

extern "C" qx_int32_t sr_move_table_by_handle_1(sr_opaque_handle_t table_handle,
                                                qx_char_ptr_t p_target_table_name,
                                                qx_int32_t overwrite) {
    static constexpr sr_i_frame_t kFrame{
        .p_function = "sr_move_table_by_handle_1", .entry_id = 73, .api_mutex = true};
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle, [&](sr_i_table_t *p_table) {
            return sr_i_duplicate_table(p_table->p_tree, p_table, nullptr, p_target_table_name, 1,
                                        overwrite);
        });
}
