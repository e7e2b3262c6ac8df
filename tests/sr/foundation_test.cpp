// The registry's foundation: message table and catalogue, error records,
// trees, the call frame, the errno capture and fork handling.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "sr/test_util.h"
#include "sr_i.h"

using qxtest::last_error;

namespace {

SR_SOURCE_FILE("tests/sr/foundation_test", "9.9");

TEST(MessageTableTest, ThirtyTextsInCodeOrder) {
    EXPECT_STREQ(cu_mesgtbl_qx_sr_set[0], "Reserved: DO NOT USE!");
    const int codes[] = {10,  11,  12,  13,  14,  15,  100, 101, 102, 103, 104, 105, 106, 107, 108,
                         109, 200, 201, 202, 203, 204, 205, 206, 207, 208, 209, 210, 211, 212};
    for (int i = 1; i < SR_NUMBER_OF_MESSAGES; ++i) {
        char prefix[16];
        std::snprintf(prefix, sizeof prefix, "2605-%03d ", codes[i - 1]);
        EXPECT_EQ(0, std::strncmp(cu_mesgtbl_qx_sr_set[i], prefix, 9)) << i;
        size_t length = std::strlen(cu_mesgtbl_qx_sr_set[i]);
        EXPECT_EQ('\n', cu_mesgtbl_qx_sr_set[i][length - 1]) << i;
        EXPECT_EQ(static_cast<qx_uint32_t>(i), sr_i_message_index(codes[i - 1]));
    }
    EXPECT_EQ(0u, sr_i_message_index(0));
    EXPECT_EQ(0u, sr_i_message_index(16));
    EXPECT_STREQ(cu_mesgtbl_qx_sr_set[23],
                 "2605-206 The calling process does not have sufficient access permission to the "
                 "persistent files corresponding to the table, or a write operation was called "
                 "against a table opened only for read.\n");
    EXPECT_STREQ(cu_mesgtbl_qx_sr_set[16],
                 "2605-109 An invalid positional/replacement variable type was found in the "
                 "selection criteria string: %1$s.\n");
}

// The build generates the catalogue from the table: with the catalogue in
// reach (ctest sets NLSPATH to it), every message must read exactly as its
// compiled-in default.
TEST(MessageTableTest, GeneratedCatalogueMatchesTheDefaults) {
    const char *nlspath = getenv("NLSPATH");
    if (nlspath == nullptr) GTEST_SKIP() << "NLSPATH not set: run through ctest";
    for (int i = 1; i < SR_NUMBER_OF_MESSAGES; ++i) {
        cu_set_error_1(1, nullptr, "qx_sr.cat", 1, i, "%1$s%2$d%3$s%4$d%5$s%6$s", "a", 2, "c", 4,
                       "e", "f");
        cu_error_t *p_error = nullptr;
        char *p_message = nullptr;
        ASSERT_EQ(0, cu_get_error_1(&p_error));
        ASSERT_EQ(0, cu_get_errmsg_1(p_error, &p_message));
        // The catalogue's text wins over the deliberately wrong default,
        // so what comes back must be the table's text formatted.
        EXPECT_NE(std::string(p_message), "a2c4ef") << "catalogue not found for message " << i;
        EXPECT_EQ(0, std::strncmp(p_message, cu_mesgtbl_qx_sr_set[i], 5)) << p_message;
        cu_rel_errmsg_1(p_message);
        cu_rel_error_1(p_error);
    }
}

TEST(ErrorReportTest, SystemCallFailureCarriesItsSixValues) {
    int line = __LINE__ + 1;
    EXPECT_EQ(10, sr_i_set_error(sr_i_this_source, "sr_i_open_file", line, 10, "open", 2));
    auto error = last_error();
    EXPECT_EQ(10, error.code);
    EXPECT_EQ(
        "2605-010 The open system call unexpectedly returned an errno of 2 to the "
        "sr_i_open_file function near line " +
            std::to_string(line) + " of file tests/sr/foundation_test, version 9.9.\n",
        error.message);
}

TEST(ErrorReportTest, MemoryAndInternalFailuresNameTheFunction) {
    EXPECT_EQ(12, SR_ERROR(12));
    auto error = last_error();
    EXPECT_EQ(12, error.code);
    EXPECT_NE(std::string::npos, error.message.find("2605-012 Memory could not be allocated in the "
                                                    "TestBody function near line"));
    EXPECT_EQ(15, SR_ERROR(15));
    EXPECT_NE(std::string::npos, last_error().message.find("of file tests/sr/foundation_test, "
                                                           "version 9.9.\n"));
}

TEST(ErrorReportTest, BadPathNamesThePathOrTheNullPointer) {
    SR_ERROR_TEXT(102, "a//b");
    EXPECT_EQ("2605-102 a//b is an invalid pathname.\n", last_error().message);
    SR_ERROR_TEXT(102, nullptr);
    EXPECT_EQ("2605-102 <NULL POINTER> is an invalid pathname.\n", last_error().message);
    SR_ERROR_TEXT(109, "$Q");
    EXPECT_EQ(
        "2605-109 An invalid positional/replacement variable type was found in the "
        "selection criteria string: $Q.\n",
        last_error().message);
}

TEST(ErrorReportTest, RecordsArePerThreadAndSuccessClears) {
    SR_ERROR(205);
    std::thread other([] {
        EXPECT_EQ(0, last_error().code);
        SR_ERROR(201);
        EXPECT_EQ(201, last_error().code);
    });
    other.join();
    EXPECT_EQ(205, last_error().code);
    sr_opaque_handle_t tree = nullptr;
    ASSERT_EQ(0, sr_open_tree_1(&tree, 0, 0));
    EXPECT_EQ(0, last_error().code);
    EXPECT_EQ(0, sr_close_tree_1(tree));
}

TEST(TreeTest, OpenWithoutHandleIsAnInvalidHandle) {
    EXPECT_EQ(100, sr_open_tree_1(nullptr, 0, 0));
    auto error = last_error();
    EXPECT_EQ(100, error.code);
    EXPECT_EQ("2605-100 A function was passed an invalid handle.\n", error.message);
    EXPECT_EQ(100, sr_close_tree_1(nullptr));
}

TEST(TreeTest, RetriesAndTimeoutAreIgnored) {
    sr_opaque_handle_t a = nullptr, b = nullptr;
    EXPECT_EQ(0, sr_open_tree_1(&a, 0, 0));
    EXPECT_EQ(0, sr_open_tree_1(&b, 4000000000u, ~0ull));
    EXPECT_NE(a, b);
    auto *p_tree = static_cast<sr_i_tree_t *>(b);
    EXPECT_EQ(nullptr, p_tree->p_tables);
    EXPECT_EQ(nullptr, p_tree->p_mount_points);
    EXPECT_NE(nullptr, p_tree->p_to_table_string_conversion_handle);
    EXPECT_NE(nullptr, p_tree->p_from_table_string_conversion_handle);
    EXPECT_EQ(0, sr_close_tree_1(a));
    EXPECT_EQ(0, sr_close_tree_1(b));
}

// A stand-in for a table, enough for the frame: a lock and a mode.
struct FakeTable {
    sr_i_read_write_lock_t lock;
    qx_uint32_t mode;
};

constexpr sr_i_frame_t kWriterFrame{"sr_fake_update_1",          41,   true,
                                    sr_i_lock_kind::table_write, true, false};

TEST(CallFrameTest, RefusesNullHandleAndReadOnlyTableWithoutWorking) {
    bool worked = false;
    auto work = [&](FakeTable *) {
        worked = true;
        return 0;
    };
    EXPECT_EQ(100, sr_i_api_call<FakeTable>(sr_i_this_source, kWriterFrame, nullptr, work));
    EXPECT_EQ(100, last_error().code);
    FakeTable table{};
    sr_i_rw_open(&table.lock);
    table.mode = SR_MODE_READ;
    EXPECT_EQ(206, sr_i_api_call<FakeTable>(sr_i_this_source, kWriterFrame, &table, work));
    EXPECT_EQ(206, last_error().code);
    EXPECT_FALSE(worked);
    // The lock was released on the refusal path.
    EXPECT_EQ(0, sr_i_rw_state(&table.lock));
    table.mode = SR_MODE_WRITE;
    EXPECT_EQ(0, sr_i_api_call<FakeTable>(sr_i_this_source, kWriterFrame, &table, work));
    EXPECT_TRUE(worked);
    EXPECT_EQ(0, last_error().code) << "success clears the thread's error";
    EXPECT_EQ(0, sr_i_rw_state(&table.lock));
    sr_i_rw_close(&table.lock);
}

TEST(CallFrameTest, WorkRunsUnderTheLockAndItsFailurePassesThrough) {
    FakeTable table{};
    sr_i_rw_open(&table.lock);
    table.mode = SR_MODE_WRITE;
    int seen_lock_count = 0;
    qx_int32_t rc =
        sr_i_api_call<FakeTable>(sr_i_this_source, kWriterFrame, &table, [&](FakeTable *p) {
            seen_lock_count = sr_i_rw_state(&p->lock);
            return SR_ERROR(202);
        });
    EXPECT_EQ(202, rc);
    EXPECT_EQ(-1, seen_lock_count);
    EXPECT_EQ(202, last_error().code) << "a failure keeps its record";
    constexpr sr_i_frame_t kReader{"sr_fake_read_1",           43,    false,
                                   sr_i_lock_kind::table_read, false, false};
    sr_i_api_call<FakeTable>(sr_i_this_source, kReader, &table, [&](FakeTable *p) {
        seen_lock_count = sr_i_rw_state(&p->lock);
        return 0;
    });
    EXPECT_EQ(1, seen_lock_count);
    sr_i_rw_close(&table.lock);
}

std::string read_file(const std::string &path) {
    std::ifstream in(path);
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

TEST(ErrnoCaptureTest, OnlyTheLastCaptureOfTheProcessRemains) {
    qxtest::TempDir dir;
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
    ASSERT_EQ(0, chdir(dir.path().c_str()));
    sr_i_capture_errno("sr_i_fdatasync", 5, 120, "1.1");
    sr_i_capture_errno("sr_i_commit", 28, 77, "1.4");
    std::string name = "reginfo_pid." + std::to_string(getpid());
    std::string content = read_file(dir.file(name));
    ASSERT_EQ(0, chdir(cwd));
    EXPECT_EQ("function(sr_i_commit) errno(28) line(77) sccsid(1.4)\n", content);
}

// The capture name is predictable: a link planted under it must not make the
// library write (or empty) another file.
TEST(ErrnoCaptureTest, PlantedLinksAreNotFollowedAndTheirTargetsKept) {
    qxtest::TempDir dir;
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
    const std::string name = "reginfo_pid." + std::to_string(getpid());
    const std::string victim = dir.file("victim");
    for (bool hard : {false, true}) {
        {
            std::ofstream out(victim);
            out << "precious";
        }
        unlink(dir.file(name).c_str());
        ASSERT_EQ(0, hard ? link(victim.c_str(), dir.file(name).c_str())
                          : symlink(victim.c_str(), dir.file(name).c_str()));
        ASSERT_EQ(0, chdir(dir.path().c_str()));
        sr_i_capture_errno("sr_i_fdatasync", 5, 120, "1.1");
        ASSERT_EQ(0, chdir(cwd));
        EXPECT_EQ("precious", read_file(victim)) << (hard ? "hard link" : "symbolic link");
    }
}

TEST(ErrnoCaptureTest, UnwritableDirectoryIsSkippedQuietly) {
    qxtest::TempDir dir;
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
    std::string sub = dir.file("ro");
    ASSERT_EQ(0, mkdir(sub.c_str(), 0500));
    ASSERT_EQ(0, chdir(sub.c_str()));
    sr_i_capture_errno("f", 1, 2, "v");  // must not crash whatever the permissions
    ASSERT_EQ(0, chdir(cwd));
}

// fork() from one thread while another holds the API mutex: the fork waits
// for the mutex (so the child never sees a half-done change), and the child
// starts with a free mutex.
TEST(ForkConcurrencyTest, ForkWaitsForTheApiMutexAndChildGetsAFreeOne) {
    sr_opaque_handle_t tree = nullptr;
    ASSERT_EQ(0, sr_open_tree_1(&tree, 0, 0));  // installs the fork handlers
    sr_i_fork_mutex_lock();
    std::atomic<bool> forked{false};
    std::atomic<int> child_status{-1};
    std::thread forker([&] {
        pid_t pid = fork();
        if (pid == 0) {
            // In the child: the mutex must be free.
            int rc = pthread_mutex_trylock(&ForkMutex);
            _exit(rc == 0 ? 0 : 3);
        }
        forked = true;
        int status = 0;
        waitpid(pid, &status, 0);
        child_status = WIFEXITED(status) ? WEXITSTATUS(status) : 99;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(forked.load()) << "fork completed while the API mutex was held";
    sr_i_fork_mutex_unlock();
    forker.join();
    EXPECT_TRUE(forked.load());
    EXPECT_EQ(0, child_status.load());
    // The parent's mutex is free again after the fork.
    EXPECT_EQ(0, pthread_mutex_trylock(&ForkMutex));
    pthread_mutex_unlock(&ForkMutex);
    EXPECT_EQ(0, sr_close_tree_1(tree));
}

}  // namespace
