/*
 * types_test.cpp - the library's own reading of the data types agrees with
 * the suite's common type table, which the registry uses to decide what it
 * hands to this library.
 */
#include <gtest/gtest.h>

#include "pmsg_i.h"

namespace {

TEST(PmsgTypesTest, KindsAgreeWithTheCommonTypeTable) {
    for (uint32_t type = 0; type < QX_NUMBER_OF_DATA_TYPES; type++) {
        SCOPED_TRACE(cu_dtc_table_1[type].dtc_name);
        const cu_dtc_entry_t &entry = cu_dtc_table_1[type];
        pmsg_i::Kind kind = pmsg_i::kind_of(type);
        EXPECT_EQ((entry.dtc_flags & (CU_DTC_SCALAR | CU_DTC_POINTER)) == 0,
                  kind == pmsg_i::kInvalid);
        EXPECT_EQ((entry.dtc_flags & CU_DTC_SCALAR) != 0, pmsg_i::is_scalar(kind));
        if (pmsg_i::is_scalar(kind)) {
            EXPECT_EQ(entry.dtc_size, kind == pmsg_i::kScalar32 ? 4u : 8u);
        }
        bool array = kind == pmsg_i::kScalarArray || kind == pmsg_i::kPointerArray;
        EXPECT_EQ((entry.dtc_flags & CU_DTC_ARRAY) != 0, array);
        if (array) {
            EXPECT_EQ(static_cast<uint32_t>(entry.dtc_base_type), pmsg_i::array_base_type(type));
            EXPECT_EQ(kind == pmsg_i::kScalarArray,
                      (cu_dtc_table_1[entry.dtc_base_type].dtc_flags & CU_DTC_SCALAR) != 0);
        }
    }
    EXPECT_EQ(pmsg_i::kInvalid, pmsg_i::kind_of(QX_NUMBER_OF_DATA_TYPES));
    EXPECT_EQ(pmsg_i::kInvalid, pmsg_i::kind_of(0xFFFFFFFFu));
}

TEST(PmsgTypesTest, SharedEmptyValuesBuildAndReadBack) {
    /* The registry substitutes these for NULL pointer values. */
    qx_value_t empties[QX_NUMBER_OF_DATA_TYPES];
    empties[QX_CHAR_PTR].ptr_char = cu_ptr_empty_char_1;
    empties[QX_BINARY_PTR].ptr_binary = cu_ptr_empty_binary_1;
    empties[QX_RSRC_HANDLE_PTR].ptr_rsrc_handle = cu_ptr_invld_rsrc_hndl_1;
    empties[QX_SD_PTR].ptr_sd = cu_ptr_empty_sd_1;
    qx_sbs_t empty_sbs{0, {0}};
    empties[QX_SBS_PTR].ptr_sbs = &empty_sbs;
    for (int type = QX_INT32_ARRAY; type <= QX_SD_PTR_ARRAY; type++)
        empties[type].ptr_array = cu_ptr_empty_array_1;
    for (int type = QX_CHAR_PTR; type <= QX_SD_PTR_ARRAY; type++) {
        SCOPED_TRACE(type);
        uint64_t area[4] = {};
        qx_pmsg_value_t slot;
        qx_uint32_t running = 0;
        ASSERT_EQ(0, qx_pmsg_build_conv_protocol_value_1(
                         nullptr, 0, static_cast<qx_data_type_t>(type), &empties[type], &slot, area,
                         sizeof area, &running));
        qx_value_t back;
        ASSERT_EQ(0, qx_pmsg_build_conv_packed_client_value_1(nullptr, QX_PMSG_CLIENT_MALLOC,
                                                              static_cast<qx_data_type_t>(type),
                                                              &back, &slot, area, sizeof area));
        free(back.ptr_char);
    }
}

}  // namespace
