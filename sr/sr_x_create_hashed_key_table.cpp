// sr_create_hashed_key_table_1: creates a table with the caller's hashed key
// index over its key column.
#include "sr_i_frame.h"
#include "sr_i_hash_table.h"
#include "sr_i_table.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_x_create_hashed_key_table", "1.1");

extern "C" qx_int32_t sr_create_hashed_key_table_1(
    sr_opaque_handle_t tree_handle, qx_char_ptr_t p_registry_path, sr_column_t *p_columns,
    qx_uint32_t array_count, qx_int32_t mode, qx_uint32_t total_hash_buckets,
    sr_hash_function_t *p_hash_function, sr_hash_keys_compare_function_t *p_compare_function,
    sr_opaque_handle_t *p_result_table_handle) {
    static constexpr sr_i_frame_t kFrame{
        .p_function = "sr_create_hashed_key_table_1", .entry_id = 25, .api_mutex = true};
    return sr_i_api_call<sr_i_tree_t>(
        sr_i_this_source, kFrame, tree_handle, {.pointers = {p_columns, p_result_table_handle}},
        [&](sr_i_tree_t *p_tree) {
            // The hash functions are checked here: the frame takes no lock
            // for this call, so this is still before any.
            if (total_hash_buckets == 0 || p_hash_function == nullptr ||
                p_compare_function == nullptr) {
                return SR_ERROR(SR_E_NULL_POINTER);
            }
            sr_hash_table_t *p_hash_table = nullptr;
            qx_int32_t rc = sr_i_hash_table_open(total_hash_buckets, p_hash_function,
                                                 p_compare_function, &p_hash_table);
            if (rc != 0) return rc;
            // The new table owns the index from here on, whatever the outcome.
            return sr_x_create_table(p_tree, p_registry_path, p_columns, array_count, mode,
                                     p_hash_table, nullptr, p_result_table_handle);
        });
}
