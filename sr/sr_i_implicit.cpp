// The implicit cycle: an update of an implicitly controlled table is made
// durable before the call returns.  The exported call's frame runs it after a
// successful update, under ForkMutex and the table's write lock.
#include "sr_i_frame.h"
#include "sr_i_table.h"
#include "sr_i_test_pause.h"
#include "sr_i_transaction.h"

SR_SOURCE_FILE("sr/sr_i_implicit", "1.1");

qx_int32_t sr_i_implicit_apply_commit(sr_i_table_t *p_table) {
    // The caller never chooses the change counter of an implicit commit.
    qx_int32_t rc = sr_i_apply(p_table, sr_i_rewrite_wanted(p_table), 0);
    if (rc != 0) {
        // The update is undone; the caller learns why apply failed, not
        // whether the clean-up went well (it cannot damage the file).
        (void)sr_i_abort(p_table);
        return rc;
    }
    sr_i_test_pause("implicit-applied");
    // Commit may return 0 with nothing committed (its sync failed and the
    // switch was put back).  The caller of an implicit update cannot finish
    // the transaction itself, so success is reported only for a change that
    // is committed: one more attempt, then the change is undone and the
    // failure reported.  A table left applied would refuse every later
    // update and lose this one at close.
    // A failure after the switch (in memory) is returned as it stands: the
    // file already holds the change, abort must not cut it off.
    qx_int32_t unsynced = 0;
    rc = sr_i_commit_unless_unsynced(p_table, &unsynced);
    if (unsynced != 0 && p_table->ready_for_commit == 1) {
        rc = sr_i_commit_unless_unsynced(p_table, &unsynced);
    }
    if (unsynced != 0) {
        (void)sr_i_abort(p_table);
        return unsynced;
    }
    return rc;
}
