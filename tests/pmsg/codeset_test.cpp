/*
 * codeset_test.cpp - text through a caller locale that is not UTF-8 (the C
 * library's real Latin-1 locale and iconv through libqx_cu): stored as
 * UTF-8, given back in the caller's bytes, wherever it is nested.
 */
#include <gtest/gtest.h>
#include <locale.h>

#include "pmsg_i.h"
#include "pmsg_test_util.h"

namespace {

using pmsg_test::Arena;
using pmsg_test::Built;

const char kLatin1[] =
    "Gr\xFC\xDF"
    "e \xE0 Z\xFCrich"; /* "Grüße à Zürich" */
const char kUtf8[] =
    "Gr\xC3\xBC\xC3\x9F"
    "e \xC3\xA0 Z\xC3\xBCrich";

class PmsgCodeSetTest : public ::testing::Test {
  protected:
    void SetUp() override {
        latin1_ = newlocale(LC_ALL_MASK, "en_US.iso88591", nullptr);
        if (latin1_ == nullptr) GTEST_SKIP() << "no en_US.iso88591 locale here";
        previous_ = uselocale(latin1_);
        cu_locale_info_t *p_info = nullptr;
        ASSERT_EQ(0, cu_get_locale_info_1(&p_info));
        const qx_uint32_t pass = CU_ICONV_UTF8_UNMODIFIED;
        ASSERT_EQ(0, cu_iconv_open_1(p_info, CU_ICONV_TO_TABLE | pass, &to_table_));
        ASSERT_EQ(0, cu_iconv_open_1(p_info, CU_ICONV_FROM_TABLE | pass, &from_table_));
        cu_rel_locale_info_1(p_info);
    }
    void TearDown() override {
        qx_pmsg_release_client_values_1(nullptr, SIZE_MAX);
        cu_iconv_close_1(to_table_);
        cu_iconv_close_1(from_table_);
        if (latin1_ == nullptr) return;
        uselocale(previous_);
        freelocale(latin1_);
    }
    int read(int type, const Built &built, qx_value_t *p_result, qx_uint32_t flags = 0) {
        return pmsg_test::read(type, p_result, &built.slot, built.p_area, built.used, flags,
                               from_table_);
    }

    locale_t latin1_ = nullptr;
    locale_t previous_ = nullptr;
    cu_iconv_t *to_table_ = nullptr;
    cu_iconv_t *from_table_ = nullptr;
    Arena arena_;
};

TEST_F(PmsgCodeSetTest, TextIsStoredAsUtf8AndComesBackInTheCallersBytesWhereverNested) {
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

    qx_array_t *texts = arena_.array(2);
    texts->elements[0].ptr_char = arena_.text(kLatin1);
    texts->elements[1].ptr_char = arena_.text("plain");
    qx_structured_data_t *sd = arena_.sd(2);
    sd->elements[0] = {QX_CHAR_PTR_ARRAY, 0, {.ptr_array = texts}};
    sd->elements[1] = {QX_CHAR_PTR, 0, {.ptr_char = arena_.text("\xE9t\xE9")}};
    value.ptr_sd = sd;
    ASSERT_EQ(0, pmsg_test::build_value(to_table_, QX_SD_PTR, value, &built));
    std::string stored(reinterpret_cast<char *>(built.p_area), built.used);
    EXPECT_NE(std::string::npos, stored.find(kUtf8));
    EXPECT_NE(std::string::npos, stored.find("\xC3\xA9t\xC3\xA9"));
    for (qx_uint32_t flags :
         {0u, QX_PMSG_CLIENT_MALLOC, QX_PMSG_CLIENT_MALLOC | QX_PMSG_CLIENT_DEEP}) {
        ASSERT_EQ(0, read(QX_SD_PTR, built, &back, flags));
        std::string why;
        EXPECT_TRUE(pmsg_test::values_equal(QX_SD_PTR, value, back, &why)) << why;
        if (flags != 0) free(back.ptr_sd);
    }
}

TEST_F(PmsgCodeSetTest, TextThatCannotBeConvertedIsRefusedNotMangled) {
    /* Table bytes that are not UTF-8 at all, and a character Latin-1 lacks. */
    for (const char *p_stored : {"bad \xFF\xFE utf8", "euro \xE2\x82\xAC"}) {
        SCOPED_TRACE(p_stored);
        std::vector<uint64_t> area(8);
        memcpy(area.data(), p_stored, strlen(p_stored) + 1);
        Built built;
        built.p_area = reinterpret_cast<uint8_t *>(area.data());
        built.slot.anchor.offset = 0;
        built.slot.anchor.length = static_cast<qx_uint32_t>(strlen(p_stored) + 1);
        built.used = 64;
        qx_value_t back;
        back.ptr_char = nullptr;
        EXPECT_EQ(QX_PMSG_E_CONVERT, read(QX_CHAR_PTR, built, &back));
        EXPECT_EQ(QX_PMSG_E_CONVERT, read(QX_CHAR_PTR, built, &back, QX_PMSG_CLIENT_MALLOC));
        EXPECT_EQ(nullptr, back.ptr_char);
    }
    EXPECT_EQ(0u, pmsg_i::cache_entry_count());
    /* Building with the from-table handle gives text the converter refuses;
     * the running offset is left alone. */
    qx_value_t value;
    value.ptr_char = arena_.text("\xFF\xFF");
    std::vector<uint64_t> area(4);
    qx_pmsg_value_t slot{};
    qx_uint32_t running = 0;
    EXPECT_EQ(QX_PMSG_E_CONVERT,
              pmsg_test::build(QX_CHAR_PTR, &value, &slot, area.data(), 32, &running, from_table_));
    EXPECT_EQ(0u, running);
}

}  // namespace
