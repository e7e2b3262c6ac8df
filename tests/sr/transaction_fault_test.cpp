// Faults injected through the file primitives and the allocation seam during
// apply and commit: the committed file must stay readable as the committed
// state, the table must stay abortable, and a failed sync of commit's switch
// must put the old switch back and leave the table applied.
#include <errno.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sr/transaction_test_util.h"

namespace qxtest::tx {
namespace {

// Fault plan: the n-th call (1-based) of a primitive fails with an errno;
// calls before it go through, optionally cut short.
struct Plan {
    int writev_calls = 0;
    int writev_fail_at = 0;
    int writev_errno = 0;
    bool writev_short_first = false;
    int sync_calls = 0;
    int sync_fail_at = 0;
    int sync_errno = 0;
    int sync_fail_from = 0;  // this call and every later one fail
    int write_calls = 0;
    int write_fail_at = 0;
};
Plan P;

ssize_t FaultyWritev(int fd, const struct iovec *p_vector, int count) {
    ++P.writev_calls;
    if (P.writev_calls == P.writev_fail_at) {
        errno = P.writev_errno;
        return -1;
    }
    if (P.writev_short_first && count > 0 && p_vector[0].iov_len > 3) {
        // Half a record reaches the file, then the caller must resume.
        return write(fd, p_vector[0].iov_base, p_vector[0].iov_len / 2);
    }
    return writev(fd, p_vector, count);
}
int FaultyFdatasync(int fd) {
    ++P.sync_calls;
    if (P.sync_calls == P.sync_fail_at ||
        (P.sync_fail_from > 0 && P.sync_calls >= P.sync_fail_from)) {
        errno = P.sync_errno;
        return -1;
    }
    return fdatasync(fd);
}
ssize_t CountingWrite(int fd, const void *p_buffer, size_t length) {
    ++P.write_calls;
    if (P.write_calls == P.write_fail_at) {
        errno = EIO;
        return -1;
    }
    return write(fd, p_buffer, length);
}

class TransactionFaultTest : public TransactionTest {
  protected:
    void SetUp() override {
        TransactionTest::SetUp();
        P = Plan{};
        // A failed sync leaves its capture file in the working directory.
        ASSERT_NE(getcwd(cwd_, sizeof cwd_), nullptr);
        ASSERT_EQ(chdir(tmp_.path().c_str()), 0);
    }
    void TearDown() override {
        sr_i_file_ops = sr_i_default_file_ops;
        EXPECT_EQ(chdir(cwd_), 0);
        TransactionTest::TearDown();
    }
    void Arm() {
        sr_i_file_ops.p_writev = FaultyWritev;
        sr_i_file_ops.p_fdatasync = FaultyFdatasync;
        sr_i_file_ops.p_write = CountingWrite;
    }

    // A committed table of `total` rows; returns the table.
    sr_i_table_t *Committed(int total) {
        sr_i_table_t *p_table = Make("t");
        RowKit rows(p_table);
        for (int i = 0; i < total; ++i) rows.Add(R(i, {i}));
        EXPECT_EQ(sr_apply_1(p_table, 0), 0);
        EXPECT_EQ(sr_commit_1(p_table), 0);
        committed_ = Snapshot(p_table, false);
        return p_table;
    }

    // Pending changes of every kind on a table from Committed().
    void Change(sr_i_table_t *p_table, int added) {
        RowKit rows(p_table);
        rows.Set(0, R(0, {100}));
        rows.Delete(1);
        for (int i = 0; i < added; ++i) rows.Add(R(1000 + i, {i}));
    }

    // After a failed apply: the file reads as the committed state, abort
    // brings memory back, and the same changes then go through.
    void ExpectRecoverable(sr_i_table_t *p_table, int added) {
        EXPECT_EQ(p_table->ready_for_commit, 0u);
        EXPECT_EQ(Reopened("t"), committed_);
        sr_i_file_ops = sr_i_default_file_ops;
        ASSERT_EQ(sr_abort_1(p_table), 0);
        EXPECT_EQ(Snapshot(p_table, true), committed_);
        ExpectIndexesConsistent(p_table);
        Change(p_table, added);
        const State wanted = Snapshot(p_table, true);
        ASSERT_EQ(sr_apply_1(p_table, 0), 0);
        ASSERT_EQ(sr_commit_1(p_table), 0);
        EXPECT_EQ(Reopened("t"), wanted);
    }

    char cwd_[4096];
    State committed_;
};

TEST_F(TransactionFaultTest, FullFilesystemDuringAppendIs13AndTheTableAborts) {
    sr_i_table_t *p_table = Committed(4);
    Change(p_table, 3);
    P.writev_fail_at = 1;
    P.writev_errno = ENOSPC;
    Arm();
    EXPECT_EQ(sr_apply_1(p_table, 0), SR_E_FILESYSTEM_FULL);
    EXPECT_EQ(last_error().code, SR_E_FILESYSTEM_FULL);
    ExpectRecoverable(p_table, 3);
}

TEST_F(TransactionFaultTest, IoErrorOnTheSecondBatchLeavesOnlyATailBehindTheCommitRecord) {
    sr_i_table_t *p_table = Committed(4);
    Change(p_table, 30);  // 31 rows: two batches before the commit record
    P.writev_fail_at = 2;
    P.writev_errno = EIO;
    Arm();
    const qx_uint32_t committed_end = p_table->commit_record_offset + p_table->commit_record_length;
    EXPECT_EQ(sr_apply_1(p_table, 0), SR_E_SYSTEM_CALL);
    LastError error = last_error();
    EXPECT_NE(error.message.find("writev"), std::string::npos) << error.message;
    // The first batch reached the file behind the committed commit record.
    EXPECT_EQ(ReadBytes(File("t")).size(), committed_end + 16 * 32u);
    EXPECT_EQ(p_table->file_length, committed_end + 16 * 32u);
    ExpectRecoverable(p_table, 30);
}

TEST_F(TransactionFaultTest, ShortWritesAreResumedAndThenAFailureStillRecovers) {
    sr_i_table_t *p_table = Committed(2);
    Change(p_table, 20);
    P.writev_short_first = true;
    P.writev_fail_at = 5;
    P.writev_errno = EIO;
    Arm();
    EXPECT_EQ(sr_apply_1(p_table, 0), SR_E_SYSTEM_CALL);
    ExpectRecoverable(p_table, 20);
}

TEST_F(TransactionFaultTest, FailedSyncOfApplyIsReportedAndTheTableAborts) {
    sr_i_table_t *p_table = Committed(3);
    Change(p_table, 1);
    P.sync_fail_at = 1;
    P.sync_errno = EIO;
    Arm();
    EXPECT_EQ(sr_apply_1(p_table, 0), SR_E_SYSTEM_CALL);
    EXPECT_NE(last_error().message.find("fdatasync"), std::string::npos);
    EXPECT_TRUE(Exists(tmp_.file("reginfo_pid." + std::to_string(getpid()))));
    ExpectRecoverable(p_table, 1);
}

TEST_F(TransactionFaultTest, ImplicitUpdateWhoseApplyFailsIsAbortedAndReportsTheApplyCode) {
    sr_i_table_t *p_table = Make("t", 2);
    RowKit rows(p_table);
    rows.Add(R(1, {1}));
    ASSERT_EQ(sr_i_implicit_apply_commit(p_table), 0);
    rows.Add(R(2, {2}));
    P.writev_fail_at = 1;
    P.writev_errno = ENOSPC;
    Arm();
    EXPECT_EQ(sr_i_implicit_apply_commit(p_table), SR_E_FILESYSTEM_FULL);
    EXPECT_EQ(Snapshot(p_table, true), (State{{1, R(1, {1})}}));
    EXPECT_EQ(p_table->ready_for_commit, 0u);
    EXPECT_EQ(Reopened("t"), (State{{1, R(1, {1})}}));
}

TEST_F(TransactionFaultTest, FailedWriteOfARewriteRemovesItsFileAndKeepsUpdatesAsUpdates) {
    sr_i_table_t *p_table = Committed(4);
    Change(p_table, 2);
    P.writev_fail_at = 1;
    P.writev_errno = EIO;
    Arm();
    const std::string bytes = ReadBytes(File("t"));
    EXPECT_EQ(sr_i_apply(p_table, 1, 0), SR_E_SYSTEM_CALL);
    EXPECT_FALSE(Exists(File("t.rewrite")));
    EXPECT_EQ(p_table->rewrite_file_fd, -1);
    EXPECT_EQ(p_table->ready_for_commit, 0u);
    EXPECT_EQ(ReadBytes(File("t")), bytes);
    // The column definitions are back in pointer form.
    EXPECT_STREQ(sr_i_load_column(&p_table->p_columns[1]).name, "c1");
    // Appending the very same changes now: the updated row must still
    // replace its committed record, not appear twice.
    sr_i_file_ops = sr_i_default_file_ops;
    const State wanted = Snapshot(p_table, true);
    ASSERT_EQ(sr_i_apply(p_table, 0, 0), 0);
    ASSERT_EQ(sr_i_commit(p_table), 0);
    EXPECT_EQ(Reopened("t"), wanted);
}

TEST_F(TransactionFaultTest, FailedSyncOfARewriteRemovesItsFile) {
    sr_i_table_t *p_table = Committed(4);
    Change(p_table, 2);
    P.sync_fail_at = 1;
    P.sync_errno = EIO;
    Arm();
    EXPECT_EQ(sr_i_apply(p_table, 1, 0), SR_E_SYSTEM_CALL);
    EXPECT_FALSE(Exists(File("t.rewrite")));
    ExpectRecoverable(p_table, 2);
}

TEST_F(TransactionFaultTest, FailedSyncOfCommitRestoresTheSwitchAndReportsZeroWithTheTableApplied) {
    sr_i_table_t *p_table = Committed(3);
    Change(p_table, 1);
    const State wanted = Snapshot(p_table, true);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    const qx_uint32_t old_commit = p_table->commit_record_offset;
    const std::string applied = ReadBytes(File("t"));
    P.sync_fail_at = 1;
    P.sync_errno = EIO;
    Arm();
    EXPECT_EQ(sr_commit_1(p_table), 0);
    // Zero, then the commit type written back, then a second sync.
    EXPECT_EQ(P.write_calls, 2);
    EXPECT_EQ(P.sync_calls, 2);
    EXPECT_EQ(ReadBytes(File("t")), applied);
    EXPECT_EQ(static_cast<qx_int32_t>(U32At(applied, old_commit + 8)), SR_I_RECORD_TYPE_COMMIT);
    EXPECT_EQ(p_table->ready_for_commit, 1u);
    EXPECT_EQ(p_table->commit_record_offset, old_commit);
    EXPECT_EQ(Snapshot(p_table, false), committed_);
    EXPECT_EQ(Snapshot(p_table, true), wanted);
    EXPECT_EQ(Reopened("t"), committed_);
    // Updates are refused until the transaction is finished.
    EXPECT_EQ(sr_apply_1(p_table, 0), SR_E_APPLIED_NOT_COMMITTED);
    // The next commit finishes it.
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(p_table->ready_for_commit, 0u);
    EXPECT_EQ(Reopened("t"), wanted);
}

TEST_F(TransactionFaultTest, FailedSyncOfCommitThenAbortGivesTheCommittedState) {
    sr_i_table_t *p_table = Committed(3);
    Change(p_table, 1);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    P.sync_fail_at = 1;
    P.sync_errno = EIO;
    Arm();
    ASSERT_EQ(sr_commit_1(p_table), 0);
    sr_i_file_ops = sr_i_default_file_ops;
    ASSERT_EQ(sr_abort_1(p_table), 0);
    EXPECT_EQ(Snapshot(p_table, true), committed_);
    EXPECT_EQ(Reopened("t"), committed_);
}

// An implicit update is reported as saved only when it is committed: one
// failed sync of the switch is retried, a lasting one undoes the update and
// reports the sync's failure, and the next update goes through.
TEST_F(TransactionFaultTest, ImplicitUpdateWhoseCommitCannotBeSyncedIsRetriedThenAbortedAndFails) {
    struct Case {
        int fail_at;    // sync call that fails (apply's sync is the first)
        int fail_from;  // every sync from this one fails
        qx_int32_t rc;
        bool saved;
    };
    const Case cases[] = {{2, 0, 0, true}, {0, 2, SR_E_SYSTEM_CALL, false}};
    int n = 0;
    for (const Case &c : cases) {
        SCOPED_TRACE(n);
        const std::string name = "i" + std::to_string(n++);
        sr_i_table_t *p_table = Make(name, 2);
        RowKit rows(p_table);
        rows.Add(R(1, {1}));
        ASSERT_EQ(sr_i_implicit_apply_commit(p_table), 0);
        rows.Add(R(2, {2}));
        P = Plan{};
        P.sync_fail_at = c.fail_at;
        P.sync_fail_from = c.fail_from;
        P.sync_errno = EIO;
        Arm();
        EXPECT_EQ(sr_i_implicit_apply_commit(p_table), c.rc);
        sr_i_file_ops = sr_i_default_file_ops;
        EXPECT_EQ(p_table->ready_for_commit, 0u);
        const State one{{1, R(1, {1})}};
        State both = one;
        both[2] = R(2, {2});
        EXPECT_EQ(Snapshot(p_table, true), c.saved ? both : one);
        EXPECT_EQ(Reopened(name), c.saved ? both : one);
        rows.Add(R(3, {3}));
        EXPECT_EQ(sr_i_implicit_apply_commit(p_table), 0);
        EXPECT_EQ(Reopened(name).count(3), 1u);
    }
}

// The sync of the switch fails and so does the write that puts the old word
// back: the cache may hold the retired word.  Abort must still leave a file
// that reads as the committed state.
TEST_F(TransactionFaultTest, AbortAfterACommitWhoseRestoreFailedLeavesAReadableFile) {
    sr_i_table_t *p_table = Committed(3);
    Change(p_table, 1);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    P.sync_fail_at = 1;
    P.sync_errno = EIO;
    P.write_fail_at = 2;
    Arm();
    EXPECT_NE(sr_commit_1(p_table), 0);
    EXPECT_EQ(p_table->ready_for_commit, 1u);
    sr_i_file_ops = sr_i_default_file_ops;
    ASSERT_EQ(sr_abort_1(p_table), 0);
    EXPECT_EQ(Snapshot(p_table, true), committed_);
    EXPECT_EQ(Reopened("t"), committed_);
    Change(p_table, 1);
    const State wanted = Snapshot(p_table, true);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(Reopened("t"), wanted);
}

TEST_F(TransactionFaultTest, FailedSwitchWriteOfCommitKeepsTheTableApplied) {
    sr_i_table_t *p_table = Committed(2);
    Change(p_table, 1);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    sr_i_file_ops.p_write = [](int, const void *, size_t) -> ssize_t {
        errno = EIO;
        return -1;
    };
    EXPECT_EQ(sr_commit_1(p_table), SR_E_SYSTEM_CALL);
    EXPECT_EQ(p_table->ready_for_commit, 1u);
    EXPECT_EQ(Reopened("t"), committed_);
    sr_i_file_ops = sr_i_default_file_ops;
    ASSERT_EQ(sr_abort_1(p_table), 0);
    EXPECT_EQ(Snapshot(p_table, true), committed_);
}

// --- allocation failures -----------------------------------------------------

TEST_F(TransactionFaultTest, CommitRecordThatCannotBeBuiltIs12AfterTheCounterMoved) {
    sr_i_table_t *p_table = Committed(2);
    Change(p_table, 1);
    const std::string bytes = ReadBytes(File("t"));
    sr_i_alloc_fail_after(0);
    EXPECT_EQ(sr_apply_1(p_table, 0), SR_E_NO_MEMORY);
    sr_i_alloc_fail_after(-1);
    EXPECT_EQ(p_table->applied_change_counter, p_table->change_counter + 1);
    EXPECT_EQ(ReadBytes(File("t")), bytes);
    ExpectRecoverable(p_table, 1);
}

TEST_F(TransactionFaultTest, DeletionRecordThatCannotBeAllocatedIs12) {
    sr_i_table_t *p_table = Committed(3);
    Change(p_table, 0);
    sr_i_alloc_fail_after(1);  // the commit record passes, the deletion record fails
    EXPECT_EQ(sr_apply_1(p_table, 0), SR_E_NO_MEMORY);
    sr_i_alloc_fail_after(-1);
    EXPECT_NE(last_error().message.find("in the sr_i_apply function"), std::string::npos);
    ExpectRecoverable(p_table, 0);
}

TEST_F(TransactionFaultTest, RewriteCommitWithoutMemoryForThePathIs12AndAbortCleansUp) {
    sr_i_table_t *p_table = Committed(3);
    Change(p_table, 1);
    ASSERT_EQ(sr_i_apply(p_table, 1, 0), 0);
    sr_i_alloc_fail_after(0);
    EXPECT_EQ(sr_commit_1(p_table), SR_E_NO_MEMORY);
    sr_i_alloc_fail_after(-1);
    EXPECT_NE(last_error().message.find("in the sr_i_commit function"), std::string::npos);
    EXPECT_FALSE(Exists(File("t.rewrite")));
    EXPECT_EQ(p_table->ready_for_commit, 2u);
    EXPECT_EQ(Reopened("t"), committed_);
    // A second commit has no file left to rename.
    EXPECT_NE(sr_commit_1(p_table), 0);
    ASSERT_EQ(sr_abort_1(p_table), 0);
    EXPECT_EQ(Snapshot(p_table, true), committed_);
    Change(p_table, 1);
    const State wanted = Snapshot(p_table, true);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(Reopened("t"), wanted);
}

TEST_F(TransactionFaultTest, RenameOverADirectoryFailsAndLeavesTheTableAbortable) {
    sr_i_table_t *p_table = Committed(2);
    Change(p_table, 1);
    ASSERT_EQ(sr_i_apply(p_table, 1, 0), 0);
    // Something else now stands where the data file was.
    const std::string saved = ReadBytes(File("t"));
    ASSERT_EQ(unlink(File("t").c_str()), 0);
    ASSERT_EQ(mkdir(File("t").c_str(), 0755), 0);
    WriteBytes(File("t/occupied"), "x");
    EXPECT_EQ(sr_commit_1(p_table), SR_E_SYSTEM_CALL);
    LastError error = last_error();
    EXPECT_NE(error.message.find("The rename system call"), std::string::npos) << error.message;
    EXPECT_NE(error.message.find("to the sr_i_commit function"), std::string::npos)
        << error.message;
    EXPECT_FALSE(Exists(File("t.rewrite")));
    EXPECT_EQ(p_table->rewrite_file_fd, -1);
    EXPECT_EQ(p_table->ready_for_commit, 2u);
    ASSERT_EQ(sr_abort_1(p_table), 0);
    EXPECT_EQ(Snapshot(p_table, true), committed_);
    ASSERT_EQ(unlink(File("t/occupied").c_str()), 0);
    ASSERT_EQ(rmdir(File("t").c_str()), 0);
    WriteBytes(File("t"), saved);
}

}  // namespace
}  // namespace qxtest::tx
