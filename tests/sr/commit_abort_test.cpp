// Commit and abort: the switch on disk (one 4-byte write, or the rename of a
// rewrite), the walks in memory, the implicit cycle, and a long random
// sequence of transactions checked against a model after every step.
#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>

#include <iterator>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "sr/transaction_test_util.h"

namespace qxtest::tx {
namespace {

// Every write and sync the file primitives make.
std::vector<std::pair<int, std::string>> Writes;
int Syncs = 0;

ssize_t CountingWrite(int fd, const void *p_buffer, size_t length) {
    Writes.emplace_back(fd, std::string(static_cast<const char *>(p_buffer), length));
    return write(fd, p_buffer, length);
}
ssize_t CountingWritev(int fd, const struct iovec *p_vector, int count) {
    std::string bytes;
    for (int i = 0; i < count; ++i) {
        bytes.append(static_cast<const char *>(p_vector[i].iov_base), p_vector[i].iov_len);
    }
    Writes.emplace_back(fd, bytes);
    return writev(fd, p_vector, count);
}
int CountingFdatasync(int fd) {
    ++Syncs;
    return fdatasync(fd);
}

class CommitAbortTest : public TransactionTest {
  protected:
    void SetUp() override {
        TransactionTest::SetUp();
        Writes.clear();
        Syncs = 0;
    }
    void Count() {
        sr_i_file_ops.p_write = CountingWrite;
        sr_i_file_ops.p_writev = CountingWritev;
        sr_i_file_ops.p_fdatasync = CountingFdatasync;
    }
};

TEST_F(CommitAbortTest, CommitWithNothingToDoWritesNothing) {
    sr_i_table_t *p_table = Make("t");
    const std::string bytes = ReadBytes(File("t"));
    Count();
    EXPECT_EQ(sr_commit_1(p_table), 0);
    EXPECT_TRUE(Writes.empty());
    EXPECT_EQ(Syncs, 0);
    EXPECT_EQ(ReadBytes(File("t")), bytes);
    EXPECT_EQ(p_table->change_counter, 1u);
}

TEST_F(CommitAbortTest, CommitOfChangesNeverAppliedIs210AndChangesNothing) {
    sr_i_table_t *p_table = Make("t");
    qx_uint32_t f = RowKit(p_table).Add(R(1, {1}));
    Count();
    EXPECT_EQ(sr_commit_1(p_table), SR_E_NOT_APPLIED);
    EXPECT_EQ(last_error().code, SR_E_NOT_APPLIED);
    EXPECT_TRUE(Writes.empty());
    EXPECT_EQ(sr_i_get_row_state_for_fixed_index(p_table, f), SR_ROW_STATE_ADDED);
    EXPECT_NE(p_table->p_rows_change_list, nullptr);
}

TEST_F(CommitAbortTest, CommitAfterAppendIsOneFourByteWriteOfZeroAndOneSync) {
    sr_i_table_t *p_table = Make("t");
    RowKit(p_table).Add(R(1, {1}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    const qx_uint32_t old_commit = p_table->commit_record_offset;
    const qx_uint32_t new_commit = p_table->applied_commit_record_offset;
    std::string before = ReadBytes(File("t"));
    Count();
    ASSERT_EQ(sr_commit_1(p_table), 0);
    ASSERT_EQ(Writes.size(), 1u);
    EXPECT_EQ(Writes[0].second, std::string(4, '\0'));
    EXPECT_EQ(Syncs, 1);
    std::string after = ReadBytes(File("t"));
    EXPECT_EQ(U32At(after, old_commit + 8), 0u);
    before.replace(old_commit + 8, 4, std::string(4, '\0'));
    EXPECT_EQ(after, before) << "nothing else changed";
    EXPECT_EQ(p_table->commit_record_offset, new_commit);
    EXPECT_EQ(p_table->commit_record_length, SR_I_COMMIT_RECORD_LENGTH);
    EXPECT_EQ(p_table->ready_for_commit, 0u);
    EXPECT_EQ(p_table->change_counter, 2u);
    EXPECT_EQ(p_table->total_committed_rows, 1u);
    EXPECT_EQ(p_table->p_rows_change_list, nullptr);
    EXPECT_EQ(Reopened("t"), (State{{1, R(1, {1})}}));
}

TEST_F(CommitAbortTest, CommitMovesEveryRowToItsCommittedState) {
    sr_i_table_t *p_table = Make("t");
    RowKit rows(p_table);
    for (int i = 0; i < 5; ++i) rows.Add(R(i, {i}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    for (qx_uint32_t f = 0; f < 5; ++f) {
        EXPECT_EQ(sr_i_get_row_state_for_fixed_index(p_table, f), SR_ROW_STATE_COMMITTED);
    }

    rows.Set(2, R(2, {22}));
    rows.Delete(0);  // packed 0: the last packed row (fixed 4) takes its place
    qx_uint32_t added = rows.Add(R(9, {9}));
    EXPECT_EQ(sr_i_get_row_state_for_fixed_index(p_table, 2), SR_ROW_STATE_UPDATED);
    EXPECT_EQ(sr_i_get_row_state_for_fixed_index(p_table, 0), SR_ROW_STATE_DELETED);
    EXPECT_EQ(sr_i_get_row_state_for_fixed_index(p_table, added), SR_ROW_STATE_ADDED);
    EXPECT_EQ(p_table->total_applied_rows, 6u);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    const qx_uint32_t written_at = p_table->p_rows_fixed_index[2].applied_file_offset;
    ASSERT_EQ(sr_commit_1(p_table), 0);

    EXPECT_EQ(p_table->total_applied_rows, 5u);
    EXPECT_EQ(p_table->total_committed_rows, 5u);
    EXPECT_EQ(p_table->applied_deletions, 0u);
    EXPECT_EQ(sr_i_get_row_state_for_fixed_index(p_table, 0), SR_ROW_STATE_NO_ROW);
    EXPECT_EQ(sr_i_get_row_state_for_fixed_index(p_table, 2), SR_ROW_STATE_COMMITTED);
    EXPECT_EQ(p_table->p_rows_fixed_index[2].file_offset, written_at);
    EXPECT_EQ(p_table->p_rows_fixed_index[2].applied_file_offset, 0u);
    EXPECT_EQ(p_table->p_rows_fixed_index[2].p_pending_change, nullptr);
    // The packed slot of the deleted row went to the last packed row.
    EXPECT_EQ(p_table->p_rows_packed_index[0], added);
    ExpectIndexesConsistent(p_table);
    // The freed slot is the lowest free one again.
    EXPECT_EQ(rows.Add(R(10, {10})), 0u);
    EXPECT_EQ(
        Reopened("t"),
        (State{{1, R(1, {1})}, {2, R(2, {22})}, {3, R(3, {3})}, {4, R(4, {4})}, {9, R(9, {9})}}));
}

TEST_F(CommitAbortTest, CommitPointsTheHashElementAtTheKeyInTheNewRecord) {
    sr_i_table_t *p_table = MakeHashed("t");
    RowKit rows(p_table);
    qx_uint32_t f = rows.Add(R(5, {1}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    rows.Set(f, R(5, {2}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);

    qx_int64_t key = 5;
    qx_uint32_t row = 0;
    char **p_p_key = nullptr;
    ASSERT_EQ(sr_i_hash_table_get_index(p_table->p_rows_hash_table, &key, &row, &p_p_key), 0);
    EXPECT_EQ(row, f);
    EXPECT_EQ(*p_p_key, sr_i_row_key_value(p_table, p_table->p_rows_fixed_index[f].p_committed));

    // A deletion takes the key out of the index at commit.
    rows.Delete(f);
    ASSERT_EQ(sr_i_hash_table_get_index(p_table->p_rows_hash_table, &key, &row, &p_p_key), 0);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(sr_i_hash_table_get_index(p_table->p_rows_hash_table, &key, &row, &p_p_key),
              SR_E_NO_ROW_FOR_KEY);
}

TEST_F(CommitAbortTest, RevivedRowKeepsItsSlotAndIsWrittenAsAnUpdate) {
    sr_i_table_t *p_table = MakeHashed("t");
    RowKit rows(p_table);
    qx_uint32_t f = rows.Add(R(5, {1}));
    rows.Add(R(6, {1}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    rows.Delete(f);
    EXPECT_EQ(rows.Add(R(5, {2})), f);
    EXPECT_EQ(p_table->applied_deletions, 0u);
    EXPECT_EQ(p_table->p_delete_rows_change_list, nullptr);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(p_table->total_applied_rows, 2u);
    ExpectIndexesConsistent(p_table);
    EXPECT_EQ(Reopened("t"), (State{{5, R(5, {2})}, {6, R(6, {1})}}));
}

TEST_F(CommitAbortTest, AbortAfterAppendTruncatesToTheCommittedEndButKeepsFileLength) {
    sr_i_table_t *p_table = Make("t");
    const std::string committed = ReadBytes(File("t"));
    RowKit rows(p_table);
    rows.Add(R(1, {1}));
    rows.Add(R(2, {2}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    const qx_uint32_t grown = p_table->file_length;
    ASSERT_GT(grown, committed.size());
    ASSERT_EQ(sr_abort_1(p_table), 0);
    EXPECT_EQ(ReadBytes(File("t")), committed);
    EXPECT_EQ(p_table->file_length, grown);
    EXPECT_EQ(p_table->ready_for_commit, 0u);
    EXPECT_EQ(p_table->applied_commit_record_offset, 0u);
    EXPECT_EQ(p_table->applied_commit_record_length, 0u);
    EXPECT_EQ(p_table->total_applied_rows, 0u);
    EXPECT_EQ(p_table->p_rows_change_list, nullptr);
    EXPECT_TRUE(Snapshot(p_table, true).empty());
    // Both slots are free again, lowest first.
    EXPECT_EQ(rows.Add(R(3, {3})), 0u);
    ExpectIndexesConsistent(p_table);
}

TEST_F(CommitAbortTest, AbortWithNoChangesTouchesNoFile) {
    sr_i_table_t *p_table = Make("t");
    const std::string bytes = ReadBytes(File("t"));
    Count();
    EXPECT_EQ(sr_abort_1(p_table), 0);
    EXPECT_TRUE(Writes.empty());
    EXPECT_EQ(Syncs, 0);
    EXPECT_EQ(ReadBytes(File("t")), bytes);
}

TEST_F(CommitAbortTest, AbortRestoresUpdatedAndDeletedRowsAndDropsAddedOnes) {
    sr_i_table_t *p_table = MakeHashed("t");
    RowKit rows(p_table);
    for (int i = 0; i < 4; ++i) rows.Add(R(i, {i}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    const State committed = Snapshot(p_table, false);
    char *const p_record_1 = p_table->p_rows_fixed_index[1].p_committed;

    rows.Set(1, R(1, {11}));
    rows.Delete(2);
    rows.Add(R(7, {7}));
    rows.Delete(rows.Add(R(8, {8})));
    ASSERT_EQ(sr_abort_1(p_table), 0);  // pending only: no file step
    EXPECT_EQ(Snapshot(p_table, true), committed);
    EXPECT_EQ(p_table->p_rows_fixed_index[1].p_applied, p_record_1);
    EXPECT_EQ(p_table->total_applied_rows, 4u);
    EXPECT_EQ(p_table->applied_deletions, 0u);
    ExpectIndexesConsistent(p_table);
    qx_int64_t key = 7;
    qx_uint32_t row = 0;
    char **p_p_key = nullptr;
    EXPECT_EQ(sr_i_hash_table_get_index(p_table->p_rows_hash_table, &key, &row, &p_p_key),
              SR_E_NO_ROW_FOR_KEY);

    // The same again, applied first.
    rows.Set(1, R(1, {11}));
    rows.Delete(2);
    rows.Add(R(7, {7}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_abort_1(p_table), 0);
    EXPECT_EQ(Snapshot(p_table, true), committed);
    EXPECT_EQ(Snapshot(p_table, false), committed);
    EXPECT_EQ(Reopened("t"), committed);
    for (qx_uint32_t f = 0; f < 4; ++f) {
        EXPECT_EQ(p_table->p_rows_fixed_index[f].applied_file_offset, 0u);
        EXPECT_EQ(p_table->p_rows_fixed_index[f].p_pending_change, nullptr);
    }
}

TEST_F(CommitAbortTest, AbortAfterRewriteRemovesTheRewriteFileAndKeepsTheDataFile) {
    sr_i_table_t *p_table = Make("t");
    RowKit rows(p_table);
    rows.Add(R(1, {1}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    const std::string bytes = ReadBytes(File("t"));
    rows.Add(R(2, {2}));
    ASSERT_EQ(sr_i_apply(p_table, 1, 0), 0);
    ASSERT_TRUE(Exists(File("t.rewrite")));
    ASSERT_EQ(sr_abort_1(p_table), 0);
    EXPECT_FALSE(Exists(File("t.rewrite")));
    EXPECT_EQ(p_table->rewrite_file_fd, -1);
    EXPECT_EQ(p_table->rewrite_file_length, 0u);
    EXPECT_EQ(ReadBytes(File("t")), bytes);
    // The committed row's record lost its first word to the rewrite; that is
    // harmless, and the next append still works.
    rows.Set(static_cast<qx_uint32_t>(rows.Find(1)), R(1, {5}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(Reopened("t"), (State{{1, R(1, {5})}}));
}

TEST_F(CommitAbortTest, TransientCommitAndAbortOnlyChangeMemory) {
    sr_opaque_handle_t handle = nullptr;
    std::vector<sr_column_t> columns = ScalarColumns(2);
    ASSERT_EQ(sr_create_table_1(tree_, Text("/mem/t"), columns.data(), 2, 6, &handle), 0);
    auto *p_table = static_cast<sr_i_table_t *>(handle);
    RowKit rows(p_table);
    rows.Add(R(1, {1}));
    Count();
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    rows.Add(R(2, {2}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_abort_1(p_table), 0);
    EXPECT_TRUE(Writes.empty());
    EXPECT_EQ(Syncs, 0);
    EXPECT_EQ(Snapshot(p_table, true), (State{{1, R(1, {1})}}));
}

TEST_F(CommitAbortTest, RepeatedUpdatesAndAbortsRunInTheSameMemory) {
    sr_opaque_handle_t handle = nullptr;
    std::vector<sr_column_t> columns = ScalarColumns(3);
    ASSERT_EQ(sr_create_table_1(tree_, Text("/mem/t"), columns.data(), 3, 2, &handle), 0);
    auto *p_table = static_cast<sr_i_table_t *>(handle);
    RowKit rows(p_table);
    for (int k = 0; k < 50; ++k) rows.Add(R(k, {k, k}));
    ASSERT_EQ(sr_i_implicit_apply_commit(p_table), 0);
    qx_uint32_t pool_bytes = 0;
    qx_uint32_t used_bytes = 0;
    for (int i = 0; i < 100000; ++i) {
        const qx_uint32_t f = static_cast<qx_uint32_t>(i % 50);
        if (i % 7 == 0) {
            // A row deleted and added back, then thrown away.
            rows.Delete(f);
            rows.Add(R(1000 + i, {i, i}));
            ASSERT_EQ(sr_i_abort(p_table), 0);
        } else {
            rows.Set(f, R(f, {i, -i}));
            ASSERT_EQ(sr_i_implicit_apply_commit(p_table), 0);
        }
        if (i == 1000) {
            pool_bytes = p_table->record_buffer_pool.total_bytes;
            used_bytes = p_table->record_buffer_pool.used_bytes;
        }
    }
    EXPECT_EQ(p_table->record_buffer_pool.total_bytes, pool_bytes);
    EXPECT_EQ(p_table->record_buffer_pool.used_bytes, used_bytes);
    EXPECT_EQ(p_table->maximum_rows, 100u);
    EXPECT_EQ(p_table->total_applied_rows, 50u);
    ExpectIndexesConsistent(p_table);
}

TEST_F(CommitAbortTest, ImplicitCycleCommitsBeforeReturningAndAbortsWhenApplyFails) {
    sr_i_table_t *p_table = Make("t", 2);
    RowKit rows(p_table);
    rows.Add(R(1, {1}));
    ASSERT_EQ(sr_i_implicit_apply_commit(p_table), 0);
    EXPECT_EQ(p_table->ready_for_commit, 0u);
    EXPECT_EQ(Reopened("t"), (State{{1, R(1, {1})}}));

    rows.Add(R(2, {2}));
    p_table->ready_for_commit = 1;  // as a commit whose sync failed leaves it
    EXPECT_EQ(sr_i_implicit_apply_commit(p_table), SR_E_APPLIED_NOT_COMMITTED);
    EXPECT_EQ(Snapshot(p_table, true), (State{{1, R(1, {1})}})) << "aborted";
    EXPECT_EQ(p_table->ready_for_commit, 0u);
    EXPECT_EQ(Reopened("t"), (State{{1, R(1, {1})}}));
}

// Through the exported row calls, whose frame runs the implicit cycle.
qx_int32_t AddThroughTheCall(sr_i_table_t *p_table, qx_int64_t key, qx_int64_t value) {
    char key_name[] = "k";
    char value_name[] = "c1";
    qx_char_ptr_t names[2] = {key_name, value_name};
    qx_value_t values[2] = {};
    values[0].val_int64 = key;
    values[1].val_int64 = value;
    qx_value_t *p_values[2] = {&values[0], &values[1]};
    return sr_add_row_1(p_table, names, p_values, 2);
}

TEST_F(CommitAbortTest, ExportedUpdatesOfAnImplicitTableAreCommittedBeforeTheyReturn) {
    sr_i_table_t *p_table = Make("t", 2);
    ASSERT_EQ(AddThroughTheCall(p_table, 1, 10), 0);
    ASSERT_EQ(AddThroughTheCall(p_table, 2, 20), 0);
    EXPECT_EQ(p_table->ready_for_commit, 0u);
    EXPECT_EQ(p_table->p_rows_change_list, nullptr);
    EXPECT_EQ(Reopened("t"), (State{{1, R(1, {10})}, {2, R(2, {20})}}));
    ASSERT_EQ(sr_delete_row_by_index_1(p_table, 0), 0);
    EXPECT_EQ(Reopened("t"), (State{{2, R(2, {20})}}));
    // A refused update leaves nothing to apply.
    EXPECT_EQ(AddThroughTheCall(p_table, 2, 21), SR_E_DUPLICATE_KEY);
    EXPECT_EQ(Reopened("t"), (State{{2, R(2, {20})}}));
    EXPECT_EQ(p_table->ready_for_commit, 0u);
}

TEST_F(CommitAbortTest, RowAddedAndDeletedInOneExplicitTransactionLeavesNoTrace) {
    sr_i_table_t *p_table = Make("t", 6);
    const qx_uint32_t start = p_table->commit_record_offset + p_table->commit_record_length;
    ASSERT_EQ(AddThroughTheCall(p_table, 1, 10), 0);
    ASSERT_EQ(AddThroughTheCall(p_table, 2, 20), 0);
    ASSERT_EQ(sr_delete_row_by_index_1(p_table, 0), 0);
    ASSERT_EQ(AddThroughTheCall(p_table, 3, 30), 0);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    // The retired commit record, two rows and the new commit record: no
    // deletion record.
    std::vector<FileRecord> records = FileRecords(ReadBytes(File("t")));
    ASSERT_EQ(records.size(), 5u);
    EXPECT_EQ(records[1].type, SR_I_RECORD_TYPE_FREE);
    EXPECT_EQ(records[2].offset, start);
    EXPECT_EQ(records[2].type, SR_I_RECORD_TYPE_ROW);
    EXPECT_EQ(records[3].type, SR_I_RECORD_TYPE_ROW);
    EXPECT_EQ(records[4].type, SR_I_RECORD_TYPE_COMMIT);
    EXPECT_EQ(p_table->total_applied_rows, 2u);
    ExpectIndexesConsistent(p_table);
    EXPECT_EQ(Reopened("t"), (State{{2, R(2, {20})}, {3, R(3, {30})}}));
}

TEST_F(CommitAbortTest, ExportedCallsCheckTheHandleAndTheWriteMode) {
    EXPECT_EQ(sr_apply_1(nullptr, 0), SR_E_INVALID_HANDLE);
    EXPECT_EQ(sr_commit_1(nullptr), SR_E_INVALID_HANDLE);
    EXPECT_EQ(sr_abort_1(nullptr), SR_E_INVALID_HANDLE);
    sr_i_table_t *p_table = Make("t");
    ASSERT_EQ(sr_close_table_1(p_table), 0);
    sr_opaque_handle_t reader = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/t"), SR_MODE_READ, &reader), 0);
    const std::string bytes = ReadBytes(File("t"));
    EXPECT_EQ(sr_apply_1(reader, 0), SR_E_ACCESS);
    EXPECT_EQ(sr_commit_1(reader), SR_E_ACCESS);
    EXPECT_EQ(sr_abort_1(reader), SR_E_ACCESS);
    EXPECT_EQ(static_cast<sr_i_table_t *>(reader)->ready_for_commit, 0u);
    EXPECT_EQ(ReadBytes(File("t")), bytes);
}

TEST_F(CommitAbortTest, SuccessClearsTheThreadsErrorRecord) {
    sr_i_table_t *p_table = Make("t");
    ASSERT_EQ(sr_commit_1(nullptr), SR_E_INVALID_HANDLE);
    ASSERT_EQ(last_error().code, SR_E_INVALID_HANDLE);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    EXPECT_EQ(last_error().code, 0);
}

// --- cancellation ------------------------------------------------------------

struct CancelRun {
    sr_i_table_t *p_table;
    int state_after = -1;
    qx_uint32_t ready_after = 99;
};

void *CommitWithCancelPending(void *p_argument) {
    auto *p_run = static_cast<CancelRun *>(p_argument);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
    pthread_cancel(pthread_self());
    // write and fdatasync are cancellation points: were cancellation on
    // inside commit, the thread would die between the switch and the walks.
    sr_i_commit(p_run->p_table);
    p_run->ready_after = p_run->p_table->ready_for_commit;
    int old = -1;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
    p_run->state_after = old;
    return nullptr;
}

// A thread of its own: run under the thread checker with the other
// concurrency suites.
class CommitConcurrencyTest : public CommitAbortTest {};

TEST_F(CommitConcurrencyTest, CommitRunsToItsEndWithACancelPendingAndRestoresTheCancelState) {
    sr_i_table_t *p_table = Make("t");
    RowKit(p_table).Add(R(1, {1}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    CancelRun run{p_table};
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, CommitWithCancelPending, &run), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    EXPECT_EQ(run.ready_after, 0u);
    EXPECT_EQ(run.state_after, PTHREAD_CANCEL_ENABLE);
    EXPECT_EQ(Reopened("t"), (State{{1, R(1, {1})}}));
}

// --- the model -------------------------------------------------------------

// A long random sequence of adds, sets, deletes, applies, commits, aborts,
// implicit cycles, rewrites and reopens, checked after every step against a
// model of the committed and working states.
class TransactionModelTest : public TransactionTest,
                             public ::testing::WithParamInterface<std::tuple<bool, bool>> {
  protected:
    Row RandomRow(qx_int64_t key) {
        Row row{I64(key)};
        row.emplace_back(static_cast<qx_uint64_t>(static_cast<qx_uint32_t>(rng_())));  // INT32
        row.emplace_back(static_cast<qx_uint64_t>(static_cast<qx_uint32_t>(rng_())));  // UINT32
        float f = static_cast<float>(rng_() % 1000) / 7.0f;
        qx_uint32_t fbits;
        std::memcpy(&fbits, &f, 4);
        row.emplace_back(static_cast<qx_uint64_t>(fbits));
        row.emplace_back(static_cast<qx_uint64_t>(rng_()) << 32 | rng_());
        double d = static_cast<double>(rng_()) / 3.0;
        qx_uint64_t dbits;
        std::memcpy(&dbits, &d, 8);
        row.emplace_back(dbits);
        row.emplace_back(std::string(rng_() % 40, static_cast<char>('a' + rng_() % 26)));
        return row;
    }

    std::mt19937 rng_{20261122};
};

TEST_P(TransactionModelTest, EveryStepMatchesTheModel) {
    const bool explicit_control = std::get<0>(GetParam());
    const bool hashed = std::get<1>(GetParam());
    const int mode = explicit_control ? 6 : 2;
    std::vector<sr_column_t> columns = MixedColumns();
    auto open_table = [&]() {
        sr_opaque_handle_t handle = nullptr;
        qx_int32_t rc = hashed ? sr_open_hashed_key_table_1(tree_, Text("/m/t"), mode, 64,
                                                            HashInt64, CompareInt64, &handle)
                               : sr_open_table_1(tree_, Text("/m/t"), mode, &handle);
        EXPECT_EQ(rc, 0);
        return static_cast<sr_i_table_t *>(handle);
    };
    {
        sr_opaque_handle_t handle = nullptr;
        ASSERT_EQ(hashed
                      ? sr_create_hashed_key_table_1(tree_, Text("/m/t"), columns.data(),
                                                     static_cast<qx_uint32_t>(columns.size()), mode,
                                                     64, HashInt64, CompareInt64, &handle)
                      : sr_create_table_1(tree_, Text("/m/t"), columns.data(),
                                          static_cast<qx_uint32_t>(columns.size()), mode, &handle),
                  0);
        ASSERT_EQ(sr_close_table_1(handle), 0);
    }
    sr_i_table_t *p_table = open_table();
    State committed;
    State working;
    bool applied = false;
    int rewrites = 0;
    // Implicit steps cost two syncs each.
    const int steps = explicit_control ? 1500 : 600;
    for (int step = 0; step < steps; ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        RowKit rows(p_table);
        const int choice = static_cast<int>(rng_() % 100);
        bool update = false;
        if (applied) {
            // Only commit or abort may follow an apply.
            if (choice < 70) {
                ASSERT_EQ(sr_commit_1(p_table), 0);
                committed = working;
            } else {
                ASSERT_EQ(sr_abort_1(p_table), 0);
                working = committed;
            }
            applied = false;
        } else if (choice < 35) {
            qx_int64_t key = static_cast<qx_int64_t>(rng_() % 60);
            if (working.count(key) == 0) {
                Row row = RandomRow(key);
                rows.Add(row);
                working[key] = row;
                update = true;
            }
        } else if (choice < 55 && !working.empty()) {
            auto it = std::next(working.begin(), static_cast<long>(rng_() % working.size()));
            Row row = RandomRow(it->first);
            rows.Set(static_cast<qx_uint32_t>(rows.Find(it->first)), row);
            it->second = row;
            update = true;
        } else if (choice < 70 && !working.empty()) {
            auto it = std::next(working.begin(), static_cast<long>(rng_() % working.size()));
            rows.Delete(static_cast<qx_uint32_t>(rows.Find(it->first)));
            working.erase(it);
            update = true;
        } else if (choice < 80 && explicit_control) {
            const bool rewrite = rng_() % 4 == 0;
            ASSERT_EQ(sr_i_apply(p_table, rewrite ? 1 : sr_i_rewrite_wanted(p_table), 0), 0);
            rewrites += rewrite ? 1 : 0;
            applied = true;
        } else if (choice < 85 && explicit_control) {
            ASSERT_EQ(sr_abort_1(p_table), 0);
            working = committed;
        } else if (choice < 90) {
            // Close and open again: pending changes are dropped.
            ASSERT_EQ(sr_close_table_1(p_table), 0);
            p_table = open_table();
            working = committed;
        } else if (choice < 93 && !explicit_control) {
            // A forced rewrite through the implicit path's own steps.
            ASSERT_EQ(sr_i_apply(p_table, 1, 0), 0);
            ASSERT_EQ(sr_i_commit(p_table), 0);
            ++rewrites;
        }
        if (update && !explicit_control) {
            ASSERT_EQ(sr_i_implicit_apply_commit(p_table), 0);
            committed = working;
        }
        ASSERT_EQ(Snapshot(p_table, true), working);
        ASSERT_EQ(Snapshot(p_table, false), committed);
        ExpectIndexesConsistent(p_table);
        if (step % 25 == 0 || !p_table->p_rows_change_list) {
            ASSERT_EQ(Reopened("t"), committed);
        }
        if (HasFatalFailure()) return;
    }
    EXPECT_GT(rewrites, 0);
}

INSTANTIATE_TEST_SUITE_P(ControlAndIndex, TransactionModelTest,
                         ::testing::Combine(::testing::Bool(), ::testing::Bool()),
                         [](const auto &info) {
                             return std::string(std::get<0>(info.param) ? "Explicit" : "Implicit") +
                                    (std::get<1>(info.param) ? "Hashed" : "Linear");
                         });

}  // namespace
}  // namespace qxtest::tx
