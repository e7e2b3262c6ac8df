/*
 * roundtrip_test.cpp - building a protocol form and reading it back gives the
 * caller's value, for every type, in every ownership mode; the size call
 * agrees with the build to the byte.
 */
#include <gtest/gtest.h>
#include <stdlib.h>

#include "pmsg_i.h"
#include "pmsg_test_util.h"

namespace {

using pmsg_test::Arena;
using pmsg_test::Built;
using pmsg_test::ValueMaker;

constexpr int kAllTypes[] = {2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                             13, 14, 15, 16, 17, 18, 19, 20, 21, 22};

/* Reads a built value back in one ownership mode and compares it. */
void expect_round_trip(int type, const qx_value_t &original, const Built &built,
                       qx_uint32_t flags) {
    qx_value_t back;
    back.val_uint64 = 0;
    ASSERT_EQ(0, qx_pmsg_build_conv_packed_client_value_1(nullptr, flags,
                                                          static_cast<qx_data_type_t>(type), &back,
                                                          &built.slot, built.p_area, built.used));
    std::string why;
    EXPECT_TRUE(pmsg_test::values_equal(type, original, back, &why)) << why;
    if ((flags & QX_PMSG_CLIENT_MALLOC) != 0 && !pmsg_test::is_scalar_type(type))
        free(back.ptr_char);
}

TEST(PmsgRoundTripTest, RandomValuesOfEveryTypeComeBackExactlyInEveryOwnershipMode) {
    for (uint32_t seed = 1; seed <= 40; seed++) {
        Arena arena;
        ValueMaker maker(arena, seed);
        for (int type : kAllTypes) {
            SCOPED_TRACE("seed " + std::to_string(seed) + " type " + std::to_string(type));
            qx_value_t value = maker.make(type);
            Built built;
            ASSERT_EQ(0, pmsg_test::build_value(nullptr, type, value, &built));
            EXPECT_EQ(built.room, built.used) << "the size call disagrees with the build";
            expect_round_trip(type, value, built, 0);
            expect_round_trip(type, value, built, QX_PMSG_CLIENT_MALLOC);
            expect_round_trip(type, value, built, QX_PMSG_CLIENT_MALLOC | QX_PMSG_CLIENT_DEEP);
        }
    }
    qx_pmsg_release_client_values_1(nullptr, SIZE_MAX);
}

TEST(PmsgRoundTripTest, EmptyValuesOfEveryPointerTypeComeBack) {
    Arena arena;
    qx_value_t empties[QX_NUMBER_OF_DATA_TYPES];
    empties[QX_CHAR_PTR].ptr_char = arena.text("");
    empties[QX_BINARY_PTR].ptr_binary = arena.binary("");
    empties[QX_RSRC_HANDLE_PTR].ptr_rsrc_handle =
        arena.rsrc(0xffffffff, 0xffffffff, 0xffffffff, 0xffffffff, 0xffffffff);
    empties[QX_SD_PTR].ptr_sd = arena.sd(0);
    empties[QX_SBS_PTR].ptr_sbs = arena.sbs("");
    for (int type = QX_INT32_ARRAY; type <= QX_SD_PTR_ARRAY; type++)
        empties[type].ptr_array = arena.array(0);
    for (int type = QX_CHAR_PTR; type <= QX_SD_PTR_ARRAY; type++) {
        SCOPED_TRACE(type);
        Built built;
        ASSERT_EQ(0, pmsg_test::build_value(nullptr, type, empties[type], &built));
        // Its own bytes only: a NUL, a zero length word, a handle's 20 bytes,
        // or the count and pad of a container.
        const qx_uint32_t expected = type == QX_CHAR_PTR                           ? 1u
                                     : type == QX_BINARY_PTR || type == QX_SBS_PTR ? 4u
                                     : type == QX_RSRC_HANDLE_PTR                  ? 20u
                                                                                   : 8u;
        EXPECT_EQ(expected, built.used);
        expect_round_trip(type, empties[type], built, 0);
        expect_round_trip(type, empties[type], built, QX_PMSG_CLIENT_MALLOC);
        qx_pmsg_release_client_values_1(&built.slot, sizeof built.slot);
    }
    EXPECT_EQ(0u, pmsg_i::cache_entry_count());
}

TEST(PmsgRoundTripTest, StructuredDataHoldingArraysOfStringsAndNestedStructuredData) {
    Arena arena;
    qx_array_t *names = arena.array(3);
    names->elements[0].ptr_char = arena.text("alpha");
    names->elements[1].ptr_char = arena.text("");
    names->elements[2].ptr_char = arena.text(std::string(100000, 'z'));
    qx_structured_data_t *inner = arena.sd(2);
    inner->elements[0].data_type = QX_CHAR_PTR_ARRAY;
    inner->elements[0].value.ptr_array = names;
    inner->elements[1].data_type = QX_UINT64;
    inner->elements[1].value.val_uint64 = 0x0123456789abcdefull;
    qx_array_t *inners = arena.array(2);
    inners->elements[0].ptr_sd = inner;
    inners->elements[1].ptr_sd = inner;
    qx_structured_data_t *outer = arena.sd(3);
    outer->elements[0].data_type = QX_SD_PTR;
    outer->elements[0].value.ptr_sd = inner;
    outer->elements[1].data_type = QX_SD_PTR_ARRAY;
    outer->elements[1].value.ptr_array = inners;
    outer->elements[2].data_type = QX_INT32;
    outer->elements[2].value.val_int32 = -7;
    qx_value_t value;
    value.ptr_sd = outer;

    Built built;
    ASSERT_EQ(0, pmsg_test::build_value(nullptr, QX_SD_PTR, value, &built));
    expect_round_trip(QX_SD_PTR, value, built, 0);
    expect_round_trip(QX_SD_PTR, value, built, QX_PMSG_CLIENT_MALLOC | QX_PMSG_CLIENT_DEEP);
    qx_pmsg_release_client_values_1(&built.slot, sizeof built.slot);
}

TEST(PmsgRoundTripTest, ScalarsTravelInTheSlotAndThirtyTwoBitOnesReadZeroAbove) {
    qx_value_t value;
    value.val_uint64 = 0xdeadbeef00000000ull | 0x11223344u; /* garbage above a 32-bit value */
    unsigned char slot[8];
    memset(slot, 0xAA, sizeof slot);
    ASSERT_EQ(0, qx_pmsg_build_conv_protocol_value_1(nullptr, 0, QX_UINT32, &value, slot, nullptr,
                                                     0, nullptr));
    const unsigned char expected_upper[4] = {0, 0, 0, 0};
    EXPECT_EQ(0, memcmp(slot + 4, expected_upper, 4)) << "forms are reproducible byte for byte";
    qx_value_t back;
    ASSERT_EQ(0, qx_pmsg_build_conv_packed_client_value_1(nullptr, 0, QX_UINT32, &back, slot,
                                                          nullptr, -1));
    EXPECT_EQ(0x11223344u, back.val_uint32);
    EXPECT_EQ(0x11223344u, back.val_uint64);

    value.val_float64 = -2.5e300;
    ASSERT_EQ(0, qx_pmsg_build_conv_protocol_value_1(nullptr, 0, QX_FLOAT64, &value, slot, nullptr,
                                                     0, nullptr));
    ASSERT_EQ(0, qx_pmsg_build_conv_packed_client_value_1(nullptr, 0, QX_FLOAT64, &back, slot,
                                                          nullptr, -1));
    EXPECT_EQ(-2.5e300, back.val_float64);
}

TEST(PmsgRoundTripTest, ValuesBuiltOneAfterAnotherShareAnAreaAndAllComeBack) {
    Arena arena;
    ValueMaker maker(arena, 99);
    std::vector<qx_value_t> values;
    uint64_t total = 0;
    for (int type : kAllTypes) {
        values.push_back(maker.make(type));
        qx_uint32_t size = 0;
        ASSERT_EQ(0, qx_pmsg_size_conv_protocol_value_1(
                         nullptr, 0, static_cast<qx_data_type_t>(type), &values.back(), &size));
        total += size;
    }
    std::vector<uint64_t> storage(total / 8 + 1);
    auto *p_area = reinterpret_cast<uint8_t *>(storage.data());
    std::vector<qx_pmsg_value_t> slots(values.size());
    qx_uint32_t running = 0;
    for (size_t i = 0; i < values.size(); i++) {
        ASSERT_EQ(0, qx_pmsg_build_conv_protocol_value_1(
                         nullptr, 0, static_cast<qx_data_type_t>(kAllTypes[i]), &values[i],
                         &slots[i], p_area, static_cast<qx_uint32_t>(total), &running));
    }
    EXPECT_EQ(total, running) << "the sum of the sizes is exactly the area used";
    for (size_t i = 0; i < values.size(); i++) {
        qx_value_t back;
        ASSERT_EQ(0, qx_pmsg_build_conv_packed_client_value_1(
                         nullptr, 0, static_cast<qx_data_type_t>(kAllTypes[i]), &back, &slots[i],
                         p_area, static_cast<qx_int64_t>(total)));
        std::string why;
        EXPECT_TRUE(pmsg_test::values_equal(kAllTypes[i], values[i], back, &why)) << why;
    }
    qx_pmsg_release_client_values_1(slots.data(), slots.size() * sizeof slots[0]);
}

TEST(PmsgRoundTripTest, FormsAreRelocatableCopiedBytesReadBackAtAnotherAddress) {
    Arena arena;
    ValueMaker maker(arena, 7);
    for (int type = QX_CHAR_PTR; type <= QX_SD_PTR_ARRAY; type++) {
        SCOPED_TRACE(type);
        qx_value_t value = maker.make(type);
        Built built;
        ASSERT_EQ(0, pmsg_test::build_value(nullptr, type, value, &built));
        /* Move the value's bytes to offset 64 of a new area and fix up only
         * the top-level anchor. */
        std::vector<uint64_t> moved(built.used / 8 + 9);
        memcpy(reinterpret_cast<uint8_t *>(moved.data()) + 64, built.p_area, built.used);
        qx_pmsg_value_t slot = built.slot;
        slot.anchor.offset += 64;
        built.storage.assign(built.storage.size(), 0xFFFFFFFFFFFFFFFFull); /* no reads here */
        qx_value_t back;
        ASSERT_EQ(0, qx_pmsg_build_conv_packed_client_value_1(
                         nullptr, QX_PMSG_CLIENT_MALLOC | QX_PMSG_CLIENT_DEEP,
                         static_cast<qx_data_type_t>(type), &back, &slot, moved.data(),
                         static_cast<qx_int64_t>(moved.size() * 8)));
        std::string why;
        EXPECT_TRUE(pmsg_test::values_equal(type, value, back, &why)) << why;
        free(back.ptr_char);
    }
}

}  // namespace
