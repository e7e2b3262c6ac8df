// The hashed key index over a table's key column (column 0).  Buckets of
// singly linked elements; an element holds the row's fixed index and the
// address of the key inside the row record, never a copy of the key.  New
// elements go to the head of their bucket, so among equal keys (a key column
// that does not check uniqueness) the one added last is found first.
//
// Elements are carved out of slabs the index owns, so that building the
// index of a large table costs a handful of allocations instead of one per
// row, neighbouring rows' elements share cache lines, and closing frees the
// slabs without walking the buckets.  Removed elements go on a free list and
// are handed out again first.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sr_i_hash_table.h"
#include "sr_i_pool.h"

SR_SOURCE_FILE("sr/sr_i_hash_table", "1.1");

namespace {

// The word of a resource handle that varies most between handles.
constexpr size_t kDefaultHashWordOffset = 16;
constexpr qx_uint32_t kDefaultHashMask = 0x3FFF;

}  // namespace

qx_uint32_t sr_i_default_hash(const void *p_key_value) {
    qx_uint32_t word;
    memcpy(&word, static_cast<const char *>(p_key_value) + kDefaultHashWordOffset, sizeof word);
    return word & kDefaultHashMask;
}

namespace {

// The bucket of a key.  A caller's hash function is trusted to stay below
// the bucket count (that is its contract, and the value is used as it
// stands); a value outside is caught here rather than followed into memory
// that is not the bucket array, and reported as an internal inconsistency.
qx_int32_t bucket_of(const sr_hash_table_t *p_hash_table, const void *p_key_value,
                     qx_uint32_t *p_bucket, const char *p_function, int line) {
    if (!sr_i_hash_table_bucket(p_hash_table, p_key_value, p_bucket)) {
        return sr_i_set_error(sr_i_this_source, p_function, line, SR_E_INTERNAL);
    }
    return 0;
}

// A slab is an array of elements whose first one only links the slabs.  The
// first slab holds one usable element and each next one twice as many as the
// last, up to a bound: small indexes stay small, large ones take a few dozen
// allocations in all.
constexpr qx_uint32_t kLargestSlabElements = 1u << 16;

sr_hash_table_element_t *new_element(sr_hash_table_t *p_hash_table) {
    sr_hash_table_element_t *p_element = p_hash_table->p_free_elements;
    if (p_element != nullptr) {
        p_hash_table->p_free_elements = p_element->p_next;
        return p_element;
    }
    if (p_hash_table->slab_used == p_hash_table->slab_capacity) {
        qx_uint32_t usable = p_hash_table->slab_capacity == 0 ? 1
                             : p_hash_table->slab_capacity - 1 >= kLargestSlabElements
                                 ? kLargestSlabElements
                                 : 2 * (p_hash_table->slab_capacity - 1);
        qx_uint32_t capacity = usable + 1;
        auto *p_slab = static_cast<sr_hash_table_element_t *>(
            sr_i_malloc(sizeof(sr_hash_table_element_t) * capacity));
        if (p_slab == nullptr) return nullptr;
        p_slab->p_next = p_hash_table->p_slabs;
        p_hash_table->p_slabs = p_slab;
        p_hash_table->slab_capacity = capacity;
        p_hash_table->slab_used = 1;
    }
    return &p_hash_table->p_slabs[p_hash_table->slab_used++];
}

void release_element(sr_hash_table_t *p_hash_table, sr_hash_table_element_t *p_element) {
    p_element->p_next = p_hash_table->p_free_elements;
    p_hash_table->p_free_elements = p_element;
}

qx_int32_t keys_compare(const sr_hash_table_t *p_hash_table, const void *p_key1,
                        const void *p_key2) {
    return p_hash_table->p_compare_function(p_key1, p_key2);
}

}  // namespace

qx_int32_t sr_i_hash_table_open(qx_uint32_t total_hash_buckets, sr_hash_function_t *p_hash_function,
                                sr_hash_keys_compare_function_t *p_compare_function,
                                sr_hash_table_t **p_hash_table) {
    if (p_hash_table == nullptr) return SR_ERROR(SR_E_NULL_POINTER);
    if (p_hash_function == nullptr) {
        // The defaults go together: resource-handle keys, 16,384 buckets.
        total_hash_buckets = SR_I_DEFAULT_HASH_BUCKETS;
        p_compare_function = cu_rsrc_hndl_cmp_1;
    } else if (p_compare_function == nullptr) {
        return SR_ERROR(SR_E_NULL_POINTER);
    }
    auto *p_table = static_cast<sr_hash_table_t *>(sr_i_malloc(sizeof(sr_hash_table_t)));
    if (p_table == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    auto *p_elements = static_cast<sr_hash_table_element_t **>(
        sr_i_calloc(total_hash_buckets, sizeof(sr_hash_table_element_t *)));
    if (p_elements == nullptr) {
        free(p_table);
        return SR_ERROR(SR_E_NO_MEMORY);
    }
    p_table->total_hash_buckets = total_hash_buckets;
    p_table->p_hash_function = p_hash_function;  // NULL: the default hash
    p_table->p_compare_function = p_compare_function;
    p_table->p_elements = p_elements;
    p_table->p_slabs = nullptr;
    p_table->p_free_elements = nullptr;
    p_table->slab_used = 0;
    p_table->slab_capacity = 0;
    *p_hash_table = p_table;
    return 0;
}

qx_int32_t sr_i_hash_table_close(sr_hash_table_t *p_hash_table) {
    if (p_hash_table == nullptr) return 0;
    for (sr_hash_table_element_t *p = p_hash_table->p_slabs; p != nullptr;) {
        sr_hash_table_element_t *p_next = p->p_next;
        free(p);
        p = p_next;
    }
    free(p_hash_table->p_elements);
    free(p_hash_table);
    return 0;
}

bool sr_i_hash_table_bucket(const sr_hash_table_t *p_hash_table, const void *p_key_value,
                            qx_uint32_t *p_bucket) {
    const qx_uint32_t bucket = p_hash_table->p_hash_function != nullptr
                                   ? p_hash_table->p_hash_function(p_key_value)
                                   : sr_i_default_hash(p_key_value);
    *p_bucket = bucket;
    return bucket < p_hash_table->total_hash_buckets;
}

sr_hash_table_element_t *sr_i_hash_table_link(sr_hash_table_t *p_hash_table, char *p_key_value,
                                              qx_uint32_t row_index, qx_uint32_t bucket) {
    sr_hash_table_element_t *p_element = new_element(p_hash_table);
    if (p_element == nullptr) return nullptr;
    sr_hash_table_element_t **p_head = &p_hash_table->p_elements[bucket];
    p_element->row_index = row_index;
    p_element->p_key_value = p_key_value;
    p_element->p_next = *p_head;
    *p_head = p_element;
    return p_element;
}

bool sr_i_hash_table_keys_equal(const sr_hash_table_t *p_hash_table, const void *p_key1,
                                const void *p_key2) {
    return keys_compare(p_hash_table, p_key1, p_key2) == 0;
}

qx_int32_t sr_i_hash_table_add(sr_hash_table_t *p_hash_table, char *p_key_value,
                               qx_uint32_t row_index, qx_uint32_t *p_hash_index,
                               sr_hash_table_element_t **p_p_hash_table_element,
                               sr_qualifier_t qualifier) {
    if (p_hash_table == nullptr || p_key_value == nullptr || p_hash_index == nullptr ||
        p_p_hash_table_element == nullptr) {
        return SR_ERROR(SR_E_NULL_POINTER);
    }
    qx_uint32_t bucket = 0;
    qx_int32_t rc = bucket_of(p_hash_table, p_key_value, &bucket, __func__, __LINE__);
    if (rc != 0) return rc;
    if ((qualifier & SR_QUALIFIER_BASE_MASK) == SR_PRIMARY_KEY) {
        for (sr_hash_table_element_t *p = p_hash_table->p_elements[bucket]; p != nullptr;
             p = p->p_next) {
            if (keys_compare(p_hash_table, p_key_value, p->p_key_value) == 0) {
                // Not reported: the caller decides whether the existing row
                // makes this a duplicate (it may be deleted and revivable).
                *p_hash_index = bucket;
                *p_p_hash_table_element = p;
                return SR_E_DUPLICATE_KEY;
            }
        }
    }
    sr_hash_table_element_t *p_element =
        sr_i_hash_table_link(p_hash_table, p_key_value, row_index, bucket);
    if (p_element == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    *p_hash_index = bucket;
    *p_p_hash_table_element = p_element;
    return 0;
}

qx_int32_t sr_i_hash_table_reserve(sr_hash_table_t *p_hash_table, qx_uint32_t count) {
    if (p_hash_table == nullptr) return SR_ERROR(SR_E_NULL_POINTER);
    if (p_hash_table->slab_capacity - p_hash_table->slab_used >= count) return 0;
    auto *p_slab = static_cast<sr_hash_table_element_t *>(
        sr_i_malloc(sizeof(sr_hash_table_element_t) * (static_cast<size_t>(count) + 1)));
    if (p_slab == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    // What is left of the current slab is given up; the slab stays owned.
    p_slab->p_next = p_hash_table->p_slabs;
    p_hash_table->p_slabs = p_slab;
    p_hash_table->slab_capacity = count + 1;
    p_hash_table->slab_used = 1;
    return 0;
}

void sr_i_hash_table_clear(sr_hash_table_t *p_hash_table) {
    if (p_hash_table == nullptr) return;
    for (sr_hash_table_element_t *p = p_hash_table->p_slabs; p != nullptr;) {
        sr_hash_table_element_t *p_next = p->p_next;
        free(p);
        p = p_next;
    }
    memset(p_hash_table->p_elements, 0,
           sizeof(sr_hash_table_element_t *) * p_hash_table->total_hash_buckets);
    p_hash_table->p_slabs = nullptr;
    p_hash_table->p_free_elements = nullptr;
    p_hash_table->slab_used = 0;
    p_hash_table->slab_capacity = 0;
}

qx_int32_t sr_i_hash_table_remove(sr_hash_table_t *p_hash_table, const void *p_key_value) {
    if (p_hash_table == nullptr || p_key_value == nullptr) return SR_ERROR(SR_E_NULL_POINTER);
    qx_uint32_t bucket = 0;
    qx_int32_t rc = bucket_of(p_hash_table, p_key_value, &bucket, __func__, __LINE__);
    if (rc != 0) return rc;
    for (sr_hash_table_element_t **pp = &p_hash_table->p_elements[bucket]; *pp != nullptr;
         pp = &(*pp)->p_next) {
        if (keys_compare(p_hash_table, p_key_value, (*pp)->p_key_value) == 0) {
            sr_hash_table_element_t *p_found = *pp;
            *pp = p_found->p_next;
            release_element(p_hash_table, p_found);
            return 0;
        }
    }
    return SR_ERROR(SR_E_NO_ROW_FOR_KEY);
}

qx_int32_t sr_i_hash_table_remove_element(sr_hash_table_t *p_hash_table, qx_uint32_t hash_index,
                                          sr_hash_table_element_t *p_hash_table_element) {
    if (p_hash_table == nullptr || p_hash_table_element == nullptr)
        return SR_ERROR(SR_E_NULL_POINTER);
    if (hash_index >= p_hash_table->total_hash_buckets) return SR_ERROR(SR_E_NO_ROW_FOR_KEY);
    for (sr_hash_table_element_t **pp = &p_hash_table->p_elements[hash_index]; *pp != nullptr;
         pp = &(*pp)->p_next) {
        if (*pp == p_hash_table_element) {
            *pp = p_hash_table_element->p_next;
            release_element(p_hash_table, p_hash_table_element);
            return 0;
        }
    }
    return SR_ERROR(SR_E_NO_ROW_FOR_KEY);
}

namespace {

// The lookup of sr_i_hash_table_get_index and sr_i_hash_table_find_row.  A
// lookup is a chain of dependent cache misses: bucket, element, the key
// inside its row record.  As each element is reached, what the caller reads
// next, the row's slot, and the rest of the record past its key are fetched
// ahead, so that their misses overlap the key's instead of following it.
// The record may end before those 64 bytes: a fetch is only a hint, and the
// address is formed as a number, not as a pointer past the record.
qx_int32_t find_row(sr_hash_table_t *p_hash_table, const void *p_key_value, qx_uint32_t *row_index,
                    char ***p_p_p_key_value, const char *p_slots, size_t slot_bytes,
                    const char *p_function, int line) {
    if (p_hash_table == nullptr || p_key_value == nullptr || row_index == nullptr) {
        return sr_i_set_error(sr_i_this_source, p_function, line, SR_E_NULL_POINTER);
    }
    qx_uint32_t bucket = 0;
    qx_int32_t rc = bucket_of(p_hash_table, p_key_value, &bucket, p_function, line);
    if (rc != 0) return rc;
    for (sr_hash_table_element_t *p = p_hash_table->p_elements[bucket]; p != nullptr;
         p = p->p_next) {
        if (p_slots != nullptr) {
            __builtin_prefetch(p_slots + static_cast<size_t>(p->row_index) * slot_bytes);
            __builtin_prefetch(
                reinterpret_cast<const void *>(reinterpret_cast<uintptr_t>(p->p_key_value) + 64));
        }
        if (keys_compare(p_hash_table, p_key_value, p->p_key_value) == 0) {
            *row_index = p->row_index;
            if (p_p_p_key_value != nullptr) *p_p_p_key_value = &p->p_key_value;
            return 0;
        }
    }
    return sr_i_set_error(sr_i_this_source, p_function, line, SR_E_NO_ROW_FOR_KEY);
}

}  // namespace

qx_int32_t sr_i_hash_table_get_index(sr_hash_table_t *p_hash_table, const void *p_key_value,
                                     qx_uint32_t *row_index, char ***p_p_p_key_value) {
    return find_row(p_hash_table, p_key_value, row_index, p_p_p_key_value, nullptr, 0, __func__,
                    __LINE__);
}

qx_int32_t sr_i_hash_table_find_row(sr_hash_table_t *p_hash_table, const void *p_key_value,
                                    qx_uint32_t *row_index, const void *p_slots,
                                    size_t slot_bytes) {
    return find_row(p_hash_table, p_key_value, row_index, nullptr,
                    static_cast<const char *>(p_slots), slot_bytes, __func__, __LINE__);
}

void sr_i_hash_table_output_stats(sr_hash_table_t *p_hash_table) {
    if (p_hash_table == nullptr) return;
    qx_uint32_t max_bucket_count = 0;
    qx_uint32_t unused_buckets = 0;
    for (qx_uint32_t b = 0; b < p_hash_table->total_hash_buckets; ++b) {
        qx_uint32_t count = 0;
        for (sr_hash_table_element_t *p = p_hash_table->p_elements[b]; p != nullptr;
             p = p->p_next) {
            ++count;
        }
        if (count == 0) {
            ++unused_buckets;
            continue;
        }
        printf("%u %u\n", b, count);
        if (count > max_bucket_count) max_bucket_count = count;
    }
    printf("total hash buckets : %u\n", p_hash_table->total_hash_buckets);
    printf("max_bucket_count   : %u\n", max_bucket_count);
    printf("unused buckets     : %u\n", unused_buckets);
}
