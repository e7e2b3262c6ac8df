// The data-type characteristics table, the shared empty values and the
// resource-handle order.
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "qx_cu.h"

namespace {

TEST(DtcTableTest, EntryTypeEqualsIndexAndNamesFollowTheEnumeration) {
    const char *names[QX_NUMBER_OF_DATA_TYPES] = {"QX_UNKNOWN",
                                                  "QX_NONE",
                                                  "QX_INT32",
                                                  "QX_UINT32",
                                                  "QX_INT64",
                                                  "QX_UINT64",
                                                  "QX_FLOAT32",
                                                  "QX_FLOAT64",
                                                  "QX_CHAR_PTR",
                                                  "QX_BINARY_PTR",
                                                  "QX_RSRC_HANDLE_PTR",
                                                  "QX_SD_PTR",
                                                  "QX_SBS_PTR",
                                                  "QX_INT32_ARRAY",
                                                  "QX_UINT32_ARRAY",
                                                  "QX_INT64_ARRAY",
                                                  "QX_UINT64_ARRAY",
                                                  "QX_FLOAT32_ARRAY",
                                                  "QX_FLOAT64_ARRAY",
                                                  "QX_CHAR_PTR_ARRAY",
                                                  "QX_BINARY_PTR_ARRAY",
                                                  "QX_RSRC_HANDLE_PTR_ARRAY",
                                                  "QX_SD_PTR_ARRAY"};
    for (int t = 0; t < QX_NUMBER_OF_DATA_TYPES; ++t) {
        EXPECT_EQ(t, static_cast<int>(cu_dtc_table_1[t].dtc_type));
        EXPECT_STREQ(names[t], cu_dtc_table_1[t].dtc_name);
    }
}

TEST(DtcTableTest, PointerScalarAndArrayFlagsCoverExactlyTheirRanges) {
    for (int t = 0; t < QX_NUMBER_OF_DATA_TYPES; ++t) {
        qx_uint32_t f = cu_dtc_table_1[t].dtc_flags;
        EXPECT_EQ(t >= 8, (f & CU_DTC_POINTER) != 0) << t;
        EXPECT_EQ(t >= 2 && t <= 7, (f & CU_DTC_SCALAR) != 0) << t;
        EXPECT_EQ(t >= 13, (f & CU_DTC_ARRAY) != 0) << t;
    }
    EXPECT_EQ(0u, cu_dtc_table_1[QX_UNKNOWN].dtc_flags);
    EXPECT_EQ(0u, cu_dtc_table_1[QX_NONE].dtc_flags);
}

TEST(DtcTableTest, ArraysNameTheirBaseTypesAndShareTheirKind) {
    const qx_data_type_t bases[] = {QX_INT32,           QX_UINT32,  QX_INT64,    QX_UINT64,
                                    QX_FLOAT32,         QX_FLOAT64, QX_CHAR_PTR, QX_BINARY_PTR,
                                    QX_RSRC_HANDLE_PTR, QX_SD_PTR};
    for (int i = 0; i < 10; ++i) {
        const cu_dtc_entry_t &e = cu_dtc_table_1[QX_INT32_ARRAY + i];
        EXPECT_EQ(bases[i], e.dtc_base_type) << e.dtc_name;
        const qx_uint32_t kind = CU_DTC_INTEGER | CU_DTC_FLOAT | CU_DTC_SIGNED;
        EXPECT_EQ(cu_dtc_table_1[bases[i]].dtc_flags & kind, e.dtc_flags & kind) << e.dtc_name;
        EXPECT_EQ(0u, e.dtc_size);
    }
    for (int t = 0; t < QX_INT32_ARRAY; ++t) {
        EXPECT_EQ(t, static_cast<int>(cu_dtc_table_1[t].dtc_base_type));
    }
}

TEST(DtcTableTest, ScalarKindsAndSizes) {
    struct Want {
        qx_data_type_t type;
        qx_uint32_t kind;
        qx_uint32_t size;
    };
    const Want wants[] = {
        {QX_INT32, CU_DTC_INTEGER | CU_DTC_SIGNED, 4},
        {QX_UINT32, CU_DTC_INTEGER, 4},
        {QX_INT64, CU_DTC_INTEGER | CU_DTC_SIGNED, 8},
        {QX_UINT64, CU_DTC_INTEGER, 8},
        {QX_FLOAT32, CU_DTC_FLOAT, 4},
        {QX_FLOAT64, CU_DTC_FLOAT, 8},
    };
    for (const Want &w : wants) {
        const cu_dtc_entry_t &e = cu_dtc_table_1[w.type];
        EXPECT_EQ(CU_DTC_SCALAR | w.kind, e.dtc_flags) << e.dtc_name;
        EXPECT_EQ(w.size, e.dtc_size) << e.dtc_name;
    }
    for (int t = QX_CHAR_PTR; t <= QX_SBS_PTR; ++t) {
        EXPECT_EQ(static_cast<qx_uint32_t>(CU_DTC_POINTER), cu_dtc_table_1[t].dtc_flags);
        EXPECT_EQ(0u, cu_dtc_table_1[t].dtc_size);
    }
}

TEST(EmptyValueTest, EmptyObjectsHoldNothing) {
    EXPECT_STREQ("", cu_ptr_empty_char_1);
    EXPECT_EQ(0u, cu_ptr_empty_binary_1->length);
    EXPECT_EQ(0u, cu_ptr_empty_sd_1->element_count);
    EXPECT_EQ(0u, cu_ptr_empty_array_1->element_count);
}

TEST(EmptyValueTest, InvalidHandleHasEveryWordSet) {
    qx_uint32_t words[5];
    memcpy(words, cu_ptr_invld_rsrc_hndl_1, sizeof(words));
    for (qx_uint32_t w : words) EXPECT_EQ(0xFFFFFFFFu, w);
}

// --- resource-handle order ----------------------------------------------------

qx_resource_handle_t make(qx_uint32_t h, qx_uint32_t a, qx_uint32_t b, qx_uint32_t c,
                          qx_uint32_t d) {
    qx_resource_handle_t r;
    r.header = h;
    r.id.id1 = a;
    r.id.id2 = b;
    r.id.id3 = c;
    r.id.id4 = d;
    return r;
}

int sign(int v) {
    return (v > 0) - (v < 0);
}

TEST(RsrcHandleCmpTest, HeaderComesFirstThenIdWordsInOrder) {
    qx_resource_handle_t lo = make(1, 9, 9, 9, 9);
    qx_resource_handle_t hi = make(2, 0, 0, 0, 0);
    EXPECT_LT(cu_rsrc_hndl_cmp_1(&lo, &hi), 0);
    for (int word = 1; word <= 4; ++word) {
        qx_uint32_t a[5] = {7, 7, 7, 7, 7};
        qx_uint32_t b[5] = {7, 7, 7, 7, 7};
        b[word] = 8;
        for (int later = word + 1; later <= 4; ++later) a[later] = 100;  // must not matter
        EXPECT_LT(cu_rsrc_hndl_cmp_1(a, b), 0) << "word " << word;
        EXPECT_GT(cu_rsrc_hndl_cmp_1(b, a), 0) << "word " << word;
    }
}

TEST(RsrcHandleCmpTest, WordsCompareUnsigned) {
    qx_resource_handle_t small = make(0, 1, 0, 0, 0);
    qx_resource_handle_t big = make(0, 0x80000000u, 0, 0, 0);
    EXPECT_LT(cu_rsrc_hndl_cmp_1(&small, &big), 0);
    qx_resource_handle_t zero = make(0, 0, 0, 0, 0);
    EXPECT_GT(cu_rsrc_hndl_cmp_1(cu_ptr_invld_rsrc_hndl_1, &zero), 0);
}

TEST(RsrcHandleCmpTest, EqualHandlesCompareZero) {
    qx_resource_handle_t a = make(3, 1, 4, 1, 5);
    qx_resource_handle_t b = make(3, 1, 4, 1, 5);
    EXPECT_EQ(0, cu_rsrc_hndl_cmp_1(&a, &b));
    EXPECT_EQ(0, cu_rsrc_hndl_cmp_1(&a, &a));
    qx_resource_handle_t inv = make(~0u, ~0u, ~0u, ~0u, ~0u);
    EXPECT_EQ(0, cu_rsrc_hndl_cmp_1(&inv, cu_ptr_invld_rsrc_hndl_1));
}

TEST(RsrcHandleCmpTest, OrderIsAntisymmetricAndTransitive) {
    std::vector<qx_resource_handle_t> hs;
    const qx_uint32_t vals[] = {0, 1, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu};
    for (qx_uint32_t h : vals) {
        for (qx_uint32_t a : vals) {
            hs.push_back(make(h, a, a ^ 1u, h, a));
        }
    }
    for (const auto &x : hs) {
        for (const auto &y : hs) {
            EXPECT_EQ(sign(cu_rsrc_hndl_cmp_1(&x, &y)), -sign(cu_rsrc_hndl_cmp_1(&y, &x)));
        }
    }
    std::sort(hs.begin(), hs.end(),
              [](const auto &x, const auto &y) { return cu_rsrc_hndl_cmp_1(&x, &y) < 0; });
    for (size_t i = 1; i < hs.size(); ++i) {
        EXPECT_LE(cu_rsrc_hndl_cmp_1(&hs[i - 1], &hs[i]), 0);
        for (size_t j = i; j < hs.size(); ++j) EXPECT_LE(cu_rsrc_hndl_cmp_1(&hs[i - 1], &hs[j]), 0);
    }
}

TEST(RsrcHandleCmpTest, UnalignedHandlesCompareByValue) {
    // Handles packed into records sit at any byte offset.
    unsigned char buffer[64];
    qx_resource_handle_t a = make(1, 2, 3, 4, 5);
    qx_resource_handle_t b = make(1, 2, 3, 4, 6);
    memcpy(buffer + 1, &a, sizeof(a));
    memcpy(buffer + 23, &b, sizeof(b));
    EXPECT_LT(cu_rsrc_hndl_cmp_1(buffer + 1, buffer + 23), 0);
    memcpy(buffer + 43, &a, sizeof(a));
    EXPECT_EQ(0, cu_rsrc_hndl_cmp_1(buffer + 1, buffer + 43));
}

TEST(RsrcHandleCmpTest, NullSortsFirst) {
    qx_resource_handle_t a = make(0, 0, 0, 0, 0);
    EXPECT_LT(cu_rsrc_hndl_cmp_1(nullptr, &a), 0);
    EXPECT_GT(cu_rsrc_hndl_cmp_1(&a, nullptr), 0);
    EXPECT_EQ(0, cu_rsrc_hndl_cmp_1(nullptr, nullptr));
}

}  // namespace
