// sr_get_field_by_index_1: reads one field of a row by packed index, as committed (or as the
// table's visibility says).
#include "sr_i_frame.h"
#include "sr_i_rows.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_x_get_field_by_index", "1.1");

extern "C" qx_int32_t sr_get_field_by_index_1(sr_opaque_handle_t table_handle, qx_int32_t row_index,
                                              qx_char_ptr_t column_name, qx_value_t *result) {
    static constexpr sr_i_frame_t kFrame{.p_function = "sr_get_field_by_index_1",
                                         .entry_id = 45,
                                         .lock = sr_i_lock_kind::table_read};
    return sr_i_api_call<sr_i_table_t>(
        sr_i_this_source, kFrame, table_handle, {.pointers = {column_name, result}},
        [&](sr_i_table_t *p_table) -> qx_int32_t {
            return sr_i_get_value_for_packed_index(p_table, static_cast<qx_uint32_t>(row_index),
                                                   column_name, result, 0, nullptr);
        });
}
