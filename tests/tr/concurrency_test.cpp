// Records written from many threads and processes at once.
#include <gtest/gtest.h>
#include <sys/syscall.h>
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

// Every line must be whole and every (thread, sequence) pair present once.
TEST_F(TraceConcurrencyTest, EightThreadsOfAThousandRecordsGiveEightThousandWholeLines) {
    TraceTst();
    constexpr int kThreads = 8;
    constexpr int kRecords = 1000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kRecords; ++i) {
                tr_record_fmt_string_1("_TST", -1, "T%d N%d %s", t, i,
                                       "padding-padding-padding-padding-padding-padding");
            }
        });
    }
    for (auto &th : threads) th.join();

    auto lines = ReadLines(trace_file_);
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kRecords));
    std::set<std::pair<int, int>> seen;
    std::map<int, std::set<long>> tids_of_thread;
    for (const auto &line : lines) {
        Record r;
        ASSERT_TRUE(ParseRecord(line, &r)) << line;
        EXPECT_EQ(r.pid, getpid());
        int t = -1, i = -1;
        char tail[64] = {};
        ASSERT_EQ(sscanf(r.content.c_str(), "T%d N%d %63s", &t, &i, tail), 3) << line;
        EXPECT_STREQ(tail, "padding-padding-padding-padding-padding-padding");
        EXPECT_TRUE(seen.insert({t, i}).second) << line;
        tids_of_thread[t].insert(r.tid);
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kRecords));
    // Each thread's records carry one thread id, and no two threads share one.
    std::set<long> all_tids;
    for (auto &[t, tids] : tids_of_thread) {
        EXPECT_EQ(tids.size(), 1u) << "thread " << t;
        all_tids.insert(*tids.begin());
    }
    EXPECT_EQ(all_tids.size(), static_cast<size_t>(kThreads));
}

// Processes sharing the file append whole lines: O_APPEND and one write each.
TEST_F(TraceConcurrencyTest, ForkedProcessesAppendWholeLinesWithTheirOwnPid) {
    TraceTst();
    tr_record_id_1("_TST", 1); /* the parent's ids are cached before the fork */
    constexpr int kChildren = 4;
    constexpr int kRecords = 500;
    std::vector<pid_t> children;
    for (int c = 0; c < kChildren; ++c) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (int i = 0; i < kRecords; ++i) {
                tr_record_values_32_1("_TST", 2, 2, (unsigned)c, (unsigned)i);
            }
            _exit(0);
        }
        children.push_back(pid);
    }
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    tr_record_id_1("_TST", 3);

    auto lines = ReadLines(trace_file_);
    ASSERT_EQ(lines.size(), static_cast<size_t>(kChildren * kRecords + 2));
    std::map<long, int> per_pid;
    std::map<unsigned, long> pid_of_child;
    for (const auto &line : lines) {
        Record r;
        ASSERT_TRUE(ParseRecord(line, &r)) << line;
        if (r.content.rfind("VALUES", 0) != 0) {
            EXPECT_EQ(r.pid, getpid());
            EXPECT_EQ(r.tid, syscall(SYS_gettid));
            continue;
        }
        unsigned c = 0, i = 0;
        ASSERT_EQ(sscanf(r.content.c_str(), "VALUES 2 %u %u", &c, &i), 2) << line;
        ++per_pid[r.pid];
        // A forked child is single-threaded: its thread id is its pid.
        EXPECT_EQ(r.tid, r.pid);
        auto [it, inserted] = pid_of_child.emplace(c, r.pid);
        EXPECT_EQ(it->second, r.pid);
        EXPECT_EQ(children[c], r.pid);
    }
    EXPECT_EQ(per_pid.size(), static_cast<size_t>(kChildren));
    for (auto &[pid, n] : per_pid) EXPECT_EQ(n, kRecords) << pid;
}

// Registrations may run while other threads write records.
TEST_F(TraceConcurrencyTest, RegisteringWhileOthersRecordIsSafe) {
    TraceTst();
    std::atomic<bool> stop{false};
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([&stop] {
            while (!stop.load()) {
                tr_record_id_1("_TST", 9);
                tr_record_id_1("_R00", 9);
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        qx_uint8_t bytes[3];
        std::string name = "_R" + std::to_string(i % 40);
        EXPECT_EQ(tr_register_component_1(name.c_str(), bytes, tr_test::kCategories, 3), 0);
    }
    stop.store(true);
    for (auto &th : writers) th.join();
    for (const auto &line : ReadLines(trace_file_)) {
        Record r;
        ASSERT_TRUE(ParseRecord(line, &r)) << line;
    }
}

// The registration mutex is released in the child of a fork taken while
// another thread registers.
TEST_F(TraceConcurrencyTest, ChildOfAForkCanRegister) {
    TraceTst();
    std::atomic<bool> stop{false};
    std::thread registrar([&stop] {
        qx_uint8_t bytes[3];
        while (!stop.load()) tr_register_component_1("_TST", bytes, tr_test::kCategories, 3);
    });
    for (int i = 0; i < 20; ++i) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            qx_uint8_t bytes[3];
            int rc = tr_register_component_1("_KID", bytes, tr_test::kCategories, 3);
            _exit(rc == 0 ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    stop.store(true);
    registrar.join();
}

}  // namespace
