// A routine called without the lock its contract names stops a debug build.
#include <gtest/gtest.h>

#include "sr_i.h"

namespace {

TEST(LockContractTest, ARoutineCalledWithoutItsLockStopsADebugBuild) {
#ifdef NDEBUG
    GTEST_SKIP() << "the checks are compiled into debug builds only";
#else
    sr_opaque_handle_t tree = nullptr;
    ASSERT_EQ(sr_open_tree_1(&tree, 0, 0), 0);
    auto *p_tree = static_cast<sr_i_tree_t *>(tree);
    char path[] = "/";
    qx_char_ptr_t *p_list = nullptr;
    qx_uint32_t count = 0;
    EXPECT_DEATH(sr_i_list_tables(p_tree, path, &p_list, &count), "sr_i_rw_held_for_write");
    ASSERT_EQ(sr_i_rw_lock_write(&p_tree->lock), 0);
    EXPECT_EQ(sr_i_list_tables(p_tree, path, &p_list, &count), 0);
    ASSERT_EQ(sr_i_rw_unlock_write(&p_tree->lock), 0);
    EXPECT_EQ(sr_free_table_list_1(p_list, count), 0);
    EXPECT_EQ(sr_close_tree_1(tree), 0);
#endif
}

}  // namespace
