// Registry paths: the syntax check, resolution through mount points onto
// flattened file names, and creating a mount point's directories.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <list>
#include <string>

#include "sr/test_util.h"
#include "sr_i.h"

using qxtest::last_error;

namespace {

int Check(const std::string &path) {
    std::string copy = path;  // the check takes a non-const pointer
    return sr_i_check_path_syntax(copy.data());
}

TEST(PathSyntaxTest, LengthMustBeOneTo255Bytes) {
    EXPECT_EQ(Check(""), 102);
    EXPECT_EQ(Check(std::string(255, 'a')), 0);
    EXPECT_EQ(Check("/" + std::string(254, 'a')), 0);
    EXPECT_EQ(Check(std::string(256, 'a')), 102);
    EXPECT_EQ(Check(std::string(100000, 'a')), 102);
}

TEST(PathSyntaxTest, RefusesBlanksPunctuationAndEmptyComponents) {
    for (const char *bad : {"/a b", "/a.b", "/a,b", "/a-b", "/a//b", "//", "/a\tb", "/a\nb", "/a/.",
                            "/a/..", "/./a", "/../a", ".", "/a:b", "/a\\b"}) {
        EXPECT_EQ(Check(bad), 102) << bad;
    }
}

TEST(PathSyntaxTest, AcceptsLettersDigitsUnderscoreAndSlashes) {
    for (const char *good : {"/a/b/", "a_b", "/", "/config/nodes/table1", "A9/_/z", "relative"}) {
        EXPECT_EQ(Check(good), 0) << good;
    }
}

TEST(PathSyntaxTest, ReportsTheOffendingPathInMessage102) {
    EXPECT_EQ(Check("/a b"), 102);
    auto error = last_error();
    EXPECT_EQ(error.code, 102);
    EXPECT_EQ(error.message, "2605-102 /a b is an invalid pathname.\n");

    EXPECT_EQ(sr_i_check_path_syntax(nullptr), 102);
    EXPECT_EQ(last_error().message, "2605-102 <NULL POINTER> is an invalid pathname.\n");
}

// A tree with mount point /a/ on <tmp>/d.
class PathResolutionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(sr_open_tree_1(&tree_, 0, 0), 0);
        directory_ = tmp_.file("d");
        ASSERT_EQ(sr_mount_local_tree_1(tree_, Text("/a"), Text(directory_), 1), 0);
    }
    void TearDown() override {
        sr_i_alloc_fail_after(-1);
        sr_close_tree_1(tree_);
    }

    // A writable copy that lives until the test ends.
    char *Text(const std::string &s) {
        texts_.push_back(s);
        return texts_.back().data();
    }

    // The file path a registry path resolves to ("" when transient).
    std::string Resolve(const std::string &path, int *p_rc = nullptr) {
        char *p_path = Text(path);
        qx_char_ptr_t p_result = nullptr;
        qx_uint32_t block_size = 99;
        int rc =
            sr_i_resolve_path(static_cast<sr_i_tree_t *>(tree_), p_path, &p_result, &block_size);
        if (p_rc != nullptr) *p_rc = rc;
        if (rc != 0) return "<error>";
        if (block_size == 0) {
            EXPECT_EQ(p_result, p_path) << "a transient path is returned as itself";
            return "";
        }
        EXPECT_EQ(block_size, 512u);
        std::string result = p_result;
        free(p_result);
        return result;
    }

    qxtest::TempDir tmp_;
    std::string directory_;
    sr_opaque_handle_t tree_ = nullptr;
    std::list<std::string> texts_;
};

TEST_F(PathResolutionTest, PathsUnderTheMountPointBecomeFlatFileNames) {
    EXPECT_EQ(Resolve("/a/x"), directory_ + "/x");
    EXPECT_EQ(Resolve("/a/x/y"), directory_ + "/x,y");
    EXPECT_EQ(Resolve("/a/x/y/z9_"), directory_ + "/x,y,z9_");
}

TEST_F(PathResolutionTest, OtherPathsAreTransient) {
    EXPECT_EQ(Resolve("/ab"), "");
    EXPECT_EQ(Resolve("/a"), "");  // the mount point's own name without its "/"
    EXPECT_EQ(Resolve("/b/x"), "");
    EXPECT_EQ(Resolve("a/x"), "");
}

TEST_F(PathResolutionTest, BadSyntaxIsRefusedBeforeLookup) {
    int rc = 0;
    Resolve("/a/x.y", &rc);
    EXPECT_EQ(rc, 102);
    Resolve("/a//x", &rc);
    EXPECT_EQ(rc, 102);
}

TEST_F(PathResolutionTest, ResolvedNameHasRoomForASuffix) {
    qx_char_ptr_t p_result = nullptr;
    qx_uint32_t block_size = 0;
    ASSERT_EQ(
        sr_i_resolve_path(static_cast<sr_i_tree_t *>(tree_), Text("/a/t"), &p_result, &block_size),
        0);
    ASSERT_NE(block_size, 0u);
    // 31 bytes and the terminator: the slack the table code relies on when
    // it appends ".rewrite" (AddressSanitizer checks the bound).
    std::strcat(p_result, ".rewrite.and.some.more.bytes.xx");
    EXPECT_EQ(std::string(p_result), directory_ + "/t.rewrite.and.some.more.bytes.xx");
    free(p_result);
}

TEST_F(PathResolutionTest, AllocationFailureIs12) {
    int rc = 0;
    sr_i_alloc_fail_after(0);
    Resolve("/a/x", &rc);
    EXPECT_EQ(rc, 12);
    EXPECT_EQ(last_error().code, 12);
}

class DirectoryCreationTest : public ::testing::Test {
  protected:
    void TearDown() override { sr_i_file_ops = sr_i_default_file_ops; }
    qxtest::TempDir tmp_;
};

bool IsDirectory(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

TEST_F(DirectoryCreationTest, CreatesEveryMissingLevelAndRestoresThePath) {
    std::string path = tmp_.file("d2/d3/d4");
    std::string copy = path;
    EXPECT_EQ(sr_i_create_all_directories_in_path(copy.data()), 0);
    EXPECT_EQ(copy, path);
    EXPECT_TRUE(IsDirectory(tmp_.file("d2/d3")));
    EXPECT_TRUE(IsDirectory(path));
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0755 & ~mask);
    // Everything already there: still 0.
    EXPECT_EQ(sr_i_create_all_directories_in_path(copy.data()), 0);
    std::string trailing = path + "/";
    EXPECT_EQ(sr_i_create_all_directories_in_path(trailing.data()), 0);
}

TEST_F(DirectoryCreationTest, FileInTheWayIs10NamingMkdir) {
    std::string blocker = tmp_.file("plain");
    FILE *p_file = fopen(blocker.c_str(), "w");
    ASSERT_NE(p_file, nullptr);
    fclose(p_file);
    std::string path = blocker + "/sub/dir";
    std::string copy = path;
    EXPECT_EQ(sr_i_create_all_directories_in_path(copy.data()), 10);
    EXPECT_EQ(copy, path);
    auto error = last_error();
    EXPECT_EQ(error.code, 10);
    EXPECT_NE(error.message.find("The mkdir system call unexpectedly returned an errno of " +
                                 std::to_string(ENOTDIR) +
                                 " to the sr_i_create_all_directories_in_path function"),
              std::string::npos)
        << error.message;
}

int FailMkdirWithEnospc(const char *, mode_t) {
    errno = ENOSPC;
    return -1;
}

TEST_F(DirectoryCreationTest, FullFilesystemIs13) {
    sr_i_file_ops.p_mkdir = FailMkdirWithEnospc;
    std::string path = tmp_.file("x/y");
    std::string copy = path;
    EXPECT_EQ(sr_i_create_all_directories_in_path(copy.data()), 13);
    EXPECT_EQ(copy, path);
    EXPECT_EQ(last_error().message, "2605-013 The filesystem containing the local tree is full.\n");
}

}  // namespace
