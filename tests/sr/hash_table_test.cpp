// The hashed key index: defaults, removal of elements, bad hash values, statistics, failures.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <utility>

#include "sr/test_util.h"
#include "sr_i.h"

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
    sr_hash_table_t *p_table_ = nullptr;
    std::deque<qx_uint32_t> keys_;
    sr_hash_table_element_t *element_ = nullptr;
    qx_uint32_t bucket_ = 0;
};

TEST_F(HashTableTest, DefaultsRemovalStatisticsAndFailures) {
    EXPECT_EQ(101, sr_i_hash_table_open(8, hash_u32, nullptr, &p_table_));
    EXPECT_EQ(nullptr, p_table_);
    EXPECT_EQ(0, sr_i_hash_table_close(nullptr));
    // A NULL hash function selects both defaults, whatever else is passed.
    EXPECT_EQ(2, qxtest::EachAllocationFailure(
                     [&] { return sr_i_hash_table_open(10, nullptr, compare_u32, &p_table_); },
                     [&] { EXPECT_EQ(nullptr, p_table_); }));
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

    ASSERT_EQ(0, sr_i_hash_table_open(8, hash_u32, compare_u32, &p_table_));
    // Removing an element compares addresses, not keys.
    ASSERT_EQ(0, add(12, 1, SR_PRIMARY_KEY_NOCHECK));
    sr_hash_table_element_t *p_first = element_;
    ASSERT_EQ(0, add(12, 2, SR_PRIMARY_KEY_NOCHECK));
    ASSERT_EQ(0, sr_i_hash_table_remove_element(p_table_, bucket_, p_first));
    EXPECT_EQ(2, row_of(12));
    EXPECT_EQ(202, sr_i_hash_table_remove_element(p_table_, (bucket_ + 1) % 8, element_));
    EXPECT_EQ(202, sr_i_hash_table_remove_element(p_table_, 8, element_));
    const qx_uint32_t missing = 20;  // in the bucket of 12
    EXPECT_EQ(202, sr_i_hash_table_remove(p_table_, &missing));
    ASSERT_EQ(0, add(5, 1, SR_STANDARD));
    ASSERT_EQ(0, add(13, 2, SR_STANDARD | SR_PROTECTED));
    testing::internal::CaptureStdout();
    sr_i_hash_table_output_stats(p_table_);
    EXPECT_EQ("4 1\n5 2\ntotal hash buckets : 8\nmax_bucket_count   : 2\nunused buckets     : 6\n",
              testing::internal::GetCapturedStdout());
    sr_i_hash_table_close(p_table_);

    auto out_of_range = [](const void *) -> qx_uint32_t { return 8; };
    ASSERT_EQ(0, sr_i_hash_table_open(8, out_of_range, compare_u32, &p_table_));
    EXPECT_EQ(15, add(1, 0, SR_STANDARD));
    EXPECT_EQ(-15, row_of(1));
    EXPECT_EQ(15, sr_i_hash_table_remove(p_table_, &keys_.back()));
}

}  // namespace
