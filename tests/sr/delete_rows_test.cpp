// Deleting rows: pending deletions that keep the committed row readable, all
// rows at once, an index out of range, a row deleted twice, rows added and
// deleted in one transaction (also with a hashed key index), the refusal of
// selection criteria, and durability of an implicit delete.
#include <gtest/gtest.h>

#include <string>

#include "sr/rows_test_util.h"

using qxtest::I64;
using qxtest::last_error;

namespace {

class DeleteRowsTest : public qxtest::RowsTest {
  protected:
    sr_i_table_t *WithRows(const std::string &path, int rows, int mode = 6, bool hashed = false) {
        sr_i_table_t *p_table = Make(path, mode, hashed);
        for (int k = 0; k < rows; ++k) EXPECT_EQ(0, AddRow(p_table, k, "v", k));
        if (mode & SR_MODE_EXPLICIT_CONTROL) {
            EXPECT_EQ(0, ApplyCommit(p_table));
        }
        return p_table;
    }
};

TEST_F(DeleteRowsTest, DeletionIsPendingAndCountedUntilCommit) {
    sr_i_table_t *p_table = WithRows("/t/pending", 4);
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 1));
    EXPECT_EQ(4u, p_table->total_applied_rows);
    EXPECT_EQ(1u, p_table->applied_deletions);
    EXPECT_EQ("v", TextOf(p_table, 1, 0));
    EXPECT_EQ(SR_ROW_STATE_DELETED, StateOf(p_table, 1));
    ASSERT_EQ(0, ApplyCommit(p_table));
    EXPECT_EQ(3u, p_table->total_applied_rows);
    EXPECT_EQ(0u, p_table->applied_deletions);
    // The last packed row took the deleted row's packed place.
    EXPECT_EQ(3u, p_table->p_rows_packed_index[1]);
    EXPECT_EQ(1u, p_table->p_rows_fixed_index[3].packed_index);
}

TEST_F(DeleteRowsTest, NullCriteriaDeleteEveryRowThen205) {
    sr_i_table_t *p_table = WithRows("/t/all", 5);
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 2));
    ASSERT_EQ(0, sr_delete_rows_1(p_table, nullptr));
    EXPECT_EQ(5u, p_table->applied_deletions);
    for (qx_uint32_t f = 0; f < 5; ++f) EXPECT_EQ(SR_ROW_STATE_DELETED, StateOf(p_table, f));
    EXPECT_EQ(205, sr_delete_rows_1(p_table, nullptr));
    EXPECT_EQ(205, last_error().code);
    ASSERT_EQ(0, ApplyCommit(p_table));
    EXPECT_EQ(0u, p_table->total_committed_rows);
    EXPECT_EQ(205, sr_delete_rows_1(p_table, nullptr));
    sr_i_table_t *p_empty = Make("/t/empty", 6);
    EXPECT_EQ(205, sr_delete_rows_1(p_empty, nullptr));
}

TEST_F(DeleteRowsTest, RowChecksComeBeforeAnySelectionCriteria) {
    sr_i_table_t *p_empty = Make("/t/criteria_empty", 6);
    EXPECT_EQ(205, sr_delete_rows_1(p_empty, const_cast<char *>("k == 1")));
    sr_i_table_t *p_table = WithRows("/m/criteria_applied", 2);
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 0));
    ASSERT_EQ(0, sr_apply_1(p_table, 0));
    EXPECT_EQ(212, sr_delete_rows_1(p_table, const_cast<char *>("k == 1")));
    ASSERT_EQ(0, sr_abort_1(p_table));
}

TEST_F(DeleteRowsTest, DeleteRowsWhileAppliedIs212ButByIndexIsNotChecked) {
    sr_i_table_t *p_table = WithRows("/m/applied", 3);
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 0));
    ASSERT_EQ(0, sr_apply_1(p_table, 0));
    EXPECT_EQ(212, sr_delete_rows_1(p_table, nullptr));
    ASSERT_EQ(0, sr_commit_1(p_table));
    EXPECT_EQ(2u, p_table->total_committed_rows);
}

TEST_F(DeleteRowsTest, IndexOutOfRangeIs203AndASecondDeletionIsRefused) {
    sr_i_table_t *p_table = WithRows("/t/twice", 3);
    EXPECT_EQ(203, sr_delete_row_by_index_1(p_table, 3));
    EXPECT_EQ(203, last_error().code);
    EXPECT_EQ(100, sr_delete_row_by_index_1(nullptr, 0));
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 0));
    // The row has no working record left to drop: not counted twice.
    EXPECT_NE(0, sr_delete_row_by_index_1(p_table, 0));
    EXPECT_EQ(1u, p_table->applied_deletions);
    EXPECT_EQ(p_table->p_delete_rows_change_list, p_table->p_delete_rows_change_list_tail);
    ASSERT_EQ(0, ApplyCommit(p_table));
    EXPECT_EQ(2u, p_table->total_committed_rows);
}

TEST_F(DeleteRowsTest, RowAddedAndDeletedBeforeCommitLeavesNothingBehind) {
    sr_i_table_t *p_table = WithRows("/m/ghost", 2);
    const qx_uint32_t used_before = p_table->record_buffer_pool.used_bytes;
    ASSERT_EQ(0, AddRow(p_table, 10, "ten", 10));
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 2));
    EXPECT_EQ(used_before, p_table->record_buffer_pool.used_bytes);
    EXPECT_EQ(SR_ROW_STATE_NO_ROW, StateOf(p_table, 2));
    ASSERT_EQ(0, ApplyCommit(p_table));
    EXPECT_EQ(2u, p_table->total_committed_rows);
    EXPECT_EQ(2u, p_table->total_applied_rows);
    EXPECT_EQ(&p_table->p_rows_fixed_index[2], p_table->p_rows_free_chain);
    EXPECT_EQ(nullptr, p_table->p_delete_rows_change_list);
    // A fresh load agrees.
    ASSERT_EQ(0, sr_close_table_1(p_table));
    sr_opaque_handle_t reopened = nullptr;
    ASSERT_EQ(0, sr_open_table_1(tree_, Text("/m/ghost"), SR_MODE_READ, &reopened));
    EXPECT_EQ(2u, static_cast<sr_i_table_t *>(reopened)->total_committed_rows);
    EXPECT_EQ("<202>", TextOf(static_cast<sr_i_table_t *>(reopened), 10));
}

TEST_F(DeleteRowsTest, HashedKeyOfARowAddedAndDeletedIsFreeAtOnce) {
    sr_i_table_t *p_table = WithRows("/t/hashed", 2, 6, true);
    ASSERT_EQ(0, AddRow(p_table, 10, "ten", 10));
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 2));
    EXPECT_EQ(nullptr, p_table->p_rows_fixed_index[2].p_hash_table_element);
    qx_uint32_t fixed = 0;
    EXPECT_EQ(202, sr_get_fixed_row_index_for_key_1(p_table, I64(10), &fixed));
    // Records freed meanwhile are reused by other rows; the key is added
    // afresh in a new slot, never matched against freed bytes.
    for (int k = 20; k < 30; ++k) ASSERT_EQ(0, AddRow(p_table, k, "filler", k));
    ASSERT_EQ(0, AddRow(p_table, 10, "ten again", 11));
    EXPECT_EQ("ten again", TextOf(p_table, 10, 1));
    EXPECT_NE(2u, FixedOf(p_table, 10));
    ASSERT_EQ(0, ApplyCommit(p_table));
    EXPECT_EQ("ten again", TextOf(p_table, 10));
    EXPECT_EQ(13u, p_table->total_committed_rows);
    // And an abort of the same sequence forgets everything.
    ASSERT_EQ(0, AddRow(p_table, 40, "forty", 40));
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 13));
    ASSERT_EQ(0, sr_abort_1(p_table));
    EXPECT_EQ("<202>", TextOf(p_table, 40, 1));
    EXPECT_EQ(13u, p_table->total_applied_rows);
}

TEST_F(DeleteRowsTest, ImplicitDeleteIsDurable) {
    sr_i_table_t *p_table = WithRows("/m/implicit", 3, 2);
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 0));
    EXPECT_EQ(2u, p_table->total_committed_rows);
    ASSERT_EQ(0, sr_delete_rows_1(p_table, nullptr));
    EXPECT_EQ(0u, p_table->total_committed_rows);
    ASSERT_EQ(0, sr_close_table_1(p_table));
    sr_opaque_handle_t reopened = nullptr;
    ASSERT_EQ(0, sr_open_table_1(tree_, Text("/m/implicit"), SR_MODE_READ, &reopened));
    EXPECT_EQ(0u, static_cast<sr_i_table_t *>(reopened)->total_committed_rows);
}

TEST_F(DeleteRowsTest, ReadOnlyTableRefusesDeletesWith206) {
    sr_i_table_t *p_table = WithRows("/m/readonly", 2);
    ASSERT_EQ(0, sr_close_table_1(p_table));
    sr_opaque_handle_t reader = nullptr;
    ASSERT_EQ(0, sr_open_table_1(tree_, Text("/m/readonly"), SR_MODE_READ, &reader));
    EXPECT_EQ(206, sr_delete_rows_1(reader, nullptr));
    EXPECT_EQ(206, sr_delete_row_by_index_1(reader, 0));
    EXPECT_EQ(2u, static_cast<sr_i_table_t *>(reader)->total_committed_rows);
}

}  // namespace
