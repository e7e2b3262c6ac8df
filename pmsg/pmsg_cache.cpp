/*
 * pmsg_cache.cpp - the library-owned client values.
 *
 * Readers hand callers pointers that must stay valid as long as the row record
 * they came from, and callers never free them.  A value that cannot point into
 * the record (structured data with pointers, arrays of pointer types,
 * converted text, objects at misaligned addresses) is built once into a
 * malloc'd block and kept here under the address of its slot.  Reading the
 * same unchanged slot again returns the same block, so memory does not grow
 * with the number of reads; the owner of the slots releases the blocks with
 * qx_pmsg_release_client_values_1 when it frees or reuses their memory.
 *
 * Validity does not depend on that call being made on time: an entry is
 * returned only when the slot's area, anchor, type, handle and a fingerprint
 * of the anchored bytes all match, and entries of a slot whose bytes are seen
 * to have changed are freed on the spot (the record they came from is gone).
 *
 * Entries are grouped by 256-byte granule of the slot address, so releasing
 * a record's range visits only the granules it covers, and spread over 32
 * shards, each with its own mutex, so concurrent readers of different rows
 * rarely meet.  The shard locks are held across fork() so that a child never
 * inherits a lock taken by a thread that does not exist in it.  (32 and not
 * more: the forking thread holds them all at once, on top of its caller's
 * locks, and ThreadSanitizer tracks at most 64 locks held by one thread.)
 *
 * Lock order: a caller's own locks (the registry's ForkMutex, its table
 * locks), then one shard lock; nothing is locked while a shard lock is held.
 * The fork handlers are installed when the library is loaded, before any
 * caller installs its own, because prepare handlers run in the reverse order
 * of installation: ours must run last, after the caller's have taken the
 * locks under which it calls us.
 */
#include <pthread.h>
#include <stdlib.h>

#include <atomic>

#include "pmsg_i.h"

namespace pmsg_i {
namespace {

constexpr int kGranuleBits = 8;
constexpr size_t kShardCount = 32;
constexpr size_t kInitialBuckets = 64;

struct Entry {
    Entry *p_next;
    CacheKey key;
    void *p_block;
};

struct alignas(64) Shard {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    Entry **p_buckets = nullptr;
    size_t bucket_count = 0; /* a power of two, or 0 before the first entry */
    size_t entry_count = 0;
};

Shard g_shards[kShardCount];
std::atomic<size_t> g_entry_count{0};

void lock_all_shards() {
    for (Shard &shard : g_shards) pthread_mutex_lock(&shard.mutex);
}
void unlock_all_shards() {
    for (size_t i = kShardCount; i-- > 0;) pthread_mutex_unlock(&g_shards[i].mutex);
}
__attribute__((constructor)) void install_fork_handlers() {
    pthread_atfork(lock_all_shards, unlock_all_shards, unlock_all_shards);
}

struct ShardLock {
    explicit ShardLock(Shard &s) : shard(s) { pthread_mutex_lock(&shard.mutex); }
    ~ShardLock() { pthread_mutex_unlock(&shard.mutex); }
    ShardLock(const ShardLock &) = delete;
    ShardLock &operator=(const ShardLock &) = delete;
    Shard &shard;
};

uint64_t granule_hash(uintptr_t granule) {
    uint64_t h = static_cast<uint64_t>(granule) * 0x9E3779B97F4A7C15ull;
    return h ^ (h >> 29);
}

Shard &shard_of(uint64_t hash) {
    return g_shards[hash & (kShardCount - 1)];
}

Entry **bucket_of(Shard &shard, uint64_t hash) {
    return &shard.p_buckets[(hash >> 6) & (shard.bucket_count - 1)];
}

uintptr_t granule_of(const void *p) {
    return reinterpret_cast<uintptr_t>(p) >> kGranuleBits;
}

bool same_bytes(const CacheKey &a, const CacheKey &b) {
    return a.p_area == b.p_area && a.offset == b.offset && a.length == b.length &&
           a.fingerprint == b.fingerprint;
}

bool same_key(const CacheKey &a, const CacheKey &b) {
    return a.p_slot == b.p_slot && same_bytes(a, b) && a.type == b.type && a.p_handle == b.p_handle;
}

/* Frees a chain of unlinked entries and their blocks (outside any lock). */
void free_chain(Entry *p_entry) {
    while (p_entry != nullptr) {
        Entry *p_next = p_entry->p_next;
        free(p_entry->p_block);
        free(p_entry);
        p_entry = p_next;
    }
}

/* Unlinks *pp_link's entry onto *pp_dead. */
void unlink_entry(Shard &shard, Entry **pp_link, Entry **pp_dead) {
    Entry *p_entry = *pp_link;
    *pp_link = p_entry->p_next;
    p_entry->p_next = *pp_dead;
    *pp_dead = p_entry;
    shard.entry_count--;
    g_entry_count.fetch_sub(1, std::memory_order_relaxed);
}

/* Doubles a shard's bucket array when its chains grow long; a failed
 * allocation leaves the old array, which still works. */
void maybe_grow(Shard &shard) {
    if (shard.bucket_count != 0 && shard.entry_count < 2 * shard.bucket_count) return;
    size_t new_count = shard.bucket_count == 0 ? kInitialBuckets : 2 * shard.bucket_count;
    auto **p_new = static_cast<Entry **>(calloc(new_count, sizeof(Entry *)));
    if (p_new == nullptr) return;
    for (size_t i = 0; i < shard.bucket_count; i++) {
        Entry *p_entry = shard.p_buckets[i];
        while (p_entry != nullptr) {
            Entry *p_next = p_entry->p_next;
            uint64_t hash = granule_hash(granule_of(p_entry->key.p_slot));
            Entry **pp_bucket = &p_new[(hash >> 6) & (new_count - 1)];
            p_entry->p_next = *pp_bucket;
            *pp_bucket = p_entry;
            p_entry = p_next;
        }
    }
    free(shard.p_buckets);
    shard.p_buckets = p_new;
    shard.bucket_count = new_count;
}

/* A shard left empty gives its bucket array back, so that once every value
 * is released the library holds no memory at all. */
void drop_buckets_if_empty(Shard &shard) {
    if (shard.entry_count != 0) return;
    free(shard.p_buckets);
    shard.p_buckets = nullptr;
    shard.bucket_count = 0;
}

/* Unlinks every entry of one bucket whose slot lies in [begin, end). */
void release_bucket(Shard &shard, Entry **pp_link, uintptr_t begin, uintptr_t end,
                    Entry **pp_dead) {
    while (*pp_link != nullptr) {
        uintptr_t slot = reinterpret_cast<uintptr_t>((*pp_link)->key.p_slot);
        if (slot >= begin && slot < end) {
            unlink_entry(shard, pp_link, pp_dead);
        } else {
            pp_link = &(*pp_link)->p_next;
        }
    }
}

}  // namespace

void *cache_find(const CacheKey &key) {
    uint64_t hash = granule_hash(granule_of(key.p_slot));
    Shard &shard = shard_of(hash);
    Entry *p_dead = nullptr;
    void *p_found = nullptr;
    {
        ShardLock lock(shard);
        if (shard.bucket_count == 0) return nullptr;
        Entry **pp_link = bucket_of(shard, hash);
        while (*pp_link != nullptr) {
            Entry *p_entry = *pp_link;
            if (p_entry->key.p_slot == key.p_slot) {
                if (same_key(p_entry->key, key)) {
                    p_found = p_entry->p_block;
                } else if (!same_bytes(p_entry->key, key)) {
                    unlink_entry(shard, pp_link, &p_dead);
                    continue;
                }
            }
            pp_link = &p_entry->p_next;
        }
        if (p_dead != nullptr) drop_buckets_if_empty(shard);
    }
    free_chain(p_dead);
    return p_found;
}

void *cache_insert(const CacheKey &key, void *p_block) {
    uint64_t hash = granule_hash(granule_of(key.p_slot));
    Shard &shard = shard_of(hash);
    auto *p_new = static_cast<Entry *>(malloc(sizeof(Entry)));
    void *p_result = nullptr;
    {
        ShardLock lock(shard);
        if (shard.bucket_count != 0) {
            for (Entry *p_entry = *bucket_of(shard, hash); p_entry != nullptr;
                 p_entry = p_entry->p_next) {
                if (same_key(p_entry->key, key)) {
                    /* Another reader of the same slot got here first. */
                    p_result = p_entry->p_block;
                    break;
                }
            }
        }
        if (p_result == nullptr && p_new != nullptr) {
            maybe_grow(shard);
            if (shard.bucket_count != 0) {
                Entry **pp_bucket = bucket_of(shard, hash);
                p_new->p_next = *pp_bucket;
                p_new->key = key;
                p_new->p_block = p_block;
                *pp_bucket = p_new;
                shard.entry_count++;
                g_entry_count.fetch_add(1, std::memory_order_relaxed);
                return p_block;
            }
        }
    }
    free(p_new);
    free(p_block);
    return p_result;
}

size_t cache_entry_count() {
    return g_entry_count.load(std::memory_order_relaxed);
}

/* Four independent lanes of multiply-xorshift over 32-byte blocks: the lanes'
 * multiplications overlap in the pipeline, which is what makes a cache hit
 * cheap next to building the value again. */
uint64_t fingerprint(const void *p, size_t n) {
    constexpr uint64_t kMultiplier = 0xff51afd7ed558ccdull;
    const uint8_t *p_byte = static_cast<const uint8_t *>(p);
    uint64_t lanes[4] = {0x9E3779B97F4A7C15ull ^ n, 0xC2B2AE3D27D4EB4Full, 0x165667B19E3779F9ull,
                         0x27D4EB2F165667C5ull};
    while (n >= 32) {
        for (int i = 0; i < 4; i++) {
            uint64_t h = (lanes[i] ^ load64(p_byte + 8 * i)) * kMultiplier;
            lanes[i] = h ^ (h >> 32);
        }
        p_byte += 32;
        n -= 32;
    }
    uint64_t h = lanes[0] ^ (lanes[1] * 3) ^ (lanes[2] * 5) ^ (lanes[3] * 7);
    while (n >= 8) {
        h = (h ^ load64(p_byte)) * kMultiplier;
        h ^= h >> 32;
        p_byte += 8;
        n -= 8;
    }
    uint64_t tail = 0;
    memcpy(&tail, p_byte, n);
    h = (h ^ tail) * kMultiplier;
    return h ^ (h >> 33);
}

}  // namespace pmsg_i

using namespace pmsg_i;

int qx_pmsg_release_client_values_1(const void *p_begin, size_t length) {
    if (length == 0 || cache_entry_count() == 0) return QX_PMSG_OK;
    uintptr_t begin = reinterpret_cast<uintptr_t>(p_begin);
    uintptr_t end = length > UINTPTR_MAX - begin ? UINTPTR_MAX : begin + length;
    uintptr_t first = begin >> kGranuleBits;
    uintptr_t last = (end - 1) >> kGranuleBits;
    Entry *p_dead = nullptr;
    if (last - first >= cache_entry_count()) {
        /* A range wider than there are entries: walking every entry is cheaper
         * than visiting every granule. */
        for (Shard &shard : g_shards) {
            ShardLock lock(shard);
            for (size_t i = 0; i < shard.bucket_count; i++)
                release_bucket(shard, &shard.p_buckets[i], begin, end, &p_dead);
            drop_buckets_if_empty(shard);
        }
    } else {
        for (uintptr_t granule = first;; granule++) {
            uint64_t hash = granule_hash(granule);
            Shard &shard = shard_of(hash);
            {
                ShardLock lock(shard);
                if (shard.bucket_count != 0) {
                    release_bucket(shard, bucket_of(shard, hash), begin, end, &p_dead);
                    drop_buckets_if_empty(shard);
                }
            }
            if (granule == last) break;
        }
    }
    free_chain(p_dead);
    return QX_PMSG_OK;
}
