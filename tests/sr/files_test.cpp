// The file primitives through their system-call seam: retries, short writes, failures, captures.
#include <errno.h>
#include <fcntl.h>
#include <regex.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <string>
#include <vector>

#include "sr/table_test_util.h"

using qxtest::last_error;

namespace {

SR_SOURCE_FILE("tests/sr/files_test", "9.9");

// Whole-text ERE match (std::regex trips GCC's analysis in sanitized builds).
bool Matches(const std::string &text, const std::string &pattern) {
    regex_t re;
    if (regcomp(&re, ("^(" + pattern + ")$").c_str(), REG_EXTENDED) != 0) return false;
    bool ok = regexec(&re, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&re);
    return ok;
}

// One scripted outcome: -1 fails with `error`; n >= 0 lets at most n bytes through.
struct Step {
    ssize_t result;
    int error;
};

// What the fakes replay, and what they saw.
struct Scripts {
    std::deque<Step> write, writev, fdatasync, open;
    std::vector<std::vector<std::string>> writev_calls;  // the elements of each call
    std::vector<unsigned> sleeps;
} S;

// The next step of a script, or nullptr to go through; sets errno on failure.
const Step *Next(std::deque<Step> &script, Step *p_step) {
    if (script.empty()) return nullptr;
    *p_step = script.front();
    script.pop_front();
    errno = p_step->error;
    return p_step;
}

ssize_t FakeWrite(int fd, const void *p, size_t n) {
    Step step;
    if (Next(S.write, &step) == nullptr) return write(fd, p, n);
    return step.result < 0 ? -1 : write(fd, p, std::min(n, static_cast<size_t>(step.result)));
}
ssize_t FakeWritev(int fd, const struct iovec *v, int count) {
    std::vector<std::string> elements;
    std::string all;
    for (int i = 0; i < count; ++i) {
        elements.emplace_back(static_cast<const char *>(v[i].iov_base), v[i].iov_len);
        all += elements.back();
    }
    S.writev_calls.push_back(elements);
    Step step;
    if (Next(S.writev, &step) == nullptr) return writev(fd, v, count);
    return step.result < 0 ? -1 : write(fd, all.data(), std::min(all.size(), size_t(step.result)));
}
int FakeFdatasync(int fd) {
    Step step;
    return Next(S.fdatasync, &step) == nullptr ? fdatasync(fd) : -1;
}
int FakeOpen(const char *p_path, int flags, mode_t mode) {
    Step step;
    return Next(S.open, &step) == nullptr ? open(p_path, flags, mode) : -1;
}
int FakeUsleep(unsigned microseconds) {
    S.sleeps.push_back(microseconds);
    return 0;
}

// A real file in a private working directory (for the capture file); "_SRA" records traced.
class FilesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sr_i_file_ops.p_open = FakeOpen;
        sr_i_file_ops.p_write = FakeWrite;
        sr_i_file_ops.p_writev = FakeWritev;
        sr_i_file_ops.p_fdatasync = FakeFdatasync;
        sr_i_file_ops.p_usleep = FakeUsleep;
        ASSERT_NE(getcwd(saved_cwd_, sizeof saved_cwd_), nullptr);
        ASSERT_EQ(chdir(tmp_.path().c_str()), 0);
        setenv("QX_TRACE_LEVELS", "_SRA:Wherever=1", 1);
        setenv("QX_TRACE_FILE", tmp_.file("trace.log").c_str(), 1);
        tr_register_component_1(SR_TRACE_COMPONENT, Sr_Trace_Level_Of_Detail, Sr_Trace_Categories,
                                3);
        Reset();
    }
    void TearDown() override {
        close(fd_);
        sr_i_file_ops = sr_i_default_file_ops;
        unsetenv("QX_TRACE_LEVELS");
        unsetenv("QX_TRACE_FILE");
        tr_register_component_1(SR_TRACE_COMPONENT, Sr_Trace_Level_Of_Detail, Sr_Trace_Categories,
                                3);
        EXPECT_EQ(chdir(saved_cwd_), 0);
    }

    // An empty data file, empty scripts, no error, no retry records so far.
    void Reset() {
        if (fd_ >= 0) close(fd_);
        fd_ = open(tmp_.file("table").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd_, 0);
        S = Scripts{};
        cu_set_no_error_1();
        seen_ = Retries(true).size();
    }
    std::string Data() { return qxtest::ReadBytes(tmp_.file("table")); }

    // The retry records "<retries>|<limit>" traced since the last Reset (all: since the start).
    std::vector<std::string> Retries(bool all = false) {
        std::vector<std::string> found;
        std::ifstream in(tmp_.file("trace.log"));
        const std::string tag = " _SRA DV|RET|";
        for (std::string line; std::getline(in, line);) {
            size_t at = line.find(tag);
            if (at == std::string::npos) continue;
            std::string rest = line.substr(at + tag.size());  // "<line>|<retries>|<limit>"
            found.push_back(rest.substr(rest.find('|') + 1));
        }
        if (!all) found.erase(found.begin(), found.begin() + static_cast<long>(seen_));
        return found;
    }
    std::string Capture() {
        return qxtest::ReadBytes(tmp_.file("reginfo_pid." + std::to_string(getpid())));
    }

    qxtest::TempDir tmp_;
    char saved_cwd_[4096];
    int fd_ = -1;
    size_t seen_ = 0;
};

TEST_F(FilesTest, WritesRetryInterruptionsResumeShortWritesAndMapErrors) {
    const std::string text = "0123456789abcdef";
    const std::vector<Step> eintr(100, Step{-1, EINTR});
    std::vector<Step> too_many = eintr;
    too_many.push_back({-1, EINTR});
    const struct {
        std::vector<Step> script;
        int rc;
        size_t sleeps;
        std::vector<std::string> retries;
        std::string message;  // the whole message, as an expression; "" if none
    } cases[] = {
        {{{-1, EINTR}, {-1, EINTR}, {-1, EINTR}}, 0, 3, {"3|100"}, ""},
        {eintr, 0, 100, {"100|100"}, ""},
        {too_many,
         10,
         100,
         {"100|100"},
         "2605-010 The write system call unexpectedly returned an errno of 4 to the sr_i_write "
         "function near line [0-9]+ of file sr/sr_i_files, version 1\\.1\\.\n"},
        {{{3, 0}, {1, 0}, {-1, EINTR}, {5, 0}}, 0, 1, {"1|100"}, ""},
        {{{-1, ENOSPC}}, 13, 0, {}, "2605-013 The filesystem containing the local tree is full.\n"},
        {{{-1, EACCES}}, 206, 0, {}, ".*"},
        {{{-1, EIO}}, 10, 0, {}, ".*errno of 5 to the sr_i_write function.*"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.rc);
        Reset();
        S.write.assign(c.script.begin(), c.script.end());
        EXPECT_EQ(sr_i_write(fd_, const_cast<char *>(text.data()), 16), c.rc);
        EXPECT_EQ(Data(), c.rc == 0 ? text : "");
        EXPECT_EQ(S.sleeps.size(), c.sleeps);
        EXPECT_EQ(S.sleeps.empty() ? 10000u : S.sleeps[0], 10000u);
        EXPECT_EQ(Retries(), c.retries);
        EXPECT_EQ(last_error().code, c.rc);
        EXPECT_TRUE(c.message.empty() || Matches(last_error().message, c.message));
    }
    // A table that must exist but is missing reads 200 only where the caller says so.
    EXPECT_EQ(SR_ERROR_FILE("open", ENOENT, false), 10);
    EXPECT_EQ(SR_ERROR_FILE("open", ENOENT, true), 200);
    // Writev resumes where it was cut and counts what was written.
    const struct {
        std::vector<std::string> elements;
        qx_uint32_t total;  // 6 for 4 bytes: more than the vector holds, an internal error
        std::vector<Step> script;
        int rc;
        std::string data;
        std::vector<std::string> last_call, retries;
    } writev_cases[] = {
        {{"AAAA", "BBBB", "CCCC"}, 12, {{5, 0}}, 0, "AAAABBBBCCCC", {"BBB", "CCCC"}, {}},
        {{"AA", "", "CC", "", "e"}, 5, std::vector<Step>(5, Step{1, 0}), 0, "AACCe", {"e"}, {}},
        {{"AAAA", "BBBB", "CCCC"}, 12, {{5, 0}, {-1, ENOSPC}}, 13, "AAAAB", {"BBB", "CCCC"}, {}},
        {{"AAAA"}, 4, {{-1, EINTR}, {2, 0}, {-1, EINTR}}, 0, "AAAA", {"AA"}, {"2|100"}},
        {{"AAAA"}, 4, {{-1, EIO}}, 10, "", {"AAAA"}, {}},
        {{"AAAA"}, 6, {{4, 0}}, 15, "AAAA", {"AAAA"}, {}},
    };
    for (const auto &c : writev_cases) {
        SCOPED_TRACE(c.data);
        Reset();
        std::vector<std::string> elements = c.elements;
        std::vector<struct iovec> v;
        for (std::string &e : elements) v.push_back({e.data(), e.size()});
        S.writev.assign(c.script.begin(), c.script.end());
        qx_uint32_t cumulative = 100;
        EXPECT_EQ(sr_i_writev(fd_, v.data(), static_cast<int>(v.size()), c.total, &cumulative),
                  c.rc);
        EXPECT_EQ(cumulative, 100 + c.data.size());
        EXPECT_EQ(Data(), c.data);
        EXPECT_EQ(S.writev_calls.back(), c.last_call);
        EXPECT_EQ(Retries(), c.retries);
        EXPECT_TRUE(c.rc != 10 || Matches(last_error().message,
                                          ".*The writev system call unexpectedly returned an errno "
                                          "of 5 to the sr_i_writev function.*"));
    }
}

TEST_F(FilesTest, SyncFailuresAreCapturedAndOpenRetriesInterruptions) {
    S.fdatasync = {{-1, EIO}};
    EXPECT_EQ(sr_i_fdatasync(fd_), 10);
    EXPECT_NE(last_error().message.find("The fdatasync system call unexpectedly returned an "
                                        "errno of 5 to the sr_i_fdatasync function"),
              std::string::npos);
    EXPECT_TRUE(Matches(Capture(),
                        "function\\(fdatasync\\) errno\\(5\\) line\\([0-9]+\\) "
                        "sccsid\\(1\\.1\\)\n"))
        << Capture();
    Reset();  // an interruption is captured, then retried
    S.fdatasync = {{-1, EINTR}};
    EXPECT_EQ(sr_i_fdatasync(fd_), 0);
    EXPECT_EQ(S.sleeps.size(), 1u);
    EXPECT_NE(Capture().find("function(fdatasync) errno(4) "), std::string::npos);
    EXPECT_EQ(Retries(), (std::vector<std::string>{"1|100"}));
    Reset();  // each capture replaces the last one
    S.fdatasync = {{-1, EINTR}, {-1, ENOSPC}};
    EXPECT_EQ(sr_i_fdatasync(fd_), 13);
    EXPECT_TRUE(Matches(Capture(), "function\\(fdatasync\\) errno\\(28\\) [^\n]*\n")) << Capture();
    Reset();  // open retries interruptions and records no error of its own
    S.open = {{-1, EINTR}, {-1, EINTR}};
    int fd = sr_i_open_file(tmp_.file("opened").c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(Retries(), (std::vector<std::string>{"2|100"}));
    errno = 0;
    EXPECT_EQ(sr_i_open_file(tmp_.file("missing/x").c_str(), O_RDONLY, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    S.open.assign(101, Step{-1, EINTR});
    EXPECT_EQ(sr_i_open_file(tmp_.file("opened").c_str(), O_RDONLY, 0), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(last_error().code, 0);
}

}  // namespace
