// Writing fields: a new working version beside the committed one, protected
// and reset-to-default columns, refusals that change nothing, the hashed key
// index following a pending row, durability, and allocation failures.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sr/rows_test_util.h"

using qxtest::I32;
using qxtest::I64;
using qxtest::last_error;
using qxtest::Str;

namespace {

class SetValuesTest : public qxtest::RowsTest {
  protected:
    qx_int32_t SetText(sr_i_table_t *p_table, qx_int64_t key, const char *text) {
        qx_value_t v = Str(text);
        return sr_set_field_by_key_1(p_table, I64(key), const_cast<char *>("s"), &v);
    }
};

TEST_F(SetValuesTest, SetMakesAWorkingVersionAndLeavesTheCommittedOne) {
    sr_i_table_t *p_table = Make("/m/t", 6);
    ASSERT_EQ(0, AddRow(p_table, 1, "one", 1));
    ASSERT_EQ(0, ApplyCommit(p_table));
    ASSERT_EQ(0, AddRow(p_table, 2, "two", 2));
    ASSERT_EQ(0, SetText(p_table, 1, "uno"));
    ASSERT_EQ(0, SetText(p_table, 1, "eins"));
    ASSERT_EQ(0, SetText(p_table, 2, "zwei"));
    EXPECT_EQ("one", TextOf(p_table, 1, 0));
    EXPECT_EQ("eins", TextOf(p_table, 1, 1));
    EXPECT_EQ("zwei", TextOf(p_table, 2, 1));
    EXPECT_EQ(2, IntOf(p_table, 2, 1));
    EXPECT_EQ(SR_ROW_STATE_UPDATED, StateOf(p_table, 0));
    EXPECT_EQ(SR_ROW_STATE_ADDED, StateOf(p_table, 1));
    // Values far past the first guess of the record size, and back.
    std::string big(200000, 'L');
    ASSERT_EQ(0, SetText(p_table, 2, big.c_str()));
    EXPECT_EQ(big, TextOf(p_table, 2, 1));
    ASSERT_EQ(0, SetText(p_table, 2, "s"));
    ASSERT_EQ(0, ApplyCommit(p_table));
    EXPECT_EQ("eins", TextOf(p_table, 1, 0));
    EXPECT_EQ("s", TextOf(p_table, 2, 0));
    EXPECT_EQ(SR_ROW_STATE_COMMITTED, StateOf(p_table, 0));
}

TEST_F(SetValuesTest, ProtectedDefaultedAndRefusedColumns) {
    std::vector<sr_column_t> columns = Columns();
    columns[1].qualifier = SR_STANDARD | SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED;
    columns[2].qualifier = SR_STANDARD | SR_PROTECTED;
    sr_i_table_t *p_table = Make("/m/columns", columns, 6);
    ASSERT_EQ(0, AddRow(p_table, 1, "custom", 5));
    ASSERT_EQ(0, AddRow(p_table, 2, "two", 6));
    qx_value_t same = I32(5);
    EXPECT_EQ(105, sr_set_field_by_index_1(p_table, 0, const_cast<char *>("n"), &same));
    EXPECT_EQ(105, last_error().code);
    ASSERT_EQ(0, SetText(p_table, 1, "again"));
    EXPECT_EQ("again", TextOf(p_table, 1, 1));
    EXPECT_EQ(5, IntOf(p_table, 1, 1));  // protected, left out: kept
    // The key may become another row's key; "s", left out, is reset.
    qx_value_t key = I64(2);
    ASSERT_EQ(0, sr_set_field_by_index_1(p_table, 0, const_cast<char *>("k"), &key));
    qx_value_t v{};
    ASSERT_EQ(0, Get(p_table, 0, "s", &v, 1));
    EXPECT_STREQ("dflt", v.ptr_char);
    // Unknown and repeated names change nothing.
    const qx_uint32_t used_before = p_table->record_buffer_pool.used_bytes;
    qx_value_t a = Str("a"), b = Str("b");
    qx_value_t *values[] = {&a, &b};
    char *repeated[] = {const_cast<char *>("s"), const_cast<char *>("s")};
    EXPECT_EQ(105, sr_set_fields_by_index_1(p_table, 1, repeated, values, 2));
    char *unknown[] = {const_cast<char *>("s"), const_cast<char *>("q")};
    EXPECT_EQ(105, sr_set_fields_by_fixed_index_1(p_table, 1, unknown, values, 2));
    EXPECT_EQ(used_before, p_table->record_buffer_pool.used_bytes);
    ASSERT_EQ(0, Get(p_table, 1, "s", &v, 1));
    EXPECT_STREQ("two", v.ptr_char);
    char *s = const_cast<char *>("s");
    EXPECT_EQ(203, sr_set_field_by_index_1(p_table, 2, s, &a));
    EXPECT_EQ(203, sr_set_field_by_fixed_index_1(p_table, -1, s, &a));
    EXPECT_EQ(204, sr_set_field_by_fixed_index_1(p_table, 5, s, &a));
    EXPECT_EQ(202, sr_set_field_by_key_1(p_table, I64(9), s, &a));
    EXPECT_EQ(101, sr_set_field_by_index_1(p_table, 0, s, nullptr));
    EXPECT_EQ(100, sr_set_field_by_index_1(nullptr, 0, s, &a));
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 1));
    EXPECT_EQ(204, sr_set_field_by_index_1(p_table, 1, s, &a));
    EXPECT_EQ(204, last_error().code);
    ASSERT_EQ(0, sr_apply_1(p_table, 0));
    EXPECT_EQ(212, sr_set_field_by_index_1(p_table, 0, s, &a));
    ASSERT_EQ(0, sr_commit_1(p_table));
    // A protected key cannot be set either.
    sr_i_table_t *p_keyed = Make("/t/protected_key", Columns(SR_PRIMARY_KEY | SR_PROTECTED), 6);
    ASSERT_EQ(0, AddRow(p_keyed, 1, "one", 5));
    EXPECT_EQ(105, sr_set_field_by_index_1(p_keyed, 0, const_cast<char *>("k"), &key));
}

TEST_F(SetValuesTest, HashedIndexFollowsTheKeyOfARowWithoutACommittedVersion) {
    sr_i_table_t *p_table = Make("/t/hashed", 6, true);
    for (int k = 0; k < 20; ++k) ASSERT_EQ(0, AddRow(p_table, k, "v", k));
    // Each set frees the row's pending record, which other rows then reuse:
    // an index still pointing into it would find the wrong keys.
    for (int round = 0; round < 5; ++round) {
        for (int k = 0; k < 20; ++k) {
            std::string text(40 + round * 30, static_cast<char>('a' + round));
            ASSERT_EQ(0, SetText(p_table, k, text.c_str()));
        }
    }
    for (int k = 0; k < 20; ++k) {
        EXPECT_EQ(static_cast<qx_uint32_t>(k), FixedOf(p_table, k));
        EXPECT_EQ(std::string(160, 'e'), TextOf(p_table, k, 1));
    }
    EXPECT_EQ(108, AddRow(p_table, 7, "dup", 0));
    ASSERT_EQ(0, ApplyCommit(p_table));
    EXPECT_EQ(std::string(160, 'e'), TextOf(p_table, 19));
}

TEST_F(SetValuesTest, ImplicitSetIsDurable) {
    sr_i_table_t *p_table = Make("/m/implicit", 2);
    ASSERT_EQ(0, AddRow(p_table, 1, "one", 1));
    char *names[] = {const_cast<char *>("s"), const_cast<char *>("n")};
    qx_value_t s = Str("ONE"), n = I32(100);
    qx_value_t *values[] = {&s, &n};
    ASSERT_EQ(0, sr_set_fields_by_key_1(p_table, I64(1), names, values, 2));
    ASSERT_EQ(0, sr_close_table_1(p_table));
    sr_opaque_handle_t reopened = nullptr;
    ASSERT_EQ(0, sr_open_table_1(tree_, Text("/m/implicit"), SR_MODE_READ, &reopened));
    EXPECT_EQ("ONE", TextOf(static_cast<sr_i_table_t *>(reopened), 1));
    EXPECT_EQ(100, IntOf(static_cast<sr_i_table_t *>(reopened), 1));
}

TEST_F(SetValuesTest, EveryAllocationFailureLeavesTheRowAsItWas) {
    sr_i_table_t *p_table = Make("/t/oom", 6);
    ASSERT_EQ(0, AddRow(p_table, 1, "one", 1));
    ASSERT_EQ(0, ApplyCommit(p_table));
    std::string big(50000, 'B');
    for (qx_int64_t n = 0;; ++n) {
        sr_i_alloc_fail_after(n);
        qx_int32_t rc = SetText(p_table, 1, big.c_str());
        const bool failed = sr_i_alloc_failure_pending() == 0 && rc != 0;
        sr_i_alloc_fail_after(-1);
        if (rc == 0) break;
        ASSERT_TRUE(failed) << rc;
        EXPECT_EQ(12, rc);
        EXPECT_EQ(SR_ROW_STATE_COMMITTED, StateOf(p_table, 0));
        EXPECT_EQ("one", TextOf(p_table, 1, 1));
        ASSERT_LT(n, 50);
    }
    EXPECT_EQ(big, TextOf(p_table, 1, 1));
}

}  // namespace
