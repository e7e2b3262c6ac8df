// sr_set_application_metadata_1: replaces the table's application metadata (one block, type 0),
// made durable like a row change.
#include <cstddef>
#include <cstring>

#include "sr_i_application_metadata.h"
#include "sr_i_frame.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_set_application_metadata", "1.1");

extern "C" qx_int32_t sr_set_application_metadata_1(sr_opaque_handle_t table_handle,
                                                    qx_binary_t *p_application_metadata) {
    static constexpr sr_i_frame_t kFrame = sr_i_update_frame("sr_set_application_metadata_1", 91);
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle, {.pointers = {p_application_metadata}},
        [&](sr_i_table_t *p_table) -> qx_int32_t {
            // No test of a pending apply: the block travels in the commit
            // record, which the next apply writes anyway.
            qx_binary_t header;
            std::memcpy(&header, p_application_metadata, offsetof(qx_binary_t, data));
            return sr_i_set_application_metadata(
                p_table->p_application_metadata, 0, header.length,
                reinterpret_cast<qx_char_ptr_t>(p_application_metadata->data));
        });
}
