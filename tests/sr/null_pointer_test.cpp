// Every exported call refuses a NULL required pointer with 101, and does so
// before it takes a lock or looks at the table's mode: on a table opened only
// for read, a writer call given a NULL pointer says 101, not 206.
#include <gtest/gtest.h>

#include <cstdarg>
#include <functional>
#include <string>
#include <vector>

#include "sr/table_test_util.h"

namespace {

qx_uint32_t Hash(const void *) {
    return 0;
}
qx_int32_t Compare(const void *, const void *) {
    return 0;
}

qx_int32_t SelectedRows(sr_opaque_handle_t table, qx_uint32_t *p_total, qx_uint32_t **p_p_rows,
                        ...) {
    va_list ap;
    va_start(ap, p_p_rows);
    qx_int32_t rc = sr_get_selected_rows_v_1(table, nullptr, ap, 0, p_total, p_p_rows);
    va_end(ap);
    return rc;
}

class NullPointerTest : public qxtest::TableTest {};

TEST_F(NullPointerTest, EveryExportedCallGives101ForEachMissingPointerBeforeLockAndMode) {
    sr_i_table_t *p_created = Create("/m/t", ScalarColumns(2));
    ASSERT_NE(p_created, nullptr);
    ASSERT_EQ(sr_close_table_1(p_created), 0);
    sr_opaque_handle_t t = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/t"), SR_MODE_READ, &t), 0);
    sr_opaque_handle_t r = tree_;

    char *k = Text("k");
    char *c1 = Text("c1");
    qx_value_t v{};
    qx_value_t key{};
    qx_value_t *p_v = &v;
    qx_char_ptr_t names[1] = {c1};
    qx_value_t *values[1] = {p_v};
    qx_char_ptr_t null_names[1] = {nullptr};
    qx_value_t *null_values[1] = {nullptr};
    qx_uint32_t count = 0;
    qx_uint32_t *p_rows = nullptr;
    qx_char_ptr_t *p_list = nullptr;
    qx_char_ptr_t p_text = nullptr;
    sr_opaque_handle_t handle = nullptr;
    sr_row_state_t state{};
    std::vector<sr_column_t> columns = ScalarColumns(2);
    sr_column_t *cols = columns.data();
    qx_uint32_t visible[1] = {0};
    void *p_buffer = nullptr;
    alignas(8) char buffer[64] = {};

    // Each entry passes NULL for exactly one required pointer (for arrays of
    // names and values: the array itself, or one of its entries).
    struct Case {
        const char *p_name;
        std::function<qx_int32_t()> call;
    };
    const std::vector<Case> cases = {
        {"add_columns", [&] { return sr_add_columns_1(t, nullptr, 1); }},
        {"delete_columns array", [&] { return sr_delete_columns_1(t, nullptr, 1); }},
        {"delete_columns entry", [&] { return sr_delete_columns_1(t, null_names, 1); }},
        {"change_column_name old", [&] { return sr_change_column_name_1(t, nullptr, k); }},
        {"change_column_name new", [&] { return sr_change_column_name_1(t, c1, nullptr); }},
        {"change_default_value", [&] { return sr_change_default_value_1(t, nullptr, v); }},
        {"overlay_memory_default_value",
         [&] { return sr_overlay_memory_default_value_1(t, nullptr, v); }},
        {"overlay_memory_column_qualifier",
         [&] { return sr_overlay_memory_column_qualifier_1(t, nullptr, SR_STANDARD); }},
        {"get_table_metadata", [&] { return sr_get_table_metadata_1(t, 0, nullptr); }},
        {"get_application_metadata", [&] { return sr_get_application_metadata_1(t, nullptr); }},
        {"set_application_metadata", [&] { return sr_set_application_metadata_1(t, nullptr); }},
        {"add_row names", [&] { return sr_add_row_1(t, nullptr, values, 1); }},
        {"add_row fields", [&] { return sr_add_row_1(t, names, nullptr, 1); }},
        {"add_row name", [&] { return sr_add_row_1(t, null_names, values, 1); }},
        {"add_row field", [&] { return sr_add_row_1(t, names, null_values, 1); }},
        {"get_field_by_index name", [&] { return sr_get_field_by_index_1(t, 0, nullptr, &v); }},
        {"get_field_by_index result", [&] { return sr_get_field_by_index_1(t, 0, c1, nullptr); }},
        {"get_field_by_index_and_visibility",
         [&] { return sr_get_field_by_index_and_visibility_1(t, 0, c1, nullptr, 0, &state); }},
        {"get_field_by_fixed_index_and_visibility",
         [&] {
             return sr_get_field_by_fixed_index_and_visibility_1(t, 0, nullptr, &v, 0, &state);
         }},
        {"get_field_by_key", [&] { return sr_get_field_by_key_1(t, key, c1, nullptr); }},
        {"get_field_by_key_and_visibility",
         [&] { return sr_get_field_by_key_and_visibility_1(t, key, nullptr, &v, 0, &state); }},
        {"get_fields_by_index names",
         [&] { return sr_get_fields_by_index_1(t, 0, nullptr, values, 1); }},
        {"get_fields_by_index entry",
         [&] { return sr_get_fields_by_index_1(t, 0, names, null_values, 1); }},
        {"get_fields_by_index_and_visibility",
         [&] {
             return sr_get_fields_by_index_and_visibility_1(t, 0, null_names, values, 1, 0, &state);
         }},
        {"get_fields_by_fixed_index_and_visibility",
         [&] {
             return sr_get_fields_by_fixed_index_and_visibility_1(t, 0, names, nullptr, 1, 0,
                                                                  &state);
         }},
        {"get_fields_by_key", [&] { return sr_get_fields_by_key_1(t, key, names, nullptr, 1); }},
        {"get_fields_by_key_and_visibility",
         [&] {
             return sr_get_fields_by_key_and_visibility_1(t, key, nullptr, values, 1, 0, &state);
         }},
        {"get_fixed_row_index_for_key",
         [&] { return sr_get_fixed_row_index_for_key_1(t, key, nullptr); }},
        {"get_updated_rows count", [&] { return sr_get_updated_rows_1(t, nullptr, &p_rows); }},
        {"get_updated_rows rows", [&] { return sr_get_updated_rows_1(t, &count, nullptr); }},
        {"set_field_by_index", [&] { return sr_set_field_by_index_1(t, 0, nullptr, &v); }},
        {"set_field_by_fixed_index",
         [&] { return sr_set_field_by_fixed_index_1(t, 0, c1, nullptr); }},
        {"set_field_by_key", [&] { return sr_set_field_by_key_1(t, key, nullptr, &v); }},
        {"set_fields_by_index", [&] { return sr_set_fields_by_index_1(t, 0, nullptr, values, 1); }},
        {"set_fields_by_fixed_index",
         [&] { return sr_set_fields_by_fixed_index_1(t, 0, names, null_values, 1); }},
        {"set_fields_by_key",
         [&] { return sr_set_fields_by_key_1(t, key, null_names, values, 1); }},
        {"select", [&] { return sr_select_1(t, names, 1, nullptr, nullptr); }},
        {"get_selected_rows_v count", [&] { return SelectedRows(t, nullptr, &p_rows); }},
        {"get_selected_rows_v rows", [&] { return SelectedRows(t, &count, nullptr); }},
        {"get_duplicate_rows count",
         [&] { return sr_get_duplicate_rows_1(t, key, nullptr, &p_rows, 0); }},
        {"get_duplicate_rows rows",
         [&] { return sr_get_duplicate_rows_1(t, key, &count, nullptr, 0); }},
        {"pack_tables handles",
         [&] { return sr_pack_tables_1(1, nullptr, visible, nullptr, nullptr, &p_buffer); }},
        {"pack_tables views",
         [&] { return sr_pack_tables_1(1, &t, nullptr, nullptr, nullptr, &p_buffer); }},
        {"pack_tables buffer",
         [&] { return sr_pack_tables_1(1, &t, visible, nullptr, nullptr, nullptr); }},
        {"mount_local_tree", [&] { return sr_mount_local_tree_1(r, Text("/x"), nullptr, 1); }},
        {"list_tables list", [&] { return sr_list_tables_1(r, Text("/m"), nullptr, &count); }},
        {"list_tables count", [&] { return sr_list_tables_1(r, Text("/m"), &p_list, nullptr); }},
        {"directory_list_compat",
         [&] { return sr_i_get_directory_list_compat(r, Text("/m"), nullptr, &count); }},
        {"create_table columns",
         [&] { return sr_create_table_1(r, Text("/m/n"), nullptr, 2, 2, &handle); }},
        {"create_table handle",
         [&] { return sr_create_table_1(r, Text("/m/n"), cols, 2, 2, nullptr); }},
        {"create_hashed_key_table hash",
         [&] {
             return sr_create_hashed_key_table_1(r, Text("/m/n"), cols, 2, 2, 16, nullptr, Compare,
                                                 &handle);
         }},
        {"create_hashed_key_table handle",
         [&] {
             return sr_create_hashed_key_table_1(r, Text("/m/n"), cols, 2, 2, 16, Hash, Compare,
                                                 nullptr);
         }},
        {"open_table", [&] { return sr_open_table_1(r, Text("/m/t"), 1, nullptr); }},
        {"open_hashed_key_table compare",
         [&] {
             return sr_open_hashed_key_table_1(r, Text("/m/t"), 1, 16, Hash, nullptr, &handle);
         }},
        {"open_hashed_key_table handle",
         [&] {
             return sr_open_hashed_key_table_1(r, Text("/m/t"), 1, 16, Hash, Compare, nullptr);
         }},
        {"repair_tables", [&] { return sr_repair_tables_1(r, nullptr, 1); }},
        {"free_table_list", [&] { return sr_free_table_list_1(nullptr, 0); }},
        {"free_table_metadata", [&] { return sr_free_table_metadata_1(nullptr); }},
        {"get_total_packed_tables buffer",
         [&] { return sr_get_total_packed_tables_1(nullptr, &count); }},
        {"get_total_packed_tables count",
         [&] { return sr_get_total_packed_tables_1(buffer, nullptr); }},
        {"get_packed_table_name buffer",
         [&] { return sr_get_packed_table_name_1(nullptr, 0, &p_text); }},
        {"get_packed_table_name name",
         [&] { return sr_get_packed_table_name_1(buffer, 0, nullptr); }},
        {"convert_packed_table_buffer",
         [&] { return sr_convert_packed_table_buffer_1(nullptr, 0, 0); }},
        {"unpack_table buffer",
         [&] { return sr_unpack_table_1(nullptr, 0, nullptr, nullptr, r, 0, &handle); }},
        {"unpack_table handle",
         [&] { return sr_unpack_table_1(buffer, 0, nullptr, nullptr, r, 0, nullptr); }},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(c.call(), SR_E_NULL_POINTER) << c.p_name;
        EXPECT_EQ(qxtest::last_error().code, SR_E_NULL_POINTER) << c.p_name;
    }
    // Nothing was made or changed on the way.
    EXPECT_FALSE(qxtest::Exists(File("n")));
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(p_buffer, nullptr);
    EXPECT_EQ(sr_close_table_1(t), 0);
}

}  // namespace
