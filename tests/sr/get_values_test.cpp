// Reading fields: versions and row states, unreadable rows, readers beside a writer.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "sr/rows_test_util.h"

namespace qxtest {
namespace {

class GetValuesTest : public RowsTest {
  protected:
    // A committed table with keys 1..3 ("one", "two", "three"; n = 10*k).
    sr_i_table_t *Committed(const std::string &path, bool hashed = false) {
        sr_i_table_t *p_table = Make(path, 6, hashed);
        const char *texts[] = {"one", "two", "three"};
        for (int k = 1; k <= 3; ++k) EXPECT_EQ(0, AddRow(p_table, k, texts[k - 1], 10 * k));
        EXPECT_EQ(0, ApplyCommit(p_table));
        return p_table;
    }
};

TEST_F(GetValuesTest, EachReaderSeesItsVersionTheRowStateOrWhyItCannotRead) {
    sr_i_table_t *p_table = Committed("/t/versions");
    ASSERT_EQ(0, AddRow(p_table, 4, "four", 40));
    qx_value_t v = Str("TWO");
    ASSERT_EQ(0, sr_set_field_by_key_1(p_table, I64(2), const_cast<char *>("s"), &v));
    ASSERT_EQ(0, sr_delete_row_by_index_1(p_table, 2));
    char *s = const_cast<char *>("s");
    EXPECT_EQ(204, sr_get_field_by_index_1(p_table, 3, s, &v));
    const struct {
        qx_int32_t fixed;
        sr_row_state_t state;
        const char *committed, *working;  // nullptr: 204
    } cases[] = {{0, SR_ROW_STATE_COMMITTED, "one", "one"},
                 {1, SR_ROW_STATE_UPDATED, "two", "TWO"},
                 {2, SR_ROW_STATE_DELETED, "three", nullptr},
                 {3, SR_ROW_STATE_ADDED, nullptr, "four"}};
    for (const auto &c : cases) {
        for (qx_uint32_t visible : {0u, 1u}) {
            const char *expected = visible ? c.working : c.committed;
            sr_row_state_t state = SR_ROW_STATE_NO_ROW;
            qx_int32_t rc = sr_get_field_by_fixed_index_and_visibility_1(p_table, c.fixed, s, &v,
                                                                         visible, &state);
            EXPECT_EQ(c.state, state) << c.fixed;
            ASSERT_EQ(expected ? 0 : 204, rc) << c.fixed << visible;
            EXPECT_STREQ(expected ? expected : v.ptr_char, v.ptr_char);
        }
    }
    // The changed rows in change order, then the deleted ones after them.
    qx_uint32_t count = 0, *p_indices = nullptr;
    ASSERT_EQ(0, sr_get_updated_rows_1(p_table, &count, &p_indices));
    EXPECT_EQ((std::vector<qx_uint32_t>{3, 1, 2}), std::vector(p_indices, p_indices + count + 1));
    free(p_indices);
    sr_i_alloc_fail_after(0);
    EXPECT_EQ(12, sr_get_updated_rows_1(p_table, &count, &p_indices));
    ASSERT_EQ(0, sr_abort_1(p_table));
    ASSERT_EQ(0, sr_get_updated_rows_1(p_table, &count, &p_indices));
    EXPECT_TRUE(count == 0 && p_indices == nullptr);
    EXPECT_EQ("two", TextOf(p_table, 2, 1));
    EXPECT_EQ(203, sr_get_field_by_index_1(p_table, 3, s, &v));
    EXPECT_EQ(105, sr_get_field_by_index_1(p_table, 0, const_cast<char *>("S"), &v));
    EXPECT_EQ(202, sr_get_field_by_key_1(p_table, I64(9), s, &v));
    // The values before an unknown name are stored, the one after is not.
    char *bad[] = {const_cast<char *>("n"), const_cast<char *>("zz"), const_cast<char *>("k")};
    qx_value_t n{}, k = I64(-1), z{}, *values[] = {&n, &k, &z};
    EXPECT_EQ(105, sr_get_fields_by_index_1(p_table, 1, bad, values, 3));
    EXPECT_EQ(20, n.val_int32);
    EXPECT_EQ(-1, k.val_int64);
    // Visibility from the environment at creation holds for every reader.
    setenv("SR_UNCOMMITTED_UPDATES_VISIBLE", "", 1);
    sr_i_table_t *p_visible = Make("/t/env", 6);
    unsetenv("SR_UNCOMMITTED_UPDATES_VISIBLE");
    ASSERT_EQ(0, AddRow(p_visible, 1, "one", 1));
    EXPECT_EQ("one", TextOf(p_visible, 1, 0));
}

TEST_F(GetValuesTest, CompareValuesOrdersByTypeAndNeverMatchesUnorderedTypes) {
    qx_value_t minus_one = I32(-1);
    qx_pmsg_value_t one{.val_int32 = 1};
    EXPECT_GT(sr_i_compare_values(&minus_one, &one, QX_UINT32, nullptr), 0);  // -1 is the most
    EXPECT_EQ(-1, sr_i_compare_values(&minus_one, &one, QX_INT32_ARRAY, nullptr));
}

class GetValuesConcurrencyTest : public GetValuesTest {};

// Readers beside a writer: each sees one version of a row, never half of two.
TEST_F(GetValuesConcurrencyTest, ReadersRunBesideAWriterAndSeeWholeVersions) {
    sr_i_table_t *p_table = Make("/t/concurrent", ScalarColumns(3), 2, true);
    for (int k = 0; k < 16; ++k) ASSERT_EQ(0, Add(p_table, {{"k", I64(k)}, {"c2", I64(-101)}}));
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::atomic<long> reads{0};
    std::vector<std::thread> readers;
    char *names[] = {Text("c1"), Text("c2")};
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([&, t] {
            for (int i = t; !stop.load(); ++i) {
                qx_value_t a{}, b{};
                qx_value_t *values[] = {&a, &b};
                qx_int32_t rc = sr_get_fields_by_key_1(p_table, I64(i % 16), names, values, 2);
                if (rc != 0 || a.val_int64 != -b.val_int64) ++bad;  // set together: a and -a
                ++reads;
            }
        });
    }
    while (reads.load() < 30) std::this_thread::yield();
    for (int round = 1; round <= 300; ++round) {
        qx_value_t a = I64(round), b = I64(-round);
        qx_value_t *values[] = {&a, &b};
        ASSERT_EQ(0, sr_set_fields_by_key_1(p_table, I64(round % 16), names, values, 2));
    }
    stop = true;
    for (std::thread &t : readers) t.join();
    EXPECT_EQ(0, bad.load());
}

}  // namespace
}  // namespace qxtest
