// The row index of a table record: establishing it, the lowest-first free
// chain, growth by doubling with pending changes kept on their rows, the
// packed index after a load and after a removal, the row-state rule, the two
// file names of one path buffer, and allocation failures.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sr/test_util.h"
#include "sr_i.h"

using qxtest::last_error;

namespace {

class TableIndexTest : public ::testing::Test {
  protected:
    void SetUp() override { memset(static_cast<void *>(&table_), 0, sizeof table_); }
    void TearDown() override {
        sr_i_alloc_fail_after(-1);
        sr_i_free_change_lists(&table_);
        free(table_.p_rows_fixed_index);
        free(table_.p_rows_packed_index);
        sr_i_hash_table_close(table_.p_rows_hash_table);
        sr_i_rb_uninitialize_record_buffer_pool(&table_.record_buffer_pool);
    }
    qx_uint32_t slot_of(const sr_i_index_entry_t *p_entry) const {
        return static_cast<qx_uint32_t>(p_entry - table_.p_rows_fixed_index);
    }
    // Takes a free slot the way adding a row does, growing when none is free.
    sr_i_index_entry_t *take_slot() {
        sr_i_index_entry_t *p_entry = sr_i_rows_free_chain_remove(&table_);
        if (p_entry == nullptr) {
            EXPECT_EQ(0, sr_i_grow_index(&table_, table_.maximum_rows));
            p_entry = sr_i_rows_free_chain_remove(&table_);
        }
        return p_entry;
    }
    // A live row in the slot, listed in the packed index.
    sr_i_index_entry_t *add_live_row(char *p_record) {
        sr_i_index_entry_t *p_entry = take_slot();
        p_entry->p_applied = p_record;
        p_entry->p_committed = p_record;
        p_entry->packed_index = table_.total_applied_rows;
        table_.p_rows_packed_index[table_.total_applied_rows++] = slot_of(p_entry);
        return p_entry;
    }
    void queue_change(sr_i_index_entry_t *p_entry, qx_uint32_t deletion) {
        auto *p_change = static_cast<sr_i_change_entry_t *>(calloc(1, sizeof(sr_i_change_entry_t)));
        p_change->deletion = deletion;
        p_change->p_index_entry = p_entry;
        sr_i_change_entry_t **pp_head =
            deletion ? &table_.p_delete_rows_change_list : &table_.p_rows_change_list;
        sr_i_change_entry_t **pp_tail =
            deletion ? &table_.p_delete_rows_change_list_tail : &table_.p_rows_change_list_tail;
        p_change->p_prev = *pp_tail;
        if (*pp_tail != nullptr) {
            (*pp_tail)->p_next = p_change;
        } else {
            *pp_head = p_change;
        }
        *pp_tail = p_change;
        p_entry->p_pending_change = p_change;
    }
    std::vector<qx_uint32_t> free_slots() const {
        std::vector<qx_uint32_t> slots;
        for (auto *p = table_.p_rows_free_chain; p != nullptr;
             p = static_cast<sr_i_index_entry_t *>(p->p_pending_change)) {
            slots.push_back(slot_of(p));
        }
        return slots;
    }
    sr_i_table_t table_;
    char record_[8] = "record";
};

TEST_F(TableIndexTest, EstablishingWithZeroSlotsYieldsTenFreeSlotsInOrder) {
    ASSERT_EQ(0, sr_i_establish_rows_index(&table_, 0));
    EXPECT_EQ(10u, table_.maximum_rows);
    EXPECT_EQ((std::vector<qx_uint32_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}), free_slots());
    for (qx_uint32_t i = 0; i < 10; ++i) {
        EXPECT_EQ(nullptr, table_.p_rows_fixed_index[i].p_applied);
        EXPECT_EQ(nullptr, table_.p_rows_fixed_index[i].p_committed);
        EXPECT_EQ(0u, table_.p_rows_packed_index[i]);
    }
}

TEST_F(TableIndexTest, TheHundredAndFirstRowDoublesTheIndexAndTakesSlot100) {
    ASSERT_EQ(0, sr_i_establish_rows_index(&table_, 100));
    for (int i = 0; i < 100; ++i) add_live_row(record_);
    EXPECT_EQ(nullptr, table_.p_rows_free_chain);
    sr_i_index_entry_t *p_entry = add_live_row(record_);
    EXPECT_EQ(200u, table_.maximum_rows);
    EXPECT_EQ(100u, slot_of(p_entry));
    EXPECT_EQ(101u, table_.total_applied_rows);
    std::vector<qx_uint32_t> expected;
    for (qx_uint32_t s = 101; s < 200; ++s) expected.push_back(s);
    EXPECT_EQ(expected, free_slots());
    // Earlier rows kept their slots and packed positions.
    for (qx_uint32_t i = 0; i < 101; ++i) {
        EXPECT_EQ(i, table_.p_rows_packed_index[i]);
        EXPECT_EQ(i, table_.p_rows_fixed_index[i].packed_index);
        EXPECT_EQ(record_, table_.p_rows_fixed_index[i].p_applied);
    }
}

TEST_F(TableIndexTest, PendingChangesDesignateTheSameRowsAfterTheIndexMoves) {
    ASSERT_EQ(0, sr_i_establish_rows_index(&table_, 10));
    // Every growth moves the index, whatever the heap would have done.
    struct moves_t {
        moves_t() { sr_i_alloc_move_reallocations(true); }
        ~moves_t() { sr_i_alloc_move_reallocations(false); }
    } moves;
    for (int round = 0; round < 3; ++round) {
        // Fill every slot; pending changes on a few of them, both lists.
        while (table_.p_rows_free_chain != nullptr) {
            sr_i_index_entry_t *p_entry = add_live_row(record_);
            p_entry->file_offset = 1000 + slot_of(p_entry);
            qx_uint32_t slot = slot_of(p_entry);
            if (slot % 3 == 0) queue_change(p_entry, slot % 2);
        }
        sr_i_index_entry_t *p_before = table_.p_rows_fixed_index;
        ASSERT_EQ(0, sr_i_grow_index(&table_, table_.maximum_rows));
        EXPECT_NE(p_before, table_.p_rows_fixed_index);
        for (auto *p_list : {table_.p_rows_change_list, table_.p_delete_rows_change_list}) {
            for (auto *p = p_list; p != nullptr; p = p->p_next) {
                qx_uint32_t slot = slot_of(p->p_index_entry);
                ASSERT_LT(slot, table_.maximum_rows);
                EXPECT_EQ(1000 + slot, p->p_index_entry->file_offset);
                EXPECT_EQ(p, p->p_index_entry->p_pending_change);
                EXPECT_EQ(0u, slot % 3);
                EXPECT_EQ(slot % 2, p->deletion);
            }
        }
    }
}

TEST_F(TableIndexTest, FreedSlotsAreReusedLowestFirst) {
    ASSERT_EQ(0, sr_i_establish_rows_index(&table_, 10));
    std::vector<sr_i_index_entry_t *> rows;
    for (int i = 0; i < 10; ++i) rows.push_back(add_live_row(record_));
    sr_i_rows_free_chain_insert(&table_, rows[7]);
    sr_i_rows_free_chain_insert(&table_, rows[3]);
    sr_i_rows_free_chain_insert(&table_, rows[5]);
    EXPECT_EQ((std::vector<qx_uint32_t>{3, 5, 7}), free_slots());
    // A free slot is all zero apart from its link.
    EXPECT_EQ(nullptr, rows[3]->p_applied);
    EXPECT_EQ(nullptr, rows[3]->p_committed);
    EXPECT_EQ(0u, rows[3]->packed_index);
    EXPECT_EQ(3u, slot_of(sr_i_rows_free_chain_remove(&table_)));
    EXPECT_EQ(5u, slot_of(sr_i_rows_free_chain_remove(&table_)));
    sr_i_index_entry_t *p_seven = sr_i_rows_free_chain_remove(&table_);
    EXPECT_EQ(7u, slot_of(p_seven));
    EXPECT_EQ(nullptr, p_seven->p_pending_change);  // taken slots are all zero
    EXPECT_EQ(nullptr, sr_i_rows_free_chain_remove(&table_));
}

// Freeing many slots in a scrambled order, taking some back in between, and
// a chain reset from outside (as a copied table rebuilds its chain) keep the
// chain exactly the ascending list of free slots, lowest taken first.
TEST_F(TableIndexTest, ScrambledFreeingKeepsTheChainAscending) {
    ASSERT_EQ(0, sr_i_establish_rows_index(&table_, 5000));
    std::vector<sr_i_index_entry_t *> rows;
    for (int i = 0; i < 5000; ++i) rows.push_back(add_live_row(record_));
    std::vector<bool> is_free(5000, false);
    auto expected = [&] {
        std::vector<qx_uint32_t> slots;
        for (qx_uint32_t s = 0; s < is_free.size(); ++s) {
            if (is_free[s]) slots.push_back(s);
        }
        return slots;
    };
    qx_uint32_t x = 12345;
    for (int step = 0; step < 6000; ++step) {
        x = x * 1103515245u + 12345u;
        qx_uint32_t slot = (x >> 8) % 5000;
        sr_i_rows_free_chain_insert(&table_, rows[slot]);
        is_free[slot] = true;
        if (step % 7 == 0) {
            std::vector<qx_uint32_t> now = expected();
            ASSERT_EQ(now.front(), slot_of(sr_i_rows_free_chain_remove(&table_)));
            is_free[now.front()] = false;
        }
        if (step == 3000) {
            // Rebuilt from the top down by the caller, as a copy does.
            table_.p_rows_free_chain = nullptr;
            for (qx_uint32_t s = 5000; s-- > 0;) {
                if (is_free[s]) sr_i_rows_free_chain_insert(&table_, rows[s]);
            }
        }
    }
    EXPECT_EQ(expected(), free_slots());
}

TEST_F(TableIndexTest, RemovedRowsPackedPlaceGoesToTheLastPackedRowAndItsSlotIsReused) {
    ASSERT_EQ(0, sr_i_establish_rows_index(&table_, 10));
    std::vector<sr_i_index_entry_t *> rows;
    for (int i = 0; i < 10; ++i) rows.push_back(add_live_row(record_));
    sr_i_remove_row_from_packed_index(&table_, rows[3]);
    EXPECT_EQ(9u, table_.total_applied_rows);
    EXPECT_EQ(9u, table_.p_rows_packed_index[3]);
    EXPECT_EQ(3u, rows[9]->packed_index);
    EXPECT_EQ(SR_ROW_STATE_NO_ROW, sr_i_get_row_state_for_fixed_index(&table_, 3));
    sr_i_index_entry_t *p_next = add_live_row(record_);
    EXPECT_EQ(3u, slot_of(p_next));
    EXPECT_EQ(9u, p_next->packed_index);
}

TEST_F(TableIndexTest, RowStateFollowsTheTwoRecordPointers) {
    ASSERT_EQ(0, sr_i_establish_rows_index(&table_, 10));
    char other[4] = "new";
    sr_i_index_entry_t *p = table_.p_rows_fixed_index;
    EXPECT_EQ(SR_ROW_STATE_NO_ROW, sr_i_get_row_state_for_fixed_index(&table_, 0));
    p[1].p_applied = record_;
    EXPECT_EQ(SR_ROW_STATE_ADDED, sr_i_get_row_state_for_fixed_index(&table_, 1));
    p[2].p_committed = record_;
    EXPECT_EQ(SR_ROW_STATE_DELETED, sr_i_get_row_state_for_fixed_index(&table_, 2));
    p[3].p_applied = other;
    p[3].p_committed = record_;
    EXPECT_EQ(SR_ROW_STATE_UPDATED, sr_i_get_row_state_for_fixed_index(&table_, 3));
    p[4].p_applied = record_;
    p[4].p_committed = record_;
    EXPECT_EQ(SR_ROW_STATE_COMMITTED, sr_i_get_row_state_for_fixed_index(&table_, 4));
    EXPECT_EQ(SR_ROW_STATE_NO_ROW, sr_i_get_row_state_for_fixed_index(&table_, 10));
}

TEST_F(TableIndexTest, DataAndRewriteNamesShareOnePathBuffer) {
    std::string name = "/tmp/dir/table";
    std::string buffer = name + ".rewrite";
    table_.p_file_path = buffer.data();
    table_.file_path_length = static_cast<qx_uint32_t>(name.size());
    char *p_rewrite = sr_i_set_rewrite_path(&table_);
    EXPECT_STREQ("/tmp/dir/table.rewrite", p_rewrite);
    char *p_data = sr_i_set_data_path(&table_);
    EXPECT_EQ(p_rewrite, p_data);
    EXPECT_STREQ("/tmp/dir/table", p_data);
    EXPECT_STREQ("/tmp/dir/table", sr_i_set_data_path(&table_));  // twice: still no suffix
    EXPECT_STREQ("/tmp/dir/table.rewrite", sr_i_set_rewrite_path(&table_));
    table_.p_file_path = nullptr;
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

TEST_F(TableIndexTest, FreeingChangeListsEmptiesBoth) {
    ASSERT_EQ(0, sr_i_establish_rows_index(&table_, 10));
    for (int i = 0; i < 4; ++i) queue_change(add_live_row(record_), i % 2);
    sr_i_free_change_lists(&table_);
    EXPECT_EQ(nullptr, table_.p_rows_change_list);
    EXPECT_EQ(nullptr, table_.p_rows_change_list_tail);
    EXPECT_EQ(nullptr, table_.p_delete_rows_change_list);
    EXPECT_EQ(nullptr, table_.p_delete_rows_change_list_tail);
}

// Row records built by hand in a pool: key column 0 of the given type, one
// more column, the key's bytes in the indirect area for a pointer type.
class LoadedTableTest : public TableIndexTest {
  protected:
    void SetUp() override {
        TableIndexTest::SetUp();
        columns_[0] = sr_column_t{
            const_cast<char *>("key"), QX_RSRC_HANDLE_PTR, SR_PRIMARY_KEY, 0, nullptr, {}};
        columns_[1] =
            sr_column_t{const_cast<char *>("count"), QX_UINT32, SR_STANDARD, 0, nullptr, {}};
        table_.p_columns = columns_;
        table_.total_columns = 2;
        table_.total_variable_length_columns = 1;
        ASSERT_EQ(0, sr_i_establish_rows_index(&table_, 10));
    }
    char *handle_row(qx_uint32_t id4) {
        qx_resource_handle_t handle{1, {2, 3, 4, id4}};
        char *p_data = nullptr;
        EXPECT_EQ(0, sr_i_reserve_record(&table_.record_buffer_pool, 4 + 16 + 20, 2, &p_data));
        sr_i_store_u32(p_data, 0);
        qx_uint32_t anchor[2] = {0, 20};
        memcpy(sr_i_row_slot(p_data, 0), anchor, 8);
        qx_value_t count{};
        count.val_uint32 = id4;
        sr_i_store_slot(p_data, 1, count);
        memcpy(sr_i_row_indirect_area(p_data, 2), &handle, 20);
        return p_data;
    }
    sr_column_t columns_[2];
};

TEST_F(LoadedTableTest, SecondaryAccessIsRebuiltFromCommittedRowsInSlotOrder) {
    ASSERT_EQ(0, sr_i_hash_table_open(0, nullptr, nullptr, &table_.p_rows_hash_table));
    sr_i_index_entry_t *p = table_.p_rows_fixed_index;
    p[0].p_committed = p[0].p_applied = handle_row(100);
    p[2].p_committed = p[2].p_applied = handle_row(102);
    p[5].p_committed = p[5].p_applied = handle_row(105);
    p[7].p_applied = handle_row(107);  // added since: not part of the load
    table_.total_committed_rows = 3;
    table_.total_applied_rows = 3;
    ASSERT_EQ(0, sr_i_establish_secondary_row_access(&table_));
    EXPECT_EQ(0u, table_.p_rows_packed_index[0]);
    EXPECT_EQ(2u, table_.p_rows_packed_index[1]);
    EXPECT_EQ(5u, table_.p_rows_packed_index[2]);
    EXPECT_EQ(1u, p[2].packed_index);
    EXPECT_EQ(2u, p[5].packed_index);
    for (qx_uint32_t slot : {0u, 2u, 5u}) {
        qx_resource_handle_t probe{1, {2, 3, 4, 100 + slot}};
        qx_uint32_t row = 99;
        char **pp_key = nullptr;
        ASSERT_EQ(0, sr_i_hash_table_get_index(table_.p_rows_hash_table, &probe, &row, &pp_key));
        EXPECT_EQ(slot, row);
        EXPECT_EQ((100 + slot) & 0x3FFF, p[slot].hash_index);
        EXPECT_EQ(&p[slot].p_hash_table_element->p_key_value, pp_key);
        // The key is the handle inside the record, not a copy.
        EXPECT_EQ(sr_i_row_indirect_area(p[slot].p_committed, 2), *pp_key);
    }
    qx_resource_handle_t absent{1, {2, 3, 4, 107}};
    qx_uint32_t row = 0;
    EXPECT_EQ(202, sr_i_hash_table_get_index(table_.p_rows_hash_table, &absent, &row, nullptr));
}

TEST_F(LoadedTableTest, FixedSizeKeyIsTheSlotItself) {
    columns_[0].type = QX_UINT32;
    char row[4 + 16] = {};
    qx_value_t key{};
    key.val_uint32 = 7;
    sr_i_store_slot(row, 0, key);
    EXPECT_EQ(row + 4, sr_i_row_key_value(&table_, row));
    columns_[0].type = QX_CHAR_PTR;
    char text_row[4 + 16 + 6] = {};
    qx_uint32_t anchor[2] = {2, 4};
    memcpy(text_row + 4, anchor, 8);
    memcpy(text_row + 20, "..abc", 6);
    EXPECT_STREQ("abc", sr_i_row_key_value(&table_, text_row));
}

TEST_F(LoadedTableTest, HashFailureDuringRebuildIsReturnedAtOnce) {
    ASSERT_EQ(0, sr_i_hash_table_open(0, nullptr, nullptr, &table_.p_rows_hash_table));
    sr_i_index_entry_t *p = table_.p_rows_fixed_index;
    p[0].p_committed = p[0].p_applied = handle_row(1);
    p[1].p_committed = p[1].p_applied = handle_row(2);
    table_.total_committed_rows = 2;
    sr_i_alloc_fail_after(1);
    EXPECT_EQ(12, sr_i_establish_secondary_row_access(&table_));
    sr_i_alloc_fail_after(-1);
    EXPECT_EQ(12, last_error().code);
}

TEST_F(TableIndexTest, EstablishingFailureReturns12AndLeavesNoIndex) {
    for (qx_int64_t n = 0; n < 2; ++n) {
        sr_i_alloc_fail_after(n);
        EXPECT_EQ(12, sr_i_establish_rows_index(&table_, 100));
        EXPECT_EQ(nullptr, table_.p_rows_fixed_index);
        EXPECT_EQ(nullptr, table_.p_rows_packed_index);
        EXPECT_EQ(0u, table_.maximum_rows);
        EXPECT_EQ(nullptr, table_.p_rows_free_chain);
    }
}

TEST_F(TableIndexTest, GrowthFailureReturns12AndKeepsTheRowsReachable) {
    ASSERT_EQ(0, sr_i_establish_rows_index(&table_, 10));
    for (int i = 0; i < 10; ++i) add_live_row(record_);
    for (qx_int64_t n = 0; n < 2; ++n) {
        sr_i_alloc_fail_after(n);
        EXPECT_EQ(12, sr_i_grow_index(&table_, table_.maximum_rows));
        sr_i_alloc_fail_after(-1);
        EXPECT_EQ(10u, table_.maximum_rows);
        EXPECT_EQ(nullptr, table_.p_rows_free_chain);
        for (qx_uint32_t i = 0; i < 10; ++i) {
            EXPECT_EQ(i, table_.p_rows_packed_index[i]);
            EXPECT_EQ(record_, table_.p_rows_fixed_index[i].p_applied);
        }
    }
    EXPECT_EQ(0, sr_i_grow_index(&table_, table_.maximum_rows));
    EXPECT_EQ(20u, table_.maximum_rows);
}

}  // namespace
