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

    qx_uint32_t usable = sr_i_record_length(p_current - kHeader) - kHeader;
    if (usable > (UINT32_MAX - kHeader) / 2) return SR_ERROR(SR_E_NO_MEMORY);
    sr_i_row_build_t build{};
    qx_int32_t rc = sr_i_build_row_record(p_table, p_current, p_column_names, p_p_values,
                                          total_values, 2 * usable, &build, nullptr);
    if (rc != 0) return rc;
    // Setting reports an unknown or repeated name as an unknown column,
    // where adding a row says 104: callers tell the two apart.
    if (build.values_used != total_values) return SR_ERROR(SR_E_INVALID_COLUMN);

    char *p_record = build.p_record;
    sr_i_store_u32(p_record, p_entry->file_offset);
    rc = sr_i_rb_allocate_record(&p_table->record_buffer_pool, p_record, build.p_previous,
                                 build.used_length, SR_I_RECORD_TYPE_ROW);
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
    sr_i_unique_key_note_row(p_table, p_entry);
    return 0;
}

qx_int32_t sr_i_set_value_for_fixed_index(sr_i_table_t *p_table, qx_uint32_t fixed_row_index,
                                          qx_char_ptr_t p_column_name, qx_value_t *p_value) {
    return sr_i_set_values_for_fixed_index(p_table, fixed_row_index, &p_column_name, &p_value, 1);
}

qx_int32_t sr_i_set_values_for_packed_index(sr_i_table_t *p_table, qx_uint32_t row_index,
                                            qx_char_ptr_t *p_column_names, qx_value_t **p_p_values,
                                            qx_uint32_t total_values) {
    qx_uint32_t fixed = 0;
    qx_int32_t rc = sr_i_fixed_row_index_for_packed_index(p_table, row_index, &fixed);
    if (rc != 0) return rc;
    return sr_i_set_values_for_fixed_index(p_table, fixed, p_column_names, p_p_values,
                                           total_values);
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
