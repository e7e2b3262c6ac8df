// The hashed key index: defaults, the duplicate rule of a checked primary
// key, lookup order among equal keys, removal by key and by element, the
// statistics text, and allocation failures.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "sr/test_util.h"
#include "sr_i.h"

using qxtest::last_error;

namespace {

// Caller functions over 32-bit keys: eight buckets by the low bits.
qx_uint32_t hash_u32(const void *p_key) {
    qx_uint32_t v;
    memcpy(&v, p_key, sizeof v);
    return v % 8;
}
qx_int32_t compare_u32(const void *p_key1, const void *p_key2) {
    qx_uint32_t a, b;
    memcpy(&a, p_key1, sizeof a);
    memcpy(&b, p_key2, sizeof b);
    return a == b ? 0 : (a < b ? -1 : 1);
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
    // Keys live in stable storage, as they would inside row records; the
    // vector is reserved so that adding never moves them.
    char *key(qx_uint32_t v) {
        keys_.push_back(v);
        return reinterpret_cast<char *>(&keys_.back());
    }
    qx_int32_t add(char *p_key, qx_uint32_t row, sr_qualifier_t qualifier,
                   sr_hash_table_element_t **pp_element = nullptr,
                   qx_uint32_t *p_bucket = nullptr) {
        sr_hash_table_element_t *p_element = nullptr;
        qx_uint32_t bucket = 0;
        qx_int32_t rc = sr_i_hash_table_add(p_table_, p_key, row, &bucket, &p_element, qualifier);
        if (pp_element != nullptr) *pp_element = p_element;
        if (p_bucket != nullptr) *p_bucket = bucket;
        return rc;
    }
    qx_int32_t lookup(qx_uint32_t v, qx_uint32_t *p_row) {
        return sr_i_hash_table_get_index(p_table_, &v, p_row, nullptr);
    }
    sr_hash_table_t *p_table_ = nullptr;
    std::vector<qx_uint32_t> keys_ = [] {
        std::vector<qx_uint32_t> v;
        v.reserve(1024);
        return v;
    }();
};

TEST_F(HashTableTest, NullHashFunctionSelectsTheDefaultsWhateverElseIsPassed) {
    ASSERT_EQ(0, sr_i_hash_table_open(10, nullptr, compare_u32, &p_table_));
    EXPECT_EQ(16384u, p_table_->total_hash_buckets);
    EXPECT_EQ(nullptr, p_table_->p_hash_function);
    EXPECT_EQ(&cu_rsrc_hndl_cmp_1, p_table_->p_compare_function);
    for (qx_uint32_t b = 0; b < p_table_->total_hash_buckets; ++b) {
        ASSERT_EQ(nullptr, p_table_->p_elements[b]);
    }
}

TEST_F(HashTableTest, ResourceHandleWithFourthWord0x12345LandsInBucket0x2345) {
    ASSERT_EQ(0, sr_i_hash_table_open(0, nullptr, nullptr, &p_table_));
    qx_resource_handle_t handle{7, {1, 2, 3, 0x12345}};
    qx_uint32_t bucket = 0;
    sr_hash_table_element_t *p_element = nullptr;
    ASSERT_EQ(0, sr_i_hash_table_add(p_table_, reinterpret_cast<char *>(&handle), 42, &bucket,
                                     &p_element, SR_PRIMARY_KEY));
    EXPECT_EQ(0x2345u, bucket);
    EXPECT_EQ(p_element, p_table_->p_elements[0x2345]);
    // Found through an equal handle held elsewhere.
    qx_resource_handle_t probe = handle;
    qx_uint32_t row = 0;
    char **pp_key = nullptr;
    ASSERT_EQ(0, sr_i_hash_table_get_index(p_table_, &probe, &row, &pp_key));
    EXPECT_EQ(42u, row);
    EXPECT_EQ(&p_element->p_key_value, pp_key);
    EXPECT_EQ(reinterpret_cast<char *>(&handle), *pp_key);
    // Handles that differ only outside the hashed word share the bucket but
    // are told apart by the compare function.
    qx_resource_handle_t other{7, {1, 2, 4, 0x12345}};
    EXPECT_EQ(202, sr_i_hash_table_get_index(p_table_, &other, &row, nullptr));
}

TEST_F(HashTableTest, EqualKeysWithoutUniquenessCheckAreBothIndexedAndTheLaterIsFoundFirst) {
    open_u32();
    char *p_first = key(77);
    char *p_second = key(77);
    sr_hash_table_element_t *p_e1 = nullptr;
    sr_hash_table_element_t *p_e2 = nullptr;
    ASSERT_EQ(0, add(p_first, 1, SR_PRIMARY_KEY_NOCHECK, &p_e1));
    ASSERT_EQ(0, add(p_second, 2, SR_PRIMARY_KEY_NOCHECK, &p_e2));
    EXPECT_NE(p_e1, p_e2);
    qx_uint32_t row = 0;
    ASSERT_EQ(0, lookup(77, &row));
    EXPECT_EQ(2u, row);
    // Removing by key takes the later one; the earlier is then found.
    qx_uint32_t probe = 77;
    ASSERT_EQ(0, sr_i_hash_table_remove(p_table_, &probe));
    ASSERT_EQ(0, lookup(77, &row));
    EXPECT_EQ(1u, row);
    ASSERT_EQ(0, sr_i_hash_table_remove(p_table_, &probe));
    EXPECT_EQ(202, lookup(77, &row));
}

TEST_F(HashTableTest, OtherQualifiersAllowEqualKeysToo) {
    open_u32();
    ASSERT_EQ(0, add(key(5), 1, SR_STANDARD));
    EXPECT_EQ(0, add(key(5), 2, SR_STANDARD | SR_PROTECTED));
}

TEST_F(HashTableTest, DuplicatePrimaryKeyReturns108WithTheExistingElementUnreported) {
    open_u32();
    sr_hash_table_element_t *p_existing = nullptr;
    ASSERT_EQ(0, add(key(9), 4, SR_PRIMARY_KEY, &p_existing));
    ASSERT_EQ(0, add(key(17), 5, SR_PRIMARY_KEY));  // same bucket, other key
    cu_set_no_error_1();
    sr_hash_table_element_t *p_reported = nullptr;
    qx_uint32_t bucket = 99;
    // Modifier bits do not hide the base qualifier.
    EXPECT_EQ(108, add(key(9), 6, SR_PRIMARY_KEY | SR_INVISIBLE, &p_reported, &bucket));
    EXPECT_EQ(p_existing, p_reported);
    EXPECT_EQ(4u, p_reported->row_index);
    EXPECT_EQ(1u, bucket);
    EXPECT_EQ(0, last_error().code);  // the caller decides whether to report
    qx_uint32_t row = 0;
    ASSERT_EQ(0, lookup(9, &row));
    EXPECT_EQ(4u, row);
}

TEST_F(HashTableTest, RemovingFromAnEmptyBucketGives202) {
    open_u32();
    qx_uint32_t probe = 3;
    EXPECT_EQ(202, sr_i_hash_table_remove(p_table_, &probe));
    qxtest::LastError error = last_error();
    EXPECT_EQ(202, error.code);
    EXPECT_EQ("2605-202 There is no row corresponding to the specified key value.\n",
              error.message);
}

TEST_F(HashTableTest, RemovingAnElementComparesAddressesNotKeys) {
    open_u32();
    sr_hash_table_element_t *p_e1 = nullptr;
    sr_hash_table_element_t *p_e2 = nullptr;
    qx_uint32_t bucket1 = 0;
    qx_uint32_t bucket2 = 0;
    ASSERT_EQ(0, add(key(12), 1, SR_PRIMARY_KEY_NOCHECK, &p_e1, &bucket1));
    ASSERT_EQ(0, add(key(12), 2, SR_PRIMARY_KEY_NOCHECK, &p_e2, &bucket2));
    ASSERT_EQ(bucket1, bucket2);
    // The earlier element goes, although the later one has an equal key.
    ASSERT_EQ(0, sr_i_hash_table_remove_element(p_table_, bucket1, p_e1));
    qx_uint32_t row = 0;
    ASSERT_EQ(0, lookup(12, &row));
    EXPECT_EQ(2u, row);
    // An element in another bucket is not there.
    EXPECT_EQ(202, sr_i_hash_table_remove_element(p_table_, (bucket2 + 1) % 8, p_e2));
    EXPECT_EQ(202, last_error().code);
    ASSERT_EQ(0, sr_i_hash_table_remove_element(p_table_, bucket2, p_e2));
    EXPECT_EQ(nullptr, p_table_->p_elements[bucket2]);
}

TEST_F(HashTableTest, StatisticsListNonEmptyBucketsThenTotals) {
    open_u32();
    ASSERT_EQ(0, add(key(1), 0, SR_STANDARD));
    ASSERT_EQ(0, add(key(9), 1, SR_STANDARD));
    ASSERT_EQ(0, add(key(17), 2, SR_STANDARD));
    ASSERT_EQ(0, add(key(6), 3, SR_STANDARD));
    testing::internal::CaptureStdout();
    sr_i_hash_table_output_stats(p_table_);
    EXPECT_EQ(
        "1 3\n"
        "6 1\n"
        "total hash buckets : 8\n"
        "max_bucket_count   : 3\n"
        "unused buckets     : 6\n",
        testing::internal::GetCapturedStdout());
}

TEST_F(HashTableTest, HashValueBeyondTheBucketsIsRefusedNotFollowed) {
    ASSERT_EQ(0, sr_i_hash_table_open(8, hash_out_of_range, compare_u32, &p_table_));
    qx_uint32_t row = 0;
    EXPECT_EQ(15, add(key(1), 0, SR_STANDARD));
    qx_uint32_t probe = 1;
    EXPECT_EQ(15, sr_i_hash_table_get_index(p_table_, &probe, &row, nullptr));
    EXPECT_EQ(15, sr_i_hash_table_remove(p_table_, &probe));
}

TEST_F(HashTableTest, HashFunctionWithoutCompareFunctionIsRefused) {
    EXPECT_EQ(101, sr_i_hash_table_open(8, hash_u32, nullptr, &p_table_));
    EXPECT_EQ(nullptr, p_table_);
}

TEST_F(HashTableTest, ClosingANullIndexIsAccepted) {
    EXPECT_EQ(0, sr_i_hash_table_close(nullptr));
}

TEST_F(HashTableTest, OpenFailuresReturn12AndLeakNothing) {
    for (qx_int64_t n = 0; n < 2; ++n) {
        sr_i_alloc_fail_after(n);
        sr_hash_table_t *p_table = nullptr;
        EXPECT_EQ(12, sr_i_hash_table_open(0, nullptr, nullptr, &p_table));
        EXPECT_EQ(nullptr, p_table);
        EXPECT_EQ(12, last_error().code);
    }
    sr_i_alloc_fail_after(-1);
}

TEST_F(HashTableTest, AddFailureReturns12AndLeavesTheIndexAsItWas) {
    open_u32();
    ASSERT_EQ(0, add(key(3), 0, SR_PRIMARY_KEY));
    sr_hash_table_element_t *p_head = p_table_->p_elements[3];
    sr_i_alloc_fail_after(0);
    sr_hash_table_element_t *p_element = nullptr;
    EXPECT_EQ(12, add(key(11), 1, SR_PRIMARY_KEY, &p_element));
    sr_i_alloc_fail_after(-1);
    EXPECT_EQ(p_head, p_table_->p_elements[3]);
    EXPECT_EQ(nullptr, p_head->p_next);
    qx_uint32_t row = 0;
    EXPECT_EQ(202, lookup(11, &row));
    EXPECT_EQ(0, add(key(11), 1, SR_PRIMARY_KEY));
}

}  // namespace
