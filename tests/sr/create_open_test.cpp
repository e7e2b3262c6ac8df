// Creating, opening, closing and deleting tables through the exported calls:
// column validation, the bytes of a new table file, the open modes and their
// conflicts, shared records, transient tables that outlive their last close,
// deletion while open, and what a failed create leaves behind.
#include <errno.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "sr/table_test_util.h"

using qxtest::ColumnEntry;
using qxtest::ColumnEntryAt;
using qxtest::Exists;
using qxtest::kColumnEntry;
using qxtest::last_error;
using qxtest::ReadBytes;
using qxtest::U32At;
using qxtest::U64At;

namespace {

constexpr size_t kCol = sizeof(sr_column_t);

class CreateTableTest : public qxtest::TableTest {
  protected:
    qx_int32_t TryCreate(const std::string &path, std::vector<sr_column_t> &columns, int mode = 2) {
        sr_opaque_handle_t table = nullptr;
        qx_int32_t rc = sr_create_table_1(tree_, Text(path), columns.data(),
                                          static_cast<qx_uint32_t>(columns.size()), mode, &table);
        if (rc == 0) created_.push_back(table);
        return rc;
    }
    void TearDown() override {
        for (auto table : created_) sr_close_table_1(table);
        qxtest::TableTest::TearDown();
    }
    std::vector<sr_opaque_handle_t> created_;
};

TEST_F(CreateTableTest, ColumnNamesFollowTheIdentifierRule) {
    for (const std::string &bad :
         std::vector<std::string>{"1abc", "a b", "", "a-b", "_a", std::string(256, 'a')}) {
        auto columns = ScalarColumns(2);
        columns[1].name = Text(bad);
        EXPECT_EQ(TryCreate("/t_bad", columns), 105) << bad;
    }
    auto columns = ScalarColumns(2);
    columns[1].name = nullptr;
    EXPECT_EQ(TryCreate("/t_null", columns), 105);
    columns = ScalarColumns(2);
    columns[1].name = Text("a1_");
    EXPECT_EQ(TryCreate("/t_good", columns), 0);
    columns = ScalarColumns(2);
    columns[1].name = Text(std::string(255, 'z'));
    EXPECT_EQ(TryCreate("/t_long", columns), 0);
}

TEST_F(CreateTableTest, ColumnValidationCodesInTheirOrder) {
    std::vector<sr_column_t> one = ScalarColumns(1);
    sr_opaque_handle_t table = nullptr;
    EXPECT_EQ(sr_create_table_1(tree_, Text("/t"), one.data(), 0, 2, &table), 104);
    EXPECT_EQ(last_error().code, 104);

    auto columns = ScalarColumns(3);
    columns[0].type = QX_BINARY_PTR;
    EXPECT_EQ(TryCreate("/t", columns), 105) << "binary key";
    columns = ScalarColumns(3);
    columns[0].type = QX_INT32_ARRAY;
    EXPECT_EQ(TryCreate("/t", columns), 105) << "array key";
    columns = ScalarColumns(3);
    columns[1].type = static_cast<qx_data_type_t>(23);
    EXPECT_EQ(TryCreate("/t", columns), 105) << "type out of range";
    columns = ScalarColumns(3);
    columns[1].type = QX_NONE;
    EXPECT_EQ(TryCreate("/t", columns), 105) << "no type";
    columns = ScalarColumns(3);
    columns[1].qualifier = SR_SYSTEM;
    EXPECT_EQ(TryCreate("/t", columns), 105) << "system qualifier";
    columns = ScalarColumns(3);
    columns[1].type = QX_SD_PTR;
    EXPECT_EQ(TryCreate("/t", columns), 105) << "structured data without a definition";

    columns = ScalarColumns(3);
    columns[0].qualifier = SR_STANDARD;
    EXPECT_EQ(TryCreate("/t", columns), 107);
    EXPECT_EQ(last_error().message, "2605-107 The key column value was expected.\n");
    columns = ScalarColumns(3);
    columns[2].qualifier = SR_PRIMARY_KEY_NOCHECK;
    EXPECT_EQ(TryCreate("/t", columns), 108);
    columns = ScalarColumns(3);
    columns[2].name = columns[1].name;
    EXPECT_EQ(TryCreate("/t", columns), 106);
    EXPECT_EQ(last_error().message,
              "2605-106 More than one column with the same name was supplied.\n");

    // A key column with the protected and invisible bits is still the key.
    columns = ScalarColumns(3);
    columns[0].qualifier = SR_PRIMARY_KEY | SR_PROTECTED | SR_INVISIBLE;
    EXPECT_EQ(TryCreate("/t", columns), 0);
}

TEST_F(CreateTableTest, ArgumentChecksComeBeforeTheTreeIsTouched) {
    auto columns = ScalarColumns(2);
    sr_opaque_handle_t table = nullptr;
    EXPECT_EQ(sr_create_table_1(nullptr, Text("/t"), columns.data(), 2, 2, &table), 100);
    EXPECT_EQ(sr_create_table_1(tree_, Text("/t"), nullptr, 2, 2, &table), 101);
    EXPECT_EQ(sr_create_table_1(tree_, Text("/t"), columns.data(), 2, 2, nullptr), 101);
    EXPECT_EQ(sr_create_table_1(tree_, Text("/t"), columns.data(), 2, 8, &table), 103);
    EXPECT_EQ(sr_create_table_1(tree_, Text("/t"), columns.data(), 2, -1, &table), 103);
    EXPECT_EQ(sr_create_table_1(tree_, Text("/a b"), columns.data(), 2, 2, &table), 102);
    EXPECT_EQ(sr_create_table_1(tree_, nullptr, columns.data(), 2, 2, &table), 102);
    EXPECT_EQ(last_error().message, "2605-102 <NULL POINTER> is an invalid pathname.\n");
}

// Another process creates the table between this create's check for it and
// the rename of the new file into place (here: during the new file's sync).
// Its table stays and this create reports 201.
std::string Appearing_Path;
std::string Appearing_Bytes;
int SyncWhileATableAppears(int fd) {
    if (!Appearing_Path.empty()) {
        qxtest::WriteBytes(Appearing_Path, Appearing_Bytes);
        Appearing_Path.clear();
    }
    return fdatasync(fd);
}

TEST_F(CreateTableTest, TableThatAppearsDuringCreateIsNotReplaced) {
    ASSERT_EQ(sr_close_table_1(Create("/m/other", ScalarColumns(3))), 0);
    Appearing_Bytes = ReadBytes(File("other"));
    Appearing_Path = File("t");
    sr_i_file_ops.p_fdatasync = SyncWhileATableAppears;
    std::vector<sr_column_t> columns = ScalarColumns(2);
    sr_opaque_handle_t table = nullptr;
    EXPECT_EQ(sr_create_table_1(tree_, Text("/m/t"), columns.data(), 2, 2, &table),
              SR_E_TABLE_EXISTS);
    sr_i_file_ops = sr_i_default_file_ops;
    EXPECT_EQ(ReadBytes(File("t")), Appearing_Bytes);
    EXPECT_FALSE(Exists(File("t") + ".rewrite"));
}

TEST_F(CreateTableTest, CreatedTableIsAlwaysOpenForWrite) {
    auto columns = ScalarColumns(2);
    ASSERT_EQ(TryCreate("/t0", columns, 0), 0);
    auto *p_table = static_cast<sr_i_table_t *>(created_.back());
    EXPECT_EQ(p_table->mode, 2u);
    EXPECT_EQ(p_table->implicitly_controlled, 1u);
    EXPECT_EQ(p_table->references, 1u);
    EXPECT_EQ(p_table->change_counter, 1u);
    EXPECT_EQ(p_table->block_size, 0u);
    EXPECT_EQ(p_table->p_file_path, nullptr);

    ASSERT_EQ(TryCreate("/t5", columns, 5), 0);
    p_table = static_cast<sr_i_table_t *>(created_.back());
    EXPECT_EQ(p_table->mode, 2u);
    EXPECT_EQ(p_table->implicitly_controlled, 0u);
}

TEST_F(CreateTableTest, KeyGivenThirdIsColumnZeroOfTheTableButNotOfTheCaller) {
    auto columns = ScalarColumns(3);
    std::swap(columns[0], columns[2]);  // key third
    std::vector<sr_column_t> given = columns;
    ASSERT_EQ(TryCreate("/t", columns), 0);
    for (size_t i = 0; i < columns.size(); ++i) {
        EXPECT_EQ(std::memcmp(&columns[i], &given[i], kCol), 0) << i;
    }
    auto *p_table = static_cast<sr_i_table_t *>(created_.back());
    ASSERT_EQ(p_table->total_columns, 3u);
    EXPECT_STREQ(sr_i_load_column(&p_table->p_columns[0]).name, "k");
    EXPECT_STREQ(sr_i_load_column(&p_table->p_columns[1]).name, "c1");
    EXPECT_STREQ(sr_i_load_column(&p_table->p_columns[2]).name, "c2");
}

TEST_F(CreateTableTest, ColumnsOfATableReadAsDefinitions) {
    auto columns = ScalarColumns(2);
    ASSERT_EQ(TryCreate("/t", columns), 0);
    auto *p_table = static_cast<sr_i_table_t *>(created_.back());
    EXPECT_STREQ(p_table->p_columns[1].name, "c1");
    EXPECT_EQ(p_table->p_columns[1].default_value.val_int64, 101);
}

TEST_F(CreateTableTest, AnOpenTableOfThatNameOrAnExistingFileIs201) {
    auto columns = ScalarColumns(2);
    ASSERT_EQ(TryCreate("/t", columns), 0);
    EXPECT_EQ(TryCreate("/t", columns), 201);
    EXPECT_EQ(last_error().message, "2605-201 The table already exists.\n");

    qxtest::WriteBytes(File("f"), "not a table");
    EXPECT_EQ(TryCreate("/m/f", columns), 201);
    EXPECT_EQ(ReadBytes(File("f")), "not a table");
    EXPECT_FALSE(Exists(File("f.rewrite")));
}

TEST_F(CreateTableTest, ResourceHandleKeyGetsTheDefaultHashedIndex) {
    auto columns = ScalarColumns(2);
    columns[0].type = QX_RSRC_HANDLE_PTR;
    columns[0].default_value.ptr_rsrc_handle = nullptr;
    ASSERT_EQ(TryCreate("/t", columns), 0);
    auto *p_table = static_cast<sr_i_table_t *>(created_.back());
    ASSERT_NE(p_table->p_rows_hash_table, nullptr);
    EXPECT_EQ(p_table->p_rows_hash_table->total_hash_buckets, 16384u);
}

qx_uint32_t HashFirstByte(const void *p_key) {
    return *static_cast<const unsigned char *>(p_key) % 7;
}
qx_int32_t CompareInt64(const void *p1, const void *p2) {
    return std::memcmp(p1, p2, 8);
}

TEST_F(CreateTableTest, HashedKeyTableTakesTheCallersIndex) {
    auto columns = ScalarColumns(2);
    sr_opaque_handle_t table = nullptr;
    EXPECT_EQ(sr_create_hashed_key_table_1(tree_, Text("/h"), columns.data(), 2, 2, 0,
                                           HashFirstByte, CompareInt64, &table),
              101);
    EXPECT_EQ(sr_create_hashed_key_table_1(tree_, Text("/h"), columns.data(), 2, 2, 7, nullptr,
                                           CompareInt64, &table),
              101);
    EXPECT_EQ(sr_create_hashed_key_table_1(tree_, Text("/h"), columns.data(), 2, 2, 7,
                                           HashFirstByte, nullptr, &table),
              101);
    // A failed validation closes the index it was given (the leak checker
    // watches this one).
    columns[0].qualifier = SR_STANDARD;
    EXPECT_EQ(sr_create_hashed_key_table_1(tree_, Text("/h"), columns.data(), 2, 2, 7,
                                           HashFirstByte, CompareInt64, &table),
              107);
    columns[0].qualifier = SR_PRIMARY_KEY;
    EXPECT_EQ(sr_create_hashed_key_table_1(tree_, Text("/m/h"), columns.data(), 2, 6, 7,
                                           HashFirstByte, CompareInt64, &table),
              0);
    auto *p_table = static_cast<sr_i_table_t *>(table);
    ASSERT_NE(p_table->p_rows_hash_table, nullptr);
    EXPECT_EQ(p_table->p_rows_hash_table->total_hash_buckets, 7u);
    EXPECT_EQ(p_table->p_rows_hash_table->p_hash_function, HashFirstByte);
    EXPECT_EQ(sr_close_table_1(table), 0);
}

// The bytes of a new table file: the metadata record with its column array
// (names and definitions as offsets), the packed defaults, the names and the
// structured-data definitions, then a commit record of 24 bytes.
TEST_F(CreateTableTest, NewFileHoldsTheMetadataRecordAndAFirstCommitRecord) {
    sr_sd_def_t *p_sd =
        static_cast<sr_sd_def_t *>(std::calloc(1, sizeof(sr_sd_def_t) + sizeof(sr_sd_field_def_t)));
    p_sd->number_of_fields = 2;
    p_sd->field_def[0] = {QX_INT32, Text("f1")};
    p_sd->field_def[1] = {QX_CHAR_PTR, Text("name2")};
    std::vector<sr_column_t> columns(3);
    columns[0] = {Text("s"), QX_SD_PTR, SR_STANDARD, 7, p_sd, {}};
    columns[1] = {Text("key"), QX_CHAR_PTR, SR_PRIMARY_KEY, -3, nullptr, {}};
    columns[1].default_value.ptr_char = Text("abc");
    columns[2] = {Text("n"), QX_INT32, SR_STANDARD | SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED,
                  0,         nullptr,  {}};
    columns[2].default_value.val_int32 = 42;
    ASSERT_EQ(TryCreate("/m/t", columns), 0);
    std::free(p_sd);

    // The anchors of the packed defaults are left in the caller's array.
    qx_pmsg_anchor_t key_anchor;
    std::memcpy(&key_anchor, &columns[1].default_value, 8);
    EXPECT_EQ(key_anchor.length, 4u);  // "abc" and its NUL
    EXPECT_EQ(columns[2].default_value.val_int32, 42);

    std::string bytes = ReadBytes(File("t"));
    const qx_uint32_t meta_length = U32At(bytes, 0);
    ASSERT_EQ(bytes.size(), meta_length + 24u);
    EXPECT_EQ(U32At(bytes, 8), 1u);  // metadata record
    const size_t data = 12;
    EXPECT_EQ(U32At(bytes, data + 0), 0u);  // written on a little-endian host
    EXPECT_EQ(U32At(bytes, data + 4), 0u);
    EXPECT_EQ(U32At(bytes, data + 8), 3u);
    EXPECT_EQ(U32At(bytes, data + 12), 2u);  // the string and the structured data
    const size_t array = data + 16;
    const size_t area = array + 3 * kColumnEntry;
    auto column_at = [&](int i) { return ColumnEntryAt(bytes, array + i * kColumnEntry); };
    auto text_at = [&](uintptr_t offset) { return std::string(bytes.data() + area + offset); };
    // Key first, then the others in the order given, the key's place taken
    // by the column that was first.
    ColumnEntry c0 = column_at(0), c1 = column_at(1), c2 = column_at(2);
    EXPECT_EQ(text_at(c0.name), "key");
    EXPECT_EQ(text_at(c1.name), "s");
    EXPECT_EQ(text_at(c2.name), "n");
    EXPECT_EQ(c0.type, static_cast<qx_uint32_t>(QX_CHAR_PTR));
    EXPECT_EQ(c0.qualifier, static_cast<sr_qualifier_t>(SR_PRIMARY_KEY));
    EXPECT_EQ(c0.properties, -3);
    EXPECT_EQ(c0.sd_defn, 0u);
    EXPECT_EQ(c1.properties, 7);
    EXPECT_EQ(static_cast<qx_int32_t>(c2.default_value), 42);
    // The key's default: its protocol form in the area.
    qx_pmsg_anchor_t anchor;
    std::memcpy(&anchor, &c0.default_value, 8);
    EXPECT_EQ(anchor.length, 4u);
    EXPECT_EQ(text_at(anchor.offset), "abc");
    // Names follow the defaults, in column order, NUL-terminated.
    const uintptr_t names = c0.name;
    EXPECT_EQ(c1.name, names + 4);
    EXPECT_EQ(c2.name, names + 6);
    // The definition: count, then type and name per field, unaligned.
    const uintptr_t sd = c1.sd_defn;
    EXPECT_EQ(sd, names + 8);
    EXPECT_EQ(U32At(bytes, area + sd), 2u);
    EXPECT_EQ(U32At(bytes, area + sd + 4), static_cast<qx_uint32_t>(QX_INT32));
    EXPECT_EQ(text_at(sd + 8), "f1");
    EXPECT_EQ(U32At(bytes, area + sd + 11), static_cast<qx_uint32_t>(QX_CHAR_PTR));
    EXPECT_EQ(text_at(sd + 15), "name2");
    EXPECT_EQ(meta_length, area + sd + 21);

    // The commit record: 24 bytes, link 0, type -1, 8 bytes follow, counter 1.
    EXPECT_EQ(U32At(bytes, meta_length), 24u);
    EXPECT_EQ(U32At(bytes, meta_length + 4), 0u);
    EXPECT_EQ(U32At(bytes, meta_length + 8), 0xFFFFFFFFu);
    EXPECT_EQ(U32At(bytes, meta_length + 12), 8u);
    EXPECT_EQ(U64At(bytes, meta_length + 16), 1u);
    EXPECT_FALSE(Exists(File("t.rewrite")));

    auto *p_table = static_cast<sr_i_table_t *>(created_.back());
    EXPECT_EQ(p_table->file_length, bytes.size());
    EXPECT_EQ(p_table->commit_record_offset, meta_length);
    EXPECT_EQ(p_table->commit_record_length, 24u);
    EXPECT_EQ(p_table->block_size, 512u);
    EXPECT_GE(p_table->file_fd, 0);
    EXPECT_EQ(p_table->rewrite_file_fd, -1);
    EXPECT_STREQ(p_table->p_name, File("t").c_str());
    EXPECT_STREQ(p_table->p_persistent_table_registry_path, "/m/t");
    // In memory the names are addresses again.
    EXPECT_STREQ(sr_i_load_column(&p_table->p_columns[1]).name, "s");
}

// A writev that fails with ENOSPC after a create has begun: 13, no file of
// either name, the caller's array exactly as given.
ssize_t FullDiskWritev(int, const struct iovec *, int) {
    errno = ENOSPC;
    return -1;
}
int FailingSync(int) {
    errno = EIO;
    return -1;
}

TEST_F(CreateTableTest, FailedCreateLeavesNoFileAndTheCallersArrayUnchanged) {
    std::vector<sr_column_t> columns = ScalarColumns(3);
    columns[2].type = QX_CHAR_PTR;
    columns[2].default_value.ptr_char = Text("default");
    std::swap(columns[0], columns[1]);
    const std::vector<sr_column_t> given = columns;

    sr_i_file_ops.p_writev = FullDiskWritev;
    EXPECT_EQ(TryCreate("/m/t", columns), 13);
    sr_i_file_ops = sr_i_default_file_ops;
    EXPECT_FALSE(Exists(File("t")));
    EXPECT_FALSE(Exists(File("t.rewrite")));
    for (size_t i = 0; i < given.size(); ++i) {
        EXPECT_EQ(std::memcmp(&columns[i], &given[i], kCol), 0) << i;
    }

    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(tmp_.path().c_str()), 0);  // the sync capture file lands here
    sr_i_file_ops.p_fdatasync = FailingSync;
    EXPECT_EQ(TryCreate("/m/t", columns), 10);
    sr_i_file_ops = sr_i_default_file_ops;
    ASSERT_EQ(chdir(cwd), 0);
    EXPECT_FALSE(Exists(File("t")));
    EXPECT_FALSE(Exists(File("t.rewrite")));
    for (size_t i = 0; i < given.size(); ++i) {
        EXPECT_EQ(std::memcmp(&columns[i], &given[i], kCol), 0) << i;
    }
    // Nothing of the failures stays in the tree either.
    EXPECT_EQ(TryCreate("/m/t", columns), 0);
}

// Every allocation of a create, failed in turn: 12 and nothing left behind,
// until the create goes through.
TEST_F(CreateTableTest, EveryAllocationFailureIs12AndLeavesNothing) {
    bool created = false;
    for (qx_int64_t n = 0; n < 200 && !created; ++n) {
        std::vector<sr_column_t> columns = ScalarColumns(2);
        columns[1].type = QX_CHAR_PTR;
        columns[1].default_value.ptr_char = Text("d");
        const std::vector<sr_column_t> given = columns;
        sr_i_alloc_fail_after(n);
        qx_int32_t rc = TryCreate("/m/t", columns);
        bool failed_inside = sr_i_alloc_failure_pending() == 0;
        sr_i_alloc_fail_after(-1);
        if (rc == 0) {
            created = true;
            break;
        }
        EXPECT_TRUE(failed_inside) << n;
        EXPECT_EQ(rc, 12) << n;
        EXPECT_FALSE(Exists(File("t"))) << n;
        EXPECT_FALSE(Exists(File("t.rewrite"))) << n;
        for (size_t i = 0; i < given.size(); ++i) {
            EXPECT_EQ(std::memcmp(&columns[i], &given[i], kCol), 0) << n << " " << i;
        }
    }
    EXPECT_TRUE(created);
}

class OpenTableTest : public qxtest::TableTest {
  protected:
    sr_i_table_t *Open(const std::string &path, int mode, qx_int32_t expected = 0) {
        sr_opaque_handle_t table = nullptr;
        EXPECT_EQ(sr_open_table_1(tree_, Text(path), mode, &table), expected) << path << mode;
        return static_cast<sr_i_table_t *>(table);
    }
    // Adds (key, value) through the exported call.
    static qx_int32_t Add(sr_opaque_handle_t table, qx_int64_t key, qx_int64_t value) {
        char key_name[] = "k";
        char value_name[] = "c1";
        qx_char_ptr_t names[2] = {key_name, value_name};
        qx_value_t values[2] = {};
        values[0].val_int64 = key;
        values[1].val_int64 = value;
        qx_value_t *p_values[2] = {&values[0], &values[1]};
        return sr_add_row_1(table, names, p_values, 2);
    }
    // Column c1 of the row with key `key`, or -1.
    static qx_int64_t ValueOf(sr_opaque_handle_t table, qx_int64_t key) {
        qx_value_t row_key{};
        row_key.val_int64 = key;
        qx_value_t result{};
        char name[] = "c1";
        if (sr_get_field_by_key_1(table, row_key, name, &result) != 0) return -1;
        return result.val_int64;
    }
};

TEST_F(OpenTableTest, ModesAreNormalisedOrRefused) {
    ASSERT_EQ(sr_close_table_1(Create("/m/t", ScalarColumns(2))), 0);
    for (int mode : {0, 4, 5, 8, -1, 100}) {
        Open("/m/t", mode, 103);
        EXPECT_EQ(last_error().message,
                  "2605-103 An invalid mode was specified while trying to create or open the "
                  "table.\n");
    }
    sr_i_table_t *p_table = Open("/m/t", 3);
    ASSERT_NE(p_table, nullptr);
    EXPECT_EQ(p_table->mode, 2u);
    EXPECT_EQ(p_table->implicitly_controlled, 1u);
    ASSERT_EQ(sr_close_table_1(p_table), 0);
    p_table = Open("/m/t", 7);
    ASSERT_NE(p_table, nullptr);
    EXPECT_EQ(p_table->mode, 6u);
    EXPECT_EQ(p_table->implicitly_controlled, 0u);
    ASSERT_EQ(sr_close_table_1(p_table), 0);
    p_table = Open("/m/t", 1);
    ASSERT_NE(p_table, nullptr);
    EXPECT_EQ(p_table->mode, 1u);
    ASSERT_EQ(sr_close_table_1(p_table), 0);
}

TEST_F(OpenTableTest, NullHandlesAndPointers) {
    sr_opaque_handle_t table = nullptr;
    EXPECT_EQ(sr_open_table_1(nullptr, Text("/t"), 2, &table), 100);
    EXPECT_EQ(sr_open_table_1(tree_, Text("/t"), 2, nullptr), 101);
    EXPECT_EQ(sr_close_table_1(nullptr), 100);
    EXPECT_EQ(sr_delete_table_1(nullptr, Text("/t")), 100);
    EXPECT_EQ(
        sr_open_hashed_key_table_1(tree_, Text("/t"), 2, 0, HashFirstByte, CompareInt64, &table),
        101);
}

TEST_F(OpenTableTest, WriteOpensMustAgreeOnControl) {
    sr_i_table_t *p_first = Create("/m/t", ScalarColumns(2));
    ASSERT_NE(p_first, nullptr);
    Open("/m/t", 6, 211);
    EXPECT_EQ(last_error().code, 211);
    EXPECT_EQ(p_first->references, 1u);
    sr_i_table_t *p_second = Open("/m/t", 2);
    EXPECT_EQ(p_second, p_first);
    EXPECT_EQ(p_first->references, 2u);
    // A reader shares the writer's record unchanged.
    sr_i_table_t *p_reader = Open("/m/t", 1);
    EXPECT_EQ(p_reader, p_first);
    EXPECT_EQ(p_first->mode, 2u);
    EXPECT_EQ(p_first->references, 3u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(sr_close_table_1(p_first), 0);

    sr_i_table_t *p_explicit = Open("/m/t", 7);
    ASSERT_NE(p_explicit, nullptr);
    Open("/m/t", 2, 211);
    EXPECT_EQ(Open("/m/t", 6), p_explicit);
    EXPECT_EQ(p_explicit->references, 2u);
}

TEST_F(OpenTableTest, ReaderBecomesWriterByReloadingTheFile) {
    ASSERT_EQ(sr_close_table_1(Create("/m/t", ScalarColumns(2))), 0);
    sr_i_table_t *p_reader = Open("/m/t", 1);
    ASSERT_NE(p_reader, nullptr);
    const qx_int32_t read_fd = p_reader->file_fd;
    EXPECT_EQ(fcntl(read_fd, F_GETFL) & O_ACCMODE, O_RDONLY);
    sr_i_table_t *p_writer = Open("/m/t", 6);
    ASSERT_EQ(p_writer, p_reader);
    EXPECT_EQ(p_writer->mode, 6u);
    EXPECT_EQ(p_writer->implicitly_controlled, 0u);
    EXPECT_EQ(p_writer->references, 2u);
    EXPECT_EQ(fcntl(p_writer->file_fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(p_writer->total_columns, 2u);
    EXPECT_STREQ(sr_i_load_column(&p_writer->p_columns[1]).name, "c1");
    // A third open for write must agree with the reloaded control mode.
    Open("/m/t", 2, 211);
}

TEST_F(OpenTableTest, PersistentTableIsReadAgainByAnotherTree) {
    ASSERT_EQ(sr_close_table_1(Create("/m/t", ScalarColumns(3))), 0);
    sr_opaque_handle_t other = nullptr;
    ASSERT_EQ(sr_open_tree_1(&other, 0, 0), 0);
    sr_opaque_handle_t table = nullptr;
    EXPECT_EQ(sr_open_table_1(other, Text("/m/t"), 1, &table), 200);  // not mounted there
    ASSERT_EQ(sr_mount_local_tree_1(other, Text("/m"), Text(tmp_.file("d")), 1), 0);
    ASSERT_EQ(sr_open_table_1(other, Text("/m/t"), 1, &table), 0);
    auto *p_table = static_cast<sr_i_table_t *>(table);
    EXPECT_EQ(p_table->total_columns, 3u);
    EXPECT_EQ(p_table->change_counter, 1u);
    EXPECT_EQ(p_table->total_committed_rows, 0u);
    EXPECT_EQ(p_table->p_columns[2].default_value.val_int64, 102);
    EXPECT_STREQ(p_table->p_persistent_table_registry_path, "/m/t");
    EXPECT_EQ(sr_close_table_1(table), 0);
    sr_close_tree_1(other);
}

TEST_F(OpenTableTest, MissingTablesAre200) {
    Open("/nowhere", 2, 200);
    EXPECT_EQ(last_error().message, "2605-200 The table does not exist.\n");
    Open("/m/nowhere", 2, 200);
    sr_opaque_handle_t table = nullptr;
    // The index made for an open that makes no record is closed again.
    EXPECT_EQ(sr_open_hashed_key_table_1(tree_, Text("/m/nowhere"), 2, 7, HashFirstByte,
                                         CompareInt64, &table),
              200);
    EXPECT_EQ(sr_open_hashed_key_table_1(tree_, Text("/nowhere"), 2, 7, HashFirstByte, CompareInt64,
                                         &table),
              200);
    EXPECT_EQ(sr_open_hashed_key_table_1(tree_, Text("/nowhere"), 4, 7, HashFirstByte, CompareInt64,
                                         &table),
              103);
}

TEST_F(OpenTableTest, TransientTableOutlivesItsLastCloseUntilDeleted) {
    sr_i_table_t *p_table = Create("/t", ScalarColumns(2), 6);
    ASSERT_NE(p_table, nullptr);
    EXPECT_EQ(p_table->implicitly_controlled, 0u);
    ASSERT_EQ(sr_close_table_1(p_table), 0);
    EXPECT_EQ(p_table->references, 0u);
    // Opened again: the same record with its modes set afresh.
    sr_i_table_t *p_again = Open("/t", 1);
    EXPECT_EQ(p_again, p_table);
    EXPECT_EQ(p_again->mode, 1u);
    EXPECT_EQ(p_again->implicitly_controlled, 1u);
    EXPECT_EQ(Open("/t", 6), p_table);  // read-only transient: just takes write
    EXPECT_EQ(p_table->mode, 2u);
    EXPECT_EQ(p_table->implicitly_controlled, 0u);
    EXPECT_EQ(sr_close_table_1(p_table), 0);
    EXPECT_EQ(sr_close_table_1(p_table), 0);

    EXPECT_EQ(sr_delete_table_1(tree_, Text("/t")), 0);
    Open("/t", 2, 200);
    EXPECT_EQ(sr_delete_table_1(tree_, Text("/t")), 200);
}

TEST_F(OpenTableTest, TransientTableIsReopenedWithItsRows) {
    sr_i_table_t *p_table = Create("/t", ScalarColumns(2));
    ASSERT_EQ(Add(p_table, 1, 10), 0);
    ASSERT_EQ(Add(p_table, 2, 20), 0);
    ASSERT_EQ(sr_close_table_1(p_table), 0);
    sr_i_table_t *p_again = Open("/t", 1);
    ASSERT_EQ(p_again, p_table);
    EXPECT_EQ(p_again->total_committed_rows, 2u);
    EXPECT_EQ(ValueOf(p_again, 1), 10);
    EXPECT_EQ(ValueOf(p_again, 2), 20);
    EXPECT_EQ(Add(p_again, 3, 30), 206);  // opened for read this time
    EXPECT_EQ(sr_close_table_1(p_again), 0);
}

TEST_F(OpenTableTest, RowsWrittenByOneTreeAreReadByAnother) {
    sr_i_table_t *p_table = Create("/m/t", ScalarColumns(2));
    for (int k = 1; k <= 50; ++k) ASSERT_EQ(Add(p_table, k, k * 10), 0);
    ASSERT_EQ(sr_delete_row_by_index_1(p_table, 0), 0);
    sr_opaque_handle_t other = nullptr;
    ASSERT_EQ(sr_open_tree_1(&other, 0, 0), 0);
    ASSERT_EQ(sr_mount_local_tree_1(other, Text("/m"), Text(tmp_.file("d")), 1), 0);
    sr_opaque_handle_t reader = nullptr;
    ASSERT_EQ(sr_open_table_1(other, Text("/m/t"), 1, &reader), 0);
    auto *p_reader = static_cast<sr_i_table_t *>(reader);
    EXPECT_EQ(p_reader->total_committed_rows, 49u);
    EXPECT_EQ(p_reader->change_counter, p_table->change_counter);
    EXPECT_EQ(ValueOf(reader, 1), -1);
    EXPECT_EQ(ValueOf(reader, 2), 20);
    EXPECT_EQ(ValueOf(reader, 50), 500);
    sr_close_tree_1(other);
}

TEST_F(OpenTableTest, TransientTableDeletedWhileOpenLivesUntilItsLastClose) {
    sr_i_table_t *p_table = Create("/t", ScalarColumns(2));
    ASSERT_EQ(sr_delete_table_1(tree_, Text("/t")), 0);
    Open("/t", 2, 200);
    // A new table of the same name is another record; closing the old one
    // leaves it alone.
    sr_i_table_t *p_new = Create("/t", ScalarColumns(3));
    ASSERT_NE(p_new, nullptr);
    EXPECT_NE(p_new, p_table);
    EXPECT_EQ(p_table->total_columns, 2u);
    EXPECT_EQ(sr_close_table_1(p_table), 0);
    EXPECT_EQ(Open("/t", 2), p_new);
}

TEST_F(OpenTableTest, PersistentTableDeletedWhileOpenKeepsItsHandle) {
    sr_i_table_t *p_table = Create("/m/t", ScalarColumns(2));
    ASSERT_NE(p_table, nullptr);
    qxtest::WriteBytes(File("t.rewrite"), "left by a crash");
    ASSERT_EQ(sr_delete_table_1(tree_, Text("/m/t")), 0);
    EXPECT_FALSE(Exists(File("t")));
    EXPECT_FALSE(Exists(File("t.rewrite")));
    // The handle still works on its descriptor of the unlinked file.
    EXPECT_EQ(p_table->total_columns, 2u);
    struct stat st;
    EXPECT_EQ(fstat(p_table->file_fd, &st), 0);
    EXPECT_EQ(st.st_nlink, 0u);
    Open("/m/t", 1, 200);
    EXPECT_EQ(sr_delete_table_1(tree_, Text("/m/t")), 200);
    EXPECT_EQ(sr_close_table_1(p_table), 0);
}

TEST_F(OpenTableTest, DeletingAPersistentTableThatIsNotOpenRemovesItsFile) {
    ASSERT_EQ(sr_close_table_1(Create("/m/t", ScalarColumns(2))), 0);
    ASSERT_TRUE(Exists(File("t")));
    EXPECT_EQ(sr_delete_table_1(tree_, Text("/m/t")), 0);
    EXPECT_FALSE(Exists(File("t")));
    EXPECT_EQ(sr_delete_table_1(tree_, Text("/m/t")), 200);
    EXPECT_EQ(sr_delete_table_1(tree_, Text("/m/a b")), 102);
}

TEST_F(OpenTableTest, UnreadableAndForbiddenFiles) {
    qxtest::WriteBytes(File("short"), std::string(12, '\0'));
    Open("/m/short", 1, 14);
    EXPECT_EQ(last_error().message, "2605-014 The table is unreadable.\n");
    if (geteuid() != 0) {
        ASSERT_EQ(sr_close_table_1(Create("/m/t", ScalarColumns(2))), 0);
        ASSERT_EQ(chmod(File("t").c_str(), 0444), 0);
        Open("/m/t", 2, 206);
        EXPECT_NE(Open("/m/t", 1), nullptr);
    }
}

TEST_F(OpenTableTest, SecondOpenOfAHashedTableKeepsTheFirstIndex) {
    sr_i_table_t *p_table = Create("/m/t", ScalarColumns(2));
    ASSERT_EQ(sr_close_table_1(p_table), 0);
    sr_opaque_handle_t table = nullptr;
    ASSERT_EQ(
        sr_open_hashed_key_table_1(tree_, Text("/m/t"), 2, 7, HashFirstByte, CompareInt64, &table),
        0);
    p_table = static_cast<sr_i_table_t *>(table);
    ASSERT_NE(p_table->p_rows_hash_table, nullptr);
    sr_hash_table_t *p_index = p_table->p_rows_hash_table;
    sr_opaque_handle_t again = nullptr;
    ASSERT_EQ(
        sr_open_hashed_key_table_1(tree_, Text("/m/t"), 2, 3, HashFirstByte, CompareInt64, &again),
        0);
    EXPECT_EQ(again, table);
    EXPECT_EQ(p_table->p_rows_hash_table, p_index);
    EXPECT_EQ(p_index->total_hash_buckets, 7u);
}

// A packed rows array makes a read-only table whose rows are the records
// the array points at, committed at once and never copied.
TEST_F(CreateTableTest, PackedRowsBecomeAReadOnlyCommittedTableInPlace) {
    qxtest::FileImage rows;
    rows.Row(0, {1, 10});
    rows.Row(0, {2, 20});
    rows.Row(0, {3, 30});
    auto make_array = [&](std::vector<qx_uint32_t> offsets) {
        auto *p_array = static_cast<qx_array_t *>(std::malloc(QX_ARRAY_SIZE(offsets.size())));
        p_array->element_count = static_cast<qx_uint32_t>(offsets.size());
        for (size_t i = 0; i < offsets.size(); ++i) {
            p_array->elements[i].ptr_char = rows.bytes.data() + offsets[i];
        }
        return p_array;
    };
    auto columns = ScalarColumns(2);
    sr_opaque_handle_t table = nullptr;
    ASSERT_EQ(sr_x_create_table(tree_, Text("/m/packed"), columns.data(), 2, 1, nullptr,
                                make_array({0, 32, 64}), &table),
              0);
    auto *p_table = static_cast<sr_i_table_t *>(table);
    EXPECT_EQ(p_table->mode, 1u);
    EXPECT_EQ(p_table->p_file_path, nullptr);  // never a file, even under a mount point
    EXPECT_FALSE(Exists(File("packed")));
    EXPECT_EQ(p_table->total_committed_rows, 3u);
    EXPECT_EQ(p_table->total_applied_rows, 3u);
    for (qx_uint32_t i = 0; i < 3; ++i) {
        sr_i_index_entry_t *p_entry = &p_table->p_rows_fixed_index[p_table->p_rows_packed_index[i]];
        EXPECT_EQ(p_entry->p_committed, p_entry->p_applied);
        EXPECT_EQ(p_entry->p_committed, rows.bytes.data() + 32 * i + 12);
        EXPECT_EQ(p_entry->packed_index, i);
    }
    // Its name is free again once it is closed: the caller's buffer may go.
    EXPECT_EQ(sr_close_table_1(table), 0);
    ASSERT_EQ(sr_x_create_table(tree_, Text("/m/packed"), columns.data(), 2, 1, nullptr,
                                make_array({64}), &table),
              0);
    EXPECT_EQ(sr_close_table_1(table), 0);

    // Two rows of one key: 108, and the array goes with the failed table.
    rows.Row(0, {2, 21});
    EXPECT_EQ(sr_x_create_table(tree_, Text("/dup"), columns.data(), 2, 1, nullptr,
                                make_array({0, 32, 96}), &table),
              108);
    EXPECT_EQ(sr_x_create_table(tree_, Text("/a b"), columns.data(), 2, 1, nullptr, make_array({0}),
                                &table),
              102);
}

class TreeCloseTest : public qxtest::TableTest {};

TEST_F(TreeCloseTest, ClosingATreeClosesItsTablesAndGivesUpTheirLocks) {
    sr_opaque_handle_t other = nullptr;
    ASSERT_EQ(sr_open_tree_1(&other, 0, 0), 0);
    ASSERT_EQ(sr_mount_local_tree_1(other, Text("/m"), Text(tmp_.file("d")), 1), 0);
    std::vector<sr_column_t> columns = ScalarColumns(2);
    sr_opaque_handle_t table = nullptr;
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
