// Locales and conversion handles against the C library's real locales (Latin-1, C.UTF-8, C).
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "cu_test_util.h"
#include "qx_cu.h"

namespace {

using cu_test::kLatin1Locale;
using cu_test::ThreadLocale;

struct Handle {
    cu_iconv_t *h = nullptr;
    ~Handle() { cu_iconv_close_1(h); }
};

cu_locale_info_t info_for(const char *codeset) {
    return cu_locale_info_t{const_cast<char *>("test"), const_cast<char *>(codeset)};
}

// Converts through cu_iconv_str_1; returns the result code.
int str(cu_iconv_t *h, const std::string &in, std::string *p_out) {
    char *out = nullptr;
    int rc = cu_iconv_str_1(h, 0, in.c_str(), &out);
    if (rc == CU_OK) {
        *p_out = out;
    } else {
        EXPECT_EQ(nullptr, out);
    }
    free(out);
    return rc;
}

// Converts through cu_iconv_buf_1 with exactly the room asked for.
int buf(cu_iconv_t *h, const std::string &in, std::string *p_out) {
    size_t needed = 0;
    int rc = cu_iconv_buf_1(h, in.data(), in.size(), nullptr, 0, &needed);
    if (rc != CU_OK && rc != CU_E_ROOM) return rc;
    std::string out(needed, '\0');
    rc = cu_iconv_buf_1(h, in.data(), in.size(), out.data(), out.size(), &needed);
    if (rc == CU_OK) *p_out = out.substr(0, needed);
    return rc;
}

// A thread's locale (uselocale) is its own; codeset spellings of UTF-8 and ASCII pass unmodified.
TEST(LocaleInfoTest, EachThreadSeesItsOwnLocaleAndLatin1ConvertsBothWaysRefusingWhatDoesNotFit) {
    for (const char *yes : {"UTF-8", "utf8", "Utf_8", "ANSI_X3.4-1968", "US-ASCII"}) {
        cu_locale_info_t info = info_for(yes);
        EXPECT_NE(0, cu_utf8_is_not_modified_1(&info)) << yes;
    }
    for (const char *no : {"ISO-8859-1", "UTF-16", "EUC-JP", ""}) {
        cu_locale_info_t info = info_for(no);
        EXPECT_EQ(0, cu_utf8_is_not_modified_1(&info)) << no;
    }
    EXPECT_EQ(0, cu_utf8_is_not_modified_1(nullptr));
    EXPECT_EQ(CU_E_INVAL, cu_get_locale_info_1(nullptr));
    ThreadLocale latin1(kLatin1Locale);
    if (!latin1.loaded()) GTEST_SKIP() << kLatin1Locale << " is not installed (localedef)";
    cu_locale_info_t *p_info = nullptr;
    ASSERT_EQ(CU_OK, cu_get_locale_info_1(&p_info));
    EXPECT_STREQ(kLatin1Locale, p_info->cu_locale_name);
    EXPECT_STREQ("ISO-8859-1", p_info->cu_codeset);
    EXPECT_EQ(0, cu_utf8_is_not_modified_1(p_info));
    // Handles of the thread's Latin-1 locale; the pass-through flag changes nothing there.
    Handle to, from;
    ASSERT_EQ(CU_OK, cu_iconv_open_1(p_info, CU_ICONV_TO_TABLE | CU_ICONV_UTF8_UNMODIFIED, &to.h));
    ASSERT_EQ(CU_OK,
              cu_iconv_open_1(p_info, CU_ICONV_FROM_TABLE | CU_ICONV_UTF8_UNMODIFIED, &from.h));
    cu_rel_locale_info_1(p_info);
    std::thread([] {  // still in the C locale
        cu_locale_info_t *p_other = nullptr;
        ASSERT_EQ(CU_OK, cu_get_locale_info_1(&p_other));
        EXPECT_STREQ("ANSI_X3.4-1968", p_other->cu_codeset);
        EXPECT_NE(0, cu_utf8_is_not_modified_1(p_other));
        cu_rel_locale_info_1(p_other);
    })
        .join();
    EXPECT_EQ(0, cu_iconv_is_identity_1(to.h));
    EXPECT_EQ(0, cu_iconv_is_identity_1(from.h));

    std::string out;
    ASSERT_EQ(CU_OK, str(to.h, "caf\xE9 \xFC\xDF", &out));
    EXPECT_EQ("caf\xC3\xA9 \xC3\xBC\xC3\x9F", out);
    ASSERT_EQ(CU_OK, buf(from.h, "caf\xC3\xA9", &out));
    EXPECT_EQ("caf\xE9", out);
    std::string all;
    for (int b = 1; b < 256; ++b) all.push_back(static_cast<char>(b));
    std::string utf8, back;
    ASSERT_EQ(CU_OK, str(to.h, all, &utf8));
    EXPECT_EQ(all.size() + 128, utf8.size());  // 0x80..0xFF take two bytes
    ASSERT_EQ(CU_OK, str(from.h, utf8, &back));
    EXPECT_EQ(all, back);
    ASSERT_EQ(CU_OK, buf(from.h, utf8, &back));
    EXPECT_EQ(all, back);

    out = "untouched";  // a euro sign, a bad byte, an overlong '/', a sequence cut short
    for (const char *bad : {"price \xE2\x82\xAC 5", "bad \xFF byte", "\xC0\xAF", "cut \xC3"})
        EXPECT_EQ(CU_E_ILSEQ, str(from.h, bad, &out)) << bad;
    EXPECT_EQ("untouched", out);
    size_t needed = 99;
    char room[32];
    EXPECT_EQ(CU_E_ILSEQ, cu_iconv_buf_1(from.h, "\xE2\x82\xAC", 3, room, sizeof(room), &needed));
    ASSERT_EQ(CU_OK, str(from.h, "\xC3\xA9", &out));  // and the handle recovers
    EXPECT_EQ("\xE9", out);

    EXPECT_EQ(CU_E_ROOM, cu_iconv_buf_1(to.h, "\xE9\xE9\xE9", 3, nullptr, 0, &needed));
    EXPECT_EQ(6u, needed);
    char exact[6];
    EXPECT_EQ(CU_E_ROOM, cu_iconv_buf_1(to.h, "\xE9\xE9\xE9", 3, exact, 4, &needed));
    EXPECT_EQ(6u, needed);
    EXPECT_EQ(CU_OK, cu_iconv_buf_1(to.h, "\xE9\xE9\xE9", 3, exact, sizeof(exact), &needed));
    EXPECT_EQ(0, memcmp(exact, "\xC3\xA9\xC3\xA9\xC3\xA9", 6));
    EXPECT_EQ(CU_OK, cu_iconv_buf_1(to.h, nullptr, 0, nullptr, 0, &needed));
    EXPECT_EQ(0u, needed);
    ASSERT_EQ(CU_OK, str(to.h, "", &out));
    EXPECT_EQ("", out);
    std::string in;
    for (int i = 0; i < 5000; ++i) in += "\xE9x";  // beyond any stack buffer
    ASSERT_EQ(CU_OK, str(to.h, in, &out));
    ASSERT_EQ(15000u, out.size());
    for (size_t i = 0; i < out.size(); i += 3) ASSERT_EQ("\xC3\xA9x", out.substr(i, 3)) << i;
    EXPECT_EQ(CU_E_ROOM, cu_iconv_buf_1(to.h, in.data(), in.size(), nullptr, 0, &needed));
    EXPECT_EQ(15000u, needed);
}

TEST(PassThroughTest, Utf8AndAsciiPassWithTheFlagOthersAreCheckedAndBadArgumentsRefused) {
    for (const char *codeset : {"UTF-8", "ANSI_X3.4-1968"}) {
        cu_locale_info_t info = info_for(codeset);
        Handle to, from;
        ASSERT_EQ(CU_OK,
                  cu_iconv_open_1(&info, CU_ICONV_TO_TABLE | CU_ICONV_UTF8_UNMODIFIED, &to.h));
        ASSERT_EQ(CU_OK,
                  cu_iconv_open_1(&info, CU_ICONV_FROM_TABLE | CU_ICONV_UTF8_UNMODIFIED, &from.h));
        EXPECT_NE(0, cu_iconv_is_identity_1(to.h));
        EXPECT_NE(0, cu_iconv_is_identity_1(from.h));
        const char in[] = "a\xFF\xC3";  // not UTF-8, and still passed through
        char out[8] = {};
        size_t needed = 0;
        ASSERT_EQ(CU_OK, cu_iconv_buf_1(from.h, in, 3, out, sizeof(out), &needed));
        EXPECT_EQ(3u, needed);
        EXPECT_EQ(0, memcmp(in, out, 3));
        EXPECT_EQ(CU_E_ROOM, cu_iconv_buf_1(from.h, in, 3, out, 2, &needed));
        EXPECT_EQ(3u, needed);
        for (cu_iconv_t *handle : {to.h, static_cast<cu_iconv_t *>(nullptr)}) {
            char *copy = nullptr;
            ASSERT_EQ(CU_OK, cu_iconv_str_1(handle, 0, "caf\xC3\xA9", &copy));
            EXPECT_STREQ("caf\xC3\xA9", copy);  // a fresh copy
            free(copy);
        }
    }
    EXPECT_NE(0, cu_iconv_is_identity_1(nullptr));
    size_t needed = 0;
    EXPECT_EQ(CU_E_ROOM, cu_iconv_buf_1(nullptr, "abc", 3, nullptr, 0, &needed));
    EXPECT_EQ(3u, needed);

    cu_locale_info_t info = info_for("UTF-8");
    Handle h;
    ASSERT_EQ(CU_OK, cu_iconv_open_1(&info, CU_ICONV_TO_TABLE, &h.h));
    EXPECT_EQ(0, cu_iconv_is_identity_1(h.h));
    std::string out;
    EXPECT_EQ(CU_E_ILSEQ, str(h.h, "a\xFF", &out));
    ASSERT_EQ(CU_OK, str(h.h, "caf\xC3\xA9", &out));
    EXPECT_EQ("caf\xC3\xA9", out);
    // Bad arguments are rejected.
    info = info_for("ISO-8859-1");
    cu_iconv_t *p = reinterpret_cast<cu_iconv_t *>(&info);
    EXPECT_EQ(CU_E_INVAL, cu_iconv_open_1(nullptr, CU_ICONV_TO_TABLE, &p));
    EXPECT_EQ(nullptr, p);
    EXPECT_EQ(CU_E_INVAL, cu_iconv_open_1(&info, CU_ICONV_TO_TABLE, nullptr));
    EXPECT_EQ(CU_E_INVAL, cu_iconv_open_1(&info, 0x2, &p));
    for (const char *codeset : {"NO-SUCH-CODESET-42", "", static_cast<const char *>(nullptr)}) {
        cu_locale_info_t bad = info_for(codeset);
        EXPECT_EQ(CU_E_INVAL, cu_iconv_open_1(&bad, CU_ICONV_TO_TABLE, &p));
    }
    Handle ok;
    ASSERT_EQ(CU_OK, cu_iconv_open_1(&info, CU_ICONV_TO_TABLE, &ok.h));
    char *p_out = nullptr;
    EXPECT_EQ(CU_E_INVAL, cu_iconv_str_1(ok.h, 1, "x", &p_out));
    EXPECT_EQ(CU_E_INVAL, cu_iconv_str_1(ok.h, 0, nullptr, &p_out));
    EXPECT_EQ(CU_E_INVAL, cu_iconv_str_1(ok.h, 0, "x", nullptr));
    char room[4];
    EXPECT_EQ(CU_E_INVAL, cu_iconv_buf_1(ok.h, "x", 1, room, sizeof(room), nullptr));
    EXPECT_EQ(CU_E_INVAL, cu_iconv_buf_1(ok.h, nullptr, 1, room, sizeof(room), &needed));
    EXPECT_EQ(CU_E_INVAL, cu_iconv_buf_1(ok.h, "x", 1, nullptr, 4, &needed));
    EXPECT_EQ(CU_OK, cu_iconv_close_1(nullptr));
}

TEST(StatefulCodesetTest, ShiftStateIsClosedAtTheEndOfEveryConversion) {
    cu_locale_info_t info = info_for("ISO-2022-JP");
    Handle from;
    if (cu_iconv_open_1(&info, CU_ICONV_FROM_TABLE, &from.h) != CU_OK) {
        GTEST_SKIP() << "the C library has no ISO-2022-JP converter";
    }
    // Two kanji: shifted into JIS X 0208, and back to ASCII before the text ends.
    const std::string kanji = "\xE6\x97\xA5\xE6\x9C\xAC";
    const std::string want = "\x1B$BF|K\\\x1B(B";
    for (int round = 0; round < 2; ++round) {
        std::string out;
        ASSERT_EQ(CU_OK, str(from.h, kanji, &out));
        EXPECT_EQ(want, out);
        ASSERT_EQ(CU_OK, buf(from.h, kanji, &out));
        EXPECT_EQ(want, out);
    }
}

// More threads than descriptors share a handle; errors must not spoil a descriptor for the next.
TEST(IconvConcurrencyTest, OneHandleServesManyThreadsAtOnce) {
    cu_locale_info_t info = info_for("ISO-8859-1");
    Handle to, from;
    ASSERT_EQ(CU_OK, cu_iconv_open_1(&info, CU_ICONV_TO_TABLE, &to.h));
    ASSERT_EQ(CU_OK, cu_iconv_open_1(&info, CU_ICONV_FROM_TABLE, &from.h));
    constexpr int kThreads = 24;
    std::vector<int> failures(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 300; ++i) {
                std::string latin1 = "t" + std::to_string(t) + "\xE9" + std::to_string(i) +
                                     std::string(static_cast<size_t>(i * 997 % 8000), '\xFC');
                std::string utf8, back;
                if (str(to.h, latin1, &utf8) != CU_OK) ++failures[t];
                if (buf(from.h, utf8, &back) != CU_OK || back != latin1) ++failures[t];
                if (i % 5 == 0 && str(from.h, "\xE2\x82\xAC", &back) != CU_E_ILSEQ) ++failures[t];
            }
        });
    }
    for (auto &th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(0, failures[t]) << "thread " << t;
}

}  // namespace
