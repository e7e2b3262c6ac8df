// Listing tables, and table and application metadata as callers see them.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "sr/rows_test_util.h"

namespace qxtest {
namespace {

using Names = std::vector<std::string>;

class MetadataTest : public RowsTest {
  protected:
    Names List(const std::string &path) {
        qx_char_ptr_t *p_list = nullptr;
        qx_uint32_t count = 12345;
        qx_int32_t rc = sr_list_tables_1(tree_, Text(path), &p_list, &count);
        if (rc != 0) return {"<" + std::to_string(rc) + ">"};
        EXPECT_NE(p_list, nullptr);
        Names names(p_list, p_list + count);
        EXPECT_EQ(sr_free_table_list_1(p_list, count), 0);
        std::sort(names.begin(), names.end());
        return names;
    }
    void Transient(const std::string &path) {
        ASSERT_EQ(sr_close_table_1(Create(path, ScalarColumns(2))), 0);
    }
    static std::string AppData(sr_opaque_handle_t table) {
        qx_binary_t *p = nullptr;
        qx_int32_t rc = sr_get_application_metadata_1(table, &p);
        if (rc != 0) return "<" + std::to_string(rc) + ">";
        std::string bytes(reinterpret_cast<char *>(p->data), p->length);
        free(p);
        return bytes;
    }
    static qx_int32_t SetAppData(sr_opaque_handle_t table, const std::string &bytes) {
        std::vector<qx_uint32_t> words(2 + bytes.size() / 4);
        words[0] = static_cast<qx_uint32_t>(bytes.size());
        std::memcpy(&words[1], bytes.data(), bytes.size());
        return sr_set_application_metadata_1(table, reinterpret_cast<qx_binary_t *>(words.data()));
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

// Hidden, lock and rewrite files are skipped and "," reads as "/".
TEST_F(MetadataTest, ListingByPrefixCompatibilityCallsEmptyResultsAndFailures) {
    for (const char *name : {"yy", ",Lock", "x.rewrite", ".hidden", "y,z"}) {
        WriteBytes(File(name), "x");
    }
    EXPECT_EQ(List("/m/"), (Names{"/m/y/z", "/m/yy"}));
    EXPECT_EQ(List("/m/y"), List("/m/"));
    EXPECT_EQ(List("/m/y/"), (Names{"/m/y/z"}));
    EXPECT_EQ(List("/m/q"), Names{});
    for (const char *path : {"/t1", "/t/a", "/u"}) Transient(path);
    sr_i_table_t *p_open = Create("/m/p", ScalarColumns(2));  // persistent: not transient
    EXPECT_EQ(List("/t"), (Names{"/t/a", "/t1"}));
    EXPECT_EQ(List("/"), (Names{"/t/a", "/t1", "/u"}));
    ASSERT_EQ(sr_close_table_1(p_open), 0);
    sr_entry_metadata_t *p_entries = nullptr;
    qx_uint32_t count = 0;
    ASSERT_EQ(sr_i_get_directory_list_compat(tree_, Text("/m"), &p_entries, &count), 0);
    ASSERT_EQ(count, 3u);
    Names names;
    for (qx_uint32_t i = 0; i < count; ++i) {
        names.push_back(p_entries[i].name);
        EXPECT_EQ(p_entries[i].type, SR_TABLE);
        EXPECT_EQ(p_entries[i].storage, SR_UNKNOWN_STORAGE);
        EXPECT_EQ(p_entries[i].name, p_entries[0].p_table_list[i]);
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (Names{"/m/p", "/m/y/z", "/m/yy"}));
    EXPECT_EQ(sr_i_free_directory_list_compat(p_entries, count), 0);
    EXPECT_EQ(sr_i_create_directory_compat(), 0);
    EXPECT_EQ(sr_i_delete_directory_compat(), 0);
    // An empty result: an empty caller-owned array, or NULL for the older call.
    EXPECT_EQ(List("/nothing"), Names{});
    count = 7;
    ASSERT_EQ(sr_i_get_directory_list_compat(tree_, Text("/nothing"), &p_entries, &count), 0);
    EXPECT_EQ(p_entries, nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(sr_i_free_directory_list_compat(nullptr, 0), 0);
    // Bad arguments, no memory, a missing directory.
    qx_char_ptr_t *p_list = nullptr;
    EXPECT_EQ(sr_list_tables_1(nullptr, Text("/m"), &p_list, &count), SR_E_INVALID_HANDLE);
    EXPECT_EQ(sr_list_tables_1(tree_, nullptr, &p_list, &count), SR_E_INVALID_PATH);
    EXPECT_NE(last_error().message.find("<NULL POINTER>"), std::string::npos);
    EXPECT_EQ(sr_list_tables_1(tree_, Text("/a b"), &p_list, &count), SR_E_INVALID_PATH);
    EXPECT_EQ(sr_i_get_directory_list_compat(nullptr, Text("/m"), &p_entries, &count),
              SR_E_INVALID_HANDLE);
    for (int i = 0; i < 120; ++i) Transient("/r/t" + std::to_string(i));
    EachAllocationFailure([&] { return sr_list_tables_1(tree_, Text("/r"), &p_list, &count); },
                          [] {});
    EXPECT_EQ(count, 120u);
    sr_free_table_list_1(p_list, count);
    // The mounted directory removed behind the tree's back.
    for (const char *name : {"p", "yy", "y,z", ",Lock", "x.rewrite", ".hidden"})
        unlink(File(name).c_str());
    ASSERT_EQ(rmdir(tmp_.file("d").c_str()), 0);
    EXPECT_EQ(List("/m"), Names{"<10>"});
    EXPECT_NE(last_error().message.find("opendir"), std::string::npos);
}

TEST_F(MetadataTest, CountsNamesInvisibleColumnsDeepCopiesAndFailures) {
    sr_i_table_t *p_table = Make("/m/plain", 6);
    ASSERT_EQ(0, AddRow(p_table, 1, "one", 1));
    ASSERT_EQ(0, ApplyCommit(p_table));
    ASSERT_EQ(0, AddRow(p_table, 2, "two", 2));
    EXPECT_EQ(Summary(p_table), "/m/plain 1 3 2");  // committed rows only
    sr_table_metadata_t *p_metadata = nullptr;
    EXPECT_EQ(SR_E_INVALID_HANDLE, sr_get_table_metadata_1(nullptr, 0, &p_metadata));
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
    EachAllocationFailure([&] { return sr_get_table_metadata_1(p_table, -1, &p_metadata); },
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

// Explicit tables show the block from commit on, lose it on abort; implicit ones at once.
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
    EXPECT_EQ(SR_E_ACCESS, SetAppData(reopened, "x"));
    ASSERT_EQ(0, sr_open_table_1(tree_, Text("/m/implicit"), SR_MODE_READ, &reopened));
    EXPECT_EQ("", AppData(reopened));
    EXPECT_EQ(SR_E_INVALID_HANDLE, sr_get_application_metadata_1(nullptr, nullptr));
}

}  // namespace
}  // namespace qxtest
