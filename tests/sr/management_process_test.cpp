// Copies across processes wait for ",Lock" and lose nothing; killed ones leave whole tables.
#include <fcntl.h>

#include <string>

#include "sr/transaction_test_util.h"

namespace qxtest::tx {
namespace {

class ManagementProcessConcurrencyTest : public TransactionTest {
  protected:
    // /m/<name> of `rows` rows (k, rows, k), closed.
    void FileTable(const std::string &name, int rows) {
        sr_i_table_t *p_table = Make(name, 6, 3);
        for (int k = 0; k < rows; ++k) ASSERT_EQ(Put(p_table, R(k, {rows, k})), 0);
        ASSERT_EQ(ApplyCommit(p_table), 0);
        ASSERT_EQ(sr_close_table_1(p_table), 0);
    }
    // What FileTable(_, rows) holds, without its last column when `narrowed`.
    static State Expected(int rows, bool narrowed = false) {
        State state;
        for (int k = 0; k < rows; ++k) state[k] = narrowed ? R(k, {rows}) : R(k, {rows, k});
        return state;
    }
    // Kills a child at the pause point in `work` on the table of `p_path` (else on its tree).
    void KillChildAt(const std::string &point, const char *p_path,
                     const std::function<qx_int32_t(sr_opaque_handle_t)> &work) {
        Kill(StopChildAt(point, [&] {
            sr_opaque_handle_t handle = OtherTree();
            if (p_path && sr_open_table_1(handle, Text(p_path), SR_MODE_WRITE, &handle)) return 3;
            return work(handle) != 0 ? 4 : 0;
        }));
    }
    qx_int32_t Repair(const std::string &path) {
        char *names[] = {Text(path)};
        return sr_repair_tables_1(tree_, names, 1);
    }
};

// Copies wait for the directory's ",Lock"; two processes copying and moving into it lose nothing.
TEST_F(ManagementProcessConcurrencyTest, CopiesWaitForTheLockFileAndTwoProcessesLoseNothing) {
    FileTable("a", 20);
    FileTable("b", 30);
    qx_int32_t lock_fd = -1;  // held here as a copy in progress holds it
    ASSERT_EQ(sr_i_lock_tree(File("a").c_str(), F_LOCK, &lock_fd), 0);
    EXPECT_TRUE(Exists(File(",Lock")));
    constexpr int kRounds = 15;
    // Both write the shared target; each moves a table of its own back and forth.
    auto racer = [&](const std::string &source, const std::string &own) {
        pid_t pid = fork();
        if (pid == 0) {
            alarm(120);
            sr_opaque_handle_t tree = OtherTree();
            if (sr_copy_table_by_name_1(tree, Text("/m/" + source), Text("/m/" + own + "0"), 0)) {
                _exit(11);
            }
            for (int i = 0; i < kRounds; ++i) {
                if (sr_copy_table_by_name_1(tree, Text("/m/" + source), Text("/m/shared"), 1) ||
                    sr_move_table_by_name_1(tree, Text("/m/" + own + std::to_string(i % 2)),
                                            Text("/m/" + own + std::to_string((i + 1) % 2)), 0)) {
                    _exit(12);
                }
            }
            _exit(0);
        }
        return pid;
    };
    pid_t first = racer("a", "x");
    pid_t second = racer("b", "y");
    usleep(400 * 1000);
    for (const char *name : {"x0", "x0.rewrite", "y0", "y0.rewrite"})
        EXPECT_FALSE(Exists(File(name)));
    close(lock_fd);
    EXPECT_EQ(WaitChild(first), 0);
    EXPECT_EQ(WaitChild(second), 0);
    const State shared = Reopened("shared");
    EXPECT_TRUE(shared == Expected(20) || shared == Expected(30));
    EXPECT_EQ(Reopened("x1"), Expected(20));
    EXPECT_EQ(Reopened("y1"), Expected(30));
    EXPECT_FALSE(Exists(File("x0")));
    EXPECT_FALSE(Exists(File("shared.rewrite")));
    EXPECT_EQ(Reopened("a"), Expected(20));
    EXPECT_EQ(Reopened("b"), Expected(30));
}

// A copy or a schema change killed before its rename keeps the old table; repair tidies up.
TEST_F(ManagementProcessConcurrencyTest, CopyOrSchemaChangeKilledBeforeItsRenameKeepsTheOld) {
    FileTable("src", 8);
    KillChildAt("copy-before-rename", nullptr, [&](sr_opaque_handle_t tree) {
        return sr_copy_table_by_name_1(tree, Text("/m/src"), Text("/m/dst"), 0);
    });
    EXPECT_FALSE(Exists(File("dst")));
    EXPECT_TRUE(Exists(File("dst.rewrite")));
    ASSERT_EQ(Repair("/m/dst"), 0);
    EXPECT_FALSE(Exists(File("dst.rewrite")));
    EXPECT_FALSE(Exists(File("dst")));
    FileTable("dst", 3);  // an open source copied over an existing target
    KillChildAt("copy-before-rename", "/m/src", [&](sr_opaque_handle_t source) {
        return sr_copy_table_by_handle_1(source, Text("/m/dst"), 1);
    });
    EXPECT_EQ(Reopened("dst"), Expected(3));
    EXPECT_EQ(Reopened("src"), Expected(8));
    ASSERT_EQ(Repair("/m/dst"), 0);
    EXPECT_FALSE(Exists(File("dst.rewrite")));
    FileTable("t", 6);
    for (const char *point : {"apply-written", "schema-applied", "rewrite-before-rename"}) {
        KillChildAt(point, "/m/t", [&](sr_opaque_handle_t table) {
            sr_column_t extra{Text("extra"), QX_INT32, SR_STANDARD, 0, nullptr, {}};
            return sr_add_columns_1(table, &extra, 1);
        });
        EXPECT_EQ(Reopened("t"), Expected(6)) << point;
        ASSERT_EQ(Repair("/m/t"), 0);
        EXPECT_FALSE(Exists(File("t.rewrite"))) << point;
    }
    KillChildAt("rewrite-after-rename", "/m/t", [&](sr_opaque_handle_t table) {
        char *names[] = {Text("c2")};
        return sr_delete_columns_1(table, names, 1);
    });
    EXPECT_EQ(Reopened("t"), Expected(6, true));
    EXPECT_FALSE(Exists(File("t.rewrite")));
}

}  // namespace
}  // namespace qxtest::tx
