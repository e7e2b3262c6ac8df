// Adding, setting and deleting rows: names, defaults, growth, protected columns.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sr/rows_test_util.h"

namespace qxtest {
namespace {

class AddRowTest : public RowsTest {
  protected:
    qx_int32_t SetText(sr_i_table_t *p_table, qx_int64_t key, const char *text) {
        qx_value_t v = Str(text);
        return sr_set_field_by_key_1(p_table, I64(key), const_cast<char *>("s"), &v);
    }
};

TEST_F(AddRowTest, NamesDefaultsAndEmptyValues) {
    std::vector<sr_column_t> columns = Columns();
    columns.push_back({Text("b"), QX_BINARY_PTR, SR_STANDARD, 0, nullptr, Str(nullptr)});
    columns.push_back({Text("ia"), QX_INT32_ARRAY, SR_STANDARD, 0, nullptr, Str(nullptr)});
    columns.push_back({Text("ca"), QX_CHAR_PTR_ARRAY, SR_STANDARD, 0, nullptr, Str(nullptr)});
    sr_i_table_t *p_table = Make("/t/names", columns, 2);
    EXPECT_EQ(104, Add(p_table, {{"k", I64(1)}, {"k", I64(2)}}));
    EXPECT_EQ(104, Add(p_table, {{"k", I64(1)}, {"nope", I64(2)}}));
    EXPECT_EQ(104, Add(p_table, {{"k", I64(1)}, {"s", Str("a")}, {"s", Str("b")}}));
    EXPECT_EQ(107, Add(p_table, {{"s", Str("a")}, {"n", I32(1)}}));
    ASSERT_EQ(0, Add(p_table, {{"k", I64(1)}}));
    EXPECT_EQ(0u, FixedOf(p_table, 1));  // the failures left no slot taken
    EXPECT_EQ("dflt", TextOf(p_table, 1));
    EXPECT_EQ(7, Val(p_table, 1, "n").val_int32);
    // NULL pointers are stored as the empty value of their type.
    const qx_value_t null = Str(nullptr);  // all 8 bytes: {} sets only the first member
    ASSERT_EQ(0,
              Add(p_table, {{"k", I64(3)}, {"s", null}, {"b", null}, {"ia", null}, {"ca", null}}));
    EXPECT_STREQ("", Val(p_table, 3, "s").ptr_char);
    EXPECT_EQ(0u, Val(p_table, 3, "b").ptr_binary->length);
    EXPECT_EQ(0u, Val(p_table, 3, "ia").ptr_array->element_count);
    EXPECT_EQ(0u, Val(p_table, 3, "ca").ptr_array->element_count);
}

// Growth moves the index (forced here): pending changes of both kinds keep their own rows.
TEST_F(AddRowTest, HundredAndFirstRowDoublesAMovedIndex) {
    sr_i_table_t *p_table = Make("/m/grow", 6);
    for (int k = 0; k < 100; ++k) ASSERT_EQ(0, AddRow(p_table, k, "v", k));
    ASSERT_EQ(0, ApplyCommit(p_table));
    for (int k = 0; k < 100; k += 3) {
        qx_value_t n = I32(-k);
        ASSERT_EQ(0, sr_set_field_by_key_1(p_table, I64(k), const_cast<char *>("n"), &n));
    }
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 50));
    sr_i_alloc_move_reallocations(true);
    qx_int32_t rc = AddRow(p_table, 100, "v", 100);
    sr_i_alloc_move_reallocations(false);
    ASSERT_EQ(0, rc);
    EXPECT_EQ(200u, p_table->maximum_rows);
    EXPECT_EQ(100u, FixedOf(p_table, 100));
    ASSERT_EQ(0, ApplyCommit(p_table));
    EXPECT_EQ(-99, Val(p_table, 99, "n").val_int32);
    EXPECT_EQ(98, Val(p_table, 98, "n").val_int32);
    EXPECT_EQ("<202>", TextOf(p_table, 50));
    EXPECT_EQ("v", TextOf(p_table, 100));
}

TEST_F(AddRowTest, EveryAllocationFailureLeavesTheTableAsItWas) {
    for (bool hashed : {false, true}) {
        SCOPED_TRACE(hashed);
        sr_i_table_t *p_table = Make(hashed ? "/t/oom_h" : "/t/oom", 6, hashed);
        // Enough rows to make the next add grow the index.
        for (int k = 0; k < 100; ++k) ASSERT_EQ(0, AddRow(p_table, k, "v", k));
        ASSERT_EQ(0, ApplyCommit(p_table));
        const std::string long_text(50000, 'z');
        for (int k = 2; k < 18; ++k) ASSERT_EQ(0, SetText(p_table, k, "w"));  // 16 changes: full
        const qx_uint32_t used = p_table->record_buffer_pool.used_bytes;
        EachAllocationFailure([&] { return AddRow(p_table, 1000, long_text.c_str(), 1); },
                              [&] {
                                  EXPECT_EQ(100u, p_table->total_applied_rows);
                                  EXPECT_EQ(used, p_table->record_buffer_pool.used_bytes);
                                  EXPECT_EQ("<202>", TextOf(p_table, 1000, 1));
                              });
        EXPECT_EQ(long_text, TextOf(p_table, 1000, 1));
        for (int k = 18; k < 49; ++k) ASSERT_EQ(0, SetText(p_table, k, "w"));  // and 32 more
        EachAllocationFailure([&] { return SetText(p_table, 1, long_text.c_str()); },
                              [&] {
                                  EXPECT_EQ(SR_ROW_STATE_COMMITTED,
                                            sr_i_get_row_state_for_fixed_index(p_table, 1));
                                  EXPECT_EQ("v", TextOf(p_table, 1, 1));
                              });
        EXPECT_EQ(long_text, TextOf(p_table, 1, 1));
        EXPECT_EQ(0, ApplyCommit(p_table));
    }
}

TEST_F(AddRowTest, SetMakesAWorkingVersionAndLeavesTheCommittedOne) {
    std::vector<sr_column_t> columns = Columns();
    columns.push_back({Text("t"), QX_CHAR_PTR, SR_STANDARD, 0, nullptr, Str(nullptr)});
    sr_i_table_t *p_table = Make("/m/t", columns, 6, true);
    ASSERT_EQ(0, AddRow(p_table, 1, "one", 1));
    ASSERT_EQ(0, ApplyCommit(p_table));
    ASSERT_EQ(0, AddRow(p_table, 2, "two", 2));
    ASSERT_EQ(0, SetText(p_table, 1, "uno"));
    ASSERT_EQ(0, SetText(p_table, 1, "eins"));
    ASSERT_EQ(0, SetText(p_table, 2, "zwei"));
    EXPECT_EQ("one", TextOf(p_table, 1, 0));
    EXPECT_EQ("eins", TextOf(p_table, 1, 1));
    ASSERT_EQ(0, ApplyCommit(p_table));
    EXPECT_EQ("eins", TextOf(p_table, 1, 0));
    EXPECT_EQ("zwei", TextOf(p_table, 2, 0));
    // Deleting every row deletes those added in the transaction too.
    ASSERT_EQ(0, AddRow(p_table, 3, "three", 3));
    ASSERT_EQ(0, sr_delete_rows_1(p_table, nullptr));
    EXPECT_EQ(205, sr_delete_rows_1(p_table, nullptr));
    EXPECT_EQ("<202>", TextOf(p_table, 3, 1));
    ASSERT_EQ(0, ApplyCommit(p_table));
    EXPECT_EQ("<202>", TextOf(p_table, 1));
    // "t", left out, no longer fits behind a longer "s": the record grows again.
    const std::string t(4000, 't');
    ASSERT_EQ(0, Add(p_table, {{"k", I64(4)}, {"t", Str(t.c_str())}}));
    ASSERT_EQ(0, SetText(p_table, 4, std::string(7900, 'S').c_str()));
    qx_value_t v{};
    ASSERT_EQ(0, ByKey(p_table, 4, "t", &v, 1));
    EXPECT_EQ(t, v.ptr_char);
}

TEST_F(AddRowTest, ProtectedDefaultedAndRefusedColumns) {
    std::vector<sr_column_t> columns = Columns();
    columns[1].qualifier = SR_STANDARD | SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED;
    columns[2].qualifier = SR_STANDARD | SR_PROTECTED;
    sr_i_table_t *p_table = Make("/m/columns", columns, 6);
    ASSERT_EQ(0, AddRow(p_table, 1, "custom", 5));
    ASSERT_EQ(0, AddRow(p_table, 2, "two", 6));
    qx_value_t same = I32(5);
    EXPECT_EQ(105, sr_set_field_by_index_1(p_table, 0, const_cast<char *>("n"), &same));
    ASSERT_EQ(0, SetText(p_table, 1, "again"));
    EXPECT_EQ("again", TextOf(p_table, 1, 1));
    qx_value_t v{};
    ASSERT_EQ(0, Get(p_table, 0, "n", &v, 1));
    EXPECT_EQ(5, v.val_int32);  // protected, left out: kept
    // The key may become another row's key; "s", left out, is reset.
    qx_value_t key = I64(2);
    ASSERT_EQ(0, sr_set_field_by_index_1(p_table, 0, const_cast<char *>("k"), &key));
    ASSERT_EQ(0, Get(p_table, 0, "s", &v, 1));
    EXPECT_STREQ("dflt", v.ptr_char);
    // Unknown and repeated names change nothing.
    qx_value_t a = Str("a"), b = Str("b");
    qx_value_t *values[] = {&a, &b};
    char *repeated[] = {const_cast<char *>("s"), const_cast<char *>("s")};
    EXPECT_EQ(105, sr_set_fields_by_index_1(p_table, 1, repeated, values, 2));
    char *unknown[] = {const_cast<char *>("s"), const_cast<char *>("q")};
    EXPECT_EQ(105, sr_set_fields_by_fixed_index_1(p_table, 1, unknown, values, 2));
    ASSERT_EQ(0, Get(p_table, 1, "s", &v, 1));
    EXPECT_STREQ("two", v.ptr_char);
    char *s = const_cast<char *>("s");
    EXPECT_EQ(203, sr_set_field_by_index_1(p_table, 2, s, &a));
    EXPECT_EQ(203, sr_set_field_by_fixed_index_1(p_table, -1, s, &a));
    EXPECT_EQ(204, sr_set_field_by_fixed_index_1(p_table, 5, s, &a));
    EXPECT_EQ(202, sr_set_field_by_key_1(p_table, I64(9), s, &a));
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 1));
    EXPECT_EQ(SR_E_NULL_POINTER, sr_delete_row_by_index_1(p_table, 1));  // deleted already
    EXPECT_EQ(204, sr_set_field_by_index_1(p_table, 1, s, &a));
    ASSERT_EQ(0, sr_apply_1(p_table, 0));
    EXPECT_EQ(212, sr_set_field_by_index_1(p_table, 0, s, &a));
    ASSERT_EQ(0, sr_commit_1(p_table));
    // A protected key cannot be set either.
    sr_i_table_t *p_keyed = Make("/t/protected_key", Columns(SR_PRIMARY_KEY | SR_PROTECTED), 6);
    ASSERT_EQ(0, AddRow(p_keyed, 1, "one", 5));
    EXPECT_EQ(105, sr_set_field_by_index_1(p_keyed, 0, const_cast<char *>("k"), &key));
}

}  // namespace
}  // namespace qxtest
