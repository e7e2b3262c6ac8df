// Crash safety: a writer process killed with SIGKILL at each step of apply
// and commit leaves a file that opens as exactly the last committed state, or
// exactly the new one once commit's switch has reached the file; never a mix
// and never an unreadable table.  Also: a reader process that opens the table
// over and over while another process commits never sees half a transaction.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "sr/transaction_test_util.h"

namespace qxtest::tx {
namespace {

constexpr int kRows = 12;

// The changes of one transaction: generation g everywhere, one row gone,
// one row new.
void Transaction(sr_i_table_t *p_table, qx_int64_t g) {
    RowKit rows(p_table);
    for (int k = 0; k < kRows; ++k) {
        qx_int64_t f = rows.Find(k);
        if (f >= 0) rows.Set(static_cast<qx_uint32_t>(f), R(k, {g, k * g}));
    }
    qx_int64_t gone = rows.Find(g % kRows);
    if (gone >= 0) rows.Delete(static_cast<qx_uint32_t>(gone));
    qx_int64_t born = 100 + g;
    if (rows.Find(born) < 0) rows.Add(R(born, {g, -g}));
}
// The state Transaction(g) makes of `state`.
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
    void SetUp() override {
        TransactionTest::SetUp();
        sr_i_table_t *p_table = Make("t", 6, 3);
        RowKit rows(p_table);
        for (int k = 0; k < kRows; ++k) rows.Add(R(k, {0, k}));
        ASSERT_EQ(sr_apply_1(p_table, 0), 0);
        ASSERT_EQ(sr_commit_1(p_table), 0);
        old_ = Snapshot(p_table, false);
        // The writer in the child needs the file's lock.
        ASSERT_EQ(sr_close_table_1(p_table), 0);
    }
    void TearDown() override {
        unsetenv("QX_SR_TEST_PAUSE");
        sr_i_test_pause_reload();
        TransactionTest::TearDown();
    }

    // Forks a writer that opens /m/t with `mode` and runs `work` with the
    // pause point armed; returns once the child has stopped there.
    pid_t StopChildAt(const std::string &point, int mode,
                      const std::function<qx_int32_t(sr_i_table_t *)> &work) {
        pid_t pid = fork();
        if (pid == 0) {
            alarm(60);  // never outlive a broken test
            setenv("QX_SR_TEST_PAUSE", point.c_str(), 1);
            sr_i_test_pause_reload();
            sr_opaque_handle_t handle = nullptr;
            if (sr_open_table_1(tree_, Text("/m/t"), mode, &handle) != 0) _exit(3);
            if (work(static_cast<sr_i_table_t *>(handle)) != 0) _exit(4);
            _exit(0);  // the point was never reached
        }
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, WUNTRACED), pid);
        EXPECT_TRUE(WIFSTOPPED(status))
            << "the child ended with status " << status << " before reaching " << point;
        return pid;
    }
    static void Kill(pid_t pid) {
        kill(pid, SIGKILL);
        int status = 0;
        waitpid(pid, &status, 0);
    }

    State old_;
};

qx_int32_t ExplicitAppend(sr_i_table_t *p_table) {
    Transaction(p_table, 1);
    qx_int32_t rc = sr_apply_1(p_table, 0);
    return rc != 0 ? rc : sr_commit_1(p_table);
}

qx_int32_t ExplicitRewrite(sr_i_table_t *p_table) {
    Transaction(p_table, 1);
    qx_int32_t rc = sr_i_apply(p_table, 1, 0);
    return rc != 0 ? rc : sr_i_commit(p_table);
}

qx_int32_t ImplicitUpdate(sr_i_table_t *p_table) {
    Transaction(p_table, 1);
    return sr_i_implicit_apply_commit(p_table);
}

TEST_F(CrashConcurrencyTest, KilledAfterApplyWroteItsRecordsShowsTheLastCommit) {
    Kill(StopChildAt("apply-written", 6, ExplicitAppend));
    EXPECT_EQ(Reopened("t"), old_);
}

TEST_F(CrashConcurrencyTest, KilledBetweenApplyAndCommitShowsTheLastCommit) {
    Kill(StopChildAt("implicit-applied", 2, ImplicitUpdate));
    EXPECT_EQ(Reopened("t"), old_);
}

TEST_F(CrashConcurrencyTest, KilledBetweenCommitsWriteAndItsSyncShowsTheNewState) {
    Kill(StopChildAt("commit-written", 6, ExplicitAppend));
    EXPECT_EQ(Reopened("t"), After(old_, 1));
}

TEST_F(CrashConcurrencyTest, KilledAfterCommitsSyncShowsTheNewState) {
    Kill(StopChildAt("commit-synced", 2, ImplicitUpdate));
    EXPECT_EQ(Reopened("t"), After(old_, 1));
}

TEST_F(CrashConcurrencyTest, KilledWhileWritingARewriteShowsTheLastCommit) {
    const std::string bytes = ReadBytes(File("t"));
    Kill(StopChildAt("apply-written", 6, ExplicitRewrite));
    EXPECT_TRUE(Exists(File("t.rewrite")));
    EXPECT_EQ(ReadBytes(File("t")), bytes);
    EXPECT_EQ(Reopened("t"), old_);
}

TEST_F(CrashConcurrencyTest, KilledBeforeTheRenameOfARewriteShowsTheLastCommit) {
    Kill(StopChildAt("rewrite-before-rename", 6, ExplicitRewrite));
    EXPECT_TRUE(Exists(File("t.rewrite")));
    EXPECT_EQ(Reopened("t"), old_);
}

TEST_F(CrashConcurrencyTest, KilledAfterTheRenameOfARewriteShowsTheNewState) {
    Kill(StopChildAt("rewrite-after-rename", 6, ExplicitRewrite));
    EXPECT_FALSE(Exists(File("t.rewrite")));
    EXPECT_EQ(Reopened("t"), After(old_, 1));
    // Only the metadata record, the live rows and a commit record.
    EXPECT_EQ(FileRecords(ReadBytes(File("t"))).size(), 1u + After(old_, 1).size() + 1);
}

// The exported call's frame runs the implicit cycle with the same steps.
qx_int32_t AddThroughTheCall(sr_i_table_t *p_table) {
    char key_name[] = "k";
    char value_name[] = "c1";
    qx_char_ptr_t names[2] = {key_name, value_name};
    qx_value_t values[2] = {};
    values[0].val_int64 = 77;
    values[1].val_int64 = 7;
    qx_value_t *p_values[2] = {&values[0], &values[1]};
    return sr_add_row_1(p_table, names, p_values, 2);
}

TEST_F(CrashConcurrencyTest, ExportedAddKilledBeforeCommitIsLostAndAfterTheSwitchIsKept) {
    Kill(StopChildAt("implicit-applied", 2, AddThroughTheCall));
    EXPECT_EQ(Reopened("t"), old_);
    Kill(StopChildAt("commit-written", 2, AddThroughTheCall));
    State with_row = old_;
    with_row[77] = R(77, {7, 102});  // c2 takes its default
    EXPECT_EQ(Reopened("t"), with_row);
}

TEST_F(CrashConcurrencyTest, PausePointCanLeaveAMarkerAndWaitToBeKilled) {
    const std::string marker = tmp_.file("marker");
    pid_t pid = fork();
    if (pid == 0) {
        alarm(60);
        setenv("QX_SR_TEST_PAUSE", ("commit-written@2," + marker).c_str(), 1);
        sr_i_test_pause_reload();
        sr_opaque_handle_t handle = nullptr;
        if (sr_open_table_1(tree_, Text("/m/t"), 6, &handle) != 0) _exit(3);
        auto *p_table = static_cast<sr_i_table_t *>(handle);
        for (int g = 1; g <= 3; ++g) {
            Transaction(p_table, g);
            if (sr_apply_1(p_table, 0) != 0 || sr_commit_1(p_table) != 0) _exit(4);
        }
        _exit(0);
    }
    for (int i = 0; i < 6000 && !Exists(marker); ++i) usleep(10000);
    ASSERT_TRUE(Exists(marker));
    EXPECT_EQ(ReadBytes(marker), "commit-written");
    Kill(pid);
    // Stopped in the second commit, after its switch was written.
    EXPECT_EQ(Reopened("t"), After(After(old_, 1), 2));
}

TEST_F(CrashConcurrencyTest, NextWriterAfterACrashWritesOverTheUncommittedTail) {
    Kill(StopChildAt("apply-written", 6, [](sr_i_table_t *p_table) {
        // A long tail: many rows added, never committed.
        RowKit rows(p_table);
        for (int k = 500; k < 600; ++k) rows.Add(R(k, {k, k}));
        qx_int32_t rc = sr_apply_1(p_table, 0);
        return rc != 0 ? rc : sr_commit_1(p_table);
    }));
    sr_opaque_handle_t handle = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/t"), 6, &handle), 0);
    auto *p_table = static_cast<sr_i_table_t *>(handle);
    EXPECT_EQ(Snapshot(p_table, false), old_);
    Transaction(p_table, 2);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(Reopened("t"), After(old_, 2));
}

TEST_F(CrashConcurrencyTest, NextWriterAfterACrashedRewriteRewritesOverTheStaleFile) {
    Kill(StopChildAt("rewrite-before-rename", 6, [](sr_i_table_t *p_table) {
        RowKit rows(p_table);
        for (int k = 500; k < 600; ++k) rows.Add(R(k, {k, k}));  // a long stale image
        qx_int32_t rc = sr_i_apply(p_table, 1, 0);
        return rc != 0 ? rc : sr_i_commit(p_table);
    }));
    sr_opaque_handle_t handle = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/t"), 6, &handle), 0);
    auto *p_table = static_cast<sr_i_table_t *>(handle);
    Transaction(p_table, 3);
    ASSERT_EQ(sr_i_apply(p_table, 1, 0), 0);
    ASSERT_EQ(sr_i_commit(p_table), 0);
    EXPECT_EQ(Reopened("t"), After(old_, 3));
}

// A writer that commits one generation after another, appending and now and
// then rewriting, killed at random moments: every kill leaves one whole
// generation, never older than one seen before.
TEST_F(CrashConcurrencyTest, RandomKillsAlwaysLeaveOneWholeCommittedGeneration) {
    std::mt19937 rng(4242);
    qx_int64_t last_generation = 0;
    qx_int64_t next_start = 1;
    for (int round = 0; round < 8; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const qx_int64_t start = next_start;
        pid_t pid = fork();
        if (pid == 0) {
            alarm(60);
            sr_opaque_handle_t handle = nullptr;
            if (sr_open_table_1(tree_, Text("/m/t"), 6, &handle) != 0) _exit(3);
            auto *p_table = static_cast<sr_i_table_t *>(handle);
            for (qx_int64_t g = start;; ++g) {
                Transaction(p_table, g);
                qx_int32_t rc = sr_i_apply(p_table, g % 4 == 0 ? 1 : 0, 0);
                if (rc == 0) rc = sr_i_commit(p_table);
                if (rc != 0) _exit(4);
            }
        }
        usleep(static_cast<useconds_t>(5000 + rng() % 60000));
        Kill(pid);
        State state = Reopened("t");
        ASSERT_FALSE(state.empty());
        // Generation g adds the row of key 100 + g: the highest key tells it.
        const qx_int64_t g = state.rbegin()->first >= 100 ? state.rbegin()->first - 100 : 0;
        ASSERT_GE(g, last_generation);
        State expected = old_;
        for (qx_int64_t i = 1; i <= g; ++i) expected = After(expected, i);
        // Earlier rounds made the generations before `start`: the replay
        // covers them too.
        ASSERT_EQ(state, expected) << "generation " << g;
        last_generation = g;
        next_start = g + 1;
    }
    EXPECT_GT(last_generation, 8) << "the writer hardly ever committed";
}

// A reader process opens the table again and again while this process
// commits: every open sees one whole generation.
TEST_F(CrashConcurrencyTest, ReaderProcessNeverSeesHalfATransaction) {
    pid_t pid = fork();
    if (pid == 0) {
        alarm(60);
        struct timespec begin;
        clock_gettime(CLOCK_MONOTONIC, &begin);
        int opens = 0;
        for (;;) {
            struct timespec now;
            clock_gettime(CLOCK_MONOTONIC, &now);
            if (now.tv_sec - begin.tv_sec >= 2 && opens > 20) break;
            sr_i_table_t *p_table = nullptr;
            if (sr_i_open_persistent_table(static_cast<sr_i_tree_t *>(tree_), nullptr,
                                           File("t").c_str(), SR_MODE_READ, 512, nullptr,
                                           &p_table) != 0) {
                _exit(5);
            }
            State state = Snapshot(p_table, false);
            sr_i_close_table(p_table);
            ++opens;
            qx_int64_t g = -1;
            for (const auto &[key, row] : state) {
                if (key >= kRows) continue;
                qx_int64_t v = static_cast<qx_int64_t>(std::get<qx_uint64_t>(row[1]));
                if (g >= 0 && v != g) _exit(6);  // a mix of two generations
                g = v;
                if (v >= 1 && std::get<qx_uint64_t>(row[2]) != static_cast<qx_uint64_t>(key * v)) {
                    _exit(7);
                }
            }
            if (g >= 1 && state.count(100 + g) == 0) _exit(8);
            if (g >= 1 && state.count(g % kRows) != 0) _exit(9);
        }
        _exit(0);
    }
    sr_opaque_handle_t handle = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/t"), 6, &handle), 0);
    auto *p_table = static_cast<sr_i_table_t *>(handle);
    int status = 0;
    qx_int64_t g = 1;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        Transaction(p_table, g);
        ASSERT_EQ(sr_i_apply(p_table, g % 5 == 0 ? 1 : 0, 0), 0);
        ASSERT_EQ(sr_i_commit(p_table), 0);
        ++g;
    }
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the reader saw a broken state";
    EXPECT_GT(g, 5);
}

}  // namespace
}  // namespace qxtest::tx
