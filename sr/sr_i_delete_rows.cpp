// Deleting rows.  A deletion is pending like every other change: the row's
// working version is dropped and the row moves to the deleted-rows list; the
// committed version, its slot and its packed position stay until commit or
// abort, so readers of committed data still see the row meanwhile.
#include "sr_i_hash_table.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_rows.h"
#include "sr_i_select.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_i_delete_rows", "1.1");

qx_int32_t sr_i_delete_row(sr_i_table_t *p_table, sr_i_index_entry_t *p_current_index_entry) {
    SR_I_ASSERT_WRITE_LOCKED(&p_table->lock);
    sr_i_index_entry_t *p_entry = p_current_index_entry;
    if (p_entry->p_applied == nullptr) {
        // Deleted already (it is on the deleted-rows list): the pool is
        // handed the missing record and refuses it, so the deletion is
        // neither repeated nor counted twice.
        return sr_i_free_row_record(p_table, nullptr);
    }
    qx_int32_t rc = sr_i_common_add_change_entry(p_table, p_entry, 1);
    if (rc != 0) return rc;
    if (p_entry->p_applied != p_entry->p_committed) {
        if (p_entry->p_committed == nullptr && p_entry->p_hash_table_element != nullptr) {
            // The key of a row added in this transaction lives in the record
            // freed below: its element goes now, so no lookup or later add of
            // the key ever reads the freed bytes.  The slot stays, with
            // neither record, until commit or abort.
            sr_i_hash_table_remove_element(p_table->p_rows_hash_table, p_entry->hash_index,
                                           p_entry->p_hash_table_element);
            p_entry->p_hash_table_element = nullptr;
            p_entry->hash_index = 0;
        }
        rc = sr_i_free_row_record(p_table, p_entry->p_applied);
        if (rc != 0) return rc;
    }
    p_entry->p_applied = nullptr;
    ++p_table->applied_deletions;
    return 0;
}

qx_int32_t sr_i_delete_rows(sr_i_table_t *p_table, qx_char_ptr_t p_selection_criteria) {
    SR_I_ASSERT_WRITE_LOCKED(&p_table->lock);
    if (p_table->ready_for_commit != 0) return SR_ERROR(SR_E_APPLIED_NOT_COMMITTED);
    const qx_uint32_t live = p_table->total_applied_rows - p_table->applied_deletions;
    if (live == 0) return SR_ERROR(SR_E_NO_ROWS_TO_DELETE);
    if (p_selection_criteria != nullptr) {
        return sr_i_delete_rows_matching(p_table, p_selection_criteria);
    }
    qx_uint32_t deleted = 0;
    for (qx_uint32_t f = 0; f < p_table->maximum_rows && deleted < live; ++f) {
        sr_i_index_entry_t *p_entry = &p_table->p_rows_fixed_index[f];
        if (p_entry->p_applied == nullptr) continue;
        qx_int32_t rc = sr_i_delete_row(p_table, p_entry);
        if (rc != 0) return rc;
        ++deleted;
    }
    return 0;
}
