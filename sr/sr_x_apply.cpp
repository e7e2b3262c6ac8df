// sr_apply_1: writes a table's pending changes and a new commit record to its
// file (or, for a file that is mostly dead space, a complete new image beside
// it) and syncs them, leaving the table applied until commit or abort.
#include "sr_i_frame.h"
#include "sr_i_table.h"
#include "sr_i_transaction.h"

SR_SOURCE_FILE("sr/sr_x_apply", "1.1");

extern "C" qx_int32_t sr_apply_1(sr_opaque_handle_t table_handle,
                                 qx_uint64_t table_change_counter) {
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_apply_1",
                                         .entry_id = 7,
                                         .api_mutex = true,
                                         .lock = sr_i_lock_kind::table_write,
                                         .write_mode = true};
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle, [&](sr_i_table_t *p_table) {
            return sr_i_apply(p_table, sr_i_rewrite_wanted(p_table), table_change_counter);
        });
}
