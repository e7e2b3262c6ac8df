// sr_get_table_metadata_1: a description of an open table (name, counts,
// change counter and, on request, deep copies of its column definitions),
// released by the caller with sr_free_table_metadata_1.
#include "sr_i_frame.h"
#include "sr_i_rows.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_get_table_metadata", "1.1");

extern "C" qx_int32_t sr_get_table_metadata_1(sr_opaque_handle_t table_handle,
                                              qx_int32_t all_metadata,
                                              sr_table_metadata_t **p_p_metadata) {
    // A query: the table's read lock only, no ForkMutex.
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_get_table_metadata_1",
                                         .entry_id = 65,
                                         .lock = sr_i_lock_kind::table_read};
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle, {.pointers = {p_p_metadata}},
        [&](sr_i_table_t *p_table) -> qx_int32_t {
            return sr_i_get_table_metadata(p_table, all_metadata, p_p_metadata);
        });
}
