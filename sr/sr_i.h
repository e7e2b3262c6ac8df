/*
 * sr_i.h - every internal header of the registry library in one include, for
 * the unit tests, fuzzers and benchmarks.  The library's own sources include
 * the module headers they use instead.
 *
 * Nothing here is exported from libqx_sr.so; the unit tests reach it through
 * the static archive.
 */
#ifndef SR_I_H
#define SR_I_H

#include "sr_i_application_metadata.h"
#include "sr_i_common.h"
#include "sr_i_dump.h"
#include "sr_i_files.h"
#include "sr_i_frame.h"
#include "sr_i_hash_table.h"
#include "sr_i_management.h"
#include "sr_i_pack.h"
#include "sr_i_pool.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_rows.h"
#include "sr_i_select.h"
#include "sr_i_table.h"
#include "sr_i_test_pause.h"
#include "sr_i_transaction.h"
#include "sr_i_tree.h"

#endif /* SR_I_H */
