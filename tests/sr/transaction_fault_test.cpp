// Faults in apply and commit: the file reads as the committed state and the table aborts.
#include <errno.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sr/transaction_test_util.h"

namespace qxtest::tx {
namespace {

// The n-th call (1-based) of a primitive fails; writev's may be cut short.
struct Plan {
    int writev_fail_at = 0;
    int writev_errno = EIO;
    bool writev_short = false;
    int sync_fail_at = 0;
    int sync_fail_from = 0;  // this call and every later one fail
    int write_fail_at = 0;
    int writev_calls = 0, sync_calls = 0, write_calls = 0;
};
Plan P;

ssize_t FaultyWritev(int fd, const struct iovec *p_vector, int count) {
    if (++P.writev_calls == P.writev_fail_at) return errno = P.writev_errno, -1;
    if (P.writev_short && count > 0 && p_vector[0].iov_len > 3) {
        return write(fd, p_vector[0].iov_base, p_vector[0].iov_len / 2);
    }
    return writev(fd, p_vector, count);
}
int FaultyFdatasync(int fd) {
    ++P.sync_calls;
    const bool fail = P.sync_calls == P.sync_fail_at ||
                      (P.sync_fail_from > 0 && P.sync_calls >= P.sync_fail_from);
    return fail ? (errno = EIO, -1) : fdatasync(fd);
}
ssize_t FaultyWrite(int fd, const void *p_buffer, size_t length) {
    const bool fail = ++P.write_calls == P.write_fail_at || P.write_fail_at < 0;
    return fail ? (errno = EIO, -1) : write(fd, p_buffer, length);
}

class TransactionFaultTest : public TransactionTest {
  protected:
    void SetUp() override {
        TransactionTest::SetUp();
        // A failed sync leaves its capture file in the working directory.
        ASSERT_NE(getcwd(cwd_, sizeof cwd_), nullptr);
        ASSERT_EQ(chdir(tmp_.path().c_str()), 0);
    }
    void TearDown() override {
        EXPECT_EQ(chdir(cwd_), 0);
        TransactionTest::TearDown();
    }
    void Arm(const Plan &plan) {
        P = plan;
        sr_i_file_ops.p_writev = FaultyWritev;
        sr_i_file_ops.p_fdatasync = FaultyFdatasync;
        sr_i_file_ops.p_write = FaultyWrite;
    }

    // A committed table /m/<name> of `total` rows.
    sr_i_table_t *Committed(int total) {
        sr_i_table_t *p_table = Make("t");
        for (int i = 0; i < total; ++i) EXPECT_EQ(AddRow(p_table, i, i), 0);
        EXPECT_EQ(ApplyCommit(p_table), 0);
        committed_ = Snapshot(p_table, false);
        return p_table;
    }
    // Pending changes of every kind; returns the working state.
    State Change(sr_i_table_t *p_table, int added) {
        EXPECT_FALSE(Put(p_table, R(0, {100}), false) || Delete(p_table, 1));
        for (int i = 0; i < added; ++i) EXPECT_EQ(AddRow(p_table, 1000 + i, i), 0);
        return Snapshot(p_table, true);
    }
    // Abort restores the file and memory, and changes then go through.
    void ExpectRecoverable(sr_i_table_t *p_table) {
        sr_i_file_ops = sr_i_default_file_ops;
        ASSERT_EQ(sr_abort_1(p_table), 0);
        EXPECT_EQ(Reopened("t"), committed_);
        EXPECT_EQ(Snapshot(p_table, true), committed_);
        const State wanted = Change(p_table, 2);
        ASSERT_EQ(ApplyCommit(p_table), 0);
        EXPECT_EQ(Reopened("t"), wanted);
    }

    char cwd_[4096];
    State committed_;
};

TEST_F(TransactionFaultTest, FailedApplyLeavesTheCommittedFileAndAnAbortableTable) {
    const Plan enospc{.writev_fail_at = 1, .writev_errno = ENOSPC}, no_memory{},
        eio{.writev_fail_at = 1};
    const Plan second_batch{.writev_fail_at = 2};  // 31 rows: two batches before the commit record
    const Plan short_then_eio{.writev_fail_at = 5, .writev_short = true},
        apply_sync{.sync_fail_at = 1}, switch_and_restore{.sync_fail_at = 1, .write_fail_at = 2};
    const struct {
        const char *what;
        Plan plan;
        int rewrite;
        int added;
        int alloc_fail_after;  // -1: none
        qx_int32_t rc;
        const char *message;
        bool at_commit = false;  // the apply goes through, the commit fails
        bool go_on = false;      // then the transaction goes on to its commit, not an abort
    } cases[] = {
        {"full filesystem", enospc, 0, 3, -1, SR_E_FILESYSTEM_FULL, "2605-013"},
        {"second batch", second_batch, 0, 30, -1, SR_E_SYSTEM_CALL, "writev"},
        {"short writes, then EIO", short_then_eio, 0, 20, -1, SR_E_SYSTEM_CALL, "writev"},
        {"sync of the apply", apply_sync, 0, 1, -1, SR_E_SYSTEM_CALL, "fdatasync"},
        {"write of a rewrite", enospc, 1, 2, -1, SR_E_FILESYSTEM_FULL, "2605-013"},
        {"sync of a rewrite", apply_sync, 1, 2, -1, SR_E_SYSTEM_CALL, "fdatasync"},
        {"rewrite, then append", eio, 1, 2, -1, SR_E_SYSTEM_CALL, "writev", false, true},
        {"commit record", no_memory, 0, 1, 0, SR_E_NO_MEMORY, "sr_i_create_commit_record"},
        {"deletion record", no_memory, 0, 0, 1, SR_E_NO_MEMORY, "in the sr_i_apply function"},
        {"switch", {.write_fail_at = -1}, 0, 1, -1, SR_E_SYSTEM_CALL, "write", true},
        {"switch and its restore", switch_and_restore, 0, 1, -1, SR_E_SYSTEM_CALL, "write", true},
        {"sync of the switch, restored", apply_sync, 0, 1, -1, 0, "", true},  // still applied
        {"sync of the switch, then commit", apply_sync, 0, 1, -1, 0, "", true, true},
        {"rename of a rewrite", no_memory, 1, 1, 0, SR_E_NO_MEMORY, "in the sr_i_commit function",
         true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        sr_i_table_t *p_table = Committed(4);
        const qx_uint32_t end = p_table->commit_record_offset + p_table->commit_record_length;
        const State wanted = Change(p_table, c.added);
        ASSERT_EQ(c.at_commit ? sr_i_apply(p_table, c.rewrite, 0) : 0, 0);
        Arm(c.plan);
        sr_i_alloc_fail_after(c.alloc_fail_after);
        EXPECT_EQ(c.at_commit ? sr_commit_1(p_table) : sr_i_apply(p_table, c.rewrite, 0), c.rc);
        sr_i_alloc_fail_after(-1);
        EXPECT_EQ(p_table->ready_for_commit, c.at_commit ? 1u + c.rewrite : 0u);
        EXPECT_EQ(c.at_commit && c.rc != 0 ? committed_ : Reopened("t"), committed_);
        EXPECT_NE(last_error().message.find(c.message), std::string::npos) << last_error().message;
        EXPECT_FALSE(Exists(File("t.rewrite")));
        if (c.plan.writev_fail_at == 2) {  // the first batch reached the file
            EXPECT_EQ(ReadBytes(File("t")).size(), end + 16 * 32u);
        }
        if (c.plan.sync_fail_at != 0) {
            EXPECT_TRUE(Exists(tmp_.file("reginfo_pid." + std::to_string(getpid()))));
        }
        if (c.go_on) {  // an append after a failed rewrite keeps updates as updates
            sr_i_file_ops = sr_i_default_file_ops;
            ASSERT_EQ(c.at_commit ? 0 : sr_i_apply(p_table, 0, 0), 0);
            ASSERT_EQ(sr_i_commit(p_table), 0);
            EXPECT_EQ(Reopened("t"), wanted);
        } else {
            ExpectRecoverable(p_table);
        }
        ASSERT_EQ(sr_close_table_1(p_table), 0);
        ASSERT_EQ(sr_delete_table_1(tree_, Text("/m/t")), 0);
    }
}

// An implicit update is saved only when committed; one failed switch sync is retried.
TEST_F(TransactionFaultTest, ImplicitUpdateIsSavedOnlyWhenCommitted) {
    const struct {
        Plan plan;
        qx_int32_t rc;
    } cases[] = {{{.writev_fail_at = 1, .writev_errno = ENOSPC}, SR_E_FILESYSTEM_FULL},
                 {{.sync_fail_at = 2}, 0},  // apply's sync is the first
                 {{.sync_fail_from = 2}, SR_E_SYSTEM_CALL}};
    int n = 0;
    for (const auto &c : cases) {
        const std::string name = "i" + std::to_string(n++);
        sr_i_table_t *p_table = Make(name, 2);
        ASSERT_EQ(AddRow(p_table, 1, 1), 0);
        Arm(c.plan);
        EXPECT_EQ(AddRow(p_table, 2, 2), c.rc) << name;
        sr_i_file_ops = sr_i_default_file_ops;
        EXPECT_EQ(p_table->ready_for_commit, 0u);
        State expected{{1, R(1, {1})}};
        if (c.rc == 0) expected[2] = R(2, {2});
        EXPECT_EQ(Snapshot(p_table, true), expected) << name;
        EXPECT_EQ(Reopened(name), expected) << name;
        EXPECT_EQ(AddRow(p_table, 3, 3), 0);
        EXPECT_EQ(Reopened(name).count(3), 1u);
    }
}

// A rewrite that cannot be renamed into place is removed; the table stays abortable.
TEST_F(TransactionFaultTest, RewriteCommitThatCannotRenameLeavesTheTableAbortable) {
    sr_i_table_t *p_table = Committed(3);
    Change(p_table, 1);
    ASSERT_EQ(sr_i_apply(p_table, 1, 0), 0);
    ASSERT_EQ(unlink(File("t").c_str()), 0);
    ASSERT_EQ(mkdir(File("t").c_str(), 0755), 0);
    WriteBytes(File("t/occupied"), "x");
    EXPECT_EQ(sr_commit_1(p_table), SR_E_SYSTEM_CALL);
    EXPECT_NE(last_error().message.find("The rename system call"), std::string::npos);
    EXPECT_NE(last_error().message.find("to the sr_i_commit function"), std::string::npos);
    EXPECT_FALSE(Exists(File("t.rewrite")));
    EXPECT_NE(sr_commit_1(p_table), 0) << "no file left to rename";
    EXPECT_EQ(p_table->ready_for_commit, 2u);
    ASSERT_EQ(sr_abort_1(p_table), 0);
    EXPECT_EQ(Snapshot(p_table, true), committed_);
}

// Memory running out anywhere in an add to a hashed table or in a set leaves the rows as they were.
TEST_F(TransactionFaultTest, EveryAllocationFailureOfAnAddOrASetLeavesTheRows) {
    std::vector<sr_column_t> columns = ScalarColumns(2);
    sr_opaque_handle_t handle = nullptr;
    ASSERT_EQ(sr_create_hashed_key_table_1(tree_, Text("/mem/h"), columns.data(), 2, 6, 1024,
                                           HashI64, CompareI64, &handle),
              0);
    auto *p_table = static_cast<sr_i_table_t *>(handle);
    EachAllocationFailure([&] { return AddRow(p_table, 1, 1); },
                          [&] { EXPECT_TRUE(Snapshot(p_table, true).empty()); });
    ASSERT_EQ(sr_close_table_1(Committed(1)), 0);  // a fresh open has no change entries yet
    p_table = OpenT(6);
    EachAllocationFailure([&] { return Put(p_table, R(0, {2}), false); },
                          [&] { EXPECT_EQ(Snapshot(p_table, true), committed_); });
    EXPECT_EQ(Snapshot(p_table, true), (State{{0, R(0, {2})}}));
}

}  // namespace
}  // namespace qxtest::tx
