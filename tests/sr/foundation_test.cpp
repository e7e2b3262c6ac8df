// Message table and catalogue, error records, trees, errno capture, fork.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "sr/table_test_util.h"

using qxtest::last_error;

namespace {

SR_SOURCE_FILE("tests/sr/foundation_test", "9.9");

TEST(MessageTableTest, TextsInCodeOrderAndTheCatalogueMatchesThem) {
    const int codes[] = {10,  11,  12,  13,  14,  15,  100, 101, 102, 103, 104, 105, 106, 107, 108,
                         109, 200, 201, 202, 203, 204, 205, 206, 207, 208, 209, 210, 211, 212};
    EXPECT_EQ(0u, sr_i_message_index(0));
    EXPECT_EQ(0u, sr_i_message_index(16));
    // ctest sets NLSPATH to the generated catalogue, whose text must win.
    const bool catalogue = getenv("NLSPATH") != nullptr;
    for (int i = 1; i < SR_NUMBER_OF_MESSAGES; ++i) {
        const std::string text = cu_mesgtbl_qx_sr_set[i];
        char prefix[16];
        std::snprintf(prefix, sizeof prefix, "2605-%03d ", codes[i - 1]);
        EXPECT_EQ(0u, text.rfind(prefix, 0)) << i;
        EXPECT_EQ('\n', text.back()) << i;
        EXPECT_EQ(static_cast<qx_uint32_t>(i), sr_i_message_index(codes[i - 1]));
        if (!catalogue) continue;
        cu_set_error_1(1, nullptr, "qx_sr.cat", 1, i, "%1$s%2$d%3$s%4$d%5$s%6$s", "a", 2, "c", 4,
                       "e", "f");
        EXPECT_EQ(last_error().message.substr(0, 9), prefix) << i;
    }
}

TEST(ErrorReportTest, RecordsCarryTheirValuesPerThreadAndSuccessClears) {
    int line = __LINE__ + 1;
    EXPECT_EQ(10, sr_i_set_error(sr_i_this_source, "sr_i_open_file", line, 10, "open", 2));
    EXPECT_EQ(
        "2605-010 The open system call unexpectedly returned an errno of 2 to the "
        "sr_i_open_file function near line " +
            std::to_string(line) + " of file tests/sr/foundation_test, version 9.9.\n",
        last_error().message);
    EXPECT_EQ(12, SR_ERROR(12));
    EXPECT_NE(std::string::npos, last_error().message.find("2605-012 Memory could not be allocated "
                                                           "in the TestBody function near line"));
    SR_ERROR_TEXT(102, "a//b");
    EXPECT_EQ("2605-102 a//b is an invalid pathname.\n", last_error().message);
    SR_ERROR_TEXT(102, nullptr);
    EXPECT_EQ("2605-102 <NULL POINTER> is an invalid pathname.\n", last_error().message);
    SR_ERROR(205);
    std::thread other([] {
        EXPECT_EQ(0, last_error().code);
        SR_ERROR(201);
    });
    other.join();
    EXPECT_EQ(205, last_error().code);
    EXPECT_EQ(100, sr_open_tree_1(nullptr, 0, 0));
    EXPECT_EQ("2605-100 A function was passed an invalid handle.\n", last_error().message);
    EXPECT_EQ(100, sr_close_tree_1(nullptr));
    // Retries and timeout are ignored.
    sr_opaque_handle_t a = nullptr, b = nullptr;
    EXPECT_EQ(0, sr_open_tree_1(&a, 0, 0));
    EXPECT_EQ(0, last_error().code);
    EXPECT_EQ(0, sr_open_tree_1(&b, 4000000000u, ~0ull));
    EXPECT_NE(a, b);
    EXPECT_EQ(0, sr_close_tree_1(a));
    EXPECT_EQ(0, sr_close_tree_1(b));
}

// Only the last capture remains; a link planted under the predictable name is
// not followed; an unwritable directory is skipped quietly.
TEST(ErrnoCaptureTest, LastCaptureOnlyNoLinkFollowedUnwritableSkipped) {
    qxtest::TempDir dir;
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
    const std::string name = dir.file("reginfo_pid." + std::to_string(getpid()));
    const std::string victim = dir.file("victim");
    ASSERT_EQ(0, chdir(dir.path().c_str()));
    sr_i_capture_errno("sr_i_fdatasync", 5, 120, "1.1");
    sr_i_capture_errno("sr_i_commit", 28, 77, "1.4");
    EXPECT_EQ("function(sr_i_commit) errno(28) line(77) sccsid(1.4)\n", qxtest::ReadBytes(name));
    for (bool hard : {false, true}) {
        std::ofstream(victim) << "precious";
        unlink(name.c_str());
        ASSERT_EQ(
            0, hard ? link(victim.c_str(), name.c_str()) : symlink(victim.c_str(), name.c_str()));
        sr_i_capture_errno("sr_i_fdatasync", 5, 120, "1.1");
        EXPECT_EQ("precious", qxtest::ReadBytes(victim)) << hard;
    }
    ASSERT_EQ(0, mkdir("ro", 0500));
    ASSERT_EQ(0, chdir("ro"));
    sr_i_capture_errno("f", 1, 2, "v");
    ASSERT_EQ(0, chdir(cwd));
}

// fork() waits for the API mutex another thread holds; the child gets a free one.
TEST(ForkConcurrencyTest, ForkWaitsForTheApiMutexAndChildGetsAFreeOne) {
    sr_opaque_handle_t tree = nullptr;
    ASSERT_EQ(0, sr_open_tree_1(&tree, 0, 0));  // installs the fork handlers
    sr_i_fork_mutex_lock();
    std::atomic<bool> forked{false};
    std::atomic<int> child_status{-1};
    std::thread forker([&] {
        pid_t pid = fork();
        if (pid == 0) _exit(pthread_mutex_trylock(&ForkMutex) == 0 ? 0 : 3);
        forked = true;
        int status = 0;
        waitpid(pid, &status, 0);
        child_status = WIFEXITED(status) ? WEXITSTATUS(status) : 99;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(forked.load()) << "fork completed while the API mutex was held";
    sr_i_fork_mutex_unlock();
    forker.join();
    EXPECT_EQ(0, child_status.load());
    EXPECT_EQ(0, pthread_mutex_trylock(&ForkMutex));
    pthread_mutex_unlock(&ForkMutex);
    EXPECT_EQ(0, sr_close_tree_1(tree));
}

}  // namespace
