// Locales and code-set conversion handles, against the C library's real
// locales and iconv: a Latin-1 locale generated with localedef, C.UTF-8,
// and the C locale every program starts in.
#include <gtest/gtest.h>
#include <string.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cu_test_util.h"
#include "qx_cu.h"

namespace {

using cu_test::kLatin1Locale;
using cu_test::ThreadLocale;

// Owns a handle for the length of a test.
struct Handle {
    cu_iconv_t *h = nullptr;
    ~Handle() { cu_iconv_close_1(h); }
};

cu_locale_info_t info_for(const char *codeset) {
    cu_locale_info_t info;
    info.cu_locale_name = const_cast<char *>("test");
    info.cu_codeset = const_cast<char *>(codeset);
    return info;
}

// Converts through cu_iconv_str_1; returns the result code.
int str(cu_iconv_t *h, const std::string &in, std::string *p_out) {
    char *out = nullptr;
    int rc = cu_iconv_str_1(h, 0, in.c_str(), &out);
    if (rc == CU_OK) {
        *p_out = out;
        free(out);
    } else {
        EXPECT_EQ(nullptr, out);
    }
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

// --- locale information ---------------------------------------------------

TEST(LocaleInfoTest, CLocaleIsAsciiAndPassesThrough) {
    ThreadLocale c("C");
    ASSERT_TRUE(c.loaded());
    cu_locale_info_t *info = nullptr;
    ASSERT_EQ(CU_OK, cu_get_locale_info_1(&info));
    EXPECT_STREQ("C", info->cu_locale_name);
    EXPECT_STREQ("ANSI_X3.4-1968", info->cu_codeset);
    EXPECT_NE(0, cu_utf8_is_not_modified_1(info));
    cu_rel_locale_info_1(info);
}

TEST(LocaleInfoTest, Latin1LocaleOfThisThreadIsReported) {
    ThreadLocale latin1(kLatin1Locale);
    if (!latin1.loaded()) {
        GTEST_SKIP() << "locale " << kLatin1Locale
                     << " is not installed (localedef -i en_US -f ISO-8859-1 " << kLatin1Locale
                     << ")";
    }
    cu_locale_info_t *info = nullptr;
    ASSERT_EQ(CU_OK, cu_get_locale_info_1(&info));
    EXPECT_STREQ(kLatin1Locale, info->cu_locale_name);
    EXPECT_STREQ("ISO-8859-1", info->cu_codeset);
    EXPECT_EQ(0, cu_utf8_is_not_modified_1(info));
    cu_rel_locale_info_1(info);

    // Another thread still runs in the process's C locale.
    std::string other_codeset;
    std::thread t([&] {
        cu_locale_info_t *other = nullptr;
        if (cu_get_locale_info_1(&other) == CU_OK) other_codeset = other->cu_codeset;
        cu_rel_locale_info_1(other);
    });
    t.join();
    EXPECT_EQ("ANSI_X3.4-1968", other_codeset);
}

TEST(LocaleInfoTest, Utf8LocaleIsNotModified) {
    ThreadLocale utf8("C.UTF-8");
    if (!utf8.loaded()) GTEST_SKIP() << "the C.UTF-8 locale is not installed";
    cu_locale_info_t *info = nullptr;
    ASSERT_EQ(CU_OK, cu_get_locale_info_1(&info));
    EXPECT_STREQ("UTF-8", info->cu_codeset);
    EXPECT_NE(0, cu_utf8_is_not_modified_1(info));
    cu_rel_locale_info_1(info);
}

TEST(LocaleInfoTest, CodesetSpellingsAreRecognised) {
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
}

// --- Latin-1 conversion -------------------------------------------------------

class Latin1Test : public ::testing::Test {
  protected:
    void SetUp() override {
        locale_ = std::make_unique<ThreadLocale>(kLatin1Locale);
        if (!locale_->loaded()) {
            GTEST_SKIP() << "locale " << kLatin1Locale
                         << " is not installed (localedef -i en_US -f ISO-8859-1 " << kLatin1Locale
                         << ")";
        }
        ASSERT_EQ(CU_OK, cu_get_locale_info_1(&info_));
        // The pass-through flag changes nothing in a Latin-1 locale.
        ASSERT_EQ(CU_OK,
                  cu_iconv_open_1(info_, CU_ICONV_TO_TABLE | CU_ICONV_UTF8_UNMODIFIED, &to_.h));
        ASSERT_EQ(CU_OK,
                  cu_iconv_open_1(info_, CU_ICONV_FROM_TABLE | CU_ICONV_UTF8_UNMODIFIED, &from_.h));
    }
    void TearDown() override { cu_rel_locale_info_1(info_); }

    std::unique_ptr<ThreadLocale> locale_;
    cu_locale_info_t *info_ = nullptr;
    Handle to_;
    Handle from_;
};

TEST_F(Latin1Test, HandlesConvert) {
    EXPECT_EQ(0, cu_iconv_is_identity_1(to_.h));
    EXPECT_EQ(0, cu_iconv_is_identity_1(from_.h));
}

TEST_F(Latin1Test, ToTableTurnsLatin1IntoUtf8) {
    std::string out;
    ASSERT_EQ(CU_OK, str(to_.h, "caf\xE9 \xFC\xDF", &out));
    EXPECT_EQ("caf\xC3\xA9 \xC3\xBC\xC3\x9F", out);
    ASSERT_EQ(CU_OK, buf(to_.h, "caf\xE9", &out));
    EXPECT_EQ("caf\xC3\xA9", out);
}

TEST_F(Latin1Test, FromTableTurnsUtf8IntoLatin1) {
    std::string out;
    ASSERT_EQ(CU_OK, str(from_.h, "caf\xC3\xA9 \xC3\xBC\xC3\x9F", &out));
    EXPECT_EQ("caf\xE9 \xFC\xDF", out);
    ASSERT_EQ(CU_OK, buf(from_.h, "caf\xC3\xA9", &out));
    EXPECT_EQ("caf\xE9", out);
}

TEST_F(Latin1Test, EveryByteRoundTrips) {
    std::string all;
    for (int b = 1; b < 256; ++b) all.push_back(static_cast<char>(b));
    std::string utf8;
    ASSERT_EQ(CU_OK, str(to_.h, all, &utf8));
    EXPECT_EQ(all.size() + 128, utf8.size());  // 0x80..0xFF take two bytes
    std::string back;
    ASSERT_EQ(CU_OK, str(from_.h, utf8, &back));
    EXPECT_EQ(all, back);
    ASSERT_EQ(CU_OK, buf(from_.h, utf8, &back));
    EXPECT_EQ(all, back);
}

TEST_F(Latin1Test, CharacterWithoutLatin1FormIsAnError) {
    std::string out = "untouched";
    EXPECT_EQ(CU_E_ILSEQ, str(from_.h, "price \xE2\x82\xAC 5", &out));  // the euro sign
    EXPECT_EQ("untouched", out);
    size_t needed = 99;
    char room[32];
    EXPECT_EQ(CU_E_ILSEQ, cu_iconv_buf_1(from_.h, "\xE2\x82\xAC", 3, room, sizeof(room), &needed));
}

TEST_F(Latin1Test, MalformedUtf8IsAnError) {
    std::string out;
    EXPECT_EQ(CU_E_ILSEQ, str(from_.h, "bad \xFF byte", &out));
    EXPECT_EQ(CU_E_ILSEQ, str(from_.h, "cut \xC3", &out));  // sequence ends early
    EXPECT_EQ(CU_E_ILSEQ, str(from_.h, "\xC0\xAF", &out));  // overlong '/'
}

TEST_F(Latin1Test, HandleRecoversAfterAnError) {
    std::string out;
    ASSERT_EQ(CU_E_ILSEQ, str(from_.h, "cut \xC3", &out));
    ASSERT_EQ(CU_OK, str(from_.h, "\xC3\xA9", &out));
    EXPECT_EQ("\xE9", out);
}

TEST_F(Latin1Test, SizeQueryAndShortBuffer) {
    size_t needed = 0;
    EXPECT_EQ(CU_E_ROOM, cu_iconv_buf_1(to_.h, "\xE9\xE9\xE9", 3, nullptr, 0, &needed));
    EXPECT_EQ(6u, needed);
    char small[4];
    needed = 0;
    EXPECT_EQ(CU_E_ROOM, cu_iconv_buf_1(to_.h, "\xE9\xE9\xE9", 3, small, sizeof(small), &needed));
    EXPECT_EQ(6u, needed);
    char exact[6];
    EXPECT_EQ(CU_OK, cu_iconv_buf_1(to_.h, "\xE9\xE9\xE9", 3, exact, sizeof(exact), &needed));
    EXPECT_EQ(6u, needed);
    EXPECT_EQ(0, memcmp(exact, "\xC3\xA9\xC3\xA9\xC3\xA9", 6));
}

TEST_F(Latin1Test, EmptyInputConvertsToNothing) {
    size_t needed = 7;
    EXPECT_EQ(CU_OK, cu_iconv_buf_1(to_.h, nullptr, 0, nullptr, 0, &needed));
    EXPECT_EQ(0u, needed);
    std::string out = "x";
    EXPECT_EQ(CU_OK, str(to_.h, "", &out));
    EXPECT_EQ("", out);
}

TEST_F(Latin1Test, LongTextBeyondStackBufferConverts) {
    std::string in;
    for (int i = 0; i < 5000; ++i) in += "\xE9x";
    std::string out;
    ASSERT_EQ(CU_OK, str(to_.h, in, &out));
    ASSERT_EQ(15000u, out.size());
    for (size_t i = 0; i < out.size(); i += 3) ASSERT_EQ("\xC3\xA9x", out.substr(i, 3)) << i;
    size_t needed = 0;
    EXPECT_EQ(CU_E_ROOM, cu_iconv_buf_1(to_.h, in.data(), in.size(), nullptr, 0, &needed));
    EXPECT_EQ(15000u, needed);
}

// --- pass-through and argument checks ----------------------------------------

TEST(PassThroughTest, Utf8LocaleWithFlagGivesIdentityHandle) {
    cu_locale_info_t info = info_for("UTF-8");
    Handle to;
    Handle from;
    ASSERT_EQ(CU_OK, cu_iconv_open_1(&info, CU_ICONV_TO_TABLE | CU_ICONV_UTF8_UNMODIFIED, &to.h));
    ASSERT_EQ(CU_OK,
              cu_iconv_open_1(&info, CU_ICONV_FROM_TABLE | CU_ICONV_UTF8_UNMODIFIED, &from.h));
    EXPECT_NE(0, cu_iconv_is_identity_1(to.h));
    EXPECT_NE(0, cu_iconv_is_identity_1(from.h));
    EXPECT_NE(0, cu_iconv_is_identity_1(nullptr));
}

TEST(PassThroughTest, IdentityBufferCopiesBytesUnexamined) {
    cu_locale_info_t info = info_for("UTF-8");
    Handle h;
    ASSERT_EQ(CU_OK, cu_iconv_open_1(&info, CU_ICONV_FROM_TABLE | CU_ICONV_UTF8_UNMODIFIED, &h.h));
    // Not valid UTF-8, and still passed through: the handle converts nothing.
    const char in[] = "a\xFF\xC3";
    char out[8] = {};
    size_t needed = 0;
    ASSERT_EQ(CU_OK, cu_iconv_buf_1(h.h, in, 3, out, sizeof(out), &needed));
    EXPECT_EQ(3u, needed);
    EXPECT_EQ(0, memcmp(in, out, 3));
    EXPECT_EQ(CU_E_ROOM, cu_iconv_buf_1(h.h, in, 3, out, 2, &needed));
    EXPECT_EQ(3u, needed);
    EXPECT_EQ(CU_E_ROOM, cu_iconv_buf_1(nullptr, in, 3, nullptr, 0, &needed));
    EXPECT_EQ(3u, needed);
}

TEST(PassThroughTest, IdentityStringIsAFreshCopy) {
    cu_locale_info_t info = info_for("UTF-8");
    Handle h;
    ASSERT_EQ(CU_OK, cu_iconv_open_1(&info, CU_ICONV_TO_TABLE | CU_ICONV_UTF8_UNMODIFIED, &h.h));
    const char in[] = "caf\xC3\xA9";
    for (cu_iconv_t *handle : {h.h, static_cast<cu_iconv_t *>(nullptr)}) {
        char *out = nullptr;
        ASSERT_EQ(CU_OK, cu_iconv_str_1(handle, 0, in, &out));
        EXPECT_NE(in, out);
        EXPECT_STREQ(in, out);
        free(out);
    }
}

TEST(PassThroughTest, WithoutTheFlagUtf8IsValidated) {
    cu_locale_info_t info = info_for("UTF-8");
    Handle h;
    ASSERT_EQ(CU_OK, cu_iconv_open_1(&info, CU_ICONV_TO_TABLE, &h.h));
    EXPECT_EQ(0, cu_iconv_is_identity_1(h.h));
    std::string out;
    EXPECT_EQ(CU_E_ILSEQ, str(h.h, "a\xFF", &out));
    ASSERT_EQ(CU_OK, str(h.h, "caf\xC3\xA9", &out));
    EXPECT_EQ("caf\xC3\xA9", out);
}

TEST(PassThroughTest, CLocaleWithFlagPassesBytesThrough) {
    cu_locale_info_t info = info_for("ANSI_X3.4-1968");
    Handle h;
    ASSERT_EQ(CU_OK, cu_iconv_open_1(&info, CU_ICONV_TO_TABLE | CU_ICONV_UTF8_UNMODIFIED, &h.h));
    EXPECT_NE(0, cu_iconv_is_identity_1(h.h));
    std::string out;
    ASSERT_EQ(CU_OK, str(h.h, "caf\xC3\xA9", &out));
    EXPECT_EQ("caf\xC3\xA9", out);
}

TEST(StatefulCodesetTest, ShiftStateIsClosedAtTheEndOfEveryConversion) {
    cu_locale_info_t info = info_for("ISO-2022-JP");
    Handle from;
    if (cu_iconv_open_1(&info, CU_ICONV_FROM_TABLE, &from.h) != CU_OK) {
        GTEST_SKIP() << "the C library has no ISO-2022-JP converter";
    }
    // Two kanji: the text shifts into JIS X 0208 and must shift back to
    // ASCII before it ends, or the next text would be misread.
    const std::string kanji = "\xE6\x97\xA5\xE6\x9C\xAC";
    const std::string want = "\x1B$BF|K\\\x1B(B";
    for (int round = 0; round < 2; ++round) {
        std::string out;
        ASSERT_EQ(CU_OK, str(from.h, kanji, &out));
        EXPECT_EQ(want, out);
        ASSERT_EQ(CU_OK, buf(from.h, kanji, &out));
        EXPECT_EQ(want, out);
    }
    size_t needed = 0;
    EXPECT_EQ(CU_E_ROOM, cu_iconv_buf_1(from.h, kanji.data(), kanji.size(), nullptr, 0, &needed));
    EXPECT_EQ(want.size(), needed);
}

TEST(IconvArgumentTest, BadArgumentsAreRejected) {
    cu_locale_info_t info = info_for("ISO-8859-1");
    cu_iconv_t *h = reinterpret_cast<cu_iconv_t *>(&info);
    EXPECT_EQ(CU_E_INVAL, cu_iconv_open_1(nullptr, CU_ICONV_TO_TABLE, &h));
    EXPECT_EQ(nullptr, h);
    EXPECT_EQ(CU_E_INVAL, cu_iconv_open_1(&info, CU_ICONV_TO_TABLE, nullptr));
    EXPECT_EQ(CU_E_INVAL, cu_iconv_open_1(&info, 0x2, &h));
    cu_locale_info_t unknown = info_for("NO-SUCH-CODESET-42");
    EXPECT_EQ(CU_E_INVAL, cu_iconv_open_1(&unknown, CU_ICONV_TO_TABLE, &h));
    cu_locale_info_t empty = info_for("");
    EXPECT_EQ(CU_E_INVAL, cu_iconv_open_1(&empty, CU_ICONV_TO_TABLE, &h));
    cu_locale_info_t no_codeset = info_for("UTF-8");
    no_codeset.cu_codeset = nullptr;
    EXPECT_EQ(CU_E_INVAL, cu_iconv_open_1(&no_codeset, CU_ICONV_TO_TABLE, &h));

    Handle ok;
    ASSERT_EQ(CU_OK, cu_iconv_open_1(&info, CU_ICONV_TO_TABLE, &ok.h));
    char *out = nullptr;
    EXPECT_EQ(CU_E_INVAL, cu_iconv_str_1(ok.h, 1, "x", &out));
    EXPECT_EQ(CU_E_INVAL, cu_iconv_str_1(ok.h, 0, nullptr, &out));
    EXPECT_EQ(CU_E_INVAL, cu_iconv_str_1(ok.h, 0, "x", nullptr));
    char room[4];
    size_t needed = 0;
    EXPECT_EQ(CU_E_INVAL, cu_iconv_buf_1(ok.h, "x", 1, room, sizeof(room), nullptr));
    EXPECT_EQ(CU_E_INVAL, cu_iconv_buf_1(ok.h, nullptr, 1, room, sizeof(room), &needed));
    EXPECT_EQ(CU_E_INVAL, cu_iconv_buf_1(ok.h, "x", 1, nullptr, 4, &needed));
    EXPECT_EQ(CU_OK, cu_iconv_close_1(nullptr));
}

// --- one handle, many threads -------------------------------------------------

TEST(IconvConcurrencyTest, OneHandleServesSeveralThreadsAtOnce) {
    // Handles are opened from a described locale, so no thread needs the
    // Latin-1 locale installed to convert.
    cu_locale_info_t info = info_for("ISO-8859-1");
    Handle to;
    Handle from;
    ASSERT_EQ(CU_OK, cu_iconv_open_1(&info, CU_ICONV_TO_TABLE, &to.h));
    ASSERT_EQ(CU_OK, cu_iconv_open_1(&info, CU_ICONV_FROM_TABLE, &from.h));
    constexpr int kThreads = 4;
    constexpr int kRounds = 1500;
    std::vector<int> failures(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                // Each thread's text differs, so a conversion that picked up
                // another thread's state or output shows.
                std::string latin1 = "t" + std::to_string(t) + "\xE9" + std::to_string(i) +
                                     std::string(static_cast<size_t>(i % 700), '\xFC');
                std::string utf8;
                std::string back;
                if (str(to.h, latin1, &utf8) != CU_OK) ++failures[t];
                if (buf(from.h, utf8, &back) != CU_OK || back != latin1) ++failures[t];
                // Errors interleaved with good conversions must not leave a
                // descriptor in a state that spoils the next user.
                if (i % 5 == 0 && str(from.h, "\xE2\x82\xAC", &back) != CU_E_ILSEQ) ++failures[t];
            }
        });
    }
    for (auto &th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(0, failures[t]) << "thread " << t;
}

TEST(IconvConcurrencyTest, ManyMoreThreadsThanIdleDescriptors) {
    cu_locale_info_t info = info_for("ISO-8859-1");
    Handle to;
    ASSERT_EQ(CU_OK, cu_iconv_open_1(&info, CU_ICONV_TO_TABLE, &to.h));
    constexpr int kThreads = 24;
    std::vector<int> failures(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                std::string out;
                if (str(to.h, "\xE9\xE8", &out) != CU_OK || out != "\xC3\xA9\xC3\xA8") {
                    ++failures[t];
                }
            }
        });
    }
    for (auto &th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(0, failures[t]) << "thread " << t;
}

}  // namespace
