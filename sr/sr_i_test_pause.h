/*
 * sr_i_test_pause.h - pause points for the tests of the durable path
 * (sr_i_test_pause.cpp).
 */
#ifndef SR_I_TEST_PAUSE_H
#define SR_I_TEST_PAUSE_H

#include "sr_i_common.h"

/*
 * Test-only pause points on the durable path.  In test builds
 * (QX_TEST_SEAMS: the static archive) QX_SR_TEST_PAUSE names one point, read
 * once per process (sr_i_test_pause_reload reads it again, for a
 * forked child that set it):
 *   "<point>"                 the process stops itself with SIGSTOP there;
 *   "<point>@<n>"             only at the n-th time the point is reached;
 *   "<point>[@<n>],<file>"    instead writes the point's name to <file> and
 *                             sleeps until it is killed.
 * Points: "apply-written" (apply's records written, not yet synced),
 * "implicit-applied" (between apply and commit of an implicit update),
 * "commit-written" (commit's 4-byte switch written, not yet synced),
 * "commit-synced" (the switch synced, memory not yet updated),
 * "rewrite-before-rename" and "rewrite-after-rename" (commit of a rewrite);
 * of table management: "copy-before-rename" (a copy's complete image synced,
 * not yet renamed over the target) and "schema-applied" (a rebuilt table
 * written to the rewrite file, its commit not yet begun).
 * Unset, a point costs one load and one branch.  In the shipped library a
 * point does nothing and sr_i_test_pause_reload does not exist.
 */
void sr_i_test_pause(const char *p_point);
void sr_i_test_pause_reload();

#endif /* SR_I_TEST_PAUSE_H */
