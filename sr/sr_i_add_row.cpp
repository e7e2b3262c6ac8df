// Adding rows: the row record built in place in a free pool record, its
// attachment to a slot of the fixed index with the key check, and the two
// pending change lists that apply and commit consume.  Also the one row-record
// builder that writing fields shares with adding, with its pieces: finding
// (not taking) room, defaults, placing stored bytes, and freeing a record.
//
// A new record is built inside a free pool record that is found but not
// taken; only when everything has succeeded is it taken at its exact length.
// So a failed add allocates nothing in the pool, and a retry for more room
// keeps what was built so far by copying it into the larger record.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "sr_i_hash_table.h"
#include "sr_i_pool.h"
#include "sr_i_rows.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_i_add_row", "1.1");

namespace {

constexpr qx_uint32_t kHeader = SR_I_RECORD_HEADER_LENGTH;

inline qx_uint32_t fixed_length(const sr_i_table_t *p_table) {
    return 4 + 8 * p_table->total_columns;
}

inline cu_iconv_t *to_table_handle(const sr_i_table_t *p_table) {
    return p_table->p_tree != nullptr ? p_table->p_tree->p_to_table_string_conversion_handle
                                      : nullptr;
}

// The first caller value named `p_name`, or -1.  Most names differ from
// the column's in their first byte, which is compared before the call.
qx_int64_t find_name(qx_char_ptr_t *p_column_names, qx_uint32_t total_values, const char *p_name) {
    for (qx_uint32_t i = 0; i < total_values; ++i) {
        const char *p_given = p_column_names[i];
        if (p_given[0] == p_name[0] && std::strcmp(p_given, p_name) == 0) return i;
    }
    return -1;
}

// The next size to try for a record of `length` bytes that fell short: twice
// `length`, or `at_least` when that is more; 0 when it no longer fits a record.
qx_uint32_t grown(qx_uint32_t length, qx_uint64_t at_least) {
    qx_uint64_t next = 2ull * length;
    if (next < at_least) next = at_least;
    return next <= UINT32_MAX - kHeader ? static_cast<qx_uint32_t>(next) : 0;
}

}  // namespace

void sr_i_dup_nonscalar_value(qx_data_type_t type, qx_value_t *p_from_value,
                              qx_value_t *p_to_value) {
    *p_to_value = *p_from_value;
    if (p_to_value->ptr_char != nullptr) return;
    switch (type) {
        case QX_CHAR_PTR:
            p_to_value->ptr_char = cu_ptr_empty_char_1;
            break;
        case QX_BINARY_PTR:
            p_to_value->ptr_binary = cu_ptr_empty_binary_1;
            break;
        case QX_RSRC_HANDLE_PTR:
            p_to_value->ptr_rsrc_handle = cu_ptr_invld_rsrc_hndl_1;
            break;
        case QX_SD_PTR:
            p_to_value->ptr_sd = cu_ptr_empty_sd_1;
            break;
        default:
            p_to_value->ptr_array = cu_ptr_empty_array_1;
            break;
    }
}

qx_int32_t acquire_row_record(sr_i_table_t *p_table, qx_uint32_t running_indirect_data_offset,
                              qx_uint32_t *length, qx_char_ptr_t *p_record,
                              qx_pmsg_value_t **p_pmsg, qx_char_ptr_t *p_indirect_data,
                              qx_char_ptr_t *p_previous_free_record) {
    char *p_found = nullptr;
    char *p_previous = nullptr;
    qx_uint32_t actual = 0;
    qx_int32_t rc = sr_i_rb_find_suitable_record(&p_table->record_buffer_pool, *length, &p_found,
                                                 &p_previous, &actual);
    if (rc != 0) return rc;
    char *p_old = *p_record;
    if (p_old != nullptr && p_old != p_found) {
        // The old record is either the row's current version (taken) or a
        // free record found earlier: neither overlaps the one found now.
        std::memcpy(p_found, p_old, fixed_length(p_table) + running_indirect_data_offset);
    }
    if (p_pmsg != nullptr && *p_pmsg != nullptr && p_old != nullptr) {
        *p_pmsg = reinterpret_cast<qx_pmsg_value_t *>(p_found +
                                                      (reinterpret_cast<char *>(*p_pmsg) - p_old));
    }
    *p_record = p_found;
    *p_indirect_data = sr_i_row_indirect_area(p_found, p_table->total_columns);
    *p_previous_free_record = p_previous;
    *length = actual;
    return 0;
}

void sr_i_column_default(const sr_i_table_t *p_table, qx_uint32_t column, qx_value_t *p_slot,
                         const char **p_p_bytes, qx_uint32_t *p_length) {
    const sr_column_t &definition = p_table->p_columns[column];
    std::memcpy(p_slot, &definition.default_value, sizeof *p_slot);
    *p_p_bytes = nullptr;
    *p_length = 0;
    if (!sr_i_is_pointer_type(definition.type)) return;
    // Pointer-valued defaults are packed after the column array.
    const char *p_defaults =
        sr_i_metadata_indirect_area(p_table->p_metadata_record_data, p_table->total_columns);
    qx_pmsg_anchor_t anchor;
    std::memcpy(&anchor, p_slot, sizeof anchor);
    *p_p_bytes = p_defaults + anchor.offset;
    *p_length = anchor.length;
}

qx_int32_t sr_i_place_indirect_bytes(char *p_slot, char *p_indirect_data, qx_uint32_t room,
                                     qx_uint32_t *p_running_offset, const char *p_bytes,
                                     qx_uint32_t length) {
    // Forms lie end to end, as the value library places them.
    const qx_uint64_t start = *p_running_offset;
    const qx_uint64_t end = start + length;
    if (end > room) return QX_PMSG_E_ROOM;
    if (length != 0) std::memcpy(p_indirect_data + start, p_bytes, length);
    qx_pmsg_anchor_t anchor{static_cast<qx_uint32_t>(start), length};
    std::memcpy(p_slot, &anchor, sizeof anchor);
    *p_running_offset = static_cast<qx_uint32_t>(end);
    return 0;
}

qx_int32_t sr_i_free_row_record(sr_i_table_t *p_table, char *p_record_data) {
    if (p_record_data != nullptr) {
        // Client values handed out from this record's slots die with it; the
        // memory is about to be reused for other rows.
        qx_pmsg_release_client_values_1(p_record_data,
                                        sr_i_record_length(p_record_data - kHeader) - kHeader);
    }
    return sr_i_rb_free_record(&p_table->record_buffer_pool, p_record_data);
}

qx_int32_t sr_i_build_row_record(sr_i_table_t *p_table, char *p_current,
                                 qx_char_ptr_t *p_column_names, qx_value_t **p_p_values,
                                 qx_uint32_t total_values, qx_uint32_t length,
                                 sr_i_row_build_t *p_build, qx_value_t *p_key) {
    const qx_uint32_t total_columns = p_table->total_columns;
    const qx_uint32_t fixed = fixed_length(p_table);
    const bool setting = p_current != nullptr;
    const char *p_current_indirect =
        setting ? sr_i_row_indirect_area(p_current, total_columns) : nullptr;
    cu_iconv_t *p_handle = to_table_handle(p_table);

    // A set's first record starts as a copy of the current header and slots.
    char *p_record = p_current;
    char *p_previous = nullptr;
    char *p_indirect = nullptr;
    qx_uint32_t running = 0;
    qx_uint32_t used = 0;
    qx_int32_t rc =
        acquire_row_record(p_table, running, &length, &p_record, nullptr, &p_indirect, &p_previous);
    if (rc != 0) return rc;

    for (qx_uint32_t column = 0; column < total_columns;) {
        const sr_column_t &definition = p_table->p_columns[column];
        const bool pointer = sr_i_is_pointer_type(definition.type);
        char *p_slot = sr_i_row_slot(p_record, column);
        const qx_uint32_t room = length - fixed;
        bool short_of_room = false;
        qx_uint32_t needed = 0;  // indirect bytes known to be wanted, 0 when unknown
        qx_int64_t i = find_name(p_column_names, total_values, definition.name);
        if (i >= 0) {
            if (setting && (definition.qualifier & SR_PROTECTED)) {
                return SR_ERROR(SR_E_INVALID_COLUMN);
            }
            qx_value_t value;
            if (pointer) {
                sr_i_dup_nonscalar_value(definition.type, p_p_values[i], &value);
                int build_rc = qx_pmsg_build_conv_protocol_value_1(
                    p_handle, 0, definition.type, &value, p_slot, p_indirect, room, &running);
                if (build_rc == QX_PMSG_E_ROOM) {
                    short_of_room = true;
                } else if (build_rc != 0) {
                    return SR_ERROR_LIBCALL("qx_pmsg_build_conv_protocol_value", build_rc);
                }
            } else {
                std::memcpy(&value, p_p_values[i], sizeof value);
                std::memcpy(p_slot, &value, sizeof value);
            }
            if (!short_of_room) {
                if (column == 0 && p_key != nullptr) *p_key = value;
                ++used;
            }
        } else if (column == 0 && !setting) {
            return SR_ERROR(SR_E_NO_KEY);
        } else {
            // Left out: the default, or for a set the current value unless the
            // column is reset whenever a set leaves it out.
            qx_value_t source;
            const char *p_bytes = nullptr;
            qx_uint32_t bytes_length = 0;
            if (!setting || (definition.qualifier & SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED)) {
                sr_i_column_default(p_table, column, &source, &p_bytes, &bytes_length);
            } else {
                source = sr_i_load_slot(p_current, column);
                if (pointer) {
                    qx_pmsg_anchor_t anchor;
                    std::memcpy(&anchor, &source, sizeof anchor);
                    p_bytes = p_current_indirect + anchor.offset;
                    bytes_length = anchor.length;
                }
            }
            if (!pointer) {
                std::memcpy(p_slot, &source, sizeof source);
            } else if (sr_i_place_indirect_bytes(p_slot, p_indirect, room, &running, p_bytes,
                                                 bytes_length) != 0) {
                short_of_room = true;
                needed = bytes_length;
            }
        }
        if (!short_of_room) {
            ++column;
            continue;
        }
        // Twice the record found, or more when the bytes wanted are known to
        // need more; the same column is tried again in the larger record.
        length = grown(length, static_cast<qx_uint64_t>(fixed) + running + needed);
        if (length == 0) return SR_ERROR(SR_E_NO_MEMORY);
        rc = acquire_row_record(p_table, running, &length, &p_record, nullptr, &p_indirect,
                                &p_previous);
        if (rc != 0) return rc;
    }
    p_build->p_record = p_record;
    p_build->p_previous = p_previous;
    p_build->used_length = fixed + running;
    p_build->values_used = used;
    return 0;
}

qx_int32_t sr_i_common_add_change_entry(sr_i_table_t *p_table, sr_i_index_entry_t *p_index_entry,
                                        qx_uint32_t deletion) {
    auto *p_change = static_cast<sr_i_change_entry_t *>(p_index_entry->p_pending_change);
    if (p_change != nullptr && p_change->deletion == deletion) return 0;
    sr_i_change_entry_t **p_head =
        deletion ? &p_table->p_delete_rows_change_list : &p_table->p_rows_change_list;
    sr_i_change_entry_t **p_tail =
        deletion ? &p_table->p_delete_rows_change_list_tail : &p_table->p_rows_change_list_tail;
    if (p_change != nullptr) {
        // Pending on the other list: move it, so a row is on one list only.
        sr_i_change_entry_t **p_other_head =
            deletion ? &p_table->p_rows_change_list : &p_table->p_delete_rows_change_list;
        sr_i_change_entry_t **p_other_tail =
            deletion ? &p_table->p_rows_change_list_tail : &p_table->p_delete_rows_change_list_tail;
        if (p_change->p_prev != nullptr) {
            p_change->p_prev->p_next = p_change->p_next;
        } else {
            *p_other_head = p_change->p_next;
        }
        if (p_change->p_next != nullptr) {
            p_change->p_next->p_prev = p_change->p_prev;
        } else {
            *p_other_tail = p_change->p_prev;
        }
    } else {
        p_change = sr_i_new_change_entry(p_table);
        if (p_change == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    }
    p_change->deletion = deletion;
    p_change->p_index_entry = p_index_entry;
    p_change->p_next = nullptr;
    p_change->p_prev = *p_tail;
    if (*p_tail != nullptr) {
        (*p_tail)->p_next = p_change;
    } else {
        *p_head = p_change;
    }
    *p_tail = p_change;
    p_index_entry->p_pending_change = p_change;
    return 0;
}

qx_int32_t sr_i_add_change_entry(sr_i_table_t *p_table, sr_i_index_entry_t *p_index_entry) {
    return sr_i_common_add_change_entry(p_table, p_index_entry, 0);
}

qx_int32_t sr_i_add_row_raw(sr_i_table_t *p_table, qx_char_ptr_t p_record_data,
                            qx_value_t *p_input_key_value, sr_i_index_entry_t **p_p_new_index_entry,
                            sr_hash_table_element_t **p_p_existing_hash_table_element) {
    *p_p_existing_hash_table_element = nullptr;
    sr_i_index_entry_t *p_entry = sr_i_rows_free_chain_remove(p_table);
    if (p_entry == nullptr) {
        qx_int32_t rc = sr_i_grow_index(p_table, p_table->maximum_rows);
        if (rc != 0) return rc;
        p_entry = sr_i_rows_free_chain_remove(p_table);
        if (p_entry == nullptr) return SR_ERROR(SR_E_INTERNAL);
    }
    p_entry->p_applied = p_record_data;
    const qx_uint32_t key_qualifier = p_table->p_columns[0].qualifier;

    if (p_table->p_rows_hash_table == nullptr) {
        if ((key_qualifier & SR_QUALIFIER_BASE_MASK) == SR_PRIMARY_KEY) {
            bool exists = false;
            const qx_int32_t rc =
                sr_i_unique_key_check(p_table, p_input_key_value, p_entry, &exists);
            if (rc != 0 || exists) {
                sr_i_rows_free_chain_insert(p_table, p_entry);
                return rc != 0 ? rc : SR_ERROR(SR_E_DUPLICATE_KEY);
            }
        }
        sr_i_unique_key_note_row(p_table, p_entry);
        *p_p_new_index_entry = p_entry;
        return 0;
    }

    const qx_uint32_t fixed = static_cast<qx_uint32_t>(p_entry - p_table->p_rows_fixed_index);
    qx_uint32_t bucket = 0;
    sr_hash_table_element_t *p_element = nullptr;
    qx_int32_t rc =
        sr_i_hash_table_add(p_table->p_rows_hash_table, sr_i_row_key_value(p_table, p_record_data),
                            fixed, &bucket, &p_element, key_qualifier);
    if (rc == 0) {
        p_entry->hash_index = bucket;
        p_entry->p_hash_table_element = p_element;
        *p_p_new_index_entry = p_entry;
        return 0;
    }
    sr_i_rows_free_chain_insert(p_table, p_entry);
    if (rc != SR_E_DUPLICATE_KEY) return rc;
    // The key is there.  A row deleted since the last commit gives its slot
    // back to the key: the row is revived rather than added.
    sr_i_index_entry_t *p_existing = &p_table->p_rows_fixed_index[p_element->row_index];
    if (p_existing->p_applied != nullptr) return SR_ERROR(SR_E_DUPLICATE_KEY);
    p_existing->p_applied = p_record_data;
    *p_p_new_index_entry = p_existing;
    *p_p_existing_hash_table_element = p_element;
    return 0;
}

qx_int32_t sr_i_add_row(sr_i_table_t *p_table, qx_char_ptr_t *p_column_names,
                        qx_value_t **p_p_values, qx_uint32_t total_values) {
    if (p_table->ready_for_commit != 0) return SR_ERROR(SR_E_APPLIED_NOT_COMMITTED);
    qx_uint64_t guess = fixed_length(p_table) + 32ull * p_table->total_variable_length_columns;
    if (guess > UINT32_MAX / 2) return SR_ERROR(SR_E_NO_MEMORY);
    sr_i_row_build_t build{};
    qx_value_t key{};
    qx_int32_t rc =
        sr_i_build_row_record(p_table, nullptr, p_column_names, p_p_values, total_values,
                              static_cast<qx_uint32_t>(guess), &build, &key);
    if (rc != 0) return rc;
    if (build.values_used != total_values) return SR_ERROR(SR_E_NO_COLUMNS);
    char *p_record = build.p_record;

    sr_i_index_entry_t *p_entry = nullptr;
    sr_hash_table_element_t *p_existing = nullptr;
    rc = sr_i_add_row_raw(p_table, p_record, &key, &p_entry, &p_existing);
    if (rc != 0) return rc;

    // Undoes the attachment when a later step fails: the table is left
    // exactly as it was before the call.
    auto detach = [&]() {
        if (p_existing != nullptr) {
            p_entry->p_applied = nullptr;
            return;
        }
        if (p_entry->p_hash_table_element != nullptr) {
            sr_i_hash_table_remove_element(p_table->p_rows_hash_table, p_entry->hash_index,
                                           p_entry->p_hash_table_element);
        }
        sr_i_rows_free_chain_insert(p_table, p_entry);
    };

    rc = sr_i_rb_allocate_record(&p_table->record_buffer_pool, p_record, build.p_previous,
                                 build.used_length, SR_I_RECORD_TYPE_ROW);
    if (rc != 0) {
        detach();
        return rc;
    }
    rc = sr_i_add_change_entry(p_table, p_entry);
    if (rc != 0) {
        detach();
        sr_i_free_row_record(p_table, p_record);
        return rc;
    }
    // The record supersedes the committed version of a revived row.
    sr_i_store_u32(p_record, p_entry->p_committed != nullptr ? p_entry->file_offset : 0);
    if (p_existing == nullptr) {
        const qx_uint32_t position =
            static_cast<qx_uint32_t>(p_entry - p_table->p_rows_fixed_index);
        p_table->p_rows_packed_index[p_table->total_applied_rows] = position;
        p_entry->packed_index = p_table->total_applied_rows;
        ++p_table->total_applied_rows;
    } else if (p_table->applied_deletions > 0) {
        --p_table->applied_deletions;
    }
    return 0;
}
