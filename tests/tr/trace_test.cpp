// The trace library: detail levels, registration, records, and many writers at once.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "qx_tr.h"
#include "tr_i.h"

namespace {

const tr_category_description_t kCategories[3] = {
    {0, "API", 0, 0}, {1, "Errors", 0, 0}, {2, "Wherever", 0, 0}};

using Lines = std::vector<std::string>;

Lines ReadLines(const std::string &path) {
    std::ifstream in(path);
    Lines lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// time pid tid component content (C regex: std::regex trips GCC warnings in sanitized builds).
struct Record {
    long pid = 0;
    long tid = 0;
    std::string component;
    std::string content;
};

bool ParseRecord(const std::string &line, Record *p_record) {
    regex_t re;
    regcomp(&re,
            "^[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z "
            "([0-9]+) ([0-9]+) ([^ ]+) (.*)$",
            REG_EXTENDED);
    regmatch_t m[5];
    bool ok = regexec(&re, line.c_str(), 5, m, 0) == 0;
    regfree(&re);
    auto group = [&](int i) { return line.substr(m[i].rm_so, m[i].rm_eo - m[i].rm_so); };
    if (ok) *p_record = {std::stol(group(1)), std::stol(group(2)), group(3), group(4)};
    return ok;
}

// Each test starts with nothing registered, a private directory and no trace environment.
class TraceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tr_i_reset_for_testing();
        unsetenv("QX_TRACE_LEVELS");
        unsetenv("QX_TRACE_FILE");
        char tmpl[] = "/tmp/qx_tr_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        trace_file_ = dir_ + "/trace.log";
    }
    void TearDown() override {
        tr_i_reset_for_testing();
        unsetenv("QX_TRACE_LEVELS");
        unsetenv("QX_TRACE_FILE");
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }

    // Registers `component` with the usual categories under the given environment (nullptr: unset).
    int Register(const char *component, const char *levels, const char *file,
                 qx_uint8_t *p_levels) {
        for (auto [name, value] : {std::pair{"QX_TRACE_LEVELS", levels}, {"QX_TRACE_FILE", file}}) {
            value != nullptr ? setenv(name, value, 1) : unsetenv(name);
        }
        return tr_register_component_1(component, p_levels, kCategories, 3);
    }

    void TraceTst() { ASSERT_EQ(Register("_TST", "_TST:*=1", trace_file_.c_str(), levels_), 0); }
    // Every line of the file parsed as a record.
    std::vector<Record> Records(const std::string &path) {
        std::vector<Record> records;
        for (const std::string &line : ReadLines(path)) {
            EXPECT_TRUE(ParseRecord(line, &records.emplace_back())) << line;
        }
        return records;
    }
    Lines Contents(const std::string &path) {
        Lines contents;
        for (const Record &r : Records(path)) contents.push_back(r.content);
        return contents;
    }

    std::string dir_;
    std::string trace_file_;
    qx_uint8_t levels_[3] = {};
};

using A = std::array<int, 3>;

TEST(LevelsTest, SpecificationsGiveOneLevelPerCategory) {
    // Defaults, and minimums that win over defaults and explicit levels.
    const tr_category_description_t defaults[3] = {
        {0, "API", 2, 0}, {1, "Errors", 0, 0}, {2, "Wherever", 7, 0}};
    const tr_category_description_t floors[3] = {
        {0, "API", 1, 3}, {1, "Errors", 0, 2}, {2, "Wherever", 900, 0}};
    const tr_category_description_t explicit_floor[3] = {
        {0, "API", 0, 4}, {1, "Errors", 0, 0}, {2, "Wherever", 0, 0}};
    const struct {
        const char *text;
        const char *component;
        const tr_category_description_t *categories;
        A expected;
    } cases[] = {
        {nullptr, "_SRA", defaults, {2, 0, 7}},
        {"", "_SRA", defaults, {2, 0, 7}},
        {nullptr, "_SRA", floors, {3, 2, 255}},
        {"_SRA:API=0,Errors=0", "_SRA", explicit_floor, {4, 0, 0}},
        {"_SRA:API=9", "_SRA", explicit_floor, {9, 0, 0}},
        {"_SRA:API=1,Errors=3", "_SRA", kCategories, {1, 3, 0}},
        {"_SRA:API=1,Errors=3", "_XYZ", kCategories, {0, 0, 0}},
        {"_XYZ:*=2;_SRA:Wherever=5", "_SRA", kCategories, {0, 0, 5}},
        // Names match exactly.
        {"_SR:API=1;_SRAX:API=1;_SRA:AP=1,APIs=1,api=1", "_SRA", kCategories, {0, 0, 0}},
        // A star matches every component or category; later items override.
        {"*:Errors=2", "_ABC", kCategories, {0, 2, 0}},
        {"_SRA:*=4", "_SRA", kCategories, {4, 4, 4}},
        {"_SRA:*=2,API=0", "_SRA", kCategories, {0, 2, 2}},
        {"_SRA:API=5;*:*=1", "_SRA", kCategories, {1, 1, 1}},
        {"*:*=1;_SRA:Errors=0", "_SRA", kCategories, {1, 0, 1}},
        // Malformed items are skipped and the rest applies.
        {"_SRA:API=x,API=,API,=3,API=-1,Wherever=+2,Errors=2", "_SRA", kCategories, {0, 2, 0}},
        {"_SRA:API=256,Errors=255,Wherever=1 2,Wherever=0x1,API=99999999999999999999",
         "_SRA",
         kCategories,
         {0, 255, 0}},
        {"API=1;:API=2;_SRA API=3;_SRA:Wherever=4", "_SRA", kCategories, {0, 0, 4}},
        {";;,,:;=;_SRA:,,API=1,,", "_SRA", kCategories, {1, 0, 0}},
        {" _SRA : API = 1 ,\tErrors=2 ; ", "_SRA", kCategories, {1, 2, 0}}};
    for (const auto &c : cases) {
        qx_uint8_t bytes[3] = {99, 99, 99};
        int traced = tr_i_compute_levels(c.text, c.component, c.categories, 3, bytes);
        EXPECT_EQ(c.expected, (A{bytes[0], bytes[1], bytes[2]})) << (c.text ? c.text : "(unset)");
        EXPECT_EQ(c.expected != (A{0, 0, 0}), traced != 0) << (c.text ? c.text : "(unset)");
    }
}

// Each registration rereads the caller's levels; bad arguments and a full table harm nothing.
TEST_F(TraceTest, RegistrationFillsTheCallersBytesRefusesBadArgumentsAndRecordsAreOneLineEach) {
    ASSERT_EQ(Register("_TST", "_XYZ:*=1", trace_file_.c_str(), levels_), 0);
    tr_record_id_1("_TST", 1);
    tr_record_values_32_1("_TST", 2, 1, 0u);
    tr_record_error_1("_TST", 0, "f", 1, "x", 0);
    EXPECT_EQ(tr_record_fmt_string_1("_TST", -1, "DV|X|%d", 1) + tr_flush_1(), 0);
    EXPECT_NE(access(trace_file_.c_str(), F_OK), 0) << "levels for others only: no file";
    qx_uint8_t bytes[3] = {9, 9, 9};
    ASSERT_EQ(Register("_SRA", "_SRA:API=1,Errors=2", trace_file_.c_str(), bytes), 0);
    EXPECT_EQ((A{1, 2, 0}), (A{bytes[0], bytes[1], bytes[2]}));
    EXPECT_NE(tr_i_component_traced("_SRA"), 0);
    ASSERT_EQ(Register("_SRA", nullptr, nullptr, bytes), 0);
    EXPECT_EQ((A{0, 0, 0}), (A{bytes[0], bytes[1], bytes[2]}));
    EXPECT_EQ(tr_i_component_traced("_SRA"), 0);
    EXPECT_EQ(tr_i_active.load(), 0);

    tr_i_reset_for_testing();
    const tr_category_description_t unnamed[1] = {{0, nullptr, 0, 0}};
    EXPECT_NE(tr_register_component_1(nullptr, bytes, kCategories, 3), 0);
    EXPECT_NE(tr_register_component_1("", bytes, kCategories, 3), 0);
    EXPECT_NE(tr_register_component_1("SIXTEEN_CHARS_XX", bytes, kCategories, 3), 0);
    EXPECT_NE(tr_register_component_1("_SRA", nullptr, kCategories, 3), 0);
    EXPECT_NE(tr_register_component_1("_SRA", bytes, nullptr, 3), 0);
    EXPECT_NE(tr_register_component_1("_SRA", bytes, unnamed, 1), 0);
    EXPECT_EQ(tr_i_total_components.load(), 0u);
    EXPECT_EQ(tr_register_component_1("FIFTEEN_CHARS_X", bytes, kCategories, 3), 0);
    EXPECT_EQ(tr_register_component_1("_NON", nullptr, nullptr, 0), 0);

    tr_i_reset_for_testing();
    setenv("QX_TRACE_LEVELS", "*:API=1", 1);
    for (int i = 0; i < TR_I_MAX_COMPONENTS; ++i) {
        std::string name = "C" + std::to_string(i);
        ASSERT_EQ(tr_register_component_1(name.c_str(), bytes, kCategories, 3), 0);
    }
    EXPECT_NE(tr_register_component_1("ONEMORE", bytes, kCategories, 3), 0);
    EXPECT_EQ(tr_register_component_1("C0", bytes, kCategories, 3), 0);  // known ones refresh
    EXPECT_EQ(tr_record_id_1("ONEMORE", 1), 0);
    // UTC time to the microsecond, pid, tid, component, content; only traced components/categories.
    tr_i_reset_for_testing();
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

TEST_F(TraceTest, LaterRecordsGoToANewFileOrStandardErrorLongOnesAreCutFailuresSwallowed) {
    TraceTst();
    tr_record_id_1("_TST", 1);
    std::string second = dir_ + "/second.log";
    ASSERT_EQ(Register("_TST", "_TST:*=1", second.c_str(), levels_), 0);
    tr_record_fmt_string_1("_TST", -1, "%s", std::string(10000, 'x').c_str());
    EXPECT_EQ(Contents(trace_file_), Lines{"ID 1"});
    std::ifstream in(second, std::ios::binary);
    const std::string all(std::istreambuf_iterator<char>(in), {});
    EXPECT_EQ(all.size(), static_cast<size_t>(TR_I_MAX_RECORD));
    EXPECT_EQ(all.find('\n'), all.size() - 1);
    int fd = tr_i_sink_fd.load();  // with the flags of the first
    ASSERT_GE(fd, 0);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(fcntl(fd, F_GETFL) & O_APPEND, 0);
    // Without a file, records go to standard error.
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
    // An unopenable file and a failing write are swallowed, errno left alone.
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

using TraceConcurrencyTest = TraceTest;

// Threads and forked processes sharing the file: every line whole, once, with its pid and tid.
TEST_F(TraceConcurrencyTest, ThreadsAndProcessesWriteWholeLinesWithTheirOwnIds) {
    TraceTst();
    tr_record_id_1("_TST", 1); /* the parent's ids are cached before the fork */
    constexpr int kThreads = 8, kRecords = 1000, kChildren = 4;
    std::vector<pid_t> children;
    for (int c = 0; c < kChildren; ++c) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (int i = 0; i < kRecords / 2; ++i) tr_record_values_32_1("_TST", 2, 2, c, i);
            _exit(0);
        }
        children.push_back(pid);
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kRecords; ++i)
                tr_record_fmt_string_1("_TST", -1, "T%d N%d %s", t, i, "padding-padding-padding");
        });
    }
    for (auto &th : threads) th.join();
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    // Each (writer, number) once; each thread one tid of its own; a child's tid is its pid.
    std::set<std::pair<int, int>> seen;
    std::map<int, std::set<long>> tids_of_writer;
    std::set<long> tids;
    for (const Record &r : Records(trace_file_)) {
        int t = -1, i = -1;
        const bool child = sscanf(r.content.c_str(), "VALUES 2 %d %d", &t, &i) == 2;
        if (r.content == "ID 1") continue;
        if (child) {
            EXPECT_EQ(r.pid, children[t]);
            EXPECT_EQ(r.tid, r.pid);
            t = -1 - t;
        } else {
            EXPECT_EQ(r.pid, getpid());
            ASSERT_EQ(sscanf(r.content.c_str(), "T%d N%d padding-padding-padding", &t, &i), 2);
        }
        EXPECT_TRUE(seen.insert({t, i}).second) << r.content;
        tids_of_writer[t].insert(r.tid);
        tids.insert(r.tid);
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kRecords + kChildren * kRecords / 2));
    for (auto &[t, ids] : tids_of_writer) EXPECT_EQ(ids.size(), 1u) << "writer " << t;
    EXPECT_EQ(tids.size(), static_cast<size_t>(kThreads + kChildren));
}

// Registering beside records, registrations and forks (the child can register too).
TEST_F(TraceConcurrencyTest, RegisteringWhileOthersRecordRegisterAndForkIsSafe) {
    TraceTst();
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&stop, t] {
            qx_uint8_t bytes[3];
            while (!stop.load()) {
                if (t == 0) tr_register_component_1("_TST", bytes, kCategories, 3);
                tr_record_id_1("_TST", 9);
                tr_record_id_1("_R00", 9);
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        qx_uint8_t bytes[3];
        std::string name = "_R" + std::to_string(i % 40);
        EXPECT_EQ(tr_register_component_1(name.c_str(), bytes, kCategories, 3), 0);
        if (i % 10 != 0) continue;
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) _exit(tr_register_component_1("_KID", bytes, kCategories, 3) ? 1 : 0);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    stop.store(true);
    for (auto &th : threads) th.join();
    Records(trace_file_);
}

}  // namespace
