// Random adds, sets, deletes, applies, commits, aborts and reopens, checked
// after every step against a model of the committed and working rows, for
// every kind of table; long texts make persistent files rewrite now and then.
#include <gtest/gtest.h>

#include <iterator>
#include <map>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "sr/rows_test_util.h"

namespace qxtest {
namespace {

using Row = std::tuple<std::string, qx_int32_t, std::string>;  // columns s, n and t
char *const kNames[] = {const_cast<char *>("s"), const_cast<char *>("n"), const_cast<char *>("t")};
struct Config {
    bool persistent, explicit_control, hashed;
    int steps;
};
std::string Name(const Config &c) {
    return std::string(c.persistent ? "persistent" : "transient") +
           (c.explicit_control ? "_explicit" : "_implicit") + (c.hashed ? "_hashed" : "_linear");
}
constexpr qx_int64_t kKeys = 40;

class RowModelTest : public RowsTest, public ::testing::WithParamInterface<Config> {
  protected:
    int Mode() const { return GetParam().explicit_control ? 6 : 2; }
    void Open() {
        sr_opaque_handle_t t = nullptr;
        ASSERT_EQ(0, GetParam().hashed ? sr_open_hashed_key_table_1(tree_, Text(path_), Mode(),
                                                                    1024, HashI64, CompareI64, &t)
                                       : sr_open_table_1(tree_, Text(path_), Mode(), &t));
        p_ = static_cast<sr_i_table_t *>(t);
    }
    // Texts up to 600 and 60 bytes, an empty s now and then given as NULL.
    Row Random(qx_value_t *v) {
        const size_t length = rng_() % 8 == 0 ? 0 : rng_() % 600;
        text_.assign(length, static_cast<char>('a' + rng_() % 26));
        other_.assign(rng_() % 60, 'z');
        v[0] = Str(text_.empty() && rng_() % 2 ? nullptr : text_.c_str());
        v[1] = I32(static_cast<qx_int32_t>(rng_()));
        v[2] = Str(other_.c_str());
        return {text_, v[1].val_int32, other_};
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
        ASSERT_EQ(applied_.size(), p_->total_applied_rows - p_->applied_deletions);
        for (qx_int64_t key = 0; key < kKeys; ++key) {
            for (qx_uint32_t visible : {0u, 1u}) {
                qx_value_t v[3]{}, *values[] = {&v[0], &v[1], &v[2]};
                sr_row_state_t state;
                qx_int32_t rc = sr_get_fields_by_key_and_visibility_1(
                    p_, I64(key), const_cast<qx_char_ptr_t *>(kNames), values, 3, visible, &state);
                ASSERT_EQ(ExpectedCode(key, visible), rc) << "key " << key << " view " << visible;
                ASSERT_TRUE(rc != 0 || (visible ? applied_ : committed_).at(key) ==
                                           Row(v[0].ptr_char, v[1].val_int32, v[2].ptr_char));
            }
        }
        std::multiset<qx_int64_t> live,
            expected;  // the packed index shows each live key once
        for (qx_uint32_t r = 0; r < p_->total_applied_rows; ++r) {
            qx_value_t k{};
            if (Get(p_, static_cast<qx_int32_t>(r), "k", &k, 1) == 0) live.insert(k.val_int64);
        }
        for (const auto &entry : applied_) expected.insert(entry.first);
        ASSERT_EQ(expected, live);
    }
    // The linear check of a checked key meets the new row itself when the
    // slot it takes lies before a live row.
    bool SelfMatch() const {
        const sr_i_index_entry_t *p_free = p_->p_rows_free_chain;
        if (GetParam().hashed || p_free == nullptr) return false;
        for (auto *p = p_free + 1; p < p_->p_rows_fixed_index + p_->maximum_rows; ++p) {
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

    void Step(int step) {
        const unsigned op = static_cast<unsigned>(rng_() % 100);
        const std::string at = " at step " + std::to_string(step);
        qx_value_t v[3]{};
        if (op < 35) {  // add
            const qx_int64_t key = static_cast<qx_int64_t>(rng_() % kKeys);
            Row row = Random(v);
            qx_int32_t expected = applied_.count(key) || SelfMatch() ? 108 : 0;
            ASSERT_EQ(expected, Add(p_, {{"k", I64(key)}, {"s", v[0]}, {"n", v[1]}, {"t", v[2]}}))
                << key << at;
            if (expected != 0) return;
            applied_[key] = row;
            if (GetParam().hashed) deleted_.erase(key);  // revived in place
            Changed("add");
        } else if (op < 60) {  // set some columns, mostly of a live key
            qx_int64_t key = static_cast<qx_int64_t>(rng_() % kKeys);
            if (!applied_.empty() && rng_() % 5 != 0)
                key =
                    std::next(applied_.begin(), static_cast<long>(rng_() % applied_.size()))->first;
            Row row = applied_.count(key) ? applied_.at(key) : Row{}, random = Random(v);
            const int first = static_cast<int>(rng_() % 3);  // a run of one to three columns
            const int last = first + static_cast<int>(rng_() % (3 - first));
            qx_value_t *all[] = {&v[0], &v[1], &v[2]};
            std::vector<qx_value_t *> values(all + first, all + last + 1);
            if (first == 0) std::get<0>(row) = std::get<0>(random);
            if (first <= 1 && last >= 1) std::get<1>(row) = std::get<1>(random);
            if (last == 2) std::get<2>(row) = std::get<2>(random);
            const qx_int32_t expected = ExpectedCode(key, 1);
            ASSERT_EQ(expected, sr_set_fields_by_key_1(
                                    p_, I64(key), const_cast<qx_char_ptr_t *>(kNames) + first,
                                    values.data(), static_cast<qx_uint32_t>(values.size())))
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
            ASSERT_EQ(live, sr_delete_row_by_index_1(p_, r) == 0) << at;  // deleted: refused
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
                ASSERT_EQ(212, sr_delete_rows_1(p_, nullptr));
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
    std::string path_, text_, other_;
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
    columns.push_back({Text("t"), QX_CHAR_PTR, SR_STANDARD, 0, nullptr, Str(nullptr)});
    p_ = Make(path_, columns, Mode(), c.hashed);
    ASSERT_NE(nullptr, p_);
    qx_uint32_t rewrites = 0, previous_length = p_->file_length;
    for (int step = 0; step < c.steps; ++step) {
        ASSERT_NO_FATAL_FAILURE(Step(step));
        ASSERT_NO_FATAL_FAILURE(Check("step " + std::to_string(step)));
        rewrites += p_->file_length < previous_length;
        previous_length = p_->file_length;
    }
    for (const char *kind : {"add", "set", "delete"}) EXPECT_GT(done_[kind], c.steps / 20) << kind;
    EXPECT_TRUE(!c.explicit_control || done_["commit"] > c.steps / 50);
    EXPECT_TRUE(!c.persistent || !c.explicit_control || rewrites > 0) << "no rewrite";
    if (c.persistent) {  // a fresh load shows the committed state
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
}  // namespace qxtest
