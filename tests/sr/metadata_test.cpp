// Table metadata and application metadata as callers see them: name and
// counts, the invisible-column filter, deep copies that outlive the table,
// and the application block made durable by the same cycle as the rows.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <string>
#include <vector>

#include "sr/rows_test_util.h"

namespace {

class MetadataTest : public qxtest::RowsTest {
  protected:
    // The three columns and an invisible structured-data column.
    std::vector<sr_column_t> WithInvisibleSd() {
        std::vector<sr_column_t> columns = Columns();
        auto *p_def = reinterpret_cast<sr_sd_def_t *>(sd_buffer_);
        p_def->number_of_fields = 2;
        p_def->field_def[0] = {QX_INT32, const_cast<char *>("first")};
        p_def->field_def[1] = {QX_CHAR_PTR, const_cast<char *>("second")};
        sr_column_t sd{};
        sd.name = Text("sd");
        sd.type = QX_SD_PTR;
        sd.qualifier = SR_STANDARD | SR_INVISIBLE;
        sd.properties = 1234;
        sd.sd_defn = p_def;
        columns.push_back(sd);
        return columns;
    }
    alignas(8) unsigned char sd_buffer_[sizeof(sr_sd_def_t) + sizeof(sr_sd_field_def_t)] = {};

    // The application block as the table shows it, or "<code>".
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
};

TEST_F(MetadataTest, NameCountsAndCommittedRows) {
    sr_i_table_t *p_table = Make("/m/plain", 6);
    ASSERT_EQ(0, AddRow(p_table, 1, "one", 1));
    ASSERT_EQ(0, ApplyCommit(p_table));
    ASSERT_EQ(0, AddRow(p_table, 2, "two", 2));
    sr_table_metadata_t *p_metadata = nullptr;
    ASSERT_EQ(0, sr_get_table_metadata_1(p_table, 0, &p_metadata));
    EXPECT_STREQ("/m/plain", p_metadata->name);
    EXPECT_EQ(3u, p_metadata->number_of_columns);
    EXPECT_EQ(nullptr, p_metadata->column_definitions);
    EXPECT_EQ(1u, p_metadata->number_of_rows);  // uncommitted updates not shown
    EXPECT_EQ(2u, p_metadata->table_change_counter);
    EXPECT_EQ(0, p_metadata->properties);
    EXPECT_EQ(0, sr_free_table_metadata_1(p_metadata));
    EXPECT_EQ(100, sr_get_table_metadata_1(nullptr, 0, &p_metadata));
    // A table that shows them counts pending rows.
    setenv("SR_UNCOMMITTED_UPDATES_VISIBLE", "1", 1);
    p_table = Make("/t/visible", 6);
    unsetenv("SR_UNCOMMITTED_UPDATES_VISIBLE");
    ASSERT_EQ(0, AddRow(p_table, 1, "one", 1));
    ASSERT_EQ(0, sr_get_table_metadata_1(p_table, 0, &p_metadata));
    EXPECT_EQ(1u, p_metadata->number_of_rows);
    sr_free_table_metadata_1(p_metadata);
    std::vector<sr_column_t> columns = Columns();
    ASSERT_EQ(0, sr_i_create_transient_table(static_cast<sr_i_tree_t *>(tree_), nullptr,
                                             columns.data(), 3, 2, nullptr, &p_table));
    ASSERT_EQ(0, sr_get_table_metadata_1(p_table, 0, &p_metadata));
    EXPECT_STREQ("", p_metadata->name);
    sr_free_table_metadata_1(p_metadata);
    sr_i_close_table(p_table);
}

// Invisible columns are left out unless every column is asked for; the
// copies outlive the table; every allocation failure is 12 and returns nothing.
TEST_F(MetadataTest, ColumnDefinitionsFilterCopyAndFailCleanly) {
    sr_i_table_t *p_table = Make("/m/deep", WithInvisibleSd(), 6);
    sr_table_metadata_t *p_some = nullptr;
    ASSERT_EQ(0, sr_get_table_metadata_1(p_table, 1, &p_some));
    ASSERT_EQ(3u, p_some->number_of_columns);
    EXPECT_STREQ("n", p_some->column_definitions[2].name);
    EXPECT_EQ(0, sr_free_table_metadata_1(p_some));
    for (qx_int64_t n = 0;; ++n) {
        sr_table_metadata_t *p_metadata = nullptr;
        sr_i_alloc_fail_after(n);
        qx_int32_t rc = sr_get_table_metadata_1(p_table, -1, &p_metadata);
        const bool failed = sr_i_alloc_failure_pending() == 0;
        sr_i_alloc_fail_after(-1);
        if (!failed) {
            ASSERT_EQ(0, rc);
            sr_free_table_metadata_1(p_metadata);
            break;
        }
        EXPECT_EQ(12, rc);
        EXPECT_EQ(nullptr, p_metadata);
        ASSERT_LT(n, 40);
    }
    sr_table_metadata_t *p_all = nullptr;
    ASSERT_EQ(0, sr_get_table_metadata_1(p_table, -1, &p_all));
    ASSERT_EQ(0, sr_close_table_1(p_table));
    CloseAllTables(static_cast<sr_i_tree_t *>(tree_));
    ASSERT_EQ(4u, p_all->number_of_columns);
    EXPECT_EQ(static_cast<sr_qualifier_t>(SR_PRIMARY_KEY), p_all->column_definitions[0].qualifier);
    EXPECT_STREQ("dflt", p_all->column_definitions[1].default_value.ptr_char);
    EXPECT_EQ(7, p_all->column_definitions[2].default_value.val_int32);
    const sr_column_t &sd = p_all->column_definitions[3];
    EXPECT_STREQ("sd", sd.name);
    EXPECT_EQ(QX_SD_PTR, sd.type);
    EXPECT_EQ(static_cast<sr_qualifier_t>(SR_STANDARD | SR_INVISIBLE), sd.qualifier);
    EXPECT_EQ(1234, sd.properties);
    ASSERT_NE(nullptr, sd.sd_defn);
    ASSERT_EQ(2u, sd.sd_defn->number_of_fields);
    EXPECT_EQ(QX_CHAR_PTR, sd.sd_defn->field_def[1].type);
    EXPECT_STREQ("second", sd.sd_defn->field_def[1].name);
    // The empty default of a structured column comes back as an empty value.
    EXPECT_EQ(0u, sd.default_value.ptr_sd->element_count);
    EXPECT_EQ(0, sr_free_table_metadata_1(p_all));
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
