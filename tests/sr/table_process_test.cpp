// Tables shared between processes: the writer's file lock, lock-free readers, racing creates.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "sr/transaction_test_util.h"

namespace qxtest::tx {
namespace {

qx_int64_t NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<qx_int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// A pipe a child reports on.
struct Channel {
    int fds[2] = {-1, -1};
    Channel() { EXPECT_EQ(pipe(fds), 0); }
    ~Channel() {
        close(fds[0]);
        close(fds[1]);
    }
    void Send(qx_int64_t value) const {
        if (write(fds[1], &value, sizeof value) != sizeof value) _exit(90);
    }
    // The next value, or -1 when none arrives within timeout_ms.
    qx_int64_t Receive(int timeout_ms) const {
        struct pollfd p = {fds[0], POLLIN, 0};
        qx_int64_t value = -1;
        if (poll(&p, 1, timeout_ms) != 1 || read(fds[0], &value, sizeof value) != sizeof value) {
            return -1;
        }
        return value;
    }
};

int OpenDescriptors() {
    int count = 0;
    DIR *p_dir = opendir("/proc/self/fd");
    if (p_dir == nullptr) return -1;
    while (readdir(p_dir) != nullptr) ++count;
    closedir(p_dir);
    return count;
}

class TableProcessConcurrencyTest : public qxtest::tx::TransactionTest {
  protected:
    qx_uint32_t CommittedRows(sr_opaque_handle_t tree) {
        sr_opaque_handle_t table = OpenT(1, tree);
        qx_uint32_t rows = table ? static_cast<sr_i_table_t *>(table)->total_committed_rows : 0;
        sr_close_table_1(table);
        return rows;
    }

    // Whether another process holds a lock on the file (a child asks: own locks never conflict).
    bool LockedForOthers() {
        pid_t pid = fork();
        if (pid == 0) {
            int fd = open(File("t").c_str(), O_RDWR);
            if (fd < 0) _exit(93);
            if (lockf(fd, F_TEST, 0) == 0) _exit(0);
            _exit(errno == EACCES || errno == EAGAIN ? 1 : 94);
        }
        int status = WaitChild(pid);
        EXPECT_TRUE(status == 0 || status == 1) << status;
        return status == 1;
    }
};

// A writer or a copy waiting for the writer's lock waits across a rewrite, then uses the new file.
TEST_F(TableProcessConcurrencyTest, WaitersForTheWriterWaitAcrossARewriteAndUseTheNewFile) {
    ASSERT_EQ(sr_close_table_1(Create("/m/s", ScalarColumns(2))), 0);
    for (bool copy : {false, true}) {
        SCOPED_TRACE(copy);
        sr_delete_table_1(tree_, Text("/m/t"));
        sr_i_table_t *p_writer = Create("/m/t", ScalarColumns(2), 6);
        Channel ready, done;
        pid_t pid = fork();
        if (pid == 0) {
            sr_opaque_handle_t tree = OtherTree(), table = nullptr;
            ready.Send(1);
            if (copy) {
                if (sr_copy_table_by_name_1(tree, Text("/m/s"), Text("/m/t"), 1) != 0) _exit(1);
                done.Send(NowMs());
                _exit(0);
            }
            if (sr_open_table_1(tree, Text("/m/t"), 2, &table) != 0) _exit(1);
            done.Send(NowMs());
            done.Send(static_cast<sr_i_table_t *>(table)->total_committed_rows);
            done.Send(AddRow(table, 3, 30));
            _exit(0);
        }
        ASSERT_EQ(ready.Receive(5000), 1);
        EXPECT_EQ(done.Receive(300), -1) << "the waiter did not wait";
        ASSERT_EQ(AddRow(p_writer, 1, 10), 0);
        ASSERT_FALSE(sr_i_apply(p_writer, 1, 0) || sr_i_commit(p_writer));  // by a rewrite
        EXPECT_EQ(done.Receive(300), -1) << "the waiter went ahead under the writer";
        ASSERT_EQ(AddRow(p_writer, 2, 20), 0);
        ASSERT_EQ(ApplyCommit(p_writer), 0);
        sr_opaque_handle_t other = OtherTree();
        EXPECT_EQ(CommittedRows(other), 2u) << "the commits went to a file the copy replaced";
        sr_close_tree_1(other);
        const qx_int64_t closed_at = NowMs();
        ASSERT_EQ(sr_close_table_1(p_writer), 0);
        EXPECT_GE(done.Receive(5000), closed_at);
        if (!copy) {
            EXPECT_EQ(done.Receive(5000), 2) << "the waiter read the replaced file";
            EXPECT_EQ(done.Receive(5000), 0);
        }
        EXPECT_EQ(WaitChild(pid), 0);
        EXPECT_EQ(CommittedRows(tree_), copy ? 0u : 3u) << "a row went to an unlinked file";
    }
}

TEST_F(TableProcessConcurrencyTest, TwoProcessesCreatingOneTableOneWinsTheOtherGets201) {
    for (int round = 0; round < 10; ++round) {
        const std::string name = "race" + std::to_string(round);
        Channel go;
        pid_t children[2];
        for (pid_t &child : children) {
            child = fork();
            if (child == 0) {
                sr_opaque_handle_t tree = OtherTree();
                if (go.Receive(5000) < 0) _exit(95);
                std::vector<sr_column_t> columns = ScalarColumns(3);
                sr_opaque_handle_t table = nullptr;
                qx_int32_t rc =
                    sr_create_table_1(tree, Text("/m/" + name), columns.data(), 3, 2, &table);
                _exit(rc == 0 ? 0 : rc == SR_E_TABLE_EXISTS ? 1 : 2);
            }
        }
        go.Send(1);
        go.Send(1);
        EXPECT_EQ(WaitChild(children[0]) + WaitChild(children[1]), 1) << round;
        EXPECT_FALSE(Exists(File(name + ".rewrite"))) << round;
        sr_opaque_handle_t table = nullptr;  // the winner's file is whole
        ASSERT_EQ(sr_open_table_1(tree_, Text("/m/" + name), 1, &table), 0) << round;
        EXPECT_EQ(static_cast<sr_i_table_t *>(table)->total_columns, 3u);
        EXPECT_EQ(sr_close_table_1(table), 0);
    }
}

// A lockf lock dies with any close of its file in the process: it must outlive other opens.
TEST_F(TableProcessConcurrencyTest, WritersLockSurvivesOtherTreesOpeningAndClosingTheFile) {
    sr_i_table_t *p_writer = Create("/m/t", ScalarColumns(2));
    ASSERT_TRUE(LockedForOthers());
    ASSERT_EQ(AddRow(p_writer, 1, 10), 0);
    pid_t pid = fork();  // reads unblocked elsewhere; a forked child has the handle, not the lock
    if (pid == 0) {
        sr_i_table_t *p_reader = OpenT(1, OtherTree());
        _exit(p_reader->total_committed_rows == 1 && AddRow(p_writer, 8, 80) == SR_E_ACCESS ? 0
                                                                                            : 1);
    }
    EXPECT_EQ(WaitChild(pid), 0);
    sr_opaque_handle_t other = OtherTree();
    ASSERT_EQ(sr_close_table_1(OpenT(1, other)), 0);
    EXPECT_TRUE(LockedForOthers()) << "after a reader in another tree closed";
    // A second writer of the same process waits as another process's would.
    std::atomic<qx_int64_t> opened_at{0};
    sr_opaque_handle_t writer2 = nullptr;
    char *p_path = Text("/m/t");  // the test's text store is not shared between threads
    std::thread second([&] {
        qx_int32_t rc = sr_open_table_1(other, p_path, 2, &writer2);
        opened_at = rc == 0 ? NowMs() : -rc;
    });
    usleep(300000);
    EXPECT_EQ(opened_at.load(), 0) << "the second writer did not wait";
    const qx_int64_t closed_at = NowMs();
    ASSERT_EQ(sr_close_table_1(p_writer), 0);
    second.join();
    ASSERT_GE(opened_at.load(), closed_at);
    EXPECT_EQ(static_cast<sr_i_table_t *>(writer2)->total_committed_rows, 1u);
    EXPECT_TRUE(LockedForOthers()) << "while the second writer has it";
    ASSERT_EQ(AddRow(writer2, 2, 20), 0);
    ASSERT_EQ(sr_close_table_1(writer2), 0);
    EXPECT_FALSE(LockedForOthers()) << "after both writers closed";
    EXPECT_EQ(CommittedRows(other), 2u);
    // A reader upgraded to writer keeps the lock and rereads the file, metadata included.
    sr_opaque_handle_t reader = OpenT(1);
    EXPECT_FALSE(LockedForOthers()) << "readers take no lock";
    sr_opaque_handle_t writer = OpenT(2, other);
    alignas(qx_binary_t) char storage[sizeof(qx_binary_t) + 8] = {};
    auto *p_binary = reinterpret_cast<qx_binary_t *>(storage);
    p_binary->length = 5;
    std::memcpy(p_binary->data, "fresh", 5);
    ASSERT_EQ(sr_set_application_metadata_1(writer, p_binary), 0);
    ASSERT_EQ(sr_close_table_1(writer), 0);
    sr_close_tree_1(other);
    ASSERT_EQ(OpenT(2), reader);  // the reload
    EXPECT_TRUE(LockedForOthers()) << "after the reload";
    ASSERT_EQ(AddRow(reader, 3, 30), 0);
    ASSERT_EQ(sr_close_table_1(reader), 0);
    EXPECT_TRUE(LockedForOthers()) << "while one open remains";
    ASSERT_EQ(sr_close_table_1(reader), 0);
    EXPECT_FALSE(LockedForOthers()) << "after the last close";
    reader = OpenT(1);
    qx_binary_t *p_read = nullptr;
    ASSERT_EQ(sr_get_application_metadata_1(reader, &p_read), 0);
    ASSERT_NE(p_read, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(p_read->data), p_read->length), "fresh");
    std::free(p_read);
}

// Threads of many trees open one table; readers' descriptors beside a writer are parked, not
// closed.
TEST_F(TableProcessConcurrencyTest, ThreadsAndReadersBesideAWriterLeaveNothingBehind) {
    ASSERT_EQ(sr_close_table_1(Create("/m/t", ScalarColumns(2))), 0);
    const int before = OpenDescriptors();
    std::atomic<int> failures{0};
    auto race = [&](const std::function<bool(int, int)> &open_close) {
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 40; ++i) failures += open_close(t, i) ? 0 : 1;
            });
        }
        for (auto &thread : threads) thread.join();
    };
    std::vector<sr_opaque_handle_t> trees(4);
    for (auto &tree : trees) tree = OtherTree();
    race([&](int t, int i) {
        sr_opaque_handle_t table = nullptr;
        char path[] = "/m/t";
        return sr_open_table_1(trees[t], path, (i + t) % 3 == 0 ? 2 : 1, &table) == 0 &&
               static_cast<sr_i_table_t *>(table)->total_columns == 2 &&
               sr_close_table_1(table) == 0;
    });
    for (auto tree : trees) sr_close_tree_1(tree);
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_FALSE(LockedForOthers());
    sr_opaque_handle_t writer = OpenT(2);
    race([&](int, int) {
        sr_opaque_handle_t table = nullptr;
        char path[] = "/m/t";
        return sr_open_table_1(tree_, path, 1, &table) == 0 && table == writer &&
               sr_close_table_1(table) == 0;
    });
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(static_cast<sr_i_table_t *>(writer)->references, 1u);
    sr_opaque_handle_t other = OtherTree();
    for (int i = 0; i < 200; ++i) ASSERT_EQ(sr_close_table_1(OpenT(1, other)), 0);
    EXPECT_LE(OpenDescriptors(), before + 2);
    EXPECT_TRUE(LockedForOthers());
    std::vector<sr_opaque_handle_t> kept;  // readers kept open make the register grow
    for (int k = 0; k < 40; ++k) {
        kept.push_back(OtherTree());
        qxtest::EachAllocationFailure(
            [&] {
                sr_opaque_handle_t reader = nullptr;
                return sr_open_table_1(kept.back(), Text("/m/t"), 1, &reader);
            },
            [] {});
    }
    for (sr_opaque_handle_t tree : kept) sr_close_tree_1(tree);
    EXPECT_TRUE(LockedForOthers());
    sr_close_tree_1(other);
    ASSERT_EQ(sr_close_table_1(writer), 0);
    EXPECT_FALSE(LockedForOthers());
    // A descriptor the register never saw is simply closed.
    int fd = open(tmp_.path().c_str(), O_RDONLY);
    sr_i_close_data_file(fd);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    sr_i_close_data_file(-1);
}

// A thread cancelled in lockf inside a call must not leave the tree's lock held.
class CancellationTest : public TableProcessConcurrencyTest {};

TEST_F(CancellationTest, ThreadCancelledWhileACallWaitsInLockfLeavesNoLockHeld) {
    ASSERT_EQ(sr_close_table_1(Create("/m/t", ScalarColumns(2))), 0);
    Channel ready, release;
    pid_t holder = fork();
    if (holder == 0) {
        if (OpenT(2, OtherTree()) == nullptr) _exit(1);
        ready.Send(1);
        release.Receive(10000);
        _exit(0);
    }
    ASSERT_EQ(ready.Receive(5000), 1);
    pthread_t waiter;
    ASSERT_EQ(pthread_create(
                  &waiter, nullptr,
                  [](void *p_tree) -> void * {
                      sr_opaque_handle_t table = nullptr;
                      char path[] = "/m/t";
                      (void)sr_open_table_1(p_tree, path, 2, &table);
                      // End without acting on the pending cancellation.
                      int ignored = 0;
                      (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &ignored);
                      return nullptr;
                  },
                  tree_),
              0);
    usleep(200000);  // the waiter is in lockf now
    ASSERT_EQ(pthread_cancel(waiter), 0);
    usleep(100000);
    release.Send(1);
    EXPECT_EQ(WaitChild(holder), 0);
    EXPECT_EQ(pthread_join(waiter, nullptr), 0);
    // A child probes the tree: it hangs (and its alarm ends it) if the waiter died holding a lock.
    pid_t probe = fork();
    if (probe == 0) {
        alarm(3);
        sr_opaque_handle_t table = nullptr;
        char path[] = "/m/t";
        _exit(sr_open_table_1(tree_, path, 1, &table));
    }
    EXPECT_EQ(WaitChild(probe), 0) << "the tree's lock was left held by the cancelled thread";
}

}  // namespace
}  // namespace qxtest::tx
