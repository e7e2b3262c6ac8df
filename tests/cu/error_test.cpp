// The per-thread error record, message substitution, and catalogues (NLSPATH, installed tree).
#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "cu_i.h"
#include "cu_test_util.h"
#include "qx_cu.h"

namespace {

using cu_test::current_error_id;
using cu_test::current_message;

constexpr const char *kSyscallText =
    "2605-010 The %1$s system call unexpectedly returned an errno of %2$d to the %3$s function "
    "near line %4$d of file %5$s, version %6$s.\n";

template <typename... Args>
std::string fmt(const char *text, Args... args) {
    cu_set_error_1(1, nullptr, nullptr, 1, 1, text, args...);
    return current_message();
}

TEST(ErrorRecordTest, ACopyCarriesEveryFieldAndOutlivesTheRecord) {
    cu_set_no_error_1();
    cu_error_t *rec = nullptr;
    ASSERT_EQ(CU_OK, cu_get_error_1(&rec));
    EXPECT_EQ(0, rec->cu_error_id);
    EXPECT_EQ(0u, rec->cu_arg_cnt);
    EXPECT_EQ(nullptr, rec->cu_msg_default);
    cu_rel_error_1(rec);
    EXPECT_EQ("", current_message());

    ASSERT_EQ(CU_OK, cu_set_error_1(10, "ffdc-1", "qx_sr.cat", 1, 1, kSyscallText, "fdatasync", 5,
                                    "sr_i_write", 321, "sr/sr_i_files", "1.7"));
    ASSERT_EQ(CU_OK, cu_get_error_1(&rec));
    cu_set_no_error_1();
    EXPECT_EQ(10, rec->cu_error_id);
    EXPECT_STREQ("ffdc-1", rec->cu_ffdc_id);
    EXPECT_STREQ("qx_sr.cat", rec->cu_msg_cat);
    EXPECT_EQ(1, rec->cu_msg_set);
    EXPECT_EQ(1, rec->cu_msg_num);
    EXPECT_STREQ(kSyscallText, rec->cu_msg_default);
    ASSERT_EQ(6u, rec->cu_arg_cnt);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(i % 2 && i < 4 ? CU_ERROR_ARG_INT32 : CU_ERROR_ARG_CHAR_STR,
                  rec->cu_args[i].cu_arg_type);
    }
    EXPECT_STREQ("fdatasync", rec->cu_args[0].cu_arg_value.cu_arg_char_str);
    EXPECT_EQ(321, rec->cu_args[3].cu_arg_value.cu_arg_int32);
    char *msg = nullptr;
    ASSERT_EQ(CU_OK, cu_get_errmsg_1(rec, &msg));
    EXPECT_STREQ(
        "2605-010 The fdatasync system call unexpectedly returned an errno of 5 to the sr_i_write "
        "function near line 321 of file sr/sr_i_files, version 1.7.\n",
        msg);
    cu_rel_errmsg_1(msg);
    cu_rel_error_1(rec);
    EXPECT_EQ(CU_OK, cu_set_no_error_1());  // clearing twice is harmless
    EXPECT_EQ(0, current_error_id());
}

TEST(ErrorRecordTest, LaterErrorsReplaceEarlierOnesTextIsCopiedValuesGoByPosition) {
    cu_set_error_1(102, nullptr, nullptr, 1, 9, "%1$s is bad.\n", "/a/much/longer/path/than/next");
    cu_set_error_1(100, nullptr, nullptr, 1, 7, "invalid handle\n");
    EXPECT_EQ(100, current_error_id());
    EXPECT_EQ("invalid handle\n", current_message());
    // A longer record after a shorter one is not cut to the old size.
    std::string big(200000, 'p');
    EXPECT_EQ(big + " is bad.\n", fmt("%1$s is bad.\n", big.c_str()));
    char path[] = "/first";
    cu_set_error_1(102, nullptr, nullptr, 1, 9, "%1$s is bad\n", path);
    strcpy(path, "/other");
    EXPECT_EQ("/first is bad\n", current_message());
    EXPECT_EQ("(null) is bad\n", fmt("%1$s is bad\n", static_cast<const char *>(nullptr)));

    EXPECT_EQ(CU_E_INVAL, cu_get_error_1(nullptr));
    char *msg = nullptr;
    EXPECT_EQ(CU_E_INVAL, cu_get_errmsg_1(nullptr, &msg));
    cu_error_t rec{};
    EXPECT_EQ(CU_E_INVAL, cu_get_errmsg_1(&rec, nullptr));
    EXPECT_EQ(CU_OK, cu_rel_error_1(nullptr));
    EXPECT_EQ(CU_OK, cu_rel_errmsg_1(nullptr));
    // Values are substituted by position with printf conversions.
    EXPECT_EQ("42 comes before name", fmt("%2$d comes before %1$s", "name", 42));
    EXPECT_EQ("a/3/a", fmt("%1$s/%2$d/%1$s", "a", 3));
    EXPECT_EQ("-9223372036854775808 18446744073709551615 deadbeefcafe -5000000000 6000000000",
              fmt("%1$lld %2$llu %3$llx %4$ld %5$lu", static_cast<long long>(INT64_MIN),
                  static_cast<unsigned long long>(UINT64_MAX), 0xdeadbeefcafeULL, -5000000000LL,
                  6000000000ULL));
    cu_error_t *p_rec = nullptr;
    ASSERT_EQ(CU_OK, cu_get_error_1(&p_rec));
    EXPECT_EQ(CU_ERROR_ARG_INT64, p_rec->cu_args[0].cu_arg_type);
    EXPECT_EQ(CU_ERROR_ARG_UINT64, p_rec->cu_args[1].cu_arg_type);
    EXPECT_EQ(INT64_MIN, p_rec->cu_args[0].cu_arg_value.cu_arg_int64);
    cu_rel_error_1(p_rec);
    EXPECT_EQ("4000000000 ff ABC 10 Q -7",
              fmt("%1$u %2$x %3$X %4$o %5$c %6$i", 4000000000u, 255u, 0xabcu, 8u, 'Q', -7));
    EXPECT_EQ("0.5 3.14 1.000000e+10", fmt("%1$g %2$.2f %3$e", 0.5, 3.14159, 1e10));
    EXPECT_EQ("rows=12 (ok)", fmt("%s=%d (%s)", "rows", 12, "ok"));
    EXPECT_EQ("[   42|ab  |007|+9|0003.142|xy]",
              fmt("[%1$5d|%2$-4s|%3$.3d|%4$+d|%5$08.3f|%6$.2s]", 42, "ab", 7, 9, 3.14159, "xyz"));
    EXPECT_EQ("[   42][a  ]", fmt("[%*d][%-*s]", 5, 42, 3, "a"));
    EXPECT_EQ("[b   ]", fmt("[%*s]", -4, "b"));
    EXPECT_EQ("1 %17$d", fmt("%1$d %17$d", 1));  // beyond the sixteen positions
    EXPECT_EQ("5432109876543210",
              fmt("%16$d%15$d%14$d%13$d%12$d%11$d%10$d%9$d%8$d%7$d%6$d%5$d%4$d%3$d%2$d%1$d", 0, 1,
                  2, 3, 4, 5, 6, 7, 8, 9, 0, 1, 2, 3, 4, 5));
    // %n and %m consume nothing; a skipped position (type unknown) stops value collection.
    EXPECT_EQ("100% of it; %n and %m stay; trailing %",
              fmt("100%% of %1$s; %n and %m stay; trailing %", "it"));
    EXPECT_EQ("only ?", fmt("only %2$s", "one", "two"));
    ASSERT_EQ(CU_OK, cu_get_error_1(&p_rec));
    EXPECT_EQ(0u, p_rec->cu_arg_cnt);
    cu_rel_error_1(p_rec);
    // Hand-built records stand for catalogue texts that disagree with the recorded values: "?".
    char text[] = "text";
    cu_error_arg_t args[3] = {{CU_ERROR_ARG_INT32, 0, {.cu_arg_int32 = -1}},
                              {CU_ERROR_ARG_CHAR_STR, 0, {.cu_arg_char_str = text}},
                              {CU_ERROR_ARG_FLOAT64, 0, {.cu_arg_float64 = 2.5}}};
    auto format = [&](const char *text, cu_error_arg_t *p_args = nullptr) {
        cu_error_t rec{};
        rec.cu_error_id = 1;
        rec.cu_msg_default = const_cast<char *>(text);
        rec.cu_arg_cnt = p_args == nullptr ? 5 : 3;  // 5: a count with no array
        rec.cu_args = p_args;
        char *msg = nullptr;
        if (cu_get_errmsg_1(&rec, &msg) != CU_OK) return std::string("<failed>");
        std::string out(msg);
        cu_rel_errmsg_1(msg);
        return out;
    };
    const struct {
        const char *text;
        const char *expected;
    } cases[] = {{"[%1$s][%3$s]", "[?][?]"},
                 {"[%2$d][%2$f][%2$c][%3$d][%1$f]", "[?][?][?][?][?]"},
                 {"[%4$s] %2$s", "[?] text"},
                 {"%1$x %1$lld %1$d", "ffffffff -1 -1"},
                 {"[%1$*2$d]", "[?]"},
                 {"[%2$*1$s]", "[text]"},
                 {"%999999999d", "%999999999d"},
                 {"[%2$#0-5s]", "[text ]"},
                 {"[%1$#d][%1$#x]", "[-1][0xffffffff]"}};
    for (const auto &c : cases) EXPECT_EQ(c.expected, format(c.text, args)) << c.text;
    EXPECT_EQ("?", format("%1$d"));
    // Widths taken from a value are bounded in both signs.
    args[0].cu_arg_type = CU_ERROR_ARG_INT64;
    args[0].cu_arg_value.cu_arg_int64 = INT64_MIN;
    EXPECT_EQ("[?]", format("[%2$*1$s]", args));
    args[0].cu_arg_value.cu_arg_int64 = 1000000;
    EXPECT_EQ("[?]", format("[%2$*1$s]", args));
    args[1].cu_arg_value.cu_arg_char_str = nullptr;
    EXPECT_EQ("[(null)]", format("[%2$s]", args));
}

// Each thread starts clean and keeps its own record; exiting threads leak none (LSan checks).
TEST(ErrorRecordConcurrencyTest, EachThreadKeepsItsOwnRecord) {
    cu_set_error_1(12, nullptr, nullptr, 1, 3, "main thread\n");
    std::vector<std::thread> threads;
    std::vector<int> mismatches(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &mismatches] {
            if (current_error_id() != 0) ++mismatches[t];
            for (int i = 0; i < 2000; ++i) {
                const char *parity = i % 2 ? "odd" : "even";
                std::string want =
                    "t" + std::to_string(t) + " i" + std::to_string(i) + " " + parity;
                if (fmt("t%1$d i%2$d %3$s", t, i, parity) != want) ++mismatches[t];
                if (i % 3 == 0) cu_set_no_error_1();
            }
        });
    }
    for (auto &th : threads) th.join();
    for (int t = 0; t < 4; ++t) EXPECT_EQ(0, mismatches[t]) << "thread " << t;
    EXPECT_EQ("main thread\n", current_message());
    cu_set_no_error_1();
}

constexpr const char *kCatalogue = "qx_cu_test.cat";

bool build_catalogue(const std::string &cat_path, const std::string &source_text) {
    std::ofstream(cat_path + ".msg") << source_text;
    std::string command = "gencat '" + cat_path + "' '" + cat_path + ".msg'";
    int status = system(command.c_str());
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

template <typename... Args>
std::string message(const char *catalogue, int set, int number, const char *text, Args... args) {
    cu_set_error_1(10, nullptr, catalogue, set, number, text, args...);
    return current_message();
}

class CatalogueTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "qx_cu_XXXXXX").string();
        ASSERT_NE(nullptr, mkdtemp(pattern.data()));
        dir_ = pattern;
        if (const char *old = getenv("NLSPATH")) saved_nlspath_ = old;
        saved_datadir_ = cu_i::g_install_datadir;
        if (!build_catalogue(dir_ + "/" + kCatalogue,
                             "$quote \"\n$set 1\n"
                             "1 \"Catalogue: value %2$d belongs to %1$s.\\n\"\n"
                             "2 \"Catalogue text without values.\"\n"
                             "$set 2\n1 \"Second set, %1$s.\"\n")) {
            GTEST_SKIP() << "gencat is not available to build a test catalogue";
        }
        setenv("NLSPATH", (dir_ + "/%N").c_str(), 1);
        cu_set_no_error_1();
    }
    void TearDown() override {
        cu_set_no_error_1();
        cu_i::g_install_datadir = saved_datadir_;
        std::filesystem::remove_all(dir_);
        saved_nlspath_ ? setenv("NLSPATH", saved_nlspath_->c_str(), 1) : unsetenv("NLSPATH");
    }

    std::string dir_;
    std::optional<std::string> saved_nlspath_;
    const char *saved_datadir_ = nullptr;
};

TEST_F(CatalogueTest, CatalogueTextWinsAnythingMissingFallsBackAndTheInstalledTreeIsSearched) {
    EXPECT_EQ("Catalogue: value 7 belongs to table.\n",
              message(kCatalogue, 1, 1, "Default: %1$s has %2$d.\n", "table", 7));
    EXPECT_EQ("Catalogue text without values.", message(kCatalogue, 1, 2, "Default two."));
    EXPECT_EQ("Second set, x.", message(kCatalogue, 2, 1, "Default %1$s.", "x"));
    EXPECT_EQ("Default used.", message(kCatalogue, 1, 99, "Default %1$s.", "used"));
    EXPECT_EQ("Default set 7.", message(kCatalogue, 7, 1, "Default set %1$d.", 7));
    EXPECT_EQ("Default kept.", message("qx_cu_no_such.cat", 1, 1, "Default %1$s.", "kept"));
    EXPECT_EQ("Default only.", message(nullptr, 1, 1, "Default only."));
    // The default text records one value; the catalogue's text wants two.
    EXPECT_EQ("Catalogue: value ? belongs to only.\n",
              message(kCatalogue, 1, 1, "Default %1$s.", "only"));

    cu_set_error_1(10, nullptr, "qx_cu_no_such.cat", 1, 1, "Default.");
    cu_error_t *rec = nullptr;
    ASSERT_EQ(CU_OK, cu_get_error_1(&rec));
    errno = 1234;
    char *msg = nullptr;
    ASSERT_EQ(CU_OK, cu_get_errmsg_1(rec, &msg));
    EXPECT_EQ(1234, errno);  // the lookup leaves errno as it was
    cu_rel_errmsg_1(msg);
    cu_rel_error_1(rec);

    // Without NLSPATH the installed tree is searched, the thread's locale first, then C.
    const std::string datadir = dir_ + "/share";
    std::filesystem::create_directories(datadir + "/qx/nls/C");
    std::filesystem::create_directories(datadir + "/qx/nls/C.UTF-8");
    ASSERT_TRUE(
        build_catalogue(datadir + "/qx/nls/C/" + kCatalogue, "$set 1\n1 Installed C text %1$s.\n"));
    cu_i::g_install_datadir = datadir.c_str();
    // NLSPATH comes before the installed tree.
    EXPECT_EQ("Catalogue text without values.", message(kCatalogue, 1, 2, "Default."));
    unsetenv("NLSPATH");
    EXPECT_EQ("Default without path.", message(kCatalogue, 1, 2, "Default without path."));
    EXPECT_EQ("Installed C text v.", message(kCatalogue, 1, 1, "Default %1$s.", "v"));
    ASSERT_TRUE(build_catalogue(datadir + "/qx/nls/C.UTF-8/" + kCatalogue,
                                "$set 1\n1 Installed UTF-8 text %1$s.\n"));
    cu_test::ThreadLocale utf8("C.UTF-8");
    if (!utf8.loaded()) GTEST_SKIP() << "the C.UTF-8 locale is not installed";
    EXPECT_EQ("Installed UTF-8 text v.", message(kCatalogue, 1, 1, "Default %1$s.", "v"));
}

}  // namespace
