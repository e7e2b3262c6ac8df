// A table's application metadata: typed blocks of bytes that applications
// attach to a table, staged and made durable with the rows' apply, commit
// and abort.  The store is an array of elements sorted by type; each element
// points at its applied (working) block and its committed block, which are
// one and the same allocation while the element is unchanged since the last
// commit.  A block is freed only when neither pointer of its element still
// refers to it.
#include <cstdlib>
#include <cstring>

#include "sr_i_application_metadata.h"
#include "sr_i_pool.h"

SR_SOURCE_FILE("sr/sr_i_application_metadata", "1.1");

namespace {

using element_t = sr_i_application_metadata_index_element_t;
using store_t = sr_i_application_metadata_t;

// A new block: the length word, then the bytes.  NULL when out of memory.
qx_binary_t *new_block(qx_uint32_t length, const char *p_data) {
    auto *p_block = static_cast<qx_binary_t *>(sr_i_malloc(QX_BINARY_SIZE(length)));
    if (p_block == nullptr) return nullptr;
    p_block->length = length;
    if (length != 0) memcpy(p_block->data, p_data, length);
    return p_block;
}

// The position of the first element whose type is not below `type` (a binary
// search: the store is sorted, and a table may carry very many elements).
qx_uint32_t lower_bound(const store_t *p_store, qx_uint32_t type) {
    qx_uint32_t low = 0;
    qx_uint32_t high = p_store->total_elements;
    while (low < high) {
        qx_uint32_t middle = low + (high - low) / 2;
        if (p_store->p_index[middle].type < type) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low;
}

// The element of `type`, or NULL.
element_t *find_element(store_t *p_store, qx_uint32_t type) {
    qx_uint32_t i = lower_bound(p_store, type);
    if (i < p_store->total_elements && p_store->p_index[i].type == type) {
        return &p_store->p_index[i];
    }
    return nullptr;
}

// Drops the elements whose `gone` pointer is NULL, keeping the order, in one
// pass (removing them one by one would make a large commit quadratic).
void remove_elements_without(store_t *p_store, qx_binary_t *element_t::*gone) {
    qx_uint32_t kept = 0;
    for (qx_uint32_t i = 0; i < p_store->total_elements; ++i) {
        if (p_store->p_index[i].*gone == nullptr) continue;
        if (kept != i) p_store->p_index[kept] = p_store->p_index[i];
        ++kept;
    }
    if (kept != p_store->total_elements) {
        memset(&p_store->p_index[kept], 0, sizeof(element_t) * (p_store->total_elements - kept));
    }
    p_store->total_elements = kept;
}

// The block a reader sees, or the code why there is none (reported).
qx_int32_t visible_block(store_t *p_store, qx_uint32_t type,
                         qx_uint32_t uncommitted_updates_visible, qx_binary_t **p_p_block,
                         const char *p_function, int line) {
    element_t *p = find_element(p_store, type);
    if (p == nullptr)
        return sr_i_set_error(sr_i_this_source, p_function, line, SR_E_NO_ROW_FOR_KEY);
    if (uncommitted_updates_visible != 0) {
        // Deleted pending commit.
        if (p->p_applied == nullptr)
            return sr_i_set_error(sr_i_this_source, p_function, line, SR_E_ROW_DELETED);
        *p_p_block = p->p_applied;
    } else {
        // Added since the last commit: it does not exist yet.
        if (p->p_committed == nullptr) {
            return sr_i_set_error(sr_i_this_source, p_function, line, SR_E_NO_ROW_FOR_KEY);
        }
        *p_p_block = p->p_committed;
    }
    return 0;
}

}  // namespace

qx_int32_t sr_i_allocate_application_metadata_buffer(
    qx_uint32_t max_elements, sr_i_application_metadata_t **p_application_metadata) {
    if (p_application_metadata == nullptr) return SR_ERROR(SR_E_NULL_POINTER);
    auto *p_store = static_cast<store_t *>(sr_i_calloc(1, sizeof(store_t)));
    if (p_store == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    if (max_elements != 0) {
        p_store->p_index = static_cast<element_t *>(sr_i_calloc(max_elements, sizeof(element_t)));
        if (p_store->p_index == nullptr) {
            free(p_store);
            return SR_ERROR(SR_E_NO_MEMORY);
        }
    }
    p_store->max_elements = max_elements;
    *p_application_metadata = p_store;
    return 0;
}

qx_int32_t sr_i_free_application_metadata(sr_i_application_metadata_t *p_application_metadata) {
    if (p_application_metadata == nullptr) return 0;
    for (qx_uint32_t i = 0; i < p_application_metadata->total_elements; ++i) {
        element_t *p = &p_application_metadata->p_index[i];
        if (p->p_committed != p->p_applied) free(p->p_committed);
        free(p->p_applied);
    }
    free(p_application_metadata->p_index);
    free(p_application_metadata);
    return 0;
}

qx_int32_t sr_i_add_application_metadata_element(
    sr_i_application_metadata_t *p_application_metadata, qx_uint32_t type, qx_uint32_t length,
    qx_char_ptr_t p_data) {
    store_t *p_store = p_application_metadata;
    if (p_store == nullptr || (p_data == nullptr && length != 0))
        return SR_ERROR(SR_E_NULL_POINTER);
    // The position after the last element with a smaller type.
    qx_uint32_t position = lower_bound(p_store, type);
    if (position < p_store->total_elements && p_store->p_index[position].type == type) {
        return SR_ERROR(SR_E_DUPLICATE_KEY);
    }
    qx_binary_t *p_block = new_block(length, p_data);
    if (p_block == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    if (p_store->total_elements == p_store->max_elements) {
        qx_uint32_t new_max = p_store->max_elements != 0 ? p_store->max_elements * 2 : 1;
        void *p_new = sr_i_realloc(p_store->p_index, sizeof(element_t) * new_max);
        if (p_new == nullptr) {
            free(p_block);
            return SR_ERROR(SR_E_NO_MEMORY);
        }
        p_store->p_index = static_cast<element_t *>(p_new);
        memset(&p_store->p_index[p_store->max_elements], 0,
               sizeof(element_t) * (new_max - p_store->max_elements));
        p_store->max_elements = new_max;
    }
    memmove(&p_store->p_index[position + 1], &p_store->p_index[position],
            sizeof(element_t) * (p_store->total_elements - position));
    p_store->p_index[position] = element_t{type, p_block, nullptr};
    ++p_store->total_elements;
    return 0;
}

qx_int32_t sr_i_delete_application_metadata_element(
    sr_i_application_metadata_t *p_application_metadata, qx_uint32_t type) {
    if (p_application_metadata == nullptr) return SR_ERROR(SR_E_NULL_POINTER);
    element_t *p = find_element(p_application_metadata, type);
    if (p == nullptr) return SR_ERROR(SR_E_NO_ROW_FOR_KEY);
    if (p->p_applied == nullptr) return 0;
    // The element stays until commit, which removes it.
    if (p->p_applied != p->p_committed) free(p->p_applied);
    p->p_applied = nullptr;
    return 0;
}

qx_int32_t sr_i_set_application_metadata_element(
    sr_i_application_metadata_t *p_application_metadata, qx_uint32_t type, qx_uint32_t length,
    qx_char_ptr_t p_data) {
    if (p_application_metadata == nullptr || (p_data == nullptr && length != 0)) {
        return SR_ERROR(SR_E_NULL_POINTER);
    }
    element_t *p = find_element(p_application_metadata, type);
    if (p == nullptr) return SR_ERROR(SR_E_NO_ROW_FOR_KEY);
    qx_binary_t *p_block = new_block(length, p_data);
    if (p_block == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    if (p->p_applied != nullptr && p->p_applied != p->p_committed) free(p->p_applied);
    p->p_applied = p_block;  // also brings back an element deleted pending commit
    return 0;
}

qx_int32_t sr_i_set_application_metadata(sr_i_application_metadata_t *p_application_metadata,
                                         qx_uint32_t type, qx_uint32_t length,
                                         qx_char_ptr_t p_data) {
    if (p_application_metadata == nullptr) return SR_ERROR(SR_E_NULL_POINTER);
    if (find_element(p_application_metadata, type) == nullptr) {
        return sr_i_add_application_metadata_element(p_application_metadata, type, length, p_data);
    }
    return sr_i_set_application_metadata_element(p_application_metadata, type, length, p_data);
}

qx_int32_t sr_i_set_application_metadata_v(sr_i_application_metadata_t *p_application_metadata,
                                           qx_uint32_t array_count, va_list ap) {
    va_list args;
    va_copy(args, ap);
    qx_int32_t rc = 0;
    for (qx_uint32_t i = 0; i < array_count && rc == 0; ++i) {
        qx_uint32_t type = va_arg(args, qx_uint32_t);
        qx_uint32_t length = va_arg(args, qx_uint32_t);
        qx_char_ptr_t p_data = va_arg(args, qx_char_ptr_t);
        rc = sr_i_set_application_metadata(p_application_metadata, type, length, p_data);
    }
    va_end(args);
    return rc;
}

qx_int32_t sr_i_get_application_metadata_element(
    sr_i_application_metadata_t *p_application_metadata, qx_uint32_t type,
    qx_uint32_t uncommitted_updates_visible, qx_uint32_t *p_length, qx_char_ptr_t *p_p_data) {
    if (p_application_metadata == nullptr || p_length == nullptr || p_p_data == nullptr) {
        return SR_ERROR(SR_E_NULL_POINTER);
    }
    qx_binary_t *p_block = nullptr;
    qx_int32_t rc = visible_block(p_application_metadata, type, uncommitted_updates_visible,
                                  &p_block, __func__, __LINE__);
    if (rc != 0) return rc;
    auto *p_copy = static_cast<char *>(sr_i_malloc(p_block->length));
    if (p_copy == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    if (p_block->length != 0) memcpy(p_copy, p_block->data, p_block->length);
    *p_length = p_block->length;
    *p_p_data = p_copy;
    return 0;
}

qx_int32_t sr_i_get_application_metadata(sr_i_application_metadata_t *p_application_metadata,
                                         qx_uint32_t uncommitted_updates_visible, qx_uint32_t type,
                                         qx_uint32_t *p_length, qx_char_ptr_t *p_p_data) {
    return sr_i_get_application_metadata_element(p_application_metadata, type,
                                                 uncommitted_updates_visible, p_length, p_p_data);
}

qx_int32_t sr_i_get_application_metadata_element_binary(
    sr_i_application_metadata_t *p_application_metadata, qx_uint32_t type,
    qx_uint32_t uncommitted_updates_visible, qx_binary_t **p_p_application_data) {
    if (p_application_metadata == nullptr || p_p_application_data == nullptr) {
        return SR_ERROR(SR_E_NULL_POINTER);
    }
    qx_binary_t *p_block = nullptr;
    qx_int32_t rc = visible_block(p_application_metadata, type, uncommitted_updates_visible,
                                  &p_block, __func__, __LINE__);
    if (rc != 0) return rc;
    qx_binary_t *p_copy = new_block(p_block->length, reinterpret_cast<char *>(p_block->data));
    if (p_copy == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    *p_p_application_data = p_copy;
    return 0;
}

qx_int32_t sr_i_commit_application_metadata_buffer_updates(
    sr_i_application_metadata_t *p_application_metadata) {
    store_t *p_store = p_application_metadata;
    if (p_store == nullptr) return 0;
    for (qx_uint32_t i = 0; i < p_store->total_elements; ++i) {
        element_t *p = &p_store->p_index[i];
        if (p->p_committed != nullptr && p->p_committed != p->p_applied) free(p->p_committed);
        p->p_committed = p->p_applied;
    }
    remove_elements_without(p_store, &element_t::p_applied);  // deleted ones
    return 0;
}

qx_int32_t sr_i_abort_application_metadata_buffer_updates(
    sr_i_application_metadata_t *p_application_metadata) {
    store_t *p_store = p_application_metadata;
    if (p_store == nullptr) return 0;
    for (qx_uint32_t i = 0; i < p_store->total_elements; ++i) {
        element_t *p = &p_store->p_index[i];
        if (p->p_applied != nullptr && p->p_applied != p->p_committed) free(p->p_applied);
        p->p_applied = p->p_committed;
    }
    remove_elements_without(p_store, &element_t::p_committed);  // only added
    return 0;
}

qx_int32_t sr_i_duplicate_application_metadata_buffer(
    sr_i_application_metadata_t *p_from_application_metadata,
    sr_i_application_metadata_t **p_p_to_application_metadata) {
    if (p_from_application_metadata == nullptr || p_p_to_application_metadata == nullptr) {
        return SR_ERROR(SR_E_NULL_POINTER);
    }
    store_t *p_copy = nullptr;
    qx_int32_t rc = sr_i_allocate_application_metadata_buffer(
        p_from_application_metadata->max_elements, &p_copy);
    if (rc != 0) return rc;
    // A table is copied only when it has nothing pending, so the committed
    // blocks are the whole state; an element without one does not exist yet.
    for (qx_uint32_t i = 0; i < p_from_application_metadata->total_elements; ++i) {
        const element_t *p = &p_from_application_metadata->p_index[i];
        if (p->p_committed == nullptr) continue;
        rc = sr_i_add_application_metadata_element(p_copy, p->type, p->p_committed->length,
                                                   reinterpret_cast<char *>(p->p_committed->data));
        if (rc != 0) {
            sr_i_free_application_metadata(p_copy);
            return rc;
        }
    }
    sr_i_commit_application_metadata_buffer_updates(p_copy);
    *p_p_to_application_metadata = p_copy;
    return 0;
}
