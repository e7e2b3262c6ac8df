// The hashed key index: defaults, the duplicate rule of a checked primary
// key, lookup order among equal keys, removal, statistics, failures.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "sr/test_util.h"
#include "sr_i.h"

using qxtest::last_error;

namespace {

// Eight buckets by the low bits of a 32-bit key.
qx_uint32_t hash_u32(const void *p_key) {
    qx_uint32_t v;
    memcpy(&v, p_key, sizeof v);
    return v % 8;
}
qx_int32_t compare_u32(const void *p_key1, const void *p_key2) {
    return memcmp(p_key1, p_key2, 4);
}
qx_uint32_t hash_out_of_range(const void *) {
    return 8;
}

class HashTableTest : public ::testing::Test {
  protected:
    void TearDown() override {
        sr_i_alloc_fail_after(-1);
        sr_i_hash_table_close(p_table_);
    }
    void open_u32() { ASSERT_EQ(0, sr_i_hash_table_open(8, hash_u32, compare_u32, &p_table_)); }
    // Keys stay put, as inside row records: the deque never moves them.
    qx_int32_t add(qx_uint32_t v, qx_uint32_t row, sr_qualifier_t qualifier,
                   sr_hash_table_element_t **pp_element = nullptr,
                   qx_uint32_t *p_bucket = nullptr) {
        keys_.push_back(v);
        sr_hash_table_element_t *p_element = nullptr;
        qx_uint32_t bucket = 0;
        qx_int32_t rc = sr_i_hash_table_add(p_table_, reinterpret_cast<char *>(&keys_.back()), row,
                                            &bucket, &p_element, qualifier);
        if (pp_element != nullptr) *pp_element = p_element;
        if (p_bucket != nullptr) *p_bucket = bucket;
        return rc;
    }
    qx_int32_t lookup(qx_uint32_t v, qx_uint32_t *p_row) {
        return sr_i_hash_table_get_index(p_table_, &v, p_row, nullptr);
    }
    sr_hash_table_t *p_table_ = nullptr;
    std::deque<qx_uint32_t> keys_;
};

TEST_F(HashTableTest, DefaultsHashAResourceHandlesFourthWord) {
    EXPECT_EQ(101, sr_i_hash_table_open(8, hash_u32, nullptr, &p_table_));
    EXPECT_EQ(nullptr, p_table_);
    EXPECT_EQ(0, sr_i_hash_table_close(nullptr));
    // A NULL hash function selects both defaults, whatever else is passed.
    ASSERT_EQ(0, sr_i_hash_table_open(10, nullptr, compare_u32, &p_table_));
    EXPECT_EQ(16384u, p_table_->total_hash_buckets);
    EXPECT_EQ(&cu_rsrc_hndl_cmp_1, p_table_->p_compare_function);
    qx_resource_handle_t handle{7, {1, 2, 3, 0x12345}};
    qx_uint32_t bucket = 0;
    sr_hash_table_element_t *p_element = nullptr;
    ASSERT_EQ(0, sr_i_hash_table_add(p_table_, reinterpret_cast<char *>(&handle), 42, &bucket,
                                     &p_element, SR_PRIMARY_KEY));
    EXPECT_EQ(0x2345u, bucket);
    qx_resource_handle_t probe = handle;
    qx_uint32_t row = 0;
    char **pp_key = nullptr;
    ASSERT_EQ(0, sr_i_hash_table_get_index(p_table_, &probe, &row, &pp_key));
    EXPECT_EQ(42u, row);
    EXPECT_EQ(reinterpret_cast<char *>(&handle), *pp_key);
    // Same bucket, told apart by the compare function.
    qx_resource_handle_t other{7, {1, 2, 4, 0x12345}};
    EXPECT_EQ(202, sr_i_hash_table_get_index(p_table_, &other, &row, nullptr));
}

TEST_F(HashTableTest, EqualKeysDuplicatesRemovalAndStatistics) {
    open_u32();
    // Unchecked keys: both indexed, the later found first and removed first.
    sr_hash_table_element_t *p_e1 = nullptr, *p_e2 = nullptr;
    qx_uint32_t bucket1 = 0, bucket2 = 0, row = 0;
    ASSERT_EQ(0, add(77, 1, SR_PRIMARY_KEY_NOCHECK));
    ASSERT_EQ(0, add(77, 2, SR_PRIMARY_KEY_NOCHECK));
    ASSERT_EQ(0, lookup(77, &row));
    EXPECT_EQ(2u, row);
    qx_uint32_t probe = 77;
    ASSERT_EQ(0, sr_i_hash_table_remove(p_table_, &probe));
    ASSERT_EQ(0, lookup(77, &row));
    EXPECT_EQ(1u, row);
    ASSERT_EQ(0, sr_i_hash_table_remove(p_table_, &probe));
    EXPECT_EQ(202, sr_i_hash_table_remove(p_table_, &probe));
    EXPECT_EQ("2605-202 There is no row corresponding to the specified key value.\n",
              last_error().message);
    EXPECT_EQ(0, add(5, 1, SR_STANDARD));
    EXPECT_EQ(0, add(5, 2, SR_STANDARD | SR_PROTECTED));
    // Removing an element compares addresses, not keys.
    ASSERT_EQ(0, add(12, 1, SR_PRIMARY_KEY_NOCHECK, &p_e1, &bucket1));
    ASSERT_EQ(0, add(12, 2, SR_PRIMARY_KEY_NOCHECK, &p_e2, &bucket2));
    ASSERT_EQ(0, sr_i_hash_table_remove_element(p_table_, bucket1, p_e1));
    ASSERT_EQ(0, lookup(12, &row));
    EXPECT_EQ(2u, row);
    EXPECT_EQ(202, sr_i_hash_table_remove_element(p_table_, (bucket2 + 1) % 8, p_e2));
    ASSERT_EQ(0, sr_i_hash_table_remove_element(p_table_, bucket2, p_e2));
    // A checked duplicate gives 108 and the existing element, no error record
    // (the caller decides); modifier bits do not hide the base qualifier.
    sr_hash_table_element_t *p_existing = nullptr, *p_reported = nullptr;
    ASSERT_EQ(0, add(9, 4, SR_PRIMARY_KEY, &p_existing));
    ASSERT_EQ(0, add(17, 6, SR_PRIMARY_KEY));
    cu_set_no_error_1();
    EXPECT_EQ(108, add(9, 6, SR_PRIMARY_KEY | SR_INVISIBLE, &p_reported, &bucket1));
    EXPECT_EQ(p_existing, p_reported);
    EXPECT_EQ(1u, bucket1);
    EXPECT_EQ(0, last_error().code);
    testing::internal::CaptureStdout();
    sr_i_hash_table_output_stats(p_table_);
    EXPECT_EQ(
        "1 2\n5 2\n"
        "total hash buckets : 8\nmax_bucket_count   : 2\nunused buckets     : 6\n",
        testing::internal::GetCapturedStdout());
}

TEST_F(HashTableTest, BadHashValueAndAllocationFailuresChangeNothing) {
    for (qx_int64_t n = 0; n < 2; ++n) {
        sr_i_alloc_fail_after(n);
        EXPECT_EQ(12, sr_i_hash_table_open(0, nullptr, nullptr, &p_table_));
        EXPECT_EQ(nullptr, p_table_);
        EXPECT_EQ(12, last_error().code);
    }
    sr_i_alloc_fail_after(-1);
    open_u32();
    ASSERT_EQ(0, add(3, 0, SR_PRIMARY_KEY));
    sr_i_alloc_fail_after(0);
    EXPECT_EQ(12, add(11, 1, SR_PRIMARY_KEY));
    sr_i_alloc_fail_after(-1);
    qx_uint32_t row = 0;
    EXPECT_EQ(202, lookup(11, &row));
    EXPECT_EQ(0, add(11, 1, SR_PRIMARY_KEY));
    EXPECT_EQ(0, lookup(3, &row));
    sr_i_hash_table_close(p_table_);
    ASSERT_EQ(0, sr_i_hash_table_open(8, hash_out_of_range, compare_u32, &p_table_));
    qx_uint32_t probe = 1;
    EXPECT_EQ(15, add(1, 0, SR_STANDARD));
    EXPECT_EQ(15, sr_i_hash_table_get_index(p_table_, &probe, &row, nullptr));
    EXPECT_EQ(15, sr_i_hash_table_remove(p_table_, &probe));
}

}  // namespace
