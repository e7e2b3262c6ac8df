// The free chain of the row index hands out the lowest slot first whatever
// order slots are freed in (a copy rebuilds it top down); the block rule.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <vector>

#include "sr_i.h"

namespace {

class TableIndexTest : public ::testing::Test {
  protected:
    void SetUp() override { memset(static_cast<void *>(&table_), 0, sizeof table_); }
    void TearDown() override {
        free(table_.p_rows_fixed_index);
        free(table_.p_rows_packed_index);
    }
    std::vector<qx_uint32_t> free_slots() const {
        std::vector<qx_uint32_t> slots;
        for (auto *p = table_.p_rows_free_chain; p != nullptr;
             p = static_cast<sr_i_index_entry_t *>(p->p_pending_change)) {
            slots.push_back(static_cast<qx_uint32_t>(p - table_.p_rows_fixed_index));
        }
        return slots;
    }
    sr_i_table_t table_;
};

TEST_F(TableIndexTest, ScrambledFreeingKeepsTheChainAscending) {
    ASSERT_EQ(0, sr_i_establish_rows_index(&table_, 0));
    EXPECT_EQ((std::vector<qx_uint32_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}), free_slots());
    TearDown();
    ASSERT_EQ(0, sr_i_establish_rows_index(&table_, 5000));
    std::vector<sr_i_index_entry_t *> rows;
    static char record[] = "record";
    for (int i = 0; i < 5000; ++i) {
        rows.push_back(sr_i_rows_free_chain_remove(&table_));
        rows.back()->p_applied = rows.back()->p_committed = record;
    }
    EXPECT_EQ(nullptr, sr_i_rows_free_chain_remove(&table_));
    std::set<qx_uint32_t> is_free;
    qx_uint32_t x = 12345;
    for (int step = 0; step < 6000; ++step) {
        x = x * 1103515245u + 12345u;
        const qx_uint32_t slot = (x >> 8) % 5000;
        sr_i_rows_free_chain_insert(&table_, rows[slot]);
        EXPECT_EQ(nullptr, rows[slot]->p_applied);  // a free slot is zero apart from its link
        is_free.insert(slot);
        if (step % 7 == 0) {
            sr_i_index_entry_t *p_taken = sr_i_rows_free_chain_remove(&table_);
            ASSERT_EQ(rows[*is_free.begin()], p_taken);
            EXPECT_EQ(nullptr, p_taken->p_pending_change);
            is_free.erase(is_free.begin());
        }
        if (step == 3000) {  // a copy rebuilds the chain from the top down
            table_.p_rows_free_chain = nullptr;
            for (auto s = is_free.rbegin(); s != is_free.rend(); ++s)
                sr_i_rows_free_chain_insert(&table_, rows[*s]);
        }
    }
    EXPECT_EQ(std::vector<qx_uint32_t>(is_free.begin(), is_free.end()), free_slots());
}

TEST_F(TableIndexTest, RecordIsContainedInABlockWhenItEndsInTheBlockItStartsIn) {
    table_.block_size = 512;
    qx_uint32_t block = 99;
    EXPECT_EQ(1u, sr_i_record_contained_in_block(&table_, 500, 11, &block));
    EXPECT_EQ(0u, block);
    EXPECT_EQ(0u, sr_i_record_contained_in_block(&table_, 500, 12, &block));
    EXPECT_EQ(1u, sr_i_record_contained_in_block(&table_, 1024, 100, &block));
    EXPECT_EQ(2u, block);
    EXPECT_EQ(0u, sr_i_record_contained_in_block(&table_, UINT32_MAX - 4, 100, &block));
    table_.block_size = 0;  // a transient table has no blocks
    EXPECT_EQ(1u, sr_i_record_contained_in_block(&table_, 500, 100, &block));
}

}  // namespace
