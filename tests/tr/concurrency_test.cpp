// Records written from many threads and processes at once.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tr/tr_test_util.h"

namespace {

using tr_test::ParseRecord;
using tr_test::ReadLines;
using tr_test::Record;

class TraceConcurrencyTest : public tr_test::TraceFixture {
  protected:
    void TraceTst() { ASSERT_EQ(Register("_TST", "_TST:*=1", trace_file_.c_str(), levels_), 0); }
    qx_uint8_t levels_[3] = {};
};

// Threads and forked processes (O_APPEND, one write per record) sharing the
// file: every line whole, every record present once with its pid and tid.
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
    auto lines = ReadLines(trace_file_);
    ASSERT_EQ(lines.size(),
              static_cast<size_t>(kThreads * kRecords + kChildren * kRecords / 2 + 1));
    std::set<std::pair<int, int>> seen;
    std::map<int, std::set<long>> tids_of_thread;
    std::map<long, int> per_pid;
    for (const auto &line : lines) {
        Record r;
        ASSERT_TRUE(ParseRecord(line, &r)) << line;
        int t = -1, i = -1;
        char tail[64] = {};
        if (sscanf(r.content.c_str(), "VALUES 2 %d %d", &t, &i) == 2) {
            ++per_pid[r.pid];
            EXPECT_EQ(r.tid, r.pid);  // a forked child is single-threaded
            EXPECT_EQ(children[t], r.pid);
            continue;
        }
        EXPECT_EQ(r.pid, getpid());
        if (r.content == "ID 1") continue;
        ASSERT_EQ(sscanf(r.content.c_str(), "T%d N%d %63s", &t, &i, tail), 3) << line;
        EXPECT_STREQ(tail, "padding-padding-padding");
        EXPECT_TRUE(seen.insert({t, i}).second) << line;
        tids_of_thread[t].insert(r.tid);
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kRecords));
    std::set<long> all_tids;  // one per thread, none shared
    for (auto &[t, tids] : tids_of_thread) {
        EXPECT_EQ(tids.size(), 1u) << "thread " << t;
        all_tids.insert(*tids.begin());
    }
    EXPECT_EQ(all_tids.size(), static_cast<size_t>(kThreads));
    EXPECT_EQ(per_pid.size(), static_cast<size_t>(kChildren));
    for (auto &[pid, n] : per_pid) EXPECT_EQ(n, kRecords / 2) << pid;
}

// Registrations run while other threads write records and register, and
// the registration mutex is released in the child of a fork taken meanwhile.
TEST_F(TraceConcurrencyTest, RegisteringWhileOthersRecordRegisterAndForkIsSafe) {
    TraceTst();
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&stop, t] {
            qx_uint8_t bytes[3];
            while (!stop.load()) {
                if (t == 0) tr_register_component_1("_TST", bytes, tr_test::kCategories, 3);
                tr_record_id_1("_TST", 9);
                tr_record_id_1("_R00", 9);
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        qx_uint8_t bytes[3];
        std::string name = "_R" + std::to_string(i % 40);
        EXPECT_EQ(tr_register_component_1(name.c_str(), bytes, tr_test::kCategories, 3), 0);
        if (i % 10 != 0) continue;
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0)
            _exit(tr_register_component_1("_KID", bytes, tr_test::kCategories, 3) ? 1 : 0);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    stop.store(true);
    for (auto &th : threads) th.join();
    for (const auto &line : ReadLines(trace_file_)) {
        Record r;
        ASSERT_TRUE(ParseRecord(line, &r)) << line;
    }
}

}  // namespace
