/*
 * protocol_test.cpp - the bytes of each protocol form, the "room too small"
 * contract of the build, and the refusal of bad callers' values.
 */
#include <gtest/gtest.h>

#include "pmsg_i.h"
#include "pmsg_test_util.h"

namespace {

using pmsg_test::Arena;
using pmsg_test::rd32;
using pmsg_test::ValueMaker;

struct Area {
    uint64_t words[64] = {};
    uint8_t *bytes() { return reinterpret_cast<uint8_t *>(words); }
};

int build(int type, const qx_value_t &value, Area &area, qx_pmsg_value_t *p_slot,
          qx_uint32_t *p_running, qx_uint32_t room = sizeof(Area::words)) {
    return qx_pmsg_build_conv_protocol_value_1(nullptr, 0, static_cast<qx_data_type_t>(type),
                                               &value, p_slot, area.bytes(), room, p_running);
}

TEST(PmsgProtocolFormTest, TextIsItsBytesWithTheNulAndNothingAfter) {
    Area area;
    memset(area.words, 0xEE, sizeof area.words);
    qx_value_t value;
    value.ptr_char = const_cast<char *>("hello");
    qx_pmsg_value_t slot;
    qx_uint32_t running = 0;
    ASSERT_EQ(0, build(QX_CHAR_PTR, value, area, &slot, &running));
    EXPECT_EQ(0u, slot.anchor.offset);
    EXPECT_EQ(6u, slot.anchor.length) << "the anchor counts the NUL";
    EXPECT_EQ(6u, running);
    EXPECT_EQ(0, memcmp(area.bytes(), "hello", 6));
    EXPECT_EQ(0xEE, area.bytes()[6]) << "nothing beyond the form is touched";
}

TEST(PmsgProtocolFormTest, BinaryResourceHandleAndSbsKeepTheirClientLayout) {
    Arena arena;
    Area area;
    qx_pmsg_value_t slot;
    qx_uint32_t running = 0;
    qx_value_t value;

    value.ptr_binary = arena.binary(std::string("\x01\x02\x03", 3));
    ASSERT_EQ(0, build(QX_BINARY_PTR, value, area, &slot, &running));
    EXPECT_EQ(7u, slot.anchor.length);
    EXPECT_EQ(3u, rd32(area.bytes()));
    EXPECT_EQ(0, memcmp(area.bytes() + 4, "\x01\x02\x03", 3));

    // Forms lie end to end, at whatever alignment that gives.
    value.ptr_rsrc_handle = arena.rsrc(1, 2, 3, 4, 5);
    ASSERT_EQ(0, build(QX_RSRC_HANDLE_PTR, value, area, &slot, &running));
    EXPECT_EQ(7u, slot.anchor.offset);
    EXPECT_EQ(20u, slot.anchor.length);
    for (uint32_t i = 0; i < 5; i++) EXPECT_EQ(i + 1, rd32(area.bytes() + 7 + 4 * i));
    EXPECT_EQ(27u, running);

    value.ptr_sbs = arena.sbs("abcdefghij");
    ASSERT_EQ(0, build(QX_SBS_PTR, value, area, &slot, &running));
    EXPECT_EQ(27u, slot.anchor.offset);
    EXPECT_EQ(14u, slot.anchor.length);
    EXPECT_EQ(10u, rd32(area.bytes() + 27));
    EXPECT_EQ(41u, running);
}

TEST(PmsgProtocolFormTest, ArrayOfScalarsIsCountPadAndEightByteSlots) {
    Arena arena;
    Area area;
    qx_array_t *array = arena.array(2);
    array->elements[0].val_uint64 = 0xFFFFFFFF00000007ull; /* garbage above the int32 */
    array->elements[1].val_int32 = -1;
    qx_value_t value;
    value.ptr_array = array;
    qx_pmsg_value_t slot;
    qx_uint32_t running = 0;
    ASSERT_EQ(0, build(QX_INT32_ARRAY, value, area, &slot, &running));
    EXPECT_EQ(24u, slot.anchor.length);
    EXPECT_EQ(2u, rd32(area.bytes()));
    EXPECT_EQ(0u, rd32(area.bytes() + 4));
    EXPECT_EQ(7u, rd32(area.bytes() + 8));
    EXPECT_EQ(0u, rd32(area.bytes() + 12));
    EXPECT_EQ(0xFFFFFFFFu, rd32(area.bytes() + 16));
    EXPECT_EQ(0u, rd32(area.bytes() + 20));
}

TEST(PmsgProtocolFormTest, NestedAnchorsCountFromTheStartOfTheirContainer) {
    Arena arena;
    Area area;
    qx_array_t *array = arena.array(2);
    array->elements[0].ptr_char = arena.text("ab");
    array->elements[1].ptr_char = arena.text("cdefghijk");
    qx_value_t value;
    value.ptr_array = array;
    qx_pmsg_value_t slot;
    qx_uint32_t running = 8; /* the array does not start at the area's beginning */
    ASSERT_EQ(0, build(QX_CHAR_PTR_ARRAY, value, area, &slot, &running));
    EXPECT_EQ(8u, slot.anchor.offset);
    uint8_t *p = area.bytes() + 8;
    EXPECT_EQ(2u, rd32(p));
    EXPECT_EQ(24u, rd32(p + 8)) << "first string right after header and two anchors";
    EXPECT_EQ(3u, rd32(p + 12));
    EXPECT_EQ(27u, rd32(p + 16)) << "second string right after the first";
    EXPECT_EQ(10u, rd32(p + 20));
    EXPECT_STREQ("ab", reinterpret_cast<char *>(p + 24));
    EXPECT_STREQ("cdefghijk", reinterpret_cast<char *>(p + 27));
    EXPECT_EQ(37u, slot.anchor.length);
    EXPECT_EQ(8u + 37u, running);
}

TEST(PmsgProtocolFormTest, StructuredDataElementsCarryTheirTypes) {
    Arena arena;
    Area area;
    qx_structured_data_t *sd = arena.sd(2);
    sd->elements[0].data_type = QX_FLOAT32;
    sd->elements[0].value.val_float32 = 1.5f;
    sd->elements[1].data_type = QX_CHAR_PTR;
    sd->elements[1].value.ptr_char = arena.text("x");
    qx_value_t value;
    value.ptr_sd = sd;
    qx_pmsg_value_t slot;
    qx_uint32_t running = 0;
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
}

TEST(PmsgProtocolFormTest, AFormStartsAtTheRunningOffsetWhateverItIs) {
    Area area;
    memset(area.words, 0xEE, sizeof area.words);
    qx_value_t value;
    value.ptr_char = const_cast<char *>("abc");
    qx_pmsg_value_t slot;
    qx_uint32_t running = 3;
    ASSERT_EQ(0, build(QX_CHAR_PTR, value, area, &slot, &running));
    EXPECT_EQ(3u, slot.anchor.offset);
    EXPECT_EQ(7u, running);
    EXPECT_EQ(0, memcmp(area.bytes() + 3, "abc", 4));
    EXPECT_EQ(0xEE, area.bytes()[2]) << "bytes before the running offset are not the build's";
    EXPECT_EQ(0xEE, area.bytes()[7]) << "nor those after the form";
}

/* The build's room contract, over many random values of every type: the
 * exact size fits, one byte less is 5 and changes nothing. */
TEST(PmsgProtocolRoomTest, ExactSizeFitsAndOneByteLessIsRoomTooSmallWithNothingChanged) {
    for (uint32_t seed = 1; seed <= 60; seed++) {
        Arena arena;
        ValueMaker maker(arena, seed);
        for (int type = QX_CHAR_PTR; type <= QX_SD_PTR_ARRAY; type++) {
            SCOPED_TRACE("seed " + std::to_string(seed) + " type " + std::to_string(type));
            qx_value_t value = maker.make(type);
            qx_uint32_t size = 0;
            ASSERT_EQ(0, qx_pmsg_size_conv_protocol_value_1(
                             nullptr, 0, static_cast<qx_data_type_t>(type), &value, &size));
            qx_uint32_t start = maker.below(25);
            std::vector<uint8_t> area(start + size, 0x5A);
            std::vector<uint8_t> before = area;
            qx_pmsg_value_t slot;
            memset(&slot, 0x33, sizeof slot);
            qx_pmsg_value_t slot_before = slot;

            qx_uint32_t running = start;
            EXPECT_EQ(QX_PMSG_E_ROOM, qx_pmsg_build_conv_protocol_value_1(
                                          nullptr, 0, static_cast<qx_data_type_t>(type), &value,
                                          &slot, area.data(), start + size - 1, &running));
            EXPECT_EQ(start, running);
            EXPECT_EQ(0, memcmp(&slot, &slot_before, sizeof slot));
            EXPECT_TRUE(area == before) << "a refused build writes nothing";

            ASSERT_EQ(0, qx_pmsg_build_conv_protocol_value_1(
                             nullptr, 0, static_cast<qx_data_type_t>(type), &value, &slot,
                             area.data(), start + size, &running));
            EXPECT_EQ(start + size, running);
            EXPECT_EQ(start, slot.anchor.offset);
        }
    }
}

TEST(PmsgProtocolRoomTest, ScalarsNeedNoRoomAndLeaveTheOffsetAlone) {
    qx_value_t value;
    value.val_int64 = -5;
    qx_uint32_t size = 99;
    ASSERT_EQ(0, qx_pmsg_size_conv_protocol_value_1(nullptr, 0, QX_INT64, &value, &size));
    EXPECT_EQ(0u, size);
    qx_pmsg_value_t slot;
    qx_uint32_t running = 13;
    ASSERT_EQ(0, qx_pmsg_build_conv_protocol_value_1(nullptr, 0, QX_INT64, &value, &slot, nullptr,
                                                     0, &running));
    EXPECT_EQ(13u, running);
    EXPECT_EQ(-5, slot.val_int64);
}

TEST(PmsgProtocolRoomTest, AValueBeyondThirtyTwoBitOffsetsIsTooLargeNotRoomTooSmall) {
    /* A binary header that claims 4 GiB: refused from the length alone, so
     * the bytes it claims are never read. */
    qx_binary_t header{0xFFFFFFFFu, {0}};
    qx_value_t value;
    value.ptr_binary = &header;
    qx_uint32_t size = 0;
    EXPECT_EQ(QX_PMSG_E_TOO_LARGE,
              qx_pmsg_size_conv_protocol_value_1(nullptr, 0, QX_BINARY_PTR, &value, &size));
    Area area;
    qx_pmsg_value_t slot;
    qx_uint32_t running = 0;
    EXPECT_EQ(QX_PMSG_E_TOO_LARGE, build(QX_BINARY_PTR, value, area, &slot, &running));
    EXPECT_EQ(0u, running);
}

TEST(PmsgProtocolBadValueTest, NullArgumentsBadTypesAndBadFlagsEachGetTheirCode) {
    Area area;
    qx_pmsg_value_t slot;
    qx_uint32_t running = 0;
    qx_uint32_t size = 0;
    qx_value_t null_value;
    null_value.ptr_char = nullptr;
    for (int type = QX_CHAR_PTR; type <= QX_SD_PTR_ARRAY; type++) {
        SCOPED_TRACE(type);
        EXPECT_EQ(QX_PMSG_E_INVAL, build(type, null_value, area, &slot, &running));
        EXPECT_EQ(QX_PMSG_E_INVAL,
                  qx_pmsg_size_conv_protocol_value_1(nullptr, 0, static_cast<qx_data_type_t>(type),
                                                     &null_value, &size));
    }
    EXPECT_EQ(0u, running);
    qx_value_t value;
    value.val_int32 = 1;
    for (int type : {0, 1, 23, -1, 0x7fffffff}) {
        EXPECT_EQ(QX_PMSG_E_TYPE, build(type, value, area, &slot, &running));
        EXPECT_EQ(QX_PMSG_E_TYPE,
                  qx_pmsg_size_conv_protocol_value_1(nullptr, 0, static_cast<qx_data_type_t>(type),
                                                     &value, &size));
    }
    EXPECT_EQ(QX_PMSG_E_INVAL, qx_pmsg_build_conv_protocol_value_1(
                                   nullptr, 1, QX_INT32, &value, &slot, area.bytes(), 8, &running));
    EXPECT_EQ(QX_PMSG_E_INVAL,
              qx_pmsg_build_conv_protocol_value_1(nullptr, 0, QX_INT32, nullptr, &slot,
                                                  area.bytes(), 8, &running));
    EXPECT_EQ(QX_PMSG_E_INVAL,
              qx_pmsg_build_conv_protocol_value_1(nullptr, 0, QX_INT32, &value, nullptr,
                                                  area.bytes(), 8, &running));
    value.ptr_char = const_cast<char *>("x");
    EXPECT_EQ(QX_PMSG_E_INVAL, qx_pmsg_build_conv_protocol_value_1(nullptr, 0, QX_CHAR_PTR, &value,
                                                                   &slot, nullptr, 8, &running));
    EXPECT_EQ(QX_PMSG_E_INVAL,
              qx_pmsg_build_conv_protocol_value_1(nullptr, 0, QX_CHAR_PTR, &value, &slot,
                                                  area.bytes(), 8, nullptr));
    EXPECT_EQ(QX_PMSG_E_INVAL,
              qx_pmsg_size_conv_protocol_value_1(nullptr, 0, QX_CHAR_PTR, &value, nullptr));
}

TEST(PmsgProtocolBadValueTest, NestedNullsBadElementTypesAndNegativeSbsAreRefused) {
    Arena arena;
    Area area;
    qx_pmsg_value_t slot;
    qx_uint32_t running = 0;
    qx_value_t value;

    qx_array_t *texts = arena.array(2);
    texts->elements[0].ptr_char = arena.text("fine");
    texts->elements[1].ptr_char = nullptr;
    value.ptr_array = texts;
    EXPECT_EQ(QX_PMSG_E_INVAL, build(QX_CHAR_PTR_ARRAY, value, area, &slot, &running));

    qx_structured_data_t *sd = arena.sd(1);
    sd->elements[0].data_type = static_cast<qx_data_type_t>(QX_NONE);
    value.ptr_sd = sd;
    EXPECT_EQ(QX_PMSG_E_TYPE, build(QX_SD_PTR, value, area, &slot, &running));

    qx_sbs_t *sbs = arena.sbs("abc");
    sbs->length = -3;
    value.ptr_sbs = sbs;
    EXPECT_EQ(QX_PMSG_E_INVAL, build(QX_SBS_PTR, value, area, &slot, &running));
    EXPECT_EQ(0u, running);
}

TEST(PmsgProtocolBadValueTest, AStructureThatContainsItselfIsRefusedNotFollowedForever) {
    Arena arena;
    qx_structured_data_t *sd = arena.sd(1);
    sd->elements[0].data_type = QX_SD_PTR;
    sd->elements[0].value.ptr_sd = sd;
    qx_value_t value;
    value.ptr_sd = sd;
    qx_uint32_t size = 0;
    EXPECT_EQ(QX_PMSG_E_INVAL,
              qx_pmsg_size_conv_protocol_value_1(nullptr, 0, QX_SD_PTR, &value, &size));
}

}  // namespace
