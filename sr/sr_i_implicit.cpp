// The implicit cycle: an update of an implicitly controlled table is made
// durable before the call returns.  The exported call's frame runs it after a
// successful update, under ForkMutex and the table's write lock.
#include "sr_i.h"

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
    return sr_i_commit(p_table);
}
