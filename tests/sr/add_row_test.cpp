// Adding rows: names matched to columns, defaults, NULL pointer values,
// growth of the record and of the index, the two key checks (the linear one
// with its self-match, the hashed one with revival), the pending change
// lists, rows added and deleted in one transaction, durability of an
// implicit add, and a table left exactly as it was by every failure.
#include <errno.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sr/rows_test_util.h"

using qxtest::I32;
using qxtest::I64;
using qxtest::last_error;
using qxtest::Str;

namespace {

class AddRowTest : public qxtest::RowsTest {};

// The fixed indices of a change list, in list order.
std::vector<qx_uint32_t> ListOf(const sr_i_table_t *p_table, const sr_i_change_entry_t *p_list) {
    std::vector<qx_uint32_t> fixed;
    for (const sr_i_change_entry_t *p = p_list; p != nullptr; p = p->p_next) {
        fixed.push_back(static_cast<qx_uint32_t>(p->p_index_entry - p_table->p_rows_fixed_index));
    }
    return fixed;
}

TEST_F(AddRowTest, UnnamedColumnsTakeTheirDefaults) {
    sr_i_table_t *p_table = Make("/t/defaults", 2);
    ASSERT_EQ(0, Add(p_table, {{"k", I64(1)}}));
    EXPECT_EQ("dflt", TextOf(p_table, 1));
    EXPECT_EQ(7, IntOf(p_table, 1));
    // Names may come in any order.
    ASSERT_EQ(0, Add(p_table, {{"n", I32(3)}, {"k", I64(2)}, {"s", Str("two")}}));
    EXPECT_EQ("two", TextOf(p_table, 2));
    EXPECT_EQ(3, IntOf(p_table, 2));
}

TEST_F(AddRowTest, NullPointerValuesAreStoredAsTheEmptyValueOfTheirType) {
    std::vector<sr_column_t> columns = Columns();
    const qx_data_type_t types[] = {QX_BINARY_PTR, QX_INT32_ARRAY, QX_CHAR_PTR_ARRAY};
    const char *names[] = {"b", "ia", "ca"};
    for (int i = 0; i < 3; ++i) {
        sr_column_t c{};
        c.name = Text(names[i]);
        c.type = types[i];
        c.qualifier = SR_STANDARD;
        columns.push_back(c);
    }
    sr_i_table_t *p_table = Make("/t/nulls", columns, 2);
    qx_value_t null_value{};
    ASSERT_EQ(0, Add(p_table, {{"k", I64(1)},
                               {"s", null_value},
                               {"b", null_value},
                               {"ia", null_value},
                               {"ca", null_value}}));
    qx_value_t s{}, b{}, ia{}, ca{};
    ASSERT_EQ(0, Get(p_table, 0, "s", &s));
    ASSERT_EQ(0, Get(p_table, 0, "b", &b));
    ASSERT_EQ(0, Get(p_table, 0, "ia", &ia));
    ASSERT_EQ(0, Get(p_table, 0, "ca", &ca));
    EXPECT_STREQ("", s.ptr_char);
    ASSERT_NE(nullptr, b.ptr_binary);
    EXPECT_EQ(0u, b.ptr_binary->length);
    ASSERT_NE(nullptr, ia.ptr_array);
    EXPECT_EQ(0u, ia.ptr_array->element_count);
    ASSERT_NE(nullptr, ca.ptr_array);
    EXPECT_EQ(0u, ca.ptr_array->element_count);
}

TEST_F(AddRowTest, KeyTwiceIs104UnknownNameIs104MissingKeyIs107) {
    sr_i_table_t *p_table = Make("/t/names", 2);
    EXPECT_EQ(104, Add(p_table, {{"k", I64(1)}, {"k", I64(2)}}));
    EXPECT_EQ(104, last_error().code);
    EXPECT_EQ(104, Add(p_table, {{"k", I64(1)}, {"nope", I64(2)}}));
    EXPECT_EQ(104, Add(p_table, {{"k", I64(1)}, {"s", Str("a")}, {"s", Str("b")}}));
    // Every other column given, the key not: 107.
    EXPECT_EQ(107, Add(p_table, {{"s", Str("a")}, {"n", I32(1)}}));
    EXPECT_EQ(107, last_error().code);
    EXPECT_NE(std::string::npos, last_error().message.find("2605-107"));
    // Nothing of the failures is left.
    EXPECT_EQ(0u, p_table->total_applied_rows);
    EXPECT_EQ(nullptr, p_table->p_rows_change_list);
    EXPECT_EQ(&p_table->p_rows_fixed_index[0], p_table->p_rows_free_chain);
}

TEST_F(AddRowTest, NullArgumentsAre101AndAReadOnlyTableIs206) {
    sr_i_table_t *p_table = Make("/m/ro", 6);
    EXPECT_EQ(101, sr_add_row_1(p_table, nullptr, nullptr, 1));
    EXPECT_EQ(100, sr_add_row_1(nullptr, nullptr, nullptr, 0));
    ASSERT_EQ(0, sr_close_table_1(p_table));
    sr_opaque_handle_t reader = nullptr;
    ASSERT_EQ(0, sr_open_table_1(tree_, Text("/m/ro"), SR_MODE_READ, &reader));
    EXPECT_EQ(206, AddRow(static_cast<sr_i_table_t *>(reader), 1, "a", 1));
    EXPECT_EQ(206, last_error().code);
}

TEST_F(AddRowTest, ValueLongerThanTheFirstGuessNeedsSeveralDoublings) {
    sr_i_table_t *p_table = Make("/t/long", 2);
    std::string big(100000, 'x');
    big[4321] = 'y';
    ASSERT_EQ(0, AddRow(p_table, 1, big.c_str(), 5));
    ASSERT_EQ(0, AddRow(p_table, 2, "short", 6));
    EXPECT_EQ(big, TextOf(p_table, 1, 1));
    EXPECT_EQ("short", TextOf(p_table, 2, 1));
    EXPECT_EQ(5, IntOf(p_table, 1, 1));
}

TEST_F(AddRowTest, HundredAndFirstRowDoublesTheIndexAndTakesSlotHundred) {
    sr_i_table_t *p_table = Make("/t/grow", 6);
    for (int k = 0; k < 100; ++k) ASSERT_EQ(0, AddRow(p_table, k, "v", k));
    EXPECT_EQ(100u, p_table->maximum_rows);
    ASSERT_EQ(0, AddRow(p_table, 100, "v", 100));
    EXPECT_EQ(200u, p_table->maximum_rows);
    EXPECT_EQ(100u, FixedOf(p_table, 100));
    // Every pending change still designates its own row after the move.
    std::vector<qx_uint32_t> pending = ListOf(p_table, p_table->p_rows_change_list);
    ASSERT_EQ(101u, pending.size());
    for (qx_uint32_t i = 0; i < 101; ++i) EXPECT_EQ(i, pending[i]);
    EXPECT_EQ(0, ApplyCommit(p_table));
    EXPECT_EQ(101u, p_table->total_committed_rows);
    EXPECT_EQ("v", TextOf(p_table, 100));
}

TEST_F(AddRowTest, LinearCheckRefusesALiveKeyAndLeavesTheTableAsItWas) {
    sr_i_table_t *p_table = Make("/t/unique", 6);
    ASSERT_EQ(0, AddRow(p_table, 1, "a", 1));
    ASSERT_EQ(0, AddRow(p_table, 2, "b", 2));
    EXPECT_EQ(108, AddRow(p_table, 2, "again", 3));
    EXPECT_EQ(108, last_error().code);
    EXPECT_EQ(2u, p_table->total_applied_rows);
    EXPECT_EQ(&p_table->p_rows_fixed_index[2], p_table->p_rows_free_chain);
    EXPECT_EQ(2u, ListOf(p_table, p_table->p_rows_change_list).size());
    // A key column that is not checked takes duplicates.
    sr_i_table_t *p_nocheck = Make("/t/nocheck", Columns(SR_PRIMARY_KEY_NOCHECK), 6);
    ASSERT_EQ(0, AddRow(p_nocheck, 2, "b", 2));
    EXPECT_EQ(0, AddRow(p_nocheck, 2, "again", 3));
    EXPECT_EQ(2u, p_nocheck->total_applied_rows);
}

TEST_F(AddRowTest, LinearCheckMeetsTheNewRowItselfInAReusedLowerSlot) {
    // The walk counts the slot just taken, which already holds the new
    // record: in a slot before the last live row the new key matches itself.
    sr_i_table_t *p_table = Make("/t/self", 6);
    for (int k = 0; k < 3; ++k) ASSERT_EQ(0, AddRow(p_table, k, "v", k));
    ASSERT_EQ(0, ApplyCommit(p_table));
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 0));
    ASSERT_EQ(0, ApplyCommit(p_table));
    ASSERT_EQ(&p_table->p_rows_fixed_index[0], p_table->p_rows_free_chain);
    EXPECT_EQ(108, AddRow(p_table, 99, "new", 9));
    EXPECT_EQ(2u, p_table->total_applied_rows);
    EXPECT_EQ(&p_table->p_rows_fixed_index[0], p_table->p_rows_free_chain);
    // Without the check the same slot is reused.
    sr_i_table_t *p_nocheck = Make("/t/self2", Columns(SR_PRIMARY_KEY_NOCHECK), 6);
    for (int k = 0; k < 3; ++k) ASSERT_EQ(0, AddRow(p_nocheck, k, "v", k));
    ASSERT_EQ(0, ApplyCommit(p_nocheck));
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_nocheck, 0));
    ASSERT_EQ(0, ApplyCommit(p_nocheck));
    ASSERT_EQ(0, AddRow(p_nocheck, 99, "new", 9));
    EXPECT_EQ(0u, FixedOf(p_nocheck, 99));
}

TEST_F(AddRowTest, HashedTableRevivesARowDeletedSinceTheLastCommit) {
    sr_i_table_t *p_table = Make("/t/revive", 6, true);
    for (int k = 0; k < 3; ++k) ASSERT_EQ(0, AddRow(p_table, k, "old", k));
    ASSERT_EQ(0, ApplyCommit(p_table));
    const qx_uint32_t fixed = FixedOf(p_table, 1);
    ASSERT_EQ(0,
              sr_delete_row_by_index_1(p_table, p_table->p_rows_fixed_index[fixed].packed_index));
    EXPECT_EQ(1u, p_table->applied_deletions);
    EXPECT_EQ(108, AddRow(p_table, 2, "live key", 0));
    ASSERT_EQ(0, AddRow(p_table, 1, "new", 11));
    EXPECT_EQ(fixed, FixedOf(p_table, 1));
    EXPECT_EQ(3u, p_table->total_applied_rows);
    EXPECT_EQ(0u, p_table->applied_deletions);
    EXPECT_EQ(SR_ROW_STATE_UPDATED, StateOf(p_table, fixed));
    // The revived row is an update now: on the rows list, off the other.
    EXPECT_EQ(std::vector<qx_uint32_t>{fixed}, ListOf(p_table, p_table->p_rows_change_list));
    EXPECT_EQ(nullptr, p_table->p_delete_rows_change_list);
    EXPECT_EQ("old", TextOf(p_table, 1, 0));
    EXPECT_EQ("new", TextOf(p_table, 1, 1));
    ASSERT_EQ(0, ApplyCommit(p_table));
    EXPECT_EQ("new", TextOf(p_table, 1));
    EXPECT_EQ(3u, p_table->total_committed_rows);
}

TEST_F(AddRowTest, ChangeEntriesMoveBetweenTheTwoLists) {
    sr_i_table_t *p_table = Make("/t/lists", 6);
    for (int k = 0; k < 3; ++k) ASSERT_EQ(0, AddRow(p_table, k, "v", k));
    ASSERT_EQ(0, ApplyCommit(p_table));
    qx_int64_t k0 = 0, k2 = 2;
    qx_value_t n = I32(70);
    ASSERT_EQ(0, sr_set_field_by_key_1(p_table, I64(k2), const_cast<char *>("n"), &n));
    ASSERT_EQ(0, sr_set_field_by_key_1(p_table, I64(k0), const_cast<char *>("n"), &n));
    EXPECT_EQ((std::vector<qx_uint32_t>{2, 0}), ListOf(p_table, p_table->p_rows_change_list));
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 2));
    EXPECT_EQ((std::vector<qx_uint32_t>{0}), ListOf(p_table, p_table->p_rows_change_list));
    EXPECT_EQ((std::vector<qx_uint32_t>{2}), ListOf(p_table, p_table->p_delete_rows_change_list));
    EXPECT_EQ(p_table->p_rows_change_list, p_table->p_rows_change_list_tail);
    EXPECT_EQ(p_table->p_delete_rows_change_list, p_table->p_delete_rows_change_list_tail);
    // A row changes list but never appears twice.
    ASSERT_EQ(0, sr_i_common_add_change_entry(p_table, &p_table->p_rows_fixed_index[0], 1));
    EXPECT_EQ(nullptr, p_table->p_rows_change_list);
    EXPECT_EQ(nullptr, p_table->p_rows_change_list_tail);
    EXPECT_EQ((std::vector<qx_uint32_t>{2, 0}),
              ListOf(p_table, p_table->p_delete_rows_change_list));
    ASSERT_EQ(0, sr_i_common_add_change_entry(p_table, &p_table->p_rows_fixed_index[0], 0));
    EXPECT_EQ((std::vector<qx_uint32_t>{0}), ListOf(p_table, p_table->p_rows_change_list));
    EXPECT_EQ((std::vector<qx_uint32_t>{2}), ListOf(p_table, p_table->p_delete_rows_change_list));
    ASSERT_EQ(0, sr_abort_1(p_table));
}

TEST_F(AddRowTest, RowsAddedAndDeletedInOneTransactionArePassedOverByEveryWalk) {
    for (qx_uint32_t qualifier : {SR_PRIMARY_KEY, SR_PRIMARY_KEY_NOCHECK}) {
        SCOPED_TRACE(qualifier);
        const std::string path = "/t/ghost" + std::to_string(qualifier);
        sr_i_table_t *p_table = Make(path, Columns(qualifier), 6);
        ASSERT_EQ(0, AddRow(p_table, 1, "one", 1));
        ASSERT_EQ(0, AddRow(p_table, 2, "two", 2));
        ASSERT_EQ(0, AddRow(p_table, 3, "three", 3));
        ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 0));
        ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 1));
        // Slots 0 and 1 keep their places with neither record.
        EXPECT_EQ(nullptr, p_table->p_rows_fixed_index[0].p_applied);
        EXPECT_EQ(nullptr, p_table->p_rows_fixed_index[0].p_committed);
        EXPECT_EQ(SR_ROW_STATE_NO_ROW, StateOf(p_table, 0));
        EXPECT_EQ(3u, p_table->total_applied_rows);
        // Lookups skip them.
        EXPECT_EQ(2u, FixedOf(p_table, 3));
        qx_uint32_t fixed = 0;
        EXPECT_EQ(202, sr_get_fixed_row_index_for_key_1(p_table, I64(1), &fixed));
        qx_value_t v{};
        sr_row_state_t state = SR_ROW_STATE_COMMITTED;
        EXPECT_EQ(204, Get(p_table, 0, "s", &v, 1, &state));
        EXPECT_EQ(SR_ROW_STATE_NO_ROW, state);
        // The key is free again, and the add walks past the empty slots.
        ASSERT_EQ(0, AddRow(p_table, 1, "one again", 10));
        EXPECT_EQ("one again", TextOf(p_table, 1, 1));
        if (qualifier == SR_PRIMARY_KEY) {
            EXPECT_EQ(108, AddRow(p_table, 3, "dup", 0)) << "live key still unique";
        }
        // Deleting the rest walks past them too.
        ASSERT_EQ(0, sr_delete_rows_1(p_table, nullptr));
        EXPECT_EQ(0u, Live(p_table));
        EXPECT_EQ(205, sr_delete_rows_1(p_table, nullptr));
        ASSERT_EQ(0, ApplyCommit(p_table));
        EXPECT_EQ(0u, p_table->total_applied_rows);
        EXPECT_EQ(0u, p_table->total_committed_rows);
        // Every slot is free again, lowest first.
        EXPECT_EQ(&p_table->p_rows_fixed_index[0], p_table->p_rows_free_chain);
    }
}

TEST_F(AddRowTest, AbortAfterAddDeleteSequencesRestoresTheCommittedRows) {
    sr_i_table_t *p_table = Make("/t/abort", 6);
    ASSERT_EQ(0, AddRow(p_table, 1, "one", 1));
    ASSERT_EQ(0, ApplyCommit(p_table));
    ASSERT_EQ(0, AddRow(p_table, 2, "two", 2));
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 1));
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 0));
    ASSERT_EQ(0, AddRow(p_table, 3, "three", 3));
    ASSERT_EQ(0, sr_abort_1(p_table));
    EXPECT_EQ(1u, p_table->total_applied_rows);
    EXPECT_EQ("one", TextOf(p_table, 1, 1));
    EXPECT_EQ("<202>", TextOf(p_table, 3, 1));
}

TEST_F(AddRowTest, AddWhileAppliedIs212) {
    sr_i_table_t *p_table = Make("/m/applied", 6);
    ASSERT_EQ(0, AddRow(p_table, 1, "one", 1));
    ASSERT_EQ(0, sr_apply_1(p_table, 0));
    EXPECT_EQ(212, AddRow(p_table, 2, "two", 2));
    EXPECT_EQ(212, last_error().code);
    ASSERT_EQ(0, sr_commit_1(p_table));
    EXPECT_EQ(0, AddRow(p_table, 2, "two", 2));
}

TEST_F(AddRowTest, ImplicitAddIsInTheFileBeforeTheCallReturns) {
    sr_i_table_t *p_table = Make("/m/implicit", 2, true);
    ASSERT_EQ(0, AddRow(p_table, 5, "five", 50));
    EXPECT_EQ(0u, p_table->ready_for_commit);
    EXPECT_EQ(1u, p_table->total_committed_rows);
    EXPECT_EQ("five", TextOf(p_table, 5));
    // Another tree reads the file afresh.
    sr_opaque_handle_t other_tree = nullptr;
    ASSERT_EQ(0, sr_open_tree_1(&other_tree, 0, 0));
    ASSERT_EQ(0, sr_mount_local_tree_1(other_tree, Text("/m"), Text(tmp_.file("d")), 0));
    sr_opaque_handle_t reader = nullptr;
    ASSERT_EQ(0, sr_open_table_1(other_tree, Text("/m/implicit"), SR_MODE_READ, &reader));
    EXPECT_EQ("five", TextOf(static_cast<sr_i_table_t *>(reader), 5));
    EXPECT_EQ(50, IntOf(static_cast<sr_i_table_t *>(reader), 5));
    ASSERT_EQ(0, sr_close_tree_1(other_tree));
}

TEST_F(AddRowTest, FailedImplicitApplyLeavesTheTableAtItsLastCommit) {
    sr_i_table_t *p_table = Make("/m/full", 2, true);
    ASSERT_EQ(0, AddRow(p_table, 1, "one", 1));
    sr_i_file_ops.p_writev = [](int, const struct iovec *, int) -> ssize_t {
        errno = ENOSPC;
        return -1;
    };
    sr_i_file_ops.p_write = [](int, const void *, size_t) -> ssize_t {
        errno = ENOSPC;
        return -1;
    };
    EXPECT_EQ(13, AddRow(p_table, 2, "two", 2));
    sr_i_file_ops = sr_i_default_file_ops;
    EXPECT_EQ(0u, p_table->ready_for_commit);
    EXPECT_EQ(1u, p_table->total_applied_rows);
    EXPECT_EQ(nullptr, p_table->p_rows_change_list);
    EXPECT_EQ("<202>", TextOf(p_table, 2, 1));
    // The key is free again and the table takes the row now.
    ASSERT_EQ(0, AddRow(p_table, 2, "two", 2));
    ASSERT_EQ(0, sr_close_table_1(p_table));
    sr_opaque_handle_t reopened = nullptr;
    ASSERT_EQ(0, sr_open_hashed_key_table_1(tree_, Text("/m/full"), SR_MODE_READ, 1024,
                                            qxtest::HashI64, qxtest::CompareI64, &reopened));
    EXPECT_EQ("one", TextOf(static_cast<sr_i_table_t *>(reopened), 1));
    EXPECT_EQ("two", TextOf(static_cast<sr_i_table_t *>(reopened), 2));
}

TEST_F(AddRowTest, EveryAllocationFailureLeavesTheTableAsItWas) {
    for (bool hashed : {false, true}) {
        SCOPED_TRACE(hashed);
        sr_i_table_t *p_table = Make(hashed ? "/t/oom_h" : "/t/oom", 6, hashed);
        // Enough rows to make the next add grow the index.
        for (int k = 0; k < 100; ++k) ASSERT_EQ(0, AddRow(p_table, k, "v", k));
        const std::string long_text(5000, 'z');
        for (qx_int64_t n = 0;; ++n) {
            const qx_uint32_t before_rows = p_table->total_applied_rows;
            const qx_uint32_t before_used = p_table->record_buffer_pool.used_bytes;
            sr_i_alloc_fail_after(n);
            qx_int32_t rc = AddRow(p_table, 1000, long_text.c_str(), 1);
            const bool failed = sr_i_alloc_failure_pending() == 0 && rc != 0;
            sr_i_alloc_fail_after(-1);
            if (rc == 0) break;
            ASSERT_TRUE(failed) << rc;
            EXPECT_EQ(12, rc);
            EXPECT_EQ(before_rows, p_table->total_applied_rows);
            EXPECT_EQ(before_used, p_table->record_buffer_pool.used_bytes);
            EXPECT_EQ("<202>", TextOf(p_table, 1000, 1));
            ASSERT_LT(n, 50);
        }
        EXPECT_EQ(long_text, TextOf(p_table, 1000, 1));
        EXPECT_EQ(101u, p_table->total_applied_rows);
        EXPECT_EQ(0, ApplyCommit(p_table));
    }
}

}  // namespace
