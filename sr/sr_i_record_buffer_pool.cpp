// The record buffer pool: each table's arena of variable-length records.
//
// A pool is a chain of large heap buffers carved into records that each start
// with a 12-byte header (length, link, type).  The same header is the record
// header of the table file, so a record goes to the file straight from the
// pool and a file image read into the pool is already a run of pool records.
// Free records form one chain in ascending address order; freeing merges a
// record with free neighbours, finding room is first fit over the chain.
//
// The numbers are exact because apply decides on a rewrite from used_bytes
// and the dumps print them: a buffer is counted as 8 header bytes plus its
// records, used_bytes counts every buffer header, every record header (free
// or not) and the data of every allocated record.
//
// Links.  The link word of a record header is 32 bits and lands in the file
// as it stands, so it cannot carry an address.  A free record's link holds
// the block offset of the next free record of the same buffer (0 after the
// last), and each buffer's header holds the offsets of its first and last
// free record; the chain continues in the next buffer by address, found in
// the pool's buffer directory (kept by the first buffer).  Walking the chain
// this way visits free records in exactly the ascending address order a
// single linked chain would.  Because a buffer knows its last free record, a
// record that is the last free one of its buffer never has its link word
// read: that is what keeps a link read from a file image (the room a file is
// read into is the only free record of a fresh buffer) out of the chain.
//
// First fit walks the chain from its head, and a pool of many buffers holds
// a small leftover in nearly every one of them.  The directory therefore also
// keeps, per buffer, a bound on its longest free record (raised when a record
// is freed into it, lowered to the exact value when a walk finds nothing
// there), so the walk passes over buffers that cannot serve the request by
// reading the directory alone; a bound over each group of 64 directory
// slots lets it pass over whole groups.  The record chosen is the same: the
// first in address order that is large enough.
//
// Freeing inserts into the chain by address, so it needs the free record
// just below the one freed.  Records freed in a scrambled order (the old
// versions of rows a commit replaces or deletes) would make that a walk of
// the buffer's chain per record; a large buffer therefore gets, when such a
// walk is first needed, a free-record index: per 256-byte block of the
// buffer the offset of the highest free record starting in it, and a tree
// of bit words over the blocks that have one.  The record below is then the
// highest of the nearest block below with one, followed along the chain
// through at most one block.  The index only answers; the chain stays what
// the dumps and the file see.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "sr_i_pool.h"

SR_SOURCE_FILE("sr/sr_i_record_buffer_pool", "1.1");

namespace {

constexpr qx_uint32_t kHeader = SR_I_RECORD_HEADER_LENGTH;               // 12
constexpr qx_uint32_t kBufferHeader = SR_I_RECORD_BUFFER_HEADER_LENGTH;  // 8
// A request up to this many bytes gets a buffer a hundred times its size.
constexpr qx_uint32_t kLargestMultipliedRequest = 65535;
constexpr qx_uint32_t kBufferMultiplier = 100;
// A free record left over by a split must have more than this many bytes;
// a smaller leftover stays with the allocated record as slack.
constexpr qx_uint32_t kLargestSlack = 13;
constexpr qx_uint32_t kInitialDirectory = 8;

using buffer_t = sr_i_record_buffer_t;

inline uintptr_t addr(const void *p) {
    return reinterpret_cast<uintptr_t>(p);
}

inline char *record_at(buffer_t *p_buffer, qx_uint32_t block_offset) {
    return sr_i_rb_buffer_data(p_buffer) + (block_offset - kBufferHeader);
}

inline qx_uint32_t block_offset_of(buffer_t *p_buffer, const char *p_record) {
    return static_cast<qx_uint32_t>(addr(p_record) - addr(sr_i_rb_buffer_data(p_buffer))) +
           kBufferHeader;
}

inline buffer_t *directory_owner(const sr_i_record_buffer_pool_t *p_pool) {
    return p_pool->p_first_record_buffer;
}

constexpr qx_int64_t kGroup = SR_I_RECORD_BUFFER_GROUP;

// Position in the directory of the buffer holding p_address, or -1.
qx_int64_t directory_index_of(const sr_i_record_buffer_pool_t *p_pool, const char *p_address) {
    buffer_t *p_owner = directory_owner(p_pool);
    if (p_owner == nullptr || p_address == nullptr) return -1;
    sr_i_record_buffer_slot_t *p_directory = p_owner->p_directory;
    qx_int64_t low = 0;
    qx_int64_t high = static_cast<qx_int64_t>(p_owner->total_directory) - 1;
    uintptr_t a = addr(p_address);
    // The buffer first fit chose last is the likely one: rows are added
    // into it one after another.
    if (p_pool->fit_index <= high) {
        buffer_t *p_buffer = p_directory[p_pool->fit_index].p_buffer;
        if (a >= addr(sr_i_rb_buffer_data(p_buffer)) && a < addr(sr_i_rb_buffer_end(p_buffer))) {
            return p_pool->fit_index;
        }
    }
    while (low <= high) {
        qx_int64_t middle = low + (high - low) / 2;
        buffer_t *p_buffer = p_directory[middle].p_buffer;
        if (a < addr(sr_i_rb_buffer_data(p_buffer))) {
            high = middle - 1;
        } else if (a >= addr(sr_i_rb_buffer_end(p_buffer))) {
            low = middle + 1;
        } else {
            return middle;
        }
    }
    return -1;
}

// The last free record of the nearest buffer below directory position index
// that has one, or NULL: the predecessor on the chain of a buffer's first
// free record.
// Full buffers are passed over by the directory's bounds alone (a bound of 0
// means no free record), whole groups at a time, without touching them.
char *last_free_record_before(const sr_i_record_buffer_pool_t *p_pool, qx_int64_t index) {
    sr_i_record_buffer_slot_t *p_directory = directory_owner(p_pool)->p_directory;
    for (qx_int64_t i = index - 1; i >= 0; --i) {
        if (i % kGroup == kGroup - 1 && p_directory[i - (kGroup - 1)].group_max_free == 0) {
            i -= kGroup - 1;
            continue;
        }
        if (p_directory[i].max_free == 0) continue;
        buffer_t *p_buffer = p_directory[i].p_buffer;
        if (p_buffer->last_free != 0) return record_at(p_buffer, p_buffer->last_free);
    }
    return nullptr;
}

// The first free record at or after directory position index, or NULL.
char *first_free_record_from(const sr_i_record_buffer_pool_t *p_pool, qx_int64_t index) {
    buffer_t *p_owner = directory_owner(p_pool);
    const qx_int64_t total = p_owner->total_directory;
    for (qx_int64_t i = index; i < total; ++i) {
        if (i % kGroup == 0 && p_owner->p_directory[i].group_max_free == 0) {
            i += kGroup - 1;
            continue;
        }
        if (p_owner->p_directory[i].max_free == 0) continue;
        buffer_t *p_buffer = p_owner->p_directory[i].p_buffer;
        if (p_buffer->first_free != 0) return record_at(p_buffer, p_buffer->first_free);
    }
    return nullptr;
}

// Makes sure the directory has room for one more buffer.  p_owner is the
// buffer that keeps the directory.  12 when it cannot grow; nothing changes.
qx_int32_t reserve_directory_slot(buffer_t *p_owner) {
    if (p_owner->total_directory < p_owner->max_directory) return 0;
    qx_uint32_t new_max = p_owner->max_directory * 2;
    void *p_new = sr_i_realloc(p_owner->p_directory, sizeof(sr_i_record_buffer_slot_t) * new_max);
    if (p_new == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    p_owner->p_directory = static_cast<sr_i_record_buffer_slot_t *>(p_new);
    p_owner->max_directory = new_max;
    return 0;
}

inline sr_i_record_buffer_slot_t *group_of(sr_i_record_buffer_slot_t *p_directory,
                                           qx_int64_t index) {
    return &p_directory[index - index % kGroup];
}

// The memo of first fit no longer holds below a buffer that gained a free
// record of length bytes at directory position index.
void forget_fit(sr_i_record_buffer_pool_t *p_pool, qx_int64_t index, qx_uint64_t length) {
    if (index < p_pool->fit_index && length >= p_pool->fit_length) {
        p_pool->fit_index = static_cast<qx_uint32_t>(index);
    }
}

// Raises the bounds of directory slot index to cover a free record of length.
void raise_bound(buffer_t *p_owner, qx_int64_t index, qx_uint32_t length) {
    sr_i_record_buffer_slot_t *p_slot = &p_owner->p_directory[index];
    if (length > p_slot->max_free) p_slot->max_free = length;
    sr_i_record_buffer_slot_t *p_group = group_of(p_owner->p_directory, index);
    if (length > p_group->group_max_free) p_group->group_max_free = length;
}

// Enters p_buffer, holding one free record, into the directory by address
// (room is reserved); returns its position.
qx_int64_t directory_insert(buffer_t *p_owner, buffer_t *p_buffer) {
    qx_int64_t position = p_owner->total_directory;
    while (position > 0 && addr(p_owner->p_directory[position - 1].p_buffer) > addr(p_buffer)) {
        p_owner->p_directory[position] = p_owner->p_directory[position - 1];
        --position;
    }
    p_owner->p_directory[position] =
        sr_i_record_buffer_slot_t{p_buffer, sr_i_record_length(sr_i_rb_buffer_data(p_buffer)), 0};
    ++p_owner->total_directory;
    // Slots from here on moved up by one: their groups' bounds are redone
    // (buffers mostly arrive at the end, where this is one group).
    for (qx_int64_t g = position - position % kGroup; g < p_owner->total_directory; g += kGroup) {
        qx_uint32_t bound = 0;
        for (qx_int64_t i = g; i < g + kGroup && i < p_owner->total_directory; ++i) {
            if (p_owner->p_directory[i].max_free > bound) bound = p_owner->p_directory[i].max_free;
        }
        p_owner->p_directory[g].group_max_free = bound;
    }
    return position;
}

// ---- free-record index of a buffer (see the file comment) ----
constexpr qx_uint32_t kIndexBlockShift = 8;  // 256-byte blocks
constexpr qx_uint32_t kIndexMaxLevels = 8;
// Buffers smaller than this are walked: their chains are short.
constexpr qx_uint32_t kIndexedBufferBytes = 64 * 1024;

struct FreeIndex {
    qx_uint32_t blocks;
    qx_uint32_t levels;
    qx_uint32_t level_offset[kIndexMaxLevels];
    qx_uint32_t words;   // bit words of all levels
    qx_uint32_t leaves;  // a power of two, at least blocks
    // qx_uint32_t highest[blocks], then the bit words, then the length tree:
    // 2 * leaves words, leaf leaves + b bounding the free records of block
    // b (never below the longest, raised as records are freed or grow,
    // lowered to the exact value when a search finds nothing there), each
    // inner word the largest of its two children.
};

inline qx_uint32_t *index_highest(FreeIndex *p_index) {
    return reinterpret_cast<qx_uint32_t *>(p_index + 1);
}
inline qx_uint32_t *index_words(FreeIndex *p_index) {
    return index_highest(p_index) + p_index->blocks;
}
inline qx_uint32_t *index_lengths(FreeIndex *p_index) {
    return index_words(p_index) + p_index->words;
}
inline qx_uint32_t block_of(qx_uint32_t offset) {
    return offset >> kIndexBlockShift;
}

void index_set_bit(FreeIndex *p_index, qx_uint32_t i) {
    qx_uint32_t *p_words = index_words(p_index);
    for (qx_uint32_t l = 0; l < p_index->levels; ++l) {
        qx_uint32_t &word = p_words[p_index->level_offset[l] + i / 32];
        bool was_empty = word == 0;
        word |= 1u << (i % 32);
        if (!was_empty) return;
        i /= 32;
    }
}

void index_clear_bit(FreeIndex *p_index, qx_uint32_t i) {
    qx_uint32_t *p_words = index_words(p_index);
    for (qx_uint32_t l = 0; l < p_index->levels; ++l) {
        qx_uint32_t &word = p_words[p_index->level_offset[l] + i / 32];
        word &= ~(1u << (i % 32));
        if (word != 0) return;
        i /= 32;
    }
}

inline int top_bit(qx_uint32_t word) {
    return 31 - __builtin_clz(word);
}

// The highest set position below i on level l, or -1.
qx_int64_t index_below(FreeIndex *p_index, qx_uint32_t l, qx_uint32_t i) {
    if (l >= p_index->levels) return -1;
    qx_uint32_t *p_words = index_words(p_index) + p_index->level_offset[l];
    qx_uint32_t w = i / 32;
    qx_uint32_t below = p_words[w] & ((1u << (i % 32)) - 1u);
    if (below != 0) return static_cast<qx_int64_t>(w) * 32 + top_bit(below);
    if (w == 0) return -1;
    qx_int64_t j = index_below(p_index, l + 1, w);
    if (j < 0) return -1;
    return j * 32 + top_bit(p_words[j]);
}

// Raises the length bound of block b to cover length.
void lengths_raise(FreeIndex *p_index, qx_uint32_t b, qx_uint32_t length) {
    qx_uint32_t *p_tree = index_lengths(p_index);
    for (qx_uint32_t i = p_index->leaves + b; i >= 1 && p_tree[i] < length; i /= 2) {
        p_tree[i] = length;
    }
}

// Sets the bound of block b to its exact longest free record.
void lengths_set(FreeIndex *p_index, qx_uint32_t b, qx_uint32_t length) {
    qx_uint32_t *p_tree = index_lengths(p_index);
    qx_uint32_t i = p_index->leaves + b;
    p_tree[i] = length;
    for (i /= 2; i >= 1; i /= 2) {
        qx_uint32_t larger = p_tree[2 * i] > p_tree[2 * i + 1] ? p_tree[2 * i] : p_tree[2 * i + 1];
        if (p_tree[i] == larger) break;
        p_tree[i] = larger;
    }
}

// The first block at or after start whose bound reaches needed, or -1.
qx_int64_t lengths_first(FreeIndex *p_index, qx_uint32_t node, qx_uint32_t low, qx_uint32_t high,
                         qx_uint32_t start, qx_uint64_t needed) {
    qx_uint32_t *p_tree = index_lengths(p_index);
    if (high < start || p_tree[node] < needed) return -1;
    if (low == high) return low;
    qx_uint32_t middle = low + (high - low) / 2;
    qx_int64_t found = lengths_first(p_index, 2 * node, low, middle, start, needed);
    if (found >= 0) return found;
    return lengths_first(p_index, 2 * node + 1, middle + 1, high, start, needed);
}

// A free record starting at offset joined the chain (its length is set).
void index_add(buffer_t *p_buffer, qx_uint32_t offset) {
    auto *p_index = static_cast<FreeIndex *>(p_buffer->p_free_index);
    if (p_index == nullptr) return;
    qx_uint32_t b = block_of(offset);
    qx_uint32_t &highest = index_highest(p_index)[b];
    if (highest == 0) index_set_bit(p_index, b);
    if (offset > highest) highest = offset;
    lengths_raise(p_index, b, sr_i_record_length(record_at(p_buffer, offset)));
}

// The free record at offset grew (it absorbed a neighbour).
void index_grew(buffer_t *p_buffer, qx_uint32_t offset, qx_uint32_t length) {
    auto *p_index = static_cast<FreeIndex *>(p_buffer->p_free_index);
    if (p_index == nullptr) return;
    lengths_raise(p_index, block_of(offset), length);
}

// The free record at offset left the chain; below is the free record that
// preceded it there (0 for none).
void index_remove(buffer_t *p_buffer, qx_uint32_t offset, qx_uint32_t below) {
    auto *p_index = static_cast<FreeIndex *>(p_buffer->p_free_index);
    if (p_index == nullptr) return;
    qx_uint32_t b = block_of(offset);
    qx_uint32_t &highest = index_highest(p_index)[b];
    if (highest != offset) return;
    highest = below != 0 && block_of(below) == b ? below : 0;
    if (highest == 0) index_clear_bit(p_index, b);
}

// Builds the index of a large buffer from its chain; false when the buffer
// is small or there is no memory (the caller then walks, as it may).
bool index_build(buffer_t *p_buffer) {
    if (p_buffer->p_free_index != nullptr) return true;
    if (p_buffer->total_bytes < kIndexedBufferBytes) return false;
    qx_uint32_t blocks = block_of(p_buffer->total_bytes) + 1;
    FreeIndex layout{};
    layout.blocks = blocks;
    layout.leaves = 1;
    while (layout.leaves < blocks) layout.leaves *= 2;
    qx_uint32_t words = 0;
    qx_uint32_t count = blocks;
    for (qx_uint32_t l = 0; l < kIndexMaxLevels; ++l) {
        count = (count + 31) / 32;
        layout.level_offset[l] = words;
        words += count;
        ++layout.levels;
        if (count <= 1) break;
    }
    layout.words = words;
    size_t bytes = sizeof(FreeIndex) +
                   sizeof(qx_uint32_t) * (static_cast<size_t>(blocks) + words + 2 * layout.leaves);
    // Plain calloc: the index is an optional accelerator, so a failure here
    // is not an allocation failure of the caller (it walks instead).
    auto *p_index = static_cast<FreeIndex *>(calloc(1, bytes));
    if (p_index == nullptr) return false;
    *p_index = layout;
    p_buffer->p_free_index = p_index;
    for (qx_uint32_t offset = p_buffer->first_free; offset != 0;) {
        index_add(p_buffer, offset);
        offset = offset == p_buffer->last_free ? 0 : sr_i_record_link(record_at(p_buffer, offset));
    }
    return true;
}

// With the buffer indexed: the chain neighbours of a record about to be
// freed at offset (previous below it, next at or above it).
void index_neighbours(buffer_t *p_buffer, qx_uint32_t offset, qx_uint32_t *p_previous,
                      qx_uint32_t *p_next) {
    auto *p_index = static_cast<FreeIndex *>(p_buffer->p_free_index);
    qx_uint32_t b = block_of(offset);
    qx_uint32_t highest = index_highest(p_index)[b];
    qx_uint32_t previous = 0;
    if (highest != 0 && highest <= offset) {
        previous = highest;
    } else {
        qx_int64_t j = index_below(p_index, 0, b);
        previous = j < 0 ? 0 : index_highest(p_index)[j];
    }
    if (previous == offset) {
        *p_previous = 0;
        *p_next = offset;  // already free
        return;
    }
    qx_uint32_t walk = previous == 0 ? p_buffer->first_free
                       : previous == p_buffer->last_free
                           ? 0
                           : sr_i_record_link(record_at(p_buffer, previous));
    // Only records of block b below offset lie between.
    while (walk != 0 && walk < offset) {
        previous = walk;
        walk = walk == p_buffer->last_free ? 0 : sr_i_record_link(record_at(p_buffer, walk));
    }
    *p_previous = previous;
    *p_next = walk;
}

// With the buffer indexed: the first free record of the buffer at least
// needed bytes long, and its predecessor inside the buffer (0 for none);
// false when there is none, with the buffer's bound in *p_bound.
bool index_first_fit(buffer_t *p_buffer, qx_uint64_t needed, qx_uint32_t *p_found,
                     qx_uint32_t *p_previous, qx_uint32_t *p_bound) {
    auto *p_index = static_cast<FreeIndex *>(p_buffer->p_free_index);
    qx_uint32_t start = 0;
    while (start < p_index->blocks) {
        qx_int64_t b = lengths_first(p_index, 1, 0, p_index->leaves - 1, start, needed);
        if (b < 0 || b >= p_index->blocks) break;
        qx_uint32_t block = static_cast<qx_uint32_t>(b);
        qx_int64_t below = index_below(p_index, 0, block);
        qx_uint32_t previous = below < 0 ? 0 : index_highest(p_index)[below];
        qx_uint32_t walk = previous == 0 ? p_buffer->first_free
                           : previous == p_buffer->last_free
                               ? 0
                               : sr_i_record_link(record_at(p_buffer, previous));
        qx_uint32_t longest = 0;
        while (walk != 0 && block_of(walk) == block) {
            qx_uint32_t length = sr_i_record_length(record_at(p_buffer, walk));
            if (length >= needed) {
                *p_found = walk;
                *p_previous = previous;
                return true;
            }
            if (length > longest) longest = length;
            previous = walk;
            walk = walk == p_buffer->last_free ? 0 : sr_i_record_link(record_at(p_buffer, walk));
        }
        lengths_set(p_index, block, longest);  // now exact
        start = block + 1;
    }
    *p_bound = index_lengths(p_index)[1];
    return false;
}

// A new buffer whose records span data_bytes (header excluded), holding one
// free record, not yet in any pool.  The directory fields are zero.
buffer_t *new_buffer(qx_uint32_t data_bytes) {
    void *p_memory = sr_i_malloc(sizeof(buffer_t) + data_bytes);
    if (p_memory == nullptr) return nullptr;
    buffer_t *p_buffer = static_cast<buffer_t *>(p_memory);
    memset(p_buffer, 0, sizeof *p_buffer);
    p_buffer->total_bytes = data_bytes + kBufferHeader;
    char *p_record = sr_i_rb_buffer_data(p_buffer);
    sr_i_set_record_length(p_record, data_bytes);
    sr_i_set_record_link(p_record, 0);
    sr_i_set_record_type(p_record, SR_I_RECORD_TYPE_FREE);
    p_buffer->first_free = kBufferHeader;
    p_buffer->last_free = kBufferHeader;
    return p_buffer;
}

// Gives a pool that has no buffer its first one, with a fresh directory.
qx_int32_t adopt_first_buffer(sr_i_record_buffer_pool_t *p_pool, buffer_t *p_buffer) {
    void *p_directory = sr_i_malloc(sizeof(sr_i_record_buffer_slot_t) * kInitialDirectory);
    if (p_directory == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    p_buffer->p_directory = static_cast<sr_i_record_buffer_slot_t *>(p_directory);
    p_buffer->max_directory = kInitialDirectory;
    p_buffer->total_directory = 0;
    directory_insert(p_buffer, p_buffer);
    p_pool->p_first_record_buffer = p_buffer;
    p_pool->p_last_record_buffer = p_buffer;
    return 0;
}

// Adds a buffer able to hold data_length bytes; reports its free record and
// that record's predecessor on the chain.  Nothing changes on failure.
qx_int32_t add_buffer(sr_i_record_buffer_pool_t *p_pool, qx_uint32_t data_length, char **p_record,
                      char **p_previous) {
    qx_uint64_t capacity = data_length <= kLargestMultipliedRequest
                               ? static_cast<qx_uint64_t>(data_length) * kBufferMultiplier
                               : data_length;
    qx_uint64_t block = capacity + kBufferHeader + kHeader;
    // The pool's counters are 32 bits wide and so is every offset in it.
    if (block > UINT32_MAX || p_pool->total_bytes + block > UINT32_MAX)
        return SR_ERROR(SR_E_NO_MEMORY);
    buffer_t *p_owner = directory_owner(p_pool);
    if (p_owner != nullptr) {
        qx_int32_t rc = reserve_directory_slot(p_owner);
        if (rc != 0) return rc;
    }
    buffer_t *p_buffer = new_buffer(static_cast<qx_uint32_t>(capacity + kHeader));
    if (p_buffer == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    qx_int64_t position = 0;
    if (p_owner == nullptr) {
        qx_int32_t rc = adopt_first_buffer(p_pool, p_buffer);
        if (rc != 0) {
            free(p_buffer);
            return rc;
        }
    } else {
        position = directory_insert(p_owner, p_buffer);
        p_pool->p_last_record_buffer->p_next = p_buffer;
        p_pool->p_last_record_buffer = p_buffer;
    }
    // Positions from here on moved up.
    if (position <= p_pool->fit_index) p_pool->fit_index = static_cast<qx_uint32_t>(position);
    p_pool->total_bytes += static_cast<qx_uint32_t>(block);
    p_pool->used_bytes += kBufferHeader + kHeader;
    char *p_new = sr_i_rb_buffer_data(p_buffer);
    *p_previous = last_free_record_before(p_pool, position);
    if (p_pool->p_free_chain == nullptr || addr(p_new) < addr(p_pool->p_free_chain)) {
        p_pool->p_free_chain = p_new;
    }
    *p_record = p_new;
    return 0;
}

// First fit found nothing of length bytes below directory position index.
void remember_fit(sr_i_record_buffer_pool_t *p_pool, qx_int64_t index, qx_uint64_t length) {
    p_pool->fit_index = static_cast<qx_uint32_t>(index);
    p_pool->fit_length = length;
}

}  // namespace

qx_int32_t sr_i_rb_initialize_record_buffer_pool(qx_uint32_t total_pages,
                                                 sr_i_record_buffer_pool_t *p_record_buffer_pool) {
    if (p_record_buffer_pool == nullptr) return SR_ERROR(SR_E_NULL_POINTER);
    memset(p_record_buffer_pool, 0, sizeof *p_record_buffer_pool);
    if (total_pages == 0) return 0;
    long page_size = sysconf(_SC_PAGESIZE);
    if (page_size <= 0) page_size = 4096;
    qx_uint64_t size = static_cast<qx_uint64_t>(total_pages) * static_cast<qx_uint64_t>(page_size);
    if (size > UINT32_MAX) return SR_ERROR(SR_E_NO_MEMORY);
    buffer_t *p_buffer = new_buffer(static_cast<qx_uint32_t>(size) - kBufferHeader);
    if (p_buffer == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    qx_int32_t rc = adopt_first_buffer(p_record_buffer_pool, p_buffer);
    if (rc != 0) {
        free(p_buffer);
        memset(p_record_buffer_pool, 0, sizeof *p_record_buffer_pool);
        return rc;
    }
    p_record_buffer_pool->total_bytes = static_cast<qx_uint32_t>(size);
    p_record_buffer_pool->used_bytes = kBufferHeader + kHeader;
    p_record_buffer_pool->p_free_chain = sr_i_rb_buffer_data(p_buffer);
    return 0;
}

qx_int32_t sr_i_rb_uninitialize_record_buffer_pool(
    sr_i_record_buffer_pool_t *p_record_buffer_pool) {
    if (p_record_buffer_pool == nullptr) return 0;
    buffer_t *p_first = p_record_buffer_pool->p_first_record_buffer;
    if (p_first != nullptr) free(p_first->p_directory);
    for (buffer_t *p_buffer = p_first; p_buffer != nullptr;) {
        buffer_t *p_next = p_buffer->p_next;
        free(p_buffer->p_free_index);
        free(p_buffer);
        p_buffer = p_next;
    }
    memset(p_record_buffer_pool, 0, sizeof *p_record_buffer_pool);
    return 0;
}

qx_int32_t sr_i_rb_find_suitable_record(sr_i_record_buffer_pool_t *p_record_buffer_pool,
                                        qx_uint32_t data_length, char **p_data,
                                        char **p_previous_free_record,
                                        qx_uint32_t *actual_data_length) {
    sr_i_record_buffer_pool_t *p_pool = p_record_buffer_pool;
    if (p_pool == nullptr || p_data == nullptr || p_previous_free_record == nullptr ||
        actual_data_length == nullptr) {
        return SR_ERROR(SR_E_NULL_POINTER);
    }
    char *p_previous = nullptr;
    const qx_uint64_t needed = static_cast<qx_uint64_t>(data_length) + kHeader;
    // The walk starts at the buffer of the chain's head, or where the memo
    // says nothing below can serve the request.
    qx_int64_t index = -1;
    if (p_pool->p_free_chain != nullptr) {
        index = needed >= p_pool->fit_length && p_pool->fit_index > 0
                    ? p_pool->fit_index
                    : directory_index_of(p_pool, p_pool->p_free_chain);
    }
    if (index >= 0) {
        buffer_t *p_owner = directory_owner(p_pool);
        sr_i_record_buffer_slot_t *p_directory = p_owner->p_directory;
        const qx_int64_t total = p_owner->total_directory;
        while (index < total) {
            qx_int64_t group_start = index - index % kGroup;
            qx_int64_t group_end = group_start + kGroup < total ? group_start + kGroup : total;
            if (p_directory[group_start].group_max_free < needed) {
                index = group_end;
                continue;
            }
            bool whole_group = index == group_start;
            qx_uint32_t group_longest = 0;
            for (; index < group_end; ++index) {
                sr_i_record_buffer_slot_t *p_slot = &p_directory[index];
                if (p_slot->max_free >= needed && index_build(p_slot->p_buffer)) {
                    buffer_t *p_buffer = p_slot->p_buffer;
                    qx_uint32_t found = 0;
                    qx_uint32_t previous = 0;
                    qx_uint32_t bound = 0;
                    // The buffer's first free record, when long enough, is
                    // its first fit: the usual case of rows added one after
                    // another into the free end of the newest buffer.
                    const bool first_fits =
                        p_buffer->first_free != 0 &&
                        sr_i_record_length(record_at(p_buffer, p_buffer->first_free)) >= needed;
                    if (first_fits) found = p_buffer->first_free;
                    if (first_fits ||
                        index_first_fit(p_buffer, needed, &found, &previous, &bound)) {
                        char *p_record = record_at(p_buffer, found);
                        *p_data = p_record + kHeader;
                        if (previous != 0) {
                            *p_previous_free_record = record_at(p_buffer, previous);
                        } else if (p_record == p_pool->p_free_chain) {
                            *p_previous_free_record = nullptr;
                        } else {
                            *p_previous_free_record = last_free_record_before(p_pool, index);
                        }
                        *actual_data_length = sr_i_record_length(p_record) - kHeader;
                        remember_fit(p_pool, index, needed);
                        return 0;
                    }
                    p_slot->max_free = bound;
                } else if (p_slot->max_free >= needed) {
                    buffer_t *p_buffer = p_slot->p_buffer;
                    char *p_in_buffer_previous = nullptr;
                    qx_uint32_t longest = 0;
                    for (qx_uint32_t offset = p_buffer->first_free; offset != 0;) {
                        char *p_record = record_at(p_buffer, offset);
                        qx_uint32_t length = sr_i_record_length(p_record);
                        if (length >= needed) {
                            // The chain predecessor: inside this buffer, or
                            // the last free record of the buffers passed over.
                            *p_data = p_record + kHeader;
                            if (p_in_buffer_previous != nullptr) {
                                *p_previous_free_record = p_in_buffer_previous;
                            } else if (p_record == p_pool->p_free_chain) {
                                *p_previous_free_record = nullptr;
                            } else {
                                *p_previous_free_record = last_free_record_before(p_pool, index);
                            }
                            *actual_data_length = length - kHeader;
                            remember_fit(p_pool, index, needed);
                            return 0;
                        }
                        if (length > longest) longest = length;
                        p_in_buffer_previous = p_record;
                        offset = offset == p_buffer->last_free ? 0 : sr_i_record_link(p_record);
                    }
                    p_slot->max_free = longest;  // now exact
                }
                if (p_slot->max_free > group_longest) group_longest = p_slot->max_free;
            }
            if (whole_group) p_directory[group_start].group_max_free = group_longest;
        }
    }
    char *p_record = nullptr;
    qx_int32_t rc = add_buffer(p_pool, data_length, &p_record, &p_previous);
    if (rc != 0) return rc;
    // No buffer but the new one can serve the request.
    remember_fit(p_pool, directory_index_of(p_pool, p_record), needed);
    *p_data = p_record + kHeader;
    *p_previous_free_record = p_previous;
    *actual_data_length = sr_i_record_length(p_record) - kHeader;
    return 0;
}

qx_int32_t sr_i_rb_allocate_record(sr_i_record_buffer_pool_t *p_record_buffer_pool, char *p_data,
                                   char *p_previous_free_record, qx_uint32_t data_length,
                                   qx_int32_t record_type) {
    sr_i_record_buffer_pool_t *p_pool = p_record_buffer_pool;
    if (p_pool == nullptr || p_data == nullptr) return SR_ERROR(SR_E_NULL_POINTER);
    char *p_record = p_data - kHeader;
    qx_int64_t index = directory_index_of(p_pool, p_record);
    if (index < 0) return SR_ERROR(SR_E_INTERNAL);
    buffer_t *p_buffer = directory_owner(p_pool)->p_directory[index].p_buffer;
    qx_uint32_t length = sr_i_record_length(p_record);
    qx_uint32_t offset = block_offset_of(p_buffer, p_record);
    if (length < kHeader || offset + static_cast<qx_uint64_t>(length) > p_buffer->total_bytes ||
        data_length > length - kHeader) {
        return SR_ERROR(SR_E_INTERNAL);
    }

    // The record's predecessor inside its buffer (0 when it is the buffer's
    // first free record).  The caller's predecessor is trusted only when it
    // still links to the record; otherwise the buffer's chain is walked,
    // which also proves the record is free.
    qx_uint32_t previous_offset = 0;
    if (p_buffer->first_free != offset) {
        bool found = false;
        if (p_previous_free_record != nullptr &&
            addr(p_previous_free_record) >= addr(sr_i_rb_buffer_data(p_buffer)) &&
            addr(p_previous_free_record) < addr(p_record)) {
            qx_uint32_t candidate = block_offset_of(p_buffer, p_previous_free_record);
            if (candidate != p_buffer->last_free &&
                sr_i_record_link(p_previous_free_record) == offset) {
                previous_offset = candidate;
                found = true;
            }
        }
        for (qx_uint32_t walk = p_buffer->first_free; !found && walk != 0;) {
            if (walk == p_buffer->last_free) break;
            qx_uint32_t next = sr_i_record_link(record_at(p_buffer, walk));
            if (next == offset) {
                previous_offset = walk;
                found = true;
            }
            walk = next;
        }
        if (!found) return SR_ERROR(SR_E_INTERNAL);
    }
    // A last free record's link word is never read (see the file comment).
    bool is_last = p_buffer->last_free == offset;
    qx_uint32_t next_offset = is_last ? 0 : sr_i_record_link(p_record);

    sr_i_set_record_type(p_record, record_type);
    qx_uint32_t leftover = length - (data_length + kHeader);
    qx_uint32_t replacement;  // what takes the record's place in the chain
    index_remove(p_buffer, offset, previous_offset);
    if (leftover <= kLargestSlack) {
        // Taken whole; the link word is left as it was.
        replacement = next_offset;
        if (is_last) p_buffer->last_free = previous_offset;
        p_pool->used_bytes += length - kHeader;
    } else {
        sr_i_set_record_length(p_record, data_length + kHeader);
        char *p_rest = p_record + data_length + kHeader;
        sr_i_set_record_length(p_rest, leftover);
        sr_i_set_record_link(p_rest, next_offset);
        sr_i_set_record_type(p_rest, SR_I_RECORD_TYPE_FREE);
        replacement = block_offset_of(p_buffer, p_rest);
        index_add(p_buffer, replacement);
        if (is_last) p_buffer->last_free = replacement;
        p_pool->used_bytes += data_length + kHeader;
    }
    if (previous_offset == 0) {
        p_buffer->first_free = replacement;
    } else {
        sr_i_set_record_link(record_at(p_buffer, previous_offset), replacement);
    }
    // The insertion cursor must name a record that is still free.
    if (p_buffer->insert_hint == offset) p_buffer->insert_hint = previous_offset;
    if (p_pool->p_free_chain == p_record) {
        p_pool->p_free_chain = replacement != 0 ? record_at(p_buffer, replacement)
                                                : first_free_record_from(p_pool, index + 1);
    }
    return 0;
}

qx_int32_t sr_i_reserve_record(sr_i_record_buffer_pool_t *p_record_buffer_pool, qx_uint32_t length,
                               qx_int32_t type, char **p_record_data) {
    if (p_record_data == nullptr) return SR_ERROR(SR_E_NULL_POINTER);
    char *p_data = nullptr;
    char *p_previous = nullptr;
    qx_uint32_t actual = 0;
    qx_int32_t rc =
        sr_i_rb_find_suitable_record(p_record_buffer_pool, length, &p_data, &p_previous, &actual);
    if (rc != 0) return rc;
    rc = sr_i_rb_allocate_record(p_record_buffer_pool, p_data, p_previous, length, type);
    if (rc != 0) return rc;
    *p_record_data = p_data;
    return 0;
}

qx_uint32_t sr_i_rb_insert_free_record(sr_i_record_buffer_pool_t *p_record_buffer_pool,
                                       char *p_new_free_record,
                                       char **p_previous_free_record_returned) {
    sr_i_record_buffer_pool_t *p_pool = p_record_buffer_pool;
    char *p_record = p_new_free_record;
    if (p_previous_free_record_returned != nullptr) *p_previous_free_record_returned = nullptr;
    qx_int64_t index = directory_index_of(p_pool, p_record);
    if (index < 0) return 0;
    buffer_t *p_buffer = directory_owner(p_pool)->p_directory[index].p_buffer;
    qx_uint32_t offset = block_offset_of(p_buffer, p_record);

    // Neighbours on the chain: the last free record below, the first above.
    // Records freed in ascending order (the dead records of a file image as
    // it is loaded, rows freed in a sweep) land after the last one, or after
    // the one inserted just before, without walking the chain from its start.
    qx_uint32_t previous_offset = 0;
    qx_uint32_t next_offset = 0;
    if (p_buffer->last_free != 0 && p_buffer->last_free < offset) {
        previous_offset = p_buffer->last_free;
    } else if ((p_buffer->insert_hint == 0 || p_buffer->insert_hint >= offset ||
                block_of(offset) - block_of(p_buffer->insert_hint) > 1) &&
               index_build(p_buffer)) {
        index_neighbours(p_buffer, offset, &previous_offset, &next_offset);
    } else {
        qx_uint32_t walk = p_buffer->first_free;
        if (p_buffer->insert_hint != 0 && p_buffer->insert_hint < offset) {
            previous_offset = p_buffer->insert_hint;
            walk = sr_i_record_link(record_at(p_buffer, previous_offset));
        }
        while (walk != 0) {
            if (walk >= offset) {
                next_offset = walk;
                break;
            }
            previous_offset = walk;
            walk = walk == p_buffer->last_free ? 0 : sr_i_record_link(record_at(p_buffer, walk));
        }
    }
    // Already on the chain: freeing it again frees nothing.
    if (next_offset == offset) return 0;

    qx_uint32_t length = sr_i_record_length(p_record);
    qx_uint32_t freed = length - kHeader;
    qx_uint32_t link = next_offset;
    bool now_last = next_offset == 0;
    if (next_offset != 0 && offset + length == next_offset) {
        // Absorb the following free record.
        char *p_next = record_at(p_buffer, next_offset);
        index_remove(p_buffer, next_offset, previous_offset);
        length += sr_i_record_length(p_next);
        sr_i_set_record_length(p_record, length);
        now_last = p_buffer->last_free == next_offset;
        link = now_last ? 0 : sr_i_record_link(p_next);
        freed += kHeader;
    }
    sr_i_set_record_link(p_record, link);
    sr_i_set_record_type(p_record, SR_I_RECORD_TYPE_FREE);

    char *p_survivor = p_record;
    qx_uint32_t survivor_length = length;
    if (previous_offset != 0 &&
        previous_offset + sr_i_record_length(record_at(p_buffer, previous_offset)) == offset) {
        // The preceding free record absorbs this one.
        char *p_prev = record_at(p_buffer, previous_offset);
        survivor_length = sr_i_record_length(p_prev) + length;
        sr_i_set_record_length(p_prev, survivor_length);
        index_grew(p_buffer, previous_offset, survivor_length);
        sr_i_set_record_link(p_prev, link);
        if (now_last) p_buffer->last_free = previous_offset;
        freed += kHeader;
        p_survivor = p_prev;
    } else {
        index_add(p_buffer, offset);
        if (previous_offset != 0) {
            sr_i_set_record_link(record_at(p_buffer, previous_offset), offset);
        } else {
            p_buffer->first_free = offset;
        }
        if (now_last) p_buffer->last_free = offset;
        if (p_pool->p_free_chain == nullptr || addr(p_record) < addr(p_pool->p_free_chain)) {
            p_pool->p_free_chain = p_record;
        }
    }
    raise_bound(directory_owner(p_pool), index, survivor_length);
    forget_fit(p_pool, index, survivor_length);
    p_buffer->insert_hint = block_offset_of(p_buffer, p_survivor);

    if (p_previous_free_record_returned != nullptr) {
        if (p_survivor == p_record && previous_offset != 0) {
            *p_previous_free_record_returned = record_at(p_buffer, previous_offset);
        } else if (p_survivor == p_record) {
            *p_previous_free_record_returned = last_free_record_before(p_pool, index);
        } else {
            // Merged into its predecessor: report the survivor's predecessor.
            char *p_before = nullptr;
            for (qx_uint32_t walk = p_buffer->first_free; walk != previous_offset;) {
                p_before = record_at(p_buffer, walk);
                walk = sr_i_record_link(p_before);
            }
            *p_previous_free_record_returned =
                p_before != nullptr ? p_before : last_free_record_before(p_pool, index);
        }
    }
    return freed;
}

qx_int32_t sr_i_rb_free_record(sr_i_record_buffer_pool_t *p_record_buffer_pool, char *p_data) {
    if (p_record_buffer_pool == nullptr || p_data == nullptr) return SR_ERROR(SR_E_NULL_POINTER);
    char *p_record = p_data - kHeader;
    if (directory_index_of(p_record_buffer_pool, p_record) < 0) return SR_ERROR(SR_E_INTERNAL);
    sr_i_set_record_type(p_record, SR_I_RECORD_TYPE_FREE);
    qx_uint32_t freed = sr_i_rb_insert_free_record(p_record_buffer_pool, p_record, nullptr);
    p_record_buffer_pool->used_bytes -= freed;
    return 0;
}

qx_int32_t sr_i_rb_duplicate_record_buffer_pool(
    sr_i_record_buffer_pool_t *p_from, sr_i_record_buffer_pool_t *p_to,
    sr_i_record_buffer_pool_duplication_map_t **p_duplication_map) {
    if (p_from == nullptr || p_to == nullptr || p_duplication_map == nullptr) {
        return SR_ERROR(SR_E_NULL_POINTER);
    }
    qx_uint32_t total = 0;
    for (buffer_t *p_buffer = p_from->p_first_record_buffer; p_buffer != nullptr;
         p_buffer = p_buffer->p_next) {
        ++total;
    }
    auto *p_map = static_cast<sr_i_record_buffer_pool_duplication_map_t *>(
        sr_i_calloc(1, sizeof(sr_i_record_buffer_pool_duplication_map_t)));
    if (p_map == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    p_map->total = total;
    if (total == 0) {
        memset(p_to, 0, sizeof *p_to);
        *p_duplication_map = p_map;
        return 0;
    }
    p_map->p_begin = static_cast<char **>(sr_i_malloc(sizeof(char *) * total));
    p_map->p_end = static_cast<char **>(sr_i_malloc(sizeof(char *) * total));
    p_map->p_offset = static_cast<qx_int64_t *>(sr_i_malloc(sizeof(qx_int64_t) * total));
    if (p_map->p_begin == nullptr || p_map->p_end == nullptr || p_map->p_offset == nullptr) {
        sr_i_rb_free_duplication_map(p_map);
        return SR_ERROR(SR_E_NO_MEMORY);
    }
    // One buffer, one 8-byte header instead of one per source buffer.
    qx_uint32_t saved = kBufferHeader * total - kBufferHeader;
    qx_uint32_t copy_total = p_from->total_bytes - saved;
    buffer_t *p_copy = new_buffer(copy_total - kBufferHeader);
    if (p_copy == nullptr) {
        sr_i_rb_free_duplication_map(p_map);
        return SR_ERROR(SR_E_NO_MEMORY);
    }
    sr_i_record_buffer_pool_t copy;
    memset(&copy, 0, sizeof copy);
    qx_int32_t rc = adopt_first_buffer(&copy, p_copy);
    if (rc != 0) {
        free(p_copy);
        sr_i_rb_free_duplication_map(p_map);
        return rc;
    }

    char *p_position = sr_i_rb_buffer_data(p_copy);
    qx_uint32_t i = 0;
    for (buffer_t *p_buffer = p_from->p_first_record_buffer; p_buffer != nullptr;
         p_buffer = p_buffer->p_next, ++i) {
        char *p_begin = sr_i_rb_buffer_data(p_buffer);
        size_t bytes = p_buffer->total_bytes - kBufferHeader;
        memcpy(p_position, p_begin, bytes);
        p_map->p_begin[i] = p_begin;
        p_map->p_end[i] = p_begin + bytes;
        p_map->p_offset[i] =
            static_cast<qx_int64_t>(addr(p_position)) - static_cast<qx_int64_t>(addr(p_begin));
        p_position += bytes;
    }

    // The copy's chain: every source free record at its new place.  The
    // source buffers were laid end to end in creation order, so walking each
    // one's own chain in that order yields the copy's records by ascending
    // address.  Records that now touch across a former buffer border are
    // left apart, as they were.
    p_copy->first_free = 0;
    p_copy->last_free = 0;
    char *p_copy_previous = nullptr;
    qx_uint32_t longest = 0;
    for (buffer_t *p_buffer = p_from->p_first_record_buffer; p_buffer != nullptr;
         p_buffer = p_buffer->p_next) {
        for (qx_uint32_t walk = p_buffer->first_free; walk != 0;) {
            char *p_source = record_at(p_buffer, walk);
            char *p_mapped = sr_i_rb_map_duplicated_address(p_map, p_source);
            qx_uint32_t mapped_offset = block_offset_of(p_copy, p_mapped);
            if (p_copy_previous == nullptr) {
                p_copy->first_free = mapped_offset;
            } else {
                sr_i_set_record_link(p_copy_previous, mapped_offset);
            }
            p_copy_previous = p_mapped;
            if (sr_i_record_length(p_mapped) > longest) longest = sr_i_record_length(p_mapped);
            walk = walk == p_buffer->last_free ? 0 : sr_i_record_link(p_source);
        }
    }
    p_copy->p_directory[0].max_free = longest;
    p_copy->p_directory[0].group_max_free = longest;
    if (p_copy_previous != nullptr) {
        sr_i_set_record_link(p_copy_previous, 0);
        p_copy->last_free = block_offset_of(p_copy, p_copy_previous);
        copy.p_free_chain = record_at(p_copy, p_copy->first_free);
    }
    copy.total_bytes = copy_total;
    copy.used_bytes = p_from->used_bytes - saved;
    *p_to = copy;
    *p_duplication_map = p_map;
    return 0;
}

char *sr_i_rb_map_duplicated_address(
    const sr_i_record_buffer_pool_duplication_map_t *p_duplication_map, const char *p_from) {
    if (p_duplication_map == nullptr || p_from == nullptr) return nullptr;
    uintptr_t a = addr(p_from);
    for (qx_uint32_t i = 0; i < p_duplication_map->total; ++i) {
        if (addr(p_duplication_map->p_begin[i]) <= a && a < addr(p_duplication_map->p_end[i])) {
            return reinterpret_cast<char *>(static_cast<uintptr_t>(static_cast<qx_int64_t>(a) +
                                                                   p_duplication_map->p_offset[i]));
        }
    }
    return nullptr;
}

qx_int32_t sr_i_rb_free_duplication_map(
    sr_i_record_buffer_pool_duplication_map_t *p_duplication_map) {
    if (p_duplication_map == nullptr) return 0;
    free(p_duplication_map->p_begin);
    free(p_duplication_map->p_end);
    free(p_duplication_map->p_offset);
    free(p_duplication_map);
    return 0;
}
