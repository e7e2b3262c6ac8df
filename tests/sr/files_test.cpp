// The file primitives, driven through their system-call seam: interrupted
// calls, short writes and failing disks, checked by the bytes that reach a
// real file, the result codes and messages, the retry records in the trace
// and the errno capture file.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <string>
#include <vector>

#include "sr/test_util.h"
#include "sr_i.h"

using qxtest::last_error;

namespace {

// Whole-text or search match of a POSIX extended expression; the groups of a
// match are returned in *p_groups.  (The C library's matcher keeps these
// tests free of the standard regex templates, which trip GCC's
// maybe-uninitialized analysis in sanitized builds.)
bool ere_match(const std::string &text, const char *pattern, bool whole,
               std::vector<std::string> *p_groups = nullptr) {
    regex_t re;
    std::string anchored = whole ? std::string("^(") + pattern + ")$" : pattern;
    if (regcomp(&re, anchored.c_str(), REG_EXTENDED) != 0) return false;
    regmatch_t m[8];
    bool ok = regexec(&re, text.c_str(), 8, m, 0) == 0;
    if (ok && p_groups != nullptr) {
        p_groups->clear();
        for (int i = 0; i < 8 && m[i].rm_so >= 0; ++i) {
            p_groups->push_back(text.substr(static_cast<size_t>(m[i].rm_so),
                                            static_cast<size_t>(m[i].rm_eo - m[i].rm_so)));
        }
    }
    regfree(&re);
    return ok;
}

}  // namespace

namespace {

SR_SOURCE_FILE("tests/sr/files_test", "9.9");

// One scripted outcome: -1 fails with `error`; n >= 0 lets at most n bytes
// through to the real call.
struct Step {
    ssize_t result;
    int error;
};

std::deque<Step> write_script, writev_script, fdatasync_script, open_script;
std::vector<std::vector<size_t>> writev_lengths;  // element lengths seen per call
std::vector<std::vector<std::string>> writev_contents;
std::vector<unsigned> sleeps;

ssize_t FakeWrite(int fd, const void *p, size_t n) {
    if (write_script.empty()) return write(fd, p, n);
    Step step = write_script.front();
    write_script.pop_front();
    if (step.result < 0) {
        errno = step.error;
        return -1;
    }
    return write(fd, p, std::min(n, static_cast<size_t>(step.result)));
}

ssize_t FakeWritev(int fd, const struct iovec *v, int count) {
    std::vector<size_t> lengths;
    std::vector<std::string> contents;
    std::string all;
    for (int i = 0; i < count; ++i) {
        lengths.push_back(v[i].iov_len);
        contents.emplace_back(static_cast<const char *>(v[i].iov_base), v[i].iov_len);
        all += contents.back();
    }
    writev_lengths.push_back(lengths);
    writev_contents.push_back(contents);
    if (writev_script.empty()) return writev(fd, v, count);
    Step step = writev_script.front();
    writev_script.pop_front();
    if (step.result < 0) {
        errno = step.error;
        return -1;
    }
    return write(fd, all.data(), std::min(all.size(), static_cast<size_t>(step.result)));
}

int FakeFdatasync(int fd) {
    if (fdatasync_script.empty()) return fdatasync(fd);
    Step step = fdatasync_script.front();
    fdatasync_script.pop_front();
    errno = step.error;
    return -1;
}

int FakeOpen(const char *p_path, int flags, mode_t mode) {
    if (!open_script.empty()) {
        Step step = open_script.front();
        open_script.pop_front();
        errno = step.error;
        return -1;
    }
    return open(p_path, flags, mode);
}

int FakeUsleep(unsigned microseconds) {
    sleeps.push_back(microseconds);
    return 0;
}

std::string ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Each test writes a real file in a private directory, which is also the
// working directory (the capture file lands there), with the development
// records of "_SRA" going to a trace file beside it.
class FilesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        write_script.clear();
        writev_script.clear();
        fdatasync_script.clear();
        open_script.clear();
        writev_lengths.clear();
        writev_contents.clear();
        sleeps.clear();
        sr_i_file_ops.p_open = FakeOpen;
        sr_i_file_ops.p_write = FakeWrite;
        sr_i_file_ops.p_writev = FakeWritev;
        sr_i_file_ops.p_fdatasync = FakeFdatasync;
        sr_i_file_ops.p_usleep = FakeUsleep;

        ASSERT_NE(getcwd(saved_cwd_, sizeof saved_cwd_), nullptr);
        ASSERT_EQ(chdir(tmp_.path().c_str()), 0);
        trace_ = tmp_.file("trace.log");
        setenv("QX_TRACE_LEVELS", "_SRA:Wherever=1", 1);
        setenv("QX_TRACE_FILE", trace_.c_str(), 1);
        tr_register_component_1(SR_TRACE_COMPONENT, Sr_Trace_Level_Of_Detail, Sr_Trace_Categories,
                                3);

        data_ = tmp_.file("table");
        fd_ = open(data_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd_, 0);
        cu_set_no_error_1();
    }
    void TearDown() override {
        if (fd_ >= 0) close(fd_);
        sr_i_file_ops = sr_i_default_file_ops;
        unsetenv("QX_TRACE_LEVELS");
        unsetenv("QX_TRACE_FILE");
        tr_register_component_1(SR_TRACE_COMPONENT, Sr_Trace_Level_Of_Detail, Sr_Trace_Categories,
                                3);
        EXPECT_EQ(chdir(saved_cwd_), 0);
    }

    // The retry records written so far, as "<retries>|<limit>".
    std::vector<std::string> RetryRecords() {
        std::vector<std::string> found;
        std::ifstream in(trace_);
        std::string line;
        while (std::getline(in, line)) {
            std::vector<std::string> m;
            if (ere_match(line, " _SRA DV\\|RET\\|([0-9]{3,})\\|([0-9]+\\|[0-9]+)$", false, &m)) {
                found.push_back(m[2]);
            }
        }
        return found;
    }

    std::string Capture() { return ReadFile(tmp_.file("reginfo_pid." + std::to_string(getpid()))); }

    qxtest::TempDir tmp_;
    char saved_cwd_[4096];
    std::string trace_;
    std::string data_;
    int fd_ = -1;
};

TEST_F(FilesTest, WriteRetriesAnInterruptedCallThenSucceedsWithOneRetryRecord) {
    write_script = {{-1, EINTR}, {-1, EINTR}, {-1, EINTR}};
    char text[] = "committed row";
    EXPECT_EQ(sr_i_write(fd_, text, 13), 0);
    EXPECT_EQ(ReadFile(data_), "committed row");
    EXPECT_EQ(sleeps, (std::vector<unsigned>{10000, 10000, 10000}));
    EXPECT_EQ(RetryRecords(), (std::vector<std::string>{"3|100"}));
    EXPECT_EQ(last_error().code, 0);
}

TEST_F(FilesTest, WriteSucceedsAfterAHundredInterruptions) {
    write_script.assign(100, Step{-1, EINTR});
    char text[] = "x";
    EXPECT_EQ(sr_i_write(fd_, text, 1), 0);
    EXPECT_EQ(ReadFile(data_), "x");
    EXPECT_EQ(sleeps.size(), 100u);
    EXPECT_EQ(RetryRecords(), (std::vector<std::string>{"100|100"}));
}

TEST_F(FilesTest, WriteGivesUpOnTheHundredAndFirstInterruption) {
    write_script.assign(101, Step{-1, EINTR});
    char text[] = "x";
    EXPECT_EQ(sr_i_write(fd_, text, 1), 10);
    EXPECT_TRUE(write_script.empty());
    EXPECT_EQ(sleeps.size(), 100u);
    EXPECT_EQ(ReadFile(data_), "");
    EXPECT_EQ(RetryRecords(), (std::vector<std::string>{"100|100"}));
    auto error = last_error();
    EXPECT_EQ(error.code, 10);
    EXPECT_TRUE(ere_match(error.message,
                          "2605-010 The write system call unexpectedly returned an errno "
                          "of 4 to the sr_i_write function near line [0-9]+ of file "
                          "sr/sr_i_files, version 1\\.1\\.\n",
                          true))
        << error.message;
}

TEST_F(FilesTest, WriteResumesShortWritesWithoutCountingRetries) {
    write_script = {{3, 0}, {1, 0}, {-1, EINTR}, {5, 0}};
    char text[] = "0123456789abcdef";
    EXPECT_EQ(sr_i_write(fd_, text, 16), 0);
    EXPECT_EQ(ReadFile(data_), "0123456789abcdef");
    EXPECT_EQ(RetryRecords(), (std::vector<std::string>{"1|100"}));
}

TEST_F(FilesTest, WriteToAFullFilesystemIs13WithoutRetry) {
    write_script = {{-1, ENOSPC}};
    char text[] = "x";
    EXPECT_EQ(sr_i_write(fd_, text, 1), 13);
    EXPECT_TRUE(sleeps.empty());
    EXPECT_TRUE(RetryRecords().empty());
    EXPECT_EQ(last_error().message, "2605-013 The filesystem containing the local tree is full.\n");
}

TEST_F(FilesTest, WriteErrnoMapping) {
    char text[] = "x";
    write_script = {{-1, EACCES}};
    EXPECT_EQ(sr_i_write(fd_, text, 1), 206);
    write_script = {{-1, EIO}};
    EXPECT_EQ(sr_i_write(fd_, text, 1), 10);
    EXPECT_NE(last_error().message.find("errno of 5 to the sr_i_write function"),
              std::string::npos);
    // A table that must exist but is missing reads 200 only where the
    // caller says so.
    EXPECT_EQ(SR_ERROR_FILE("open", ENOENT, false), 10);
    EXPECT_EQ(SR_ERROR_FILE("open", ENOENT, true), 200);
}

TEST_F(FilesTest, RealWriteAndSyncReachTheFile) {
    sr_i_file_ops = sr_i_default_file_ops;
    char text[] = "plain bytes";
    EXPECT_EQ(sr_i_write(fd_, text, 11), 0);
    EXPECT_EQ(sr_i_fdatasync(fd_), 0);
    char a[] = "ab", b[] = "cde";
    struct iovec v[2] = {{a, 2}, {b, 3}};
    qx_uint32_t length = 11;
    EXPECT_EQ(sr_i_writev(fd_, v, 2, 5, &length), 0);
    EXPECT_EQ(length, 16u);
    EXPECT_EQ(ReadFile(data_), "plain bytesabcde");
    // A descriptor that cannot be written: the real errno comes through.
    EXPECT_EQ(sr_i_write(-1, text, 1), 10);
    EXPECT_NE(last_error().message.find("errno of " + std::to_string(EBADF)), std::string::npos);
}

TEST_F(FilesTest, WritevResumesInsideThePartlyWrittenElement) {
    char a[] = "AAAA", b[] = "BBBB", c[] = "CCCC";
    struct iovec v[3] = {{a, 4}, {b, 4}, {c, 4}};
    writev_script = {{5, 0}};
    qx_uint32_t cumulative = 100;
    EXPECT_EQ(sr_i_writev(fd_, v, 3, 12, &cumulative), 0);
    EXPECT_EQ(cumulative, 112u);
    EXPECT_EQ(ReadFile(data_), "AAAABBBBCCCC");
    ASSERT_EQ(writev_lengths.size(), 2u);
    EXPECT_EQ(writev_lengths[1], (std::vector<size_t>{3, 4}));
    EXPECT_EQ(writev_contents[1], (std::vector<std::string>{"BBB", "CCCC"}));
    EXPECT_TRUE(RetryRecords().empty());
}

TEST_F(FilesTest, WritevResumesAcrossEmptyAndWholeElementsOneByteAtATime) {
    char a[] = "ab", c[] = "cd", e[] = "e";
    struct iovec v[5] = {{a, 2}, {a, 0}, {c, 2}, {c, 0}, {e, 1}};
    writev_script.assign(5, Step{1, 0});
    qx_uint32_t cumulative = 0;
    EXPECT_EQ(sr_i_writev(fd_, v, 5, 5, &cumulative), 0);
    EXPECT_EQ(cumulative, 5u);
    EXPECT_EQ(ReadFile(data_), "abcde");
    EXPECT_EQ(writev_lengths.size(), 5u);
    EXPECT_EQ(writev_lengths.back(), (std::vector<size_t>{1}));
}

TEST_F(FilesTest, WritevCountsBytesWrittenBeforeAFailure) {
    char a[] = "AAAA", b[] = "BBBB", c[] = "CCCC";
    struct iovec v[3] = {{a, 4}, {b, 4}, {c, 4}};
    writev_script = {{5, 0}, {-1, ENOSPC}};
    qx_uint32_t cumulative = 0;
    EXPECT_EQ(sr_i_writev(fd_, v, 3, 12, &cumulative), 13);
    EXPECT_EQ(cumulative, 5u);
    EXPECT_EQ(ReadFile(data_), "AAAAB");
}

TEST_F(FilesTest, WritevRetriesInterruptionsAndNamesItselfOnFailure) {
    char a[] = "AAAA";
    struct iovec v[1] = {{a, 4}};
    writev_script = {{-1, EINTR}, {2, 0}, {-1, EINTR}};
    qx_uint32_t cumulative = 0;
    EXPECT_EQ(sr_i_writev(fd_, v, 1, 4, &cumulative), 0);
    EXPECT_EQ(cumulative, 4u);
    EXPECT_EQ(RetryRecords(), (std::vector<std::string>{"2|100"}));

    struct iovec w[1] = {{a, 4}};
    writev_script = {{-1, EIO}};
    EXPECT_EQ(sr_i_writev(fd_, w, 1, 4, &cumulative), 10);
    EXPECT_NE(last_error().message.find("The writev system call unexpectedly returned an errno "
                                        "of 5 to the sr_i_writev function"),
              std::string::npos);
}

TEST_F(FilesTest, WritevTotalBeyondTheVectorIsAnInternalError) {
    char a[] = "AAAA";
    struct iovec v[1] = {{a, 4}};
    writev_script = {{4, 0}};
    qx_uint32_t cumulative = 0;
    EXPECT_EQ(sr_i_writev(fd_, v, 1, 6, &cumulative), 15);
    EXPECT_EQ(cumulative, 4u);
}

TEST_F(FilesTest, FailedSyncIsCapturedInTheProcessFile) {
    fdatasync_script = {{-1, EIO}};
    EXPECT_EQ(sr_i_fdatasync(fd_), 10);
    EXPECT_NE(last_error().message.find("The fdatasync system call unexpectedly returned an "
                                        "errno of 5 to the sr_i_fdatasync function"),
              std::string::npos);
    EXPECT_TRUE(ere_match(Capture(),
                          "function\\(fdatasync\\) errno\\(5\\) line\\([0-9]+\\) "
                          "sccsid\\(1\\.1\\)\n",
                          true))
        << Capture();
}

TEST_F(FilesTest, InterruptedSyncIsCapturedThenRetried) {
    fdatasync_script = {{-1, EINTR}};
    EXPECT_EQ(sr_i_fdatasync(fd_), 0);
    EXPECT_EQ(sleeps.size(), 1u);
    EXPECT_NE(Capture().find("function(fdatasync) errno(4) "), std::string::npos);
    EXPECT_EQ(RetryRecords(), (std::vector<std::string>{"1|100"}));
}

TEST_F(FilesTest, EachCaptureReplacesTheLastOne) {
    fdatasync_script = {{-1, EINTR}, {-1, ENOSPC}};
    EXPECT_EQ(sr_i_fdatasync(fd_), 13);
    std::string capture = Capture();
    EXPECT_EQ(capture.find("errno(4)"), std::string::npos);
    EXPECT_NE(capture.find("function(fdatasync) errno(28) "), std::string::npos);
    EXPECT_EQ(std::count(capture.begin(), capture.end(), '\n'), 1);
}

TEST_F(FilesTest, OpenRetriesInterruptionsAndRecordsNoErrorOfItsOwn) {
    open_script = {{-1, EINTR}, {-1, EINTR}};
    int fd = sr_i_open_file(tmp_.file("opened").c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(RetryRecords(), (std::vector<std::string>{"2|100"}));

    errno = 0;
    EXPECT_EQ(sr_i_open_file(tmp_.file("missing/x").c_str(), O_RDONLY, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    open_script.assign(101, Step{-1, EINTR});
    EXPECT_EQ(sr_i_open_file(tmp_.file("opened").c_str(), O_RDONLY, 0), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(last_error().code, 0);
}

}  // namespace
