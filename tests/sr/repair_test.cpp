// Repair: the ".rewrite" files interrupted rewrites leave beside table files
// are removed for the named tables, in order, up to the first bad name.
#include <string>

#include "sr/table_test_util.h"

namespace qxtest {
namespace {

class RepairTest : public TableTest {
  protected:
    void SetUp() override {
        TableTest::SetUp();
        for (const char *name : {"a", "b"}) {
            sr_i_table_t *p_table = Create(std::string("/m/") + name, ScalarColumns(2));
            ASSERT_NE(p_table, nullptr);
            ASSERT_EQ(sr_close_table_1(p_table), 0);
        }
    }
    qx_int32_t Repair(std::vector<std::string> paths) {
        std::vector<char *> names;
        for (const std::string &path : paths) names.push_back(Text(path));
        return sr_repair_tables_1(tree_, names.data(), static_cast<qx_uint32_t>(names.size()));
    }
};

TEST_F(RepairTest, LeftOverRewriteFilesGoAndTablesStay) {
    const std::string a = ReadBytes(File("a"));
    WriteBytes(File("a.rewrite"), "half an image");
    WriteBytes(File("b.rewrite"), "");
    ASSERT_EQ(Repair({"/m/a", "/m/b"}), 0);
    EXPECT_FALSE(Exists(File("a.rewrite")));
    EXPECT_FALSE(Exists(File("b.rewrite")));
    EXPECT_EQ(ReadBytes(File("a")), a);
    sr_opaque_handle_t handle = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/a"), SR_MODE_WRITE, &handle), 0);
    sr_close_table_1(handle);
}

TEST_F(RepairTest, TablesWithoutRewriteFilesAndMemoryNamesAreLeftAlone) {
    const std::string a = ReadBytes(File("a"));
    ASSERT_EQ(Repair({"/m/a", "/t/memory", "/m/never"}), 0);
    EXPECT_EQ(ReadBytes(File("a")), a);
    EXPECT_TRUE(Exists(File("b")));
}

TEST_F(RepairTest, StopsAtABadPathHavingRepairedTheTablesBeforeIt) {
    WriteBytes(File("a.rewrite"), "x");
    WriteBytes(File("b.rewrite"), "x");
    EXPECT_EQ(Repair({"/m/a", "/m/bad path", "/m/b"}), 102);
    EXPECT_EQ(last_error().code, 102);
    EXPECT_FALSE(Exists(File("a.rewrite")));
    EXPECT_TRUE(Exists(File("b.rewrite")));
}

TEST_F(RepairTest, ArgumentChecks) {
    EXPECT_EQ(sr_repair_tables_1(tree_, nullptr, 0), 0);
    EXPECT_EQ(sr_repair_tables_1(tree_, nullptr, 1), 101);
    char *names[] = {Text("/m/a")};
    EXPECT_EQ(sr_repair_tables_1(nullptr, names, 1), 100);
}

}  // namespace
}  // namespace qxtest
