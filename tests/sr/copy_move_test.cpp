// Copying and moving tables between memory and files, over open targets, and failing.
#include <errno.h>
#include <sys/stat.h>

#include <map>
#include <string>

#include "sr/rows_test_util.h"

namespace qxtest {
namespace {

using Rows = std::map<qx_int64_t, std::string>;

class CopyMoveTest : public RowsTest {
  protected:
    // A table with rows key -> ("v<key>", key * 10); persistent under /m/.
    sr_i_table_t *Table(const std::string &path, std::vector<qx_int64_t> keys,
                        bool keep_open = true, bool hashed = false) {
        sr_i_table_t *p_table = Make(path, SR_MODE_WRITE, hashed);
        for (qx_int64_t k : keys) {
            EXPECT_EQ(AddRow(p_table, k, ("v" + std::to_string(k)).c_str(),
                             static_cast<qx_int32_t>(k * 10)),
                      0);
        }
        if (keep_open) return p_table;
        EXPECT_EQ(sr_close_table_1(p_table), 0);
        return nullptr;
    }
    sr_i_table_t *Open(const std::string &path, int mode = SR_MODE_WRITE) {
        sr_opaque_handle_t handle = nullptr;
        EXPECT_EQ(sr_open_table_1(tree_, Text(path), mode, &handle), 0) << path;
        return static_cast<sr_i_table_t *>(handle);
    }
    // key -> "s|n" of every committed row, through the handle or a fresh open.
    Rows RowsOf(sr_i_table_t *p_table) {
        Rows rows;
        sr_table_metadata_t *p_metadata = nullptr;
        EXPECT_EQ(sr_get_table_metadata_1(p_table, 0, &p_metadata), 0);
        for (qx_uint32_t r = 0; p_metadata != nullptr && r < p_metadata->number_of_rows; ++r) {
            qx_value_t k{}, s{}, n{};
            const auto row = static_cast<qx_int32_t>(r);
            EXPECT_EQ(Get(p_table, row, "k", &k) | Get(p_table, row, "s", &s) |
                          Get(p_table, row, "n", &n),
                      0);
            rows[k.val_int64] = std::string(s.ptr_char) + "|" + std::to_string(n.val_int32);
        }
        sr_free_table_metadata_1(p_metadata);
        return rows;
    }
    Rows RowsOf(const std::string &path) {
        sr_i_table_t *p_table = Open(path, SR_MODE_READ);
        if (p_table == nullptr) return {{-1, "no table"}};
        Rows rows = RowsOf(p_table);
        sr_close_table_1(p_table);
        return rows;
    }
    static Rows Expected(std::vector<qx_int64_t> keys) {
        Rows rows;
        for (qx_int64_t k : keys) rows[k] = "v" + std::to_string(k) + "|" + std::to_string(k * 10);
        return rows;
    }
    qx_int32_t Copy(const std::string &from, const std::string &to, int overwrite = 0) {
        return sr_copy_table_by_name_1(tree_, Text(from), Text(to), overwrite);
    }
    qx_int32_t Move(const std::string &from, const std::string &to, int overwrite = 0) {
        return sr_move_table_by_name_1(tree_, Text(from), Text(to), overwrite);
    }
};

TEST_F(CopyMoveTest, ExistingTargetsAreReplacedOnlyWithOverwriteAndRefusalsLeaveNoTarget) {
    Table("/m/src", {1, 2}, false);
    ASSERT_EQ(Copy("/m/src", "/m/new"), 0);
    EXPECT_FALSE(Exists(File("new.rewrite")));
    EXPECT_TRUE(Exists(File(",Lock"))) << "the directory's lock file stays for the next copy";
    EXPECT_EQ(RowsOf("/m/new"), Expected({1, 2}));
    WriteBytes(File("empty"), "");
    ASSERT_EQ(Copy("/m/src", "/m/empty"), 0) << "an empty file is no table";
    EXPECT_EQ(RowsOf("/m/empty"), Expected({1, 2}));
    Table("/m/dst", {9}, false);
    const std::string before = ReadBytes(File("dst"));
    EXPECT_EQ(Copy("/m/src", "/m/dst"), 201);
    EXPECT_EQ(last_error().code, 201);
    EXPECT_EQ(Move("/m/src", "/m/dst"), 201);
    EXPECT_EQ(ReadBytes(File("dst")), before);
    EXPECT_TRUE(Exists(File("src")));
    EXPECT_EQ(Copy("/m/src", "/m/dst", 1), 0);
    EXPECT_EQ(RowsOf("/m/dst"), Expected({1, 2}));
    // In memory too; the replaced table lives on for the handle that holds it.
    Table("/t/a", {});
    sr_i_table_t *p_old_b = Table("/t/b", {});
    EXPECT_EQ(Copy("/t/a", "/t/b"), 201);
    EXPECT_EQ(Copy("/m/src", "/t/b", 1), 0);
    EXPECT_EQ(RowsOf("/t/b"), Expected({1, 2}));
    EXPECT_EQ(RowsOf(p_old_b), Expected({}));
    EXPECT_EQ(sr_close_table_1(p_old_b), 0);
    // Refusals and failures leave no target.
    Table("/m/a", {1}, false);
    for (const char *from : {"/t/none", "/m/none"}) EXPECT_EQ(Copy(from, "/t/x"), 200);
    EXPECT_EQ(Copy("/m/none", "/m/x"), 200);
    EXPECT_EQ(Move("/m/none", "/m/x"), 200);
    EXPECT_EQ(Copy("/m/a", "/m/a", 1), 201);  // never onto itself
    EXPECT_EQ(Move("/m/a", "/m/a", 1), 201);
    EXPECT_EQ(Copy("/m/a", "/bad path"), 102);
    EXPECT_EQ(sr_copy_table_by_name_1(nullptr, Text("/m/a"), Text("/t/x"), 0), 100);
    EXPECT_EQ(sr_move_table_by_name_1(nullptr, Text("/m/a"), Text("/t/x"), 0), 100);
    EXPECT_EQ(sr_copy_table_by_handle_1(nullptr, Text("/t/x"), 0), 100);
    EXPECT_EQ(sr_move_table_by_handle_1(nullptr, Text("/t/x"), 0), 100);
    // The process's own writer in another tree holds the lock: waiting could deadlock.
    sr_opaque_handle_t other = nullptr, writer = nullptr;
    ASSERT_EQ(sr_open_tree_1(&other, 0, 0), 0);
    ASSERT_EQ(sr_mount_local_tree_1(other, Text("/m"), Text(tmp_.file("d")), 1), 0);
    ASSERT_EQ(sr_open_table_1(other, Text("/m/a"), SR_MODE_WRITE, &writer), 0);
    Table("/t/b2", {2}, false);
    EXPECT_EQ(Copy("/t/b2", "/m/a", 1), 211);
    EXPECT_EQ(last_error().code, 211);
    EXPECT_EQ(Move("/t/b2", "/m/a", 1), 211);
    EXPECT_FALSE(Exists(File("a.rewrite")));
    sr_close_tree_1(other);
    EXPECT_EQ(RowsOf("/m/a"), Expected({1}));
    // An open target with changes in flight is not replaced.
    ASSERT_EQ(AddRow(Make("/m/busy", SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL), 1, "p", 1), 0);
    EXPECT_EQ(Copy("/m/a", "/m/busy", 1), 209);
    EXPECT_EQ(Copy("/m/a", "/m/busy", 0), 209);
    ASSERT_EQ(AddRow(Make("/t/busy", SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL), 1, "p", 1), 0);
    EXPECT_EQ(Copy("/m/a", "/t/busy", 0), 201);
    EXPECT_EQ(Copy("/m/a", "/t/busy", 1), 209);
    // A full filesystem under a copy from a file and from memory.
    sr_i_table_t *p_memory = Table("/t/mem", {1});
    sr_i_file_ops.p_write = [](int, const void *, size_t) -> ssize_t { return errno = ENOSPC, -1; };
    sr_i_file_ops.p_writev = [](int, const iovec *, int) -> ssize_t { return errno = ENOSPC, -1; };
    EXPECT_EQ(Copy("/m/a", "/m/x"), 13);
    EXPECT_EQ(Copy("/t/mem", "/m/x"), 13);
    sr_i_file_ops = sr_i_default_file_ops;
    EXPECT_FALSE(Exists(File("x")));
    EXPECT_FALSE(Exists(File("x.rewrite")));
    // Memory runs out anywhere in a memory copy: a code, the source intact.
    for (qx_int64_t n = 0; n < 40; ++n) {
        sr_i_alloc_fail_after(n);
        qx_int32_t rc = Copy("/t/mem", "/t/copy" + std::to_string(n));
        const bool failed = sr_i_alloc_failure_pending() == 0 && rc != 0;
        sr_i_alloc_fail_after(-1);
        EXPECT_EQ(failed ? rc : 12, 12) << n;
    }
    EXPECT_EQ(RowsOf(p_memory), Expected({1}));
}

TEST_F(CopyMoveTest, CopiesAndMovesBetweenMemoryAndFilesCarryTheRows) {
    Table("/m/f", {1, 2, 3}, false);
    sr_i_table_t *p_memory = Table("/t/mem", {7, 8});
    ASSERT_EQ(Copy("/m/f", "/m/f2"), 0);
    ASSERT_EQ(Copy("/m/f", "/t/f3"), 0);
    ASSERT_EQ(Copy("/t/mem", "/m/m2"), 0);
    ASSERT_EQ(Copy("/t/mem", "/t/m3"), 0);
    EXPECT_EQ(RowsOf("/m/f2"), Expected({1, 2, 3}));
    EXPECT_EQ(RowsOf("/m/m2"), Expected({7, 8}));
    // Copies are tables of their own; a memory copy of a file writes no file.
    ASSERT_EQ(AddRow(Open("/t/m3"), 9, "v9", 90), 0);
    EXPECT_EQ(RowsOf(p_memory), Expected({7, 8}));
    EXPECT_EQ(RowsOf("/t/m3"), Expected({7, 8, 9}));
    sr_i_table_t *p_f3 = Open("/t/f3");
    EXPECT_EQ(p_f3->p_file_path, nullptr);
    ASSERT_EQ(AddRow(p_f3, 50, "v50", 500), 0);
    EXPECT_EQ(RowsOf("/m/f"), Expected({1, 2, 3}));
    EXPECT_EQ(RowsOf(p_f3), Expected({1, 2, 3, 50}));
    // An open file table copied by handle: its pool, read from the file, too.
    sr_i_table_t *p_open = Open("/m/f");
    ASSERT_EQ(sr_copy_table_by_handle_1(p_open, Text("/t/f4"), 0), 0);
    EXPECT_EQ(RowsOf("/t/f4"), Expected({1, 2, 3}));
    EXPECT_EQ(RowsOf(p_open), Expected({1, 2, 3}));
    sr_table_metadata_t *p_metadata = nullptr;
    ASSERT_EQ(sr_get_table_metadata_1(p_f3, -1, &p_metadata), 0);
    ASSERT_EQ(p_metadata->number_of_columns, 3u);
    EXPECT_STREQ(p_metadata->column_definitions[1].name, "s");
    EXPECT_STREQ(p_metadata->column_definitions[1].default_value.ptr_char, "dflt");
    sr_free_table_metadata_1(p_metadata);
    // An unpacked table's rows lie in the caller's buffer; its copy has its own.
    sr_opaque_handle_t handles[] = {p_memory};
    qx_uint32_t uncommitted[] = {0};
    void *p_buffer = nullptr;
    ASSERT_EQ(sr_pack_tables_1(1, handles, uncommitted, nullptr, nullptr, &p_buffer), 0);
    ASSERT_EQ(sr_close_table_1(p_memory), 0);
    ASSERT_EQ(sr_delete_table_1(tree_, Text("/t/mem")), 0);
    sr_opaque_handle_t unpacked = nullptr;
    ASSERT_EQ(sr_unpack_table_1(p_buffer, 0, nullptr, nullptr, tree_, 0, &unpacked), 0);
    ASSERT_EQ(sr_copy_table_by_handle_1(unpacked, Text("/t/p2"), 0), 0);
    ASSERT_EQ(sr_close_table_1(unpacked), 0);
    std::free(p_buffer);
    EXPECT_EQ(RowsOf("/t/p2"), Expected({7, 8}));
    // A memory copy of a hashed table keeps its key index and the working version.
    sr_i_table_t *p_source = Make("/t/h", SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL, true);
    for (qx_int64_t k = 0; k < 300; ++k) ASSERT_EQ(AddRow(p_source, k, "x", 1), 0);
    ASSERT_EQ(ApplyCommit(p_source), 0);
    qx_value_t changed = Str("changed");
    ASSERT_EQ(sr_set_field_by_key_1(p_source, I64(5), Text("s"), &changed), 0);
    ASSERT_EQ(sr_delete_row_by_index_1(p_source, 0), 0);
    ASSERT_EQ(AddRow(p_source, 1000, "added", 2), 0);
    ASSERT_EQ(sr_copy_table_by_handle_1(p_source, Text("/t/h2"), 0), 0);
    sr_i_table_t *p_copy = Open("/t/h2");
    ASSERT_NE(p_copy->p_rows_hash_table, nullptr);
    EXPECT_NE(p_copy->p_rows_hash_table, p_source->p_rows_hash_table);
    EXPECT_EQ(p_copy->total_committed_rows, 300u);
    EXPECT_EQ(TextOf(p_copy, 5), "changed");
    EXPECT_EQ(TextOf(p_copy, 1000), "added");
    EXPECT_EQ(p_copy->p_rows_change_list, nullptr) << "the copy's rows are committed";
    EXPECT_EQ(TextOf(p_source, 5), "x") << "the source still has its transaction";
    EXPECT_EQ(sr_abort_1(p_source), 0);
    EXPECT_EQ(TextOf(p_copy, 5), "changed");
    // Moves remove the source only once the target exists.
    sr_i_table_t *p_table = Table("/m/src", {1, 2});
    ASSERT_EQ(sr_move_table_by_handle_1(p_table, Text("/t/moved"), 0), 0);
    EXPECT_FALSE(Exists(File("src")));
    EXPECT_EQ(Open("/t/moved"), p_table) << "the same record under the new name";
    EXPECT_STREQ(p_table->p_name, "/t/moved");
    ASSERT_EQ(AddRow(p_table, 3, "v3", 30), 0);  // a memory table now
    sr_close_table_1(p_table);
    sr_close_table_1(p_table);
    EXPECT_EQ(RowsOf("/t/moved"), Expected({1, 2, 3}));
    ASSERT_EQ(Move("/t/moved", "/m/a"), 0);  // memory to file
    ASSERT_EQ(Move("/m/a", "/m/b"), 0);      // a file rename
    EXPECT_FALSE(Exists(File("a")));
    ASSERT_EQ(Move("/m/b", "/t/c"), 0);  // file to memory
    EXPECT_FALSE(Exists(File("b")));
    ASSERT_EQ(Move("/t/c", "/m/d/e"), 0);
    EXPECT_TRUE(Exists(File("d,e")));
    EXPECT_EQ(RowsOf("/m/d/e"), Expected({1, 2, 3}));
    sr_opaque_handle_t gone = nullptr;
    EXPECT_EQ(sr_open_table_1(tree_, Text("/t/c"), SR_MODE_READ, &gone), 200);
    // A move that cannot make its target keeps the source.
    sr_i_file_ops.p_fdatasync = [](int) { return errno = EIO, -1; };
    p_open = Open("/m/d/e");
    EXPECT_EQ(sr_move_table_by_handle_1(p_open, Text("/m/g"), 0), 10);
    sr_i_file_ops = sr_i_default_file_ops;
    EXPECT_FALSE(Exists(File("g")));
    EXPECT_FALSE(Exists(File("g.rewrite")));
    EXPECT_EQ(RowsOf(p_open), Expected({1, 2, 3}));
}

// A copy over an open table refreshes it; strings handed out before stay valid.
TEST_F(CopyMoveTest, CopyOverAnOpenTargetRefreshesItAndKeepsValuesHandedOut) {
    Table("/m/src", {1, 2, 3}, false);
    Table("/m/dst", {7}, false);
    sr_i_table_t *p_reader = Open("/m/dst", SR_MODE_READ);
    qx_value_t before_upgrade{};
    ASSERT_EQ(Get(p_reader, 0, "s", &before_upgrade), 0);
    ASSERT_EQ(Open("/m/dst", SR_MODE_WRITE), p_reader);  // reads the file again
    qx_value_t before_copy{};
    ASSERT_EQ(Get(p_reader, 0, "s", &before_copy), 0);
    ASSERT_EQ(Copy("/m/src", "/m/dst", 1), 0);
    EXPECT_EQ(RowsOf(p_reader), Expected({1, 2, 3}));
    EXPECT_STREQ(before_upgrade.ptr_char, "v7");
    EXPECT_STREQ(before_copy.ptr_char, "v7");
    ASSERT_EQ(AddRow(p_reader, 4, "v4", 40), 0);
    sr_close_table_1(p_reader);
    sr_close_table_1(p_reader);
    EXPECT_EQ(RowsOf("/m/dst"), Expected({1, 2, 3, 4}));
    // An open hashed target is only reread (its index answers); an unhashed one refuses.
    sr_i_table_t *p_hashed = Table("/m/hashed", {7}, true, true);
    const std::string hashed_before = ReadBytes(File("hashed"));
    EXPECT_EQ(Copy("/m/src", "/m/hashed"), 0);
    EXPECT_EQ(ReadBytes(File("hashed")), hashed_before);
    EXPECT_EQ(TextOf(p_hashed, 7), "v7");
    sr_i_table_t *p_plain = Table("/m/plain", {7});
    EXPECT_EQ(Copy("/m/src", "/m/plain"), 201);
    EXPECT_EQ(RowsOf(p_plain), Expected({7}));
}

}  // namespace
}  // namespace qxtest
