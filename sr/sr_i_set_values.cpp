// Writing fields: a change never edits a record in place.  It builds a new
// row record from the caller's values and the row's working version, makes it
// the working version and queues the row; the committed version stays as it
// is until commit, for readers that see committed data and for abort.
//
// As with adding, the new record is built inside a free pool record that is
// only found, and taken at its exact length once every column is in place:
// a set that fails before that leaves the table exactly as it was.
#include <cstdint>
#include <cstring>

#include "sr_i_pool.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_rows.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_i_set_values", "1.1");

namespace {

constexpr qx_uint32_t kHeader = SR_I_RECORD_HEADER_LENGTH;

qx_int64_t find_name(qx_char_ptr_t *p_column_names, qx_uint32_t total_values, const char *p_name) {
    for (qx_uint32_t i = 0; i < total_values; ++i) {
        if (std::strcmp(p_column_names[i], p_name) == 0) return i;
    }
    return -1;
}

// `length` grown by `more`, or 0 when that no longer fits a record.
qx_uint32_t grown(qx_uint32_t length, qx_uint32_t more) {
    return length <= UINT32_MAX - kHeader - more ? length + more : 0;
}

}  // namespace

qx_int32_t sr_i_set_values_for_fixed_index(sr_i_table_t *p_table, qx_uint32_t fixed_row_index,
                                           qx_char_ptr_t *p_column_names, qx_value_t **p_p_values,
                                           qx_uint32_t total_values) {
    SR_I_ASSERT_WRITE_LOCKED(&p_table->lock);
    if (p_table->ready_for_commit != 0) return SR_ERROR(SR_E_APPLIED_NOT_COMMITTED);
    if (fixed_row_index >= p_table->maximum_rows) return SR_ERROR(SR_E_NO_ROW_FOR_INDEX);
    sr_i_index_entry_t *p_entry = &p_table->p_rows_fixed_index[fixed_row_index];
    // Sets always start from the working version, whatever readers see.
    char *p_current = p_entry->p_applied;
    if (p_current == nullptr) return SR_ERROR(SR_E_ROW_DELETED);

    const qx_uint32_t total_columns = p_table->total_columns;
    const qx_uint32_t fixed = 4 + 8 * total_columns;
    char *p_current_indirect = sr_i_row_indirect_area(p_current, total_columns);
    cu_iconv_t *p_handle =
        p_table->p_tree != nullptr ? p_table->p_tree->p_to_table_string_conversion_handle : nullptr;

    qx_uint32_t usable = sr_i_record_length(p_current - kHeader) - kHeader;
    qx_uint32_t length = grown(usable, usable);
    if (length == 0) return SR_ERROR(SR_E_NO_MEMORY);
    char *p_record = p_current;
    char *p_indirect = nullptr;
    char *p_previous = nullptr;
    qx_uint32_t running = 0;
    // The first record found starts as a copy of the header and slots.
    qx_int32_t rc =
        acquire_row_record(p_table, running, &length, &p_record, nullptr, &p_indirect, &p_previous);
    if (rc != 0) return rc;

    qx_uint32_t used = 0;
    for (qx_uint32_t column = 0; column < total_columns;) {
        const sr_column_t &definition = p_table->p_columns[column];
        const bool pointer = sr_i_is_pointer_type(definition.type);
        char *p_slot = sr_i_row_slot(p_record, column);
        const qx_uint32_t room = length - fixed;
        qx_uint32_t more = 0;  // bytes to grow by before trying this column again
        qx_int64_t i = find_name(p_column_names, total_values, definition.name);
        if (i >= 0) {
            if (definition.qualifier & SR_PROTECTED) return SR_ERROR(SR_E_INVALID_COLUMN);
            if (pointer) {
                qx_value_t value;
                sr_i_dup_nonscalar_value(definition.type, p_p_values[i], &value);
                int build_rc = qx_pmsg_build_conv_protocol_value_1(
                    p_handle, 0, definition.type, &value, p_slot, p_indirect, room, &running);
                if (build_rc == QX_PMSG_E_ROOM) {
                    more = length;
                } else if (build_rc != 0) {
                    return SR_ERROR_LIBCALL("qx_pmsg_build_conv_protocol_value", build_rc);
                }
            } else {
                std::memcpy(p_slot, p_p_values[i], sizeof(qx_value_t));
            }
            if (more == 0) ++used;
        } else {
            // Left out: the current value, or the default for a column that
            // is reset whenever a set leaves it out.
            qx_value_t source;
            const char *p_bytes = nullptr;
            qx_uint32_t bytes_length = 0;
            if (definition.qualifier & SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED) {
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
                more = bytes_length != 0 ? bytes_length : 8;
            }
        }
        if (more == 0) {
            ++column;
            continue;
        }
        length = grown(length, more);
        if (length == 0) return SR_ERROR(SR_E_NO_MEMORY);
        rc = acquire_row_record(p_table, running, &length, &p_record, nullptr, &p_indirect,
                                &p_previous);
        if (rc != 0) return rc;
    }
    // Setting reports an unknown or repeated name as an unknown column,
    // where adding a row says 104: callers tell the two apart.
    if (used != total_values) return SR_ERROR(SR_E_INVALID_COLUMN);

    sr_i_store_u32(p_record, p_entry->file_offset);
    rc = sr_i_rb_allocate_record(&p_table->record_buffer_pool, p_record, p_previous,
                                 fixed + running, SR_I_RECORD_TYPE_ROW);
    if (rc != 0) return rc;

    if (p_current != p_entry->p_committed) {
        // A pending version is replaced.  The hashed key index points into
        // a row's only record while it has no committed one: the pointer
        // follows the key into the new record (keeping its bucket).
        if (p_entry->p_committed == nullptr && p_table->p_rows_hash_table != nullptr &&
            p_entry->p_hash_table_element != nullptr) {
            p_entry->p_hash_table_element->p_key_value = sr_i_row_key_value(p_table, p_record);
        }
        rc = sr_i_free_row_record(p_table, p_current);
        if (rc != 0) return rc;
    }
    rc = sr_i_add_change_entry(p_table, p_entry);
    if (rc != 0) {
        sr_i_free_row_record(p_table, p_record);
        return rc;
    }
    p_entry->p_applied = p_record;
    return 0;
}

qx_int32_t sr_i_set_value_for_fixed_index(sr_i_table_t *p_table, qx_uint32_t fixed_row_index,
                                          qx_char_ptr_t p_column_name, qx_value_t *p_value) {
    return sr_i_set_values_for_fixed_index(p_table, fixed_row_index, &p_column_name, &p_value, 1);
}

qx_int32_t sr_i_set_values_for_packed_index(sr_i_table_t *p_table, qx_uint32_t row_index,
                                            qx_char_ptr_t *p_column_names, qx_value_t **p_p_values,
                                            qx_uint32_t total_values) {
    if (row_index >= p_table->total_applied_rows) return SR_ERROR(SR_E_NO_ROW_FOR_INDEX);
    return sr_i_set_values_for_fixed_index(p_table, p_table->p_rows_packed_index[row_index],
                                           p_column_names, p_p_values, total_values);
}

qx_int32_t sr_i_set_value_for_packed_index(sr_i_table_t *p_table, qx_uint32_t row_index,
                                           qx_char_ptr_t p_column_name, qx_value_t *p_value) {
    return sr_i_set_values_for_packed_index(p_table, row_index, &p_column_name, &p_value, 1);
}

qx_int32_t sr_i_set_values_for_key(sr_i_table_t *p_table, qx_value_t row_key,
                                   qx_char_ptr_t *p_column_names, qx_value_t **p_p_values,
                                   qx_uint32_t total_values) {
    qx_uint32_t fixed = 0;
    qx_int32_t rc = sr_i_get_fixed_row_index_for_key(p_table, row_key, &fixed);
    if (rc != 0) return rc;
    return sr_i_set_values_for_fixed_index(p_table, fixed, p_column_names, p_p_values,
                                           total_values);
}

qx_int32_t sr_i_set_value_for_key(sr_i_table_t *p_table, qx_value_t row_key,
                                  qx_char_ptr_t p_column_name, qx_value_t *p_value) {
    return sr_i_set_values_for_key(p_table, row_key, &p_column_name, &p_value, 1);
}
