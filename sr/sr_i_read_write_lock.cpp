// The reader/writer lock of every tree and table, reader preference.
//
// Readers do not touch a shared line on the way in or out: each thread
// counts itself in its own shard, then checks `writers` (both sequentially
// consistent, so a reader and an arriving writer cannot both miss each
// other).  Only when a writer is waiting or holding does a reader take the
// mutex.  A writer takes the mutex, raises `writers`, and waits until no
// writer holds and the shards sum to zero; the last reader out signals it.
// Readers are preferred: a reader waits only while a writer holds the lock,
// never for a writer that merely waits, and a writer's release wakes every
// waiting reader before any other writer.
//
// A thread cancelled while it waits leaves the counters as if it had never
// come (its clean-up handler undoes its counts; the wait re-acquires the
// mutex, which the clean-up path releases).  The lock has no owner and is
// not re-entrant.
#include <pthread.h>

#include <cerrno>
#include <cstring>

#include "sr_i_read_write_lock.h"

SR_SOURCE_FILE("sr/sr_i_read_write_lock", "1.2");

namespace {

// The shard of the calling thread: threads are numbered as they first come,
// so the first SR_I_RW_SHARDS threads never share one.
std::atomic<qx_uint32_t> next_thread_number{0};

std::atomic<qx_int32_t> &my_shard(sr_i_read_write_lock_t *p_rwlock) {
    static thread_local qx_uint32_t number = 0;  // 1 + the shard; 0 before the first call
    if (number == 0)
        number = next_thread_number.fetch_add(1, std::memory_order_relaxed) % SR_I_RW_SHARDS + 1;
    return p_rwlock->shards[number - 1].readers;
}

qx_int32_t readers(const sr_i_read_write_lock_t *p_rwlock) {
    qx_int32_t sum = 0;
    for (const auto &shard : p_rwlock->shards) sum += shard.readers.load();
    return sum;
}

// With the mutex held: wakes one waiting writer if it may now go in.
int signal_writer_if_free(sr_i_read_write_lock_t *p_rwlock) {
    if (p_rwlock->writer_holding.load(std::memory_order_relaxed) == 0 &&
        p_rwlock->writers.load() != 0 && readers(p_rwlock) == 0)
        return pthread_cond_signal(&p_rwlock->write_condition);
    return 0;
}

struct reader_cleanup {
    sr_i_read_write_lock_t *p_rwlock;
    std::atomic<qx_int32_t> *p_shard;
};

// Cancellation clean-up: runs with the lock's mutex held (re-acquired by
// the cancelled wait), drops the thread's counts and releases the mutex.
extern "C" void decrement_readers_if_thread_cancelled(void *p_arg) {
    auto *p_cleanup = static_cast<reader_cleanup *>(p_arg);
    sr_i_read_write_lock_t *p_rwlock = p_cleanup->p_rwlock;
    if (p_rwlock->waiting_readers != 0) --p_rwlock->waiting_readers;
    p_cleanup->p_shard->fetch_sub(1);
    signal_writer_if_free(p_rwlock);
    pthread_mutex_unlock(&p_rwlock->lock);
}

extern "C" void decrement_writers_if_thread_cancelled(void *p_arg) {
    auto *p_rwlock = static_cast<sr_i_read_write_lock_t *>(p_arg);
    if (p_rwlock->waiting_writers != 0) --p_rwlock->waiting_writers;
    p_rwlock->writers.fetch_sub(1);
    pthread_mutex_unlock(&p_rwlock->lock);
}

// pthread calls return their error instead of setting errno; report the
// failure under errno as callers of this lock have always seen it.
qx_int32_t lock_failure(const char *p_call, const char *p_function, int line, int rc) {
    if (rc != 0) errno = rc;
    return sr_i_set_error(sr_i_this_source, p_function, line, SR_E_SYSTEM_CALL, p_call, errno);
}

}  // namespace

void sr_i_rw_open(sr_i_read_write_lock_t *p_rwlock) {
    for (auto &shard : p_rwlock->shards) shard.readers.store(0, std::memory_order_relaxed);
    p_rwlock->writers.store(0, std::memory_order_relaxed);
    p_rwlock->writer_holding.store(0, std::memory_order_relaxed);
    p_rwlock->waiting_readers = 0;
    p_rwlock->waiting_writers = 0;
    pthread_mutex_init(&p_rwlock->lock, nullptr);
    pthread_cond_init(&p_rwlock->read_condition, nullptr);
    pthread_cond_init(&p_rwlock->write_condition, nullptr);
}

void sr_i_rw_close(sr_i_read_write_lock_t *p_rwlock) {
    pthread_mutex_destroy(&p_rwlock->lock);
    pthread_cond_destroy(&p_rwlock->write_condition);
    pthread_cond_destroy(&p_rwlock->read_condition);
}

qx_int32_t sr_i_rw_state(sr_i_read_write_lock_t *p_rwlock) {
    pthread_mutex_lock(&p_rwlock->lock);
    qx_int32_t state =
        p_rwlock->writer_holding.load(std::memory_order_relaxed) != 0 ? -1 : readers(p_rwlock);
    pthread_mutex_unlock(&p_rwlock->lock);
    return state;
}

// The holder's own stores precede its check in its own thread, so relaxed
// loads see them; a thread's read lock is released by the thread that took
// it, so while the caller reads, no shard is below zero and its own counts.
bool sr_i_rw_held_for_write(const sr_i_read_write_lock_t *p_rwlock) {
    return p_rwlock->writer_holding.load(std::memory_order_relaxed) != 0;
}

bool sr_i_rw_held(const sr_i_read_write_lock_t *p_rwlock) {
    if (sr_i_rw_held_for_write(p_rwlock)) return true;
    qx_int32_t sum = 0;
    for (const auto &shard : p_rwlock->shards) sum += shard.readers.load(std::memory_order_relaxed);
    return sum > 0;
}

qx_int32_t sr_i_rw_lock_read(sr_i_read_write_lock_t *p_rwlock) {
    std::atomic<qx_int32_t> &shard = my_shard(p_rwlock);
    shard.fetch_add(1);
    if (p_rwlock->writers.load() == 0) return 0;

    // A writer waits or holds: decide under the mutex, still counted, so a
    // waiting writer keeps waiting for this reader.
    int rc = pthread_mutex_lock(&p_rwlock->lock);
    if (rc != 0) {
        shard.fetch_sub(1);
        return lock_failure("pthread_mutex_lock", __func__, __LINE__, rc);
    }
    ++p_rwlock->waiting_readers;
    qx_int32_t result = 0;
    reader_cleanup cleanup{p_rwlock, &shard};
    pthread_cleanup_push(decrement_readers_if_thread_cancelled, &cleanup);
    while (p_rwlock->writer_holding.load(std::memory_order_relaxed) != 0) {
        rc = pthread_cond_wait(&p_rwlock->read_condition, &p_rwlock->lock);
        if (rc != 0) {
            --p_rwlock->waiting_readers;
            shard.fetch_sub(1);
            signal_writer_if_free(p_rwlock);
            pthread_mutex_unlock(&p_rwlock->lock);
            result = lock_failure("pthread_cond_wait", __func__, __LINE__, rc);
            break;
        }
    }
    pthread_cleanup_pop(0);
    if (result != 0) return result;
    --p_rwlock->waiting_readers;
    rc = pthread_mutex_unlock(&p_rwlock->lock);
    if (rc != 0) return lock_failure("pthread_mutex_unlock", __func__, __LINE__, rc);
    return 0;
}

qx_int32_t sr_i_rw_unlock_read(sr_i_read_write_lock_t *p_rwlock) {
    my_shard(p_rwlock).fetch_sub(1);
    if (p_rwlock->writers.load() == 0) return 0;

    // A writer waits: the last reader out wakes one.
    int rc = pthread_mutex_lock(&p_rwlock->lock);
    if (rc != 0) return lock_failure("pthread_mutex_lock", __func__, __LINE__, rc);
    rc = signal_writer_if_free(p_rwlock);
    if (rc != 0) {
        pthread_mutex_unlock(&p_rwlock->lock);
        return lock_failure("pthread_cond_signal", __func__, __LINE__, rc);
    }
    rc = pthread_mutex_unlock(&p_rwlock->lock);
    if (rc != 0) return lock_failure("pthread_mutex_unlock", __func__, __LINE__, rc);
    return 0;
}

qx_int32_t sr_i_rw_lock_write(sr_i_read_write_lock_t *p_rwlock) {
    int rc = pthread_mutex_lock(&p_rwlock->lock);
    if (rc != 0) return lock_failure("pthread_mutex_lock", __func__, __LINE__, rc);
    ++p_rwlock->waiting_writers;
    p_rwlock->writers.fetch_add(1);
    qx_int32_t result = 0;
    pthread_cleanup_push(decrement_writers_if_thread_cancelled, p_rwlock);
    while (p_rwlock->writer_holding.load(std::memory_order_relaxed) != 0 ||
           readers(p_rwlock) != 0) {
        rc = pthread_cond_wait(&p_rwlock->write_condition, &p_rwlock->lock);
        if (rc != 0) {
            --p_rwlock->waiting_writers;
            p_rwlock->writers.fetch_sub(1);
            pthread_mutex_unlock(&p_rwlock->lock);
            result = lock_failure("pthread_cond_wait", __func__, __LINE__, rc);
            break;
        }
    }
    pthread_cleanup_pop(0);
    if (result != 0) return result;
    // waiting_writers is deliberately left as it is: it records that
    // writers have come, and nothing decides anything by it.
    p_rwlock->writer_holding.store(1, std::memory_order_relaxed);
    rc = pthread_mutex_unlock(&p_rwlock->lock);
    if (rc != 0) return lock_failure("pthread_mutex_unlock", __func__, __LINE__, rc);
    return 0;
}

qx_int32_t sr_i_rw_unlock_write(sr_i_read_write_lock_t *p_rwlock) {
    int rc = pthread_mutex_lock(&p_rwlock->lock);
    if (rc != 0) return lock_failure("pthread_mutex_lock", __func__, __LINE__, rc);
    p_rwlock->writer_holding.store(0, std::memory_order_relaxed);
    p_rwlock->writers.fetch_sub(1);
    const char *p_call;
    if (p_rwlock->waiting_readers != 0) {
        // Readers first: every waiting reader proceeds together.
        p_call = "pthread_cond_broadcast";
        rc = pthread_cond_broadcast(&p_rwlock->read_condition);
    } else {
        p_call = "pthread_cond_signal";
        rc = signal_writer_if_free(p_rwlock);
    }
    if (rc != 0) {
        p_rwlock->writers.fetch_add(1);
        p_rwlock->writer_holding.store(1, std::memory_order_relaxed);
        pthread_mutex_unlock(&p_rwlock->lock);
        return lock_failure(p_call, __func__, __LINE__, rc);
    }
    rc = pthread_mutex_unlock(&p_rwlock->lock);
    if (rc != 0) return lock_failure("pthread_mutex_unlock", __func__, __LINE__, rc);
    return 0;
}
