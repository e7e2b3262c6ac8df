// Table management across processes: copies into one directory wait for the
// directory's ",Lock" file and lose nothing when two processes race, and a
// process killed in the middle of a copy into a file or of a schema change's
// rewrite leaves the target absent or complete and the source intact; repair
// then clears the left-over ".rewrite" file.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <string>

#include "sr/rows_test_util.h"

namespace qxtest {
namespace {

int WaitChild(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

class ManagementProcessConcurrencyTest : public RowsTest {
  protected:
    void TearDown() override {
        unsetenv("QX_SR_TEST_PAUSE");
        sr_i_test_pause_reload();
        RowsTest::TearDown();
    }

    // In a child: a tree of its own with the same mount.
    sr_opaque_handle_t ChildTree() {
        sr_opaque_handle_t tree = nullptr;
        if (sr_open_tree_1(&tree, 0, 0) != 0) _exit(91);
        if (sr_mount_local_tree_1(tree, Text("/m"), Text(tmp_.file("d")), 1) != 0) _exit(92);
        return tree;
    }

    // /m/<name> with `rows` rows key -> ("<name><key>", key), closed.
    void FileTable(const std::string &name, int rows) {
        sr_i_table_t *p_table = Make("/m/" + name, SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL);
        ASSERT_NE(p_table, nullptr);
        for (int k = 0; k < rows; ++k) {
            ASSERT_EQ(AddRow(p_table, k, (name + std::to_string(k)).c_str(), k), 0);
        }
        ASSERT_EQ(ApplyCommit(p_table), 0);
        ASSERT_EQ(sr_close_table_1(p_table), 0);
    }

    // key -> "s|n" of the committed rows of /m/<name>, or {-code: ""}.
    std::map<qx_int64_t, std::string> RowsOf(const std::string &name) {
        sr_opaque_handle_t handle = nullptr;
        qx_int32_t rc = sr_open_table_1(tree_, Text("/m/" + name), SR_MODE_READ, &handle);
        if (rc != 0) return {{-rc, ""}};
        auto *p_table = static_cast<sr_i_table_t *>(handle);
        std::map<qx_int64_t, std::string> rows;
        for (qx_uint32_t r = 0; r < p_table->total_committed_rows; ++r) {
            qx_value_t k{}, s{}, n{};
            Get(p_table, static_cast<qx_int32_t>(r), "k", &k);
            Get(p_table, static_cast<qx_int32_t>(r), "s", &s);
            Get(p_table, static_cast<qx_int32_t>(r), "n", &n);
            rows[k.val_int64] = std::string(s.ptr_char) + "|" + std::to_string(n.val_int32);
        }
        sr_close_table_1(p_table);
        return rows;
    }
    static std::map<qx_int64_t, std::string> Expected(const std::string &name, int rows) {
        std::map<qx_int64_t, std::string> expected;
        for (int k = 0; k < rows; ++k) {
            expected[k] = name + std::to_string(k) + "|" + std::to_string(k);
        }
        return expected;
    }

    // Forks a child that runs `work` in a tree of its own with the pause
    // point armed; returns once the child has stopped there.
    pid_t StopChildAt(const std::string &point,
                      const std::function<qx_int32_t(sr_opaque_handle_t)> &work) {
        pid_t pid = fork();
        if (pid == 0) {
            alarm(60);  // never outlive a broken test
            setenv("QX_SR_TEST_PAUSE", point.c_str(), 1);
            sr_i_test_pause_reload();
            if (work(ChildTree()) != 0) _exit(4);
            _exit(0);  // the point was never reached
        }
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, WUNTRACED), pid);
        EXPECT_TRUE(WIFSTOPPED(status))
            << "the child ended with status " << status << " before reaching " << point;
        return pid;
    }
    static void Kill(pid_t pid) {
        kill(pid, SIGKILL);
        int status = 0;
        waitpid(pid, &status, 0);
    }
    qx_int32_t Repair(const std::string &path) {
        char *names[] = {Text(path)};
        return sr_repair_tables_1(tree_, names, 1);
    }
};

TEST_F(ManagementProcessConcurrencyTest, CopyIntoADirectoryWaitsForItsLockFile) {
    FileTable("src", 5);
    // This process holds the directory's lock, as a copy in progress does; a
    // copier in another process must wait for it.
    qx_int32_t lock_fd = -1;
    ASSERT_EQ(sr_i_lock_tree(File("src").c_str(), F_LOCK, &lock_fd), 0);
    EXPECT_TRUE(Exists(File(",Lock")));
    pid_t copier = fork();
    if (copier == 0) {
        alarm(60);
        sr_opaque_handle_t tree = ChildTree();
        _exit(sr_copy_table_by_name_1(tree, Text("/m/src"), Text("/m/dst"), 0) == 0 ? 0 : 1);
    }
    usleep(400 * 1000);
    EXPECT_FALSE(Exists(File("dst"))) << "the copy did not wait for the lock";
    EXPECT_FALSE(Exists(File("dst.rewrite")));
    int status = 0;
    EXPECT_EQ(waitpid(copier, &status, WNOHANG), 0);
    close(lock_fd);
    EXPECT_EQ(WaitChild(copier), 0);
    EXPECT_EQ(RowsOf("dst"), Expected("src", 5));
}

TEST_F(ManagementProcessConcurrencyTest, TwoProcessesCopyingAndMovingIntoOneDirectoryLoseNothing) {
    FileTable("a", 20);
    FileTable("b", 30);
    constexpr int kRounds = 15;
    auto racer = [&](const std::string &source, const std::string &own) {
        pid_t pid = fork();
        if (pid == 0) {
            alarm(120);
            sr_opaque_handle_t tree = ChildTree();
            for (int i = 0; i < kRounds; ++i) {
                // Both write the shared target; each keeps a table of its own
                // that it moves back and forth.
                if (sr_copy_table_by_name_1(tree, Text("/m/" + source), Text("/m/shared"), 1) !=
                    0) {
                    _exit(10);
                }
                const std::string from = "/m/" + own + std::to_string(i % 2);
                const std::string to = "/m/" + own + std::to_string((i + 1) % 2);
                if (i == 0 &&
                    sr_copy_table_by_name_1(tree, Text("/m/" + source), Text(from), 0) != 0) {
                    _exit(11);
                }
                if (sr_move_table_by_name_1(tree, Text(from), Text(to), 0) != 0) _exit(12);
            }
            _exit(0);
        }
        return pid;
    };
    pid_t first = racer("a", "x");
    pid_t second = racer("b", "y");
    EXPECT_EQ(WaitChild(first), 0);
    EXPECT_EQ(WaitChild(second), 0);

    auto shared = RowsOf("shared");
    EXPECT_TRUE(shared == Expected("a", 20) || shared == Expected("b", 30));
    const std::string x_final = "x" + std::to_string(kRounds % 2);
    const std::string y_final = "y" + std::to_string(kRounds % 2);
    EXPECT_EQ(RowsOf(x_final), Expected("a", 20));
    EXPECT_EQ(RowsOf(y_final), Expected("b", 30));
    EXPECT_FALSE(Exists(File("x" + std::to_string((kRounds + 1) % 2))));
    EXPECT_FALSE(Exists(File("shared.rewrite")));
    EXPECT_EQ(RowsOf("a"), Expected("a", 20));
    EXPECT_EQ(RowsOf("b"), Expected("b", 30));
}

TEST_F(ManagementProcessConcurrencyTest, CopyKilledBeforeItsRenameLeavesNoTarget) {
    FileTable("src", 8);
    Kill(StopChildAt("copy-before-rename", [&](sr_opaque_handle_t tree) {
        return sr_copy_table_by_name_1(tree, Text("/m/src"), Text("/m/dst"), 0);
    }));
    EXPECT_FALSE(Exists(File("dst")));
    EXPECT_TRUE(Exists(File("dst.rewrite")));
    EXPECT_EQ(RowsOf("src"), Expected("src", 8));
    ASSERT_EQ(Repair("/m/dst"), 0);
    EXPECT_FALSE(Exists(File("dst.rewrite")));
    EXPECT_EQ(RowsOf("dst"), (std::map<qx_int64_t, std::string>{{-200, ""}}));
}

TEST_F(ManagementProcessConcurrencyTest, CopyOfAnOpenTableKilledBeforeItsRenameKeepsTheOldTarget) {
    FileTable("src", 8);
    FileTable("dst", 3);
    Kill(StopChildAt("copy-before-rename", [&](sr_opaque_handle_t tree) {
        sr_opaque_handle_t source = nullptr;
        qx_int32_t rc = sr_open_table_1(tree, Text("/m/src"), SR_MODE_WRITE, &source);
        return rc != 0 ? rc : sr_copy_table_by_handle_1(source, Text("/m/dst"), 1);
    }));
    EXPECT_EQ(RowsOf("dst"), Expected("dst", 3));
    EXPECT_EQ(RowsOf("src"), Expected("src", 8));
    ASSERT_EQ(Repair("/m/dst"), 0);
    EXPECT_FALSE(Exists(File("dst.rewrite")));
}

TEST_F(ManagementProcessConcurrencyTest, SchemaChangeKilledBeforeItsRenameKeepsTheOldTable) {
    FileTable("t", 6);
    for (const char *point : {"apply-written", "schema-applied", "rewrite-before-rename"}) {
        Kill(StopChildAt(point, [&](sr_opaque_handle_t tree) {
            sr_opaque_handle_t table = nullptr;
            qx_int32_t rc = sr_open_table_1(tree, Text("/m/t"), SR_MODE_WRITE, &table);
            sr_column_t extra{};
            extra.name = Text("extra");
            extra.type = QX_INT32;
            extra.qualifier = SR_STANDARD;
            return rc != 0 ? rc : sr_add_columns_1(table, &extra, 1);
        }));
        EXPECT_EQ(RowsOf("t"), Expected("t", 6)) << point;
        sr_opaque_handle_t handle = nullptr;
        ASSERT_EQ(sr_open_table_1(tree_, Text("/m/t"), SR_MODE_READ, &handle), 0);
        EXPECT_EQ(static_cast<sr_i_table_t *>(handle)->total_columns, 3u) << point;
        sr_close_table_1(handle);
        ASSERT_EQ(Repair("/m/t"), 0);
        EXPECT_FALSE(Exists(File("t.rewrite"))) << point;
    }
}

TEST_F(ManagementProcessConcurrencyTest, SchemaChangeKilledAfterItsRenameHasTheNewTable) {
    FileTable("t", 6);
    Kill(StopChildAt("rewrite-after-rename", [&](sr_opaque_handle_t tree) {
        sr_opaque_handle_t table = nullptr;
        qx_int32_t rc = sr_open_table_1(tree, Text("/m/t"), SR_MODE_WRITE, &table);
        char *names[] = {Text("n")};
        return rc != 0 ? rc : sr_delete_columns_1(table, names, 1);
    }));
    sr_opaque_handle_t handle = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/t"), SR_MODE_READ, &handle), 0);
    auto *p_table = static_cast<sr_i_table_t *>(handle);
    EXPECT_EQ(p_table->total_columns, 2u);
    EXPECT_EQ(p_table->total_committed_rows, 6u);
    EXPECT_EQ(TextOf(p_table, 5), "t5");
    sr_close_table_1(handle);
    EXPECT_FALSE(Exists(File("t.rewrite")));
}

}  // namespace
}  // namespace qxtest
