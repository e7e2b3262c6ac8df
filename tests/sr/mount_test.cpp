// Mount points: which mounts and unmounts are refused, with which codes, and
// what a tree's path resolution sees afterwards.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "sr/test_util.h"
#include "sr_i.h"

using qxtest::last_error;

namespace {

class MountTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(sr_open_tree_1(&tree_, 0, 0), 0); }
    void TearDown() override {
        sr_i_alloc_fail_after(-1);
        sr_close_tree_1(tree_);
    }

    char *Text(const std::string &s) {
        texts_.push_back(s);
        return texts_.back().data();
    }
    int Mount(const std::string &path, const std::string &dir, int create = 1) {
        return sr_mount_local_tree_1(tree_, Text(path), Text(tmp_.file(dir)), create);
    }
    int Unmount(const std::string &path) { return sr_unmount_local_tree_1(tree_, Text(path)); }

    // The block size a registry path resolves with (0: transient).
    qx_uint32_t BlockSize(const std::string &path) {
        qx_char_ptr_t p_result = nullptr;
        qx_uint32_t block_size = 0;
        EXPECT_EQ(sr_i_resolve_path(static_cast<sr_i_tree_t *>(tree_), Text(path), &p_result,
                                    &block_size),
                  0);
        if (block_size != 0) free(p_result);
        return block_size;
    }

    qxtest::TempDir tmp_;
    sr_opaque_handle_t tree_ = nullptr;
    std::list<std::string> texts_;
};

bool IsDirectory(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

TEST_F(MountTest, MountMapsThePrefixAndCreatesTheDirectoryEvenWithCreateZero) {
    EXPECT_EQ(Mount("/a", "deep/er/d", 0), 0);
    EXPECT_TRUE(IsDirectory(tmp_.file("deep/er/d")));
    EXPECT_EQ(BlockSize("/a/t"), 512u);
    EXPECT_EQ(BlockSize("/b/t"), 0u);
    EXPECT_EQ(last_error().code, 0);
}

TEST_F(MountTest, SamePathTwiceIs207) {
    ASSERT_EQ(Mount("/a", "d1"), 0);
    EXPECT_EQ(Mount("/a", "d2"), 207);
    EXPECT_EQ(last_error().message, "2605-207 A mount point containing the path already exists.\n");
    // The first mount still maps to its own directory.
    qx_char_ptr_t p_result = nullptr;
    qx_uint32_t block_size = 0;
    ASSERT_EQ(
        sr_i_resolve_path(static_cast<sr_i_tree_t *>(tree_), Text("/a/t"), &p_result, &block_size),
        0);
    EXPECT_EQ(std::string(p_result), tmp_.file("d1") + "/t");
    free(p_result);
}

TEST_F(MountTest, PathUnderAnExistingMountPointIs207) {
    ASSERT_EQ(Mount("/a", "d1"), 0);
    EXPECT_EQ(Mount("/a/b", "d2"), 207);
    EXPECT_FALSE(IsDirectory(tmp_.file("d2")));
}

TEST_F(MountTest, PrefixOfAnExistingMountPointIsAccepted) {
    ASSERT_EQ(Mount("/a/b", "d1"), 0);
    EXPECT_EQ(Mount("/a", "d2"), 0);
}

TEST_F(MountTest, BadArgumentsGive100And101And102) {
    EXPECT_EQ(sr_mount_local_tree_1(nullptr, Text("/a"), Text(tmp_.file("d")), 1), 100);
    EXPECT_EQ(sr_mount_local_tree_1(tree_, Text("/a"), nullptr, 1), 101);
    EXPECT_EQ(last_error().code, 101);
    EXPECT_EQ(sr_mount_local_tree_1(tree_, nullptr, Text(tmp_.file("d")), 1), 102);
    EXPECT_EQ(last_error().message, "2605-102 <NULL POINTER> is an invalid pathname.\n");
    EXPECT_EQ(Mount("/a.b", "d"), 102);
    EXPECT_EQ(sr_unmount_local_tree_1(nullptr, Text("/a")), 100);
    EXPECT_EQ(static_cast<sr_i_tree_t *>(tree_)->p_mount_points, nullptr);
}

TEST_F(MountTest, DirectoryThatCannotBeMadeFailsAndLeavesTheTreeUnchanged) {
    std::string blocker = tmp_.file("plain");
    FILE *p_file = fopen(blocker.c_str(), "w");
    ASSERT_NE(p_file, nullptr);
    fclose(p_file);
    EXPECT_EQ(Mount("/a", "plain/d"), 10);
    EXPECT_EQ(static_cast<sr_i_tree_t *>(tree_)->p_mount_points, nullptr);
    EXPECT_EQ(Mount("/a", "d"), 0);
}

TEST_F(MountTest, TransientTableOfTheSameNameIs201) {
    sr_column_t columns[2] = {};
    columns[0].name = Text("key");
    columns[0].type = QX_UINT32;
    columns[0].qualifier = SR_PRIMARY_KEY;
    columns[1].name = Text("value");
    columns[1].type = QX_INT32;
    columns[1].qualifier = SR_STANDARD;
    sr_opaque_handle_t table = nullptr;
    ASSERT_EQ(sr_create_table_1(tree_, Text("/t"), columns, 2, 2, &table), 0);
    EXPECT_EQ(Mount("/t", "d"), 201);
    EXPECT_EQ(last_error().message, "2605-201 The table already exists.\n");
    EXPECT_EQ(static_cast<sr_i_tree_t *>(tree_)->p_mount_points, nullptr);
    // A path below the table's name is no table: that mount is accepted.
    EXPECT_EQ(Mount("/t/u", "d"), 0);
    EXPECT_EQ(sr_close_table_1(table), 0);
    EXPECT_EQ(sr_delete_table_1(tree_, Text("/t")), 0);
}

TEST_F(MountTest, AllocationFailuresAre12AndLeaveNothingBehind) {
    // Each allocation of the mount in turn; LeakSanitizer checks the frees.
    for (int n = 0; n < 3; ++n) {
        sr_i_alloc_fail_after(n);
        EXPECT_EQ(Mount("/a", "d"), 12) << n;
        EXPECT_EQ(static_cast<sr_i_tree_t *>(tree_)->p_mount_points, nullptr);
    }
    sr_i_alloc_fail_after(-1);
    ASSERT_EQ(Mount("/a", "d"), 0);
    sr_i_alloc_fail_after(0);
    EXPECT_EQ(Unmount("/a"), 12);
    sr_i_alloc_fail_after(-1);
    EXPECT_EQ(BlockSize("/a/t"), 512u);
}

TEST_F(MountTest, UnmountTakesTheNameAsMounted) {
    ASSERT_EQ(Mount("/a", "d"), 0);
    // "/a/" lies under the mount point itself, so it names no mount point.
    EXPECT_EQ(Unmount("/a/"), 208);
    EXPECT_EQ(last_error().message, "2605-208 The specified mount point does not exist.\n");
    EXPECT_EQ(Unmount("/b"), 208);
    EXPECT_EQ(Unmount("/a"), 0);
    EXPECT_EQ(BlockSize("/a/t"), 0u);
    // Files on disk are never touched.
    EXPECT_TRUE(IsDirectory(tmp_.file("d")));
    EXPECT_EQ(Unmount("/a"), 208);
}

TEST_F(MountTest, UnmountWithoutMountPointsIs208BeforeThePathIsLookedAt) {
    EXPECT_EQ(Unmount("not a path"), 208);
    EXPECT_EQ(sr_unmount_local_tree_1(tree_, nullptr), 208);
    ASSERT_EQ(Mount("/a", "d"), 0);
    EXPECT_EQ(Unmount("not a path"), 102);
}

TEST_F(MountTest, UnmountOfAPathUnderAnotherMountPointIs208) {
    // Mounted first, /x/ sorts before the long name below, so a search for
    // the long path meets /x/ and resolves it into /x's directory: a longer
    // file path that must not overrun the key.
    ASSERT_EQ(Mount("/x", "dx"), 0);
    std::string long_path = "/x/" + std::string(200, 'q');
    EXPECT_EQ(Unmount(long_path), 208);
    EXPECT_EQ(BlockSize("/x/t"), 512u);
}

TEST_F(MountTest, MountPointsAreFreedWithTheTree) {
    ASSERT_EQ(Mount("/a", "d1"), 0);
    ASSERT_EQ(Mount("/b/c", "d2"), 0);
    // TearDown closes the tree; LeakSanitizer would report the records.
}

}  // namespace

// Mounts hold ForkMutex and the tree's write lock, unmounts the write lock:
// threads mounting and unmounting on one tree must neither lose nor double a
// mount point.
TEST(MountConcurrencyTest, ThreadsMountingAndUnmountingOnOneTreeLoseNothing) {
    qxtest::TempDir tmp;
    sr_opaque_handle_t tree = nullptr;
    ASSERT_EQ(sr_open_tree_1(&tree, 0, 0), 0);
    constexpr int kThreads = 4;
    constexpr int kRounds = 50;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                std::string path = "/t" + std::to_string(t) + "/m" + std::to_string(i);
                std::string dir = tmp.file("d" + std::to_string(t));
                if (sr_mount_local_tree_1(tree, path.data(), dir.data(), 1) != 0) ++failures;
                // A second mount of the same path always loses.
                if (sr_mount_local_tree_1(tree, path.data(), dir.data(), 1) != 207) ++failures;
                if (i % 2 == 0 && sr_unmount_local_tree_1(tree, path.data()) != 0) ++failures;
            }
        });
    }
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
    // Exactly the odd rounds remain mounted.
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kRounds; ++i) {
            std::string path = "/t" + std::to_string(t) + "/m" + std::to_string(i);
            EXPECT_EQ(sr_unmount_local_tree_1(tree, path.data()), i % 2 == 0 ? 208 : 0) << path;
        }
    }
    EXPECT_EQ(static_cast<sr_i_tree_t *>(tree)->p_mount_points, nullptr);
    EXPECT_EQ(sr_close_tree_1(tree), 0);
}
