// A table read back from its file: its rows in the order of their slots,
// packed in that order, and its hashed key index finding the rows of a key
// latest slot first.  The table takes adds, updates (keys included) and
// deletions round after round and is closed and opened again after every
// commit, so that the files read hold replaced rows, deletion records and
// rows put into slots freed earlier, all appended behind one another.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "qx_sr.h"
#include "sr/test_util.h"

namespace {

char kKey[] = "k";
char kVal[] = "val";
constexpr std::uint32_t kKeys = 40;

// Few buckets, so that the chains are long and hold unequal keys too.
qx_uint32_t SevenBuckets(const void *p_key) {
    qx_int32_t k;
    std::memcpy(&k, p_key, sizeof k);
    return static_cast<qx_uint32_t>(k) % 7;
}

qx_int32_t CompareInt(const void *a, const void *b) {
    return std::memcmp(a, b, sizeof(qx_int32_t));
}

// The rows of the committed version.
qx_uint32_t CommittedRows(sr_opaque_handle_t table, ...) {
    va_list ap;
    va_start(ap, table);
    qx_uint32_t count = 0;
    qx_uint32_t *p_rows = nullptr;
    EXPECT_EQ(sr_get_selected_rows_v_1(table, nullptr, ap, 0, &count, &p_rows), 0);
    va_end(ap);
    free(p_rows);
    return count;
}

// Every slot's row, by fixed index: key and value, or nothing.
using Slots = std::vector<std::pair<qx_int32_t, qx_int32_t>>;

Slots SlotsOf(sr_opaque_handle_t table) {
    Slots slots;
    for (qx_int32_t f = 0; f < 400; ++f) {
        qx_value_t key;
        qx_value_t val;
        if (sr_get_field_by_fixed_index_and_visibility_1(table, f, kKey, &key, 0, nullptr) != 0) {
            slots.emplace_back(-1, -1);
            continue;
        }
        EXPECT_EQ(sr_get_field_by_fixed_index_and_visibility_1(table, f, kVal, &val, 0, nullptr),
                  0);
        slots.emplace_back(key.val_int32, val.val_int32);
    }
    return slots;
}

class ReopenIndexTest : public ::testing::TestWithParam<sr_qualifier_t> {
  protected:
    void SetUp() override {
        ASSERT_EQ(sr_open_tree_1(&tree_, 0, 0), 0);
        std::string mount = "/r";
        std::string dir = dir_.path();
        ASSERT_EQ(sr_mount_local_tree_1(tree_, mount.data(), dir.data(), 1), 0);
    }
    void TearDown() override { sr_close_tree_1(tree_); }

    sr_opaque_handle_t Create(const char *name) {
        sr_column_t columns[2] = {};
        columns[0].name = kKey;
        columns[0].type = QX_INT32;
        columns[0].qualifier = GetParam();
        columns[1].name = kVal;
        columns[1].type = QX_INT32;
        columns[1].qualifier = SR_STANDARD;
        std::string path = std::string("/r/") + name;
        sr_opaque_handle_t table = nullptr;
        EXPECT_EQ(sr_create_hashed_key_table_1(tree_, path.data(), columns, 2, kMode, 7,
                                               SevenBuckets, CompareInt, &table),
                  0);
        return table;
    }
    sr_opaque_handle_t Reopen(sr_opaque_handle_t table, const char *name) {
        EXPECT_EQ(sr_close_table_1(table), 0);
        std::string path = std::string("/r/") + name;
        sr_opaque_handle_t reopened = nullptr;
        EXPECT_EQ(sr_open_hashed_key_table_1(tree_, path.data(), kMode, 7, SevenBuckets, CompareInt,
                                             &reopened),
                  0);
        return reopened;
    }

    // A table read from its file finds the rows of a key latest slot first.
    static void ExpectKeysInSlotOrder(sr_opaque_handle_t table, const Slots &slots) {
        std::set<qx_int32_t> keys;
        for (const auto &slot : slots) keys.insert(slot.first);
        for (std::uint32_t k = 0; k < kKeys; ++k) keys.insert(static_cast<qx_int32_t>(k));
        keys.erase(-1);
        for (qx_int32_t k : keys) {
            std::vector<qx_uint32_t> expected;
            for (qx_uint32_t f = static_cast<qx_uint32_t>(slots.size()); f-- > 0;) {
                if (slots[f].first == k) expected.push_back(f);
            }
            qx_value_t key;
            key.val_int32 = k;
            qx_uint32_t count = 0;
            qx_uint32_t *p_rows = nullptr;
            std::vector<qx_uint32_t> found;
            if (sr_get_duplicate_rows_1(table, key, &count, &p_rows, 0) == 0) {
                found.assign(p_rows, p_rows + count);
                free(p_rows);
            }
            EXPECT_EQ(found, expected) << "key " << k;
            qx_uint32_t first = 0;
            if (!expected.empty()) {
                EXPECT_EQ(sr_get_fixed_row_index_for_key_1(table, key, &first), 0);
                EXPECT_EQ(first, expected.front()) << "key " << k;
            }
        }
    }

    static constexpr int kMode = SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL;
    qxtest::TempDir dir_;
    sr_opaque_handle_t tree_ = nullptr;
};

TEST_P(ReopenIndexTest, EveryReopenFindsTheRowsOfAKeyLatestSlotFirst) {
    const bool unique = GetParam() == SR_PRIMARY_KEY;
    sr_opaque_handle_t table = Create("a");
    std::mt19937 rng(7);
    qx_int32_t next_val = 1;
    for (int round = 0; round < 12; ++round) {
        const qx_uint32_t live = CommittedRows(table);
        for (int op = 0; op < 30; ++op) {
            const std::uint32_t choice = rng() % 10;
            if (choice < 5 || live == 0) {
                qx_value_t key;
                key.val_int32 = static_cast<qx_int32_t>(rng() % kKeys);
                qx_value_t val;
                val.val_int32 = next_val++;
                qx_char_ptr_t names[2] = {kKey, kVal};
                qx_value_t *values[2] = {&key, &val};
                const qx_int32_t rc = sr_add_row_1(table, names, values, 2);
                ASSERT_TRUE(rc == 0 || (unique && rc == SR_E_DUPLICATE_KEY)) << rc;
            } else if (choice < 8) {
                // Keys change too, so that rows move between buckets; a
                // checked key only to one no row has.
                const bool key_column = rng() % 2 == 0;
                qx_value_t value;
                value.val_int32 = !key_column ? next_val++
                                  : unique    ? 1000 + next_val++
                                              : static_cast<qx_int32_t>(rng() % kKeys);
                sr_set_field_by_index_1(table, static_cast<qx_int32_t>(rng() % live),
                                        key_column ? kKey : kVal, &value);
            } else {
                sr_delete_row_by_index_1(table, rng() % live);
            }
        }
        ASSERT_EQ(sr_apply_1(table, 0), 0);
        ASSERT_EQ(sr_commit_1(table), 0);
        std::vector<std::pair<qx_int32_t, qx_int32_t>> rows;
        for (const auto &slot : SlotsOf(table)) {
            if (slot.first >= 0) rows.push_back(slot);
        }
        table = Reopen(table, "a");
        ASSERT_NE(table, nullptr);
        const Slots slots = SlotsOf(table);
        std::vector<std::pair<qx_int32_t, qx_int32_t>> reread;
        for (const auto &slot : slots) {
            if (slot.first >= 0) reread.push_back(slot);
        }
        // The rows keep their order of slots, with the gaps closed.
        ASSERT_EQ(reread, rows) << "round " << round;
        ExpectKeysInSlotOrder(table, slots);
        // The packed order of the reopened table is the slot order.
        qx_uint32_t packed = 0;
        for (const auto &slot : slots) {
            if (slot.first < 0) continue;
            qx_value_t val;
            ASSERT_EQ(sr_get_field_by_index_1(table, static_cast<qx_int32_t>(packed++), kVal, &val),
                      0);
            EXPECT_EQ(val.val_int32, slot.second);
        }
        EXPECT_EQ(packed, CommittedRows(table));
    }
    EXPECT_EQ(sr_close_table_1(table), 0);
}

INSTANTIATE_TEST_SUITE_P(KeyQualifiers, ReopenIndexTest,
                         ::testing::Values(SR_PRIMARY_KEY, SR_PRIMARY_KEY_NOCHECK));

}  // namespace
