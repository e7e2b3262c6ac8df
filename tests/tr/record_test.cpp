// Records: their line layout, where they go, and when nothing is written.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "tr/tr_test_util.h"

namespace {

using tr_test::FileExists;
using tr_test::ParseRecord;
using tr_test::ReadAll;
using tr_test::ReadLines;
using tr_test::Record;

class RecordTest : public tr_test::TraceFixture {
  protected:
    void TraceTst() { ASSERT_EQ(Register("_TST", "_TST:*=1", trace_file_.c_str(), levels_), 0); }
    qx_uint8_t levels_[3] = {};
};

TEST_F(RecordTest, EachKindIsOneLineWithTimePidThreadAndComponent) {
    TraceTst();
    EXPECT_EQ(tr_record_id_1("_TST", 81), 0);
    EXPECT_EQ(tr_record_values_32_1("_TST", 82, 3, 0u, 7u, 4294967295u), 0);
    EXPECT_EQ(tr_record_values_32_1("_TST", 84, 0), 0);
    EXPECT_EQ(tr_record_error_1("_TST", 0, "sr_i_resolve_path", 123, "sr/sr_i_paths", 0), 0);
    EXPECT_EQ(tr_record_fmt_string_1("_TST", TR_CATEGORY_ALWAYS, "DV|RET|%.3d|%u|%d", 42, 3u, 100),
              0);

    auto lines = ReadLines(trace_file_);
    ASSERT_EQ(lines.size(), 5u);
    const char *contents[5] = {"ID 81", "VALUES 82 0 7 4294967295", "VALUES 84",
                               "ERROR 0 sr_i_resolve_path sr/sr_i_paths:123", "DV|RET|042|3|100"};
    for (size_t i = 0; i < 5; ++i) {
        Record r;
        ASSERT_TRUE(ParseRecord(lines[i], &r)) << lines[i];
        EXPECT_EQ(r.pid, getpid());
        EXPECT_EQ(r.tid, syscall(SYS_gettid));
        EXPECT_EQ(r.component, "_TST");
        EXPECT_EQ(r.content, contents[i]);
    }
}

TEST_F(RecordTest, TimeIsUtcToTheMicrosecond) {
    TraceTst();
    time_t before = time(nullptr);
    tr_record_id_1("_TST", 1);
    time_t after = time(nullptr);
    auto lines = ReadLines(trace_file_);
    ASSERT_EQ(lines.size(), 1u);
    struct tm tm = {};
    ASSERT_NE(strptime(lines[0].c_str(), "%Y-%m-%dT%H:%M:%S", &tm), nullptr);
    time_t written = timegm(&tm);
    EXPECT_GE(written, before);
    EXPECT_LE(written, after);
    EXPECT_EQ(lines[0][19], '.');
    EXPECT_EQ(lines[0][26], 'Z');
}

TEST_F(RecordTest, OffMeansTheFileIsNeverCreated) {
    ASSERT_EQ(Register("_TST", nullptr, trace_file_.c_str(), levels_), 0);
    EXPECT_EQ(tr_i_active.load(), 0);
    tr_record_id_1("_TST", 1);
    tr_record_values_32_1("_TST", 2, 1, 0u);
    tr_record_error_1("_TST", 0, "f", 1, "x", 0);
    tr_record_fmt_string_1("_TST", -1, "DV|X|%d", 1);
    EXPECT_EQ(tr_flush_1(), 0);
    EXPECT_FALSE(FileExists(trace_file_));
}

TEST_F(RecordTest, LevelsForOtherComponentsOnlyLeaveTheFileUncreated) {
    ASSERT_EQ(Register("_TST", "_XYZ:*=1", trace_file_.c_str(), levels_), 0);
    tr_record_id_1("_TST", 1);
    EXPECT_FALSE(FileExists(trace_file_));
}

TEST_F(RecordTest, OnlyTracedRegisteredComponentsAreWritten) {
    qx_uint8_t other[3];
    ASSERT_EQ(Register("_OFF", "_TST:API=1", trace_file_.c_str(), other), 0);
    TraceTst();
    tr_record_id_1("_OFF", 1);
    tr_record_id_1("_NEW", 2); /* never registered */
    tr_record_id_1(nullptr, 3);
    tr_record_fmt_string_1("_TST", 5, "category %s", "ignored");
    auto lines = ReadLines(trace_file_);
    ASSERT_EQ(lines.size(), 1u);
    Record r;
    ASSERT_TRUE(ParseRecord(lines[0], &r));
    EXPECT_EQ(r.content, "category ignored");
}

TEST_F(RecordTest, AppendsAfterWhatTheFileAlreadyHolds) {
    {
        std::ofstream out(trace_file_);
        out << "earlier line\n";
    }
    TraceTst();
    tr_record_id_1("_TST", 5);
    auto lines = ReadLines(trace_file_);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "earlier line");
    EXPECT_NE(lines[1].find(" _TST ID 5"), std::string::npos);
}

TEST_F(RecordTest, LineBreaksInsideAFormattedRecordBecomeBlanks) {
    TraceTst();
    tr_record_fmt_string_1("_TST", -1, "two\nlines\r\n%s\n\n", "end");
    auto lines = ReadLines(trace_file_);
    ASSERT_EQ(lines.size(), 1u);
    Record r;
    ASSERT_TRUE(ParseRecord(lines[0], &r));
    EXPECT_EQ(r.content, "two lines  end");
}

TEST_F(RecordTest, OverlongRecordIsCutToOneWholeLine) {
    TraceTst();
    std::string big(10000, 'x');
    tr_record_fmt_string_1("_TST", -1, "%s", big.c_str());
    std::string all = ReadAll(trace_file_);
    EXPECT_EQ(all.size(), static_cast<size_t>(TR_I_MAX_RECORD));
    EXPECT_EQ(all.back(), '\n');
    EXPECT_EQ(all.find('\n'), all.size() - 1);
}

TEST_F(RecordTest, NullFormatOrNamesWriteNothingHarmful) {
    TraceTst();
    EXPECT_EQ(tr_record_fmt_string_1("_TST", -1, nullptr), 0);
    EXPECT_EQ(tr_record_error_1("_TST", 3, nullptr, 9, nullptr, 0), 0);
    auto lines = ReadLines(trace_file_);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(" ERROR 3 ? ?:9"), std::string::npos);
}

TEST_F(RecordTest, NamingAnotherFileMovesLaterRecordsThere) {
    TraceTst();
    tr_record_id_1("_TST", 1);
    std::string second = dir_ + "/second.log";
    ASSERT_EQ(Register("_TST", "_TST:*=1", second.c_str(), levels_), 0);
    tr_record_id_1("_TST", 2);
    ASSERT_EQ(ReadLines(trace_file_).size(), 1u);
    auto lines = ReadLines(second);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(" ID 2"), std::string::npos);
    // The new file keeps the close-on-exec flag of the first.
    int fd = tr_i_sink_fd.load();
    ASSERT_GE(fd, 0);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(fcntl(fd, F_GETFL) & O_APPEND, 0);
}

TEST_F(RecordTest, LevelsWithoutAFileGoToStandardError) {
    int saved = dup(STDERR_FILENO);
    ASSERT_GE(saved, 0);
    int capture = open(trace_file_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(capture, 0);
    dup2(capture, STDERR_FILENO);
    close(capture);
    qx_uint8_t bytes[3];
    int rc = Register("_TST", "_TST:API=1", nullptr, bytes);
    tr_record_id_1("_TST", 77);
    dup2(saved, STDERR_FILENO);
    close(saved);
    ASSERT_EQ(rc, 0);
    auto lines = ReadLines(trace_file_);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(" _TST ID 77"), std::string::npos);
}

TEST_F(RecordTest, UnopenableFileIsSwallowed) {
    std::string bad = dir_ + "/missing/dir/trace.log";
    ASSERT_EQ(Register("_TST", "_TST:*=1", bad.c_str(), levels_), 0);
    EXPECT_EQ(levels_[0], 1); /* the caller still learns its levels */
    EXPECT_EQ(tr_record_id_1("_TST", 1), 0);
    EXPECT_EQ(tr_i_active.load(), 0);
}

TEST_F(RecordTest, FailingWriteIsSwallowedAndLeavesErrnoAlone) {
    TraceTst();
    int read_only = open(trace_file_.c_str(), O_RDONLY);
    ASSERT_GE(read_only, 0);
    tr_i_sink_fd.store(read_only); /* every write now fails with EBADF */
    errno = ENOSPC;
    EXPECT_EQ(tr_record_fmt_string_1("_TST", -1, "lost %d", 1), 0);
    EXPECT_EQ(errno, ENOSPC);
    close(read_only);
}

}  // namespace
