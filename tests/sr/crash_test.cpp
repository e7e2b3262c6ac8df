// A writer killed at any step leaves exactly the last or the new commit; readers never see half.
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "sr/transaction_test_util.h"

namespace qxtest::tx {
namespace {

constexpr int kRows = 12;

// The state generation g makes of `state`: g everywhere, one row gone, one row new.
State After(State state, qx_int64_t g) {
    for (auto &[key, row] : state) {
        if (key < kRows) row = R(key, {g, key * g});
    }
    state.erase(g % kRows);
    state[100 + g] = R(100 + g, {g, -g});
    return state;
}

class CrashConcurrencyTest : public TransactionTest {
  protected:
    // /m/t of kRows committed rows, closed: the writer in the child needs its lock.
    void Fresh() {
        sr_delete_table_1(tree_, Text("/m/t"));
        unlink(File("t.rewrite").c_str());
        // An unchecked key: a checked one refuses adds into slots below the highest.
        std::vector<sr_column_t> columns = ScalarColumns(3);
        columns[0].qualifier = SR_PRIMARY_KEY_NOCHECK;
        sr_i_table_t *p_table = Create("/m/t", columns, 6);
        for (int k = 0; k < kRows; ++k) ASSERT_EQ(Put(p_table, R(k, {0, k})), 0);
        ASSERT_EQ(ApplyCommit(p_table), 0);
        old_ = Snapshot(p_table, false);
        ASSERT_EQ(sr_close_table_1(p_table), 0);
    }
    // Makes the changes of generation g, applies them (by a rewrite or not) and commits.
    qx_int32_t Generation(sr_i_table_t *p_table, qx_int64_t g, int rewrite = 0) {
        const State working = Snapshot(p_table, true);
        qx_int32_t rc = 0;
        for (const auto &[key, row] : working) {
            if (key < kRows) rc |= Put(p_table, R(key, {g, key * g}), false);
        }
        if (working.count(g % kRows) != 0) rc |= Delete(p_table, g % kRows);
        if (working.count(100 + g) == 0) rc |= Put(p_table, R(100 + g, {g, -g}));
        if (rc == 0) rc = rewrite ? sr_i_apply(p_table, 1, 0) : sr_apply_1(p_table, 0);
        return rc != 0 ? rc : sr_commit_1(p_table);
    }
    // Generation g adds the row of key 100 + g: the highest key tells the last one.
    static qx_int64_t GenerationOf(const State &state) {
        return state.empty() || state.rbegin()->first < 100 ? 0 : state.rbegin()->first - 100;
    }
    State Generations(qx_int64_t g) const {
        State state = old_;
        for (qx_int64_t i = 1; i <= g; ++i) state = After(state, i);
        return state;
    }

    // A child that opens /m/t and runs `work`, returned once stopped at the pause point.
    pid_t StopChildAt(const std::string &point, int mode,
                      const std::function<qx_int32_t(sr_i_table_t *)> &work) {
        return qxtest::StopChildAt(point, [&] {
            sr_i_table_t *p_table = OpenT(mode);
            return p_table == nullptr ? 3 : work(p_table) != 0 ? 4 : 0;
        });
    }

    State old_;
};

// The next writer after a crash writes over the stale tail or image (100 rows the crash left).
TEST_F(CrashConcurrencyTest, KilledAtEachStepOrAtRandomShowsTheLastOrTheNewCommit) {
    const struct {
        const char *point;
        int mode;
        int rewrite;
        bool new_state;
        int rewrite_file;  // -1: not looked at
    } cases[] = {
        {"apply-written", 6, 0, false, -1},      {"commit-written", 6, 0, true, -1},
        {"apply-written", 6, 1, false, 1},       {"rewrite-before-rename", 6, 1, false, 1},
        {"rewrite-after-rename", 6, 1, true, 0}, {"implicit-applied", 2, 0, false, -1},
        {"commit-written", 2, 0, true, -1},      {"commit-synced", 2, 0, true, -1},
        {"commit-written@2", 6, 0, true, -1},  // in the second commit
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.point);
        const int generations = std::strchr(c.point, '@') != nullptr ? 2 : 1;
        Fresh();
        const std::string bytes = ReadBytes(File("t"));
        Kill(StopChildAt(c.point, c.mode, [&](sr_i_table_t *p_table) {
            if (c.mode == 2) return AddRow(p_table, 77, 7);
            for (int k = 500; k < 600 && !c.new_state; ++k) Put(p_table, R(k, {k, k}));
            qx_int32_t rc = 0;
            for (int g = 1; g <= generations && rc == 0; ++g)
                rc = Generation(p_table, g, c.rewrite);
            return rc;
        }));
        State expected = old_;
        if (c.new_state && c.mode == 2) {
            expected[77] = R(77, {7, 102});  // c2 takes its default
        } else if (c.new_state) {
            expected = Generations(generations);
        }
        EXPECT_EQ(Reopened("t"), expected);
        EXPECT_TRUE(c.rewrite_file < 0 || Exists(File("t.rewrite")) == (c.rewrite_file == 1));
        EXPECT_TRUE(c.rewrite_file != 1 || ReadBytes(File("t")) == bytes);
        if (c.rewrite_file == 0) {  // only the metadata record, the live rows and a commit record
            EXPECT_EQ(FileRecords(ReadBytes(File("t"))).size(), expected.size() + 2);
        }
        if (c.mode == 2 || c.new_state) continue;
        sr_i_table_t *p_table = OpenT(6);
        ASSERT_NE(p_table, nullptr);
        ASSERT_EQ(Generation(p_table, 2, c.rewrite), 0);
        EXPECT_EQ(Reopened("t"), After(old_, 2));
        ASSERT_EQ(sr_close_table_1(p_table), 0);
    }
    // Random kills leave one whole generation, none older than seen; readers never see half of one.
    Fresh();
    std::mt19937 rng(4242);
    qx_int64_t last = 0;
    for (int round = 0; round < 8; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        pid_t pid = fork();
        if (pid == 0) {
            alarm(60);
            sr_i_table_t *p_table = OpenT(6);
            for (qx_int64_t g = last + 1; p_table != nullptr; ++g) {
                if (Generation(p_table, g, g % 4 == 0) != 0) _exit(4);
            }
            _exit(3);
        }
        const auto until =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(5 + rng() % 400);
        while (std::chrono::steady_clock::now() < until) {
            const State seen = Reopened("t");
            ASSERT_EQ(seen, Generations(GenerationOf(seen))) << "a reader saw half a transaction";
        }
        Kill(pid);
        const State state = Reopened("t");
        const qx_int64_t g = GenerationOf(state);
        ASSERT_GE(g, last);
        ASSERT_EQ(state, Generations(g)) << "generation " << g;
        last = g;
    }
    EXPECT_GT(last, 8) << "the writer hardly ever committed";
}

}  // namespace
}  // namespace qxtest::tx
