// A table reopened after every commit of adds, updates (keys included) and
// deletions: its file holds replaced rows, deletion records and reused slots.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "sr/table_test_util.h"

namespace {

constexpr qx_int32_t kKeys = 40;
constexpr int kMode = SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL;

// Few buckets, so that the chains are long and hold unequal keys too.
qx_uint32_t SevenBuckets(const void *p_key) {
    qx_int32_t k;
    std::memcpy(&k, p_key, sizeof k);
    return static_cast<qx_uint32_t>(k) % 7;
}
qx_int32_t CompareInt(const void *a, const void *b) {
    return std::memcmp(a, b, sizeof(qx_int32_t));
}

qx_uint32_t CommittedRows(sr_opaque_handle_t table, ...) {
    va_list ap;
    va_start(ap, table);
    qx_uint32_t count = 0, *p_rows = nullptr;
    EXPECT_EQ(sr_get_selected_rows_v_1(table, nullptr, ap, 0, &count, &p_rows), 0);
    va_end(ap);
    free(p_rows);
    return count;
}

class ReopenIndexTest : public qxtest::TableTest,
                        public ::testing::WithParamInterface<sr_qualifier_t> {
  protected:
    // Every slot's (key, value) by fixed index, or (-1, -1).
    std::vector<std::pair<qx_int32_t, qx_int32_t>> Slots(sr_opaque_handle_t table) {
        std::vector<std::pair<qx_int32_t, qx_int32_t>> slots;
        for (qx_int32_t f = 0; f < 400; ++f) {
            qx_value_t key{}, val{};
            if (sr_get_field_by_fixed_index_and_visibility_1(table, f, Text("k"), &key, 0,
                                                             nullptr) != 0) {
                slots.emplace_back(-1, -1);
                continue;
            }
            EXPECT_EQ(
                sr_get_field_by_fixed_index_and_visibility_1(table, f, Text("v"), &val, 0, nullptr),
                0);
            slots.emplace_back(key.val_int32, val.val_int32);
        }
        return slots;
    }
};

// Read back, the rows keep their slot order (gaps closed), pack in that order,
// and the hashed key index finds the rows of a key latest slot first.
TEST_P(ReopenIndexTest, EveryReopenFindsTheRowsOfAKeyLatestSlotFirst) {
    const bool unique = GetParam() == SR_PRIMARY_KEY;
    sr_column_t columns[2] = {{Text("k"), QX_INT32, GetParam(), 0, nullptr, {}},
                              {Text("v"), QX_INT32, SR_STANDARD, 0, nullptr, {}}};
    sr_opaque_handle_t table = nullptr;
    ASSERT_EQ(sr_create_hashed_key_table_1(tree_, Text("/m/a"), columns, 2, kMode, 7, SevenBuckets,
                                           CompareInt, &table),
              0);
    std::mt19937 rng(7);
    qx_int32_t next_val = 1;
    for (int round = 0; round < 12; ++round) {
        const qx_uint32_t live = CommittedRows(table);
        for (int op = 0; op < 30; ++op) {
            const std::uint32_t choice = rng() % 10;
            qx_value_t key{}, val{};
            key.val_int32 = static_cast<qx_int32_t>(rng() % kKeys);
            val.val_int32 = next_val++;
            if (choice < 5 || live == 0) {
                qx_char_ptr_t names[2] = {Text("k"), Text("v")};
                qx_value_t *values[2] = {&key, &val};
                const qx_int32_t rc = sr_add_row_1(table, names, values, 2);
                ASSERT_TRUE(rc == 0 || (unique && rc == SR_E_DUPLICATE_KEY)) << rc;
            } else if (choice < 8) {
                // A checked key changes only to one no row has.
                const bool key_column = rng() % 2 == 0;
                if (unique) key.val_int32 = 1000 + val.val_int32;
                sr_set_field_by_index_1(table, static_cast<qx_int32_t>(rng() % live),
                                        Text(key_column ? "k" : "v"), key_column ? &key : &val);
            } else {
                sr_delete_row_by_index_1(table, rng() % live);
            }
        }
        ASSERT_EQ(sr_apply_1(table, 0), 0);
        ASSERT_EQ(sr_commit_1(table), 0);
        std::vector<std::pair<qx_int32_t, qx_int32_t>> rows, reread;
        for (const auto &slot : Slots(table)) {
            if (slot.first >= 0) rows.push_back(slot);
        }
        ASSERT_EQ(sr_close_table_1(table), 0);
        ASSERT_EQ(sr_open_hashed_key_table_1(tree_, Text("/m/a"), kMode, 7, SevenBuckets,
                                             CompareInt, &table),
                  0);
        const auto slots = Slots(table);
        std::set<qx_int32_t> keys;
        for (const auto &slot : slots) {
            if (slot.first < 0) continue;
            reread.push_back(slot);
            keys.insert(slot.first);
            qx_value_t val{};
            ASSERT_EQ(sr_get_field_by_index_1(table, static_cast<qx_int32_t>(reread.size() - 1),
                                              Text("v"), &val),
                      0);
            EXPECT_EQ(val.val_int32, slot.second);
        }
        ASSERT_EQ(reread, rows) << "round " << round;
        EXPECT_EQ(reread.size(), CommittedRows(table));
        for (qx_int32_t k = 0; k < kKeys; ++k) keys.insert(k);
        for (qx_int32_t k : keys) {
            std::vector<qx_uint32_t> expected, found;
            for (qx_uint32_t f = static_cast<qx_uint32_t>(slots.size()); f-- > 0;) {
                if (slots[f].first == k) expected.push_back(f);
            }
            qx_value_t key{};
            key.val_int32 = k;
            qx_uint32_t count = 0, *p_rows = nullptr, first = 0;
            if (sr_get_duplicate_rows_1(table, key, &count, &p_rows, 0) == 0) {
                found.assign(p_rows, p_rows + count);
                free(p_rows);
            }
            EXPECT_EQ(found, expected) << "key " << k;
            if (expected.empty()) continue;
            EXPECT_EQ(sr_get_fixed_row_index_for_key_1(table, key, &first), 0);
            EXPECT_EQ(first, expected.front()) << "key " << k;
        }
    }
    EXPECT_EQ(sr_close_table_1(table), 0);
}

INSTANTIATE_TEST_SUITE_P(KeyQualifiers, ReopenIndexTest,
                         ::testing::Values(SR_PRIMARY_KEY, SR_PRIMARY_KEY_NOCHECK));

}  // namespace
