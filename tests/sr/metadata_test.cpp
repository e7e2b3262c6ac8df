// Table metadata and application metadata as callers see them: the name and
// counts, the invisible-column filter, deep copies that outlive the table,
// and the application block made durable by the same cycle as the rows.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <string>
#include <vector>

#include "sr/rows_test_util.h"

using qxtest::last_error;

namespace {

class MetadataTest : public qxtest::RowsTest {
  protected:
    std::vector<sr_column_t> WithInvisibleSd() {
        std::vector<sr_column_t> columns = Columns();
        sr_column_t sd{};
        sd.name = Text("sd");
        sd.type = QX_SD_PTR;
        sd.qualifier = SR_STANDARD | SR_INVISIBLE;
        sd.properties = 1234;
        sd.sd_defn = SdDefinition();
        columns.push_back(sd);
        return columns;
    }
    // Two fields: INT32 "first" and CHAR_PTR "second".
    sr_sd_def_t *SdDefinition() {
        auto *p_def = reinterpret_cast<sr_sd_def_t *>(sd_buffer_);
        p_def->number_of_fields = 2;
        p_def->field_def[0] = {QX_INT32, const_cast<char *>("first")};
        p_def->field_def[1] = {QX_CHAR_PTR, const_cast<char *>("second")};
        return p_def;
    }
    alignas(8) unsigned char sd_buffer_[sizeof(sr_sd_def_t) + sizeof(sr_sd_field_def_t)] = {};

    static qx_binary_t *Binary(const std::string &bytes) {
        auto *p = static_cast<qx_binary_t *>(malloc(QX_BINARY_SIZE(bytes.size() + 1)));
        p->length = static_cast<qx_uint32_t>(bytes.size());
        std::memcpy(p->data, bytes.data(), bytes.size());
        return p;
    }
    // The application block as the table shows it, or "<code>".
    static std::string AppData(sr_i_table_t *p_table) {
        qx_binary_t *p = nullptr;
        qx_int32_t rc = sr_get_application_metadata_1(p_table, &p);
        if (rc != 0) return "<" + std::to_string(rc) + ">";
        std::string bytes(reinterpret_cast<char *>(p->data), p->length);
        free(p);
        return bytes;
    }
    qx_int32_t SetAppData(sr_i_table_t *p_table, const std::string &bytes) {
        qx_binary_t *p = Binary(bytes);
        qx_int32_t rc = sr_set_application_metadata_1(p_table, p);
        free(p);
        return rc;
    }
};

TEST_F(MetadataTest, WithoutColumnsTheCountsAndNameAreReported) {
    sr_i_table_t *p_table = Make("/m/plain", 6);
    ASSERT_EQ(0, AddRow(p_table, 1, "one", 1));
    ASSERT_EQ(0, ApplyCommit(p_table));
    ASSERT_EQ(0, AddRow(p_table, 2, "two", 2));
    sr_table_metadata_t *p_metadata = nullptr;
    ASSERT_EQ(0, sr_get_table_metadata_1(p_table, 0, &p_metadata));
    EXPECT_STREQ("/m/plain", p_metadata->name);
    EXPECT_EQ(3u, p_metadata->number_of_columns);
    EXPECT_EQ(nullptr, p_metadata->column_definitions);
    // Committed rows only: the table does not show uncommitted updates.
    EXPECT_EQ(1u, p_metadata->number_of_rows);
    EXPECT_EQ(p_table->change_counter, p_metadata->table_change_counter);
    EXPECT_EQ(0, p_metadata->properties);
    EXPECT_EQ(0, sr_free_table_metadata_1(p_metadata));
    EXPECT_EQ(101, sr_free_table_metadata_1(nullptr));
    EXPECT_EQ(101, last_error().code);
    EXPECT_EQ(101, sr_get_table_metadata_1(p_table, 0, nullptr));
    EXPECT_EQ(100, sr_get_table_metadata_1(nullptr, 0, &p_metadata));
}

TEST_F(MetadataTest, RowCountIncludesPendingRowsOnTablesThatShowThem) {
    setenv("SR_UNCOMMITTED_UPDATES_VISIBLE", "1", 1);
    sr_i_table_t *p_table = Make("/t/visible", 6);
    unsetenv("SR_UNCOMMITTED_UPDATES_VISIBLE");
    ASSERT_EQ(0, AddRow(p_table, 1, "one", 1));
    sr_table_metadata_t *p_metadata = nullptr;
    ASSERT_EQ(0, sr_get_table_metadata_1(p_table, 0, &p_metadata));
    EXPECT_EQ(1u, p_metadata->number_of_rows);
    EXPECT_STREQ("/t/visible", p_metadata->name);
    sr_free_table_metadata_1(p_metadata);
}

TEST_F(MetadataTest, UnnamedTableIsReportedWithAnEmptyName) {
    std::vector<sr_column_t> columns = Columns();
    sr_i_table_t *p_table = nullptr;
    ASSERT_EQ(0, sr_i_create_transient_table(static_cast<sr_i_tree_t *>(tree_), nullptr,
                                             columns.data(), 3, 2, nullptr, &p_table));
    sr_table_metadata_t *p_metadata = nullptr;
    ASSERT_EQ(0, sr_get_table_metadata_1(p_table, 0, &p_metadata));
    EXPECT_STREQ("", p_metadata->name);
    sr_free_table_metadata_1(p_metadata);
    sr_i_close_table(p_table);
}

TEST_F(MetadataTest, InvisibleColumnsAreLeftOutUnlessEveryColumnIsAskedFor) {
    sr_i_table_t *p_table = Make("/t/filter", WithInvisibleSd(), 6);
    sr_table_metadata_t *p_some = nullptr;
    ASSERT_EQ(0, sr_get_table_metadata_1(p_table, 1, &p_some));
    ASSERT_EQ(3u, p_some->number_of_columns);
    EXPECT_STREQ("k", p_some->column_definitions[0].name);
    EXPECT_STREQ("n", p_some->column_definitions[2].name);
    sr_table_metadata_t *p_all = nullptr;
    ASSERT_EQ(0, sr_get_table_metadata_1(p_table, -1, &p_all));
    ASSERT_EQ(4u, p_all->number_of_columns);
    const sr_column_t &sd = p_all->column_definitions[3];
    EXPECT_STREQ("sd", sd.name);
    EXPECT_EQ(QX_SD_PTR, sd.type);
    EXPECT_EQ(static_cast<sr_qualifier_t>(SR_STANDARD | SR_INVISIBLE), sd.qualifier);
    EXPECT_EQ(1234, sd.properties);
    ASSERT_NE(nullptr, sd.sd_defn);
    ASSERT_EQ(2u, sd.sd_defn->number_of_fields);
    EXPECT_EQ(QX_INT32, sd.sd_defn->field_def[0].type);
    EXPECT_STREQ("first", sd.sd_defn->field_def[0].name);
    EXPECT_EQ(QX_CHAR_PTR, sd.sd_defn->field_def[1].type);
    EXPECT_STREQ("second", sd.sd_defn->field_def[1].name);
    // The empty default of a structured column comes back as an empty value.
    ASSERT_NE(nullptr, sd.default_value.ptr_sd);
    EXPECT_EQ(0u, sd.default_value.ptr_sd->element_count);
    EXPECT_EQ(0, sr_free_table_metadata_1(p_some));
    EXPECT_EQ(0, sr_free_table_metadata_1(p_all));
}

TEST_F(MetadataTest, ColumnDefinitionsAreDeepCopiesThatOutliveTheTable) {
    sr_i_table_t *p_table = Make("/m/deep", WithInvisibleSd(), 6);
    sr_table_metadata_t *p_metadata = nullptr;
    ASSERT_EQ(0, sr_get_table_metadata_1(p_table, -1, &p_metadata));
    ASSERT_EQ(0, sr_close_table_1(p_table));
    CloseAllTables(static_cast<sr_i_tree_t *>(tree_));
    const sr_column_t &s = p_metadata->column_definitions[1];
    EXPECT_STREQ("s", s.name);
    EXPECT_STREQ("dflt", s.default_value.ptr_char);
    EXPECT_EQ(7, p_metadata->column_definitions[2].default_value.val_int32);
    EXPECT_EQ(static_cast<sr_qualifier_t>(SR_PRIMARY_KEY),
              p_metadata->column_definitions[0].qualifier);
    EXPECT_EQ(0, sr_free_table_metadata_1(p_metadata));
}

TEST_F(MetadataTest, EveryAllocationFailureIs12AndReturnsNothing) {
    sr_i_table_t *p_table = Make("/t/oom", WithInvisibleSd(), 6);
    for (qx_int64_t n = 0;; ++n) {
        sr_table_metadata_t *p_metadata = nullptr;
        sr_i_alloc_fail_after(n);
        qx_int32_t rc = sr_get_table_metadata_1(p_table, -1, &p_metadata);
        const bool failed = sr_i_alloc_failure_pending() == 0 && rc != 0;
        sr_i_alloc_fail_after(-1);
        if (rc == 0) {
            sr_free_table_metadata_1(p_metadata);
            break;
        }
        ASSERT_TRUE(failed);
        EXPECT_EQ(12, rc);
        EXPECT_EQ(nullptr, p_metadata);
        ASSERT_LT(n, 40);
    }
}

TEST_F(MetadataTest, ApplicationMetadataOfAnExplicitTableAppearsAtCommit) {
    sr_i_table_t *p_table = Make("/m/appdata", 6);
    EXPECT_EQ("<202>", AppData(p_table));
    ASSERT_EQ(0, SetAppData(p_table, "first"));
    EXPECT_EQ("<202>", AppData(p_table));
    ASSERT_EQ(0, SetAppData(p_table, "second"));
    ASSERT_EQ(0, ApplyCommit(p_table));
    EXPECT_EQ("second", AppData(p_table));
    ASSERT_EQ(0, SetAppData(p_table, "third"));
    ASSERT_EQ(0, sr_abort_1(p_table));
    EXPECT_EQ("second", AppData(p_table));
    // It lives in the commit record: a new open reads it from the file.
    ASSERT_EQ(0, sr_close_table_1(p_table));
    sr_opaque_handle_t reopened = nullptr;
    ASSERT_EQ(0, sr_open_table_1(tree_, Text("/m/appdata"), SR_MODE_READ, &reopened));
    EXPECT_EQ("second", AppData(static_cast<sr_i_table_t *>(reopened)));
    qx_binary_t *p = Binary("x");
    EXPECT_EQ(206, sr_set_application_metadata_1(reopened, p));
    free(p);
}

TEST_F(MetadataTest, ImplicitApplicationMetadataIsDurableAndMayBeEmpty) {
    sr_i_table_t *p_table = Make("/m/appdata_implicit", 2);
    ASSERT_EQ(0, SetAppData(p_table, std::string("a\0b", 3)));
    EXPECT_EQ(std::string("a\0b", 3), AppData(p_table));
    ASSERT_EQ(0, SetAppData(p_table, ""));
    EXPECT_EQ("", AppData(p_table));
    EXPECT_EQ(101, sr_set_application_metadata_1(p_table, nullptr));
    EXPECT_EQ(101, last_error().code);
    ASSERT_EQ(0, sr_close_table_1(p_table));
    sr_opaque_handle_t reopened = nullptr;
    ASSERT_EQ(0, sr_open_table_1(tree_, Text("/m/appdata_implicit"), SR_MODE_READ, &reopened));
    EXPECT_EQ("", AppData(static_cast<sr_i_table_t *>(reopened)));
    EXPECT_EQ(101, sr_get_application_metadata_1(reopened, nullptr));
    EXPECT_EQ(100, sr_get_application_metadata_1(nullptr, nullptr));
}

}  // namespace
