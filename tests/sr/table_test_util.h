// Helpers shared by the table file, create/open and cross-process tests: a
// tree with one mounted directory, column definitions, raw file bytes, and a
// builder that appends hand-made records to a table file image.
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

inline qx_uint32_t U32At(const std::string &bytes, size_t offset) {
    qx_uint32_t v = 0;
    std::memcpy(&v, bytes.data() + offset, 4);
    return v;
}
inline qx_uint64_t U64At(const std::string &bytes, size_t offset) {
    qx_uint64_t v = 0;
    std::memcpy(&v, bytes.data() + offset, 8);
    return v;
}

// One 32-byte column entry of a metadata record, as the file holds it.
constexpr size_t kColumnEntry = 32;
struct ColumnEntry {
    qx_uint32_t name;  // offsets into the record's indirect data area
    qx_uint32_t type;
    qx_uint32_t qualifier;
    qx_int32_t properties;
    qx_uint32_t sd_defn;
    qx_uint64_t default_value;
};
inline ColumnEntry ColumnEntryAt(const std::string &bytes, size_t offset) {
    ColumnEntry e{};
    std::memcpy(&e.name, bytes.data() + offset, 4);
    std::memcpy(&e.type, bytes.data() + offset + 4, 4);
    std::memcpy(&e.qualifier, bytes.data() + offset + 8, 4);
    std::memcpy(&e.properties, bytes.data() + offset + 12, 4);
    std::memcpy(&e.sd_defn, bytes.data() + offset + 16, 4);
    std::memcpy(&e.default_value, bytes.data() + offset + 24, 8);
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

// Records appended to a table file image, for tables whose columns are all
// of 8-byte scalar types (the values are the slots as they stand).
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
    void Retire(qx_uint32_t offset) {
        qx_uint32_t zero = 0;
        std::memcpy(bytes.data() + offset + 8, &zero, 4);
    }
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

    // Frees every table record still in a tree's sets (handles become
    // invalid), without closing the tree.
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
        std::vector<sr_column_t> columns;
        for (int i = 0; i < total; ++i) {
            sr_column_t c{};
            c.name = Text(i == 0 ? "k" : "c" + std::to_string(i));
            c.type = QX_INT64;
            c.qualifier = i == 0 ? SR_PRIMARY_KEY : SR_STANDARD;
            c.default_value.val_int64 = 100 + i;
            columns.push_back(c);
        }
        return columns;
    }

    sr_i_table_t *Create(const std::string &path, std::vector<sr_column_t> columns, int mode = 2) {
        sr_opaque_handle_t table = nullptr;
        EXPECT_EQ(sr_create_table_1(tree_, Text(path), columns.data(),
                                    static_cast<qx_uint32_t>(columns.size()), mode, &table),
                  0);
        return static_cast<sr_i_table_t *>(table);
    }

    // Creates /m/<name> with `total` INT64 columns, closes it and returns the
    // file's bytes.
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

// The INT64 value of column `column` of a row record.
inline qx_int64_t SlotValue(const char *p_record_data, qx_uint32_t column) {
    qx_int64_t v;
    std::memcpy(&v, p_record_data + 4 + 8 * column, 8);
    return v;
}

}  // namespace qxtest

#endif  // QX_TESTS_SR_TABLE_TEST_UTIL_H
