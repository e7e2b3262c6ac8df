// Checked keys without a hashed index (108 from the linear walk); read back after random changes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "sr/table_test_util.h"

namespace {

// kHashed: INT64 keys of an unchecked key with a hashed index of few buckets.
enum class KeyType { kInt64, kText, kHashed };
const std::string kKeyTypeNames[] = {"Int64", "Text", "HashedUnchecked"};
constexpr qx_int32_t DUP = SR_E_DUPLICATE_KEY;

// One slot of the fixed index as the working version shows it.
struct Slot {
    bool exists = false, live = false;
    sr_row_state_t state = SR_ROW_STATE_NO_ROW;
    qx_int64_t id = -1;
    qx_int32_t v = -1;
    bool operator==(const Slot &o) const { return id == o.id && v == o.v; }
};

// Keys are integer ids, stored as the INT64 itself or as the text "key<id>".
class UniqueKeyTest : public qxtest::TableTest {
  protected:
    // "k" (the key) and "v" INT32, explicitly controlled so that transactions span calls.
    void Create(KeyType type, qx_data_type_t key_type = QX_INT64,
                qx_uint32_t qualifier = SR_PRIMARY_KEY) {
        type_ = type;
        path_ = "/m/t" + std::to_string(++tables_);
        if (type == KeyType::kText) key_type = QX_CHAR_PTR;
        if (type == KeyType::kHashed) qualifier = SR_PRIMARY_KEY_NOCHECK;
        sr_column_t columns[2] = {{Text("k"), key_type, qualifier, 0, nullptr, {}},
                                  {Text("v"), QX_INT32, SR_STANDARD, 0, nullptr, {}}};
        ASSERT_EQ(0, type == KeyType::kHashed
                         ? sr_create_hashed_key_table_1(tree_, Text(path_), columns, 2, kMode, 7,
                                                        Hash, Compare, &table_)
                         : sr_create_table_1(tree_, Text(path_), columns, 2, kMode, &table_));
    }
    // Seven buckets, so that the chains are long and hold unequal keys too.
    static qx_uint32_t Hash(const void *p_key) {
        qx_int64_t k;
        std::memcpy(&k, p_key, sizeof k);
        return static_cast<qx_uint32_t>(k % 7);
    }
    static qx_int32_t Compare(const void *p_a, const void *p_b) { return std::memcmp(p_a, p_b, 8); }
    qx_value_t Key(qx_int64_t id) {
        qx_value_t v{};
        if (type_ != KeyType::kText) v.val_int64 = id;
        if (type_ == KeyType::kText) v.ptr_char = Text("key" + std::to_string(id));
        return v;
    }
    qx_int32_t Add(qx_value_t key) {
        qx_value_t value{};
        value.val_int32 = ++added_;
        qx_char_ptr_t names[] = {Text("k"), Text("v")};
        qx_value_t *values[] = {&key, &value};
        const qx_int32_t rc = sr_add_row_1(table_, names, values, 2);
        EXPECT_TRUE(rc != DUP || qxtest::last_error().message.rfind("2605-108 ", 0) == 0);
        return rc;
    }
    qx_int32_t Delete(qx_int64_t id) {
        if (type_ != KeyType::kText) return sr_delete_rows_1(table_, Text("k == $L"), id);
        return sr_delete_rows_1(table_, Text("k == $S"), Key(id).ptr_char);
    }
    qx_int32_t Commit() {
        qx_int32_t rc = sr_apply_1(table_, 0);
        return rc != 0 ? rc : sr_commit_1(table_);
    }
    qx_int32_t Reopen() {
        qx_int32_t rc = sr_close_table_1(table_);
        if (rc != 0 || type_ != KeyType::kHashed) {
            return rc != 0 ? rc : sr_open_table_1(tree_, Text(path_), kMode, &table_);
        }
        return sr_open_hashed_key_table_1(tree_, Text(path_), kMode, 7, Hash, Compare, &table_);
    }
    Slot SlotAt(qx_uint32_t fixed) {
        Slot slot;
        qx_value_t key{}, v{}, *values[] = {&key, &v};
        qx_char_ptr_t names[] = {Text("k"), Text("v")};
        qx_int32_t rc = sr_get_fields_by_fixed_index_and_visibility_1(
            table_, static_cast<qx_int32_t>(fixed), names, values, 2, 1, &slot.state);
        slot.exists = rc != SR_E_NO_ROW_FOR_INDEX;
        slot.live = rc == 0;
        if (rc != 0) return slot;
        slot.id = type_ != KeyType::kText ? key.val_int64 : std::stoll(key.ptr_char + 3);
        slot.v = v.val_int32;
        return slot;
    }
    qx_int32_t AddColumn() {
        sr_column_t column{
            Text("c" + std::to_string(++columns_added_)), QX_INT32, SR_STANDARD, 0, nullptr, {}};
        return sr_add_columns_1(table_, &column, 1);
    }
    std::vector<Slot> Slots() {
        std::vector<Slot> slots;
        for (Slot slot; (slot = SlotAt(static_cast<qx_uint32_t>(slots.size()))).exists;) {
            slots.push_back(slot);
        }
        return slots;
    }

    static constexpr int kMode = SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL;
    KeyType type_ = KeyType::kInt64;
    sr_opaque_handle_t table_ = nullptr;
    std::string path_;
    int tables_ = 0, columns_added_ = 0, added_ = 0;
};

// By type: floats by value (zeros equal, NaN equals all), 32 bits alone, NULL text as "".
template <typename T>
qx_value_t V(T x, unsigned char fill = 0) {
    qx_value_t v;
    std::memset(&v, fill, sizeof v);
    std::memcpy(&v, &x, sizeof x);
    return v;
}
TEST_F(UniqueKeyTest, EqualityFollowsTheKeyType) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const char *const null_text = nullptr;
    const struct {
        qx_data_type_t type;
        std::vector<std::pair<qx_value_t, qx_int32_t>> adds;  // and a commit after every third
        qx_uint32_t qualifier = SR_PRIMARY_KEY;
    } cases[] = {
        {QX_FLOAT64, {{V(0.0), 0}, {V(-0.0), DUP}, {V(1.5), 0}, {V(1.5), DUP}}},
        {QX_FLOAT64, {{V(1.0), 0}, {V(nan), DUP}, {V(2.0), 0}}},
        {QX_FLOAT64, {{V(nan), 0}, {V(1.0), DUP}, {V(-7.0), DUP}, {V(nan), DUP}}},
        {QX_FLOAT32,
         {{V(0.5f), 0}, {V(-0.0f), 0}, {V(0.0f), DUP}, {V(0.5f), DUP}, {V(std::nanf("")), DUP}}},
        {QX_INT32, {{V(5, 0xAB), 0}, {V(5, 0xCD), DUP}, {V(-5, 0xAB), 0}, {V(6), 0}}},
        {QX_UINT64, {{V(~0ull), 0}, {V(0ull), 0}, {V(~0ull), DUP}, {V(1ull << 63), 0}}},
        {QX_CHAR_PTR,
         {{V("a"), 0},
          {V("A"), 0},
          {V("ab"), 0},
          {V("a"), DUP},
          {V(""), 0},
          {V(null_text), DUP},
          {V("ab"), DUP}}},
        {QX_UINT64,
         {{V(4ull), 0}, {V(4ull), 0}, {V(4ull), 0}, {V(4ull), 0}},
         SR_PRIMARY_KEY_NOCHECK},
    };
    for (const auto &c : cases) {
        Create(KeyType::kInt64, c.type, c.qualifier);
        for (size_t i = 0; i < c.adds.size(); ++i) {
            EXPECT_EQ(c.adds[i].second, Add(c.adds[i].first)) << path_ << " add " << i;
            ASSERT_EQ(0, i % 3 == 2 ? Commit() : 0);
        }
    }
}

// Random changes: every add answers as a walk of as many slots as live rows (own slot too).
class UniqueKeyRandomTest : public UniqueKeyTest, public ::testing::WithParamInterface<KeyType> {
  protected:
    static std::vector<Slot> Live(const std::vector<Slot> &slots) {
        std::vector<Slot> live;
        std::copy_if(slots.begin(), slots.end(), std::back_inserter(live),
                     [](const Slot &s) { return s.live; });
        return live;
    }
    // Read back: the same rows in slot order; a hashed index finds a key's latest slot first.
    void ExpectReadBack() {
        auto by_v = [](const Slot &a, const Slot &b) { return a.v < b.v; };
        std::vector<Slot> before = Live(Slots());
        ASSERT_EQ(0, Reopen());
        const std::vector<Slot> slots = Slots();
        std::vector<Slot> after = Live(slots);
        for (size_t i = 0; i < after.size(); ++i) {
            qx_value_t v{};
            ASSERT_EQ(0,
                      sr_get_field_by_index_1(table_, static_cast<qx_int32_t>(i), Text("v"), &v));
            EXPECT_EQ(after[i].v, v.val_int32);
        }
        std::sort(before.begin(), before.end(), by_v);
        std::sort(after.begin(), after.end(), by_v);
        ASSERT_EQ(before, after);
        for (qx_int64_t k = 0; type_ == KeyType::kHashed && k < 24; ++k) {
            std::vector<qx_uint32_t> expected, found;
            for (auto f = static_cast<qx_uint32_t>(slots.size()); f-- > 0;) {
                if (slots[f].live && slots[f].id == k) expected.push_back(f);
            }
            qx_uint32_t count = 0, *p_rows = nullptr, first = 0;
            if (sr_get_duplicate_rows_1(table_, Key(k), &count, &p_rows, 0) == 0) {
                found.assign(p_rows, p_rows + count);
            }
            std::free(p_rows);
            EXPECT_EQ(expected, found) << "key " << k;
            if (expected.empty()) continue;
            EXPECT_EQ(0, sr_get_fixed_row_index_for_key_1(table_, Key(k), &first));
            EXPECT_EQ(expected.front(), first) << "key " << k;
        }
    }
};

TEST_P(UniqueKeyRandomTest, EveryAddAnswersAsTheWalk) {
    const bool hashed = GetParam() == KeyType::kHashed;
    Create(GetParam());
    std::mt19937 random(20261124);
    std::vector<bool> held;  // slots of rows added and deleted in this transaction
    int refused = 0, self_matches = 0;
    for (int op = 0; op < 1000; ++op) {
        SCOPED_TRACE(op);
        const int pick = static_cast<int>(random() % 100);
        const qx_int64_t id = static_cast<qx_int64_t>(random() % 24);
        std::vector<Slot> slots = Slots();
        std::vector<qx_uint32_t> live;
        for (qx_uint32_t f = 0; f < slots.size(); ++f) {
            if (slots[f].live) live.push_back(f);
        }
        held.resize(slots.size());
        if (pick < 50) {
            qx_uint32_t free_slot = 0;
            while (free_slot < slots.size() &&
                   (slots[free_slot].state != SR_ROW_STATE_NO_ROW || held[free_slot])) {
                ++free_slot;
            }
            bool duplicate = false, self = false;
            for (size_t i = 0; i < live.size() && !duplicate; ++i) {
                self = duplicate = free_slot < live[i];
                duplicate = duplicate || slots[live[i]].id == id;
            }
            self_matches += self;
            const qx_int32_t rc = Add(Key(id));
            ASSERT_EQ(duplicate && !hashed ? DUP : 0, rc) << "free slot " << free_slot;
            refused += rc != 0;
            if (rc == 0) {
                const Slot added = SlotAt(free_slot);
                EXPECT_TRUE(added.live && added.state == SR_ROW_STATE_ADDED && added.id == id);
            }
        } else if (pick < 65) {
            qx_int32_t rc = Delete(id);
            ASSERT_TRUE(rc == 0 || rc == SR_E_NO_ROWS_TO_DELETE) << rc;
            for (qx_uint32_t f : live) {
                held[f] = held[f] || (slots[f].state == SR_ROW_STATE_ADDED && slots[f].id == id);
            }
        } else if (pick < 77) {
            const auto f = static_cast<qx_int32_t>(live.empty() ? 0 : live[random() % live.size()]);
            qx_value_t key = Key(id);
            ASSERT_EQ(0,
                      live.empty() ? 0 : sr_set_field_by_fixed_index_1(table_, f, Text("k"), &key));
        } else {
            ASSERT_EQ(0, pick < 92 || pick >= 96 ? Commit() : sr_abort_1(table_));
            held.assign(held.size(), false);
            ASSERT_EQ(0, pick == 96 ? AddColumn() : 0);  // copies the rows, duplicates included
            ASSERT_NO_FATAL_FAILURE(pick >= 97 ? ExpectReadBack() : void());
        }
    }
    EXPECT_TRUE(hashed || (refused > 50 && self_matches > 10)) << refused << " " << self_matches;
}

INSTANTIATE_TEST_SUITE_P(KeyTypes, UniqueKeyRandomTest,
                         ::testing::Values(KeyType::kInt64, KeyType::kText, KeyType::kHashed),
                         [](const auto &info) { return kKeyTypeNames[int(info.param)]; });

}  // namespace
