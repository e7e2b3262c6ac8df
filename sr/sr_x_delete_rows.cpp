// sr_delete_rows_1: deletes every live row (NULL criteria) or the rows a
// selection expression matches; the deletions are pending until commit.
#include "sr_i.h"

SR_SOURCE_FILE("sr/sr_x_delete_rows", "1.1");

extern "C" qx_int32_t sr_delete_rows_1(sr_opaque_handle_t table_handle,
                                       qx_char_ptr_t selection_criteria, ...) {
    // ForkMutex and the table's write lock for the whole call, including the
    // apply and commit an implicitly controlled table makes at once.
    static constexpr sr_i_frame_t kFrame{"sr_delete_rows_1",          31,   true,
                                         sr_i_lock_kind::table_write, true, true};
    // The substitution values after the criteria are consumed where the
    // criteria are compiled.
    return sr_i_api_call<sr_i_table_t>(sr_i_this_source, kFrame, table_handle,
                                       [&](sr_i_table_t *p_table) -> qx_int32_t {
                                           return sr_i_delete_rows(p_table, selection_criteria);
                                       });
}
