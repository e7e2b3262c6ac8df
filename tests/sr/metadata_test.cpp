// Table and application metadata as callers see them (column definitions'
// values: golden file and schema tests).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <string>
#include <vector>

#include "sr/rows_test_util.h"

namespace {

class MetadataTest : public qxtest::RowsTest {
  protected:
    static std::string AppData(sr_opaque_handle_t table) {
        qx_binary_t *p = nullptr;
        qx_int32_t rc = sr_get_application_metadata_1(table, &p);
        if (rc != 0) return "<" + std::to_string(rc) + ">";
        std::string bytes(reinterpret_cast<char *>(p->data), p->length);
        free(p);
        return bytes;
    }
    static qx_int32_t SetAppData(sr_opaque_handle_t table, const std::string &bytes) {
        auto *p = static_cast<qx_binary_t *>(malloc(QX_BINARY_SIZE(bytes.size() + 1)));
        p->length = static_cast<qx_uint32_t>(bytes.size());
        std::memcpy(p->data, bytes.data(), bytes.size());
        qx_int32_t rc = sr_set_application_metadata_1(table, p);
        free(p);
        return rc;
    }
    // Name, row, column and change counts.
    static std::string Summary(sr_i_table_t *p_table, qx_int32_t visibility = 0) {
        sr_table_metadata_t *p = nullptr;
        if (sr_get_table_metadata_1(p_table, visibility, &p) != 0) return "<error>";
        std::string text = std::string(p->name) + " " + std::to_string(p->number_of_rows) + " " +
                           std::to_string(p->number_of_columns) + " " +
                           std::to_string(p->table_change_counter);
        EXPECT_EQ(p->column_definitions == nullptr, visibility == 0);
        EXPECT_EQ(sr_free_table_metadata_1(p), 0);
        return text;
    }
};

TEST_F(MetadataTest, CountsNamesInvisibleColumnsDeepCopiesAndFailures) {
    sr_i_table_t *p_table = Make("/m/plain", 6);
    ASSERT_EQ(0, AddRow(p_table, 1, "one", 1));
    ASSERT_EQ(0, ApplyCommit(p_table));
    ASSERT_EQ(0, AddRow(p_table, 2, "two", 2));
    EXPECT_EQ(Summary(p_table), "/m/plain 1 3 2");  // committed rows only
    sr_table_metadata_t *p_metadata = nullptr;
    EXPECT_EQ(100, sr_get_table_metadata_1(nullptr, 0, &p_metadata));
    // A table that shows uncommitted updates counts pending rows.
    setenv("SR_UNCOMMITTED_UPDATES_VISIBLE", "1", 1);
    p_table = Make("/t/visible", 6);
    unsetenv("SR_UNCOMMITTED_UPDATES_VISIBLE");
    ASSERT_EQ(0, AddRow(p_table, 1, "one", 1));
    EXPECT_EQ(Summary(p_table), "/t/visible 1 3 1");
    std::vector<sr_column_t> columns = Columns();
    ASSERT_EQ(0, sr_i_create_transient_table(static_cast<sr_i_tree_t *>(tree_), nullptr,
                                             columns.data(), 3, 2, nullptr, &p_table));
    EXPECT_EQ(Summary(p_table), " 0 3 1");
    sr_i_close_table(p_table);
    // An invisible column is left out unless every column is asked for.
    sr_sd_def_t definition{1, {{QX_INT32, Text("first")}}};
    columns = Columns();
    columns.push_back({Text("sd"), QX_SD_PTR, SR_STANDARD | SR_INVISIBLE, 0, &definition, {}});
    p_table = Make("/m/deep", columns, 6);
    EXPECT_EQ(Summary(p_table, 1), "/m/deep 0 3 1");
    qxtest::EachAllocationFailure([&] { return sr_get_table_metadata_1(p_table, -1, &p_metadata); },
                                  [&] { EXPECT_EQ(nullptr, p_metadata); });
    // The definitions are deep copies that outlive the table.
    ASSERT_NE(p_metadata, nullptr);
    ASSERT_EQ(0, sr_close_table_1(p_table));
    CloseAllTables(static_cast<sr_i_tree_t *>(tree_));
    ASSERT_EQ(4u, p_metadata->number_of_columns);
    EXPECT_STREQ("dflt", p_metadata->column_definitions[1].default_value.ptr_char);
    EXPECT_STREQ("sd", p_metadata->column_definitions[3].name);
    EXPECT_EQ(static_cast<sr_qualifier_t>(SR_STANDARD | SR_INVISIBLE),
              p_metadata->column_definitions[3].qualifier);
    EXPECT_EQ(0u, p_metadata->column_definitions[3].default_value.ptr_sd->element_count);
    EXPECT_EQ(0, sr_free_table_metadata_1(p_metadata));
}

// Explicit tables show the block from commit on and lose it on abort;
// implicit ones at once, empty allowed; the commit record carries it.
TEST_F(MetadataTest, ApplicationMetadataFollowsTheCommitCycle) {
    sr_i_table_t *p_table = Make("/m/appdata", 6);
    EXPECT_EQ("<202>", AppData(p_table));
    ASSERT_EQ(0, SetAppData(p_table, "first"));
    EXPECT_EQ("<202>", AppData(p_table));
    ASSERT_EQ(0, SetAppData(p_table, "second"));
    ASSERT_EQ(0, ApplyCommit(p_table));
    ASSERT_EQ(0, SetAppData(p_table, "third"));
    ASSERT_EQ(0, sr_abort_1(p_table));
    EXPECT_EQ("second", AppData(p_table));
    sr_i_table_t *p_implicit = Make("/m/implicit", 2);
    ASSERT_EQ(0, SetAppData(p_implicit, std::string("a\0b", 3)));
    EXPECT_EQ(std::string("a\0b", 3), AppData(p_implicit));
    ASSERT_EQ(0, SetAppData(p_implicit, ""));
    for (sr_i_table_t *p : {p_table, p_implicit}) ASSERT_EQ(0, sr_close_table_1(p));
    sr_opaque_handle_t reopened = nullptr;
    ASSERT_EQ(0, sr_open_table_1(tree_, Text("/m/appdata"), SR_MODE_READ, &reopened));
    EXPECT_EQ("second", AppData(reopened));
    EXPECT_EQ(206, SetAppData(reopened, "x"));
    ASSERT_EQ(0, sr_open_table_1(tree_, Text("/m/implicit"), SR_MODE_READ, &reopened));
    EXPECT_EQ("", AppData(reopened));
    EXPECT_EQ(100, sr_get_application_metadata_1(nullptr, nullptr));
}

}  // namespace
