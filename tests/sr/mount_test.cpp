// Registry paths, mount points, the directories a mount makes, and repair of ".rewrite" files.
#include <errno.h>
#include <sys/stat.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "sr/table_test_util.h"

namespace qxtest {
namespace {

bool IsDirectory(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The tree has "/m" mounted; LeakSanitizer checks the mount points go with it.
class MountTest : public qxtest::TableTest {
  protected:
    int Mount(const std::string &path, const std::string &dir, int create = 1) {
        return sr_mount_local_tree_1(tree_, Text(path), Text(tmp_.file(dir)), create);
    }
    int Unmount(const std::string &path) { return sr_unmount_local_tree_1(tree_, Text(path)); }

    // The file a registry path resolves to: "" when transient, "<rc>" on error.
    std::string Resolve(const std::string &path) {
        char *p_path = Text(path);
        qx_char_ptr_t p_result = nullptr;
        qx_uint32_t block_size = 99;
        int rc =
            sr_i_resolve_path(static_cast<sr_i_tree_t *>(tree_), p_path, &p_result, &block_size);
        if (rc != 0) return "<" + std::to_string(rc) + ">";
        if (block_size == 0) {
            EXPECT_EQ(p_result, p_path) << "a transient path is returned as itself";
            return "";
        }
        EXPECT_EQ(block_size, 512u);
        // The name has room for 31 more bytes (".rewrite" and such).
        std::strcat(p_result, ".rewrite.and.some.more.bytes.xx");
        std::string result(p_result, std::strlen(p_result) - 31);
        free(p_result);
        return result;
    }
};

TEST_F(MountTest, PathSyntaxAndMountedPathsResolvingToFlatFileNames) {
    EXPECT_EQ(Mount("/a", "deep/er/d", 0), 0);  // makes the directory even with create 0
    const std::string d = tmp_.file("deep/er/d");
    struct stat st;
    ASSERT_EQ(stat(d.c_str(), &st), 0);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(st.st_mode & (S_IFMT | 0777), S_IFDIR | (0755 & ~mask));
    EXPECT_EQ(Mount("/b", "deep/er/d/"), 0) << "all there already";
    EXPECT_EQ(last_error().code, 0);
    EXPECT_EQ(Resolve("/a/x"), d + "/x");
    EXPECT_EQ(Resolve("/a/x/y/z9_"), d + "/x,y,z9_");
    for (const char *transient : {"/ab", "/a", "/c/x", "a/x"}) EXPECT_EQ(Resolve(transient), "");
    EXPECT_EQ(Resolve("/a/x.y"), "<102>");
    EXPECT_EQ(Resolve("/a//x"), "<102>");
    for (std::string bad :
         std::vector<std::string>{"", std::string(256, 'a'), std::string(100000, 'a'), "/a b",
                                  "/a\tb", "/a\nb", "/a.b", "/a,b", "/a-b", "/a//b", "//", "/a/.",
                                  "/a/..", "/./a", "/../a", ".", "/a:b", "/a\\b"}) {
        EXPECT_EQ(sr_i_check_path_syntax(bad.data()), 102) << bad;
    }
    for (std::string good :
         std::vector<std::string>{std::string(255, 'a'), "/" + std::string(254, 'a'), "/a/b/",
                                  "a_b", "/", "/config/nodes/table1", "A9/_/z"}) {
        EXPECT_EQ(sr_i_check_path_syntax(good.data()), 0) << good;
    }
    sr_i_alloc_fail_after(0);
    EXPECT_EQ(Resolve("/a/x"), "<12>");
    EXPECT_EQ(last_error().code, 12);
}

TEST_F(MountTest, RefusedMountsAndUnmountsLeaveTheTreeUnchanged) {
    ASSERT_EQ(Mount("/a", "d1"), 0);
    EXPECT_EQ(Mount("/a", "d2"), 207);
    EXPECT_EQ(last_error().message, "2605-207 A mount point containing the path already exists.\n");
    EXPECT_EQ(Resolve("/a/t"), tmp_.file("d1") + "/t");
    EXPECT_EQ(Mount("/a/b", "d5"), 207);
    EXPECT_FALSE(IsDirectory(tmp_.file("d5")));
    EXPECT_EQ(Mount("/x/y", "d3"), 0);
    EXPECT_EQ(Mount("/x", "d4"), 0) << "a prefix of a mount point is accepted";

    EXPECT_EQ(sr_mount_local_tree_1(nullptr, Text("/b"), Text(tmp_.file("d")), 1), 100);
    EXPECT_EQ(sr_mount_local_tree_1(tree_, nullptr, Text(tmp_.file("d")), 1), 102);
    EXPECT_EQ(Mount("/a.b", "d"), 102);
    EXPECT_EQ(sr_unmount_local_tree_1(nullptr, Text("/a")), 100);
    qxtest::WriteBytes(tmp_.file("plain"), "");
    EXPECT_EQ(Mount("/b", "plain/d"), 10);
    EXPECT_EQ(Mount("/b", "plain/sub/d"), 10);
    EXPECT_NE(last_error().message.find("The mkdir system call unexpectedly returned an errno of " +
                                        std::to_string(ENOTDIR) +
                                        " to the sr_i_create_all_directories_in_path function"),
              std::string::npos)
        << last_error().message;
    sr_i_file_ops.p_mkdir = [](const char *, mode_t) { return errno = ENOSPC, -1; };
    EXPECT_EQ(Mount("/b", "x/y"), 13);
    sr_i_file_ops = sr_i_default_file_ops;
    EXPECT_EQ(Resolve("/b/t"), "");
    // A transient table of the name; a path below it is no table.
    ASSERT_NE(Create("/t", ScalarColumns(2)), nullptr);
    EXPECT_EQ(Mount("/t", "d"), 201);
    EXPECT_EQ(Mount("/t/u", "d"), 0);
    // Allocation failures are 12 and leave nothing behind; unmount takes the name as mounted.
    for (int n = 0; n < 3; ++n) {
        sr_i_alloc_fail_after(n);
        EXPECT_EQ(Mount("/u", "da"), 12) << n;
        sr_i_alloc_fail_after(-1);
        EXPECT_EQ(Resolve("/u/t"), "");
    }
    ASSERT_EQ(Mount("/u", "da"), 0);
    sr_i_alloc_fail_after(0);
    EXPECT_EQ(Unmount("/u"), 12);
    sr_i_alloc_fail_after(-1);
    EXPECT_EQ(Unmount("not a path"), 102);
    EXPECT_EQ(Unmount("/u/"), 208);  // lies under the mount point
    EXPECT_EQ(last_error().message, "2605-208 The specified mount point does not exist.\n");
    EXPECT_EQ(Unmount("/b"), 208);
    // The search meets /u/ first and resolves the long path into its directory: no key overrun.
    EXPECT_EQ(Unmount("/u/" + std::string(200, 'q')), 208);
    EXPECT_EQ(Unmount("/u"), 0);
    EXPECT_EQ(Resolve("/u/t"), "");
    EXPECT_TRUE(IsDirectory(tmp_.file("da"))) << "files on disk are never touched";
    EXPECT_EQ(Unmount("/u"), 208);
}

// Repair removes the named tables' ".rewrite" files in order, up to the first bad name.
TEST_F(MountTest, RepairRemovesLeftOverRewriteFiles) {
    for (const char *name : {"/m/a", "/m/b"}) {
        ASSERT_EQ(sr_close_table_1(Create(name, ScalarColumns(2))), 0);
    }
    const std::string a = qxtest::ReadBytes(File("a"));
    auto repair = [&](std::vector<std::string> paths) {
        std::vector<char *> names;
        for (const std::string &path : paths) names.push_back(Text(path));
        return sr_repair_tables_1(tree_, names.data(), static_cast<qx_uint32_t>(names.size()));
    };
    qxtest::WriteBytes(File("a.rewrite"), "half an image");
    qxtest::WriteBytes(File("b.rewrite"), "");
    ASSERT_EQ(repair({"/m/a", "/t/memory", "/m/never", "/m/b"}), 0);
    EXPECT_FALSE(Exists(File("a.rewrite")));
    EXPECT_FALSE(Exists(File("b.rewrite")));
    EXPECT_EQ(qxtest::ReadBytes(File("a")), a);
    EXPECT_TRUE(Exists(File("b")));
    qxtest::WriteBytes(File("a.rewrite"), "x");
    qxtest::WriteBytes(File("b.rewrite"), "x");
    EXPECT_EQ(repair({"/m/a", "/m/bad path", "/m/b"}), 102);
    EXPECT_EQ(last_error().code, 102);
    EXPECT_FALSE(Exists(File("a.rewrite")));
    EXPECT_TRUE(Exists(File("b.rewrite")));
    EXPECT_EQ(sr_repair_tables_1(tree_, nullptr, 0), 0);
    EXPECT_EQ(sr_repair_tables_1(nullptr, nullptr, 1), 100);
}

}  // namespace

// Threads mounting and unmounting on one tree neither lose nor double a mount point.
TEST(MountConcurrencyTest, ThreadsMountingAndUnmountingOnOneTreeLoseNothing) {
    qxtest::TempDir tmp;
    sr_opaque_handle_t tree = nullptr;
    ASSERT_EQ(sr_open_tree_1(&tree, 0, 0), 0);
    constexpr int kThreads = 4, kRounds = 50;
    std::atomic<int> failures{0};
    char bad[] = "not a path";
    EXPECT_EQ(sr_unmount_local_tree_1(tree, bad), 208) << "none mounted: before the path is read";
    EXPECT_EQ(sr_unmount_local_tree_1(tree, nullptr), 208);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                std::string path = "/t" + std::to_string(t) + "/m" + std::to_string(i);
                std::string dir = tmp.file("d" + std::to_string(t));
                if (sr_mount_local_tree_1(tree, path.data(), dir.data(), 1) != 0) ++failures;
                if (sr_mount_local_tree_1(tree, path.data(), dir.data(), 1) != 207) ++failures;
                if (i % 2 == 0 && sr_unmount_local_tree_1(tree, path.data()) != 0) ++failures;
            }
        });
    }
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
    for (int t = 0; t < kThreads; ++t) {  // exactly the odd rounds remain
        for (int i = 0; i < kRounds; ++i) {
            std::string path = "/t" + std::to_string(t) + "/m" + std::to_string(i);
            EXPECT_EQ(sr_unmount_local_tree_1(tree, path.data()), i % 2 == 0 ? 208 : 0) << path;
        }
    }
    EXPECT_EQ(static_cast<sr_i_tree_t *>(tree)->p_mount_points, nullptr);
    EXPECT_EQ(sr_close_tree_1(tree), 0);
}

}  // namespace qxtest
