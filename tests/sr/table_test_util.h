// Helpers of the table tests: file bytes and records, a mounted tree, rows.
#ifndef QX_TESTS_SR_TABLE_TEST_UTIL_H
#define QX_TESTS_SR_TABLE_TEST_UTIL_H

#include <gtest/gtest.h>
#include <search.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "sr/test_util.h"
#include "sr_i.h"

namespace qxtest {

inline std::string ReadBytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteBytes(const std::string &path, const std::string &bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline bool Exists(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// A host-format word of a byte string, at any alignment.
template <class T>
T WordAt(const std::string &bytes, size_t offset) {
    T v = 0;
    std::memcpy(&v, bytes.data() + offset, sizeof v);
    return v;
}
inline const auto U32At = WordAt<qx_uint32_t>;
inline const auto U64At = WordAt<qx_uint64_t>;

// A 32-byte column entry of a metadata record (name, sd_defn: offsets into its indirect area).
constexpr size_t kColumnEntry = 32;
struct ColumnEntry {
    qx_uint32_t name, type, qualifier;
    qx_int32_t properties;
    qx_uint32_t sd_defn, reserved;
    qx_uint64_t default_value;
};
static_assert(sizeof(ColumnEntry) == kColumnEntry);
inline ColumnEntry ColumnEntryAt(const std::string &bytes, size_t offset) {
    ColumnEntry e{};
    std::memcpy(&e, bytes.data() + offset, sizeof e);
    return e;
}

// Appends host-format words to a byte string.
inline void PutU32(std::string &bytes, qx_uint32_t v) {
    bytes.append(reinterpret_cast<const char *>(&v), 4);
}
inline void PutU64(std::string &bytes, qx_uint64_t v) {
    bytes.append(reinterpret_cast<const char *>(&v), 8);
}
inline void PutHeader(std::string &bytes, qx_uint32_t length, qx_int32_t type,
                      qx_uint32_t link = 0) {
    PutU32(bytes, length);
    PutU32(bytes, link);
    PutU32(bytes, static_cast<qx_uint32_t>(type));
}

// Records appended to a table file image, for tables of 8-byte scalar columns only.
struct FileImage {
    std::string bytes;

    // Offset of the record appended next.
    qx_uint32_t End() const { return static_cast<qx_uint32_t>(bytes.size()); }

    qx_uint32_t Row(qx_uint32_t replaces_offset, const std::vector<qx_uint64_t> &slots,
                    qx_uint32_t link = 0xDEADBEEF) {
        qx_uint32_t at = End();
        PutHeader(bytes, static_cast<qx_uint32_t>(12 + 4 + 8 * slots.size()), SR_I_RECORD_TYPE_ROW,
                  link);
        PutU32(bytes, replaces_offset);
        for (qx_uint64_t slot : slots) PutU64(bytes, slot);
        return at;
    }
    qx_uint32_t Deletion(const std::vector<qx_uint32_t> &offsets) {
        qx_uint32_t at = End();
        PutHeader(bytes, static_cast<qx_uint32_t>(16 + 4 * offsets.size()),
                  SR_I_RECORD_TYPE_DELETION, 0xFFFFFFFF);
        PutU32(bytes, static_cast<qx_uint32_t>(offsets.size()));
        for (qx_uint32_t offset : offsets) PutU32(bytes, offset);
        return at;
    }
    qx_uint32_t Free(qx_uint32_t length) {
        qx_uint32_t at = End();
        PutHeader(bytes, length, SR_I_RECORD_TYPE_FREE, 0x12345678);
        bytes.append(length > 12 ? length - 12 : 0, '\x5a');
        return at;
    }
    // A commit record; elements are (type, data) pairs of application metadata.
    qx_uint32_t Commit(qx_uint64_t change_counter,
                       const std::vector<std::pair<qx_uint32_t, std::string>> &elements = {}) {
        qx_uint32_t at = End();
        qx_uint32_t length = 24;
        if (!elements.empty()) {
            length += 4;
            for (const auto &e : elements) length += static_cast<qx_uint32_t>(8 + e.second.size());
        }
        PutHeader(bytes, length, SR_I_RECORD_TYPE_COMMIT);
        PutU32(bytes, length - 16);
        PutU64(bytes, change_counter);
        if (!elements.empty()) {
            PutU32(bytes, static_cast<qx_uint32_t>(elements.size()));
            for (const auto &e : elements) {
                PutU32(bytes, e.first);
                PutU32(bytes, static_cast<qx_uint32_t>(e.second.size()));
                bytes += e.second;
            }
        }
        return at;
    }
    // Turns the commit record at `offset` into free space, as commit does.
    void Retire(qx_uint32_t offset) { std::memset(bytes.data() + offset + 8, 0, 4); }
};

// A value with one member set, the rest of its 8 bytes zero.
template <auto Member, class T>
qx_value_t MakeValue(T v) {
    qx_value_t x{};
    x.*Member = v;
    return x;
}
inline const auto I64 = [](qx_int64_t v) { return MakeValue<&qx_value_t::val_int64>(v); };
inline const auto I32 = [](qx_int32_t v) { return MakeValue<&qx_value_t::val_int32>(v); };
inline const auto Str = [](const char *s) {
    return MakeValue<&qx_value_t::ptr_char>(const_cast<char *>(s));
};

// A tree with "/m" mounted on a fresh directory.
class TableTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(sr_open_tree_1(&tree_, 0, 0), 0);
        ASSERT_EQ(sr_mount_local_tree_1(tree_, Text("/m"), Text(tmp_.file("d")), 1), 0);
    }
    // Closing the tree closes every table a test left open.
    void TearDown() override {
        sr_i_alloc_fail_after(-1);
        sr_i_file_ops = sr_i_default_file_ops;
        sr_close_tree_1(tree_);
    }

    // Frees every table record still in a tree's sets (handles become invalid), tree left open.
    static void CloseAllTables(sr_i_tree_t *p_tree) {
        for (void **p_root : {&p_tree->p_tables, &p_tree->p_unnamed_tables}) {
            while (*p_root != nullptr) {
                sr_i_table_t *p_table = *static_cast<sr_i_table_t **>(*p_root);
                tdelete(p_table, p_root,
                        p_root == &p_tree->p_tables ? sr_i_table_compare : sr_i_pointer_compare);
                sr_i_close_table(p_table);
            }
        }
    }

    char *Text(const std::string &s) {
        texts_.push_back(s);
        return texts_.back().data();
    }
    // The file of registry path /m/<name>.
    std::string File(const std::string &name) const { return tmp_.file("d/" + name); }

    // A key column of INT64 and further INT64 columns named c1, c2, ...
    std::vector<sr_column_t> ScalarColumns(int total) {
        std::vector<sr_column_t> columns(static_cast<size_t>(total));
        for (int i = 0; i < total; ++i) {
            columns[i] = {
                Text(i ? "c" + std::to_string(i) : "k"), QX_INT64, SR_STANDARD, 0, {}, {}};
            columns[i].default_value = I64(100 + i);
        }
        if (total > 0) columns[0].qualifier = SR_PRIMARY_KEY;
        return columns;
    }

    sr_i_table_t *Create(const std::string &path, std::vector<sr_column_t> columns, int mode = 2) {
        sr_opaque_handle_t table = nullptr;
        EXPECT_EQ(sr_create_table_1(tree_, Text(path), columns.data(),
                                    static_cast<qx_uint32_t>(columns.size()), mode, &table),
                  0);
        return static_cast<sr_i_table_t *>(table);
    }

    // Creates /m/<name> with `total` INT64 columns, closes it and returns the file's bytes.
    FileImage NewFile(const std::string &name, int total = 2) {
        sr_i_table_t *p_table = Create("/m/" + name, ScalarColumns(total));
        EXPECT_NE(p_table, nullptr);
        EXPECT_EQ(sr_close_table_1(p_table), 0);
        FileImage image;
        image.bytes = ReadBytes(File(name));
        // Drop the commit record the create wrote; tests append their own.
        image.bytes.resize(image.bytes.size() - 24);
        return image;
    }

    // Opens a hand-made image as /m/<name> through the reader itself.
    qx_int32_t Load(const std::string &name, const FileImage &image, sr_i_table_t **p_p_table,
                    qx_uint32_t mode = SR_MODE_READ) {
        WriteBytes(File(name), image.bytes);
        return sr_i_open_persistent_table(static_cast<sr_i_tree_t *>(tree_), nullptr,
                                          File(name).c_str(), mode, 512, nullptr, p_p_table);
    }

    TempDir tmp_;
    sr_opaque_handle_t tree_ = nullptr;
    std::list<std::string> texts_;
};

// Keys of 8-byte integers spread over 1024 buckets.
inline qx_uint32_t HashI64(const void *p_key) {
    qx_int64_t v;
    std::memcpy(&v, p_key, sizeof v);
    return static_cast<qx_uint32_t>(static_cast<qx_uint64_t>(v) % 1024);
}
inline qx_int32_t CompareI64(const void *p_a, const void *p_b) {
    qx_int64_t a, b;
    std::memcpy(&a, p_a, sizeof a);
    std::memcpy(&b, p_b, sizeof b);
    return a < b ? -1 : (a > b ? 1 : 0);
}

// A table: "k" INT64 key, "s" CHAR_PTR (default "dflt"), "n" INT32 (default 7).
class RowsTest : public TableTest {
  protected:
    std::vector<sr_column_t> Columns(qx_uint32_t key_qualifier = SR_PRIMARY_KEY) {
        std::vector<sr_column_t> columns{{Text("k"), QX_INT64, key_qualifier, 0, nullptr, {}},
                                         {Text("s"), QX_CHAR_PTR, SR_STANDARD, 0, nullptr, {}},
                                         {Text("n"), QX_INT32, SR_STANDARD, 0, nullptr, I32(7)}};
        columns[1].default_value.ptr_char = Text("dflt");
        return columns;
    }

    // Paths under "/m/" are persistent; `hashed` adds the INT64 hashed key index.
    sr_i_table_t *Make(const std::string &path, std::vector<sr_column_t> columns, int mode,
                       bool hashed = false) {
        sr_opaque_handle_t table = nullptr;
        const auto count = static_cast<qx_uint32_t>(columns.size());
        EXPECT_EQ(hashed
                      ? sr_create_hashed_key_table_1(tree_, Text(path), columns.data(), count, mode,
                                                     1024, HashI64, CompareI64, &table)
                      : sr_create_table_1(tree_, Text(path), columns.data(), count, mode, &table),
                  0)
            << path;
        return static_cast<sr_i_table_t *>(table);
    }
    sr_i_table_t *Make(const std::string &path, int mode, bool hashed = false) {
        return Make(path, Columns(), mode, hashed);
    }

    // sr_add_row_1 with (name, value) pairs.
    qx_int32_t Add(sr_i_table_t *p_table, std::vector<std::pair<const char *, qx_value_t>> fields) {
        std::vector<qx_char_ptr_t> names;
        std::vector<qx_value_t *> values;
        for (auto &field : fields) {
            names.push_back(const_cast<char *>(field.first));
            values.push_back(&field.second);
        }
        return sr_add_row_1(p_table, names.data(), values.data(),
                            static_cast<qx_uint32_t>(names.size()));
    }
    qx_int32_t AddRow(sr_i_table_t *p_table, qx_int64_t key, const char *s, qx_int32_t n) {
        return Add(p_table, {{"k", I64(key)}, {"s", Str(s)}, {"n", I32(n)}});
    }

    // One field by packed index with visibility.
    qx_int32_t Get(sr_i_table_t *p_table, qx_int32_t row, const char *column, qx_value_t *p_value,
                   qx_uint32_t visible = 0, sr_row_state_t *p_state = nullptr) {
        sr_row_state_t ignored;
        return sr_get_field_by_index_and_visibility_1(p_table, row, const_cast<char *>(column),
                                                      p_value, visible,
                                                      p_state != nullptr ? p_state : &ignored);
    }
    // Column "s" of the row with key `key`, or "<code>".
    std::string TextOf(sr_i_table_t *p_table, qx_int64_t key, qx_uint32_t visible = 0) {
        qx_value_t value{};
        qx_int32_t rc = ByKey(p_table, key, "s", &value, visible);
        return rc != 0 ? "<" + std::to_string(rc) + ">" : value.ptr_char;
    }
    // Column `column` of the row with key `key` in the working version.
    static qx_value_t Val(sr_opaque_handle_t table, qx_int64_t key, const char *column) {
        qx_value_t v{};
        EXPECT_EQ(0, sr_get_field_by_key_1(table, I64(key), const_cast<char *>(column), &v))
            << key << column;
        return v;
    }
    static qx_int32_t ByKey(sr_i_table_t *p_table, qx_int64_t key, const char *column,
                            qx_value_t *p_value, qx_uint32_t visible) {
        sr_row_state_t state;
        return sr_get_field_by_key_and_visibility_1(p_table, I64(key), const_cast<char *>(column),
                                                    p_value, visible, &state);
    }
    qx_uint32_t FixedOf(sr_i_table_t *p_table, qx_int64_t key) {
        qx_uint32_t fixed = 0xFFFFFFFF;
        sr_get_fixed_row_index_for_key_1(p_table, I64(key), &fixed);
        return fixed;
    }
    static qx_int32_t ApplyCommit(sr_i_table_t *p_table) {
        qx_int32_t rc = sr_apply_1(p_table, 0);
        return rc != 0 ? rc : sr_commit_1(p_table);
    }
};

// The INT64 value of column `column` of a row record.
inline qx_int64_t SlotValue(const char *p_record_data, qx_uint32_t column) {
    qx_int64_t v;
    std::memcpy(&v, p_record_data + 4 + 8 * column, 8);
    return v;
}

}  // namespace qxtest

#endif  // QX_TESTS_SR_TABLE_TEST_UTIL_H
