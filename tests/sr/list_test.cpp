// Listing tables: mounted directories (hidden, lock and rewrite files skipped,
// "," read as "/"), open transient tables by prefix, the compatibility calls.
#include <algorithm>
#include <string>
#include <vector>

#include "sr/table_test_util.h"

namespace qxtest {
namespace {

using Names = std::vector<std::string>;

class ListTest : public TableTest {
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
        sr_i_table_t *p_table = Create(path, ScalarColumns(2));
        ASSERT_NE(p_table, nullptr);
        ASSERT_EQ(sr_close_table_1(p_table), 0);
    }
};

TEST_F(ListTest, MountPointsAndTransientTablesListByPrefix) {
    for (const char *name : {"x", "y,z", "yy", ",Lock", "x.rewrite", ".hidden"}) {
        WriteBytes(File(name), "x");
    }
    EXPECT_EQ(List("/m"), (Names{"/m/x", "/m/y/z", "/m/yy"}));
    EXPECT_EQ(List("/m/"), List("/m"));
    EXPECT_EQ(List("/m/y"), (Names{"/m/y/z", "/m/yy"}));
    EXPECT_EQ(List("/m/y/"), (Names{"/m/y/z"}));
    EXPECT_EQ(List("/m/q"), Names{});
    for (const char *path : {"/t1", "/t/a", "/u"}) Transient(path);
    // An open persistent table is not listed as transient.
    ASSERT_NE(Create("/m/p", ScalarColumns(2)), nullptr);
    EXPECT_EQ(List("/t"), (Names{"/t/a", "/t1"}));
    EXPECT_EQ(List("/"), (Names{"/t/a", "/t1", "/u"}));
    // Growth past the first hundred names.
    Names memory, files;
    for (int i = 1000; i < 1150; ++i) {
        Transient("/many/t" + std::to_string(i));
        memory.push_back("/many/t" + std::to_string(i));
        WriteBytes(File("f" + std::to_string(i)), "x");
        files.push_back("/m/f" + std::to_string(i));
    }
    EXPECT_EQ(List("/many"), memory);
    EXPECT_EQ(List("/m/f"), files);
}

TEST_F(ListTest, CompatibilityCallsEmptyResultsAndFailures) {
    for (const char *name : {"a", "b,c"}) WriteBytes(File(name), "x");
    sr_entry_metadata_t *p_entries = nullptr;
    qx_uint32_t count = 0;
    ASSERT_EQ(sr_i_get_directory_list_compat(tree_, Text("/m"), &p_entries, &count), 0);
    ASSERT_EQ(count, 2u);
    Names names;
    for (qx_uint32_t i = 0; i < count; ++i) {
        names.push_back(p_entries[i].name);
        EXPECT_EQ(p_entries[i].type, SR_TABLE);
        EXPECT_EQ(p_entries[i].storage, SR_UNKNOWN_STORAGE);
        EXPECT_EQ(p_entries[i].name, p_entries[0].p_table_list[i]);
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (Names{"/m/a", "/m/b/c"}));
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
    EXPECT_EQ(sr_list_tables_1(nullptr, Text("/m"), &p_list, &count), 100);
    EXPECT_EQ(sr_list_tables_1(tree_, nullptr, &p_list, &count), 102);
    EXPECT_NE(last_error().message.find("<NULL POINTER>"), std::string::npos);
    EXPECT_EQ(sr_list_tables_1(tree_, Text("/a b"), &p_list, &count), 102);
    EXPECT_EQ(sr_i_get_directory_list_compat(nullptr, Text("/m"), &p_entries, &count), 100);
    for (int i = 0; i < 120; ++i) Transient("/r/t" + std::to_string(i));
    EachAllocationFailure([&] { return sr_list_tables_1(tree_, Text("/r"), &p_list, &count); },
                          [] {});
    EXPECT_EQ(count, 120u);
    sr_free_table_list_1(p_list, count);
    // The mounted directory removed behind the tree's back.
    for (const char *name : {"a", "b,c"}) unlink(File(name).c_str());
    ASSERT_EQ(rmdir(tmp_.file("d").c_str()), 0);
    EXPECT_EQ(List("/m"), Names{"<10>"});
    EXPECT_NE(last_error().message.find("opendir"), std::string::npos);
}

}  // namespace
}  // namespace qxtest
