// The hashed key index: defaults, duplicates, equal keys, removal, failures.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "sr/test_util.h"
#include "sr_i.h"

using qxtest::last_error;

namespace {

class HashTableTest : public ::testing::Test {
  protected:
    void TearDown() override { sr_i_hash_table_close(p_table_); }
    // Eight buckets by the low bits of a 32-bit key.
    static qx_uint32_t hash_u32(const void *p_key) {
        qx_uint32_t v;
        memcpy(&v, p_key, sizeof v);
        return v % 8;
    }
    static qx_int32_t compare_u32(const void *p_a, const void *p_b) { return memcmp(p_a, p_b, 4); }
    void open_u32() { ASSERT_EQ(0, sr_i_hash_table_open(8, hash_u32, compare_u32, &p_table_)); }
    // Keys stay put, as in row records (a deque never moves them).
    qx_int32_t add(qx_uint32_t v, qx_uint32_t row, sr_qualifier_t qualifier) {
        keys_.push_back(v);
        return sr_i_hash_table_add(p_table_, reinterpret_cast<char *>(&keys_.back()), row, &bucket_,
                                   &element_, qualifier);
    }
    // The row of key `v`, or minus the result code.
    qx_int64_t row_of(qx_uint32_t v) {
        qx_uint32_t row = 0;
        qx_int32_t rc = sr_i_hash_table_get_index(p_table_, &v, &row, nullptr);
        return rc == 0 ? qx_int64_t{row} : -rc;
    }
    qx_int32_t remove(qx_uint32_t v) { return sr_i_hash_table_remove(p_table_, &v); }
    sr_hash_table_t *p_table_ = nullptr;
    std::deque<qx_uint32_t> keys_;
    sr_hash_table_element_t *element_ = nullptr;
    qx_uint32_t bucket_ = 0;
};

// Defaults hash a resource handle's fourth word; equal keys, removal, failures change nothing.
TEST_F(HashTableTest, DefaultsDuplicatesRemovalStatisticsAndFailures) {
    EXPECT_EQ(101, sr_i_hash_table_open(8, hash_u32, nullptr, &p_table_));
    EXPECT_EQ(nullptr, p_table_);
    EXPECT_EQ(0, sr_i_hash_table_close(nullptr));
    // A NULL hash function selects both defaults, whatever else is passed.
    ASSERT_EQ(0, sr_i_hash_table_open(10, nullptr, compare_u32, &p_table_));
    qx_resource_handle_t handle{7, {1, 2, 3, 0x12345}}, probe = handle;
    ASSERT_EQ(0, sr_i_hash_table_add(p_table_, reinterpret_cast<char *>(&handle), 42, &bucket_,
                                     &element_, SR_PRIMARY_KEY));
    EXPECT_EQ(0x2345u, bucket_);
    char **pp_key = nullptr;
    qx_uint32_t row = 0;
    ASSERT_EQ(0, sr_i_hash_table_get_index(p_table_, &probe, &row, &pp_key));
    EXPECT_EQ(std::make_pair(42u, reinterpret_cast<char *>(&handle)), std::make_pair(row, *pp_key));
    probe.id.id3 = 4;  // same bucket, told apart by the compare function
    EXPECT_EQ(202, sr_i_hash_table_get_index(p_table_, &probe, &row, nullptr));
    sr_i_hash_table_close(p_table_);
    open_u32();
    // Unchecked keys: both indexed, the later found first and removed first.
    ASSERT_EQ(0, add(77, 1, SR_PRIMARY_KEY_NOCHECK));
    ASSERT_EQ(0, add(77, 2, SR_PRIMARY_KEY_NOCHECK));
    EXPECT_EQ(2, row_of(77));
    ASSERT_EQ(0, remove(77));
    EXPECT_EQ(1, row_of(77));
    ASSERT_EQ(0, remove(77));
    EXPECT_EQ(202, remove(77));
    EXPECT_EQ("2605-202 There is no row corresponding to the specified key value.\n",
              last_error().message);
    EXPECT_EQ(0, add(5, 1, SR_STANDARD));
    EXPECT_EQ(0, add(5, 2, SR_STANDARD | SR_PROTECTED));
    // Removing an element compares addresses, not keys.
    ASSERT_EQ(0, add(12, 1, SR_PRIMARY_KEY_NOCHECK));
    sr_hash_table_element_t *p_first = element_;
    ASSERT_EQ(0, add(12, 2, SR_PRIMARY_KEY_NOCHECK));
    ASSERT_EQ(0, sr_i_hash_table_remove_element(p_table_, bucket_, p_first));
    EXPECT_EQ(2, row_of(12));
    EXPECT_EQ(202, sr_i_hash_table_remove_element(p_table_, (bucket_ + 1) % 8, element_));
    ASSERT_EQ(0, sr_i_hash_table_remove_element(p_table_, bucket_, element_));
    // A checked duplicate (modifier bits aside): 108, the existing element, no error record.
    ASSERT_EQ(0, add(9, 4, SR_PRIMARY_KEY));
    sr_hash_table_element_t *p_existing = element_;
    ASSERT_EQ(0, add(17, 6, SR_PRIMARY_KEY));
    cu_set_no_error_1();
    EXPECT_EQ(108, add(9, 6, SR_PRIMARY_KEY | SR_INVISIBLE));
    EXPECT_EQ(p_existing, element_);
    EXPECT_EQ(1u, bucket_);
    EXPECT_EQ(0, last_error().code);
    testing::internal::CaptureStdout();
    sr_i_hash_table_output_stats(p_table_);
    EXPECT_EQ("1 2\n5 2\ntotal hash buckets : 8\nmax_bucket_count   : 2\nunused buckets     : 6\n",
              testing::internal::GetCapturedStdout());
    sr_i_hash_table_close(std::exchange(p_table_, nullptr));
    EXPECT_EQ(2, qxtest::EachAllocationFailure(
                     [&] { return sr_i_hash_table_open(0, nullptr, nullptr, &p_table_); },
                     [&] { EXPECT_EQ(nullptr, p_table_); }));
    sr_i_hash_table_close(p_table_);
    open_u32();
    ASSERT_EQ(0, add(3, 0, SR_PRIMARY_KEY));
    EXPECT_EQ(1, qxtest::EachAllocationFailure([&] { return add(11, 1, SR_PRIMARY_KEY); },
                                               [&] { EXPECT_EQ(-202, row_of(11)); }));
    EXPECT_EQ(0, row_of(3));
    sr_i_hash_table_close(p_table_);
    auto out_of_range = [](const void *) -> qx_uint32_t { return 8; };
    ASSERT_EQ(0, sr_i_hash_table_open(8, out_of_range, compare_u32, &p_table_));
    EXPECT_EQ(15, add(1, 0, SR_STANDARD));
    EXPECT_EQ(-15, row_of(1));
    EXPECT_EQ(15, remove(1));
}

}  // namespace
