// Tables shared between processes: the writer's file lock (a second writer
// waits for it, and it survives other opens and closes of the same file in
// the writer's process), readers that take no lock and see the committed
// state, and two processes racing to create one table.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <dirent.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "sr/table_test_util.h"

using qxtest::Exists;
using qxtest::FileImage;

namespace {

qx_int64_t NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<qx_int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// A pipe the child reports on with fixed-size messages.
struct Channel {
    int fds[2] = {-1, -1};
    Channel() { EXPECT_EQ(pipe(fds), 0); }
    ~Channel() {
        if (fds[0] >= 0) close(fds[0]);
        if (fds[1] >= 0) close(fds[1]);
    }
    void Send(qx_int64_t value) const {
        if (write(fds[1], &value, sizeof value) != sizeof value) _exit(90);
    }
    // The next value, or -1 when none arrives within timeout_ms.
    qx_int64_t Receive(int timeout_ms) const {
        struct pollfd p = {fds[0], POLLIN, 0};
        if (poll(&p, 1, timeout_ms) != 1) return -1;
        qx_int64_t value = -1;
        if (read(fds[0], &value, sizeof value) != sizeof value) return -1;
        return value;
    }
};

int WaitChild(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

class TableProcessConcurrencyTest : public qxtest::TableTest {
  protected:
    // In a child: a tree of its own with the same mount.
    sr_opaque_handle_t ChildTree() {
        sr_opaque_handle_t tree = nullptr;
        if (sr_open_tree_1(&tree, 0, 0) != 0) _exit(91);
        if (sr_mount_local_tree_1(tree, Text("/m"), Text(tmp_.file("d")), 1) != 0) _exit(92);
        return tree;
    }

    // Whether another process holds a lock on the file (asked from a child,
    // since a process never conflicts with its own locks).
    bool LockedForOthers(const std::string &path) {
        pid_t pid = fork();
        if (pid == 0) {
            int fd = open(path.c_str(), O_RDWR);
            if (fd < 0) _exit(93);
            if (lockf(fd, F_TEST, 0) == 0) _exit(0);
            _exit(errno == EACCES || errno == EAGAIN ? 1 : 94);
        }
        int status = WaitChild(pid);
        EXPECT_TRUE(status == 0 || status == 1) << status;
        return status == 1;
    }
};

TEST_F(TableProcessConcurrencyTest, SecondWriterWaitsInLockfUntilTheFirstCloses) {
    sr_i_table_t *p_table = Create("/m/t", ScalarColumns(2));
    ASSERT_NE(p_table, nullptr);
    Channel ready, done;
    pid_t pid = fork();
    if (pid == 0) {
        sr_opaque_handle_t tree = ChildTree();
        ready.Send(NowMs());
        sr_opaque_handle_t table = nullptr;
        qx_int32_t rc = sr_open_table_1(tree, Text("/m/t"), 2, &table);
        done.Send(rc == 0 ? NowMs() : -rc);
        _exit(0);
    }
    ASSERT_GT(ready.Receive(5000), 0);
    // The child is blocked in the lock, not failing: nothing comes back.
    EXPECT_EQ(done.Receive(400), -1);
    const qx_int64_t closed_at = NowMs();
    ASSERT_EQ(sr_close_table_1(p_table), 0);
    qx_int64_t opened_at = done.Receive(5000);
    EXPECT_GE(opened_at, closed_at);
    EXPECT_EQ(WaitChild(pid), 0);
}

// Adds row k (its other column k * 10) through the exported call.
qx_int32_t AddRow(sr_opaque_handle_t table, qx_int64_t k) {
    char key_name[] = "k";
    char other_name[] = "c1";
    char *names[] = {key_name, other_name};
    qx_value_t key{}, other{};
    key.val_int64 = k;
    other.val_int64 = k * 10;
    qx_value_t *values[] = {&key, &other};
    return sr_add_row_1(table, names, values, 2);
}

// The first writer commits a rewrite (a rename over the path) while the
// second waits in the lock on the file it opened before: the second must
// work on the new file, or its commits would go to an unlinked one.
TEST_F(TableProcessConcurrencyTest, WaitingWriterWorksOnTheFileARewriteRenamedIntoPlace) {
    sr_i_table_t *p_table = Create("/m/t", ScalarColumns(2), 6);
    ASSERT_NE(p_table, nullptr);
    Channel ready, done;
    pid_t pid = fork();
    if (pid == 0) {
        sr_opaque_handle_t tree = ChildTree();
        ready.Send(1);
        sr_opaque_handle_t table = nullptr;
        qx_int32_t rc = sr_open_table_1(tree, Text("/m/t"), 2, &table);
        if (rc != 0) {
            done.Send(-rc);
            _exit(1);
        }
        done.Send(static_cast<sr_i_table_t *>(table)->total_committed_rows);
        done.Send(AddRow(table, 2));
        sr_close_tree_1(tree);
        _exit(0);
    }
    ASSERT_EQ(ready.Receive(5000), 1);
    EXPECT_EQ(done.Receive(300), -1) << "the second writer did not wait";
    ASSERT_EQ(AddRow(p_table, 1), 0);
    ASSERT_EQ(sr_i_apply(p_table, 1, 0), 0);  // a complete new image...
    ASSERT_EQ(sr_i_commit(p_table), 0);       // ...renamed over the file
    ASSERT_EQ(sr_close_table_1(p_table), 0);
    EXPECT_EQ(done.Receive(5000), 1) << "the waiter read the replaced file";
    EXPECT_EQ(done.Receive(5000), 0);
    EXPECT_EQ(WaitChild(pid), 0);
    sr_opaque_handle_t table = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/t"), 1, &table), 0);
    EXPECT_EQ(static_cast<sr_i_table_t *>(table)->total_committed_rows, 2u)
        << "the waiter's row went to an unlinked file";
    EXPECT_EQ(sr_close_table_1(table), 0);
}

// A copy over a table waits for the table's writer.  When the writer commits
// a rewrite, the file the copy waited on is renamed away and its lock freed
// while the writer goes on with the new file: the copy must wait for that one.
TEST_F(TableProcessConcurrencyTest, CopyOverATableWaitsForItsWriterAcrossARewrite) {
    ASSERT_EQ(sr_close_table_1(Create("/m/s", ScalarColumns(2))), 0);
    sr_i_table_t *p_writer = Create("/m/t", ScalarColumns(2), 6);
    ASSERT_NE(p_writer, nullptr);
    Channel ready, done;
    pid_t pid = fork();
    if (pid == 0) {
        sr_opaque_handle_t tree = ChildTree();
        ready.Send(1);
        char source[] = "/m/s", target[] = "/m/t";
        qx_int32_t rc = sr_copy_table_by_name_1(tree, source, target, 1);
        done.Send(rc == 0 ? 1 : -rc);
        _exit(0);
    }
    ASSERT_EQ(ready.Receive(5000), 1);
    EXPECT_EQ(done.Receive(300), -1) << "the copy did not wait for the writer";
    ASSERT_EQ(AddRow(p_writer, 1), 0);
    ASSERT_EQ(sr_i_apply(p_writer, 1, 0), 0);  // a complete new image...
    ASSERT_EQ(sr_i_commit(p_writer), 0);       // ...renamed over the file
    EXPECT_EQ(done.Receive(300), -1) << "the copy went ahead under the writer";
    ASSERT_EQ(AddRow(p_writer, 2), 0);
    ASSERT_EQ(sr_apply_1(p_writer, 0), 0);
    ASSERT_EQ(sr_commit_1(p_writer), 0);
    sr_opaque_handle_t other = nullptr;
    ASSERT_EQ(sr_open_tree_1(&other, 0, 0), 0);
    ASSERT_EQ(sr_mount_local_tree_1(other, Text("/m"), Text(tmp_.file("d")), 1), 0);
    sr_opaque_handle_t reader = nullptr;
    ASSERT_EQ(sr_open_table_1(other, Text("/m/t"), 1, &reader), 0);
    EXPECT_EQ(static_cast<sr_i_table_t *>(reader)->total_committed_rows, 2u)
        << "the writer's commits went to a file the copy replaced";
    ASSERT_EQ(sr_close_table_1(reader), 0);
    ASSERT_EQ(sr_close_table_1(p_writer), 0);
    EXPECT_EQ(done.Receive(5000), 1);
    EXPECT_EQ(WaitChild(pid), 0);
    sr_close_tree_1(other);
}

TEST_F(TableProcessConcurrencyTest, ReaderInAnotherProcessSeesTheCommittedStateWithoutWaiting) {
    FileImage image = NewFile("t");
    image.Row(0, {1, 10});
    image.Row(0, {2, 20});
    image.Commit(4);
    image.Row(0, {3, 30});  // applied, not committed
    image.Commit(5);
    qxtest::WriteBytes(File("t"), image.bytes);
    // This process holds the writer's lock meanwhile.
    sr_opaque_handle_t writer = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/t"), 2, &writer), 0);
    Channel report;
    pid_t pid = fork();
    if (pid == 0) {
        sr_opaque_handle_t tree = ChildTree();
        sr_opaque_handle_t table = nullptr;
        qx_int32_t rc = sr_open_table_1(tree, Text("/m/t"), 1, &table);
        auto *p = static_cast<sr_i_table_t *>(table);
        report.Send(rc);
        report.Send(rc == 0 ? p->total_committed_rows : -1);
        report.Send(rc == 0 ? static_cast<qx_int64_t>(p->change_counter) : -1);
        _exit(0);
    }
    EXPECT_EQ(report.Receive(5000), 0);
    EXPECT_EQ(report.Receive(5000), 2);
    EXPECT_EQ(report.Receive(5000), 4);
    EXPECT_EQ(WaitChild(pid), 0);
    EXPECT_EQ(sr_close_table_1(writer), 0);
}

TEST_F(TableProcessConcurrencyTest, TwoProcessesCreatingOneTableOneWinsTheOtherGets201) {
    for (int round = 0; round < 10; ++round) {
        const std::string name = "race" + std::to_string(round);
        Channel go;
        std::vector<pid_t> children;
        for (int c = 0; c < 2; ++c) {
            pid_t pid = fork();
            if (pid == 0) {
                sr_opaque_handle_t tree = ChildTree();
                if (go.Receive(5000) < 0) _exit(95);
                std::vector<sr_column_t> columns = ScalarColumns(3);
                sr_opaque_handle_t table = nullptr;
                qx_int32_t rc =
                    sr_create_table_1(tree, Text("/m/" + name), columns.data(), 3, 2, &table);
                _exit(rc == 0 ? 0 : rc == 201 ? 1 : 2);
            }
            children.push_back(pid);
        }
        go.Send(1);
        go.Send(1);
        int a = WaitChild(children[0]);
        int b = WaitChild(children[1]);
        EXPECT_EQ(a + b, 1) << "round " << round << ": " << a << " " << b;
        EXPECT_FALSE(Exists(File(name + ".rewrite"))) << round;
        // The winner's file is whole.
        sr_opaque_handle_t table = nullptr;
        ASSERT_EQ(sr_open_table_1(tree_, Text("/m/" + name), 1, &table), 0) << round;
        EXPECT_EQ(static_cast<sr_i_table_t *>(table)->total_columns, 3u);
        EXPECT_EQ(sr_close_table_1(table), 0);
    }
}

// A lockf lock dies with the first close of any descriptor of its file in
// the process; the writer's lock must outlive other opens of the same file.
TEST_F(TableProcessConcurrencyTest, WritersLockSurvivesOtherTreesOpeningAndClosingTheFile) {
    sr_i_table_t *p_writer = Create("/m/t", ScalarColumns(2));
    ASSERT_NE(p_writer, nullptr);
    ASSERT_TRUE(LockedForOthers(File("t")));

    sr_opaque_handle_t other = nullptr;
    ASSERT_EQ(sr_open_tree_1(&other, 0, 0), 0);
    ASSERT_EQ(sr_mount_local_tree_1(other, Text("/m"), Text(tmp_.file("d")), 1), 0);
    sr_opaque_handle_t reader = nullptr;
    ASSERT_EQ(sr_open_table_1(other, Text("/m/t"), 1, &reader), 0);
    ASSERT_EQ(sr_close_table_1(reader), 0);
    EXPECT_TRUE(LockedForOthers(File("t"))) << "after a reader in another tree closed";

    // A second writer of the same process waits for the first as one in
    // another process would (the process's lock does not keep it out), then
    // works on what the first committed.
    std::atomic<qx_int64_t> opened_at{0};
    sr_opaque_handle_t writer2 = nullptr;
    std::thread second([&] {
        qx_int32_t rc = sr_open_table_1(other, Text("/m/t"), 2, &writer2);
        opened_at = rc == 0 ? NowMs() : -rc;
    });
    usleep(300000);
    EXPECT_EQ(opened_at.load(), 0) << "the second writer did not wait";
    ASSERT_EQ(AddRow(p_writer, 1), 0);
    const qx_int64_t closed_at = NowMs();
    ASSERT_EQ(sr_close_table_1(p_writer), 0);
    second.join();
    ASSERT_GE(opened_at.load(), closed_at);
    EXPECT_EQ(static_cast<sr_i_table_t *>(writer2)->total_committed_rows, 1u);
    EXPECT_TRUE(LockedForOthers(File("t"))) << "while the second writer has it";
    ASSERT_EQ(AddRow(writer2, 2), 0);
    ASSERT_EQ(sr_close_table_1(writer2), 0);
    EXPECT_FALSE(LockedForOthers(File("t"))) << "after both writers closed";
    sr_opaque_handle_t check = nullptr;
    ASSERT_EQ(sr_open_table_1(other, Text("/m/t"), 1, &check), 0);
    EXPECT_EQ(static_cast<sr_i_table_t *>(check)->total_committed_rows, 2u);
    ASSERT_EQ(sr_close_table_1(check), 0);
    sr_close_tree_1(other);
}

// A child forked from a writer inherits the handle but not the lock: its
// updates are refused and the file stays the parent's.
TEST_F(TableProcessConcurrencyTest, ForkedChildCannotWriteThroughTheParentsHandle) {
    sr_i_table_t *p_writer = Create("/m/t", ScalarColumns(2));
    ASSERT_NE(p_writer, nullptr);
    ASSERT_EQ(AddRow(p_writer, 1), 0);
    const std::string before = qxtest::ReadBytes(File("t"));
    pid_t pid = fork();
    if (pid == 0) {
        _exit(AddRow(p_writer, 2) == SR_E_ACCESS ? 0 : 1);
    }
    EXPECT_EQ(WaitChild(pid), 0);
    EXPECT_EQ(qxtest::ReadBytes(File("t")), before);
    ASSERT_EQ(AddRow(p_writer, 3), 0);
    ASSERT_EQ(sr_close_table_1(p_writer), 0);
}

TEST_F(TableProcessConcurrencyTest, WritersLockSurvivesTheReadToWriteReload) {
    ASSERT_EQ(sr_close_table_1(Create("/m/t", ScalarColumns(2))), 0);
    EXPECT_FALSE(LockedForOthers(File("t")));
    sr_opaque_handle_t reader = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/t"), 1, &reader), 0);
    EXPECT_FALSE(LockedForOthers(File("t"))) << "readers take no lock";
    sr_opaque_handle_t writer = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/t"), 2, &writer), 0);
    ASSERT_EQ(writer, reader);
    // The reload closed the reader's old descriptor behind the scenes.
    EXPECT_TRUE(LockedForOthers(File("t"))) << "after the reload";
    ASSERT_EQ(sr_close_table_1(reader), 0);
    EXPECT_TRUE(LockedForOthers(File("t"))) << "while one open remains";
    ASSERT_EQ(sr_close_table_1(writer), 0);
    EXPECT_FALSE(LockedForOthers(File("t"))) << "after the last close";
}

// The application metadata the file holds, read by a fresh open.
std::string MetadataOf(sr_opaque_handle_t tree, const char *p_path) {
    sr_opaque_handle_t table = nullptr;
    if (sr_open_table_1(tree, const_cast<char *>(p_path), 1, &table) != 0) return "<no open>";
    qx_binary_t *p_binary = nullptr;
    std::string text = "<none>";
    if (sr_get_application_metadata_1(table, &p_binary) == 0 && p_binary != nullptr) {
        text.assign(reinterpret_cast<const char *>(p_binary->data), p_binary->length);
        std::free(p_binary);
    }
    sr_close_table_1(table);
    return text;
}

// A reader's record upgraded to a writer's is read again from the file: the
// application metadata another tree committed meanwhile comes with the rows,
// or the next commit would write the stale one back over it.
TEST_F(TableProcessConcurrencyTest, ReloadForWriteTakesTheApplicationMetadataOfTheFile) {
    ASSERT_EQ(sr_close_table_1(Create("/m/t", ScalarColumns(2))), 0);
    sr_opaque_handle_t reader = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/t"), 1, &reader), 0);
    sr_opaque_handle_t other = nullptr;
    ASSERT_EQ(sr_open_tree_1(&other, 0, 0), 0);
    ASSERT_EQ(sr_mount_local_tree_1(other, Text("/m"), Text(tmp_.file("d")), 1), 0);
    sr_opaque_handle_t writer = nullptr;
    ASSERT_EQ(sr_open_table_1(other, Text("/m/t"), 2, &writer), 0);
    alignas(qx_binary_t) char storage[sizeof(qx_binary_t) + 8] = {};
    auto *p_binary = reinterpret_cast<qx_binary_t *>(storage);
    p_binary->length = 5;
    std::memcpy(p_binary->data, "fresh", 5);
    ASSERT_EQ(sr_set_application_metadata_1(writer, p_binary), 0);
    ASSERT_EQ(sr_close_table_1(writer), 0);
    sr_close_tree_1(other);
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/t"), 2, &writer), 0);  // the reload
    ASSERT_EQ(AddRow(writer, 1), 0);
    ASSERT_EQ(sr_close_table_1(writer), 0);
    ASSERT_EQ(sr_close_table_1(reader), 0);
    EXPECT_EQ(MetadataOf(tree_, "/m/t"), "fresh");
}

int OpenDescriptors() {
    int count = 0;
    DIR *p_dir = opendir("/proc/self/fd");
    if (p_dir == nullptr) return -1;
    while (readdir(p_dir) != nullptr) ++count;
    closedir(p_dir);
    return count;
}

// While this process writes a table, a reader's descriptor of it cannot be
// closed (that would drop the writer's lock) and is parked; readers that come
// and go must reuse parked descriptors, or churn ends in EMFILE.
TEST_F(TableProcessConcurrencyTest, ReadersComingAndGoingBesideAWriterReuseDescriptors) {
    sr_i_table_t *p_writer = Create("/m/t", ScalarColumns(2));
    ASSERT_NE(p_writer, nullptr);
    sr_opaque_handle_t other = nullptr;
    ASSERT_EQ(sr_open_tree_1(&other, 0, 0), 0);
    ASSERT_EQ(sr_mount_local_tree_1(other, Text("/m"), Text(tmp_.file("d")), 1), 0);
    const int before = OpenDescriptors();
    for (int i = 0; i < 200; ++i) {
        sr_opaque_handle_t reader = nullptr;
        ASSERT_EQ(sr_open_table_1(other, Text("/m/t"), 1, &reader), 0);
        ASSERT_EQ(sr_close_table_1(reader), 0);
    }
    EXPECT_LE(OpenDescriptors(), before + 1);
    EXPECT_TRUE(LockedForOthers(File("t")));
    sr_close_tree_1(other);
    ASSERT_EQ(sr_close_table_1(p_writer), 0);
    EXPECT_FALSE(LockedForOthers(File("t")));
}

// Every allocation of a reader's open beside this process's writer fails in
// turn (the register of descriptors growing among them): no failure may close
// a descriptor in a way that drops the writer's lock.
TEST_F(TableProcessConcurrencyTest, ReadersFailingForMemoryBesideAWriterKeepItsLock) {
    sr_i_table_t *p_writer = Create("/m/t", ScalarColumns(2));
    ASSERT_NE(p_writer, nullptr);
    sr_opaque_handle_t other = nullptr;
    ASSERT_EQ(sr_open_tree_1(&other, 0, 0), 0);
    ASSERT_EQ(sr_mount_local_tree_1(other, Text("/m"), Text(tmp_.file("d")), 1), 0);
    // Readers kept open fill the register, so that it grows at some point.
    std::vector<sr_opaque_handle_t> kept;
    for (int k = 0; k < 40; ++k) {
        for (int n = 0;; ++n) {
            ASSERT_LT(n, 200);
            sr_opaque_handle_t tree = nullptr;
            ASSERT_EQ(sr_open_tree_1(&tree, 0, 0), 0);
            ASSERT_EQ(sr_mount_local_tree_1(tree, Text("/m"), Text(tmp_.file("d")), 1), 0);
            sr_i_alloc_fail_after(n);
            sr_opaque_handle_t reader = nullptr;
            qx_int32_t rc = sr_open_table_1(tree, Text("/m/t"), 1, &reader);
            const bool failed = !sr_i_alloc_failure_pending();
            sr_i_alloc_fail_after(-1);
            if (!failed) {
                ASSERT_EQ(rc, 0);
                kept.push_back(tree);
                break;
            }
            sr_close_tree_1(tree);
        }
    }
    EXPECT_TRUE(LockedForOthers(File("t")));
    for (sr_opaque_handle_t tree : kept) sr_close_tree_1(tree);
    EXPECT_TRUE(LockedForOthers(File("t")));
    sr_close_tree_1(other);
    ASSERT_EQ(sr_close_table_1(p_writer), 0);
}

// Threads of one process, each with a tree of its own, open and close one
// table for read and for write side by side: every descriptor is closed in
// the end and no lock is left.
TEST_F(TableProcessConcurrencyTest, ThreadsOfSeveralTreesOpenAndCloseOneTable) {
    ASSERT_EQ(sr_close_table_1(Create("/m/t", ScalarColumns(2))), 0);
    const int before = OpenDescriptors();
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    std::vector<sr_opaque_handle_t> trees(4);
    for (auto &tree : trees) {
        ASSERT_EQ(sr_open_tree_1(&tree, 0, 0), 0);
        ASSERT_EQ(sr_mount_local_tree_1(tree, Text("/m"), Text(tmp_.file("d")), 1), 0);
    }
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            char path[] = "/m/t";
            for (int i = 0; i < 40; ++i) {
                sr_opaque_handle_t table = nullptr;
                int mode = (i + t) % 3 == 0 ? 2 : 1;
                if (sr_open_table_1(trees[t], path, mode, &table) != 0 ||
                    static_cast<sr_i_table_t *>(table)->total_columns != 2 ||
                    sr_close_table_1(table) != 0) {
                    ++failures;
                }
            }
        });
    }
    for (auto &thread : threads) thread.join();
    for (auto tree : trees) sr_close_tree_1(tree);
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_FALSE(LockedForOthers(File("t")));
}

// Threads sharing one tree share one record: opens and closes only count.
TEST_F(TableProcessConcurrencyTest, ThreadsOfOneTreeShareOneRecord) {
    sr_i_table_t *p_table = Create("/m/t", ScalarColumns(2));
    ASSERT_NE(p_table, nullptr);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            char path[] = "/m/t";
            for (int i = 0; i < 50; ++i) {
                sr_opaque_handle_t table = nullptr;
                if (sr_open_table_1(tree_, path, 1, &table) != 0 || table != p_table ||
                    sr_close_table_1(table) != 0) {
                    ++failures;
                }
            }
        });
    }
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(p_table->references, 1u);
    EXPECT_TRUE(LockedForOthers(File("t")));
    EXPECT_EQ(sr_close_table_1(p_table), 0);
    EXPECT_FALSE(LockedForOthers(File("t")));
}

// A thread cancelled while an exported call waits in lockf: the call must
// finish (cancellation takes effect after it), or the tree's lock it holds
// would never be released and the next call on the tree would hang.
class CancellationTest : public TableProcessConcurrencyTest {};

TEST_F(CancellationTest, ThreadCancelledWhileACallWaitsInLockfLeavesNoLockHeld) {
    ASSERT_EQ(sr_close_table_1(Create("/m/t", ScalarColumns(2))), 0);
    Channel ready, release;
    pid_t holder = fork();
    if (holder == 0) {
        sr_opaque_handle_t tree = ChildTree();
        sr_opaque_handle_t table = nullptr;
        if (sr_open_table_1(tree, Text("/m/t"), 2, &table) != 0) _exit(1);
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
                      // The cancellation is still pending; the thread ends
                      // without acting on it (no unwinding in the test).
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
    // Finished either way: through its call, or cancelled inside it.
    EXPECT_EQ(pthread_join(waiter, nullptr), 0);
    // A child probes the tree: it hangs if the waiter died holding a lock.
    pid_t probe = fork();
    if (probe == 0) {
        sr_opaque_handle_t table = nullptr;
        char path[] = "/m/t";
        _exit(sr_open_table_1(tree_, path, 1, &table) == 0 ? 0 : 1);
    }
    int status = -1;
    for (int i = 0; i < 300 && waitpid(probe, &status, WNOHANG) == 0; ++i) usleep(10000);
    if (waitpid(probe, &status, WNOHANG) == 0) {
        kill(probe, SIGKILL);
        WaitChild(probe);
        ADD_FAILURE() << "the tree's lock was left held by the cancelled thread";
        return;
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(TableProcessConcurrencyTest, DescriptorsNotRegisteredAreSimplyClosed) {
    int fd = open(tmp_.path().c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    sr_i_close_data_file(fd);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    sr_i_close_data_file(-1);
}

}  // namespace
