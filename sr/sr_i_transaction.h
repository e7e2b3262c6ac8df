/*
 * sr_i_transaction.h - apply, commit, abort and the implicit cycle
 * (sr_i_apply.cpp, sr_i_commit.cpp, sr_i_abort.cpp, sr_i_implicit.cpp).  Every
 * routine runs under ForkMutex and the table's write lock, taken by the
 * exported call.
 */
#ifndef SR_I_TRANSACTION_H
#define SR_I_TRANSACTION_H

#include "sr_i_files.h"
#include "sr_i_table.h"

/* Reports failures as one routine's own, whichever of its helpers detects
 * them: apply and commit each name themselves in every error they report.
 * The line reported is the caller's. */
struct sr_i_reporter_t {
    const sr_i_source_t &source;
    const char *p_function;

    qx_int32_t error(qx_int32_t code, int line = __builtin_LINE()) const {
        return sr_i_set_error(source, p_function, line, code);
    }
    qx_int32_t syscall(const char *p_call, int the_errno, int line = __builtin_LINE()) const {
        return sr_i_set_error(source, p_function, line, SR_E_SYSTEM_CALL, p_call, the_errno);
    }
    qx_int32_t file(const char *p_call, int the_errno, int line = __builtin_LINE()) const {
        return sr_i_set_file_error(source, p_function, line, p_call, the_errno, false);
    }
};

/* Size above which a table file may be rewritten instead of appended to. */
constexpr auto SR_I_REWRITE_MINIMUM_FILE_LENGTH = 16384;

/* Whether the next apply should write a complete new file: the file is
 * longer than 16 KiB and less than half of it is live data (32-bit
 * arithmetic, as the decision has always been made). */
qx_uint32_t sr_i_rewrite_wanted(const sr_i_table_t *p_table);
/* Closes and removes the .rewrite file of a failed rewrite or switch. */
void sr_i_discard_rewrite_file(sr_i_table_t *p_table);
/* Writes the pending changes and a new commit record: appended after the
 * committed commit record (rewrite 0) or as a complete image in the
 * ".rewrite" file (rewrite non-zero), then synced.  0 leaves the table
 * applied (ready_for_commit 1 or 2); 212 when it already is. */
qx_int32_t sr_i_apply(sr_i_table_t *p_table, qx_uint32_t rewrite, qx_uint64_t table_change_counter);
/* Makes the applied state the committed one: one 4-byte write and a sync, or
 * the rename of the rewrite file; then the in-memory walks.  0 with nothing to
 * commit; 210 with changes that were never applied. */
qx_int32_t sr_i_commit(sr_i_table_t *p_table);
/* sr_i_commit, and in *p_unsynced why nothing was switched on disk when the
 * table is left applied by a failed switch: the code of the failed sync
 * after which the old switch was put back (commit itself then returns 0), or
 * the code commit returns; 0 otherwise. */
qx_int32_t sr_i_commit_unless_unsynced(sr_i_table_t *p_table, qx_int32_t *p_unsynced);
/* Throws pending and applied changes away, on disk and in memory. */
qx_int32_t sr_i_abort(sr_i_table_t *p_table);
/* The in-memory halves, over one change list from p_current_change_entry. */
qx_int32_t sr_i_commit_in_memory(sr_i_table_t *p_table,
                                 sr_i_change_entry_t *p_current_change_entry);
qx_int32_t sr_i_abort_in_memory(sr_i_table_t *p_table, sr_i_change_entry_t *p_current_change_entry);

#endif /* SR_I_TRANSACTION_H */
