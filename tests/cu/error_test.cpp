// The per-thread error record: what is stored, what a copy carries, how the
// message is substituted, and that each thread keeps its own record.
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <barrier>
#include <string>
#include <thread>
#include <vector>

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

class ErrorRecordTest : public ::testing::Test {
  protected:
    void SetUp() override { cu_set_no_error_1(); }
    void TearDown() override { cu_set_no_error_1(); }
};

TEST_F(ErrorRecordTest, ACopyCarriesEveryFieldAndOutlivesTheRecord) {
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
    const cu_error_arg_type_t types[6] = {CU_ERROR_ARG_CHAR_STR, CU_ERROR_ARG_INT32,
                                          CU_ERROR_ARG_CHAR_STR, CU_ERROR_ARG_INT32,
                                          CU_ERROR_ARG_CHAR_STR, CU_ERROR_ARG_CHAR_STR};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(types[i], rec->cu_args[i].cu_arg_type) << i;
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
    EXPECT_EQ(0, current_error_id());

    ASSERT_EQ(CU_OK, cu_set_error_1(14, nullptr, nullptr, 1, 5, "table unreadable\n"));
    ASSERT_EQ(CU_OK, cu_get_error_1(&rec));
    EXPECT_EQ(nullptr, rec->cu_ffdc_id);
    EXPECT_EQ(nullptr, rec->cu_msg_cat);
    cu_rel_error_1(rec);
    EXPECT_EQ("table unreadable\n", current_message());
    EXPECT_EQ(CU_OK, cu_set_no_error_1());
    EXPECT_EQ(CU_OK, cu_set_no_error_1());  // clearing twice is harmless
    EXPECT_EQ(0, current_error_id());
}

TEST_F(ErrorRecordTest, LaterErrorsReplaceEarlierOnesAndTextIsCopied) {
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
}

TEST_F(ErrorRecordTest, ValuesAreSubstitutedByPositionWithPrintfConversions) {
    EXPECT_EQ("42 comes before name", fmt("%2$d comes before %1$s", "name", 42));
    EXPECT_EQ("a/3/a", fmt("%1$s/%2$d/%1$s", "a", 3));
    EXPECT_EQ("-9223372036854775808 18446744073709551615 deadbeefcafe -5000000000 6000000000",
              fmt("%1$lld %2$llu %3$llx %4$ld %5$lu", static_cast<long long>(INT64_MIN),
                  static_cast<unsigned long long>(UINT64_MAX), 0xdeadbeefcafeULL, -5000000000LL,
                  6000000000ULL));
    cu_error_t *rec = nullptr;
    ASSERT_EQ(CU_OK, cu_get_error_1(&rec));
    EXPECT_EQ(CU_ERROR_ARG_INT64, rec->cu_args[0].cu_arg_type);
    EXPECT_EQ(CU_ERROR_ARG_UINT64, rec->cu_args[1].cu_arg_type);
    EXPECT_EQ(INT64_MIN, rec->cu_args[0].cu_arg_value.cu_arg_int64);
    cu_rel_error_1(rec);
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
    // %n and %m consume nothing; a skipped position stops value collection
    // (its type is unknown, so nothing past it can be read).
    EXPECT_EQ("100% of it; %n and %m stay; trailing %",
              fmt("100%% of %1$s; %n and %m stay; trailing %", "it"));
    EXPECT_EQ("only ?", fmt("only %2$s", "one", "two"));
    ASSERT_EQ(CU_OK, cu_get_error_1(&rec));
    EXPECT_EQ(0u, rec->cu_arg_cnt);
    cu_rel_error_1(rec);
}

// Records built by hand stand for catalogue texts that disagree with the
// values recorded from the default text: mismatches print "?".
TEST(MismatchedTextTest, ConversionsThatDoNotFitTheRecordedValuesPrintQuestionMarks) {
    cu_error_arg_t args[3] = {};
    args[0].cu_arg_type = CU_ERROR_ARG_INT32;
    args[0].cu_arg_value.cu_arg_int32 = -1;
    args[1].cu_arg_type = CU_ERROR_ARG_CHAR_STR;
    args[1].cu_arg_value.cu_arg_char_str = const_cast<char *>("text");
    args[2].cu_arg_type = CU_ERROR_ARG_FLOAT64;
    args[2].cu_arg_value.cu_arg_float64 = 2.5;
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

TEST(ErrorRecordConcurrencyTest, EachThreadKeepsItsOwnRecord) {
    cu_set_error_1(12, nullptr, nullptr, 1, 3, "main thread\n");
    std::barrier sync(2);
    std::string seen_a, seen_b, a_after_b_cleared;
    qx_int32_t id_at_start = -1, id_after_clear_b = -1;
    std::thread a([&] {
        id_at_start = current_error_id();
        cu_set_error_1(201, nullptr, nullptr, 1, 18, "thread %1$s\n", "A");
        sync.arrive_and_wait();
        seen_a = current_message();
        sync.arrive_and_wait();
        sync.arrive_and_wait();
        a_after_b_cleared = current_message();
    });
    std::thread b([&] {
        cu_set_error_1(202, nullptr, nullptr, 1, 19, "thread %1$s\n", "B");
        sync.arrive_and_wait();
        seen_b = current_message();
        sync.arrive_and_wait();
        cu_set_no_error_1();
        id_after_clear_b = current_error_id();
        sync.arrive_and_wait();
    });
    a.join();
    b.join();
    EXPECT_EQ(0, id_at_start);
    EXPECT_EQ("thread A\n", seen_a);
    EXPECT_EQ("thread B\n", seen_b);
    EXPECT_EQ(0, id_after_clear_b);
    EXPECT_EQ("thread A\n", a_after_b_cleared);
    EXPECT_EQ(12, current_error_id());
    cu_set_no_error_1();
}

// Threads that exit holding a record must not leak it (LeakSanitizer
// checks), and no thread ever sees another's values.
TEST(ErrorRecordConcurrencyTest, ThreadsRecordingAndClearingConcurrently) {
    std::vector<std::thread> threads;
    std::vector<int> mismatches(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &mismatches] {
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
}

}  // namespace
