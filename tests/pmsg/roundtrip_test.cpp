/*
 * roundtrip_test.cpp - building a protocol form and reading it back gives the
 * caller's value, for every type, in every ownership mode; the size call
 * agrees with the build to the byte; the library reads the types as the
 * suite's common type table does.
 */
#include <gtest/gtest.h>
#include <stdlib.h>

#include "pmsg_i.h"
#include "pmsg_test_util.h"

namespace {

using pmsg_test::Arena;
using pmsg_test::Built;
using pmsg_test::ValueMaker;

void expect_round_trip(int type, const qx_value_t &original, const Built &built,
                       qx_uint32_t flags) {
    qx_value_t back{.val_uint64 = 0};
    ASSERT_EQ(0, pmsg_test::read(type, &back, &built.slot, built.p_area, built.used, flags));
    std::string why;
    EXPECT_TRUE(pmsg_test::values_equal(type, original, back, &why)) << why;
    if ((flags & QX_PMSG_CLIENT_MALLOC) != 0 && !pmsg_test::is_scalar_type(type))
        free(back.ptr_char);
}

TEST(PmsgTypesTest, KindsAgreeWithTheCommonTypeTable) {
    for (uint32_t type = 0; type < QX_NUMBER_OF_DATA_TYPES; type++) {
        const cu_dtc_entry_t &entry = cu_dtc_table_1[type];
        SCOPED_TRACE(entry.dtc_name);
        pmsg_i::Kind kind = pmsg_i::kind_of(type);
        EXPECT_EQ((entry.dtc_flags & (CU_DTC_SCALAR | CU_DTC_POINTER)) == 0,
                  kind == pmsg_i::kInvalid);
        EXPECT_EQ((entry.dtc_flags & CU_DTC_SCALAR) != 0, pmsg_i::is_scalar(kind));
        if (pmsg_i::is_scalar(kind)) {
            EXPECT_EQ(entry.dtc_size, kind == pmsg_i::kScalar32 ? 4u : 8u);
        }
        bool array = kind == pmsg_i::kScalarArray || kind == pmsg_i::kPointerArray;
        EXPECT_EQ((entry.dtc_flags & CU_DTC_ARRAY) != 0, array);
        if (!array) continue;
        EXPECT_EQ(static_cast<uint32_t>(entry.dtc_base_type), pmsg_i::array_base_type(type));
        EXPECT_EQ(kind == pmsg_i::kScalarArray,
                  (cu_dtc_table_1[entry.dtc_base_type].dtc_flags & CU_DTC_SCALAR) != 0);
    }
    EXPECT_EQ(pmsg_i::kInvalid, pmsg_i::kind_of(QX_NUMBER_OF_DATA_TYPES));
    EXPECT_EQ(pmsg_i::kInvalid, pmsg_i::kind_of(0xFFFFFFFFu));
}

TEST(PmsgRoundTripTest, RandomValuesOfEveryTypeComeBackExactlyInEveryOwnershipMode) {
    for (uint32_t seed = 1; seed <= 40; seed++) {
        Arena arena;
        ValueMaker maker(arena, seed);
        for (int type = QX_INT32; type <= QX_SD_PTR_ARRAY; type++) {
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

/* The registry substitutes the shared empty values for NULL pointer values. */
TEST(PmsgRoundTripTest, SharedEmptyValuesOfEveryPointerTypeComeBack) {
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
    inner->elements[0] = {QX_CHAR_PTR_ARRAY, 0, {.ptr_array = names}};
    inner->elements[1] = {QX_UINT64, 0, {.val_uint64 = 0x0123456789abcdefull}};
    qx_array_t *inners = arena.array(2);
    inners->elements[0].ptr_sd = inner;
    inners->elements[1].ptr_sd = inner;
    qx_structured_data_t *outer = arena.sd(3);
    outer->elements[0] = {QX_SD_PTR, 0, {.ptr_sd = inner}};
    outer->elements[1] = {QX_SD_PTR_ARRAY, 0, {.ptr_array = inners}};
    outer->elements[2] = {QX_INT32, 0, {.val_int32 = -7}};
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
    ASSERT_EQ(0, pmsg_test::build(QX_UINT32, &value, slot, nullptr, 0, nullptr));
    const unsigned char zeros[4] = {0, 0, 0, 0};
    EXPECT_EQ(0, memcmp(slot + 4, zeros, 4)) << "forms are reproducible byte for byte";
    qx_value_t back;
    ASSERT_EQ(0, pmsg_test::read(QX_UINT32, &back, slot, nullptr, -1));
    EXPECT_EQ(0x11223344u, back.val_uint64);
    value.val_float64 = -2.5e300;
    ASSERT_EQ(0, pmsg_test::build(QX_FLOAT64, &value, slot, nullptr, 0, nullptr));
    ASSERT_EQ(0, pmsg_test::read(QX_FLOAT64, &back, slot, nullptr, -1));
    EXPECT_EQ(-2.5e300, back.val_float64);
}

/* Values built one after another share an area exactly as large as the sum
 * of their sizes; moved elsewhere (top-level anchor fixed up), they read back
 * the same: forms are relocatable. */
TEST(PmsgRoundTripTest, ValuesShareAnAreaAndMoveWithIt) {
    Arena arena;
    ValueMaker maker(arena, 99);
    std::vector<qx_value_t> values;
    uint64_t total = 0;
    for (int type = QX_INT32; type <= QX_SD_PTR_ARRAY; type++) {
        values.push_back(maker.make(type));
        qx_uint32_t size = 0;
        ASSERT_EQ(0, pmsg_test::size_of(type, values.back(), &size));
        total += size;
    }
    std::vector<uint64_t> storage(total / 8 + 1);
    auto *p_area = reinterpret_cast<uint8_t *>(storage.data());
    std::vector<qx_pmsg_value_t> slots(values.size());
    qx_uint32_t running = 0;
    for (size_t i = 0; i < values.size(); i++) {
        ASSERT_EQ(0, pmsg_test::build(QX_INT32 + static_cast<int>(i), &values[i], &slots[i], p_area,
                                      static_cast<qx_uint32_t>(total), &running));
    }
    EXPECT_EQ(total, running);
    std::vector<uint64_t> moved(storage.size() + 8);
    memcpy(moved.data() + 8, storage.data(), total);
    storage.assign(storage.size(), ~0ull); /* no reads here */
    for (size_t i = 0; i < values.size(); i++) {
        const int type = QX_INT32 + static_cast<int>(i);
        if (!pmsg_test::is_scalar_type(type)) slots[i].anchor.offset += 64;
        qx_value_t back;
        ASSERT_EQ(0, pmsg_test::read(type, &back, &slots[i], moved.data(), moved.size() * 8,
                                     QX_PMSG_CLIENT_MALLOC | QX_PMSG_CLIENT_DEEP));
        std::string why;
        EXPECT_TRUE(pmsg_test::values_equal(type, values[i], back, &why)) << why;
        if (!pmsg_test::is_scalar_type(type)) free(back.ptr_char);
    }
}

}  // namespace
