// Protocol forms: bytes, "room too small", bad values, and Latin-1 callers' text stored as UTF-8.
#include <gtest/gtest.h>

#include "pmsg_i.h"
#include "pmsg_test_util.h"

namespace {

using pmsg_test::Arena;
using pmsg_test::Built;
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

std::string words(std::initializer_list<uint32_t> list) {
    std::string s;
    for (uint32_t w : list) s.append(reinterpret_cast<const char *>(&w), 4);
    return s;
}

// Forms lie end to end from the running offset at any alignment; nothing around them is touched.
TEST(PmsgProtocolFormTest, EachFormHasItsBytesOneByteLessIsRoomTooSmallBadValuesGetTheirCode) {
    Arena arena;
    Area area;
    memset(area.words, 0xEE, sizeof area.words);
    const struct {
        int type;
        qx_value_t value;
        uint32_t offset, length;
    } forms[] = {{QX_CHAR_PTR, {.ptr_char = arena.text("hello")}, 3, 6},
                 {QX_BINARY_PTR, {.ptr_binary = arena.binary(std::string("\1\2\3", 3))}, 9, 7},
                 {QX_RSRC_HANDLE_PTR, {.ptr_rsrc_handle = arena.rsrc(1, 2, 3, 4, 5)}, 16, 20},
                 {QX_SBS_PTR, {.ptr_sbs = arena.sbs("abcdefghij")}, 36, 14}};
    qx_pmsg_value_t slot;
    qx_uint32_t running = 3;
    for (const auto &f : forms) {
        ASSERT_EQ(0, build(f.type, f.value, area, &slot, &running));
        EXPECT_EQ(f.offset, slot.anchor.offset);
        EXPECT_EQ(f.length, slot.anchor.length);
    }
    EXPECT_EQ(50u, running);
    EXPECT_EQ("\xEE" + std::string("hello\0", 6) + words({3}) + "\1\2\3" + words({1, 2, 3, 4, 5}) +
                  words({10}) + "abcdefghij\xEE",
              std::string(reinterpret_cast<char *>(area.bytes()) + 2, 49));

    // Containers' bytes (counts, pads, nested anchors) are pinned by the golden table file test.
    qx_value_t value;
    // Scalars travel in the slot, need no room, and read zero above a 32-bit value.
    value.val_uint64 = 0xdeadbeef11223344ull;
    qx_uint32_t size = 99;
    ASSERT_EQ(0, size_of(QX_UINT32, value, &size));
    EXPECT_EQ(0u, size);
    running = 13;
    memset(&slot, 0xAA, sizeof slot);
    ASSERT_EQ(0, pmsg_test::build(QX_UINT32, &value, &slot, nullptr, 0, &running));
    EXPECT_EQ(13u, running);
    EXPECT_EQ(0x11223344u, slot.val_uint64) << "forms are reproducible byte for byte";
    ASSERT_EQ(0, pmsg_test::build(QX_UINT32, &value, &slot, nullptr, 0, nullptr));
    value.val_float64 = -2.5e300;
    ASSERT_EQ(0, pmsg_test::build(QX_FLOAT64, &value, &slot, nullptr, 0, nullptr));
    qx_value_t back;
    ASSERT_EQ(0, pmsg_test::read(QX_FLOAT64, &back, &slot, nullptr, -1));
    EXPECT_EQ(-2.5e300, back.val_float64);

    // Random values of every type: one byte less than the size is "room too small", writing
    // nothing.
    for (uint32_t seed = 1; seed <= 60; seed++) {
        ValueMaker maker(arena, seed);
        for (int type = QX_CHAR_PTR; type <= QX_SD_PTR_ARRAY; type++) {
            SCOPED_TRACE("seed " + std::to_string(seed) + " type " + std::to_string(type));
            qx_value_t value = maker.make(type);
            qx_uint32_t size = 0;
            ASSERT_EQ(0, size_of(type, value, &size));
            qx_uint32_t start = maker.below(25);
            std::vector<uint8_t> area(start + size, 0x5A);
            std::vector<uint8_t> before = area;
            qx_pmsg_value_t slot, slot_before;
            memset(&slot, 0x33, sizeof slot);
            slot_before = slot;
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
    // A binary that claims 4 GiB is refused from its length alone.
    qx_binary_t header{0xFFFFFFFFu, {0}};
    value.ptr_binary = &header;
    EXPECT_EQ(QX_PMSG_E_TOO_LARGE, size_of(QX_BINARY_PTR, value, &size));
    running = 0;
    EXPECT_EQ(QX_PMSG_E_TOO_LARGE, build(QX_BINARY_PTR, value, area, &slot, &running));
    EXPECT_EQ(0u, running);
    // Nulls, bad types, bad flags and cycles each get their code.
    value.ptr_char = nullptr;
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

    value.ptr_array = arena.array({{.ptr_char = arena.text("fine")}, {.ptr_char = nullptr}});
    EXPECT_EQ(QX_PMSG_E_INVAL, build(QX_CHAR_PTR_ARRAY, value, area, &slot, &running));
    qx_structured_data_t *sd = arena.sd({{}});
    sd->elements[0].data_type = static_cast<qx_data_type_t>(QX_NONE);
    value.ptr_sd = sd;
    EXPECT_EQ(QX_PMSG_E_TYPE, build(QX_SD_PTR, value, area, &slot, &running));
    sd->elements[0] = {QX_SD_PTR, 0, {.ptr_sd = sd}};  // a structure that contains itself
    EXPECT_EQ(QX_PMSG_E_INVAL, size_of(QX_SD_PTR, value, &size));
    qx_sbs_t *sbs = arena.sbs("abc");
    sbs->length = -3;
    value.ptr_sbs = sbs;
    EXPECT_EQ(QX_PMSG_E_INVAL, build(QX_SBS_PTR, value, area, &slot, &running));
    EXPECT_EQ(0u, running);
}

const char kLatin1[] =
    "Gr\xFC\xDF"
    "e \xE0 Z\xFCrich"; /* "Grüße à Zürich" */
const char kUtf8[] =
    "Gr\xC3\xBC\xC3\x9F"
    "e \xC3\xA0 Z\xC3\xBCrich";

// Handles of a Latin-1 caller (the pass-through flag changes nothing there).
class PmsgCodeSetTest : public ::testing::Test {
  protected:
    void SetUp() override {
        cu_locale_info_t info{const_cast<char *>("latin1"), const_cast<char *>("ISO-8859-1")};
        const qx_uint32_t pass = CU_ICONV_UTF8_UNMODIFIED;
        ASSERT_EQ(0, cu_iconv_open_1(&info, CU_ICONV_TO_TABLE | pass, &to_table_));
        ASSERT_EQ(0, cu_iconv_open_1(&info, CU_ICONV_FROM_TABLE | pass, &from_table_));
    }
    void TearDown() override {
        qx_pmsg_release_client_values_1(nullptr, SIZE_MAX);
        cu_iconv_close_1(to_table_);
        cu_iconv_close_1(from_table_);
    }
    int read(int type, const Built &built, qx_value_t *p_result, qx_uint32_t flags = 0) {
        return pmsg_test::read(type, p_result, &built.slot, built.p_area, built.used, flags,
                               from_table_);
    }

    cu_iconv_t *to_table_ = nullptr;
    cu_iconv_t *from_table_ = nullptr;
    Arena arena_;
};

TEST_F(PmsgCodeSetTest, TextIsStoredAsUtf8BackInTheCallersBytesWhereverNestedOrElseRefused) {
    qx_value_t value;
    value.ptr_char = arena_.text(kLatin1);
    qx_uint32_t size = 0;
    ASSERT_EQ(0, pmsg_test::size_of(QX_CHAR_PTR, value, &size, to_table_));
    Built built;
    ASSERT_EQ(0, pmsg_test::build_value(to_table_, QX_CHAR_PTR, value, &built));
    EXPECT_EQ(size, built.used);
    EXPECT_EQ(sizeof kUtf8, built.slot.anchor.length);
    EXPECT_STREQ(kUtf8, reinterpret_cast<char *>(built.p_area));
    qx_value_t back, again;
    ASSERT_EQ(0, read(QX_CHAR_PTR, built, &back));
    EXPECT_STREQ(kLatin1, back.ptr_char);
    ASSERT_EQ(0, read(QX_CHAR_PTR, built, &again));
    EXPECT_EQ(back.ptr_char, again.ptr_char) << "converted text is built once per slot";

    qx_array_t *texts =
        arena_.array({{.ptr_char = arena_.text(kLatin1)}, {.ptr_char = arena_.text("plain")}});
    value.ptr_sd = arena_.sd({{QX_CHAR_PTR_ARRAY, 0, {.ptr_array = texts}},
                              {QX_CHAR_PTR, 0, {.ptr_char = arena_.text("\xE9t\xE9")}}});
    ASSERT_EQ(0, pmsg_test::build_value(to_table_, QX_SD_PTR, value, &built));
    std::string stored(reinterpret_cast<char *>(built.p_area), built.used);
    EXPECT_NE(std::string::npos, stored.find(kUtf8));
    EXPECT_NE(std::string::npos, stored.find("\xC3\xA9t\xC3\xA9"));
    for (qx_uint32_t flags :
         {0u, QX_PMSG_CLIENT_MALLOC, QX_PMSG_CLIENT_MALLOC | QX_PMSG_CLIENT_DEEP}) {
        ASSERT_EQ(0, read(QX_SD_PTR, built, &back, flags));
        EXPECT_EQ(pmsg_test::form(QX_SD_PTR, value), pmsg_test::form(QX_SD_PTR, back));
        if (flags != 0) free(back.ptr_sd);
    }
    qx_pmsg_release_client_values_1(nullptr, SIZE_MAX);
    // Table bytes that are not UTF-8 at all, and a character Latin-1 lacks, are refused.
    for (const char *p_stored : {"bad \xFF\xFE utf8", "euro \xE2\x82\xAC"}) {
        SCOPED_TRACE(p_stored);
        std::vector<uint64_t> area(8);
        memcpy(area.data(), p_stored, strlen(p_stored) + 1);
        Built bad;
        bad.p_area = reinterpret_cast<uint8_t *>(area.data());
        bad.slot.anchor = {0, static_cast<qx_uint32_t>(strlen(p_stored) + 1)};
        bad.used = 64;
        back.ptr_char = nullptr;
        EXPECT_EQ(QX_PMSG_E_CONVERT, read(QX_CHAR_PTR, bad, &back));
        EXPECT_EQ(QX_PMSG_E_CONVERT, read(QX_CHAR_PTR, bad, &back, QX_PMSG_CLIENT_MALLOC));
        EXPECT_EQ(nullptr, back.ptr_char);
    }
    EXPECT_EQ(0u, pmsg_i::cache_entry_count());
    // Building with the from-table handle gives text the converter refuses; running is kept.
    value.ptr_char = arena_.text("\xFF\xFF");
    std::vector<uint64_t> area(4);
    qx_pmsg_value_t slot{};
    qx_uint32_t running = 0;
    EXPECT_EQ(QX_PMSG_E_CONVERT,
              pmsg_test::build(QX_CHAR_PTR, &value, &slot, area.data(), 32, &running, from_table_));
    EXPECT_EQ(0u, running);
}

}  // namespace
