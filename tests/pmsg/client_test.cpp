/*
 * client_test.cpp - client values: where they point, who owns them, and how
 * untrusted protocol bytes are refused.
 */
#include <gtest/gtest.h>
#include <malloc.h>
#include <stdlib.h>

#include "pmsg_i.h"
#include "pmsg_test_util.h"

namespace {

using pmsg_test::Arena;
using pmsg_test::Built;
using pmsg_test::ValueMaker;

int read_value(int type, qx_value_t *p_result, const void *p_slot, const void *p_area,
               qx_int64_t limit, qx_uint32_t flags = 0) {
    return qx_pmsg_build_conv_packed_client_value_1(
        nullptr, flags, static_cast<qx_data_type_t>(type), p_result, p_slot, p_area, limit);
}

class PmsgClientValueTest : public ::testing::Test {
  protected:
    void TearDown() override { qx_pmsg_release_client_values_1(nullptr, SIZE_MAX); }
    Arena arena;
};

TEST_F(PmsgClientValueTest, LayoutCompatibleValuesPointStraightIntoTheProtocolBytes) {
    ValueMaker maker(arena, 3);
    for (int type :
         {QX_CHAR_PTR, QX_BINARY_PTR, QX_RSRC_HANDLE_PTR, QX_SBS_PTR, QX_INT32_ARRAY,
          QX_UINT32_ARRAY, QX_INT64_ARRAY, QX_UINT64_ARRAY, QX_FLOAT32_ARRAY, QX_FLOAT64_ARRAY}) {
        SCOPED_TRACE(type);
        Built built;
        ASSERT_EQ(0, pmsg_test::build_value(nullptr, type, maker.make(type), &built));
        qx_value_t back;
        ASSERT_EQ(0, read_value(type, &back, &built.slot, built.p_area, built.used));
        EXPECT_EQ(reinterpret_cast<char *>(built.p_area) + built.slot.anchor.offset, back.ptr_char);
    }
    EXPECT_EQ(0u, pmsg_i::cache_entry_count()) << "nothing was built or cached";
}

TEST_F(PmsgClientValueTest, StructuredDataOfScalarsIsReadInPlaceButWithAStringIsBuilt) {
    qx_structured_data_t *sd = arena.sd(2);
    sd->elements[0].data_type = QX_INT64;
    sd->elements[0].value.val_int64 = 42;
    sd->elements[1].data_type = QX_FLOAT32;
    sd->elements[1].value.val_float32 = 0.25f;
    qx_value_t value;
    value.ptr_sd = sd;
    Built built;
    ASSERT_EQ(0, pmsg_test::build_value(nullptr, QX_SD_PTR, value, &built));
    qx_value_t back;
    ASSERT_EQ(0, read_value(QX_SD_PTR, &back, &built.slot, built.p_area, built.used));
    EXPECT_EQ(reinterpret_cast<qx_structured_data_t *>(built.p_area), back.ptr_sd);
    EXPECT_EQ(42, back.ptr_sd->elements[0].value.val_int64);

    sd->elements[1].data_type = QX_CHAR_PTR;
    sd->elements[1].value.ptr_char = arena.text("in place");
    ASSERT_EQ(0, pmsg_test::build_value(nullptr, QX_SD_PTR, value, &built));
    ASSERT_EQ(0, read_value(QX_SD_PTR, &back, &built.slot, built.p_area, built.used));
    EXPECT_NE(reinterpret_cast<qx_structured_data_t *>(built.p_area), back.ptr_sd);
    EXPECT_EQ(built.p_area + 40,
              reinterpret_cast<uint8_t *>(back.ptr_sd->elements[1].value.ptr_char))
        << "the text inside is still read in place";
}

TEST_F(PmsgClientValueTest, MisalignedAreaGivesAlignedCopiesWithTheSameContent) {
    ValueMaker maker(arena, 11);
    for (int type = QX_CHAR_PTR; type <= QX_SD_PTR_ARRAY; type++) {
        SCOPED_TRACE(type);
        qx_value_t value = maker.make(type);
        Built built;
        ASSERT_EQ(0, pmsg_test::build_value(nullptr, type, value, &built, 3));
        qx_value_t back;
        ASSERT_EQ(0, read_value(type, &back, &built.slot, built.p_area, built.used));
        uintptr_t alignment =
            type == QX_CHAR_PTR                                                           ? 1
            : (type == QX_BINARY_PTR || type == QX_RSRC_HANDLE_PTR || type == QX_SBS_PTR) ? 4
                                                                                          : 8;
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(back.ptr_char) % alignment);
        std::string why;
        EXPECT_TRUE(pmsg_test::values_equal(type, value, back, &why)) << why;
    }
}

TEST_F(PmsgClientValueTest, RereadingAnUnchangedSlotReturnsTheSameValueAndMemoryDoesNotGrow) {
    /* One row: a slot per type, every value in one area. */
    ValueMaker maker(arena, 5, false);
    std::vector<qx_value_t> values;
    std::vector<Built> row(QX_NUMBER_OF_DATA_TYPES);
    for (int type = QX_INT32; type <= QX_SD_PTR_ARRAY; type++) {
        values.push_back(maker.make(type));
        ASSERT_EQ(0, pmsg_test::build_value(nullptr, type, values.back(), &row[type], 5));
    }
    std::vector<qx_value_t> first(QX_NUMBER_OF_DATA_TYPES);
    for (int type = QX_INT32; type <= QX_SD_PTR_ARRAY; type++)
        ASSERT_EQ(0, read_value(type, &first[type], &row[type].slot, row[type].p_area, -1));
    size_t entries = pmsg_i::cache_entry_count();
    EXPECT_GT(entries, 0u);
    struct mallinfo2 before = mallinfo2();
    for (int round = 0; round < 1000000 / (QX_SD_PTR_ARRAY - 1); round++) {
        for (int type = QX_INT32; type <= QX_SD_PTR_ARRAY; type++) {
            qx_value_t again;
            ASSERT_EQ(0, read_value(type, &again, &row[type].slot, row[type].p_area, -1));
            ASSERT_EQ(first[type].val_uint64, again.val_uint64);
        }
    }
    struct mallinfo2 after = mallinfo2();
    EXPECT_EQ(entries, pmsg_i::cache_entry_count());
    EXPECT_EQ(before.uordblks, after.uordblks) << "a million reads allocate nothing";
}

TEST_F(PmsgClientValueTest, ASlotRewrittenInPlaceNeverYieldsTheStaleValue) {
    qx_array_t *texts = arena.array(1);
    texts->elements[0].ptr_char = arena.text("first");
    qx_value_t value;
    value.ptr_array = texts;
    std::vector<uint64_t> area(16);
    qx_pmsg_value_t slot;
    qx_uint32_t running = 0;
    ASSERT_EQ(0, qx_pmsg_build_conv_protocol_value_1(nullptr, 0, QX_CHAR_PTR_ARRAY, &value, &slot,
                                                     area.data(), 128, &running));
    qx_value_t back;
    ASSERT_EQ(0, read_value(QX_CHAR_PTR_ARRAY, &back, &slot, area.data(), 128));
    EXPECT_STREQ("first", back.ptr_array->elements[0].ptr_char);

    /* Same slot, same anchor shape, different bytes: a record reused in place. */
    texts->elements[0].ptr_char = arena.text("other");
    running = 0;
    ASSERT_EQ(0, qx_pmsg_build_conv_protocol_value_1(nullptr, 0, QX_CHAR_PTR_ARRAY, &value, &slot,
                                                     area.data(), 128, &running));
    ASSERT_EQ(0, read_value(QX_CHAR_PTR_ARRAY, &back, &slot, area.data(), 128));
    EXPECT_STREQ("other", back.ptr_array->elements[0].ptr_char);
    EXPECT_EQ(1u, pmsg_i::cache_entry_count()) << "the stale value was dropped, not kept";
}

TEST_F(PmsgClientValueTest, ReleasingARangeDropsExactlyTheValuesOfSlotsInside) {
    ValueMaker maker(arena, 21);
    qx_value_t value = maker.make(QX_SD_PTR_ARRAY);
    Built built;
    ASSERT_EQ(0, pmsg_test::build_value(nullptr, QX_SD_PTR_ARRAY, value, &built));
    /* Four copies of the slot, 8 bytes apart, at an odd place in a record. */
    std::vector<uint8_t> record(1000);
    for (int i = 0; i < 4; i++) memcpy(record.data() + 301 + 8 * i, &built.slot, 8);
    qx_value_t back;
    for (int i = 0; i < 4; i++)
        ASSERT_EQ(0, read_value(QX_SD_PTR_ARRAY, &back, record.data() + 301 + 8 * i, built.p_area,
                                built.used));
    ASSERT_EQ(4u, pmsg_i::cache_entry_count());
    qx_pmsg_release_client_values_1(record.data() + 309, 16); /* the second and third */
    EXPECT_EQ(2u, pmsg_i::cache_entry_count());
    qx_pmsg_release_client_values_1(record.data(), 0);
    EXPECT_EQ(2u, pmsg_i::cache_entry_count());
    qx_pmsg_release_client_values_1(record.data(), record.size());
    EXPECT_EQ(0u, pmsg_i::cache_entry_count());
}

TEST_F(PmsgClientValueTest, CallerOwnedValuesAreOneFreeableBlock) {
    ValueMaker maker(arena, 8);
    for (int type = QX_CHAR_PTR; type <= QX_SD_PTR_ARRAY; type++) {
        SCOPED_TRACE(type);
        qx_value_t value = maker.make(type);
        Built built;
        ASSERT_EQ(0, pmsg_test::build_value(nullptr, type, value, &built));
        qx_value_t back;
        ASSERT_EQ(0, read_value(type, &back, &built.slot, built.p_area, built.used,
                                QX_PMSG_CLIENT_MALLOC));
        EXPECT_NE(reinterpret_cast<char *>(built.p_area) + built.slot.anchor.offset, back.ptr_char);
        free(back.ptr_char); /* ASan reports it if this is not a block of its own */
    }
    EXPECT_EQ(0u, pmsg_i::cache_entry_count());
}

TEST_F(PmsgClientValueTest, CallerOwnedArrayOfBinariesPointsAtTheBinariesInPlace) {
    /* How packed rows are unpacked: the array is the caller's, the rows stay
     * in the buffer. */
    qx_array_t *rows = arena.array(2);
    rows->elements[0].ptr_binary = arena.binary("row zero");
    rows->elements[1].ptr_binary = arena.binary("row one!");
    qx_value_t value;
    value.ptr_array = rows;
    Built built;
    ASSERT_EQ(0, pmsg_test::build_value(nullptr, QX_BINARY_PTR_ARRAY, value, &built));
    qx_value_t back;
    ASSERT_EQ(0, read_value(QX_BINARY_PTR_ARRAY, &back, &built.slot, built.p_area, built.used,
                            QX_PMSG_CLIENT_MALLOC));
    uint8_t *p_form = built.p_area + built.slot.anchor.offset;
    EXPECT_EQ(p_form + pmsg_test::rd32(p_form + 8),
              reinterpret_cast<uint8_t *>(back.ptr_array->elements[0].ptr_binary));
    free(back.ptr_array);
}

TEST_F(PmsgClientValueTest, DeepCopiesOutliveTheProtocolBytes) {
    ValueMaker maker(arena, 13);
    for (int type = QX_CHAR_PTR; type <= QX_SD_PTR_ARRAY; type++) {
        SCOPED_TRACE(type);
        qx_value_t value = maker.make(type);
        qx_value_t back;
        {
            Built built;
            ASSERT_EQ(0, pmsg_test::build_value(nullptr, type, value, &built));
            ASSERT_EQ(0, read_value(type, &back, &built.slot, built.p_area, built.used,
                                    QX_PMSG_CLIENT_MALLOC | QX_PMSG_CLIENT_DEEP));
        } /* the area is freed here: ASan catches any pointer left into it */
        std::string why;
        EXPECT_TRUE(pmsg_test::values_equal(type, value, back, &why)) << why;
        free(back.ptr_char);
    }
}

TEST_F(PmsgClientValueTest, BadArgumentsAreRefusedWithoutTouchingTheResult) {
    qx_pmsg_value_t slot{};
    uint64_t area[2] = {};
    qx_value_t result;
    result.val_uint64 = 0x1234;
    EXPECT_EQ(QX_PMSG_E_INVAL, read_value(QX_CHAR_PTR, nullptr, &slot, area, 16));
    EXPECT_EQ(QX_PMSG_E_INVAL, read_value(QX_CHAR_PTR, &result, nullptr, area, 16));
    EXPECT_EQ(QX_PMSG_E_INVAL, read_value(QX_CHAR_PTR, &result, &slot, nullptr, 16));
    EXPECT_EQ(QX_PMSG_E_INVAL, read_value(QX_CHAR_PTR, &result, &slot, area, -2));
    EXPECT_EQ(QX_PMSG_E_INVAL, read_value(QX_CHAR_PTR, &result, &slot, area, 16, 4));
    EXPECT_EQ(QX_PMSG_E_INVAL,
              read_value(QX_CHAR_PTR, &result, &slot, area, 16, QX_PMSG_CLIENT_DEEP));
    for (int type : {0, 1, 23, -5})
        EXPECT_EQ(QX_PMSG_E_TYPE, read_value(type, &result, &slot, area, 16));
    EXPECT_EQ(0x1234u, result.val_uint64);
}

TEST_F(PmsgClientValueTest, AnchorsBeyondTheLimitOrTheirContainerAreOutOfBounds) {
    uint64_t area[8] = {};
    qx_pmsg_value_t slot;
    slot.anchor.offset = 60;
    slot.anchor.length = 8;
    qx_value_t result;
    EXPECT_EQ(QX_PMSG_E_BOUNDS, read_value(QX_CHAR_PTR, &result, &slot, area, 64));
    slot.anchor.offset = 0xFFFFFFFF;
    slot.anchor.length = 0xFFFFFFFF;
    EXPECT_EQ(QX_PMSG_E_BOUNDS, read_value(QX_BINARY_PTR, &result, &slot, area, 64));

    /* An array of one text whose nested anchor reaches past the array. */
    uint8_t *p = reinterpret_cast<uint8_t *>(area);
    const uint32_t form[] = {1, 0, 16, 9};
    memcpy(p, form, sizeof form);
    memcpy(p + 16, "abcdefgh", 9);
    slot.anchor.offset = 0;
    slot.anchor.length = 24;
    EXPECT_EQ(QX_PMSG_E_BOUNDS, read_value(QX_CHAR_PTR_ARRAY, &result, &slot, area, 64));
    slot.anchor.length = 25;
    ASSERT_EQ(0, read_value(QX_CHAR_PTR_ARRAY, &result, &slot, area, 64, QX_PMSG_CLIENT_MALLOC));
    EXPECT_STREQ("abcdefgh", result.ptr_array->elements[0].ptr_char);
    free(result.ptr_array);
}

TEST_F(PmsgClientValueTest, MalformedFormsAreCorrupt) {
    uint64_t area[8] = {};
    uint8_t *p = reinterpret_cast<uint8_t *>(area);
    qx_pmsg_value_t slot;
    qx_value_t result;
    struct Case {
        int type;
        std::vector<uint32_t> words;
        uint32_t length;
        const char *what;
    };
    const Case cases[] = {
        {QX_CHAR_PTR, {0x61616161}, 4, "text without its NUL"},
        {QX_CHAR_PTR, {0}, 0, "text of no bytes"},
        {QX_BINARY_PTR, {5, 0}, 8, "binary length disagrees with the anchor"},
        {QX_BINARY_PTR, {0}, 3, "binary shorter than its length word"},
        {QX_SBS_PTR, {0xFFFFFFFF}, 4, "negative sbs length"},
        {QX_RSRC_HANDLE_PTR, {1, 2, 3, 4}, 16, "resource handle of 16 bytes"},
        {QX_INT64_ARRAY, {2, 0, 1, 2}, 16, "array count beyond its bytes"},
        {QX_INT64_ARRAY, {0x20000000, 0}, 8, "array count that overflows 32 bits"},
        {QX_CHAR_PTR_ARRAY, {3, 0, 0, 0}, 16, "anchors beyond the form"},
        {QX_SD_PTR, {1, 0, 0, 0, 0, 0}, 24, "element of type 0"},
        {QX_SD_PTR, {1, 0, 99, 0, 0, 0}, 24, "element of type 99"},
        {QX_SD_PTR, {2, 0, 2, 0, 0, 0}, 24, "elements beyond the form"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        memset(area, 0, sizeof area);
        memcpy(p, c.words.data(), c.words.size() * 4);
        slot.anchor.offset = 0;
        slot.anchor.length = c.length;
        EXPECT_NE(0, read_value(c.type, &result, &slot, area, sizeof area));
        EXPECT_NE(0, read_value(c.type, &result, &slot, area, sizeof area, QX_PMSG_CLIENT_MALLOC));
    }
    EXPECT_EQ(0u, pmsg_i::cache_entry_count());
}

/* A chain of `depth` structured data values, each holding the next as its
 * only element; the innermost is empty.  Returns the top-level length. */
uint32_t sd_chain(std::vector<uint64_t> &area, int depth) {
    area.assign(3 * static_cast<size_t>(depth) + 1, 0);
    auto *p = reinterpret_cast<uint8_t *>(area.data());
    for (int level = 0; level < depth; level++) {
        uint8_t *p_level = p + 24 * level;
        const uint32_t words[] = {1, 0,  QX_SD_PTR,
                                  0, 24, static_cast<uint32_t>(24 * (depth - level - 1) + 8)};
        memcpy(p_level, words, sizeof words);
    }
    return static_cast<uint32_t>(24 * depth + 8);
}

TEST_F(PmsgClientValueTest, NestingDeeperThanTheLimitIsCorruptNotAStackOverflow) {
    std::vector<uint64_t> area;
    qx_pmsg_value_t slot;
    slot.anchor.offset = 0;
    qx_value_t result;
    slot.anchor.length = sd_chain(area, 32);
    ASSERT_EQ(0, read_value(QX_SD_PTR, &result, &slot, area.data(), slot.anchor.length));
    EXPECT_EQ(1u, result.ptr_sd->elements[0].value.ptr_sd->element_count);

    slot.anchor.length = sd_chain(area, 33);
    EXPECT_EQ(QX_PMSG_E_CORRUPT,
              read_value(QX_SD_PTR, &result, &slot, area.data(), slot.anchor.length));

    /* The same chain written on a machine of the other byte order. */
    for (size_t i = 0; i < area.size() * 2; i++)
        pmsg_test::swap32_at(reinterpret_cast<uint8_t *>(area.data()) + 4 * i);
    pmsg_test::swap32_at(&slot.anchor.length);
    std::vector<uint64_t> before = area;
    EXPECT_EQ(QX_PMSG_E_CORRUPT,
              qx_pmsg_convert_pmsg_value_bounded_1(&slot, QX_SD_PTR, area.data(), -1));
    EXPECT_TRUE(before == area) << "nothing is converted on failure";

    /* And a caller's value nested as deep is refused when built. */
    for (int depth : {32, 33}) {
        qx_structured_data_t *p_inner = arena.sd(0);
        for (int level = 0; level < depth; level++) {
            qx_structured_data_t *p_outer = arena.sd(1);
            p_outer->elements[0].data_type = QX_SD_PTR;
            p_outer->elements[0].value.ptr_sd = p_inner;
            p_inner = p_outer;
        }
        qx_value_t value;
        value.ptr_sd = p_inner;
        qx_uint32_t size = 0;
        EXPECT_EQ(depth == 32 ? QX_PMSG_OK : QX_PMSG_E_INVAL,
                  qx_pmsg_size_conv_protocol_value_1(nullptr, 0, QX_SD_PTR, &value, &size));
        if (depth == 32) {
            EXPECT_EQ(24u * 32 + 8, size);
        }
    }
}

TEST_F(PmsgClientValueTest, FormsThatShareOrOverlapBytesAreCorrupt) {
    /* Anchors aimed at one another would let a small area describe a huge
     * value (each level doubling the work); built forms never overlap. */
    uint64_t area[8] = {};
    auto *p = reinterpret_cast<uint8_t *>(area);
    const uint32_t twice[] = {2, 0, 24, 4, 24, 4};
    memcpy(p, twice, sizeof twice);
    memcpy(p + 24, "abc", 4);
    qx_pmsg_value_t slot;
    slot.anchor.offset = 0;
    slot.anchor.length = 28;
    qx_value_t result;
    EXPECT_EQ(QX_PMSG_E_CORRUPT, read_value(QX_CHAR_PTR_ARRAY, &result, &slot, area, sizeof area));

    /* A nested form placed over the container's own anchors. */
    const uint32_t inside[] = {1, 0, 4, 4};
    memset(area, 0, sizeof area);
    memcpy(p, inside, sizeof inside);
    slot.anchor.length = 16;
    EXPECT_EQ(QX_PMSG_E_CORRUPT, read_value(QX_CHAR_PTR_ARRAY, &result, &slot, area, sizeof area));

    /* Out of order but disjoint is refused too: nested forms follow in order. */
    const uint32_t swapped[] = {2, 0, 32, 4, 24, 4};
    memset(area, 0, sizeof area);
    memcpy(p, swapped, sizeof swapped);
    memcpy(p + 24, "abc", 4);
    memcpy(p + 32, "def", 4);
    slot.anchor.length = 36;
    EXPECT_EQ(QX_PMSG_E_CORRUPT, read_value(QX_CHAR_PTR_ARRAY, &result, &slot, area, sizeof area));
    EXPECT_EQ(0u, pmsg_i::cache_entry_count());
}

}  // namespace
