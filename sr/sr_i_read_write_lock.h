/*
 * sr_i_read_write_lock.h - the reader/writer lock of every tree and table
 * (sr_i_read_write_lock.cpp).
 */
#ifndef SR_I_READ_WRITE_LOCK_H
#define SR_I_READ_WRITE_LOCK_H

#include <assert.h>
#include <pthread.h>

#include <atomic>

#include "sr_i_common.h"

/* The reader/writer lock of every tree and table.  Readers count themselves
 * in one of several shards (each on its own cache line, chosen per thread)
 * so that readers on different cores never write the same line; a writer
 * announces itself in `writers` and waits for the shards to sum to zero.
 * The lock has no owner, so a release may land on another shard than its
 * acquire: a shard may go negative, only the sum means anything. */
constexpr auto SR_I_RW_SHARDS = 8;
typedef struct sr_i_read_write_shard_struct_t {
    std::atomic<qx_int32_t> readers;
    char padding[64 - sizeof(std::atomic<qx_int32_t>)];
} sr_i_read_write_shard_t;

typedef struct sr_i_read_write_lock_struct_t {
    sr_i_read_write_shard_t shards[SR_I_RW_SHARDS];
    std::atomic<qx_int32_t> writers; /* writers waiting or holding: readers' fast path reads it */
    char padding[64 - sizeof(std::atomic<qx_int32_t>)];
    pthread_mutex_t lock; /* guards the fields below and every wait */
    pthread_cond_t read_condition;
    pthread_cond_t write_condition;
    /* Decided on under `lock` only; atomic so that the assertions below may
     * read it without the mutex. */
    std::atomic<qx_int32_t> writer_holding;
    qx_int32_t waiting_readers;
    qx_int32_t waiting_writers; /* writers that have come (never decremented on success) */
} sr_i_read_write_lock_t;

/* Readers holding it (counting readers that wait for a writer), -1 while a
 * writer holds it, 0 when free.  Exact only when nothing changes it. */
qx_int32_t sr_i_rw_state(sr_i_read_write_lock_t *p_rwlock);
void sr_i_rw_open(sr_i_read_write_lock_t *p_rwlock);
void sr_i_rw_close(sr_i_read_write_lock_t *p_rwlock);
qx_int32_t sr_i_rw_lock_read(sr_i_read_write_lock_t *p_rwlock);
qx_int32_t sr_i_rw_unlock_read(sr_i_read_write_lock_t *p_rwlock);
qx_int32_t sr_i_rw_lock_write(sr_i_read_write_lock_t *p_rwlock);
qx_int32_t sr_i_rw_unlock_write(sr_i_read_write_lock_t *p_rwlock);

/* For the assertions of caller-holds-the-lock contracts only: whether a
 * writer holds the lock, and whether a writer or some reader holds it.  The
 * lock has no owner, so neither can tell whether the holder is the caller.
 * Each is a few relaxed loads that order nothing, so a debug build under
 * ThreadSanitizer still sees every race the contract is there to prevent. */
bool sr_i_rw_held_for_write(const sr_i_read_write_lock_t *p_rwlock);
bool sr_i_rw_held(const sr_i_read_write_lock_t *p_rwlock);

/* A routine whose caller must hold a lock states it with one of these: in
 * debug builds the process stops when the lock is not held; release builds
 * (NDEBUG) compile them to nothing. */
#define SR_I_ASSERT_WRITE_LOCKED(p_rwlock) assert(sr_i_rw_held_for_write(p_rwlock))
#define SR_I_ASSERT_LOCKED(p_rwlock) assert(sr_i_rw_held(p_rwlock))

#endif /* SR_I_READ_WRITE_LOCK_H */
