// A long random sequence of adds, sets, deletes, applies, commits, aborts and
// reopens, checked after every step against a plain in-memory model of the
// committed and the working state.  Tables: transient and persistent,
// explicitly and implicitly controlled, with and without a hashed key index;
// columns of text, integer, float, binary and array types; long texts make a
// persistent file mostly dead space, so apply rewrites it now and then.
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
    bool persistent;
    bool explicit_control;
    bool hashed;
    int steps;
};

std::string Name(const Config &c) {
    return std::string(c.persistent ? "persistent" : "transient") +
           (c.explicit_control ? "_explicit" : "_implicit") + (c.hashed ? "_hashed" : "_linear");
}

constexpr qx_int64_t kKeys = 40;

class RowModelTest : public qxtest::RowsTest, public ::testing::WithParamInterface<Config> {
  protected:
    std::vector<sr_column_t> ModelColumns() {
        std::vector<sr_column_t> columns = Columns();
        const struct {
            const char *name;
            qx_data_type_t type;
        } extra[] = {{"d", QX_FLOAT64}, {"b", QX_BINARY_PTR}, {"a", QX_INT64_ARRAY}};
        for (const auto &e : extra) {
            sr_column_t c{};
            c.name = Text(e.name);
            c.type = e.type;
            c.qualifier = SR_STANDARD;
            columns.push_back(c);
        }
        return columns;
    }

    void Open() {
        const Config &c = GetParam();
        sr_opaque_handle_t table = nullptr;
        const int mode = c.explicit_control ? 6 : 2;
        if (c.hashed) {
            ASSERT_EQ(0, sr_open_hashed_key_table_1(tree_, Text(path_), mode, 1024, qxtest::HashI64,
                                                    qxtest::CompareI64, &table));
        } else {
            ASSERT_EQ(0, sr_open_table_1(tree_, Text(path_), mode, &table));
        }
        p_table_ = static_cast<sr_i_table_t *>(table);
    }

    // A random row: texts up to 600 bytes (or NULL), binary and arrays of
    // random size (or NULL), any int and double.
    Row RandomRow() {
        Row row;
        const int text_length = static_cast<int>(rng_() % 8 == 0 ? 0 : rng_() % 600);
        for (int i = 0; i < text_length; ++i) row.s += static_cast<char>('a' + rng_() % 26);
        row.n = static_cast<qx_int32_t>(rng_());
        row.d = static_cast<double>(static_cast<qx_int32_t>(rng_())) / 7.0;
        const int binary_length = static_cast<int>(rng_() % 40);
        for (int i = 0; i < binary_length; ++i) row.b += static_cast<char>(rng_() % 256);
        const int elements = static_cast<int>(rng_() % 5);
        for (int i = 0; i < elements; ++i) row.a.push_back(static_cast<qx_int64_t>(rng_()) << 20);
        return row;
    }

    // The caller's values of a row (NULL pointers for empty values now and
    // then: they are stored as the empty value).
    struct Values {
        std::vector<unsigned char> binary, array;
        qx_value_t k{}, s{}, n{}, d{}, b{}, a{};
    };
    void Fill(Values &v, qx_int64_t key, const Row &row) {
        v.k = I64(key);
        v.s = Str(row.s.empty() && rng_() % 2 ? nullptr : row.s.c_str());
        v.n = I32(row.n);
        v.d = F64(row.d);
        v.binary.assign(QX_BINARY_SIZE(row.b.size()) + 8, 0);
        auto *p_bin = reinterpret_cast<qx_binary_t *>(v.binary.data());
        p_bin->length = static_cast<qx_uint32_t>(row.b.size());
        if (!row.b.empty()) std::memcpy(p_bin->data, row.b.data(), row.b.size());
        v.b.ptr_binary = row.b.empty() && rng_() % 2 ? nullptr : p_bin;
        v.array.assign(QX_ARRAY_SIZE(row.a.size()) + 8, 0);
        auto *p_array = reinterpret_cast<qx_array_t *>(v.array.data());
        p_array->element_count = static_cast<qx_uint32_t>(row.a.size());
        for (size_t i = 0; i < row.a.size(); ++i) p_array->elements[i].val_int64 = row.a[i];
        v.a.ptr_array = row.a.empty() && rng_() % 2 ? nullptr : p_array;
    }

    // One row read by key: its code, and the row when 0.
    qx_int32_t Read(qx_int64_t key, qx_uint32_t visible, Row *p_row) {
        char *names[] = {const_cast<char *>("s"), const_cast<char *>("n"), const_cast<char *>("d"),
                         const_cast<char *>("b"), const_cast<char *>("a")};
        qx_value_t s{}, n{}, d{}, b{}, a{};
        qx_value_t *values[] = {&s, &n, &d, &b, &a};
        sr_row_state_t state;
        qx_int32_t rc = sr_get_fields_by_key_and_visibility_1(p_table_, I64(key), names, values, 5,
                                                              visible, &state);
        if (rc != 0) return rc;
        p_row->s = s.ptr_char;
        p_row->n = n.val_int32;
        p_row->d = d.val_float64;
        p_row->b.assign(reinterpret_cast<const char *>(b.ptr_binary->data), b.ptr_binary->length);
        p_row->a.clear();
        for (qx_uint32_t i = 0; i < a.ptr_array->element_count; ++i) {
            p_row->a.push_back(a.ptr_array->elements[i].val_int64);
        }
        return 0;
    }

    // What a read by key returns in each view, from the model.
    qx_int32_t ExpectedCode(qx_int64_t key, qx_uint32_t visible) const {
        if (!visible) {
            if (committed_.count(key)) return 0;
            return applied_.count(key) ? 204 : 202;
        }
        if (!GetParam().hashed && deleted_since_commit_.count(key)) {
            // The linear search meets the committed row, deleted, first.
            return 204;
        }
        if (applied_.count(key)) return 0;
        return committed_.count(key) ? 204 : 202;
    }

    void Check(const std::string &step) {
        SCOPED_TRACE(step);
        ASSERT_EQ(applied_.size(), Live(p_table_));
        if (p_table_->ready_for_commit == 0 && !pending_) {
            ASSERT_EQ(committed_.size(), p_table_->total_committed_rows);
        }
        for (qx_int64_t key = 0; key < kKeys; ++key) {
            for (qx_uint32_t visible : {0u, 1u}) {
                Row row;
                qx_int32_t rc = Read(key, visible, &row);
                ASSERT_EQ(ExpectedCode(key, visible), rc) << "key " << key << " view " << visible;
                if (rc == 0) {
                    const Row &expected = visible ? applied_.at(key) : committed_.at(key);
                    ASSERT_TRUE(expected == row) << "key " << key << " view " << visible;
                }
            }
        }
        // Walking the packed index shows each live key once.
        std::multiset<qx_int64_t> live;
        for (qx_uint32_t r = 0; r < p_table_->total_applied_rows; ++r) {
            qx_value_t k{};
            if (Get(p_table_, static_cast<qx_int32_t>(r), "k", &k, 1) == 0)
                live.insert(k.val_int64);
        }
        std::multiset<qx_int64_t> expected_live;
        for (const auto &entry : applied_) expected_live.insert(entry.first);
        ASSERT_EQ(expected_live, live);
    }

    // The linear check of a unique key meets the new row itself when the
    // slot it takes lies before a live row.
    bool SelfMatch() const {
        const sr_i_index_entry_t *p_free = p_table_->p_rows_free_chain;
        if (p_free == nullptr) return false;
        for (const sr_i_index_entry_t *p = p_free + 1;
             p < p_table_->p_rows_fixed_index + p_table_->maximum_rows; ++p) {
            if (p->p_applied != nullptr) return true;
        }
        return false;
    }

    void Changed() {
        pending_ = true;
        if (!GetParam().explicit_control) Committed();
    }
    void Committed() {
        committed_ = applied_;
        deleted_since_commit_.clear();
        pending_ = false;
    }
    void Aborted() {
        applied_ = committed_;
        deleted_since_commit_.clear();
        pending_ = false;
    }

    void StepAdd(int step) {
        const qx_int64_t key = static_cast<qx_int64_t>(rng_() % kKeys);
        Row row = RandomRow();
        Values v;
        Fill(v, key, row);
        qx_int32_t expected = 0;
        if (applied_.count(key)) {
            expected = 108;
        } else if (!GetParam().hashed && SelfMatch()) {
            expected = 108;
        }
        qx_int32_t rc =
            Add(p_table_, {{"k", v.k}, {"s", v.s}, {"n", v.n}, {"d", v.d}, {"b", v.b}, {"a", v.a}});
        ASSERT_EQ(expected, rc) << "add " << key << " at step " << step;
        if (rc != 0) return;
        applied_[key] = row;
        if (GetParam().hashed) deleted_since_commit_.erase(key);  // revived in place
        ++done_["add"];
        Changed();
    }

    // Mostly a live key, sometimes any key.
    qx_int64_t SomeKey() {
        if (applied_.empty() || rng_() % 5 == 0) return static_cast<qx_int64_t>(rng_() % kKeys);
        auto it = applied_.begin();
        std::advance(it, static_cast<long>(rng_() % applied_.size()));
        return it->first;
    }

    void StepSet(int step) {
        const qx_int64_t key = SomeKey();
        Row row = applied_.count(key) ? applied_.at(key) : Row{};
        Row random = RandomRow();
        Values v;
        Fill(v, key, random);
        // Some of the columns, at least one.
        std::vector<std::pair<const char *, qx_value_t>> fields;
        const unsigned mask = 1 + static_cast<unsigned>(rng_() % 31);
        if (mask & 1) fields.push_back({"s", v.s}), row.s = random.s;
        if (mask & 2) fields.push_back({"n", v.n}), row.n = random.n;
        if (mask & 4) fields.push_back({"d", v.d}), row.d = random.d;
        if (mask & 8) fields.push_back({"b", v.b}), row.b = random.b;
        if (mask & 16) fields.push_back({"a", v.a}), row.a = random.a;
        std::vector<qx_char_ptr_t> names;
        std::vector<qx_value_t *> values;
        for (auto &field : fields) {
            names.push_back(const_cast<char *>(field.first));
            values.push_back(&field.second);
        }
        const qx_int32_t expected = ExpectedCode(key, 1);
        qx_int32_t rc = sr_set_fields_by_key_1(p_table_, I64(key), names.data(), values.data(),
                                               static_cast<qx_uint32_t>(names.size()));
        ASSERT_EQ(expected, rc) << "set " << key << " at step " << step;
        if (rc != 0) return;
        applied_[key] = row;
        ++done_["set"];
        Changed();
    }

    void StepDeleteByIndex(int step) {
        if (p_table_->total_applied_rows == 0) {
            ASSERT_EQ(203, sr_delete_row_by_index_1(p_table_, 0));
            return;
        }
        const qx_uint32_t r = static_cast<qx_uint32_t>(rng_() % p_table_->total_applied_rows);
        qx_value_t k{};
        sr_row_state_t state;
        qx_int32_t read_rc = Get(p_table_, static_cast<qx_int32_t>(r), "k", &k, 1, &state);
        qx_int32_t rc = sr_delete_row_by_index_1(p_table_, r);
        if (read_rc != 0) {
            // Deleted already: refused, nothing counted twice.
            ASSERT_NE(0, rc) << "step " << step;
            return;
        }
        ASSERT_EQ(0, rc) << "delete at step " << step;
        applied_.erase(k.val_int64);
        if (state != SR_ROW_STATE_ADDED) deleted_since_commit_.insert(k.val_int64);
        ++done_["delete"];
        Changed();
    }

    void StepDeleteAll(int step) {
        qx_int32_t rc = sr_delete_rows_1(p_table_, nullptr);
        ASSERT_EQ(applied_.empty() ? 205 : 0, rc) << "step " << step;
        if (rc != 0) return;
        for (const auto &entry : applied_) {
            if (committed_.count(entry.first)) deleted_since_commit_.insert(entry.first);
        }
        applied_.clear();
        Changed();
    }

    void StepTransaction(int step) {
        if (!GetParam().explicit_control) return;
        const unsigned choice = static_cast<unsigned>(rng_() % 4);
        if (choice == 0) {
            ASSERT_EQ(0, sr_abort_1(p_table_));
            Aborted();
            return;
        }
        if (choice == 1) {
            ASSERT_EQ(pending_ ? 210 : 0, sr_commit_1(p_table_)) << "commit unapplied, " << step;
            return;
        }
        ASSERT_EQ(0, sr_apply_1(p_table_, 0)) << "step " << step;
        ASSERT_EQ(212, sr_apply_1(p_table_, 0));
        ASSERT_EQ(212, Add(p_table_, {{"k", I64(kKeys + 1)}}));
        ASSERT_NO_FATAL_FAILURE(Check("applied at step " + std::to_string(step)));
        if (choice == 2) {
            ASSERT_EQ(0, sr_commit_1(p_table_)) << "step " << step;
            ++done_["commit"];
            Committed();
        } else {
            ASSERT_EQ(0, sr_abort_1(p_table_)) << "step " << step;
            Aborted();
        }
    }

    void StepReopen(int step) {
        if (!GetParam().persistent) return;
        // Pending, unapplied changes go with the close.
        ASSERT_EQ(0, sr_close_table_1(p_table_)) << "step " << step;
        Aborted();
        ASSERT_NO_FATAL_FAILURE(Open());
    }

    std::mt19937_64 rng_{20261122};
    std::string path_;
    sr_i_table_t *p_table_ = nullptr;
    std::map<qx_int64_t, Row> committed_, applied_;
    // Committed keys whose committed row was deleted since the last commit.
    std::set<qx_int64_t> deleted_since_commit_;
    bool pending_ = false;
    std::map<std::string, int> done_;  // successful operations by kind
};

TEST_P(RowModelTest, RandomOperationsMatchTheModelAfterEveryStep) {
    const Config &c = GetParam();
    path_ = (c.persistent ? "/m/" : "/t/") + Name(c);
    p_table_ = Make(path_, ModelColumns(), c.explicit_control ? 6 : 2, c.hashed);
    ASSERT_NE(nullptr, p_table_);
    qx_uint32_t rewrites = 0;
    qx_uint32_t previous_length = p_table_->file_length;
    for (int step = 0; step < c.steps; ++step) {
        const unsigned op = static_cast<unsigned>(rng_() % 100);
        if (op < 35) {
            ASSERT_NO_FATAL_FAILURE(StepAdd(step));
        } else if (op < 60) {
            ASSERT_NO_FATAL_FAILURE(StepSet(step));
        } else if (op < 78) {
            ASSERT_NO_FATAL_FAILURE(StepDeleteByIndex(step));
        } else if (op < 80) {
            ASSERT_NO_FATAL_FAILURE(StepDeleteAll(step));
        } else if (op < 97) {
            ASSERT_NO_FATAL_FAILURE(StepTransaction(step));
        } else {
            ASSERT_NO_FATAL_FAILURE(StepReopen(step));
        }
        ASSERT_NO_FATAL_FAILURE(Check("step " + std::to_string(step)));
        if (p_table_->file_length < previous_length) ++rewrites;
        previous_length = p_table_->file_length;
    }
    // The sequence did real work of every kind.
    for (const char *kind : {"add", "set", "delete"}) {
        EXPECT_GT(done_[kind], c.steps / 20) << kind;
    }
    if (c.explicit_control) {
        EXPECT_GT(done_["commit"], c.steps / 50);
    }
    if (c.persistent && c.explicit_control) {
        // The dead space of replaced long texts made apply rewrite the file.
        EXPECT_GT(rewrites, 0u);
    }
    // Whatever the sequence left, a fresh load shows the committed state.
    if (c.persistent) {
        ASSERT_NO_FATAL_FAILURE(StepReopen(c.steps));
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
