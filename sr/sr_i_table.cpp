// The table record's row index: the fixed index that gives every row a slot
// number for life, its free chain, growth by doubling, the dense packed index
// of live rows, the row-state rule, and the small path and block helpers of a
// table record.  Everything here runs under the table's write lock, taken by
// the exported call; nothing locks by itself.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "sr_i_hash_table.h"
#include "sr_i_pool.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_i_table", "1.1");

namespace {

// Slots of an index established with 0.
constexpr qx_uint32_t kDefaultRows = 10;
// Fewest slots of a table read from its file.
constexpr qx_uint32_t kLoadedRows = 100;

// Which slots are on the free chain, as a tree of bit words kept behind the
// fixed index in the same block (so whoever frees the index frees it too).
// Level 0 has a bit per slot, each next level a bit per non-zero word of the
// level below; the last level is one word.  It answers "the highest free slot
// below this one" in a few word reads, which makes inserting into the
// address-ordered chain cheap however long the chain is.  The tree remembers
// the chain head it was last in step with: a chain reset from outside (a
// table rebuilt by copying) is noticed there and the tree is rebuilt once.
constexpr qx_uint32_t kMaxLevels = 8;

struct FreeSlotTree {
    sr_i_index_entry_t *p_head;  // chain head the bits agree with
    qx_uint32_t valid;
    qx_uint32_t slots;
    qx_uint32_t levels;
    qx_uint32_t level_offset[kMaxLevels];  // first word of each level
    // qx_uint32_t words[] follow
};

qx_uint32_t words_for(qx_uint32_t count) {
    return (count + 31) / 32;
}

// Bytes the tree needs behind an index of `slots` entries.
size_t tree_bytes(qx_uint32_t slots) {
    size_t words = 0;
    qx_uint32_t count = slots;
    for (qx_uint32_t l = 0; l < kMaxLevels; ++l) {
        count = words_for(count);
        words += count;
        if (count <= 1) break;
    }
    return sizeof(FreeSlotTree) + words * sizeof(qx_uint32_t) + sizeof(qx_uint32_t);
}

size_t index_bytes(qx_uint32_t slots) {
    return sizeof(sr_i_index_entry_t) * static_cast<size_t>(slots) + tree_bytes(slots);
}

FreeSlotTree *tree_of(const sr_i_table_t *p_table) {
    if (p_table->p_rows_fixed_index == nullptr) return nullptr;
    return reinterpret_cast<FreeSlotTree *>(p_table->p_rows_fixed_index + p_table->maximum_rows);
}

qx_uint32_t *tree_words(FreeSlotTree *p_tree) {
    return reinterpret_cast<qx_uint32_t *>(p_tree + 1);
}

void tree_set(FreeSlotTree *p_tree, qx_uint32_t i) {
    qx_uint32_t *p_words = tree_words(p_tree);
    for (qx_uint32_t l = 0; l < p_tree->levels; ++l) {
        qx_uint32_t &word = p_words[p_tree->level_offset[l] + i / 32];
        bool was_empty = word == 0;
        word |= 1u << (i % 32);
        if (!was_empty) return;
        i /= 32;
    }
}

void tree_clear(FreeSlotTree *p_tree, qx_uint32_t i) {
    qx_uint32_t *p_words = tree_words(p_tree);
    for (qx_uint32_t l = 0; l < p_tree->levels; ++l) {
        qx_uint32_t &word = p_words[p_tree->level_offset[l] + i / 32];
        word &= ~(1u << (i % 32));
        if (word != 0) return;
        i /= 32;
    }
}

bool tree_test(FreeSlotTree *p_tree, qx_uint32_t i) {
    return (tree_words(p_tree)[p_tree->level_offset[0] + i / 32] >> (i % 32) & 1u) != 0;
}

int highest_bit(qx_uint32_t word) {
    return 31 - __builtin_clz(word);
}

// The highest set position below i on level l, or -1.
qx_int64_t tree_below(FreeSlotTree *p_tree, qx_uint32_t l, qx_uint32_t i) {
    if (l >= p_tree->levels) return -1;
    qx_uint32_t *p_words = tree_words(p_tree) + p_tree->level_offset[l];
    qx_uint32_t w = i / 32;
    qx_uint32_t below = p_words[w] & ((1u << (i % 32)) - 1u);
    if (below != 0) return static_cast<qx_int64_t>(w) * 32 + highest_bit(below);
    if (w == 0) return -1;
    qx_int64_t j = tree_below(p_tree, l + 1, w);
    if (j < 0) return -1;
    return j * 32 + highest_bit(p_words[j]);
}

// Lays the tree out for the table's current size and fills it from the chain.
void tree_rebuild(sr_i_table_t *p_table) {
    FreeSlotTree *p_tree = tree_of(p_table);
    if (p_tree == nullptr) return;
    p_tree->slots = p_table->maximum_rows;
    qx_uint32_t offset = 0;
    qx_uint32_t count = p_table->maximum_rows;
    p_tree->levels = 0;
    for (qx_uint32_t l = 0; l < kMaxLevels; ++l) {
        count = words_for(count);
        p_tree->level_offset[l] = offset;
        offset += count;
        ++p_tree->levels;
        if (count <= 1) break;
    }
    memset(tree_words(p_tree), 0, sizeof(qx_uint32_t) * (offset + 1));
    sr_i_index_entry_t *p_base = p_table->p_rows_fixed_index;
    for (sr_i_index_entry_t *p = p_table->p_rows_free_chain; p != nullptr;
         p = static_cast<sr_i_index_entry_t *>(p->p_pending_change)) {
        if (p < p_base || p >= p_base + p_table->maximum_rows) {
            p_tree->valid = 0;  // not this index's slots: stay with the walk
            return;
        }
        tree_set(p_tree, static_cast<qx_uint32_t>(p - p_base));
    }
    p_tree->p_head = p_table->p_rows_free_chain;
    p_tree->valid = 1;
}

// The tree, in step with the chain, or null when it cannot be.
FreeSlotTree *current_tree(sr_i_table_t *p_table) {
    FreeSlotTree *p_tree = tree_of(p_table);
    if (p_tree == nullptr) return nullptr;
    if (p_tree->valid != 1 || p_tree->p_head != p_table->p_rows_free_chain ||
        p_tree->slots != p_table->maximum_rows) {
        tree_rebuild(p_table);
    }
    return p_tree->valid == 1 ? p_tree : nullptr;
}

// Chains slots [first, first + count) into one ascending free chain, all
// zero apart from their links, and makes it the table's whole chain.
void chain_new_slots(sr_i_table_t *p_table, qx_uint32_t first, qx_uint32_t count) {
    sr_i_index_entry_t *p_slots = p_table->p_rows_fixed_index + first;
    memset(static_cast<void *>(p_slots), 0, sizeof(sr_i_index_entry_t) * count);
    for (qx_uint32_t i = 0; i + 1 < count; ++i) p_slots[i].p_pending_change = &p_slots[i + 1];
    p_table->p_rows_free_chain = count != 0 ? p_slots : nullptr;
    tree_rebuild(p_table);
}

// Re-aims every change entry of a list at the same slot of a moved index.
void rebase_change_list(sr_i_change_entry_t *p_list, uintptr_t old_base,
                        sr_i_index_entry_t *p_new_base) {
    for (sr_i_change_entry_t *p = p_list; p != nullptr; p = p->p_next) {
        // The old index is gone: only its address is used, as a number.
        uintptr_t old_address = reinterpret_cast<uintptr_t>(p->p_index_entry);
        size_t slot = (old_address - old_base) / sizeof(sr_i_index_entry_t);
        p->p_index_entry = p_new_base + slot;
    }
}

}  // namespace

bool sr_i_is_pointer_type(qx_data_type_t type) {
    if (type < 0 || type >= QX_NUMBER_OF_DATA_TYPES) return false;
    return (cu_dtc_table_1[type].dtc_flags & CU_DTC_POINTER) != 0;
}

char *sr_i_row_key_value(const sr_i_table_t *p_table, char *p_record_data) {
    if (!sr_i_is_pointer_type(p_table->p_columns[0].type)) return sr_i_row_slot(p_record_data, 0);
    qx_uint32_t offset;
    memcpy(&offset, sr_i_row_slot(p_record_data, 0), sizeof offset);
    return sr_i_row_indirect_area(p_record_data, p_table->total_columns) + offset;
}

qx_int32_t sr_i_establish_rows_index(sr_i_table_t *p_table, qx_uint32_t maximum_rows) {
    if (maximum_rows == 0) maximum_rows = kDefaultRows;
    auto *p_packed = static_cast<qx_uint32_t *>(sr_i_calloc(maximum_rows, sizeof(qx_uint32_t)));
    if (p_packed == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    auto *p_fixed = static_cast<sr_i_index_entry_t *>(sr_i_malloc(index_bytes(maximum_rows)));
    if (p_fixed == nullptr) {
        free(p_packed);
        return SR_ERROR(SR_E_NO_MEMORY);
    }
    p_table->p_rows_packed_index = p_packed;
    p_table->p_rows_fixed_index = p_fixed;
    p_table->maximum_rows = maximum_rows;
    chain_new_slots(p_table, 0, maximum_rows);
    return 0;
}

qx_int32_t sr_i_reserve_rows_index(sr_i_table_t *p_table, qx_uint32_t capacity) {
    if (capacity == 0) capacity = 1;
    // Only the free-slot tree is set up: the loader writes every slot it
    // hands out, and the rest is laid out once the count is known.
    auto *p_fixed = static_cast<sr_i_index_entry_t *>(sr_i_malloc(index_bytes(capacity)));
    if (p_fixed == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    p_table->p_rows_fixed_index = p_fixed;
    p_table->maximum_rows = capacity;
    p_table->p_rows_free_chain = nullptr;
    tree_rebuild(p_table);
    return 0;
}

qx_int32_t sr_i_complete_rows_index(sr_i_table_t *p_table, qx_uint32_t used) {
    // Room for an eighth more rows before the index first doubles.
    qx_uint64_t wanted = static_cast<qx_uint64_t>(used) + used / 8;
    if (wanted < kLoadedRows) wanted = kLoadedRows;
    if (wanted > UINT32_MAX) wanted = UINT32_MAX;
    const qx_uint32_t n = static_cast<qx_uint32_t>(wanted);
    // Not zeroed here: the live part is written below, the rest zeroed then.
    auto *p_packed = static_cast<qx_uint32_t *>(sr_i_malloc(sizeof(qx_uint32_t) * n));
    if (p_packed == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    // The reserved block is kept as it is when the index fits (it was sized
    // for every row record the file could hold: handing its unused end back
    // would only make the next reserve fresh memory); a small one grows,
    // and the slots freed during the load, chained by address, follow it.
    sr_i_index_entry_t *p_base = p_table->p_rows_fixed_index;
    if (n > p_table->maximum_rows) {
        uintptr_t old_base = reinterpret_cast<uintptr_t>(p_base);
        void *p_fixed = sr_i_realloc(p_base, index_bytes(n));
        if (p_fixed == nullptr) {
            free(p_packed);
            return SR_ERROR(SR_E_NO_MEMORY);
        }
        p_base = static_cast<sr_i_index_entry_t *>(p_fixed);
        p_table->p_rows_fixed_index = p_base;
        auto moved = [&](void *p_old) {
            size_t slot =
                (reinterpret_cast<uintptr_t>(p_old) - old_base) / sizeof(sr_i_index_entry_t);
            return p_base + slot;
        };
        if (p_table->p_rows_free_chain != nullptr) {
            p_table->p_rows_free_chain = moved(p_table->p_rows_free_chain);
            for (sr_i_index_entry_t *p = p_table->p_rows_free_chain; p->p_pending_change != nullptr;
                 p = static_cast<sr_i_index_entry_t *>(p->p_pending_change)) {
                p->p_pending_change = moved(p->p_pending_change);
            }
        }
    }
    free(p_table->p_rows_packed_index);
    p_table->p_rows_packed_index = p_packed;
    p_table->maximum_rows = n;
    // Live slots in fixed index order.  When none was freed they are the
    // slots handed out, each already holding its own number.
    qx_uint32_t seen = used;
    if (p_table->total_applied_rows == used) {
        for (qx_uint32_t f = 0; f < used; ++f) p_packed[f] = f;
    } else {
        seen = 0;
        for (qx_uint32_t f = 0; f < used; ++f) {
            if (p_base[f].p_committed == nullptr) continue;
            p_packed[seen] = f;
            p_base[f].packed_index = seen++;
        }
    }
    memset(p_packed + seen, 0, sizeof(qx_uint32_t) * (n - seen));
    // The slots past the last one used join the end of the free chain.
    sr_i_index_entry_t *p_last = p_table->p_rows_free_chain;
    while (p_last != nullptr && p_last->p_pending_change != nullptr) {
        p_last = static_cast<sr_i_index_entry_t *>(p_last->p_pending_change);
    }
    sr_i_index_entry_t *p_rest = p_base + used;
    const qx_uint32_t rest = n - used;
    memset(static_cast<void *>(p_rest), 0, sizeof(sr_i_index_entry_t) * rest);
    for (qx_uint32_t i = 0; i + 1 < rest; ++i) p_rest[i].p_pending_change = &p_rest[i + 1];
    if (rest != 0) {
        if (p_last == nullptr) {
            p_table->p_rows_free_chain = p_rest;
        } else {
            p_last->p_pending_change = p_rest;
        }
    }
    tree_rebuild(p_table);
    return 0;
}

qx_int32_t sr_i_grow_index(sr_i_table_t *p_table, qx_uint32_t total_new_rows) {
    // Growing by nothing would hand the caller an empty chain again.
    if (total_new_rows == 0) total_new_rows = kDefaultRows;
    qx_uint64_t wanted = static_cast<qx_uint64_t>(p_table->maximum_rows) + total_new_rows;
    if (wanted > UINT32_MAX) return SR_ERROR(SR_E_NO_MEMORY);
    qx_uint32_t n = static_cast<qx_uint32_t>(wanted);

    // The packed index first: if the fixed index then cannot grow, the table
    // keeps working with a packed index that is merely larger than needed.
    void *p_packed = sr_i_realloc(p_table->p_rows_packed_index, sizeof(qx_uint32_t) * n);
    if (p_packed == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    p_table->p_rows_packed_index = static_cast<qx_uint32_t *>(p_packed);

    uintptr_t old_base = reinterpret_cast<uintptr_t>(p_table->p_rows_fixed_index);
    void *p_fixed = sr_i_realloc(p_table->p_rows_fixed_index, index_bytes(n));
    if (p_fixed == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    p_table->p_rows_fixed_index = static_cast<sr_i_index_entry_t *>(p_fixed);

    qx_uint32_t first_new = p_table->maximum_rows;
    memset(p_table->p_rows_packed_index + first_new, 0, sizeof(qx_uint32_t) * (n - first_new));
    p_table->maximum_rows = n;
    // Growing happens only when the chain is empty, so the new slots are
    // the whole chain.
    chain_new_slots(p_table, first_new, n - first_new);

    // Pending changes point at slots; hash elements hold slot numbers and
    // need nothing.
    if (reinterpret_cast<uintptr_t>(p_fixed) != old_base && old_base != 0) {
        rebase_change_list(p_table->p_rows_change_list, old_base, p_table->p_rows_fixed_index);
        rebase_change_list(p_table->p_delete_rows_change_list, old_base,
                           p_table->p_rows_fixed_index);
    }
    return 0;
}

void sr_i_rows_free_chain_insert(sr_i_table_t *p_table, sr_i_index_entry_t *p_new_entry) {
    // Slots are one array, so address order is fixed-index order.
    sr_i_index_entry_t *p_base = p_table->p_rows_fixed_index;
    FreeSlotTree *p_tree = current_tree(p_table);
    if (p_tree != nullptr && p_new_entry >= p_base &&
        p_new_entry < p_base + p_table->maximum_rows) {
        qx_uint32_t slot = static_cast<qx_uint32_t>(p_new_entry - p_base);
        if (tree_test(p_tree, slot)) return;  // already free: keep its link
        qx_int64_t below = tree_below(p_tree, 0, slot);
        sr_i_index_entry_t *p_previous = below < 0 ? nullptr : p_base + below;
        sr_i_index_entry_t *p_next =
            p_previous == nullptr ? p_table->p_rows_free_chain
                                  : static_cast<sr_i_index_entry_t *>(p_previous->p_pending_change);
        memset(static_cast<void *>(p_new_entry), 0, sizeof *p_new_entry);
        p_new_entry->p_pending_change = p_next;
        if (p_previous == nullptr) {
            p_table->p_rows_free_chain = p_new_entry;
        } else {
            p_previous->p_pending_change = p_new_entry;
        }
        tree_set(p_tree, slot);
        p_tree->p_head = p_table->p_rows_free_chain;
        return;
    }
    sr_i_index_entry_t *p_previous = nullptr;
    sr_i_index_entry_t *p_next = p_table->p_rows_free_chain;
    while (p_next != nullptr && p_next < p_new_entry) {
        p_previous = p_next;
        p_next = static_cast<sr_i_index_entry_t *>(p_next->p_pending_change);
    }
    if (p_next == p_new_entry) return;  // already free: keep its link
    memset(static_cast<void *>(p_new_entry), 0, sizeof *p_new_entry);
    p_new_entry->p_pending_change = p_next;
    if (p_previous == nullptr) {
        p_table->p_rows_free_chain = p_new_entry;
    } else {
        p_previous->p_pending_change = p_new_entry;
    }
}

sr_i_index_entry_t *sr_i_rows_free_chain_remove(sr_i_table_t *p_table) {
    sr_i_index_entry_t *p_entry = p_table->p_rows_free_chain;
    if (p_entry == nullptr) return nullptr;
    FreeSlotTree *p_tree = current_tree(p_table);
    p_table->p_rows_free_chain = static_cast<sr_i_index_entry_t *>(p_entry->p_pending_change);
    p_entry->p_pending_change = nullptr;
    if (p_tree != nullptr) {
        tree_clear(p_tree, static_cast<qx_uint32_t>(p_entry - p_table->p_rows_fixed_index));
        p_tree->p_head = p_table->p_rows_free_chain;
    }
    return p_entry;
}

namespace {

// How far ahead of the row it links, or of the pair it compares, the index
// build fetches what that row or pair will need.
constexpr qx_uint32_t kBuildAhead = 16;

// Two rows whose keys share a bucket: the later one and the bucket's head
// when it was linked, which leads to every earlier row of the bucket.
struct shared_bucket_t {
    const sr_hash_table_element_t *p_later;
    const sr_hash_table_element_t *p_earlier;
};

// The list of such pairs, freed with the build.
struct shared_buckets_t {
    shared_bucket_t *p_pairs = nullptr;
    qx_uint32_t total = 0;
    qx_uint32_t room = 0;
    shared_buckets_t() = default;
    shared_buckets_t(const shared_buckets_t &) = delete;
    shared_buckets_t &operator=(const shared_buckets_t &) = delete;
    ~shared_buckets_t() { free(p_pairs); }
    // False when short of memory.
    bool push(const sr_hash_table_element_t *p_later, const sr_hash_table_element_t *p_earlier) {
        if (total == room) {
            const qx_uint32_t grown = room == 0 ? 1024 : 2 * room;
            auto *p_grown = static_cast<shared_bucket_t *>(
                sr_i_realloc(p_pairs, sizeof(shared_bucket_t) * grown));
            if (p_grown == nullptr) return false;
            p_pairs = p_grown;
            room = grown;
        }
        p_pairs[total++] = {p_later, p_earlier};
        return true;
    }
};

// The key index of `seen` live rows into an index that holds nothing yet,
// each row's bucket already in its slot.  Rows are linked in fixed index
// order, so every chain comes out as single adds in that order leave it;
// the bucket of the row kBuildAhead places on is fetched while this one is
// linked.  Single adds would compare a checked key with its bucket at once,
// a chain of cache misses per row (head element, then its key); here the
// rows that met an earlier one in their bucket are listed and compared
// afterwards, the list telling the elements and keys to fetch ahead.
// Returns 0, 12, or SR_E_DUPLICATE_KEY unreported when two rows share a
// checked key: single adds must then give their own result.
qx_int32_t build_key_index(sr_i_table_t *p_table, qx_uint32_t seen, bool checked) {
    sr_hash_table_t *const p_hash_table = p_table->p_rows_hash_table;
    sr_i_index_entry_t *const p_slots = p_table->p_rows_fixed_index;
    const qx_uint32_t *const p_live = p_table->p_rows_packed_index;
    if (sr_i_hash_table_reserve(p_hash_table, seen) != 0) return SR_ERROR(SR_E_NO_MEMORY);
    shared_buckets_t shared;
    for (qx_uint32_t i = 0; i < seen; ++i) {
        if (i + kBuildAhead < seen) {
            __builtin_prefetch(
                &p_hash_table->p_elements[p_slots[p_live[i + kBuildAhead]].hash_index], 1);
        }
        sr_i_index_entry_t &slot = p_slots[p_live[i]];
        const sr_hash_table_element_t *p_head = p_hash_table->p_elements[slot.hash_index];
        slot.p_hash_table_element =
            sr_i_hash_table_link(p_hash_table, sr_i_row_key_value(p_table, slot.p_committed),
                                 p_live[i], slot.hash_index);
        if (slot.p_hash_table_element == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
        if (checked && p_head != nullptr && !shared.push(slot.p_hash_table_element, p_head)) {
            return SR_ERROR(SR_E_NO_MEMORY);
        }
    }
    const shared_bucket_t *const p_pairs = shared.p_pairs;
    for (qx_uint32_t k = 0; k < shared.total; ++k) {
        if (k + 2 * kBuildAhead < shared.total) {
            __builtin_prefetch(p_pairs[k + 2 * kBuildAhead].p_earlier);
        }
        if (k + kBuildAhead < shared.total) {
            __builtin_prefetch(p_pairs[k + kBuildAhead].p_later->p_key_value);
            __builtin_prefetch(p_pairs[k + kBuildAhead].p_earlier->p_key_value);
        }
        const sr_hash_table_element_t *p_later = p_pairs[k].p_later;
        for (const sr_hash_table_element_t *p = p_pairs[k].p_earlier; p != nullptr; p = p->p_next) {
            if (sr_i_hash_table_keys_equal(p_hash_table, p_later->p_key_value, p->p_key_value)) {
                return SR_E_DUPLICATE_KEY;
            }
        }
    }
    return 0;
}

}  // namespace

qx_int32_t sr_i_establish_secondary_row_access(sr_i_table_t *p_table) {
    sr_hash_table_t *const p_hash_table = p_table->p_rows_hash_table;
    // An index that holds nothing yet (a table being opened or copied) is
    // built at once, unless a hash falls outside it.
    bool at_once = p_hash_table != nullptr && p_hash_table->p_slabs == nullptr;
    qx_uint32_t seen = 0;
    for (qx_uint32_t f = 0; f < p_table->maximum_rows && seen < p_table->total_committed_rows;
         ++f) {
        sr_i_index_entry_t *p_entry = &p_table->p_rows_fixed_index[f];
        if (p_entry->p_committed == nullptr) continue;
        p_table->p_rows_packed_index[seen] = f;
        p_entry->packed_index = seen;
        ++seen;
        if (at_once) {
            at_once = sr_i_hash_table_bucket(p_hash_table,
                                             sr_i_row_key_value(p_table, p_entry->p_committed),
                                             &p_entry->hash_index);
        }
    }
    if (p_hash_table == nullptr) return 0;
    const qx_uint32_t key_qualifier = p_table->p_columns[0].qualifier;
    if (at_once) {
        const bool checked = (key_qualifier & SR_QUALIFIER_BASE_MASK) == SR_PRIMARY_KEY;
        const qx_int32_t rc = build_key_index(p_table, seen, checked);
        if (rc != SR_E_DUPLICATE_KEY) return rc;
        sr_i_hash_table_clear(p_hash_table);
    }
    // One add per live row in fixed index order, whose first failure is the
    // result.
    for (qx_uint32_t i = 0; i < seen; ++i) {
        const qx_uint32_t f = p_table->p_rows_packed_index[i];
        sr_i_index_entry_t *p_entry = &p_table->p_rows_fixed_index[f];
        qx_int32_t rc = sr_i_hash_table_add(
            p_hash_table, sr_i_row_key_value(p_table, p_entry->p_committed), f,
            &p_entry->hash_index, &p_entry->p_hash_table_element, key_qualifier);
        if (rc != 0) return rc;
    }
    return 0;
}

void sr_i_remove_row_from_packed_index(sr_i_table_t *p_table, sr_i_index_entry_t *p_index_entry) {
    qx_uint32_t freed_position = p_index_entry->packed_index;
    if (p_table->total_applied_rows != 0) {
        qx_uint32_t last_fixed = p_table->p_rows_packed_index[p_table->total_applied_rows - 1];
        p_table->p_rows_packed_index[freed_position] = last_fixed;
        p_table->p_rows_fixed_index[last_fixed].packed_index = freed_position;
        --p_table->total_applied_rows;
    }
    sr_i_rows_free_chain_insert(p_table, p_index_entry);
}

// A slab of change entries: this header, then `capacity` entries.
struct sr_i_change_slab_struct {
    sr_i_change_slab_struct *p_older;
    qx_uint32_t used;
    qx_uint32_t capacity;
};

namespace {

// The first slab holds a few entries, enough for the usual single-row
// transaction; each next one twice as many as the last, up to 64 KiB.
constexpr qx_uint32_t kFirstChangeSlabEntries = 16;
constexpr qx_uint32_t kLargestChangeSlabEntries = 2048;

sr_i_change_entry_t *slab_entries(sr_i_change_slab_struct *p_slab) {
    return reinterpret_cast<sr_i_change_entry_t *>(p_slab + 1);
}

}  // namespace

sr_i_change_entry_t *sr_i_new_change_entry(sr_i_table_t *p_table) {
    sr_i_change_slab_struct *p_slab = p_table->p_change_slabs;
    if (p_slab == nullptr || p_slab->used == p_slab->capacity) {
        qx_uint32_t capacity = p_slab == nullptr ? kFirstChangeSlabEntries
                               : p_slab->capacity < kLargestChangeSlabEntries
                                   ? 2 * p_slab->capacity
                                   : kLargestChangeSlabEntries;
        auto *p_new = static_cast<sr_i_change_slab_struct *>(
            sr_i_malloc(sizeof(sr_i_change_slab_struct) + sizeof(sr_i_change_entry_t) * capacity));
        if (p_new == nullptr) return nullptr;
        p_new->p_older = p_slab;
        p_new->used = 0;
        p_new->capacity = capacity;
        p_table->p_change_slabs = p_new;
        p_slab = p_new;
    }
    return &slab_entries(p_slab)[p_slab->used++];
}

void sr_i_free_change_lists(sr_i_table_t *p_table) {
    // The lists hold nothing but slab entries: the slabs go as a whole.
    sr_i_change_slab_struct *p_slab = p_table->p_change_slabs;
    while (p_slab != nullptr && p_slab->p_older != nullptr) {
        sr_i_change_slab_struct *p_older = p_slab->p_older;
        free(p_slab);
        p_slab = p_older;
    }
    if (p_slab != nullptr) p_slab->used = 0;
    p_table->p_change_slabs = p_slab;
    p_table->p_rows_change_list = nullptr;
    p_table->p_rows_change_list_tail = nullptr;
    p_table->p_delete_rows_change_list = nullptr;
    p_table->p_delete_rows_change_list_tail = nullptr;
}

void sr_i_release_change_slabs(sr_i_table_t *p_table) {
    sr_i_free_change_lists(p_table);
    free(p_table->p_change_slabs);
    p_table->p_change_slabs = nullptr;
}

// One buffer holds "<file>.rewrite"; the byte after the file name is either
// the NUL that ends the data name or the '.' that starts the suffix.
char *sr_i_set_data_path(sr_i_table_t *p_table) {
    p_table->p_file_path[p_table->file_path_length] = '\0';
    return p_table->p_file_path;
}

char *sr_i_set_rewrite_path(sr_i_table_t *p_table) {
    p_table->p_file_path[p_table->file_path_length] = '.';
    return p_table->p_file_path;
}

qx_uint32_t sr_i_record_contained_in_block(sr_i_table_t *p_table, qx_uint32_t offset,
                                           qx_uint32_t length, qx_uint32_t *block_id) {
    // A transient table has no blocks: every record is within "its" block.
    if (p_table->block_size == 0) {
        *block_id = 0;
        return 1;
    }
    *block_id = offset / p_table->block_size;
    qx_uint64_t end = static_cast<qx_uint64_t>(offset) + length;
    return end / p_table->block_size == *block_id ? 1 : 0;
}

sr_row_state_t sr_i_get_row_state_for_fixed_index(sr_i_table_t *p_table,
                                                  qx_uint32_t fixed_row_index) {
    if (fixed_row_index >= p_table->maximum_rows) return SR_ROW_STATE_NO_ROW;
    const sr_i_index_entry_t &entry = p_table->p_rows_fixed_index[fixed_row_index];
    if (entry.p_applied == nullptr) {
        return entry.p_committed == nullptr ? SR_ROW_STATE_NO_ROW : SR_ROW_STATE_DELETED;
    }
    if (entry.p_committed == nullptr) return SR_ROW_STATE_ADDED;
    return entry.p_applied == entry.p_committed ? SR_ROW_STATE_COMMITTED : SR_ROW_STATE_UPDATED;
}
