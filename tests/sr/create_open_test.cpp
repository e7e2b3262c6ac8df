// Creating, opening, closing and deleting tables, and what a failed create leaves.
#include <errno.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "sr/rows_test_util.h"

namespace qxtest {
namespace {

class CreateOpenTest : public RowsTest {
  protected:
    qx_int32_t TryCreate(const std::string &path, std::vector<sr_column_t> &columns, int mode = 2) {
        sr_opaque_handle_t table = nullptr;
        return sr_create_table_1(tree_, Text(path), columns.data(),
                                 static_cast<qx_uint32_t>(columns.size()), mode, &table);
    }
    sr_i_table_t *Open(const std::string &path, int mode, qx_int32_t expected = 0) {
        sr_opaque_handle_t table = nullptr;
        EXPECT_EQ(sr_open_table_1(tree_, Text(path), mode, &table), expected) << path << mode;
        return static_cast<sr_i_table_t *>(table);
    }
    qx_int32_t AddC1(sr_i_table_t *p_table, qx_int64_t key, qx_int64_t c1) {
        return Add(p_table, {{"k", I64(key)}, {"c1", I64(c1)}});
    }
};

TEST_F(CreateOpenTest, ArgumentsAndColumnsAreValidatedInOrder) {
    auto columns = ScalarColumns(2);
    sr_opaque_handle_t table = nullptr;
    EXPECT_EQ(sr_create_table_1(nullptr, Text("/t"), columns.data(), 2, 2, &table), 100);
    EXPECT_EQ(sr_create_table_1(tree_, Text("/t"), columns.data(), 2, 8, &table), 103);
    EXPECT_EQ(sr_create_table_1(tree_, Text("/t"), columns.data(), 2, -1, &table), 103);
    EXPECT_EQ(sr_create_table_1(tree_, Text("/a b"), columns.data(), 2, 2, &table), 102);
    EXPECT_EQ(sr_create_table_1(tree_, Text("/t"), columns.data(), 0, 2, &table), 104);
    const std::string too_long(256, 'a'), longest(255, 'z');
    const struct {
        int column;
        const char *name;  // nullptr: keep
        int type;          // -1: keep
        int qualifier;     // -1: keep
        qx_int32_t rc;
        const char *message = nullptr;
    } cases[] = {
        {1, "1abc", -1, -1, 105},
        {1, "", -1, -1, 105},
        {1, "_a", -1, -1, 105},
        {1, too_long.c_str(), -1, -1, 105},
        {0, nullptr, QX_BINARY_PTR, -1, 105},
        {0, nullptr, QX_INT32_ARRAY, -1, 105},
        {1, nullptr, 23, -1, 105},
        {1, nullptr, QX_NONE, -1, 105},
        {1, nullptr, -1, SR_SYSTEM, 105},
        {1, nullptr, QX_SD_PTR, -1, 105},  // structured data without a definition
        {0, nullptr, -1, SR_STANDARD, 107, "2605-107 The key column value was expected.\n"},
        {2, nullptr, -1, SR_PRIMARY_KEY_NOCHECK, 108},
        {2, "c1", -1, -1, 106, "2605-106 More than one column with the same name was supplied.\n"},
        {1, "a1_", -1, -1, 0},
        {1, longest.c_str(), -1, -1, 0},
        {0, nullptr, -1, SR_PRIMARY_KEY | SR_PROTECTED | SR_INVISIBLE, 0},
    };
    int n = 0;
    for (const auto &c : cases) {
        columns = ScalarColumns(3);
        if (c.name != nullptr) columns[c.column].name = Text(c.name);
        if (c.type >= 0) columns[c.column].type = static_cast<qx_data_type_t>(c.type);
        if (c.qualifier >= 0)
            columns[c.column].qualifier = static_cast<sr_qualifier_t>(c.qualifier);
        EXPECT_EQ(TryCreate("/t" + std::to_string(n++), columns), c.rc) << n;
        EXPECT_EQ(last_error().message, c.message ? c.message : last_error().message);
    }
    columns[1].name = nullptr;
    EXPECT_EQ(TryCreate("/t", columns), 105);
    EXPECT_EQ(TryCreate("/t" + std::to_string(n - 1), columns = ScalarColumns(2)), 201);
    WriteBytes(File("f"), "not a table");
    EXPECT_EQ(TryCreate("/m/f", columns), 201);
    EXPECT_EQ(ReadBytes(File("f")), "not a table");
    EXPECT_FALSE(Exists(File("f.rewrite")));
}

// Another process creates the table between this create's check and its rename (here: in the sync).
std::string Appearing_Path, Appearing_Bytes;
int SyncWhileATableAppears(int fd) {
    if (!Appearing_Path.empty()) WriteBytes(Appearing_Path, Appearing_Bytes);
    Appearing_Path.clear();
    return fdatasync(fd);
}

TEST_F(CreateOpenTest, FailedCreatesLeaveNoFileAndTheCallersArrayUnchanged) {
    ASSERT_EQ(sr_close_table_1(Create("/m/other", ScalarColumns(3))), 0);
    Appearing_Bytes = ReadBytes(File("other"));
    Appearing_Path = File("t");
    sr_i_file_ops.p_fdatasync = SyncWhileATableAppears;
    std::vector<sr_column_t> columns = ScalarColumns(3);
    EXPECT_EQ(TryCreate("/m/t", columns), SR_E_TABLE_EXISTS);  // the other table stays
    sr_i_file_ops = sr_i_default_file_ops;
    EXPECT_EQ(ReadBytes(File("t")), Appearing_Bytes);
    EXPECT_FALSE(Exists(File("t.rewrite")));
    ASSERT_EQ(unlink(File("t").c_str()), 0);

    columns[2].type = QX_CHAR_PTR;
    columns[2].default_value.ptr_char = Text("default");
    std::swap(columns[0], columns[1]);
    const std::vector<sr_column_t> given = columns;
    auto unchanged = [&] {
        EXPECT_FALSE(Exists(File("t")) || Exists(File("t.rewrite")));
        EXPECT_EQ(std::memcmp(columns.data(), given.data(), 3 * sizeof(sr_column_t)), 0);
    };
    sr_i_file_ops.p_writev = [](int, const struct iovec *, int) -> ssize_t {
        errno = ENOSPC;
        return -1;
    };
    EXPECT_EQ(TryCreate("/m/t", columns), SR_E_FILESYSTEM_FULL);
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(tmp_.path().c_str()), 0);  // the sync capture file lands here
    sr_i_file_ops = sr_i_default_file_ops;
    sr_i_file_ops.p_fdatasync = [](int) -> int {
        errno = EIO;
        return -1;
    };
    EXPECT_EQ(TryCreate("/m/t", columns), SR_E_SYSTEM_CALL);
    sr_i_file_ops = sr_i_default_file_ops;
    ASSERT_EQ(chdir(cwd), 0);
    unchanged();
    EXPECT_GT(EachAllocationFailure([&] { return TryCreate("/m/t", columns); }, unchanged, true),
              3);
    qx_pmsg_anchor_t anchor;  // the packed default's anchor is left in the caller's array
    std::memcpy(&anchor, &columns[2].default_value, 8);
    EXPECT_EQ(anchor.length, 8u);
    // The key given second is column 0 of the table but not of the caller.
    sr_table_metadata_t *p_metadata = nullptr;
    ASSERT_EQ(sr_get_table_metadata_1(Open("/m/t", 2), -1, &p_metadata), 0);
    EXPECT_STREQ(p_metadata->column_definitions[0].name, "k");
    EXPECT_STREQ(p_metadata->column_definitions[1].name, "c1");
    sr_free_table_metadata_1(p_metadata);
}

TEST_F(CreateOpenTest, HashedKeyIndexesOfCreatesAndOpens) {
    auto columns = ScalarColumns(2);
    sr_opaque_handle_t table = nullptr, again = nullptr;
    auto create = [&](const char *path, qx_uint32_t buckets) {
        return sr_create_hashed_key_table_1(tree_, Text(path), columns.data(), 2, 6, buckets,
                                            HashI64, CompareI64, &table);
    };
    auto open = [&](const char *path, int mode, qx_uint32_t buckets, sr_opaque_handle_t *p_out) {
        return sr_open_hashed_key_table_1(tree_, Text(path), mode, buckets, HashI64, CompareI64,
                                          p_out);
    };
    EXPECT_EQ(create("/h", 0), 101);
    columns[0].qualifier = SR_STANDARD;  // the failed validation closes the index it was given
    EXPECT_EQ(create("/h", 1024), 107);
    columns[0].qualifier = SR_PRIMARY_KEY;
    ASSERT_EQ(create("/m/h", 1024), 0);
    auto *p_table = static_cast<sr_i_table_t *>(table);
    for (int k = 1; k <= 20; ++k) ASSERT_EQ(AddC1(p_table, k, k * 10), 0);
    ASSERT_EQ(ApplyCommit(p_table), 0);
    EXPECT_EQ(sr_close_table_1(table), 0);
    // A second open keeps the first one's index and closes the one it made.
    ASSERT_EQ(open("/m/h", 2, 1024, &table), 0);
    ASSERT_EQ(open("/m/h", 2, 3, &again), 0);
    EXPECT_EQ(again, table);
    EXPECT_EQ(open("/t", 2, 0, &again), 101);
    for (int i = 0; i < 2; ++i) ASSERT_EQ(sr_close_table_1(table), 0);
    EachAllocationFailure([&] { return open("/m/h", 1, 1024, &table); }, [] {});
    EXPECT_EQ(Val(table, 20, "c1").val_int64, 200);
    ASSERT_EQ(sr_close_table_1(table), 0);
    // Reopened with other functions: a checked key is compared with the rest of its bucket,
    // one its compare finds equal is refused, and so is a hash outside the index.
    static auto key = [](const void *p) {
        qx_int64_t k;
        std::memcpy(&k, p, sizeof k);
        return k;
    };
    sr_hash_function_t *by_4 = [](const void *p) { return static_cast<qx_uint32_t>(key(p) % 4); };
    sr_hash_keys_compare_function_t *same_bucket = [](const void *a, const void *b) {
        return static_cast<qx_int32_t>(key(a) % 4 != key(b) % 4);
    };
    sr_hash_function_t *unbounded = [](const void *p) { return static_cast<qx_uint32_t>(key(p)); };
    const struct {
        sr_hash_function_t *p_hash;
        sr_hash_keys_compare_function_t *p_compare;
        qx_int32_t rc;
    } reopens[] = {{by_4, CompareI64, 0},
                   {by_4, same_bucket, SR_E_DUPLICATE_KEY},
                   {unbounded, CompareI64, SR_E_INTERNAL}};
    for (const auto &r : reopens) {
        auto reopen = [&] {
            return sr_open_hashed_key_table_1(tree_, Text("/m/h"), 1, 4, r.p_hash, r.p_compare,
                                              &table);
        };
        if (r.rc != 0) {
            EXPECT_EQ(reopen(), r.rc);
            continue;
        }
        EachAllocationFailure(reopen, [] {});
        for (int k = 1; k <= 20; ++k) EXPECT_EQ(Val(table, k, "c1").val_int64, k * 10);
        ASSERT_EQ(sr_close_table_1(table), 0);
    }
}

TEST_F(CreateOpenTest, ModesAreNormalisedAndWriteOpensMustAgreeOnControl) {
    ASSERT_EQ(sr_close_table_1(Create("/m/t", ScalarColumns(2))), 0);
    for (int mode : {0, 4, 5, 8, -1, 100}) Open("/m/t", mode, 103);
    EXPECT_EQ(last_error().message,
              "2605-103 An invalid mode was specified while trying to create or open the table.\n");
    // Mode, then the mode and implicit control it stands for.
    for (auto [mode, normalised, implicit] : {std::tuple{3, 2u, 1u}, {7, 6u, 0u}, {1, 1u, 1u}}) {
        sr_i_table_t *p_table = Open("/m/t", mode);
        EXPECT_EQ(std::pair(p_table->mode, p_table->implicitly_controlled),
                  std::pair(normalised, implicit));
        ASSERT_EQ(sr_close_table_1(p_table), 0);
    }
    // A created table is always open for write.
    std::vector<sr_column_t> columns = ScalarColumns(2);
    ASSERT_EQ(TryCreate("/t0", columns, 0), 0);
    EXPECT_EQ(Open("/t0", 2)->mode, 2u);
    ASSERT_EQ(TryCreate("/t5", columns, 5), 0);
    EXPECT_EQ(Open("/t5", 6)->implicitly_controlled, 0u);

    sr_i_table_t *p_reader = Open("/m/t", 1);
    EXPECT_EQ(fcntl(p_reader->file_fd, F_GETFL) & O_ACCMODE, O_RDONLY);
    // A reader becomes the writer by reloading the file.
    sr_i_table_t *p_writer = Open("/m/t", 2);
    ASSERT_EQ(p_writer, p_reader);
    EXPECT_EQ(fcntl(p_writer->file_fd, F_GETFL) & O_ACCMODE, O_RDWR);
    Open("/m/t", 6, 211);
    EXPECT_EQ(Open("/m/t", 1), p_writer);  // a reader shares the writer's record unchanged
    EXPECT_EQ(p_writer->mode, 2u);
    EXPECT_EQ(p_writer->references, 3u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(sr_close_table_1(p_writer), 0);
    sr_i_table_t *p_explicit = Open("/m/t", 7);
    Open("/m/t", 2, 211);
    EXPECT_EQ(Open("/m/t", 6), p_explicit);

    Open("/nowhere", 2, 200);
    EXPECT_EQ(last_error().message, "2605-200 The table does not exist.\n");
    WriteBytes(File("short"), std::string(12, '\0'));
    Open("/m/short", 1, 14);
}

TEST_F(CreateOpenTest, DeletedTablesLiveUntilTheirLastClose) {
    sr_i_table_t *p_table = Create("/m/t", ScalarColumns(2));
    WriteBytes(File("t.rewrite"), "left by a crash");
    ASSERT_EQ(sr_delete_table_1(tree_, Text("/m/t")), 0);
    EXPECT_FALSE(Exists(File("t")) || Exists(File("t.rewrite")));
    EXPECT_EQ(AddC1(p_table, 1, 1), 0);  // the handle still works
    Open("/m/t", 1, 200);
    EXPECT_EQ(sr_delete_table_1(tree_, Text("/m/t")), 200);
    EXPECT_EQ(sr_close_table_1(p_table), 0);
    EXPECT_EQ(sr_delete_table_1(tree_, Text("/m/a b")), 102);
}

// A packed rows array makes a read-only committed table of the records it points at, uncopied.
TEST_F(CreateOpenTest, PackedRowsBecomeAReadOnlyCommittedTableInPlace) {
    FileImage rows;
    for (qx_uint64_t k : {1, 2, 3, 2}) rows.Row(0, {k, k * 10});
    auto columns = ScalarColumns(2);
    sr_opaque_handle_t table = nullptr;
    auto create = [&](const char *path, std::vector<qx_uint32_t> offsets) {
        auto *p_array = static_cast<qx_array_t *>(std::malloc(QX_ARRAY_SIZE(offsets.size())));
        p_array->element_count = static_cast<qx_uint32_t>(offsets.size());
        for (size_t i = 0; i < offsets.size(); ++i)
            p_array->elements[i].ptr_char = rows.bytes.data() + offsets[i];
        return sr_x_create_table(tree_, Text(path), columns.data(), 2, 1, nullptr, p_array, &table);
    };
    ASSERT_EQ(create("/m/packed", {0, 32, 64}), 0);
    auto *p_table = static_cast<sr_i_table_t *>(table);
    EXPECT_FALSE(Exists(File("packed")));  // never a file, even under a mount point
    EXPECT_EQ(Val(table, 2, "c1").val_int64, 20);
    EXPECT_EQ(AddC1(p_table, 4, 40), 206);
    for (qx_uint32_t i = 0; i < 3; ++i) {
        const sr_i_index_entry_t &e = p_table->p_rows_fixed_index[p_table->p_rows_packed_index[i]];
        EXPECT_EQ(e.p_committed, rows.bytes.data() + 32 * i + 12);
    }
    EXPECT_EQ(sr_close_table_1(table), 0);
    // Two rows of one key: 108, and the array goes with the failed table.
    EXPECT_EQ(create("/dup", {0, 32, 96}), 108);
    EXPECT_EQ(create("/a b", {0}), 102);
}

TEST_F(CreateOpenTest, ClosingATreeClosesItsTablesAndGivesUpTheirLocks) {
    sr_opaque_handle_t other = nullptr, table = nullptr;
    ASSERT_EQ(sr_open_tree_1(&other, 0, 0), 0);
    ASSERT_EQ(sr_mount_local_tree_1(other, Text("/m"), Text(tmp_.file("d")), 1), 0);
    std::vector<sr_column_t> columns = ScalarColumns(2);
    ASSERT_EQ(sr_create_table_1(other, Text("/m/t"), columns.data(), 2, 2, &table), 0);
    ASSERT_EQ(sr_create_table_1(other, Text("/t"), columns.data(), 2, 2, &table), 0);
    sr_close_tree_1(other);
    // The file is free for another writer at once.
    int fd = open(File("t").c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    pid_t pid = fork();
    if (pid == 0) _exit(lockf(fd, F_TLOCK, 0) == 0 ? 0 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    close(fd);
}

}  // namespace
}  // namespace qxtest
