/*
 * protocol_test.cpp - the bytes of each protocol form, the "room too small"
 * contract of the build, the refusal of bad callers' values, and forms read
 * back: shared empty values, scalars in the slot, values sharing one area
 * and moving with it.
 */
#include <gtest/gtest.h>

#include "pmsg_i.h"
#include "pmsg_test_util.h"

namespace {

using pmsg_test::Arena;
using pmsg_test::Built;
using pmsg_test::rd32;
using pmsg_test::ValueMaker;

struct Area {
    uint64_t words[64] = {};
    uint8_t *bytes() { return reinterpret_cast<uint8_t *>(words); }
};

int build(int type, const qx_value_t &value, Area &area, qx_pmsg_value_t *p_slot,
          qx_uint32_t *p_running) {
    return pmsg_test::build(type, &value, p_slot, area.words, sizeof area.words, p_running);
}
using pmsg_test::size_of;

/* Forms lie end to end from the running offset, at whatever alignment that
 * gives, and nothing before or after a form is touched. */
TEST(PmsgProtocolFormTest, EachFormHasItsDocumentedBytes) {
    Arena arena;
    Area area;
    memset(area.words, 0xEE, sizeof area.words);
    qx_pmsg_value_t slot;
    qx_uint32_t running = 3;
    qx_value_t value;
    value.ptr_char = const_cast<char *>("hello");
    ASSERT_EQ(0, build(QX_CHAR_PTR, value, area, &slot, &running));
    EXPECT_EQ(3u, slot.anchor.offset);
    EXPECT_EQ(6u, slot.anchor.length) << "the anchor counts the NUL";
    EXPECT_EQ(9u, running);
    EXPECT_EQ(0, memcmp(area.bytes() + 3, "hello", 6));
    EXPECT_EQ(0xEE, area.bytes()[2]);
    EXPECT_EQ(0xEE, area.bytes()[9]);

    value.ptr_binary = arena.binary(std::string("\x01\x02\x03", 3));
    ASSERT_EQ(0, build(QX_BINARY_PTR, value, area, &slot, &running));
    EXPECT_EQ(7u, slot.anchor.length);
    EXPECT_EQ(3u, rd32(area.bytes() + 9));
    EXPECT_EQ(0, memcmp(area.bytes() + 13, "\x01\x02\x03", 3));
    value.ptr_rsrc_handle = arena.rsrc(1, 2, 3, 4, 5);
    ASSERT_EQ(0, build(QX_RSRC_HANDLE_PTR, value, area, &slot, &running));
    EXPECT_EQ(16u, slot.anchor.offset);
    EXPECT_EQ(20u, slot.anchor.length);
    for (uint32_t i = 0; i < 5; i++) EXPECT_EQ(i + 1, rd32(area.bytes() + 16 + 4 * i));
    value.ptr_sbs = arena.sbs("abcdefghij");
    ASSERT_EQ(0, build(QX_SBS_PTR, value, area, &slot, &running));
    EXPECT_EQ(36u, slot.anchor.offset);
    EXPECT_EQ(14u, slot.anchor.length);
    EXPECT_EQ(10u, rd32(area.bytes() + 36));
    EXPECT_EQ(50u, running);

    /* An array of scalars: count, pad, 8-byte slots with zeros above a 32-bit value. */
    memset(area.words, 0, sizeof area.words);
    qx_array_t *array = arena.array(2);
    array->elements[0].val_uint64 = 0xFFFFFFFF00000007ull;
    array->elements[1].val_int32 = -1;
    value.ptr_array = array;
    running = 0;
    ASSERT_EQ(0, build(QX_INT32_ARRAY, value, area, &slot, &running));
    EXPECT_EQ(24u, slot.anchor.length);
    const uint32_t words[] = {2, 0, 7, 0, 0xFFFFFFFFu, 0};
    EXPECT_EQ(0, memcmp(words, area.bytes(), sizeof words));

    /* Nested anchors count from the start of their container. */
    array->elements[0].ptr_char = arena.text("ab");
    array->elements[1].ptr_char = arena.text("cdefghijk");
    running = 8;
    ASSERT_EQ(0, build(QX_CHAR_PTR_ARRAY, value, area, &slot, &running));
    EXPECT_EQ(8u, slot.anchor.offset);
    const uint32_t anchors[] = {2, 0, 24, 3, 27, 10};
    EXPECT_EQ(0, memcmp(anchors, area.bytes() + 8, sizeof anchors));
    EXPECT_STREQ("ab", reinterpret_cast<char *>(area.bytes() + 32));
    EXPECT_STREQ("cdefghijk", reinterpret_cast<char *>(area.bytes() + 35));
    EXPECT_EQ(37u, slot.anchor.length);
    EXPECT_EQ(45u, running);

    /* Structured data: count, pad, then type, pad and slot or anchor per element. */
    qx_structured_data_t *sd = arena.sd(2);
    sd->elements[0].data_type = QX_FLOAT32;
    sd->elements[0].value.val_float32 = 1.5f;
    sd->elements[1].data_type = QX_CHAR_PTR;
    sd->elements[1].value.ptr_char = arena.text("x");
    value.ptr_sd = sd;
    running = 0;
    ASSERT_EQ(0, build(QX_SD_PTR, value, area, &slot, &running));
    uint8_t *p = area.bytes();
    EXPECT_EQ(2u, rd32(p));
    EXPECT_EQ(static_cast<uint32_t>(QX_FLOAT32), rd32(p + 8));
    float f;
    memcpy(&f, p + 16, 4);
    EXPECT_EQ(1.5f, f);
    EXPECT_EQ(static_cast<uint32_t>(QX_CHAR_PTR), rd32(p + 24));
    EXPECT_EQ(40u, rd32(p + 32));
    EXPECT_EQ(2u, rd32(p + 36));
    EXPECT_EQ(42u, slot.anchor.length);

    /* Scalars need no room and leave the offset alone. */
    value.val_int64 = -5;
    qx_uint32_t size = 99;
    ASSERT_EQ(0, size_of(QX_INT64, value, &size));
    EXPECT_EQ(0u, size);
    running = 13;
    ASSERT_EQ(0, pmsg_test::build(QX_INT64, &value, &slot, nullptr, 0, &running));
    EXPECT_EQ(13u, running);
    EXPECT_EQ(-5, slot.val_int64);
}

/* Over many random values of every type: the exact size fits, one byte
 * less is "room too small" and changes nothing. */
TEST(PmsgProtocolRoomTest, ExactSizeFitsAndOneByteLessIsRoomTooSmallWithNothingChanged) {
    for (uint32_t seed = 1; seed <= 60; seed++) {
        Arena arena;
        ValueMaker maker(arena, seed);
        for (int type = QX_CHAR_PTR; type <= QX_SD_PTR_ARRAY; type++) {
            SCOPED_TRACE("seed " + std::to_string(seed) + " type " + std::to_string(type));
            qx_value_t value = maker.make(type);
            qx_uint32_t size = 0;
            ASSERT_EQ(0, size_of(type, value, &size));
            qx_uint32_t start = maker.below(25);
            std::vector<uint8_t> area(start + size, 0x5A);
            std::vector<uint8_t> before = area;
            qx_pmsg_value_t slot;
            memset(&slot, 0x33, sizeof slot);
            qx_pmsg_value_t slot_before = slot;
            qx_uint32_t running = start;
            EXPECT_EQ(QX_PMSG_E_ROOM, pmsg_test::build(type, &value, &slot, area.data(),
                                                       start + size - 1, &running));
            EXPECT_EQ(start, running);
            EXPECT_EQ(0, memcmp(&slot, &slot_before, sizeof slot));
            EXPECT_TRUE(area == before) << "a refused build writes nothing";
            ASSERT_EQ(0,
                      pmsg_test::build(type, &value, &slot, area.data(), start + size, &running));
            EXPECT_EQ(start + size, running);
            EXPECT_EQ(start, slot.anchor.offset);
        }
    }
    /* A binary header that claims 4 GiB is too large for 32-bit offsets,
     * refused from the length alone: the bytes it claims are never read. */
    qx_binary_t header{0xFFFFFFFFu, {0}};
    qx_value_t value;
    value.ptr_binary = &header;
    qx_uint32_t size = 0;
    EXPECT_EQ(QX_PMSG_E_TOO_LARGE, size_of(QX_BINARY_PTR, value, &size));
    Area area;
    qx_pmsg_value_t slot;
    qx_uint32_t running = 0;
    EXPECT_EQ(QX_PMSG_E_TOO_LARGE, build(QX_BINARY_PTR, value, area, &slot, &running));
    EXPECT_EQ(0u, running);
}

TEST(PmsgProtocolBadValueTest, NullsBadTypesBadFlagsAndCyclesEachGetTheirCode) {
    Arena arena;
    Area area;
    qx_pmsg_value_t slot;
    qx_uint32_t running = 0;
    qx_uint32_t size = 0;
    qx_value_t value{.ptr_char = nullptr};
    for (int type = QX_CHAR_PTR; type <= QX_SD_PTR_ARRAY; type++) {
        EXPECT_EQ(QX_PMSG_E_INVAL, build(type, value, area, &slot, &running)) << type;
        EXPECT_EQ(QX_PMSG_E_INVAL, size_of(type, value, &size));
    }
    value.val_int32 = 1;
    for (int type : {0, 1, 23, -1, 0x7fffffff}) {
        EXPECT_EQ(QX_PMSG_E_TYPE, build(type, value, area, &slot, &running));
        EXPECT_EQ(QX_PMSG_E_TYPE, size_of(type, value, &size));
    }
    uint8_t *p = area.bytes();
    EXPECT_EQ(QX_PMSG_E_INVAL, pmsg_test::build(QX_INT32, &value, &slot, p, 8, &running, 0, 1));
    EXPECT_EQ(QX_PMSG_E_INVAL, pmsg_test::build(QX_INT32, nullptr, &slot, p, 8, &running));
    EXPECT_EQ(QX_PMSG_E_INVAL, pmsg_test::build(QX_INT32, &value, nullptr, p, 8, &running));
    value.ptr_char = const_cast<char *>("x");
    EXPECT_EQ(QX_PMSG_E_INVAL, pmsg_test::build(QX_CHAR_PTR, &value, &slot, nullptr, 8, &running));
    EXPECT_EQ(QX_PMSG_E_INVAL, pmsg_test::build(QX_CHAR_PTR, &value, &slot, p, 8, nullptr));
    EXPECT_EQ(QX_PMSG_E_INVAL, size_of(QX_CHAR_PTR, value, nullptr));

    qx_array_t *texts = arena.array(2);
    texts->elements[0].ptr_char = arena.text("fine");
    texts->elements[1].ptr_char = nullptr;
    value.ptr_array = texts;
    EXPECT_EQ(QX_PMSG_E_INVAL, build(QX_CHAR_PTR_ARRAY, value, area, &slot, &running));
    qx_structured_data_t *sd = arena.sd(1);
    sd->elements[0].data_type = static_cast<qx_data_type_t>(QX_NONE);
    value.ptr_sd = sd;
    EXPECT_EQ(QX_PMSG_E_TYPE, build(QX_SD_PTR, value, area, &slot, &running));
    sd->elements[0].data_type = QX_SD_PTR;  // a structure that contains itself
    sd->elements[0].value.ptr_sd = sd;
    EXPECT_EQ(QX_PMSG_E_INVAL, size_of(QX_SD_PTR, value, &size));
    qx_sbs_t *sbs = arena.sbs("abc");
    sbs->length = -3;
    value.ptr_sbs = sbs;
    EXPECT_EQ(QX_PMSG_E_INVAL, build(QX_SBS_PTR, value, area, &slot, &running));
    EXPECT_EQ(0u, running);
}

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
