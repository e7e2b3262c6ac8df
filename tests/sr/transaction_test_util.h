// Rows changed without the implicit cycle, snapshots, reopens and file walks for transaction tests.
#ifndef QX_TESTS_SR_TRANSACTION_TEST_UTIL_H
#define QX_TESTS_SR_TRANSACTION_TEST_UTIL_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include "sr/table_test_util.h"
#include "sr_i.h"

namespace qxtest::tx {

// One field: the 8 slot bytes of a scalar, or the text of a QX_CHAR_PTR.
using Field = std::variant<qx_uint64_t, std::string>;
using Row = std::vector<Field>;
using State = std::map<qx_int64_t, Row>;  // rows by key (column 0, an INT64)

inline Field I64(qx_int64_t v) {
    return static_cast<qx_uint64_t>(v);
}
// A row of INT64 columns: the key, then the given values.
inline Row R(qx_int64_t key, std::initializer_list<qx_int64_t> rest) {
    Row row{I64(key)};
    for (qx_int64_t v : rest) row.push_back(I64(v));
    return row;
}
inline bool IsText(const sr_i_table_t *p_table, qx_uint32_t column) {
    return sr_i_load_column(&p_table->p_columns[column]).type == QX_CHAR_PTR;
}

// The committed (or working) rows of a table, by key.
inline State Snapshot(const sr_i_table_t *p_table, bool applied) {
    State state;
    const size_t columns = p_table->total_columns;
    for (qx_uint32_t f = 0; f < p_table->maximum_rows; ++f) {
        const sr_i_index_entry_t &entry = p_table->p_rows_fixed_index[f];
        const char *p_data = applied ? entry.p_applied : entry.p_committed;
        if (p_data == nullptr) continue;
        Row row;
        for (qx_uint32_t c = 0; c < columns; ++c) {
            const char *p_slot = p_data + 4 + 8 * c;
            if (IsText(p_table, c)) {
                qx_uint32_t length = sr_i_load_u32(p_slot + 4);
                row.emplace_back(std::string(p_data + 4 + 8 * columns + sr_i_load_u32(p_slot),
                                             length > 0 ? length - 1 : 0));
            } else {
                row.emplace_back(sr_i_load_u64(p_slot));
            }
        }
        state[static_cast<qx_int64_t>(std::get<qx_uint64_t>(row[0]))] = row;
    }
    return state;
}

// The packed index lists exactly the slots in use, each once, and every slot
// knows its packed position.
inline void ExpectIndexesConsistent(const sr_i_table_t *p_table) {
    std::vector<int> seen(p_table->maximum_rows, 0);
    for (qx_uint32_t k = 0; k < p_table->total_applied_rows; ++k) {
        qx_uint32_t f = p_table->p_rows_packed_index[k];
        ASSERT_LT(f, p_table->maximum_rows);
        ++seen[f];
        const sr_i_index_entry_t &entry = p_table->p_rows_fixed_index[f];
        EXPECT_EQ(entry.packed_index, k);
        EXPECT_TRUE(entry.p_applied != nullptr || entry.p_committed != nullptr ||
                    entry.p_pending_change != nullptr)
            << "packed slot " << k << " names a free slot " << f;
    }
    for (qx_uint32_t f = 0; f < p_table->maximum_rows; ++f) {
        const sr_i_index_entry_t &entry = p_table->p_rows_fixed_index[f];
        EXPECT_EQ(seen[f], entry.p_applied != nullptr || entry.p_committed != nullptr ? 1 : seen[f])
            << f;
    }
}

// Changes rows the way adding, setting and deleting leave them, without the
// row calls (and so without their implicit cycle).
class RowKit {
  public:
    explicit RowKit(sr_i_table_t *p_table) : p_table_(p_table) {}

    // A new row; returns its fixed index.  A hashed table revives a row of
    // the same key deleted since the last commit, as adding does.
    qx_uint32_t Add(const Row &row) {
        char *p_data = Build(row, 0);
        sr_i_index_entry_t *p_entry = sr_i_rows_free_chain_remove(p_table_);
        if (p_entry == nullptr) {
            EXPECT_EQ(sr_i_grow_index(p_table_, p_table_->maximum_rows), 0);
            p_entry = sr_i_rows_free_chain_remove(p_table_);
        }
        p_entry->p_applied = p_data;
        bool revived = false;
        if (p_table_->p_rows_hash_table != nullptr) {
            sr_hash_table_element_t *p_element = nullptr;
            qx_uint32_t bucket = 0;
            qx_int32_t rc = sr_i_hash_table_add(
                p_table_->p_rows_hash_table, sr_i_row_key_value(p_table_, p_data), Fixed(p_entry),
                &bucket, &p_element, sr_i_load_column(p_table_->p_columns).qualifier);
            if (rc == 0) {
                p_entry->hash_index = bucket;
                p_entry->p_hash_table_element = p_element;
            } else {
                EXPECT_EQ(rc, SR_E_DUPLICATE_KEY);
                sr_i_index_entry_t *p_existing =
                    &p_table_->p_rows_fixed_index[p_element->row_index];
                EXPECT_EQ(p_existing->p_applied, nullptr) << "key is live";
                sr_i_rows_free_chain_insert(p_table_, p_entry);
                p_entry = p_existing;
                p_entry->p_applied = p_data;
                revived = true;
            }
        }
        Change(p_entry, 0);
        sr_i_store_u32(p_data, p_entry->p_committed != nullptr ? p_entry->file_offset : 0);
        if (revived) {
            if (p_table_->applied_deletions > 0) --p_table_->applied_deletions;
        } else {
            p_table_->p_rows_packed_index[p_table_->total_applied_rows] = Fixed(p_entry);
            p_entry->packed_index = p_table_->total_applied_rows++;
        }
        return Fixed(p_entry);
    }

    // Replaces a live row's working version.
    void Set(qx_uint32_t fixed, const Row &row) {
        sr_i_index_entry_t *p_entry = &p_table_->p_rows_fixed_index[fixed];
        ASSERT_NE(p_entry->p_applied, nullptr);
        char *p_data = Build(row, p_entry->file_offset);
        if (p_entry->p_applied != p_entry->p_committed) {
            if (p_entry->p_committed == nullptr && p_entry->p_hash_table_element != nullptr) {
                p_entry->p_hash_table_element->p_key_value = sr_i_row_key_value(p_table_, p_data);
            }
            sr_i_rb_free_record(&p_table_->record_buffer_pool, p_entry->p_applied);
        }
        p_entry->p_applied = p_data;
        Change(p_entry, 0);
    }

    void Delete(qx_uint32_t fixed) {
        sr_i_index_entry_t *p_entry = &p_table_->p_rows_fixed_index[fixed];
        ASSERT_NE(p_entry->p_applied, nullptr);
        Change(p_entry, 1);
        if (p_entry->p_applied != p_entry->p_committed) {
            sr_i_rb_free_record(&p_table_->record_buffer_pool, p_entry->p_applied);
        }
        p_entry->p_applied = nullptr;
        ++p_table_->applied_deletions;
    }

    // The fixed index of the live row with this key, or -1.
    qx_int64_t Find(qx_int64_t key) const {
        for (qx_uint32_t f = 0; f < p_table_->maximum_rows; ++f) {
            const char *p_data = p_table_->p_rows_fixed_index[f].p_applied;
            if (p_data != nullptr && static_cast<qx_int64_t>(sr_i_load_u64(p_data + 4)) == key) {
                return f;
            }
        }
        return -1;
    }

  private:
    qx_uint32_t Fixed(const sr_i_index_entry_t *p_entry) const {
        return static_cast<qx_uint32_t>(p_entry - p_table_->p_rows_fixed_index);
    }
    void Change(sr_i_index_entry_t *p_entry, qx_uint32_t deletion) {
        EXPECT_EQ(sr_i_common_add_change_entry(p_table_, p_entry, deletion), 0);
    }

    // A row record for `row` in the pool, its first word `replaces`.
    char *Build(const Row &row, qx_uint32_t replaces) {
        const qx_uint32_t columns = p_table_->total_columns;
        EXPECT_EQ(row.size(), columns);
        std::string area;
        std::vector<qx_uint64_t> slots;
        for (qx_uint32_t c = 0; c < columns; ++c) {
            if (IsText(p_table_, c)) {
                const std::string &text = std::get<std::string>(row[c]);
                slots.push_back(area.size() | (static_cast<qx_uint64_t>(text.size() + 1) << 32));
                area += text;
                area.push_back('\0');
            } else {
                slots.push_back(std::get<qx_uint64_t>(row[c]));
            }
        }
        char *p_data = nullptr;
        EXPECT_EQ(sr_i_reserve_record(&p_table_->record_buffer_pool,
                                      static_cast<qx_uint32_t>(4 + 8 * columns + area.size()),
                                      SR_I_RECORD_TYPE_ROW, &p_data),
                  0);
        sr_i_store_u32(p_data, replaces);
        for (qx_uint32_t c = 0; c < columns; ++c) sr_i_store_u64(p_data + 4 + 8 * c, slots[c]);
        if (!area.empty()) std::memcpy(p_data + 4 + 8 * columns, area.data(), area.size());
        return p_data;
    }

    sr_i_table_t *p_table_;
};

struct FileRecord {
    qx_uint32_t offset;
    qx_uint32_t length;
    qx_int32_t type;
};

// The records of a file image up to and including the first commit record
// (or to the end, when `whole`).
inline std::vector<FileRecord> FileRecords(const std::string &bytes, bool whole = false) {
    std::vector<FileRecord> records;
    for (size_t at = 0; at + 12 <= bytes.size();) {
        FileRecord r{static_cast<qx_uint32_t>(at), U32At(bytes, at),
                     static_cast<qx_int32_t>(U32At(bytes, at + 8))};
        if (r.length < 12) break;
        records.push_back(r);
        if (r.type == SR_I_RECORD_TYPE_COMMIT && !whole) break;
        at += r.length;
    }
    return records;
}

inline qx_uint32_t HashInt64(const void *p_key) {
    qx_uint64_t v;
    std::memcpy(&v, p_key, 8);
    return static_cast<qx_uint32_t>(v * 0x9E3779B97F4A7C15ull >> 58);  // 64 buckets
}
inline qx_int32_t CompareInt64(const void *p1, const void *p2) {
    qx_int64_t a;
    qx_int64_t b;
    std::memcpy(&a, p1, 8);
    std::memcpy(&b, p2, 8);
    return a < b ? -1 : a > b ? 1 : 0;
}

class TransactionTest : public TableTest {
  protected:
    // /m/<name>: k INT64 key, then c1.. INT64.
    sr_i_table_t *Make(const std::string &name, int mode = 6, int columns = 2) {
        return Create("/m/" + name, ScalarColumns(columns), mode);
    }
    // Adds row (k: key, c1: value) through the exported call and its frame.
    qx_int32_t AddRow(sr_opaque_handle_t table, qx_int64_t key, qx_int64_t value) {
        char *names[] = {Text("k"), Text("c1")};
        qx_value_t values[2] = {{.val_int64 = key}, {.val_int64 = value}};
        qx_value_t *p_values[] = {&values[0], &values[1]};
        return sr_add_row_1(table, names, p_values, 2);
    }

    // The committed state of /m/<name> as a fresh open of its file reads it.
    State Reopened(const std::string &name, qx_uint64_t *p_change_counter = nullptr) {
        sr_i_table_t *p_table = nullptr;
        qx_int32_t rc =
            sr_i_open_persistent_table(static_cast<sr_i_tree_t *>(tree_), nullptr,
                                       File(name).c_str(), SR_MODE_READ, 512, nullptr, &p_table);
        EXPECT_EQ(rc, 0) << "the file no longer reads";
        if (rc != 0) return {};
        State state = Snapshot(p_table, false);
        EXPECT_EQ(Snapshot(p_table, true), state);
        if (p_change_counter != nullptr) *p_change_counter = p_table->change_counter;
        sr_i_close_table(p_table);
        return state;
    }
};

}  // namespace qxtest::tx

#endif  // QX_TESTS_SR_TRANSACTION_TEST_UTIL_H
