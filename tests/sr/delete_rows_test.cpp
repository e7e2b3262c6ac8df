// Deleting rows: pending deletions, the refusals in their order, rows added
// and deleted in one transaction (with a hashed key index too), durability.
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
        for (int k = 0; k < rows; ++k) {
            EXPECT_EQ(0, AddRow(p_table, k, "v", k));
        }
        if (mode & SR_MODE_EXPLICIT_CONTROL) {
            EXPECT_EQ(0, ApplyCommit(p_table));
        }
        return p_table;
    }
    sr_i_table_t *Reopened(const std::string &path) {
        sr_opaque_handle_t table = nullptr;
        EXPECT_EQ(0, sr_open_table_1(tree_, Text(path), SR_MODE_READ, &table));
        return static_cast<sr_i_table_t *>(table);
    }
};

TEST_F(DeleteRowsTest, DeletionsArePendingUntilCommitAndRefusedWhenTheyCannotBe) {
    EXPECT_EQ(205, sr_delete_rows_1(Make("/t/empty", 6), const_cast<char *>("k == 1")));
    sr_i_table_t *p_table = WithRows("/m/t", 4);
    EXPECT_EQ(203, sr_delete_row_by_index_1(p_table, 4));
    EXPECT_EQ(203, last_error().code);
    EXPECT_EQ(100, sr_delete_row_by_index_1(nullptr, 0));
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 1));
    EXPECT_NE(0, sr_delete_row_by_index_1(p_table, 1));  // no working record left to drop
    EXPECT_EQ(3u, Live(p_table));
    EXPECT_EQ("v", TextOf(p_table, 1, 0));
    EXPECT_EQ(SR_ROW_STATE_DELETED, StateOf(p_table, 1));
    ASSERT_EQ(0, sr_apply_1(p_table, 0));
    EXPECT_EQ(212, sr_delete_rows_1(p_table, nullptr));
    EXPECT_EQ(212, sr_delete_rows_1(p_table, const_cast<char *>("k == 1")));
    ASSERT_EQ(0, sr_commit_1(p_table));
    EXPECT_EQ(3u, p_table->total_committed_rows);
    EXPECT_EQ("<202>", TextOf(p_table, 1, 0));
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 2));
    ASSERT_EQ(0, sr_delete_rows_1(p_table, nullptr));  // every row, deleted ones passed over
    for (qx_uint32_t f : {0u, 2u, 3u}) EXPECT_EQ(SR_ROW_STATE_DELETED, StateOf(p_table, f));
    EXPECT_EQ(205, sr_delete_rows_1(p_table, nullptr));
    EXPECT_EQ(205, last_error().code);
    ASSERT_EQ(0, ApplyCommit(p_table));
    EXPECT_EQ(205, sr_delete_rows_1(p_table, nullptr));
    ASSERT_EQ(0, sr_close_table_1(p_table));
    EXPECT_EQ(0u, Reopened("/m/t")->total_committed_rows);
}

TEST_F(DeleteRowsTest, ImplicitDeletesAreDurableAndAReaderRefusesThem) {
    sr_i_table_t *p_table = WithRows("/m/implicit", 3, 2);
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 0));
    EXPECT_EQ(2u, p_table->total_committed_rows);
    ASSERT_EQ(0, sr_close_table_1(p_table));
    sr_i_table_t *p_reader = Reopened("/m/implicit");
    EXPECT_EQ(2u, p_reader->total_committed_rows);
    EXPECT_EQ("<202>", TextOf(p_reader, 0));
    EXPECT_EQ(206, sr_delete_rows_1(p_reader, nullptr));
    EXPECT_EQ(206, sr_delete_row_by_index_1(p_reader, 0));
}

TEST_F(DeleteRowsTest, KeyOfARowAddedAndDeletedIsFreeAtOnce) {
    for (bool hashed : {false, true}) {
        SCOPED_TRACE(hashed);
        sr_i_table_t *p_table = WithRows(hashed ? "/t/hashed" : "/m/linear", 2, 6, hashed);
        const qx_uint32_t used_before = p_table->record_buffer_pool.used_bytes;
        ASSERT_EQ(0, AddRow(p_table, 10, "ten", 10));
        ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 2));
        EXPECT_EQ(used_before, p_table->record_buffer_pool.used_bytes);
        EXPECT_EQ(SR_ROW_STATE_NO_ROW, StateOf(p_table, 2));
        qx_uint32_t fixed = 0;
        EXPECT_EQ(202, sr_get_fixed_row_index_for_key_1(p_table, I64(10), &fixed));
        const qx_uint32_t rows = hashed ? 13 : 2;
        if (hashed) {
            // Records freed meanwhile are reused by other rows; the key is
            // added afresh, never matched against freed bytes.
            for (int k = 20; k < 30; ++k) ASSERT_EQ(0, AddRow(p_table, k, "filler", k));
            ASSERT_EQ(0, AddRow(p_table, 10, "ten again", 11));
            EXPECT_EQ("ten again", TextOf(p_table, 10, 1));
        }
        ASSERT_EQ(0, ApplyCommit(p_table));
        EXPECT_EQ(rows, p_table->total_committed_rows);
        ASSERT_EQ(0, AddRow(p_table, 40, "forty", 40));
        ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, rows));
        ASSERT_EQ(0, sr_abort_1(p_table));
        EXPECT_EQ("<202>", TextOf(p_table, 40, 1));
        EXPECT_EQ(rows, p_table->total_applied_rows);
        if (hashed) continue;
        ASSERT_EQ(0, sr_close_table_1(p_table));
        EXPECT_EQ(2u, Reopened("/m/linear")->total_committed_rows);
    }
}

}  // namespace
