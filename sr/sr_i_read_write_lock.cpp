// The reader/writer lock of every tree and table: one mutex, two condition
// variables, reader preference.  A thread cancelled while it waits leaves
// the counters as if it had never come (its clean-up handler drops its
// waiting count; the wait re-acquires the mutex, which the clean-up path
// releases).  The lock has no owner and is not re-entrant.
#include <pthread.h>

#include <cerrno>
#include <cstring>

#include "sr_i.h"

SR_SOURCE_FILE("sr/sr_i_read_write_lock", "1.1");

namespace {

struct cleanup_arg {
    sr_i_read_write_lock_t *p_rwlock;
};

// Cancellation clean-up: runs with the lock's mutex held (re-acquired by
// the cancelled wait), drops the waiting count and releases the mutex.
extern "C" void decrement_readers_if_thread_cancelled(void *p_arg) {
    auto *p_rwlock = static_cast<sr_i_read_write_lock_t *>(p_arg);
    if (p_rwlock->waiting_readers != 0) --p_rwlock->waiting_readers;
    pthread_mutex_unlock(&p_rwlock->lock);
}

extern "C" void decrement_writers_if_thread_cancelled(void *p_arg) {
    auto *p_rwlock = static_cast<sr_i_read_write_lock_t *>(p_arg);
    if (p_rwlock->waiting_writers != 0) --p_rwlock->waiting_writers;
    pthread_mutex_unlock(&p_rwlock->lock);
}

// pthread calls return their error instead of setting errno; report the
// failure under errno as callers of this lock have always seen it.
qx_int32_t lock_failure(const char *p_call, const char *p_function, int line, int rc) {
    if (rc != 0) errno = rc;
    return sr_i_set_error(sr_i_this_source, p_function, line, 10, p_call, errno);
}

}  // namespace

void sr_i_rw_open(sr_i_read_write_lock_t *p_rwlock) {
    std::memset(p_rwlock, 0, sizeof *p_rwlock);
    pthread_mutex_init(&p_rwlock->lock, nullptr);
    pthread_cond_init(&p_rwlock->read_condition, nullptr);
    pthread_cond_init(&p_rwlock->write_condition, nullptr);
}

void sr_i_rw_close(sr_i_read_write_lock_t *p_rwlock) {
    pthread_mutex_destroy(&p_rwlock->lock);
    pthread_cond_destroy(&p_rwlock->write_condition);
    pthread_cond_destroy(&p_rwlock->read_condition);
}

qx_int32_t sr_i_rw_lock_read(sr_i_read_write_lock_t *p_rwlock) {
    int rc = pthread_mutex_lock(&p_rwlock->lock);
    if (rc != 0) return lock_failure("pthread_mutex_lock", __func__, __LINE__, rc);
    ++p_rwlock->waiting_readers;
    qx_int32_t result = 0;
    pthread_cleanup_push(decrement_readers_if_thread_cancelled, p_rwlock);
    while (p_rwlock->lock_count < 0) {
        rc = pthread_cond_wait(&p_rwlock->read_condition, &p_rwlock->lock);
        if (rc != 0) {
            --p_rwlock->waiting_readers;
            pthread_mutex_unlock(&p_rwlock->lock);
            result = lock_failure("pthread_cond_wait", __func__, __LINE__, rc);
            break;
        }
    }
    pthread_cleanup_pop(0);
    if (result != 0) return result;
    ++p_rwlock->lock_count;
    --p_rwlock->waiting_readers;
    rc = pthread_mutex_unlock(&p_rwlock->lock);
    if (rc != 0) return lock_failure("pthread_mutex_unlock", __func__, __LINE__, rc);
    return 0;
}

qx_int32_t sr_i_rw_unlock_read(sr_i_read_write_lock_t *p_rwlock) {
    int rc = pthread_mutex_lock(&p_rwlock->lock);
    if (rc != 0) return lock_failure("pthread_mutex_lock", __func__, __LINE__, rc);
    if (--p_rwlock->lock_count == 0) {
        // The last reader out wakes one writer.
        rc = pthread_cond_signal(&p_rwlock->write_condition);
        if (rc != 0) {
            ++p_rwlock->lock_count;
            pthread_mutex_unlock(&p_rwlock->lock);
            return lock_failure("pthread_cond_signal", __func__, __LINE__, rc);
        }
    }
    rc = pthread_mutex_unlock(&p_rwlock->lock);
    if (rc != 0) return lock_failure("pthread_mutex_unlock", __func__, __LINE__, rc);
    return 0;
}

qx_int32_t sr_i_rw_lock_write(sr_i_read_write_lock_t *p_rwlock) {
    int rc = pthread_mutex_lock(&p_rwlock->lock);
    if (rc != 0) return lock_failure("pthread_mutex_lock", __func__, __LINE__, rc);
    ++p_rwlock->waiting_writers;
    qx_int32_t result = 0;
    pthread_cleanup_push(decrement_writers_if_thread_cancelled, p_rwlock);
    while (p_rwlock->lock_count != 0) {
        rc = pthread_cond_wait(&p_rwlock->write_condition, &p_rwlock->lock);
        if (rc != 0) {
            pthread_mutex_unlock(&p_rwlock->lock);
            --p_rwlock->waiting_writers;
            result = lock_failure("pthread_cond_wait", __func__, __LINE__, rc);
            break;
        }
    }
    pthread_cleanup_pop(0);
    if (result != 0) return result;
    // waiting_writers is deliberately left as it is: it records that
    // writers have come, and nothing decides anything by it.
    p_rwlock->lock_count = -1;
    rc = pthread_mutex_unlock(&p_rwlock->lock);
    if (rc != 0) return lock_failure("pthread_mutex_unlock", __func__, __LINE__, rc);
    return 0;
}

qx_int32_t sr_i_rw_unlock_write(sr_i_read_write_lock_t *p_rwlock) {
    int rc = pthread_mutex_lock(&p_rwlock->lock);
    if (rc != 0) return lock_failure("pthread_mutex_lock", __func__, __LINE__, rc);
    qx_int32_t previous = p_rwlock->lock_count;
    p_rwlock->lock_count = 0;
    const char *p_call;
    if (p_rwlock->waiting_readers != 0) {
        // Readers first: every waiting reader proceeds together.
        p_call = "pthread_cond_broadcast";
        rc = pthread_cond_broadcast(&p_rwlock->read_condition);
    } else {
        p_call = "pthread_cond_signal";
        rc = pthread_cond_signal(&p_rwlock->write_condition);
    }
    if (rc != 0) {
        p_rwlock->lock_count = previous;
        pthread_mutex_unlock(&p_rwlock->lock);
        return lock_failure(p_call, __func__, __LINE__, rc);
    }
    rc = pthread_mutex_unlock(&p_rwlock->lock);
    if (rc != 0) return lock_failure("pthread_mutex_unlock", __func__, __LINE__, rc);
    return 0;
}
