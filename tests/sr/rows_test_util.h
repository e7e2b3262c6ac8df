// Helpers shared by the row tests: typed values, a table of three columns,
// adding rows by name and reading fields back.
#ifndef QX_TESTS_SR_ROWS_TEST_UTIL_H
#define QX_TESTS_SR_ROWS_TEST_UTIL_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "sr/table_test_util.h"
#include "sr_i.h"

namespace qxtest {

inline qx_value_t I64(qx_int64_t v) {
    qx_value_t x{};
    x.val_int64 = v;
    return x;
}
inline qx_value_t I32(qx_int32_t v) {
    qx_value_t x{};
    x.val_int32 = v;
    return x;
}
inline qx_value_t F64(double v) {
    qx_value_t x{};
    x.val_float64 = v;
    return x;
}
inline qx_value_t Str(const char *s) {
    qx_value_t x{};
    x.ptr_char = const_cast<char *>(s);
    return x;
}

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

// Like EachAllocationFailure, for calls that may do without an allocation
// that failed: runs until one succeeds; returns how many failed first.
template <typename Attempt, typename OnFailure>
int UntilNoAllocationFails(Attempt attempt, OnFailure on_failure) {
    for (qx_int64_t n = 0; n < 1000; ++n) {
        sr_i_alloc_fail_after(n);
        const qx_int32_t rc = attempt();
        const bool failed = sr_i_alloc_failure_pending() == 0;
        sr_i_alloc_fail_after(-1);
        if (rc == 0) return static_cast<int>(n);
        EXPECT_TRUE(failed && rc == SR_E_NO_MEMORY) << n << " " << rc;
        on_failure();
    }
    ADD_FAILURE() << "never succeeded";
    return -1;
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
    // Column "s" of the row with key `key`, or "<code>"; column "n", or -code.
    std::string TextOf(sr_i_table_t *p_table, qx_int64_t key, qx_uint32_t visible = 0) {
        qx_value_t value{};
        qx_int32_t rc = ByKey(p_table, key, "s", &value, visible);
        return rc != 0 ? "<" + std::to_string(rc) + ">" : value.ptr_char;
    }
    qx_int32_t IntOf(sr_i_table_t *p_table, qx_int64_t key, qx_uint32_t visible = 0) {
        qx_value_t value{};
        qx_int32_t rc = ByKey(p_table, key, "n", &value, visible);
        return rc != 0 ? -rc : value.val_int32;
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
    sr_row_state_t StateOf(sr_i_table_t *p_table, qx_uint32_t fixed) {
        return sr_i_get_row_state_for_fixed_index(p_table, fixed);
    }
    qx_uint32_t FixedOf(sr_i_table_t *p_table, qx_int64_t key) {
        qx_uint32_t fixed = 0xFFFFFFFF;
        sr_get_fixed_row_index_for_key_1(p_table, I64(key), &fixed);
        return fixed;
    }
    // Live rows of the working version.
    static qx_uint32_t Live(const sr_i_table_t *p_table) {
        return p_table->total_applied_rows - p_table->applied_deletions;
    }
    static qx_int32_t ApplyCommit(sr_i_table_t *p_table) {
        qx_int32_t rc = sr_apply_1(p_table, 0);
        return rc != 0 ? rc : sr_commit_1(p_table);
    }
};

}  // namespace qxtest

#endif  // QX_TESTS_SR_ROWS_TEST_UTIL_H
