// sr_abort_1: throws away a table's pending and applied changes, bringing it
// back to its last committed state.
#include "sr_i_frame.h"
#include "sr_i_table.h"
#include "sr_i_transaction.h"

SR_SOURCE_FILE("sr/sr_x_abort", "1.1");

extern "C" qx_int32_t sr_abort_1(sr_opaque_handle_t table_handle) {
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_abort_1",
                                         .entry_id = 1,
                                         .api_mutex = true,
                                         .lock = sr_i_lock_kind::table_write,
                                         .write_mode = true};
    return sr_i_api_call<sr_i_table_t>(sr_i_this_source, kFrame, table_handle,
                                       [](sr_i_table_t *p_table) { return sr_i_abort(p_table); });
}
