// Every exported call refuses a NULL required pointer with 101 before it
// takes a lock or looks at the mode (a read-only table's writer calls: not 206).
#include <gtest/gtest.h>

#include <cstdarg>
#include <functional>
#include <string>
#include <vector>

#include "sr/table_test_util.h"

namespace {

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
    sr_opaque_handle_t r = tree_, handle = nullptr;
    auto Hash = [](const void *) -> qx_uint32_t { return 0; };
    auto Cmp = [](const void *, const void *) -> qx_int32_t { return 0; };

    char *k = Text("k"), *c1 = Text("c1"), *mn = Text("/m/n");
    qx_value_t v{}, key{};
    qx_char_ptr_t ns[1] = {c1}, nn[1] = {nullptr}, *p_list = nullptr, p_text = nullptr;
    qx_value_t *vs[1] = {&v}, *nv[1] = {nullptr};
    qx_uint32_t count = 0, *p_rows = nullptr, visible[1] = {0};
    sr_row_state_t st{};
    std::vector<sr_column_t> columns = ScalarColumns(2);
    sr_column_t *cols = columns.data();
    void *p_buffer = nullptr;
    alignas(8) char buffer[64] = {};

    // Each entry passes NULL for exactly one required pointer (for arrays of
    // ns and vs: the array itself, or one of its entries).
    const std::vector<std::function<qx_int32_t()>> cases = {
        [&] { return sr_add_columns_1(t, nullptr, 1); },
        [&] { return sr_delete_columns_1(t, nullptr, 1); },
        [&] { return sr_delete_columns_1(t, nn, 1); },
        [&] { return sr_change_column_name_1(t, nullptr, k); },
        [&] { return sr_change_column_name_1(t, c1, nullptr); },
        [&] { return sr_change_default_value_1(t, nullptr, v); },
        [&] { return sr_overlay_memory_default_value_1(t, nullptr, v); },
        [&] { return sr_overlay_memory_column_qualifier_1(t, nullptr, SR_STANDARD); },
        [&] { return sr_get_table_metadata_1(t, 0, nullptr); },
        [&] { return sr_get_application_metadata_1(t, nullptr); },
        [&] { return sr_set_application_metadata_1(t, nullptr); },
        [&] { return sr_add_row_1(t, nullptr, vs, 1); },
        [&] { return sr_add_row_1(t, ns, nullptr, 1); },
        [&] { return sr_add_row_1(t, nn, vs, 1); },
        [&] { return sr_add_row_1(t, ns, nv, 1); },
        [&] { return sr_get_field_by_index_1(t, 0, nullptr, &v); },
        [&] { return sr_get_field_by_index_1(t, 0, c1, nullptr); },
        [&] { return sr_get_field_by_index_and_visibility_1(t, 0, c1, nullptr, 0, &st); },
        [&] { return sr_get_field_by_fixed_index_and_visibility_1(t, 0, nullptr, &v, 0, &st); },
        [&] { return sr_get_field_by_key_1(t, key, c1, nullptr); },
        [&] { return sr_get_field_by_key_and_visibility_1(t, key, nullptr, &v, 0, &st); },
        [&] { return sr_get_fields_by_index_1(t, 0, nullptr, vs, 1); },
        [&] { return sr_get_fields_by_index_1(t, 0, ns, nv, 1); },
        [&] { return sr_get_fields_by_index_and_visibility_1(t, 0, nn, vs, 1, 0, &st); },
        [&] { return sr_get_fields_by_fixed_index_and_visibility_1(t, 0, ns, nullptr, 1, 0, &st); },
        [&] { return sr_get_fields_by_key_1(t, key, ns, nullptr, 1); },
        [&] { return sr_get_fields_by_key_and_visibility_1(t, key, nullptr, vs, 1, 0, &st); },
        [&] { return sr_get_fixed_row_index_for_key_1(t, key, nullptr); },
        [&] { return sr_get_updated_rows_1(t, nullptr, &p_rows); },
        [&] { return sr_get_updated_rows_1(t, &count, nullptr); },
        [&] { return sr_set_field_by_index_1(t, 0, nullptr, &v); },
        [&] { return sr_set_field_by_fixed_index_1(t, 0, c1, nullptr); },
        [&] { return sr_set_field_by_key_1(t, key, nullptr, &v); },
        [&] { return sr_set_fields_by_index_1(t, 0, nullptr, vs, 1); },
        [&] { return sr_set_fields_by_fixed_index_1(t, 0, ns, nv, 1); },
        [&] { return sr_set_fields_by_key_1(t, key, nn, vs, 1); },
        [&] { return sr_select_1(t, ns, 1, nullptr, nullptr); },
        [&] { return SelectedRows(t, nullptr, &p_rows); },
        [&] { return SelectedRows(t, &count, nullptr); },
        [&] { return sr_get_duplicate_rows_1(t, key, nullptr, &p_rows, 0); },
        [&] { return sr_get_duplicate_rows_1(t, key, &count, nullptr, 0); },
        [&] { return sr_pack_tables_1(1, nullptr, visible, nullptr, nullptr, &p_buffer); },
        [&] { return sr_pack_tables_1(1, &t, nullptr, nullptr, nullptr, &p_buffer); },
        [&] { return sr_pack_tables_1(1, &t, visible, nullptr, nullptr, nullptr); },
        [&] { return sr_mount_local_tree_1(r, Text("/x"), nullptr, 1); },
        [&] { return sr_list_tables_1(r, Text("/m"), nullptr, &count); },
        [&] { return sr_list_tables_1(r, Text("/m"), &p_list, nullptr); },
        [&] { return sr_i_get_directory_list_compat(r, Text("/m"), nullptr, &count); },
        [&] { return sr_create_table_1(r, mn, nullptr, 2, 2, &handle); },
        [&] { return sr_create_table_1(r, mn, cols, 2, 2, nullptr); },
        [&] { return sr_create_hashed_key_table_1(r, mn, cols, 2, 2, 16, nullptr, Cmp, &handle); },
        [&] { return sr_create_hashed_key_table_1(r, mn, cols, 2, 2, 16, Hash, Cmp, nullptr); },
        [&] { return sr_open_table_1(r, Text("/m/t"), 1, nullptr); },
        [&] { return sr_open_hashed_key_table_1(r, Text("/m/t"), 1, 16, Hash, nullptr, &handle); },
        [&] { return sr_open_hashed_key_table_1(r, Text("/m/t"), 1, 16, Hash, Cmp, nullptr); },
        [&] { return sr_repair_tables_1(r, nullptr, 1); },
        [&] { return sr_free_table_list_1(nullptr, 0); },
        [&] { return sr_free_table_metadata_1(nullptr); },
        [&] { return sr_get_total_packed_tables_1(nullptr, &count); },
        [&] { return sr_get_total_packed_tables_1(buffer, nullptr); },
        [&] { return sr_get_packed_table_name_1(nullptr, 0, &p_text); },
        [&] { return sr_get_packed_table_name_1(buffer, 0, nullptr); },
        [&] { return sr_convert_packed_table_buffer_1(nullptr, 0, 0); },
        [&] { return sr_unpack_table_1(nullptr, 0, nullptr, nullptr, r, 0, &handle); },
        [&] { return sr_unpack_table_1(buffer, 0, nullptr, nullptr, r, 0, nullptr); },
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(cases[i](), SR_E_NULL_POINTER) << "case " << i;
        EXPECT_EQ(qxtest::last_error().code, SR_E_NULL_POINTER) << "case " << i;
    }
    // Nothing was made or changed on the way.
    EXPECT_FALSE(qxtest::Exists(File("n")));
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(p_buffer, nullptr);
    EXPECT_EQ(sr_close_table_1(t), 0);
}

}  // namespace
