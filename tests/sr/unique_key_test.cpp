// The uniqueness check of a checked key (SR_PRIMARY_KEY) on a table without
// a hashed key index, through the public interface only: which adds are
// refused with 108 against committed rows, rows added earlier in the same
// transaction, rows deleted or re-keyed by set calls, after abort, after a
// reopen and a schema change (which copies the rows, duplicates included),
// and the self-match of a new row placed in a free slot ahead of the last
// live row.  The answers are those of the linear walk over the fixed index;
// a randomized run checks every add against that walk recomputed from the
// rows the table shows.
#include <gtest/gtest.h>

#include <cmath>
#include <deque>
#include <cstring>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "qx_cu.h"
#include "qx_sr.h"
#include "sr/test_util.h"

namespace {

enum class KeyType { kInt64, kText };

// One key as the test knows it: an integer id, stored either as the INT64
// value itself or as the text "key<id>".
struct Key {
    KeyType type;
    qx_int64_t id;
    std::string text;
    qx_value_t value{};
    Key(KeyType t, qx_int64_t i) : type(t), id(i), text("key" + std::to_string(i)) {
        if (type == KeyType::kInt64) {
            value.val_int64 = id;
        } else {
            value.ptr_char = text.data();
        }
    }
    Key(const Key &other) : Key(other.type, other.id) {}
    Key &operator=(const Key &) = delete;
};

class UniqueKeyTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, sr_open_tree_1(&tree_, 0, 0));
        ASSERT_EQ(0, sr_mount_local_tree_1(tree_, Text("/m"), Text(tmp_.file("")), 1));
    }
    void TearDown() override { sr_close_tree_1(tree_); }

    char *Text(const std::string &s) {
        texts_.push_back(s);
        return texts_.back().data();
    }

    // A table "k" (the key, of `key_type`, with `qualifier`) and "v" INT32,
    // explicitly controlled so that transactions span calls.
    void Create(qx_data_type_t key_type, qx_uint32_t qualifier = SR_PRIMARY_KEY) {
        path_ = "/m/t" + std::to_string(++tables_);
        sr_column_t columns[2]{};
        columns[0].name = Text("k");
        columns[0].type = key_type;
        columns[0].qualifier = qualifier;
        columns[1].name = Text("v");
        columns[1].type = QX_INT32;
        columns[1].qualifier = SR_STANDARD;
        ASSERT_EQ(0, sr_create_table_1(tree_, Text(path_), columns, 2,
                                       SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL, &table_));
    }
    void Create(KeyType type) { Create(type == KeyType::kInt64 ? QX_INT64 : QX_CHAR_PTR); }

    qx_int32_t AddValue(qx_value_t key, qx_int32_t v = 0) {
        qx_value_t value{};
        value.val_int32 = v;
        qx_char_ptr_t names[] = {const_cast<char *>("k"), const_cast<char *>("v")};
        qx_value_t *values[] = {&key, &value};
        qx_int32_t rc = sr_add_row_1(table_, names, values, 2);
        if (rc == SR_E_DUPLICATE_KEY) {
            // Every refusal reports the duplicate key, whichever way it was found.
            qxtest::LastError error = qxtest::last_error();
            EXPECT_EQ(SR_E_DUPLICATE_KEY, error.code);
            EXPECT_EQ(0u, error.message.rfind("2605-108 ", 0)) << error.message;
        }
        return rc;
    }
    qx_int32_t Add(const Key &key) { return AddValue(key.value); }

    qx_int32_t Delete(const Key &key) {
        if (key.type == KeyType::kInt64) {
            return sr_delete_rows_1(table_, const_cast<char *>("k == $L"), key.id);
        }
        return sr_delete_rows_1(table_, const_cast<char *>("k == $S"), key.text.c_str());
    }
    qx_int32_t Commit() {
        qx_int32_t rc = sr_apply_1(table_, 0);
        return rc != 0 ? rc : sr_commit_1(table_);
    }
    qx_int32_t Reopen() {
        qx_int32_t rc = sr_close_table_1(table_);
        if (rc != 0) return rc;
        return sr_open_table_1(tree_, Text(path_), SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL,
                               &table_);
    }
    qx_int32_t AddColumn() {
        sr_column_t column{};
        column.name = Text("c" + std::to_string(++columns_added_));
        column.type = QX_INT32;
        column.qualifier = SR_STANDARD;
        return sr_add_columns_1(table_, &column, 1);
    }

    // One slot of the fixed index as the working version shows it.
    struct Slot {
        bool exists = false;  // a slot of the index at all
        bool live = false;    // a row in the working version
        sr_row_state_t state = SR_ROW_STATE_NO_ROW;
        qx_int64_t id = -1;
    };
    Slot SlotAt(qx_uint32_t fixed, KeyType type) {
        Slot slot;
        qx_value_t value{};
        qx_int32_t rc = sr_get_field_by_fixed_index_and_visibility_1(
            table_, static_cast<qx_int32_t>(fixed), const_cast<char *>("k"), &value, 1,
            &slot.state);
        if (rc == SR_E_NO_ROW_FOR_INDEX) return slot;
        slot.exists = true;
        if (rc != 0) return slot;
        slot.live = true;
        slot.id = type == KeyType::kInt64 ? value.val_int64 : std::stoll(value.ptr_char + 3);
        return slot;
    }
    std::vector<Slot> Slots(KeyType type) {
        std::vector<Slot> slots;
        for (qx_uint32_t f = 0;; ++f) {
            Slot slot = SlotAt(f, type);
            if (!slot.exists) return slots;
            slots.push_back(slot);
        }
    }
    // The first live slot holding `id`, if any.
    std::optional<qx_uint32_t> FixedOf(qx_int64_t id, KeyType type) {
        std::vector<Slot> slots = Slots(type);
        for (qx_uint32_t f = 0; f < slots.size(); ++f) {
            if (slots[f].live && slots[f].id == id) return f;
        }
        return std::nullopt;
    }
    qx_int32_t SetKey(const Key &from, const Key &to) {
        std::optional<qx_uint32_t> fixed = FixedOf(from.id, from.type);
        if (!fixed) return SR_E_NO_ROW_FOR_KEY;
        qx_value_t value = to.value;
        return sr_set_field_by_fixed_index_1(table_, static_cast<qx_int32_t>(*fixed),
                                             const_cast<char *>("k"), &value);
    }

    qxtest::TempDir tmp_;
    sr_opaque_handle_t tree_ = nullptr;
    sr_opaque_handle_t table_ = nullptr;
    std::string path_;
    int tables_ = 0;
    int columns_added_ = 0;
    std::deque<std::string> texts_;  // stable addresses for the C strings handed out
};

// ---------------------------------------------------------------------------
// Scripted cases, each run with INT64 and with text keys.

struct Step {
    char op;  // A add, D delete, S set key `id` to `to`, C commit, X abort, R reopen, M add column
    qx_int64_t id;
    qx_int64_t to;
    qx_int32_t rc;
};

struct Script {
    const char *name;
    std::vector<Step> steps;
};

Step A(qx_int64_t id, qx_int32_t rc) {
    return {'A', id, 0, rc};
}
Step D(qx_int64_t id) {
    return {'D', id, 0, 0};
}
Step S(qx_int64_t id, qx_int64_t to) {
    return {'S', id, to, 0};
}
const Step C{'C', 0, 0, 0};
const Step X{'X', 0, 0, 0};
const Step R{'R', 0, 0, 0};
Step M(qx_int32_t rc) {
    return {'M', 0, 0, rc};
}
constexpr qx_int32_t DUP = SR_E_DUPLICATE_KEY;

const std::vector<Script> &Scripts() {
    static const std::vector<Script> scripts = {
        {"CommittedRows", {A(1, 0), A(2, 0), C, A(1, DUP), A(2, DUP), A(3, 0), A(3, DUP)}},
        {"SameTransaction", {A(1, 0), A(2, 0), A(2, DUP), A(1, DUP), A(3, 0), A(3, DUP), C}},
        // The top row deleted: its slot is held until commit, the new row
        // goes above it and meets the other live rows only.
        {"DeletedTopRowInTransaction",
         {A(1, 0), A(2, 0), A(3, 0), C, D(3), A(3, 0), A(3, DUP), C, A(3, DUP), A(4, DUP)}},
        {"DeletedLowRowInTransaction",
         {A(1, 0), A(2, 0), A(3, 0), C, D(1), A(1, 0), A(4, 0), A(1, DUP), C, A(5, DUP),
          A(1, DUP)}},
        // Slot 0 freed by a commit lies ahead of the last live row: every
        // add there meets its own record, until no other row is live.
        {"SelfMatchInFreedLowerSlot",
         {A(1, 0), A(2, 0),   A(3, 0), C,         D(1),      C,      A(9, DUP), A(9, DUP),
          D(2),    D(3),      A(9, 0), A(2, 0),   A(9, DUP), C,      A(1, DUP), A(7, DUP),
          D(9),    A(7, DUP), C,       A(7, DUP), D(2),      A(7, 0)}},
        {"AddedRowsAborted",
         {A(1, 0), A(2, 0), C, A(3, 0), A(4, 0), X, A(4, 0), A(3, 0), A(1, DUP)}},
        {"DeletionAborted", {A(1, 0), A(2, 0), A(3, 0), C, D(2), X, A(2, DUP), A(4, 0), C}},
        {"KeyChangeAborted",
         {A(1, 0), A(2, 0), A(3, 0), C, S(3, 8), X, A(8, 0), A(3, DUP), S(1, 5), X, A(5, 0),
          A(1, DUP)}},
        {"KeyChangedBySet",
         {A(1, 0), A(2, 0), C, S(2, 5), A(5, DUP), A(2, 0), S(1, 5), A(5, DUP), A(1, 0), C, D(5),
          A(5, 0), A(6, 0), S(6, 7), A(7, DUP), A(6, 0), C, A(5, DUP), A(7, DUP)}},
        {"KeyChangedBackBySet", {A(1, 0), A(2, 0), C, S(1, 4), S(4, 1), A(1, DUP), A(4, 0), C}},
        {"Reopened",
         {A(1, 0), A(2, 0), A(3, 0), C, D(1), C, R, A(1, DUP), A(3, DUP), D(2), D(3), A(1, 0), C, R,
          A(1, DUP), A(2, 0), A(3, 0), C}},
        {"SchemaChange",
         {A(1, 0), A(2, 0), A(3, 0), C,         D(1),    C, M(0), A(1, 0), A(2, DUP), C, S(3, 2),
          C,       M(0),    A(4, 0), A(2, DUP), A(3, 0), C, D(4), C,       A(9, DUP)}},
        {"EmptiedTable", {A(1, 0), C, D(1), A(1, 0), X, D(1), C, A(1, 0), A(1, DUP), C}},
    };
    return scripts;
}

class UniqueKeyScriptTest : public UniqueKeyTest,
                            public ::testing::WithParamInterface<std::tuple<Script, KeyType>> {};

TEST_P(UniqueKeyScriptTest, AddsGetTheAnswersOfTheLinearCheck) {
    const auto &[script, type] = GetParam();
    Create(type);
    for (size_t i = 0; i < script.steps.size(); ++i) {
        const Step &step = script.steps[i];
        SCOPED_TRACE("step " + std::to_string(i) + " " + step.op + std::to_string(step.id));
        switch (step.op) {
            case 'A':
                EXPECT_EQ(step.rc, Add(Key(type, step.id)));
                break;
            case 'D':
                ASSERT_EQ(0, Delete(Key(type, step.id)));
                break;
            case 'S':
                ASSERT_EQ(0, SetKey(Key(type, step.id), Key(type, step.to)));
                break;
            case 'C':
                ASSERT_EQ(0, Commit());
                break;
            case 'X':
                ASSERT_EQ(0, sr_abort_1(table_));
                break;
            case 'R':
                ASSERT_EQ(0, Reopen());
                break;
            case 'M':
                EXPECT_EQ(step.rc, AddColumn());
                break;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Scripts, UniqueKeyScriptTest,
                         ::testing::Combine(::testing::ValuesIn(Scripts()),
                                            ::testing::Values(KeyType::kInt64, KeyType::kText)),
                         [](const ::testing::TestParamInfo<UniqueKeyScriptTest::ParamType> &info) {
                             return std::string(std::get<0>(info.param).name) +
                                    (std::get<1>(info.param) == KeyType::kInt64 ? "Int64" : "Text");
                         });

// ---------------------------------------------------------------------------
// Keys compared by their type: floating keys by value (zeros equal, a NaN
// equal to everything), 32-bit keys by their 32 bits, text by its bytes, a
// NULL text as the empty text.

struct ValueCase {
    const char *name;
    qx_data_type_t type;
    std::vector<qx_value_t> keys;
    std::vector<qx_int32_t> rcs;
};

qx_value_t F64(double d) {
    qx_value_t v{};
    v.val_float64 = d;
    return v;
}
qx_value_t F32(float f) {
    qx_value_t v{};
    v.val_float32 = f;
    return v;
}
qx_value_t I32(qx_int32_t i, unsigned char fill) {
    qx_value_t v;
    std::memset(&v, fill, sizeof v);
    v.val_int32 = i;
    return v;
}
qx_value_t U64(qx_uint64_t u) {
    qx_value_t v{};
    v.val_uint64 = u;
    return v;
}
qx_value_t Txt(const char *p) {
    qx_value_t v{};
    v.ptr_char = const_cast<char *>(p);
    return v;
}

const double kNaN = std::numeric_limits<double>::quiet_NaN();

class UniqueKeyValueTest : public UniqueKeyTest, public ::testing::WithParamInterface<ValueCase> {};

TEST_P(UniqueKeyValueTest, EqualityFollowsTheKeyType) {
    const ValueCase &c = GetParam();
    Create(c.type);
    ASSERT_EQ(c.keys.size(), c.rcs.size());
    for (size_t i = 0; i < c.keys.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(c.rcs[i], AddValue(c.keys[i]));
        if (i % 3 == 2) {
            ASSERT_EQ(0, Commit());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Values, UniqueKeyValueTest,
    ::testing::Values(
        ValueCase{"Zeros", QX_FLOAT64, {F64(0.0), F64(-0.0), F64(1.5), F64(1.5)}, {0, DUP, 0, DUP}},
        ValueCase{"NaNMeetsEveryRow", QX_FLOAT64, {F64(1.0), F64(kNaN), F64(2.0)}, {0, DUP, 0}},
        ValueCase{"StoredNaNMeetsEveryKey",
                  QX_FLOAT64,
                  {F64(kNaN), F64(1.0), F64(-7.0), F64(kNaN)},
                  {0, DUP, DUP, DUP}},
        ValueCase{"Float32",
                  QX_FLOAT32,
                  {F32(0.5f), F32(-0.0f), F32(0.0f), F32(0.5f), F32(std::nanf(""))},
                  {0, 0, DUP, DUP, DUP}},
        ValueCase{"Int32ComparesItsOwnBits",
                  QX_INT32,
                  {I32(5, 0xAB), I32(5, 0xCD), I32(-5, 0xAB), I32(6, 0x00)},
                  {0, DUP, 0, 0}},
        ValueCase{
            "UInt64", QX_UINT64, {U64(~0ull), U64(0), U64(~0ull), U64(1ull << 63)}, {0, 0, DUP, 0}},
        ValueCase{"Text",
                  QX_CHAR_PTR,
                  {Txt("a"), Txt("A"), Txt("ab"), Txt("a"), Txt(""), Txt(nullptr), Txt("ab")},
                  {0, 0, 0, DUP, 0, DUP, DUP}}),
    [](const ::testing::TestParamInfo<ValueCase> &info) { return std::string(info.param.name); });

// An unchecked key takes every duplicate.
TEST_F(UniqueKeyTest, UncheckedKeyTakesDuplicates) {
    Create(QX_INT64, SR_PRIMARY_KEY_NOCHECK);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(0, Add(Key(KeyType::kInt64, 4)));
    ASSERT_EQ(0, Commit());
    ASSERT_EQ(0, Add(Key(KeyType::kInt64, 4)));
}

// ---------------------------------------------------------------------------
// Random sequences: before each add, the answer of the linear walk from the
// slots the table shows.  The walk visits the live rows and the new row's
// slot in fixed order and compares as many of them as there were live rows:
// a new row below the last live row meets itself.

class UniqueKeyRandomTest : public UniqueKeyTest, public ::testing::WithParamInterface<KeyType> {};

TEST_P(UniqueKeyRandomTest, EveryAddAnswersAsTheWalk) {
    const KeyType type = GetParam();
    Create(type);
    std::mt19937 random(20261124);
    std::vector<bool> held;  // slots of rows added and deleted in this transaction
    int refused = 0, self_matches = 0;
    for (int op = 0; op < 1000; ++op) {
        SCOPED_TRACE(op);
        const int pick = static_cast<int>(random() % 100);
        const Key key(type, static_cast<qx_int64_t>(random() % 24));
        std::vector<Slot> slots = Slots(type);
        held.resize(slots.size());
        if (pick < 50) {
            qx_uint32_t free_slot = 0;
            while (free_slot < slots.size() &&
                   (slots[free_slot].state != SR_ROW_STATE_NO_ROW || held[free_slot])) {
                ++free_slot;
            }
            qx_uint32_t live = 0;
            for (const Slot &s : slots) live += s.live ? 1 : 0;
            bool duplicate = false;
            qx_uint32_t compared = 0;
            for (qx_uint32_t f = 0; f <= slots.size() && compared < live; ++f) {
                if (f == free_slot) {
                    duplicate = true;  // the new row itself
                    ++self_matches;
                    break;
                }
                if (f == slots.size() || !slots[f].live) continue;
                ++compared;
                if (slots[f].id == key.id) {
                    duplicate = true;
                    break;
                }
            }
            const qx_int32_t rc = Add(key);
            ASSERT_EQ(duplicate ? SR_E_DUPLICATE_KEY : 0, rc) << "free slot " << free_slot;
            if (rc == 0) {
                Slot added = SlotAt(free_slot, type);
                EXPECT_TRUE(added.live);
                EXPECT_EQ(SR_ROW_STATE_ADDED, added.state);
                EXPECT_EQ(key.id, added.id);
            } else {
                ++refused;
            }
        } else if (pick < 65) {
            qx_int32_t rc = Delete(key);
            ASSERT_TRUE(rc == 0 || rc == SR_E_NO_ROWS_TO_DELETE) << rc;
            for (qx_uint32_t f = 0; f < slots.size(); ++f) {
                if (slots[f].live && slots[f].state == SR_ROW_STATE_ADDED &&
                    slots[f].id == key.id) {
                    held[f] = true;
                }
            }
        } else if (pick < 77) {
            std::vector<qx_uint32_t> live;
            for (qx_uint32_t f = 0; f < slots.size(); ++f) {
                if (slots[f].live) live.push_back(f);
            }
            if (live.empty()) continue;
            qx_value_t value = key.value;
            ASSERT_EQ(0, sr_set_field_by_fixed_index_1(
                             table_, static_cast<qx_int32_t>(live[random() % live.size()]),
                             const_cast<char *>("k"), &value));
        } else if (pick < 92) {
            ASSERT_EQ(0, Commit());
            held.assign(held.size(), false);
        } else if (pick < 97) {
            ASSERT_EQ(0, sr_abort_1(table_));
            held.assign(held.size(), false);
        } else {
            ASSERT_EQ(0, Commit());
            ASSERT_EQ(0, Reopen());
            held.assign(held.size(), false);
        }
    }
    // The run met every kind of answer.
    EXPECT_GT(refused, 50);
    EXPECT_GT(self_matches, 10);
}

INSTANTIATE_TEST_SUITE_P(KeyTypes, UniqueKeyRandomTest,
                         ::testing::Values(KeyType::kInt64, KeyType::kText),
                         [](const ::testing::TestParamInfo<KeyType> &info) {
                             return std::string(info.param == KeyType::kInt64 ? "Int64" : "Text");
                         });

}  // namespace
