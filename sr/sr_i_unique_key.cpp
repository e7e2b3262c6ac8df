// The uniqueness check of a checked key (SR_PRIMARY_KEY) on a table without
// a hashed key index, and the private index that answers it without a walk.
//
// The check's answer is defined by a walk over the fixed index: from slot 0
// up, it compares the new key with the working record of as many rows as the
// working version holds (live rows, the new one not yet counted).  The slot
// just taken for the new row already holds the new record, so the walk sees
// live + 1 records and compares all but the last of them in slot order:
//   - a new row in the highest slot holding a record meets every live row;
//   - a new row below that slot meets its own record (and the add is
//     refused, for every key that equals itself) and every live row but the
//     one in the highest slot.
// Callers of unhashed unique tables know that behaviour; it is kept.
//
// The index keeps, per key hash, the fixed slots whose working record held
// that key when the slot was noted.  It is built on the first check, from the
// working records, and from then on every slot that gets a working record
// is noted: an add, and a set, which may change the key.  Nothing is noted
// when a record goes (a deletion, a commit freeing a slot, a failed add): an
// entry is only a hint, and every hint is confirmed against the slot's
// current record with the same comparison the walk makes; hints that no
// longer hold are dropped as they are met.  The one change that brings back
// records without a note is abort, which drops the whole index; it is built
// again by the next check.  A schema change or a reload replaces the row
// index, and this index goes with it.
//
// The highest slot holding a record is tracked as an upper bound that only
// adds raise, and lowered by a scan down to the first record when it is
// needed.  Without memory for the index the add gives 12, as an add gives
// whenever its memory cannot be had.
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "sr_i_rows.h"

SR_SOURCE_FILE("sr/sr_i_unique_key", "1.1");

struct sr_i_unique_key_index_struct {
    // Open addressing with linear probing: hash, and fixed slot + 1 (0 for
    // an empty cell).
    struct cell_t {
        qx_uint32_t hash;
        qx_uint32_t slot_plus_one;
    };
    cell_t *p_cells;
    qx_uint32_t mask;  // cells - 1; cells is a power of two
    qx_uint32_t used;
    // No slot above holds a working record.
    qx_uint32_t top;
};

namespace {

using index_t = sr_i_unique_key_index_struct;

// How a key type compares in the check.
enum class key_form {
    never,     // never equal (no order): nothing to find
    integer,   // by value
    floating,  // by value: zeros equal, a NaN equal to everything
    text,      // by bytes up to the NUL
    walk,      // compared by a routine of its own: always walked
};

key_form form_of(qx_data_type_t type) {
    switch (type) {
        case QX_INT32:
        case QX_UINT32:
        case QX_INT64:
        case QX_UINT64:
            return key_form::integer;
        case QX_FLOAT32:
        case QX_FLOAT64:
            return key_form::floating;
        case QX_CHAR_PTR:
            return key_form::text;
        case QX_RSRC_HANDLE_PTR:
            return key_form::walk;
        default:
            return key_form::never;
    }
}

constexpr qx_uint32_t kNaNHash = 0x7FC00001u;

qx_uint32_t mix(qx_uint64_t x) {
    x ^= x >> 33;
    x *= 0xFF51AFD7ED558CCDull;
    x ^= x >> 33;
    x *= 0xC4CEB9FE1A85EC53ull;
    x ^= x >> 33;
    return static_cast<qx_uint32_t>(x);
}

qx_uint32_t text_hash(const char *p_text) {
    qx_uint64_t h = 0xCBF29CE484222325ull;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(p_text); *p != 0; ++p) {
        h = (h ^ *p) * 0x100000001B3ull;
    }
    return mix(h);
}

template <typename F>
qx_uint32_t float_hash(F value) {
    if (std::isnan(value)) return kNaNHash;
    if (value == 0) value = 0;  // -0 and +0 are one key
    qx_uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof value);
    const qx_uint32_t h = mix(bits);
    return h == kNaNHash ? h + 1 : h;
}

bool is_nan(const qx_value_t &value, qx_data_type_t type) {
    return type == QX_FLOAT32 ? std::isnan(value.val_float32)
                              : type == QX_FLOAT64 && std::isnan(value.val_float64);
}

// The hash of a key held as a caller's value.  `text` may be NULL (such a
// key equals nothing).
qx_uint32_t value_hash(const qx_value_t &value, qx_data_type_t type, const char *p_text) {
    switch (type) {
        case QX_INT32:
            return mix(static_cast<qx_uint32_t>(value.val_int32));
        case QX_UINT32:
            return mix(value.val_uint32);
        case QX_INT64:
            return mix(static_cast<qx_uint64_t>(value.val_int64));
        case QX_UINT64:
            return mix(value.val_uint64);
        case QX_FLOAT32:
            return float_hash(value.val_float32);
        case QX_FLOAT64:
            return float_hash(value.val_float64);
        default:
            return p_text != nullptr ? text_hash(p_text) : 0;
    }
}

// The key of a working record, as a value and (for text) its bytes.
qx_uint32_t record_hash(const sr_i_table_t *p_table, char *p_record) {
    const qx_data_type_t type = p_table->p_columns[0].type;
    const qx_value_t slot = sr_i_load_slot(p_record, 0);
    if (form_of(type) != key_form::text) return value_hash(slot, type, nullptr);
    qx_pmsg_value_t stored;
    std::memcpy(&stored, &slot, sizeof stored);
    return text_hash(sr_i_row_indirect_area(p_record, p_table->total_columns) +
                     stored.anchor.offset);
}

// Whether a caller's key equals a record's key, as the walk compares them.
bool equal(const sr_i_table_t *p_table, qx_value_t *p_key, char *p_record) {
    const auto *p_slot = reinterpret_cast<const qx_pmsg_value_t *>(sr_i_row_slot(p_record, 0));
    return sr_i_compare_values(p_key, p_slot, p_table->p_columns[0].type,
                               sr_i_row_indirect_area(p_record, p_table->total_columns)) == 0;
}

qx_uint32_t live_rows(const sr_i_table_t *p_table) {
    return p_table->total_applied_rows - p_table->applied_deletions;
}

// The walk itself: the first `live` working records in slot order, the new
// row's included.
bool walk(sr_i_table_t *p_table, qx_value_t *p_key) {
    const qx_uint32_t live = live_rows(p_table);
    qx_uint32_t seen = 0;
    for (qx_uint32_t f = 0; f < p_table->maximum_rows && seen < live; ++f) {
        char *p_record = p_table->p_rows_fixed_index[f].p_applied;
        if (p_record == nullptr) continue;
        ++seen;
        if (equal(p_table, p_key, p_record)) return true;
    }
    return false;
}

// Drops the cell at `i`, moving later cells of its cluster back so that
// every cell stays reachable from its home.
void erase_cell(index_t *p_index, qx_uint32_t i) {
    const qx_uint32_t mask = p_index->mask;
    qx_uint32_t j = i;
    for (;;) {
        j = (j + 1) & mask;
        const index_t::cell_t &cell = p_index->p_cells[j];
        if (cell.slot_plus_one == 0) break;
        const qx_uint32_t home = cell.hash & mask;
        // The cell stays when its home lies cyclically in (i, j].
        const bool stays = i <= j ? (i < home && home <= j) : (i < home || home <= j);
        if (stays) continue;
        p_index->p_cells[i] = cell;
        i = j;
    }
    p_index->p_cells[i].slot_plus_one = 0;
    --p_index->used;
}

// Puts (hash, slot) in the cells unless it is there; the cells have room.
void put_cell(index_t *p_index, qx_uint32_t hash, qx_uint32_t slot) {
    for (qx_uint32_t i = hash & p_index->mask;; i = (i + 1) & p_index->mask) {
        index_t::cell_t &cell = p_index->p_cells[i];
        if (cell.slot_plus_one == 0) {
            cell.hash = hash;
            cell.slot_plus_one = slot + 1;
            ++p_index->used;
            return;
        }
        if (cell.hash == hash && cell.slot_plus_one == slot + 1) return;
    }
}

// Fills `p_index` (fresh, empty cells) from the working records.
void fill(index_t *p_index, sr_i_table_t *p_table) {
    p_index->top = 0;
    for (qx_uint32_t f = 0; f < p_table->maximum_rows; ++f) {
        char *p_record = p_table->p_rows_fixed_index[f].p_applied;
        if (p_record == nullptr) continue;
        put_cell(p_index, record_hash(p_table, p_record), f);
        p_index->top = f;
    }
}

// Cells for the working records, at most half full: at least half as many
// notes again fit before the next rebuild.
index_t::cell_t *new_cells(const sr_i_table_t *p_table, qx_uint32_t *p_mask) {
    const qx_uint64_t wanted = 2 * (static_cast<qx_uint64_t>(live_rows(p_table)) + 2);
    qx_uint64_t cells = 16;
    while (cells < wanted) cells *= 2;
    if (cells > (qx_uint64_t{1} << 31)) return nullptr;
    auto *p_cells = static_cast<index_t::cell_t *>(sr_i_calloc(cells, sizeof(index_t::cell_t)));
    if (p_cells != nullptr) *p_mask = static_cast<qx_uint32_t>(cells - 1);
    return p_cells;
}

// The table's index, built when missing, in *p_p_index; NULL there for a
// table too large for one (it walks).  12 without memory for it: the add
// fails as any add that cannot have its memory does.
qx_int32_t index_of(sr_i_table_t *p_table, index_t **p_p_index) {
    *p_p_index = p_table->p_unique_key_index;
    if (*p_p_index != nullptr) return 0;
    if (2 * (static_cast<qx_uint64_t>(live_rows(p_table)) + 2) > (qx_uint64_t{1} << 31)) return 0;
    auto *p_index = static_cast<index_t *>(sr_i_calloc(1, sizeof(index_t)));
    if (p_index == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    p_index->p_cells = new_cells(p_table, &p_index->mask);
    if (p_index->p_cells == nullptr) {
        std::free(p_index);
        return SR_ERROR(SR_E_NO_MEMORY);
    }
    fill(p_index, p_table);
    p_table->p_unique_key_index = p_index;
    *p_p_index = p_index;
    return 0;
}

// Rebuilds the cells from the working records when they are three quarters
// full, dropping every hint that no longer holds; without memory the index
// is dropped.
void make_room(sr_i_table_t *p_table) {
    index_t *p_index = p_table->p_unique_key_index;
    if (static_cast<qx_uint64_t>(p_index->used + 1) * 4 <=
        static_cast<qx_uint64_t>(p_index->mask + 1) * 3) {
        return;
    }
    qx_uint32_t mask = 0;
    index_t::cell_t *p_cells = new_cells(p_table, &mask);
    if (p_cells == nullptr) {
        sr_i_unique_key_forget(p_table);
        return;
    }
    std::free(p_index->p_cells);
    p_index->p_cells = p_cells;
    p_index->mask = mask;
    p_index->used = 0;
    fill(p_index, p_table);
}

// The highest slot holding a working record; the new row's slot holds one.
qx_uint32_t top_slot(index_t *p_index, const sr_i_table_t *p_table, qx_uint32_t new_slot) {
    qx_uint32_t top = p_index->top > new_slot ? p_index->top : new_slot;
    if (top >= p_table->maximum_rows) top = p_table->maximum_rows - 1;
    while (top > new_slot && p_table->p_rows_fixed_index[top].p_applied == nullptr) --top;
    p_index->top = top;
    return top;
}

// Whether a live row other than `skip` and `passed_over` holds a key equal
// to *p_key among the hints of `hash`; drops the hints found stale.
bool find(index_t *p_index, sr_i_table_t *p_table, qx_value_t *p_key, qx_uint32_t hash,
          qx_uint32_t skip, qx_uint32_t passed_over) {
    qx_uint32_t i = hash & p_index->mask;
    for (;;) {
        const index_t::cell_t cell = p_index->p_cells[i];
        if (cell.slot_plus_one == 0) return false;
        const qx_uint32_t slot = cell.slot_plus_one - 1;
        if (cell.hash != hash || slot == skip || slot == passed_over) {
            i = (i + 1) & p_index->mask;
            continue;
        }
        char *p_record =
            slot < p_table->maximum_rows ? p_table->p_rows_fixed_index[slot].p_applied : nullptr;
        if (p_record != nullptr) {
            if (equal(p_table, p_key, p_record)) return true;
            if (record_hash(p_table, p_record) == hash) {
                // Another key of the same hash.
                i = (i + 1) & p_index->mask;
                continue;
            }
        }
        erase_cell(p_index, i);  // look at cell i again: a later cell may have moved there
    }
}

bool exists(index_t *p_index, sr_i_table_t *p_table, qx_value_t *p_key,
            sr_i_index_entry_t *p_new_entry) {
    const qx_data_type_t type = p_table->p_columns[0].type;
    const key_form form = form_of(type);

    const qx_uint32_t new_slot =
        static_cast<qx_uint32_t>(p_new_entry - p_table->p_rows_fixed_index);
    const qx_uint32_t top = top_slot(p_index, p_table, new_slot);
    qx_uint32_t passed_over = new_slot;  // no other slot is passed over
    qx_uint32_t candidates = live_rows(p_table);
    if (top != new_slot) {
        if (equal(p_table, p_key, p_new_entry->p_applied)) return true;
        passed_over = top;
        --candidates;
    }
    if (form == key_form::floating && is_nan(*p_key, type)) return candidates > 0;
    const char *p_text = form == key_form::text ? p_key->ptr_char : nullptr;
    if (form == key_form::text && p_text == nullptr) return false;
    if (find(p_index, p_table, p_key, value_hash(*p_key, type, p_text), new_slot, passed_over)) {
        return true;
    }
    // A row whose key is a NaN equals every key.
    return form == key_form::floating &&
           find(p_index, p_table, p_key, kNaNHash, new_slot, passed_over);
}

}  // namespace

qx_int32_t sr_i_unique_key_check(sr_i_table_t *p_table, qx_value_t *p_key,
                                 sr_i_index_entry_t *p_new_entry, bool *p_exists) {
    *p_exists = false;
    const qx_data_type_t type = p_table->p_columns[0].type;
    const key_form form = form_of(type);
    if (form == key_form::never) return 0;
    index_t *p_index = nullptr;
    if (form != key_form::walk) {
        const qx_int32_t rc = index_of(p_table, &p_index);
        if (rc != 0) return rc;
    }
    *p_exists =
        p_index == nullptr ? walk(p_table, p_key) : exists(p_index, p_table, p_key, p_new_entry);
    return 0;
}

void sr_i_unique_key_note_row(sr_i_table_t *p_table, sr_i_index_entry_t *p_entry) {
    if (p_table->p_unique_key_index == nullptr) return;
    make_room(p_table);
    index_t *p_index = p_table->p_unique_key_index;
    if (p_index == nullptr) return;
    const qx_uint32_t slot = static_cast<qx_uint32_t>(p_entry - p_table->p_rows_fixed_index);
    put_cell(p_index, record_hash(p_table, p_entry->p_applied), slot);
    if (slot > p_index->top) p_index->top = slot;
}

void sr_i_unique_key_forget(sr_i_table_t *p_table) {
    index_t *p_index = p_table->p_unique_key_index;
    if (p_index == nullptr) return;
    std::free(p_index->p_cells);
    std::free(p_index);
    p_table->p_unique_key_index = nullptr;
}
