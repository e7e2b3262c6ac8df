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

using tr_test::ParseRecord;
using tr_test::ReadAll;
using tr_test::ReadLines;
using tr_test::Record;

class RecordTest : public tr_test::TraceFixture {
  protected:
    void TraceTst() { ASSERT_EQ(Register("_TST", "_TST:*=1", trace_file_.c_str(), levels_), 0); }
    std::vector<std::string> Contents(const std::string &path) {
        std::vector<std::string> contents;
        for (const std::string &line : ReadLines(path)) {
            Record r;
            EXPECT_TRUE(ParseRecord(line, &r)) << line;
            contents.push_back(r.content);
        }
        return contents;
    }
    qx_uint8_t levels_[3] = {};
};

using Lines = std::vector<std::string>;

// time (UTC, to the microsecond) pid tid component content, after what the
// file already holds; only traced registered components and categories.
TEST_F(RecordTest, EachKindIsOneLineWithTimePidThreadAndComponent) {
    std::ofstream(trace_file_) << "earlier line\n";
    qx_uint8_t other[3];
    ASSERT_EQ(Register("_OFF", "_TST:API=1", trace_file_.c_str(), other), 0);
    TraceTst();
    time_t before = time(nullptr);
    EXPECT_EQ(tr_record_id_1("_TST", 81), 0);
    EXPECT_EQ(tr_record_values_32_1("_TST", 82, 3, 0u, 7u, 4294967295u), 0);
    EXPECT_EQ(tr_record_values_32_1("_TST", 84, 0), 0);
    EXPECT_EQ(tr_record_error_1("_TST", 0, "sr_i_resolve_path", 123, "sr/sr_i_paths", 0), 0);
    EXPECT_EQ(tr_record_fmt_string_1("_TST", TR_CATEGORY_ALWAYS, "DV|RET|%.3d|%u|%d", 42, 3u, 100),
              0);
    tr_record_fmt_string_1("_TST", -1, "two\nlines\r\n%s\n\n", "end");  // breaks become blanks
    EXPECT_EQ(tr_record_fmt_string_1("_TST", -1, nullptr), 0);
    EXPECT_EQ(tr_record_error_1("_TST", 3, nullptr, 9, nullptr, 0), 0);
    tr_record_id_1("_OFF", 1);
    tr_record_id_1("_NEW", 2);  // never registered
    tr_record_id_1(nullptr, 3);
    tr_record_fmt_string_1("_TST", 5, "category %s", "ignored");
    time_t after = time(nullptr);

    Lines lines = ReadLines(trace_file_);
    ASSERT_EQ(lines.size(), 9u);
    EXPECT_EQ(lines[0], "earlier line");
    const Lines contents = {"ID 81",
                            "VALUES 82 0 7 4294967295",
                            "VALUES 84",
                            "ERROR 0 sr_i_resolve_path sr/sr_i_paths:123",
                            "DV|RET|042|3|100",
                            "two lines  end",
                            "ERROR 3 ? ?:9",
                            "category ignored"};
    for (size_t i = 1; i < lines.size(); ++i) {
        Record r;
        ASSERT_TRUE(ParseRecord(lines[i], &r)) << lines[i];
        EXPECT_EQ(r.pid, getpid());
        EXPECT_EQ(r.tid, syscall(SYS_gettid));
        EXPECT_EQ(r.component, "_TST");
        EXPECT_EQ(r.content, contents[i - 1]);
        struct tm tm = {};
        ASSERT_NE(strptime(lines[i].c_str(), "%Y-%m-%dT%H:%M:%S", &tm), nullptr);
        EXPECT_GE(timegm(&tm), before);
        EXPECT_LE(timegm(&tm), after);
        EXPECT_EQ(lines[i].substr(19, 1) + lines[i].substr(26, 1), ".Z");
    }
}

TEST_F(RecordTest, OffOrLevelsForOtherComponentsOnlyMeanTheFileIsNeverCreated) {
    for (const char *levels : {static_cast<const char *>(nullptr), "_XYZ:*=1"}) {
        ASSERT_EQ(Register("_TST", levels, trace_file_.c_str(), levels_), 0);
        EXPECT_EQ(tr_i_active.load(), 0);
        tr_record_id_1("_TST", 1);
        tr_record_values_32_1("_TST", 2, 1, 0u);
        tr_record_error_1("_TST", 0, "f", 1, "x", 0);
        tr_record_fmt_string_1("_TST", -1, "DV|X|%d", 1);
        EXPECT_EQ(tr_flush_1(), 0);
        EXPECT_NE(access(trace_file_.c_str(), F_OK), 0);
    }
}

TEST_F(RecordTest, NamingAnotherFileMovesLaterRecordsThereAndLongOnesAreCutToOneLine) {
    TraceTst();
    tr_record_id_1("_TST", 1);
    std::string second = dir_ + "/second.log";
    ASSERT_EQ(Register("_TST", "_TST:*=1", second.c_str(), levels_), 0);
    tr_record_fmt_string_1("_TST", -1, "%s", std::string(10000, 'x').c_str());
    EXPECT_EQ(Contents(trace_file_), Lines{"ID 1"});
    std::string all = ReadAll(second);
    EXPECT_EQ(all.size(), static_cast<size_t>(TR_I_MAX_RECORD));
    EXPECT_EQ(all.find('\n'), all.size() - 1);
    int fd = tr_i_sink_fd.load();  // with the flags of the first
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
    int rc = Register("_TST", "_TST:API=1", nullptr, levels_);
    tr_record_id_1("_TST", 77);
    dup2(saved, STDERR_FILENO);
    close(saved);
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(Contents(trace_file_), Lines{"ID 77"});
}

// An unopenable file and a failing write are swallowed, errno left alone.
TEST_F(RecordTest, FileFailuresAreSwallowed) {
    std::string bad = dir_ + "/missing/dir/trace.log";
    ASSERT_EQ(Register("_TST", "_TST:*=1", bad.c_str(), levels_), 0);
    EXPECT_EQ(levels_[0], 1);  // the caller still learns its levels
    EXPECT_EQ(tr_record_id_1("_TST", 1), 0);
    EXPECT_EQ(tr_i_active.load(), 0);
    TraceTst();
    int read_only = open(trace_file_.c_str(), O_RDONLY);
    ASSERT_GE(read_only, 0);
    tr_i_sink_fd.store(read_only);  // every write now fails with EBADF
    errno = ENOSPC;
    EXPECT_EQ(tr_record_fmt_string_1("_TST", -1, "lost %d", 1), 0);
    EXPECT_EQ(errno, ENOSPC);
    close(read_only);
}

}  // namespace
