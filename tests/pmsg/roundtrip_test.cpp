/*
 * roundtrip_test.cpp - building protocol forms and reading them back: the
 * shared empty values, scalars in the slot, values sharing one area and
 * moving with it.
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
