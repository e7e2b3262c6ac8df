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

// The registry's system-call message, word for word.
constexpr const char *kSyscallText =
    "2605-010 The %1$s system call unexpectedly returned an errno of %2$d to the %3$s function "
    "near line %4$d of file %5$s, version %6$s.\n";

class ErrorRecordTest : public ::testing::Test {
  protected:
    void SetUp() override { cu_set_no_error_1(); }
    void TearDown() override { cu_set_no_error_1(); }
};

TEST_F(ErrorRecordTest, NoRecordGivesIdZeroAndEmptyMessage) {
    cu_error_t *rec = nullptr;
    ASSERT_EQ(CU_OK, cu_get_error_1(&rec));
    ASSERT_NE(nullptr, rec);
    EXPECT_EQ(0, rec->cu_error_id);
    EXPECT_EQ(0u, rec->cu_arg_cnt);
    EXPECT_EQ(nullptr, rec->cu_msg_default);
    char *msg = nullptr;
    ASSERT_EQ(CU_OK, cu_get_errmsg_1(rec, &msg));
    EXPECT_STREQ("", msg);
    cu_rel_errmsg_1(msg);
    cu_rel_error_1(rec);
}

TEST_F(ErrorRecordTest, CopyCarriesEveryFieldAndTypedValue) {
    ASSERT_EQ(CU_OK, cu_set_error_1(10, "ffdc-1", "qx_sr.cat", 1, 1, kSyscallText, "fdatasync", 5,
                                    "sr_i_write", 321, "sr/sr_i_files", "1.7"));
    cu_error_t *rec = nullptr;
    ASSERT_EQ(CU_OK, cu_get_error_1(&rec));
    // The copy must outlive the thread's record.
    cu_set_no_error_1();
    EXPECT_EQ(10, rec->cu_error_id);
    EXPECT_STREQ("ffdc-1", rec->cu_ffdc_id);
    EXPECT_STREQ("qx_sr.cat", rec->cu_msg_cat);
    EXPECT_EQ(1, rec->cu_msg_set);
    EXPECT_EQ(1, rec->cu_msg_num);
    EXPECT_STREQ(kSyscallText, rec->cu_msg_default);
    ASSERT_EQ(6u, rec->cu_arg_cnt);
    const cu_error_arg_type_t expected[6] = {CU_ERROR_ARG_CHAR_STR, CU_ERROR_ARG_INT32,
                                             CU_ERROR_ARG_CHAR_STR, CU_ERROR_ARG_INT32,
                                             CU_ERROR_ARG_CHAR_STR, CU_ERROR_ARG_CHAR_STR};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(expected[i], rec->cu_args[i].cu_arg_type) << i;
    EXPECT_STREQ("fdatasync", rec->cu_args[0].cu_arg_value.cu_arg_char_str);
    EXPECT_EQ(5, rec->cu_args[1].cu_arg_value.cu_arg_int32);
    EXPECT_EQ(321, rec->cu_args[3].cu_arg_value.cu_arg_int32);
    EXPECT_STREQ("1.7", rec->cu_args[5].cu_arg_value.cu_arg_char_str);
    cu_rel_error_1(rec);
}

TEST_F(ErrorRecordTest, NullFfdcAndCatalogueStayNull) {
    ASSERT_EQ(CU_OK, cu_set_error_1(14, nullptr, nullptr, 1, 5, "table unreadable\n"));
    cu_error_t *rec = nullptr;
    ASSERT_EQ(CU_OK, cu_get_error_1(&rec));
    EXPECT_EQ(nullptr, rec->cu_ffdc_id);
    EXPECT_EQ(nullptr, rec->cu_msg_cat);
    EXPECT_EQ(0u, rec->cu_arg_cnt);
    cu_rel_error_1(rec);
    EXPECT_EQ("table unreadable\n", current_message());
}

TEST_F(ErrorRecordTest, NoErrorClearsTheRecord) {
    cu_set_error_1(200, nullptr, nullptr, 1, 17, "gone\n");
    ASSERT_EQ(200, current_error_id());
    EXPECT_EQ(CU_OK, cu_set_no_error_1());
    EXPECT_EQ(0, current_error_id());
    EXPECT_EQ("", current_message());
    // Clearing twice is harmless.
    EXPECT_EQ(CU_OK, cu_set_no_error_1());
    EXPECT_EQ(0, current_error_id());
}

TEST_F(ErrorRecordTest, LaterErrorReplacesEarlierOne) {
    cu_set_error_1(102, nullptr, nullptr, 1, 9, "%1$s is an invalid pathname.\n",
                   "/a/much/longer/path/than/the/next");
    cu_set_error_1(100, nullptr, nullptr, 1, 7, "invalid handle\n");
    EXPECT_EQ(100, current_error_id());
    EXPECT_EQ("invalid handle\n", current_message());
    // A longer record after a shorter one must not be cut to the old size.
    std::string long_path(3000, 'p');
    cu_set_error_1(102, nullptr, nullptr, 1, 9, "%1$s is an invalid pathname.\n",
                   long_path.c_str());
    EXPECT_EQ(long_path + " is an invalid pathname.\n", current_message());
}

TEST_F(ErrorRecordTest, CallerTextIsCopiedWhenRecorded) {
    char path[] = "/first";
    cu_set_error_1(102, nullptr, nullptr, 1, 9, "%1$s is bad\n", path);
    strcpy(path, "/other");
    EXPECT_EQ("/first is bad\n", current_message());
}

TEST_F(ErrorRecordTest, NullTextValueIsRecordedAsNullMarker) {
    cu_set_error_1(102, nullptr, nullptr, 1, 9, "%1$s is an invalid pathname.\n",
                   static_cast<const char *>(nullptr));
    EXPECT_EQ("(null) is an invalid pathname.\n", current_message());
}

TEST_F(ErrorRecordTest, HugeValueSurvivesAndIsReleasedOnClear) {
    std::string big(200000, 'x');
    ASSERT_EQ(CU_OK, cu_set_error_1(15, nullptr, nullptr, 1, 6, "[%1$s]", big.c_str()));
    EXPECT_EQ("[" + big + "]", current_message());
    cu_set_no_error_1();
    cu_set_error_1(13, nullptr, nullptr, 1, 4, "full\n");
    EXPECT_EQ("full\n", current_message());
}

TEST_F(ErrorRecordTest, NullPointersAreRejected) {
    EXPECT_EQ(CU_E_INVAL, cu_get_error_1(nullptr));
    char *msg = nullptr;
    EXPECT_EQ(CU_E_INVAL, cu_get_errmsg_1(nullptr, &msg));
    cu_error_t rec{};
    EXPECT_EQ(CU_E_INVAL, cu_get_errmsg_1(&rec, nullptr));
    EXPECT_EQ(CU_OK, cu_rel_error_1(nullptr));
    EXPECT_EQ(CU_OK, cu_rel_errmsg_1(nullptr));
}

// --- substitution -------------------------------------------------------

class MessageFormatTest : public ErrorRecordTest {};

TEST_F(MessageFormatTest, RegistrySystemCallMessageReadsInFull) {
    cu_set_error_1(10, nullptr, nullptr, 1, 1, kSyscallText, "fdatasync", 5, "sr_i_sync", 88,
                   "sr/sr_i_files", "1.3");
    EXPECT_EQ(
        "2605-010 The fdatasync system call unexpectedly returned an errno of 5 to the sr_i_sync "
        "function near line 88 of file sr/sr_i_files, version 1.3.\n",
        current_message());
}

TEST_F(MessageFormatTest, PositionsOutOfOrderTakeValuesByPosition) {
    // Values are passed in position order; the text uses them the other way round.
    cu_set_error_1(1, nullptr, nullptr, 1, 1, "%2$d comes before %1$s", "name", 42);
    EXPECT_EQ("42 comes before name", current_message());
    cu_error_t *rec = nullptr;
    ASSERT_EQ(CU_OK, cu_get_error_1(&rec));
    ASSERT_EQ(2u, rec->cu_arg_cnt);
    EXPECT_EQ(CU_ERROR_ARG_CHAR_STR, rec->cu_args[0].cu_arg_type);
    EXPECT_EQ(CU_ERROR_ARG_INT32, rec->cu_args[1].cu_arg_type);
    cu_rel_error_1(rec);
}

TEST_F(MessageFormatTest, SamePositionMayBeUsedTwice) {
    cu_set_error_1(1, nullptr, nullptr, 1, 1, "%1$s/%2$d/%1$s", "a", 3);
    EXPECT_EQ("a/3/a", current_message());
}

TEST_F(MessageFormatTest, SixtyFourBitValuesKeepEveryBit) {
    cu_set_error_1(1, nullptr, nullptr, 1, 1, "%1$lld %2$llu %3$llx %4$ld %5$lu",
                   static_cast<long long>(INT64_MIN), static_cast<unsigned long long>(UINT64_MAX),
                   0xdeadbeefcafeULL, -5000000000LL, 6000000000ULL);
    EXPECT_EQ("-9223372036854775808 18446744073709551615 deadbeefcafe -5000000000 6000000000",
              current_message());
    cu_error_t *rec = nullptr;
    ASSERT_EQ(CU_OK, cu_get_error_1(&rec));
    EXPECT_EQ(CU_ERROR_ARG_INT64, rec->cu_args[0].cu_arg_type);
    EXPECT_EQ(CU_ERROR_ARG_UINT64, rec->cu_args[1].cu_arg_type);
    EXPECT_EQ(INT64_MIN, rec->cu_args[0].cu_arg_value.cu_arg_int64);
    cu_rel_error_1(rec);
}

TEST_F(MessageFormatTest, ThirtyTwoBitUnsignedAndCharConversions) {
    cu_set_error_1(1, nullptr, nullptr, 1, 1, "%1$u %2$x %3$X %4$o %5$c %6$i", 4000000000u, 255u,
                   0xabcu, 8u, 'Q', -7);
    EXPECT_EQ("4000000000 ff ABC 10 Q -7", current_message());
}

TEST_F(MessageFormatTest, FloatingValues) {
    cu_set_error_1(1, nullptr, nullptr, 1, 1, "%1$g %2$.2f %3$e", 0.5, 3.14159, 1e10);
    EXPECT_EQ("0.5 3.14 1.000000e+10", current_message());
}

TEST_F(MessageFormatTest, PlainConversionsTakeValuesInOrder) {
    cu_set_error_1(1, nullptr, nullptr, 1, 1, "%s=%d (%s)", "rows", 12, "ok");
    EXPECT_EQ("rows=12 (ok)", current_message());
}

TEST_F(MessageFormatTest, WidthPrecisionAndFlags) {
    cu_set_error_1(1, nullptr, nullptr, 1, 1, "[%1$5d|%2$-4s|%3$.3d|%4$+d|%5$08.3f|%6$.2s]", 42,
                   "ab", 7, 9, 3.14159, "xyz");
    EXPECT_EQ("[   42|ab  |007|+9|0003.142|xy]", current_message());
}

TEST_F(MessageFormatTest, StarWidthTakesItsOwnValue) {
    cu_set_error_1(1, nullptr, nullptr, 1, 1, "[%*d][%-*s]", 5, 42, 3, "a");
    EXPECT_EQ("[   42][a  ]", current_message());
    cu_set_error_1(1, nullptr, nullptr, 1, 1, "[%*s]", -4, "b");
    EXPECT_EQ("[b   ]", current_message());
}

TEST_F(MessageFormatTest, PercentSignsThatAreNotConversionsStayText) {
    cu_set_error_1(1, nullptr, nullptr, 1, 1, "100%% of %1$s; %n and %m stay; trailing %", "it");
    EXPECT_EQ("100% of it; %n and %m stay; trailing %", current_message());
    cu_error_t *rec = nullptr;
    ASSERT_EQ(CU_OK, cu_get_error_1(&rec));
    EXPECT_EQ(1u, rec->cu_arg_cnt);  // %n and %m consumed nothing
    cu_rel_error_1(rec);
}

TEST_F(MessageFormatTest, PositionBeyondTheLimitIsText) {
    cu_set_error_1(1, nullptr, nullptr, 1, 1, "%1$d %17$d", 1);
    EXPECT_EQ("1 %17$d", current_message());
}

TEST_F(MessageFormatTest, SixteenValuesAreAllKept) {
    cu_set_error_1(1, nullptr, nullptr, 1, 1,
                   "%16$d%15$d%14$d%13$d%12$d%11$d%10$d%9$d%8$d%7$d%6$d%5$d%4$d%3$d%2$d%1$d", 0, 1,
                   2, 3, 4, 5, 6, 7, 8, 9, 0, 1, 2, 3, 4, 5);
    EXPECT_EQ("5432109876543210", current_message());
}

TEST_F(MessageFormatTest, SkippedPositionStopsValueCollectionSafely) {
    // Value 1 has no conversion, so its type is unknown and nothing can be
    // read past it: the record keeps no values and the text shows "?".
    cu_set_error_1(1, nullptr, nullptr, 1, 1, "only %2$s", "one", "two");
    cu_error_t *rec = nullptr;
    ASSERT_EQ(CU_OK, cu_get_error_1(&rec));
    EXPECT_EQ(0u, rec->cu_arg_cnt);
    cu_rel_error_1(rec);
    EXPECT_EQ("only ?", current_message());
}

// Records built by hand stand for catalogue texts that disagree with the
// values recorded from the default text.
class MismatchedTextTest : public ::testing::Test {
  protected:
    std::string format(const char *text) {
        cu_error_t rec{};
        rec.cu_error_id = 1;
        rec.cu_msg_default = const_cast<char *>(text);
        rec.cu_arg_cnt = 3;
        rec.cu_args = args_;
        char *msg = nullptr;
        if (cu_get_errmsg_1(&rec, &msg) != CU_OK) return "<failed>";
        std::string out(msg);
        cu_rel_errmsg_1(msg);
        return out;
    }
    void SetUp() override {
        args_[0].cu_arg_type = CU_ERROR_ARG_INT32;
        args_[0].cu_arg_value.cu_arg_int32 = -1;
        args_[1].cu_arg_type = CU_ERROR_ARG_CHAR_STR;
        args_[1].cu_arg_value.cu_arg_char_str = const_cast<char *>("text");
        args_[2].cu_arg_type = CU_ERROR_ARG_FLOAT64;
        args_[2].cu_arg_value.cu_arg_float64 = 2.5;
    }
    cu_error_arg_t args_[3] = {};
};

TEST_F(MismatchedTextTest, TextConversionOfANumberPrintsQuestionMark) {
    EXPECT_EQ("[?]", format("[%1$s]"));
    EXPECT_EQ("[?]", format("[%3$s]"));
}

TEST_F(MismatchedTextTest, NumberConversionOfTextPrintsQuestionMark) {
    EXPECT_EQ("[?][?][?]", format("[%2$d][%2$f][%2$c]"));
    EXPECT_EQ("[?]", format("[%3$d]"));
    EXPECT_EQ("[?]", format("[%1$f]"));
}

TEST_F(MismatchedTextTest, PositionWithoutValuePrintsQuestionMark) {
    EXPECT_EQ("[?] text", format("[%4$s] %2$s"));
}

TEST_F(MismatchedTextTest, IntegerConversionsReadAnyRecordedWidth) {
    // Like printf with an int: -1 through %x is the 32-bit pattern.
    EXPECT_EQ("ffffffff -1 -1", format("%1$x %1$lld %1$d"));
}

TEST_F(MismatchedTextTest, StarWidthFromTextPrintsQuestionMark) {
    EXPECT_EQ("[?]", format("[%1$*2$d]"));
    // A negative width from a number left-justifies, as in printf.
    EXPECT_EQ("[text]", format("[%2$*1$s]"));
}

TEST_F(MismatchedTextTest, ValuesArrayMissingIsTreatedAsNone) {
    cu_error_t rec{};
    rec.cu_error_id = 1;
    rec.cu_msg_default = const_cast<char *>("%1$d");
    rec.cu_arg_cnt = 5;  // a count with no array
    char *msg = nullptr;
    ASSERT_EQ(CU_OK, cu_get_errmsg_1(&rec, &msg));
    EXPECT_STREQ("?", msg);
    cu_rel_errmsg_1(msg);
}

TEST_F(MismatchedTextTest, HugeWidthIsNotHonoured) {
    EXPECT_EQ("%999999999d", format("%999999999d"));
    // A width taken from a value is bounded the same way, in both signs.
    args_[0].cu_arg_type = CU_ERROR_ARG_INT64;
    args_[0].cu_arg_value.cu_arg_int64 = INT64_MIN;
    EXPECT_EQ("[?]", format("[%2$*1$s]"));
    args_[0].cu_arg_value.cu_arg_int64 = 1000000;
    EXPECT_EQ("[?]", format("[%2$*1$s]"));
}

TEST_F(MismatchedTextTest, FlagsTheConversionDoesNotDefineAreDropped) {
    EXPECT_EQ("[text ]", format("[%2$#0-5s]"));
    EXPECT_EQ("[-1]", format("[%1$#d]"));
    EXPECT_EQ("[0xffffffff]", format("[%1$#x]"));
}

TEST_F(MismatchedTextTest, HandBuiltNullTextPrintsNullMarker) {
    args_[1].cu_arg_value.cu_arg_char_str = nullptr;
    EXPECT_EQ("[(null)]", format("[%2$s]"));
}

// --- threads --------------------------------------------------------------

TEST(ErrorRecordConcurrencyTest, EachThreadKeepsItsOwnRecord) {
    std::barrier sync(2);
    std::string seen_a;
    std::string seen_b;
    qx_int32_t id_after_clear_b = -1;
    std::string a_after_b_cleared;
    std::thread a([&] {
        cu_set_error_1(201, nullptr, nullptr, 1, 18, "thread %1$s\n", "A");
        sync.arrive_and_wait();  // both have recorded
        seen_a = current_message();
        sync.arrive_and_wait();  // B clears its own
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
    EXPECT_EQ("thread A\n", seen_a);
    EXPECT_EQ("thread B\n", seen_b);
    EXPECT_EQ(0, id_after_clear_b);
    EXPECT_EQ("thread A\n", a_after_b_cleared);
}

TEST(ErrorRecordConcurrencyTest, NewThreadStartsWithoutRecord) {
    cu_set_error_1(12, nullptr, nullptr, 1, 3, "main thread\n");
    qx_int32_t id_in_thread = -1;
    std::thread t([&] { id_in_thread = current_error_id(); });
    t.join();
    EXPECT_EQ(0, id_in_thread);
    EXPECT_EQ(12, current_error_id());
    cu_set_no_error_1();
}

TEST(ErrorRecordConcurrencyTest, ThreadsRecordingAndClearingConcurrently) {
    // Threads that exit holding a record must not leak it (LeakSanitizer
    // checks), and no thread ever sees another's values.
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    std::vector<std::thread> threads;
    std::vector<int> mismatches(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &mismatches] {
            for (int i = 0; i < kRounds; ++i) {
                cu_set_error_1(10 + t, nullptr, nullptr, 1, 1, "t%1$d i%2$d %3$s", t, i,
                               i % 2 ? "odd" : "even");
                std::string want =
                    "t" + std::to_string(t) + " i" + std::to_string(i) + (i % 2 ? " odd" : " even");
                if (current_message() != want) ++mismatches[t];
                if (i % 3 == 0) cu_set_no_error_1();
            }
        });
    }
    for (auto &th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(0, mismatches[t]) << "thread " << t;
}

}  // namespace
