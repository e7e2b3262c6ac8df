// sr_get_application_metadata_1: a copy of the table's application metadata
// (the block of type 0) as the table's own visibility shows it; the caller
// frees it with free().
#include "sr_i_application_metadata.h"
#include "sr_i_frame.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_get_application_metadata", "1.1");

extern "C" qx_int32_t sr_get_application_metadata_1(sr_opaque_handle_t table_handle,
                                                    qx_binary_t **p_p_application_metadata) {
    // A query: the table's read lock only, no ForkMutex.
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_get_application_metadata_1",
                                         .entry_id = 39,
                                         .lock = sr_i_lock_kind::table_read};
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle, {.pointers = {p_p_application_metadata}},
        [&](sr_i_table_t *p_table) -> qx_int32_t {
            return sr_i_get_application_metadata_element_binary(
                p_table->p_application_metadata, 0, p_table->uncommitted_updates_visible,
                p_p_application_metadata);
        });
}
