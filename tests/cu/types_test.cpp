// The data-type table's invariants, the shared empty values and the resource-handle order.
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "qx_cu.h"

namespace {

// Scalars are 4 or 8 bytes; arrays follow their base; UNKNOWN and NONE are neither kind.
TEST(DtcTableTest, EntriesAreConsistentAndTheSharedEmptyValuesHoldNothing) {
    const qx_uint32_t kKind = CU_DTC_INTEGER | CU_DTC_FLOAT | CU_DTC_SIGNED;
    int scalars = 0, arrays = 0;
    for (int t = 0; t < QX_NUMBER_OF_DATA_TYPES; ++t) {
        const cu_dtc_entry_t &e = cu_dtc_table_1[t], &base = cu_dtc_table_1[e.dtc_base_type];
        SCOPED_TRACE(e.dtc_name);
        const bool scalar = (e.dtc_flags & CU_DTC_SCALAR) != 0;
        const bool array = (e.dtc_flags & CU_DTC_ARRAY) != 0;
        EXPECT_EQ(t, static_cast<int>(e.dtc_type));
        EXPECT_EQ(t >= QX_INT32, scalar != ((e.dtc_flags & CU_DTC_POINTER) != 0));
        EXPECT_TRUE(scalar ? e.dtc_size == 4 || e.dtc_size == 8 : e.dtc_size == 0);
        EXPECT_EQ(scalar, (e.dtc_flags & (CU_DTC_INTEGER | CU_DTC_FLOAT)) != 0 && !array);
        EXPECT_EQ(array ? std::string(base.dtc_name) + "_ARRAY" : std::string(base.dtc_name),
                  e.dtc_name);
        EXPECT_EQ(0u, base.dtc_flags & CU_DTC_ARRAY);
        EXPECT_EQ(base.dtc_flags & kKind, e.dtc_flags & kKind);
        scalars += scalar;
        arrays += array;
    }
    EXPECT_EQ(6, scalars);
    EXPECT_EQ(10, arrays);
    EXPECT_EQ(8u, cu_dtc_table_1[QX_FLOAT64].dtc_size);
    EXPECT_NE(0u, cu_dtc_table_1[QX_INT64].dtc_flags & CU_DTC_SIGNED);
    EXPECT_EQ(0u, cu_dtc_table_1[QX_UINT64].dtc_flags & CU_DTC_SIGNED);
    // Empty objects hold nothing and the invalid handle is all ones.
    EXPECT_STREQ("", cu_ptr_empty_char_1);
    EXPECT_EQ(0u, cu_ptr_empty_binary_1->length);
    EXPECT_EQ(0u, cu_ptr_empty_sd_1->element_count);
    EXPECT_EQ(0u, cu_ptr_empty_array_1->element_count);
    qx_uint32_t words[5];
    memcpy(words, cu_ptr_invld_rsrc_hndl_1, sizeof(words));
    for (qx_uint32_t w : words) EXPECT_EQ(0xFFFFFFFFu, w);
}

// Header first, then id1..id4, each unsigned; NULL first; any alignment.
TEST(RsrcHandleCmpTest, IsATotalOrderOnTheFiveWordsReadUnaligned) {
    auto sign = [](int v) { return (v > 0) - (v < 0); };
    std::vector<qx_resource_handle_t> hs;
    const qx_uint32_t vals[] = {0, 1, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu};
    for (qx_uint32_t h : vals) {
        for (qx_uint32_t a : vals) hs.push_back({h, {a, a ^ 1u, h, a}});
    }
    hs.push_back(*cu_ptr_invld_rsrc_hndl_1);  // every word set: the greatest
    for (int word = 1; word <= 4; ++word) {
        qx_uint32_t a[5] = {7, 7, 7, 7, 7}, b[5] = {7, 7, 7, 7, 7};
        b[word] = 8;
        for (int later = word + 1; later <= 4; ++later) a[later] = 100;  // must not matter
        EXPECT_LT(cu_rsrc_hndl_cmp_1(a, b), 0) << word;
        EXPECT_GT(cu_rsrc_hndl_cmp_1(b, a), 0) << word;
    }
    for (const auto &x : hs) {
        for (const auto &y : hs) {
            const int xy = cu_rsrc_hndl_cmp_1(&x, &y);
            EXPECT_EQ(sign(xy), -sign(cu_rsrc_hndl_cmp_1(&y, &x)));
            EXPECT_EQ(xy == 0, memcmp(&x, &y, sizeof x) == 0);
        }
    }
    std::sort(hs.begin(), hs.end(),
              [](const auto &x, const auto &y) { return cu_rsrc_hndl_cmp_1(&x, &y) < 0; });
    for (size_t i = 1; i < hs.size(); ++i) EXPECT_LT(cu_rsrc_hndl_cmp_1(&hs[i - 1], &hs[i]), 0);
    EXPECT_EQ(0, cu_rsrc_hndl_cmp_1(&hs.back(), cu_ptr_invld_rsrc_hndl_1));

    unsigned char buffer[64];
    memcpy(buffer + 1, &hs[3], sizeof hs[3]);
    memcpy(buffer + 23, &hs[4], sizeof hs[4]);
    memcpy(buffer + 43, &hs[3], sizeof hs[3]);
    EXPECT_LT(cu_rsrc_hndl_cmp_1(buffer + 1, buffer + 23), 0);
    EXPECT_EQ(0, cu_rsrc_hndl_cmp_1(buffer + 1, buffer + 43));
    EXPECT_LT(cu_rsrc_hndl_cmp_1(nullptr, &hs[0]), 0);
    EXPECT_GT(cu_rsrc_hndl_cmp_1(&hs[0], nullptr), 0);
    EXPECT_EQ(0, cu_rsrc_hndl_cmp_1(nullptr, nullptr));
}

}  // namespace
