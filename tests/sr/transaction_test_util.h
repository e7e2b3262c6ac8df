// Helpers shared by the apply, commit/abort, fault and crash tests: rows built
// and changed directly on a table's engine structures (the way the row calls
// leave them: a record in the pool, a slot, a change list entry), snapshots of
// a table's committed and working states, a reopen of the file into a second
// table record, and a walk over the records of a table file.
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

// Everything here lives in its own namespace: the row tests have helpers of
// the same names, and two inline definitions of one name would be one symbol.
namespace qxtest::tx {

// One field: the 8 slot bytes of a scalar, or the text of a QX_CHAR_PTR.
using Field = std::variant<qx_uint64_t, std::string>;
using Row = std::vector<Field>;
// Rows by key (column 0, an INT64).
using State = std::map<qx_int64_t, Row>;

inline Field I64(qx_int64_t v) {
    return static_cast<qx_uint64_t>(v);
}
// A row of INT64 columns: the key, then the given values.
inline Row R(qx_int64_t key, std::initializer_list<qx_int64_t> rest) {
    Row row{I64(key)};
    for (qx_int64_t v : rest) row.push_back(I64(v));
    return row;
}
inline qx_int64_t KeyOf(const Row &row) {
    return static_cast<qx_int64_t>(std::get<qx_uint64_t>(row[0]));
}

inline bool IsText(const sr_i_table_t *p_table, qx_uint32_t column) {
    return sr_i_load_column(&p_table->p_columns[column]).type == QX_CHAR_PTR;
}

// The fields of a row record.
inline Row ReadRecord(const sr_i_table_t *p_table, const char *p_data) {
    Row row;
    const char *p_area = p_data + 4 + 8 * static_cast<size_t>(p_table->total_columns);
    for (qx_uint32_t c = 0; c < p_table->total_columns; ++c) {
        const char *p_slot = p_data + 4 + 8 * static_cast<size_t>(c);
        if (IsText(p_table, c)) {
            qx_uint32_t offset = sr_i_load_u32(p_slot);
            qx_uint32_t length = sr_i_load_u32(p_slot + 4);
            row.emplace_back(std::string(p_area + offset, length > 0 ? length - 1 : 0));
        } else {
            row.emplace_back(sr_i_load_u64(p_slot));
        }
    }
    return row;
}

// The committed (or working) rows of a table, by key.
inline State Snapshot(const sr_i_table_t *p_table, bool applied) {
    State state;
    for (qx_uint32_t f = 0; f < p_table->maximum_rows; ++f) {
        const sr_i_index_entry_t &entry = p_table->p_rows_fixed_index[f];
        const char *p_data = applied ? entry.p_applied : entry.p_committed;
        if (p_data == nullptr) continue;
        Row row = ReadRecord(p_table, p_data);
        state[KeyOf(row)] = row;
    }
    return state;
}

// Checks the invariants of the row indexes that every transaction step must
// keep: the packed index lists exactly the slots in use, each once, and
// every slot knows its packed position.
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
        if (entry.p_applied != nullptr || entry.p_committed != nullptr) {
            EXPECT_EQ(seen[f], 1) << "slot " << f;
        }
    }
}

// Builds rows in a table the way adding, setting and deleting rows leave
// them, without the row calls themselves.
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
            qx_uint32_t fixed = Fixed(p_entry);
            sr_hash_table_element_t *p_element = nullptr;
            qx_uint32_t bucket = 0;
            qx_int32_t rc = sr_i_hash_table_add(
                p_table_->p_rows_hash_table, sr_i_row_key_value(p_table_, p_data), fixed, &bucket,
                &p_element, sr_i_load_column(p_table_->p_columns).qualifier);
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
            p_entry->packed_index = p_table_->total_applied_rows;
            ++p_table_->total_applied_rows;
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
    qx_int64_t Find(qx_int64_t key, bool applied = true) const {
        for (qx_uint32_t f = 0; f < p_table_->maximum_rows; ++f) {
            const sr_i_index_entry_t &entry = p_table_->p_rows_fixed_index[f];
            const char *p_data = applied ? entry.p_applied : entry.p_committed;
            if (p_data != nullptr && static_cast<qx_int64_t>(sr_i_load_u64(p_data + 4)) == key) {
                return f;
            }
        }
        return -1;
    }

    qx_uint32_t Fixed(const sr_i_index_entry_t *p_entry) const {
        return static_cast<qx_uint32_t>(p_entry - p_table_->p_rows_fixed_index);
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
                qx_uint64_t anchor = static_cast<qx_uint64_t>(area.size()) |
                                     (static_cast<qx_uint64_t>(text.size() + 1) << 32);
                slots.push_back(anchor);
                area += text;
                area.push_back('\0');
            } else {
                slots.push_back(std::get<qx_uint64_t>(row[c]));
            }
        }
        const qx_uint32_t length = static_cast<qx_uint32_t>(4 + 8 * columns + area.size());
        char *p_data = nullptr;
        EXPECT_EQ(sr_i_reserve_record(&p_table_->record_buffer_pool, length, SR_I_RECORD_TYPE_ROW,
                                      &p_data),
                  0);
        sr_i_store_u32(p_data, replaces);
        for (qx_uint32_t c = 0; c < columns; ++c) sr_i_store_u64(p_data + 4 + 8 * c, slots[c]);
        if (!area.empty()) std::memcpy(p_data + 4 + 8 * columns, area.data(), area.size());
        return p_data;
    }

  private:
    // Puts a slot's pending change on the list for `deletion`, moving it from
    // the other list when it is there.
    void Change(sr_i_index_entry_t *p_entry, qx_uint32_t deletion) {
        auto *p_change = static_cast<sr_i_change_entry_t *>(p_entry->p_pending_change);
        if (p_change != nullptr && p_change->deletion == deletion) return;
        sr_i_change_entry_t **p_head[2] = {&p_table_->p_rows_change_list,
                                           &p_table_->p_delete_rows_change_list};
        sr_i_change_entry_t **p_tail[2] = {&p_table_->p_rows_change_list_tail,
                                           &p_table_->p_delete_rows_change_list_tail};
        if (p_change != nullptr) {
            qx_uint32_t from = p_change->deletion;
            if (p_change->p_prev != nullptr) {
                p_change->p_prev->p_next = p_change->p_next;
            } else {
                *p_head[from] = p_change->p_next;
            }
            if (p_change->p_next != nullptr) {
                p_change->p_next->p_prev = p_change->p_prev;
            } else {
                *p_tail[from] = p_change->p_prev;
            }
        } else {
            p_change = static_cast<sr_i_change_entry_t *>(std::calloc(1, sizeof *p_change));
        }
        p_change->deletion = deletion;
        p_change->p_index_entry = p_entry;
        p_change->p_next = nullptr;
        p_change->p_prev = *p_tail[deletion];
        if (*p_tail[deletion] != nullptr) {
            (*p_tail[deletion])->p_next = p_change;
        } else {
            *p_head[deletion] = p_change;
        }
        *p_tail[deletion] = p_change;
        p_entry->p_pending_change = p_change;
    }

    sr_i_table_t *p_table_;
};

// One record of a table file.
struct FileRecord {
    qx_uint32_t offset;
    qx_uint32_t length;
    qx_int32_t type;
};

// The records of a file image from offset 0 up to and including the first
// commit record (or to the end, when `whole`).
inline std::vector<FileRecord> FileRecords(const std::string &bytes, bool whole = false) {
    std::vector<FileRecord> records;
    size_t at = 0;
    while (at + 12 <= bytes.size()) {
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

// A tree with "/m" mounted, plus transaction helpers.
class TransactionTest : public TableTest {
  protected:
    // Columns: k INT64 key, then c1.. INT64 (as ScalarColumns).
    sr_i_table_t *Make(const std::string &name, int mode = 6, int columns = 2) {
        return Create("/m/" + name, ScalarColumns(columns), mode);
    }

    sr_i_table_t *MakeHashed(const std::string &name, int mode = 6, int columns = 2) {
        std::vector<sr_column_t> defs = ScalarColumns(columns);
        sr_opaque_handle_t table = nullptr;
        EXPECT_EQ(sr_create_hashed_key_table_1(tree_, Text("/m/" + name), defs.data(),
                                               static_cast<qx_uint32_t>(defs.size()), mode, 64,
                                               HashInt64, CompareInt64, &table),
                  0);
        return static_cast<sr_i_table_t *>(table);
    }

    // Key INT64 and one column of each other scalar type and a string.
    std::vector<sr_column_t> MixedColumns() {
        const qx_data_type_t types[] = {QX_INT64,  QX_INT32,   QX_UINT32,  QX_FLOAT32,
                                        QX_UINT64, QX_FLOAT64, QX_CHAR_PTR};
        std::vector<sr_column_t> columns;
        for (size_t i = 0; i < sizeof types / sizeof types[0]; ++i) {
            sr_column_t c{};
            c.name = Text(i == 0 ? "k" : "m" + std::to_string(i));
            c.type = types[i];
            c.qualifier = i == 0 ? SR_PRIMARY_KEY : SR_STANDARD;
            if (types[i] == QX_CHAR_PTR) {
                c.default_value.ptr_char = Text("none");
            } else {
                c.default_value.val_int64 = 0;
            }
            columns.push_back(c);
        }
        return columns;
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
