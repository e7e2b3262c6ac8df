/*
 * byte_order_test.cpp - forms written on a machine of the other byte order:
 * detecting them by the buffer's mark and converting them back.
 */
#include <gtest/gtest.h>

#include "pmsg_test_util.h"

namespace {

using pmsg_test::Arena;
using pmsg_test::Built;
using pmsg_test::ValueMaker;

TEST(PmsgByteOrderTest, TheMarkAtOffsetSixteenTellsWhetherToConvert) {
    uint8_t buffer[40] = {};
    uint32_t one = 1;
    memcpy(buffer + 16, &one, 4);
    qx_uint32_t required = 7;
    ASSERT_EQ(0, qx_pmsg_cnv_required_1(buffer, &required));
    EXPECT_EQ(0u, required);
    pmsg_test::swap32_at(buffer + 16);
    uint8_t before[40];
    memcpy(before, buffer, sizeof buffer);
    ASSERT_EQ(0, qx_pmsg_cnv_required_1(buffer, &required));
    EXPECT_EQ(1u, required);
    EXPECT_EQ(0, memcmp(before, buffer, sizeof buffer)) << "asking changes nothing";
    uint32_t garbage = 0x00020000;
    memcpy(buffer + 16, &garbage, 4);
    EXPECT_EQ(QX_PMSG_E_CORRUPT, qx_pmsg_cnv_required_1(buffer, &required));
    EXPECT_EQ(QX_PMSG_E_INVAL, qx_pmsg_cnv_required_1(nullptr, &required));
    EXPECT_EQ(QX_PMSG_E_INVAL, qx_pmsg_cnv_required_1(buffer, nullptr));
}

/* Converted with the bounded call (odd seeds) or the unbounded one. */
TEST(PmsgByteOrderTest, EveryTypeConvertedFromTheOtherOrderIsIdenticalToTheOriginal) {
    for (uint32_t seed = 1; seed <= 30; seed++) {
        Arena arena;
        ValueMaker maker(arena, seed);
        for (int type = QX_INT32; type <= QX_SD_PTR_ARRAY; type++) {
            SCOPED_TRACE("seed " + std::to_string(seed) + " type " + std::to_string(type));
            Built built;
            ASSERT_EQ(0, pmsg_test::build_value(nullptr, type, maker.make(type), &built));
            std::vector<uint64_t> original = built.storage;
            qx_pmsg_value_t original_slot = built.slot;
            pmsg_test::value_to_other_order(type, reinterpret_cast<uint8_t *>(&built.slot),
                                            built.p_area);
            if (type != QX_CHAR_PTR) {
                EXPECT_TRUE(original != built.storage ||
                            memcmp(&original_slot, &built.slot, 8) != 0);
            }
            const auto t = static_cast<qx_data_type_t>(type);
            ASSERT_EQ(0, seed % 2 ? qx_pmsg_convert_pmsg_value_bounded_1(&built.slot, t,
                                                                         built.p_area, built.used)
                                  : qx_pmsg_convert_pmsg_value_1(&built.slot, t, built.p_area));
            EXPECT_EQ(0, memcmp(&original_slot, &built.slot, 8));
            EXPECT_TRUE(original == built.storage);
        }
    }
}

TEST(PmsgByteOrderTest, AFormThatDoesNotCheckOutIsLeftExactlyAsItWas) {
    Arena arena;
    qx_array_t *texts = arena.array(3);
    texts->elements[0].ptr_char = arena.text("one");
    texts->elements[1].ptr_char = arena.text("two");
    texts->elements[2].ptr_char = arena.text("three");
    qx_value_t value;
    value.ptr_array = texts;
    Built built;
    ASSERT_EQ(0, pmsg_test::build_value(nullptr, QX_CHAR_PTR_ARRAY, value, &built));
    pmsg_test::value_to_other_order(QX_CHAR_PTR_ARRAY, reinterpret_cast<uint8_t *>(&built.slot),
                                    built.p_area);
    /* Break the last nested anchor (its length, in the other order). */
    uint32_t huge = 0x00FFFFFF;
    memcpy(built.p_area + 8 + 2 * 8 + 4, &huge, 4);
    std::vector<uint64_t> before = built.storage;
    qx_pmsg_value_t slot_before = built.slot;
    EXPECT_EQ(QX_PMSG_E_BOUNDS, qx_pmsg_convert_pmsg_value_bounded_1(&built.slot, QX_CHAR_PTR_ARRAY,
                                                                     built.p_area, built.used));
    EXPECT_TRUE(before == built.storage) << "the first two texts' anchors were not converted";
    EXPECT_EQ(0, memcmp(&slot_before, &built.slot, 8));
    /* The top-level anchor beyond the limit. */
    EXPECT_EQ(QX_PMSG_E_BOUNDS, qx_pmsg_convert_pmsg_value_bounded_1(&built.slot, QX_CHAR_PTR_ARRAY,
                                                                     built.p_area, 8));

    uint64_t slot = 0;
    uint64_t area[2] = {};
    EXPECT_EQ(QX_PMSG_E_INVAL, qx_pmsg_convert_pmsg_value_1(nullptr, QX_INT32, area));
    EXPECT_EQ(QX_PMSG_E_INVAL, qx_pmsg_convert_pmsg_value_1(&slot, QX_CHAR_PTR, nullptr));
    EXPECT_EQ(QX_PMSG_E_TYPE,
              qx_pmsg_convert_pmsg_value_1(&slot, static_cast<qx_data_type_t>(23), area));
    EXPECT_EQ(QX_PMSG_E_INVAL, qx_pmsg_convert_pmsg_value_bounded_1(&slot, QX_CHAR_PTR, area, -3));
    /* A scalar needs no area; a 32-bit value is its first 4 bytes. */
    slot = 0x0102030405060708ull;
    ASSERT_EQ(0, qx_pmsg_convert_pmsg_value_1(&slot, QX_UINT64, nullptr));
    EXPECT_EQ(0x0807060504030201ull, slot);
    slot = 0x0000000001020304ull;
    ASSERT_EQ(0, qx_pmsg_convert_pmsg_value_1(&slot, QX_INT32, nullptr));
    EXPECT_EQ(0x04030201u, static_cast<uint32_t>(slot));
}

}  // namespace
