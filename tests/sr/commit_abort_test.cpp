// Commit and abort: the switch on disk, the walks in memory, the implicit cycle, and a model.
#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>

#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "sr/transaction_test_util.h"

namespace qxtest::tx {
namespace {

// Every write and sync the file primitives make.
std::vector<std::string> Writes;
int Syncs = 0;

class CommitAbortTest : public TransactionTest {
  protected:
    void Count() {
        Writes.clear();
        Syncs = 0;
        sr_i_file_ops.p_write = [](int fd, const void *p, size_t n) {
            Writes.emplace_back(static_cast<const char *>(p), n);
            return write(fd, p, n);
        };
        sr_i_file_ops.p_writev = [](int fd, const struct iovec *p, int n) {
            Writes.emplace_back("writev");
            return writev(fd, p, n);
        };
        sr_i_file_ops.p_fdatasync = [](int fd) { return ++Syncs, fdatasync(fd); };
    }
};

// Nothing to do writes nothing; refused calls change nothing.
TEST_F(CommitAbortTest, NothingToDoOrRefusedWritesNothing) {
    sr_i_table_t *p_table = Make("t");
    const std::string bytes = ReadBytes(File("t"));
    Count();
    EXPECT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(sr_abort_1(p_table), 0);
    // A transient table commits and aborts in memory only.
    sr_i_table_t *p_memory = Create("/mem/t", ScalarColumns(2), 6);
    for (qx_int64_t k : {1, 2}) {
        ASSERT_FALSE(AddRow(p_memory, k, k) || sr_apply_1(p_memory, 0));
        ASSERT_EQ(k == 1 ? sr_commit_1(p_memory) : sr_abort_1(p_memory), 0);
    }
    EXPECT_EQ(Snapshot(p_memory, true), (State{{1, R(1, {1})}}));
    EXPECT_TRUE(Writes.empty());
    EXPECT_EQ(Syncs, 0);
    EXPECT_EQ(ReadBytes(File("t")), bytes);
    EXPECT_EQ(sr_apply_1(nullptr, 0), SR_E_INVALID_HANDLE);
    EXPECT_EQ(sr_commit_1(nullptr), SR_E_INVALID_HANDLE);
    EXPECT_EQ(sr_abort_1(nullptr), SR_E_INVALID_HANDLE);
    ASSERT_EQ(AddRow(p_table, 1, 1), 0);
    EXPECT_EQ(sr_commit_1(p_table), SR_E_NOT_APPLIED);
    EXPECT_EQ(last_error().code, SR_E_NOT_APPLIED);
    EXPECT_TRUE(Writes.empty());
    EXPECT_EQ(Snapshot(p_table, true).size(), 1u) << "the row is still pending";
    // Success clears the thread's error record.
    ASSERT_EQ(sr_abort_1(p_table), 0);
    EXPECT_EQ(last_error().code, 0);
    ASSERT_EQ(sr_close_table_1(p_table), 0);
    sr_opaque_handle_t reader = OpenT(SR_MODE_READ);
    const std::string closed = ReadBytes(File("t"));
    EXPECT_EQ(sr_apply_1(reader, 0), SR_E_ACCESS);
    EXPECT_EQ(sr_commit_1(reader), SR_E_ACCESS);
    EXPECT_EQ(sr_abort_1(reader), SR_E_ACCESS);
    EXPECT_EQ(ReadBytes(File("t")), closed);
}

// A row added and deleted in one transaction leaves no trace; commit is one 4-byte write.
TEST_F(CommitAbortTest, CommitAfterAppendIsOneFourByteWriteOfZeroAndOneSync) {
    sr_i_table_t *p_table = Make("t");
    const qx_uint32_t start = p_table->commit_record_offset + p_table->commit_record_length;
    ASSERT_FALSE(AddRow(p_table, 1, 10) || AddRow(p_table, 2, 20));
    ASSERT_FALSE(sr_delete_row_by_index_1(p_table, 0) || AddRow(p_table, 3, 30));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    const qx_uint32_t old_commit = p_table->commit_record_offset;
    std::string before = ReadBytes(File("t"));
    Count();
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(Writes, std::vector<std::string>{std::string(4, '\0')});
    EXPECT_EQ(Syncs, 1);
    before.replace(old_commit + 8, 4, std::string(4, '\0'));
    EXPECT_EQ(ReadBytes(File("t")), before) << "nothing else changed";
    // The retired commit record, two rows, the new commit record: no deletion.
    std::vector<FileRecord> records = FileRecords(before);
    ASSERT_EQ(records.size(), 5u);
    EXPECT_EQ(records[1].type, SR_I_RECORD_TYPE_FREE);
    EXPECT_EQ(records[2].offset, start);
    EXPECT_EQ(records[2].type, SR_I_RECORD_TYPE_ROW);
    EXPECT_EQ(records[3].type, SR_I_RECORD_TYPE_ROW);
    qx_uint64_t counter = 0;
    EXPECT_EQ(Reopened("t", &counter), (State{{2, R(2, {20})}, {3, R(3, {30})}}));
    EXPECT_EQ(counter, 2u);
}

TEST_F(CommitAbortTest, AbortAfterAppendOrRewriteLeavesTheCommittedFile) {
    sr_i_table_t *p_table = Make("t");
    const std::string empty = ReadBytes(File("t"));
    ASSERT_EQ(AddRow(p_table, 7, 7), 0);
    ASSERT_EQ(AddRow(p_table, 8, 8), 0);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_abort_1(p_table), 0);
    EXPECT_EQ(ReadBytes(File("t")), empty) << "truncated to the committed end";
    EXPECT_TRUE(Snapshot(p_table, true).empty());
    ASSERT_EQ(AddRow(p_table, 1, 1), 0);
    qx_uint32_t fixed = 9;
    EXPECT_EQ(sr_get_fixed_row_index_for_key_1(p_table, {.val_int64 = 1}, &fixed), 0);
    EXPECT_EQ(fixed, 0u) << "both slots are free again, lowest first";
    ASSERT_EQ(ApplyCommit(p_table), 0);
    const std::string bytes = ReadBytes(File("t"));
    ASSERT_EQ(AddRow(p_table, 2, 2), 0);
    ASSERT_EQ(sr_i_apply(p_table, 1, 0), 0);
    ASSERT_TRUE(Exists(File("t.rewrite")));
    ASSERT_EQ(sr_abort_1(p_table), 0);
    EXPECT_FALSE(Exists(File("t.rewrite")));
    EXPECT_EQ(ReadBytes(File("t")), bytes);
    // The committed record lost its first word to the rewrite; appends still work.
    ASSERT_EQ(Put(p_table, R(1, {5}), false), 0);
    ASSERT_EQ(ApplyCommit(p_table), 0);
    EXPECT_EQ(Reopened("t"), (State{{1, R(1, {5})}}));
}

class CommitConcurrencyTest : public CommitAbortTest {};

TEST_F(CommitConcurrencyTest, CommitRunsToItsEndWithACancelPendingAndRestoresTheCancelState) {
    sr_i_table_t *p_table = Make("t");
    ASSERT_FALSE(AddRow(p_table, 1, 1) || sr_apply_1(p_table, 0));
    int state_after = -1;
    qx_uint32_t ready_after = 99;
    std::thread([&] {
        pthread_cancel(pthread_self());  // deferred: acted on at the next cancellation point
        // write and fdatasync are cancellation points: commit must not die between its steps.
        sr_i_commit(p_table);
        ready_after = p_table->ready_for_commit;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state_after);
    }).join();
    EXPECT_EQ(ready_after, 0u);
    EXPECT_EQ(state_after, PTHREAD_CANCEL_ENABLE);
    EXPECT_EQ(Reopened("t"), (State{{1, R(1, {1})}}));
}

// Random transaction steps, rewrites and reopens, checked after every step against a model.
class TransactionModelTest : public TransactionTest,
                             public ::testing::WithParamInterface<std::tuple<bool, bool>> {
  protected:
    // The key, then INT32, UINT32, FLOAT32, UINT64, FLOAT64 and CHAR_PTR.
    Row RandomRow(qx_int64_t key) {
        qx_value_t v[5] = {{.val_int32 = static_cast<qx_int32_t>(rng_())},
                           {.val_uint32 = static_cast<qx_uint32_t>(rng_())},
                           {.val_float32 = static_cast<float>(rng_() % 1000) / 7.0f},
                           {.val_uint64 = static_cast<qx_uint64_t>(rng_()) << 32 | rng_()},
                           {.val_float64 = static_cast<double>(rng_()) / 3.0}};
        Row row = R(key, {});
        for (const qx_value_t &value : v) {
            qx_uint64_t bits = 0;
            std::memcpy(&bits, &value, 8);
            row.emplace_back(bits);
        }
        row.emplace_back(std::string(rng_() % 40, static_cast<char>('a' + rng_() % 26)));
        return row;
    }
    std::mt19937 rng_{20261122};
};

TEST_P(TransactionModelTest, EveryStepMatchesTheModel) {
    const bool explicit_control = std::get<0>(GetParam());
    const bool hashed = std::get<1>(GetParam());
    const int mode = explicit_control ? 6 : 2;
    const qx_data_type_t types[] = {QX_INT64,  QX_INT32,   QX_UINT32,  QX_FLOAT32,
                                    QX_UINT64, QX_FLOAT64, QX_CHAR_PTR};
    std::vector<sr_column_t> columns = ScalarColumns(7);
    for (size_t i = 0; i < 7; ++i) columns[i].type = types[i];
    columns[6].default_value.ptr_char = Text("none");
    // A checked key without a hashed index refuses adds into slots below the highest.
    if (!hashed) columns[0].qualifier = SR_PRIMARY_KEY_NOCHECK;
    sr_opaque_handle_t handle = nullptr;
    ASSERT_EQ(hashed ? sr_create_hashed_key_table_1(tree_, Text("/m/t"), columns.data(), 7, mode,
                                                    1024, HashI64, CompareI64, &handle)
                     : sr_create_table_1(tree_, Text("/m/t"), columns.data(), 7, mode, &handle),
              0);
    auto *p_table = static_cast<sr_i_table_t *>(handle);
    auto reopen = [&]() {
        EXPECT_EQ(sr_close_table_1(p_table), 0);
        EXPECT_EQ(hashed ? sr_open_hashed_key_table_1(tree_, Text("/m/t"), mode, 1024, HashI64,
                                                      CompareI64, &handle)
                         : sr_open_table_1(tree_, Text("/m/t"), mode, &handle),
                  0);
        p_table = static_cast<sr_i_table_t *>(handle);
    };
    reopen();
    State committed;
    State working;
    bool applied = false;
    int rewrites = 0;
    const int steps = explicit_control ? 1500 : 600;  // implicit steps sync twice
    for (int step = 0; step < steps; ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        const int choice = static_cast<int>(rng_() % 100);
        if (applied) {  // only commit or abort may follow an apply
            if (choice < 70) {
                ASSERT_EQ(sr_commit_1(p_table), 0);
                committed = working;
            } else {
                ASSERT_EQ(sr_abort_1(p_table), 0);
                working = committed;
            }
            applied = false;
        } else if (choice < 35) {
            qx_int64_t key = static_cast<qx_int64_t>(rng_() % 60) * 64;  // 16 buckets of 1024
            if (working.count(key) == 0) {
                working[key] = RandomRow(key);
                ASSERT_EQ(Put(p_table, working[key]), 0);
            }
        } else if (choice < 55 && !working.empty()) {
            auto it = std::next(working.begin(), static_cast<long>(rng_() % working.size()));
            it->second = RandomRow(it->first);
            ASSERT_EQ(Put(p_table, it->second, false), 0);
        } else if (choice < 70 && !working.empty()) {
            auto it = std::next(working.begin(), static_cast<long>(rng_() % working.size()));
            ASSERT_EQ(Delete(p_table, it->first), 0);
            working.erase(it);
        } else if (choice < 80 && explicit_control) {
            const bool rewrite = rng_() % 4 == 0;
            ASSERT_EQ(sr_i_apply(p_table, rewrite ? 1 : sr_i_rewrite_wanted(p_table), 0), 0);
            rewrites += rewrite ? 1 : 0;
            applied = true;
        } else if (choice < 85 && explicit_control) {
            ASSERT_EQ(sr_abort_1(p_table), 0);
            working = committed;
        } else if (choice < 90) {  // a reopen drops pending changes
            reopen();
            working = committed;
        } else if (choice < 93 && !explicit_control) {
            ASSERT_EQ(sr_i_apply(p_table, 1, 0), 0);
            ASSERT_EQ(sr_i_commit(p_table), 0);
            ++rewrites;
        }
        if (!explicit_control) committed = working;  // every update committed at once
        ASSERT_EQ(Snapshot(p_table, true), working);
        ASSERT_EQ(Snapshot(p_table, false), committed);
        if (step % 25 == 0 || working == committed) {
            ASSERT_EQ(Reopened("t"), committed);
        }
    }
    EXPECT_GT(rewrites, 0);
}

// Explicit or implicit control, with or without a hashed key index.
INSTANTIATE_TEST_SUITE_P(ControlAndIndex, TransactionModelTest,
                         ::testing::Combine(::testing::Bool(), ::testing::Bool()));

}  // namespace
}  // namespace qxtest::tx
