// A long random sequence of adds, sets, deletes, applies, commits, aborts and
// reopens, checked after every step against a model of the committed and the
// working state, for transient and persistent, explicit and implicit tables
// with and without a hashed key index.  Long texts make a persistent file
// mostly dead space, so apply rewrites it now and then.
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "sr/rows_test_util.h"

using qxtest::F64;
using qxtest::I32;
using qxtest::I64;
using qxtest::Str;

namespace {

struct Row {
    std::string s;
    qx_int32_t n = 0;
    double d = 0;
    std::string b;              // binary bytes
    std::vector<qx_int64_t> a;  // INT64 array
    bool operator==(const Row &) const = default;
};

struct Config {
    bool persistent, explicit_control, hashed;
    int steps;
};

std::string Name(const Config &c) {
    return std::string(c.persistent ? "persistent" : "transient") +
           (c.explicit_control ? "_explicit" : "_implicit") + (c.hashed ? "_hashed" : "_linear");
}

constexpr qx_int64_t kKeys = 40;
const char *const kColumns[] = {"s", "n", "d", "b", "a"};

class RowModelTest : public qxtest::RowsTest, public ::testing::WithParamInterface<Config> {
  protected:
    void Open() {
        sr_opaque_handle_t table = nullptr;
        const int mode = GetParam().explicit_control ? 6 : 2;
        ASSERT_EQ(0, GetParam().hashed
                         ? sr_open_hashed_key_table_1(tree_, Text(path_), mode, 1024,
                                                      qxtest::HashI64, qxtest::CompareI64, &table)
                         : sr_open_table_1(tree_, Text(path_), mode, &table));
        p_ = static_cast<sr_i_table_t *>(table);
    }

    // A random row and the caller's values for it: texts up to 600 bytes,
    // binaries and arrays of random size; empty ones now and then as NULL.
    struct Values {
        std::vector<unsigned char> binary, array;
        qx_value_t v[5]{};
    };
    Row RandomRow(Values &v) {
        Row row;
        const int text_length = static_cast<int>(rng_() % 8 == 0 ? 0 : rng_() % 600);
        for (int i = 0; i < text_length; ++i) row.s += static_cast<char>('a' + rng_() % 26);
        row.n = static_cast<qx_int32_t>(rng_());
        row.d = static_cast<double>(static_cast<qx_int32_t>(rng_())) / 7.0;
        for (int i = static_cast<int>(rng_() % 40); i > 0; --i)
            row.b += static_cast<char>(rng_() % 256);
        for (int i = static_cast<int>(rng_() % 5); i > 0; --i)
            row.a.push_back(static_cast<qx_int64_t>(rng_()) << 20);
        v.v[0] = Str(row.s.empty() && rng_() % 2 ? nullptr : row.s.c_str());
        v.v[1] = I32(row.n);
        v.v[2] = F64(row.d);
        v.binary.assign(QX_BINARY_SIZE(row.b.size()) + 8, 0);
        auto *p_bin = reinterpret_cast<qx_binary_t *>(v.binary.data());
        p_bin->length = static_cast<qx_uint32_t>(row.b.size());
        std::memcpy(p_bin->data, row.b.data(), row.b.size());
        v.v[3].ptr_binary = row.b.empty() && rng_() % 2 ? nullptr : p_bin;
        v.array.assign(QX_ARRAY_SIZE(row.a.size()) + 8, 0);
        auto *p_array = reinterpret_cast<qx_array_t *>(v.array.data());
        p_array->element_count = static_cast<qx_uint32_t>(row.a.size());
        for (size_t i = 0; i < row.a.size(); ++i) p_array->elements[i].val_int64 = row.a[i];
        v.v[4].ptr_array = row.a.empty() && rng_() % 2 ? nullptr : p_array;
        return row;
    }

    qx_int32_t Read(qx_int64_t key, qx_uint32_t visible, Row *p_row) {
        qx_value_t s{}, n{}, d{}, b{}, a{};
        qx_value_t *values[] = {&s, &n, &d, &b, &a};
        sr_row_state_t state;
        qx_int32_t rc = sr_get_fields_by_key_and_visibility_1(
            p_, I64(key), const_cast<qx_char_ptr_t *>(kColumns), values, 5, visible, &state);
        if (rc != 0) return rc;
        p_row->s = s.ptr_char;
        p_row->n = n.val_int32;
        p_row->d = d.val_float64;
        p_row->b.assign(reinterpret_cast<const char *>(b.ptr_binary->data), b.ptr_binary->length);
        for (qx_uint32_t i = 0; i < a.ptr_array->element_count; ++i)
            p_row->a.push_back(a.ptr_array->elements[i].val_int64);
        return 0;
    }

    // What a read by key returns in each view, from the model.
    qx_int32_t ExpectedCode(qx_int64_t key, qx_uint32_t visible) const {
        if (!visible) return committed_.count(key) ? 0 : applied_.count(key) ? 204 : 202;
        // The linear search meets the committed row, deleted, first.
        if (!GetParam().hashed && deleted_.count(key)) return 204;
        return applied_.count(key) ? 0 : committed_.count(key) ? 204 : 202;
    }

    void Check(const std::string &step) {
        SCOPED_TRACE(step);
        ASSERT_EQ(applied_.size(), Live(p_));
        ASSERT_TRUE(p_->ready_for_commit != 0 || pending_ ||
                    committed_.size() == p_->total_committed_rows);
        for (qx_int64_t key = 0; key < kKeys; ++key) {
            for (qx_uint32_t visible : {0u, 1u}) {
                Row row;
                qx_int32_t rc = Read(key, visible, &row);
                ASSERT_EQ(ExpectedCode(key, visible), rc) << "key " << key << " view " << visible;
                ASSERT_TRUE(rc != 0 || (visible ? applied_ : committed_).at(key) == row)
                    << key << " " << visible;
            }
        }
        // Walking the packed index shows each live key once.
        std::multiset<qx_int64_t> live, expected;
        for (qx_uint32_t r = 0; r < p_->total_applied_rows; ++r) {
            qx_value_t k{};
            if (Get(p_, static_cast<qx_int32_t>(r), "k", &k, 1) == 0) live.insert(k.val_int64);
        }
        for (const auto &entry : applied_) expected.insert(entry.first);
        ASSERT_EQ(expected, live);
    }

    // The linear check of a unique key meets the new row itself when the
    // slot it takes lies before a live row.
    bool SelfMatch() const {
        const sr_i_index_entry_t *p_free = p_->p_rows_free_chain;
        if (GetParam().hashed || p_free == nullptr) return false;
        for (const sr_i_index_entry_t *p = p_free + 1;
             p < p_->p_rows_fixed_index + p_->maximum_rows; ++p) {
            if (p->p_applied != nullptr) return true;
        }
        return false;
    }

    void Changed(const char *kind) {
        ++done_[kind];
        pending_ = true;
        if (!GetParam().explicit_control) Settle(true);
    }
    void Settle(bool committed) {
        (committed ? committed_ : applied_) = committed ? applied_ : committed_;
        deleted_.clear();
        pending_ = false;
    }
    // Mostly a live key, sometimes any key.
    qx_int64_t SomeKey() {
        if (applied_.empty() || rng_() % 5 == 0) return static_cast<qx_int64_t>(rng_() % kKeys);
        return std::next(applied_.begin(), static_cast<long>(rng_() % applied_.size()))->first;
    }

    void Step(int step) {
        const unsigned op = static_cast<unsigned>(rng_() % 100);
        const std::string at = " at step " + std::to_string(step);
        if (op < 35) {  // add
            const qx_int64_t key = static_cast<qx_int64_t>(rng_() % kKeys);
            Values v;
            Row row = RandomRow(v);
            qx_int32_t expected = applied_.count(key) || SelfMatch() ? 108 : 0;
            ASSERT_EQ(expected, Add(p_, {{"k", I64(key)},
                                         {"s", v.v[0]},
                                         {"n", v.v[1]},
                                         {"d", v.v[2]},
                                         {"b", v.v[3]},
                                         {"a", v.v[4]}}))
                << "add " << key << at;
            if (expected != 0) return;
            applied_[key] = row;
            if (GetParam().hashed) deleted_.erase(key);  // revived in place
            Changed("add");
        } else if (op < 60) {  // set some of the columns, at least one
            const qx_int64_t key = SomeKey();
            Row row = applied_.count(key) ? applied_.at(key) : Row{};
            Values v;
            Row random = RandomRow(v);
            std::vector<qx_char_ptr_t> names;
            std::vector<qx_value_t *> values;
            const unsigned mask = 1 + static_cast<unsigned>(rng_() % 31);
            for (int c = 0; c < 5; ++c) {
                if ((mask & (1u << c)) == 0) continue;
                names.push_back(const_cast<char *>(kColumns[c]));
                values.push_back(&v.v[c]);
            }
            if (mask & 1) row.s = random.s;
            if (mask & 2) row.n = random.n;
            if (mask & 4) row.d = random.d;
            if (mask & 8) row.b = random.b;
            if (mask & 16) row.a = random.a;
            const qx_int32_t expected = ExpectedCode(key, 1);
            ASSERT_EQ(expected, sr_set_fields_by_key_1(p_, I64(key), names.data(), values.data(),
                                                       static_cast<qx_uint32_t>(names.size())))
                << "set " << key << at;
            if (expected != 0) return;
            applied_[key] = row;
            Changed("set");
        } else if (op < 78) {  // delete by index
            if (p_->total_applied_rows == 0) {
                ASSERT_EQ(203, sr_delete_row_by_index_1(p_, 0));
                return;
            }
            const qx_uint32_t r = static_cast<qx_uint32_t>(rng_() % p_->total_applied_rows);
            qx_value_t k{};
            sr_row_state_t state;
            const bool live = Get(p_, static_cast<qx_int32_t>(r), "k", &k, 1, &state) == 0;
            qx_int32_t rc = sr_delete_row_by_index_1(p_, r);
            ASSERT_EQ(live, rc == 0) << "delete" << at;  // deleted already: refused, counted once
            if (!live) return;
            applied_.erase(k.val_int64);
            if (state != SR_ROW_STATE_ADDED) deleted_.insert(k.val_int64);
            Changed("delete");
        } else if (op < 80) {  // delete every row
            ASSERT_EQ(applied_.empty() ? 205 : 0, sr_delete_rows_1(p_, nullptr)) << at;
            if (applied_.empty()) return;
            for (const auto &entry : applied_) {
                if (committed_.count(entry.first)) deleted_.insert(entry.first);
            }
            applied_.clear();
            Changed("delete all");
        } else if (op < 97) {  // a transaction step
            if (!GetParam().explicit_control) return;
            const unsigned choice = static_cast<unsigned>(rng_() % 4);
            if (choice == 1) {
                ASSERT_EQ(pending_ ? 210 : 0, sr_commit_1(p_)) << "commit unapplied" << at;
                return;
            }
            if (choice != 0) {
                ASSERT_EQ(0, sr_apply_1(p_, 0)) << at;
                ASSERT_EQ(212, sr_apply_1(p_, 0));
                ASSERT_EQ(212, Add(p_, {{"k", I64(kKeys + 1)}}));
                ASSERT_NO_FATAL_FAILURE(Check("applied" + at));
            }
            ASSERT_EQ(0, choice == 2 ? sr_commit_1(p_) : sr_abort_1(p_)) << at;
            done_["commit"] += choice == 2;
            Settle(choice == 2);
        } else if (GetParam().persistent) {  // pending changes go with the close
            ASSERT_EQ(0, sr_close_table_1(p_)) << at;
            Settle(false);
            ASSERT_NO_FATAL_FAILURE(Open());
        }
    }

    std::mt19937_64 rng_{20261122};
    std::string path_;
    sr_i_table_t *p_ = nullptr;
    std::map<qx_int64_t, Row> committed_, applied_;
    std::set<qx_int64_t> deleted_;  // committed keys deleted since the last commit
    bool pending_ = false;
    std::map<std::string, int> done_;
};

TEST_P(RowModelTest, RandomOperationsMatchTheModelAfterEveryStep) {
    const Config &c = GetParam();
    path_ = (c.persistent ? "/m/" : "/t/") + Name(c);
    std::vector<sr_column_t> columns = Columns();
    const std::pair<const char *, qx_data_type_t> extra[] = {
        {"d", QX_FLOAT64}, {"b", QX_BINARY_PTR}, {"a", QX_INT64_ARRAY}};
    for (const auto &[name, type] : extra) {
        columns.push_back(sr_column_t{Text(name), type, SR_STANDARD, 0, nullptr, {}});
    }
    p_ = Make(path_, columns, c.explicit_control ? 6 : 2, c.hashed);
    ASSERT_NE(nullptr, p_);
    qx_uint32_t rewrites = 0;
    qx_uint32_t previous_length = p_->file_length;
    for (int step = 0; step < c.steps; ++step) {
        ASSERT_NO_FATAL_FAILURE(Step(step));
        ASSERT_NO_FATAL_FAILURE(Check("step " + std::to_string(step)));
        rewrites += p_->file_length < previous_length;
        previous_length = p_->file_length;
    }
    // The sequence did real work of every kind.
    for (const char *kind : {"add", "set", "delete"}) EXPECT_GT(done_[kind], c.steps / 20) << kind;
    EXPECT_TRUE(!c.explicit_control || done_["commit"] > c.steps / 50);
    EXPECT_TRUE(!c.persistent || !c.explicit_control || rewrites > 0) << "no rewrite";
    // Whatever the sequence left, a fresh load shows the committed state.
    if (c.persistent) {
        ASSERT_EQ(0, sr_close_table_1(p_));
        Settle(false);
        ASSERT_NO_FATAL_FAILURE(Open());
        ASSERT_NO_FATAL_FAILURE(Check("final reopen"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Tables, RowModelTest,
    ::testing::Values(Config{false, true, false, 1500}, Config{false, true, true, 1500},
                      Config{false, false, false, 800}, Config{false, false, true, 800},
                      Config{true, true, false, 700}, Config{true, true, true, 700},
                      Config{true, false, false, 250}, Config{true, false, true, 250}),
    [](const ::testing::TestParamInfo<Config> &info) { return Name(info.param); });

}  // namespace
