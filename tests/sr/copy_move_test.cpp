// Copying and moving tables between memory and files: what the target holds
// afterwards, when an existing target may be replaced, what happens to the
// source, open targets refreshed in place, and failures that leave nothing
// half-made behind.
#include <errno.h>
#include <search.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <string>

#include "sr/rows_test_util.h"

namespace qxtest {
namespace {

class CopyMoveTest : public RowsTest {
  protected:
    // A persistent table /m/<name> with rows key -> ("v<key>", key * 10),
    // closed again unless `keep_open`.
    sr_i_table_t *FileTable(const std::string &name, std::vector<qx_int64_t> keys,
                            bool keep_open = false, bool hashed = false) {
        sr_i_table_t *p_table = Make("/m/" + name, SR_MODE_WRITE, hashed);
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
        qx_int32_t rc = sr_open_table_1(tree_, Text(path), mode, &handle);
        EXPECT_EQ(rc, 0) << path;
        return static_cast<sr_i_table_t *>(handle);
    }

    // key -> "s|n" of every committed row, read through the handle.
    std::map<qx_int64_t, std::string> Rows(sr_i_table_t *p_table) {
        std::map<qx_int64_t, std::string> rows;
        sr_table_metadata_t *p_metadata = nullptr;
        EXPECT_EQ(sr_get_table_metadata_1(p_table, 0, &p_metadata), 0);
        if (p_metadata == nullptr) return rows;
        for (qx_uint32_t r = 0; r < p_metadata->number_of_rows; ++r) {
            qx_value_t k{}, s{}, n{};
            EXPECT_EQ(Get(p_table, static_cast<qx_int32_t>(r), "k", &k), 0);
            EXPECT_EQ(Get(p_table, static_cast<qx_int32_t>(r), "s", &s), 0);
            EXPECT_EQ(Get(p_table, static_cast<qx_int32_t>(r), "n", &n), 0);
            rows[k.val_int64] = std::string(s.ptr_char) + "|" + std::to_string(n.val_int32);
        }
        sr_free_table_metadata_1(p_metadata);
        return rows;
    }
    // The rows of a table opened (and closed) just for the look.
    std::map<qx_int64_t, std::string> RowsOf(const std::string &path) {
        sr_i_table_t *p_table = Open(path, SR_MODE_READ);
        if (p_table == nullptr) return {};
        auto rows = Rows(p_table);
        sr_close_table_1(p_table);
        return rows;
    }
    static std::map<qx_int64_t, std::string> Expected(std::vector<qx_int64_t> keys) {
        std::map<qx_int64_t, std::string> rows;
        for (qx_int64_t k : keys) rows[k] = "v" + std::to_string(k) + "|" + std::to_string(k * 10);
        return rows;
    }
    bool Open_In_Tree(const std::string &name) {
        return tfind(name.c_str(), &static_cast<sr_i_tree_t *>(tree_)->p_tables,
                     sr_i_string_to_table_compare) != nullptr;
    }

    qx_int32_t CopyByName(const std::string &from, const std::string &to, int overwrite = 0) {
        return sr_copy_table_by_name_1(tree_, Text(from), Text(to), overwrite);
    }
    qx_int32_t MoveByName(const std::string &from, const std::string &to, int overwrite = 0) {
        return sr_move_table_by_name_1(tree_, Text(from), Text(to), overwrite);
    }
};

TEST_F(CopyMoveTest, CopyToMissingFileCreatesItWholeByRename) {
    FileTable("src", {1, 2, 3});
    ASSERT_EQ(CopyByName("/m/src", "/m/dst"), 0);
    EXPECT_TRUE(Exists(File("dst")));
    EXPECT_FALSE(Exists(File("dst.rewrite")));
    EXPECT_EQ(RowsOf("/m/dst"), Expected({1, 2, 3}));
    EXPECT_EQ(RowsOf("/m/src"), Expected({1, 2, 3}));
    // The directory's lock file is left for the next copy.
    EXPECT_TRUE(Exists(File(",Lock")));
}

TEST_F(CopyMoveTest, CopyToExistingEmptyFileProceedsWithoutOverwrite) {
    FileTable("src", {4, 5});
    WriteBytes(File("dst"), "");
    ASSERT_EQ(CopyByName("/m/src", "/m/dst"), 0);
    EXPECT_EQ(RowsOf("/m/dst"), Expected({4, 5}));
}

TEST_F(CopyMoveTest, ExistingTargetIsReplacedOnlyWithOverwrite) {
    FileTable("src", {1, 2});
    FileTable("dst", {9});
    const std::string before = ReadBytes(File("dst"));
    EXPECT_EQ(CopyByName("/m/src", "/m/dst"), 201);
    EXPECT_EQ(last_error().code, 201);
    EXPECT_EQ(ReadBytes(File("dst")), before);
    EXPECT_EQ(MoveByName("/m/src", "/m/dst"), 201);
    EXPECT_TRUE(Exists(File("src")));

    EXPECT_EQ(CopyByName("/m/src", "/m/dst", 1), 0);
    EXPECT_EQ(RowsOf("/m/dst"), Expected({1, 2}));

    // In memory the same rule holds.
    Make("/t/a", SR_MODE_WRITE);
    sr_i_table_t *p_old_b = Make("/t/b", SR_MODE_WRITE);
    EXPECT_EQ(CopyByName("/t/a", "/t/b"), 201);
    EXPECT_EQ(CopyByName("/m/src", "/t/b", 1), 0);
    EXPECT_EQ(RowsOf("/t/b"), Expected({1, 2}));
    // The replaced memory table lives on, like a deleted one, for the handle
    // that still holds it, and goes with that handle's close.
    EXPECT_EQ(Rows(p_old_b), Expected({}));
    EXPECT_EQ(sr_close_table_1(p_old_b), 0);
}

TEST_F(CopyMoveTest, EveryCombinationOfMemoryAndFileCarriesTheRows) {
    FileTable("f", {1, 2, 3});
    sr_i_table_t *p_memory = Make("/t/mem", SR_MODE_WRITE);
    for (qx_int64_t k : {7, 8}) {
        ASSERT_EQ(
            AddRow(p_memory, k, ("v" + std::to_string(k)).c_str(), static_cast<qx_int32_t>(k * 10)),
            0);
    }

    ASSERT_EQ(CopyByName("/m/f", "/m/f2"), 0);    // file to file
    ASSERT_EQ(CopyByName("/m/f", "/t/f3"), 0);    // file to memory
    ASSERT_EQ(CopyByName("/t/mem", "/m/m2"), 0);  // memory to file
    ASSERT_EQ(CopyByName("/t/mem", "/t/m3"), 0);  // memory to memory
    EXPECT_EQ(RowsOf("/m/f2"), Expected({1, 2, 3}));
    EXPECT_EQ(RowsOf("/t/f3"), Expected({1, 2, 3}));
    EXPECT_EQ(RowsOf("/m/m2"), Expected({7, 8}));
    EXPECT_EQ(RowsOf("/t/m3"), Expected({7, 8}));

    // Copies are tables of their own: changing one leaves the source alone,
    // and a memory copy of a file writes no file.
    sr_i_table_t *p_copy = Open("/t/m3");
    ASSERT_EQ(AddRow(p_copy, 99, "new", 1), 0);
    EXPECT_EQ(Rows(p_memory), Expected({7, 8}));
    sr_i_table_t *p_f3 = Open("/t/f3");
    EXPECT_EQ(p_f3->p_file_path, nullptr);
    ASSERT_EQ(AddRow(p_f3, 50, "v50", 500), 0);
    EXPECT_EQ(RowsOf("/m/f"), Expected({1, 2, 3}));
    EXPECT_EQ(Rows(p_f3), Expected({1, 2, 3, 50}));

    // An open file table copied by handle: its pool, read from the file,
    // is duplicated too.
    sr_i_table_t *p_open = Open("/m/f");
    ASSERT_EQ(sr_copy_table_by_handle_1(p_open, Text("/t/f4"), 0), 0);
    EXPECT_EQ(RowsOf("/t/f4"), Expected({1, 2, 3}));
    EXPECT_EQ(Rows(p_open), Expected({1, 2, 3}));

    // The copies keep column names and change counters.
    sr_table_metadata_t *p_metadata = nullptr;
    ASSERT_EQ(sr_get_table_metadata_1(p_f3, -1, &p_metadata), 0);
    ASSERT_EQ(p_metadata->number_of_columns, 3u);
    EXPECT_STREQ(p_metadata->column_definitions[1].name, "s");
    EXPECT_STREQ(p_metadata->column_definitions[1].default_value.ptr_char, "dflt");
    sr_free_table_metadata_1(p_metadata);
}

// A table unpacked from a packed buffer reads its rows in the caller's
// buffer; its memory copy must still have every row, in memory of its own.
TEST_F(CopyMoveTest, MemoryCopyOfAnUnpackedTableHasEveryRow) {
    sr_i_table_t *p_source = Make("/t/p", SR_MODE_WRITE, false);
    for (qx_int64_t k = 1; k <= 3; ++k) ASSERT_EQ(AddRow(p_source, k, "r", 7), 0);
    sr_opaque_handle_t handles[] = {p_source};
    qx_uint32_t uncommitted[] = {0};
    void *p_buffer = nullptr;
    ASSERT_EQ(sr_pack_tables_1(1, handles, uncommitted, nullptr, nullptr, &p_buffer), 0);
    ASSERT_EQ(sr_close_table_1(p_source), 0);
    ASSERT_EQ(sr_delete_table_1(tree_, Text("/t/p")), 0);
    sr_opaque_handle_t unpacked = nullptr;
    ASSERT_EQ(sr_unpack_table_1(p_buffer, 0, nullptr, nullptr, tree_, 0, &unpacked), 0);
    ASSERT_EQ(sr_copy_table_by_handle_1(unpacked, Text("/t/p2"), 0), 0);
    ASSERT_EQ(sr_close_table_1(unpacked), 0);
    std::free(p_buffer);
    sr_i_table_t *p_copy = Open("/t/p2");
    EXPECT_EQ(Rows(p_copy),
              (std::map<qx_int64_t, std::string>{{1, "r|7"}, {2, "r|7"}, {3, "r|7"}}));
}

TEST_F(CopyMoveTest, MemoryCopyOfHashedTableKeepsItsKeyIndexAndTheWorkingVersion) {
    sr_i_table_t *p_source = Make("/t/h", SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL, true);
    for (qx_int64_t k = 0; k < 300; ++k) ASSERT_EQ(AddRow(p_source, k, "x", 1), 0);
    ASSERT_EQ(ApplyCommit(p_source), 0);
    // Pending: one row changed, one deleted, one added.
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
    EXPECT_EQ(TextOf(p_copy, 299), "x");
    // The copy's rows are committed and its memory its own.
    for (qx_uint32_t r = 0; r < p_copy->total_committed_rows; ++r) {
        const sr_i_index_entry_t &entry =
            p_copy->p_rows_fixed_index[p_copy->p_rows_packed_index[r]];
        EXPECT_EQ(entry.p_applied, entry.p_committed);
    }
    EXPECT_EQ(p_copy->p_rows_change_list, nullptr);
    // The source still has its transaction.
    EXPECT_EQ(TextOf(p_source, 5), "x");
    EXPECT_EQ(sr_abort_1(p_source), 0);
    EXPECT_EQ(TextOf(p_copy, 5), "changed");
}

TEST_F(CopyMoveTest, MovingAnOpenTableToMemoryKeepsTheSameRecordUnderTheNewName) {
    sr_i_table_t *p_table = FileTable("src", {1, 2}, true);
    ASSERT_EQ(sr_move_table_by_handle_1(p_table, Text("/t/moved"), 0), 0);
    EXPECT_FALSE(Exists(File("src")));
    EXPECT_FALSE(Open_In_Tree(File("src")));
    sr_i_table_t *p_again = Open("/t/moved");
    EXPECT_EQ(p_again, p_table);
    EXPECT_STREQ(p_table->p_name, "/t/moved");
    // It is a memory table now: updates stay in memory and outlive closes.
    EXPECT_EQ(p_table->p_file_path, nullptr);
    ASSERT_EQ(AddRow(p_table, 3, "v3", 30), 0);
    sr_close_table_1(p_again);
    sr_close_table_1(p_table);
    EXPECT_EQ(RowsOf("/t/moved"), Expected({1, 2, 3}));
}

TEST_F(CopyMoveTest, MovesRemoveTheSourceOnlyOnceTheTargetExists) {
    FileTable("a", {1});
    ASSERT_EQ(MoveByName("/m/a", "/m/b"), 0);  // a file rename
    EXPECT_FALSE(Exists(File("a")));
    EXPECT_EQ(RowsOf("/m/b"), Expected({1}));

    ASSERT_EQ(MoveByName("/m/b", "/t/c"), 0);  // file to memory
    EXPECT_FALSE(Exists(File("b")));
    EXPECT_EQ(RowsOf("/t/c"), Expected({1}));

    ASSERT_EQ(MoveByName("/t/c", "/m/d/e"), 0);  // memory to file
    EXPECT_TRUE(Exists(File("d,e")));
    EXPECT_EQ(RowsOf("/m/d/e"), Expected({1}));
    sr_opaque_handle_t gone = nullptr;
    EXPECT_EQ(sr_open_table_1(tree_, Text("/t/c"), SR_MODE_READ, &gone), 200);

    // A move that cannot make its target keeps the source.
    sr_i_file_ops.p_fdatasync = [](int) -> int {
        errno = EIO;
        return -1;
    };
    sr_i_table_t *p_open = Open("/m/d/e");
    EXPECT_EQ(sr_move_table_by_handle_1(p_open, Text("/m/f"), 0), 10);
    sr_i_file_ops = sr_i_default_file_ops;
    EXPECT_FALSE(Exists(File("f")));
    EXPECT_FALSE(Exists(File("f.rewrite")));
    EXPECT_TRUE(Exists(File("d,e")));
    EXPECT_EQ(Rows(p_open), Expected({1}));
}

TEST_F(CopyMoveTest, CopyOverAnOpenPersistentTargetRefreshesItsHandles) {
    FileTable("src", {1, 2, 3});
    sr_i_table_t *p_target = FileTable("dst", {8}, true);
    sr_i_table_t *p_reader = Open("/m/dst", SR_MODE_WRITE);
    ASSERT_EQ(p_reader, p_target);
    ASSERT_EQ(CopyByName("/m/src", "/m/dst", 1), 0);
    EXPECT_EQ(Rows(p_target), Expected({1, 2, 3}));
    // Still the file's writer: an update reaches the new file.
    ASSERT_EQ(AddRow(p_target, 4, "v4", 40), 0);
    sr_close_table_1(p_reader);
    sr_close_table_1(p_target);
    EXPECT_EQ(RowsOf("/m/dst"), Expected({1, 2, 3, 4}));
}

// A string read by one opener points into the table's memory and stays
// valid until that opener's table changes the row or closes: another
// opener's upgrade to write, or a copy over the open table, reads the file
// again but must not free what was already handed out.
TEST_F(CopyMoveTest, ValuesHandedOutSurviveAReloadByAnotherOpener) {
    FileTable("src", {1, 2});
    FileTable("dst", {7});
    sr_i_table_t *p_reader = Open("/m/dst", SR_MODE_READ);
    ASSERT_NE(p_reader, nullptr);
    qx_value_t before_upgrade{};
    ASSERT_EQ(Get(p_reader, 0, "s", &before_upgrade), 0);
    sr_i_table_t *p_writer = Open("/m/dst", SR_MODE_WRITE);  // reads the file again
    ASSERT_EQ(p_writer, p_reader);
    qx_value_t before_copy{};
    ASSERT_EQ(Get(p_reader, 0, "s", &before_copy), 0);
    ASSERT_EQ(CopyByName("/m/src", "/m/dst", 1), 0);  // refreshes the open record
    EXPECT_EQ(Rows(p_reader), Expected({1, 2}));
    EXPECT_STREQ(before_upgrade.ptr_char, "v7");
    EXPECT_STREQ(before_copy.ptr_char, "v7");
    sr_close_table_1(p_writer);
    sr_close_table_1(p_reader);
}

// A writer of the target in another tree of this process holds the lock the
// copy would take (the process's own), and waiting for it could wait for the
// caller itself: the copy and the move are refused and the writer keeps its
// file and its commits.
TEST_F(CopyMoveTest, TargetOpenForWriteInAnotherTreeOfTheProcessIsRefused) {
    FileTable("src", {1, 2});
    FileTable("dst", {7});
    sr_opaque_handle_t other = nullptr;
    ASSERT_EQ(sr_open_tree_1(&other, 0, 0), 0);
    ASSERT_EQ(sr_mount_local_tree_1(other, Text("/m"), Text(tmp_.file("d")), 1), 0);
    sr_opaque_handle_t writer = nullptr;
    ASSERT_EQ(sr_open_table_1(other, Text("/m/dst"), SR_MODE_WRITE, &writer), 0);
    const std::string before = ReadBytes(File("dst"));
    EXPECT_EQ(CopyByName("/m/src", "/m/dst", 1), 211);
    EXPECT_EQ(last_error().code, 211);
    EXPECT_EQ(MoveByName("/m/src", "/m/dst", 1), 211);
    EXPECT_EQ(ReadBytes(File("dst")), before);
    EXPECT_FALSE(Exists(File("dst.rewrite")));
    ASSERT_EQ(AddRow(static_cast<sr_i_table_t *>(writer), 8, "v8", 80), 0);
    EXPECT_EQ(RowsOf("/m/dst"), Expected({7, 8}));
    EXPECT_EQ(RowsOf("/m/src"), Expected({1, 2}));
    // Once the writer has closed, the copy goes ahead.
    ASSERT_EQ(sr_close_table_1(writer), 0);
    EXPECT_EQ(CopyByName("/m/src", "/m/dst", 1), 0);
    EXPECT_EQ(RowsOf("/m/dst"), Expected({1, 2}));
    sr_close_tree_1(other);
}

TEST_F(CopyMoveTest, OpenHashedTargetIsRefreshedWhereAnUnhashedOneRefuses) {
    FileTable("src", {1, 2});
    sr_i_table_t *p_hashed = FileTable("hashed", {7}, true, true);
    const std::string hashed_before = ReadBytes(File("hashed"));
    // The index's result stands in for the refusal, and the open record is
    // read again from its unchanged file.
    EXPECT_EQ(CopyByName("/m/src", "/m/hashed"), 0);
    EXPECT_EQ(ReadBytes(File("hashed")), hashed_before);
    EXPECT_EQ(Rows(p_hashed), Expected({7}));
    EXPECT_EQ(TextOf(p_hashed, 7), "v7");

    sr_i_table_t *p_plain = FileTable("plain", {7}, true);
    const std::string plain_before = ReadBytes(File("plain"));
    EXPECT_EQ(CopyByName("/m/src", "/m/plain"), 201);
    EXPECT_EQ(ReadBytes(File("plain")), plain_before);
    EXPECT_EQ(Rows(p_plain), Expected({7}));
}

TEST_F(CopyMoveTest, RefusalsAndMissingSources) {
    FileTable("a", {1});
    EXPECT_EQ(CopyByName("/t/none", "/t/x"), 200);
    EXPECT_EQ(CopyByName("/m/none", "/t/x"), 200);
    EXPECT_EQ(CopyByName("/m/none", "/m/x"), 200);
    EXPECT_FALSE(Exists(File("x")));
    EXPECT_FALSE(Exists(File("x.rewrite")));
    EXPECT_EQ(MoveByName("/m/none", "/m/x"), 200);
    EXPECT_EQ(CopyByName("/m/a", "/m/a", 1), 201);  // never onto itself
    EXPECT_EQ(MoveByName("/m/a", "/m/a", 1), 201);
    EXPECT_TRUE(Exists(File("a")));
    EXPECT_EQ(CopyByName("/m/a", "/bad path"), 102);
    EXPECT_EQ(sr_copy_table_by_name_1(nullptr, Text("/m/a"), Text("/t/x"), 0), 100);
    EXPECT_EQ(sr_move_table_by_name_1(nullptr, Text("/m/a"), Text("/t/x"), 0), 100);
    EXPECT_EQ(sr_copy_table_by_handle_1(nullptr, Text("/t/x"), 0), 100);
    EXPECT_EQ(sr_move_table_by_handle_1(nullptr, Text("/t/x"), 0), 100);

    // An open target with changes in flight is not replaced.
    sr_i_table_t *p_busy = Make("/m/busy", SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL);
    ASSERT_EQ(AddRow(p_busy, 1, "pending", 1), 0);
    EXPECT_EQ(CopyByName("/m/a", "/m/busy", 1), 209);
    EXPECT_EQ(CopyByName("/m/a", "/m/busy", 0), 209);
    sr_i_table_t *p_memory = Make("/t/busy", SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL);
    ASSERT_EQ(AddRow(p_memory, 1, "pending", 1), 0);
    EXPECT_EQ(CopyByName("/m/a", "/t/busy", 0), 201);
    EXPECT_EQ(CopyByName("/m/a", "/t/busy", 1), 209);
}

TEST_F(CopyMoveTest, FailedCopiesIntoFilesLeaveNoTargetAndNoRewriteFile) {
    FileTable("src", {1, 2});
    sr_i_file_ops.p_write = [](int, const void *, size_t) -> ssize_t {
        errno = ENOSPC;
        return -1;
    };
    EXPECT_EQ(CopyByName("/m/src", "/m/dst"), 13);
    sr_i_file_ops = sr_i_default_file_ops;
    EXPECT_FALSE(Exists(File("dst")));
    EXPECT_FALSE(Exists(File("dst.rewrite")));

    sr_i_table_t *p_memory = Make("/t/mem", SR_MODE_WRITE);
    ASSERT_EQ(AddRow(p_memory, 1, "v1", 10), 0);
    sr_i_file_ops.p_writev = [](int, const struct iovec *, int) -> ssize_t {
        errno = ENOSPC;
        return -1;
    };
    EXPECT_EQ(CopyByName("/t/mem", "/m/dst"), 13);
    sr_i_file_ops = sr_i_default_file_ops;
    EXPECT_FALSE(Exists(File("dst")));
    EXPECT_FALSE(Exists(File("dst.rewrite")));

    // Memory runs out anywhere in a memory copy: a code, the source intact.
    for (qx_int64_t n = 0; n < 40; ++n) {
        sr_i_alloc_fail_after(n);
        qx_int32_t rc = CopyByName("/t/mem", "/t/copy" + std::to_string(n));
        const bool failed = sr_i_alloc_failure_pending() == 0 && rc != 0;
        sr_i_alloc_fail_after(-1);
        if (failed) {
            EXPECT_EQ(rc, 12) << n;
        }
    }
    EXPECT_EQ(Rows(p_memory), Expected({1}));
}

}  // namespace
}  // namespace qxtest
