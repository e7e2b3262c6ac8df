// Reading fields: which version of a row a reader sees, the values handed out
// (scalars copied, pointer values built by the value library and owned by
// the table), key comparison and lookup, and the list of rows with pending
// changes.  Readers change nothing: they run under the table's read lock,
// side by side with each other.
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "sr_i_hash_table.h"
#include "sr_i_pool.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_rows.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_i_get_values", "1.1");

namespace {

constexpr qx_uint32_t kHeader = SR_I_RECORD_HEADER_LENGTH;

template <typename T>
int order(T a, T b) {
    return a < b ? -1 : (b < a ? 1 : 0);
}

// The record a reader sees: the working version when the table or the call
// asks for uncommitted updates, else the committed one.
char *visible_record(const sr_i_table_t *p_table, const sr_i_index_entry_t &entry,
                     qx_uint32_t uncommitted_updates_visible) {
    const bool applied =
        p_table->uncommitted_updates_visible != 0 || uncommitted_updates_visible != 0;
    return applied ? entry.p_applied : entry.p_committed;
}

// One column of a record into the caller's value.  Pointer values are the
// table's (built once per slot and cached by the value library), bounded by
// the record's own indirect area.
qx_int32_t read_column(const sr_i_table_t *p_table, char *p_record, qx_uint32_t column,
                       qx_value_t *p_value) {
    const qx_data_type_t type = p_table->p_columns[column].type;
    const char *p_slot = sr_i_row_slot(p_record, column);
    if (!sr_i_is_pointer_type(type)) {
        std::memcpy(p_value, p_slot, sizeof *p_value);
        return 0;
    }
    const qx_int64_t record_length =
        static_cast<qx_int64_t>(sr_i_record_length(p_record - kHeader)) - kHeader;
    const qx_int64_t limit =
        record_length - 4 - 8 * static_cast<qx_int64_t>(p_table->total_columns);
    cu_iconv_t *p_handle = p_table->p_tree != nullptr
                               ? p_table->p_tree->p_from_table_string_conversion_handle
                               : nullptr;
    int rc = qx_pmsg_build_conv_packed_client_value_1(
        p_handle, 0, type, p_value, p_slot,
        sr_i_row_indirect_area(p_record, p_table->total_columns), limit < 0 ? 0 : limit);
    if (rc != 0) return SR_ERROR_LIBCALL("qx_pmsg_build_conv_packed_client_value", rc);
    return 0;
}

}  // namespace

qx_int32_t sr_i_compare_values(qx_value_t *p_value, const qx_pmsg_value_t *p_pmsg_value,
                               qx_data_type_t type, qx_char_ptr_t p_indirect_data) {
    qx_pmsg_value_t stored;
    std::memcpy(&stored, p_pmsg_value, sizeof stored);
    switch (type) {
        case QX_INT32:
            return order(p_value->val_int32, stored.val_int32);
        case QX_UINT32:
            return order(p_value->val_uint32, stored.val_uint32);
        case QX_INT64:
            return order(p_value->val_int64, stored.val_int64);
        case QX_UINT64:
            return order(p_value->val_uint64, stored.val_uint64);
        case QX_FLOAT32:
            // Unordered (NaN) compares equal: a NaN key matches any row.
            return order(p_value->val_float32, stored.val_float32);
        case QX_FLOAT64:
            return order(p_value->val_float64, stored.val_float64);
        case QX_CHAR_PTR:
            if (p_value->ptr_char == nullptr) return -1;
            return std::strcmp(p_value->ptr_char, p_indirect_data + stored.anchor.offset);
        case QX_RSRC_HANDLE_PTR:
            if (p_value->ptr_rsrc_handle == nullptr) return -1;
            return cu_rsrc_hndl_cmp_1(p_value->ptr_rsrc_handle,
                                      p_indirect_data + stored.anchor.offset);
        default:
            // Binary, structured data and arrays have no order: never equal.
            return -1;
    }
}

qx_int32_t sr_i_find_column(const sr_i_table_t *p_table, const char *p_column_name) {
    if (p_column_name == nullptr) return -1;
    for (qx_uint32_t c = 0; c < p_table->total_columns; ++c) {
        if (std::strcmp(p_table->p_columns[c].name, p_column_name) == 0) {
            return static_cast<qx_int32_t>(c);
        }
    }
    return -1;
}

qx_int32_t sr_i_get_values_for_fixed_index(sr_i_table_t *p_table, qx_uint32_t fixed_row_index,
                                           qx_char_ptr_t *p_column_names, qx_value_t **p_values,
                                           qx_uint32_t total_values,
                                           qx_uint32_t uncommitted_updates_visible,
                                           sr_row_state_t *p_row_state) {
    SR_I_ASSERT_LOCKED(&p_table->lock);
    if (fixed_row_index >= p_table->maximum_rows) return SR_ERROR(SR_E_NO_ROW_FOR_INDEX);
    // The state tells the caller about both versions, whichever one it sees
    // and whether or not it could see one at all.
    if (p_row_state != nullptr) {
        *p_row_state = sr_i_get_row_state_for_fixed_index(p_table, fixed_row_index);
    }
    char *p_record = visible_record(p_table, p_table->p_rows_fixed_index[fixed_row_index],
                                    uncommitted_updates_visible);
    if (p_record == nullptr) return SR_ERROR(SR_E_ROW_DELETED);
    for (qx_uint32_t i = 0; i < total_values; ++i) {
        qx_int32_t column = sr_i_find_column(p_table, p_column_names[i]);
        if (column < 0) return SR_ERROR(SR_E_INVALID_COLUMN);
        qx_int32_t rc =
            read_column(p_table, p_record, static_cast<qx_uint32_t>(column), p_values[i]);
        if (rc != 0) return rc;
    }
    return 0;
}

qx_int32_t sr_i_get_value_for_fixed_index(sr_i_table_t *p_table, qx_uint32_t fixed_row_index,
                                          qx_char_ptr_t p_column_name, qx_value_t *p_value,
                                          qx_uint32_t uncommitted_updates_visible,
                                          sr_row_state_t *p_row_state) {
    SR_I_ASSERT_LOCKED(&p_table->lock);
    if (fixed_row_index >= p_table->maximum_rows) return SR_ERROR(SR_E_NO_ROW_FOR_INDEX);
    // The one-value path of sr_i_get_values_for_fixed_index, looking the
    // column up once: this is the path of every lookup by key.
    const qx_int32_t column = sr_i_find_column(p_table, p_column_name);
    if (p_row_state != nullptr) {
        *p_row_state = sr_i_get_row_state_for_fixed_index(p_table, fixed_row_index);
    }
    if (column < 0) return SR_ERROR(SR_E_INVALID_COLUMN);
    char *p_record = visible_record(p_table, p_table->p_rows_fixed_index[fixed_row_index],
                                    uncommitted_updates_visible);
    if (p_record == nullptr) return SR_ERROR(SR_E_ROW_DELETED);
    return read_column(p_table, p_record, static_cast<qx_uint32_t>(column), p_value);
}

qx_int32_t sr_i_get_value_for_packed_index(sr_i_table_t *p_table, qx_uint32_t row_index,
                                           qx_char_ptr_t p_column_name, qx_value_t *p_value,
                                           qx_uint32_t uncommitted_updates_visible,
                                           sr_row_state_t *p_row_state) {
    qx_uint32_t fixed = 0;
    qx_int32_t rc = sr_i_fixed_row_index_for_packed_index(p_table, row_index, &fixed);
    if (rc != 0) return rc;
    return sr_i_get_value_for_fixed_index(p_table, fixed, p_column_name, p_value,
                                          uncommitted_updates_visible, p_row_state);
}

qx_int32_t sr_i_get_values_for_packed_index(sr_i_table_t *p_table, qx_uint32_t row_index,
                                            qx_char_ptr_t *p_column_names, qx_value_t **p_values,
                                            qx_uint32_t total_values,
                                            qx_uint32_t uncommitted_updates_visible,
                                            sr_row_state_t *p_row_state) {
    qx_uint32_t fixed = 0;
    qx_int32_t rc = sr_i_fixed_row_index_for_packed_index(p_table, row_index, &fixed);
    if (rc != 0) return rc;
    return sr_i_get_values_for_fixed_index(p_table, fixed, p_column_names, p_values, total_values,
                                           uncommitted_updates_visible, p_row_state);
}

qx_int32_t sr_i_get_value_for_key(sr_i_table_t *p_table, qx_value_t row_key,
                                  qx_char_ptr_t p_column_name, qx_value_t *p_value,
                                  qx_uint32_t uncommitted_updates_visible,
                                  sr_row_state_t *p_row_state) {
    qx_uint32_t fixed = 0;
    qx_int32_t rc = sr_i_get_fixed_row_index_for_key(p_table, row_key, &fixed);
    if (rc != 0) return rc;
    return sr_i_get_value_for_fixed_index(p_table, fixed, p_column_name, p_value,
                                          uncommitted_updates_visible, p_row_state);
}

qx_int32_t sr_i_get_values_for_key(sr_i_table_t *p_table, qx_value_t row_key,
                                   qx_char_ptr_t *p_column_names, qx_value_t **p_values,
                                   qx_uint32_t total_values,
                                   qx_uint32_t uncommitted_updates_visible,
                                   sr_row_state_t *p_row_state) {
    qx_uint32_t fixed = 0;
    qx_int32_t rc = sr_i_get_fixed_row_index_for_key(p_table, row_key, &fixed);
    if (rc != 0) return rc;
    return sr_i_get_values_for_fixed_index(p_table, fixed, p_column_names, p_values, total_values,
                                           uncommitted_updates_visible, p_row_state);
}

qx_int32_t sr_i_fixed_row_index_for_packed_index(const sr_i_table_t *p_table, qx_uint32_t row_index,
                                                 qx_uint32_t *p_fixed_row_index) {
    if (row_index >= p_table->total_applied_rows) return SR_ERROR(SR_E_NO_ROW_FOR_INDEX);
    *p_fixed_row_index = p_table->p_rows_packed_index[row_index];
    return 0;
}

qx_int32_t sr_i_get_fixed_row_index_for_key(sr_i_table_t *p_table, qx_value_t row_key,
                                            qx_uint32_t *p_fixed_row_index) {
    SR_I_ASSERT_LOCKED(&p_table->lock);
    const qx_data_type_t key_type = p_table->p_columns[0].type;
    if (p_table->p_rows_hash_table != nullptr) {
        const void *p_key = sr_i_is_pointer_type(key_type)
                                ? static_cast<const void *>(row_key.ptr_char)
                                : static_cast<const void *>(&row_key);
        if (p_key == nullptr) return SR_ERROR(SR_E_NO_ROW_FOR_KEY);
        return sr_i_hash_table_find_row(p_table->p_rows_hash_table, p_key, p_fixed_row_index,
                                        p_table->p_rows_fixed_index, sizeof(sr_i_index_entry_t));
    }
    // Committed keys first, whatever the visibility: a row deleted but not
    // yet committed is still found, and a changed key by its committed value.
    for (qx_uint32_t k = 0; k < p_table->total_applied_rows; ++k) {
        const qx_uint32_t fixed = p_table->p_rows_packed_index[k];
        const sr_i_index_entry_t &entry = p_table->p_rows_fixed_index[fixed];
        char *p_record = entry.p_committed != nullptr ? entry.p_committed : entry.p_applied;
        // A row added and deleted in this transaction keeps its slot with
        // neither record until commit or abort.
        if (p_record == nullptr) continue;
        const auto *p_slot = reinterpret_cast<const qx_pmsg_value_t *>(sr_i_row_slot(p_record, 0));
        if (sr_i_compare_values(&row_key, p_slot, key_type,
                                sr_i_row_indirect_area(p_record, p_table->total_columns)) == 0) {
            *p_fixed_row_index = fixed;
            return 0;
        }
    }
    return SR_ERROR(SR_E_NO_ROW_FOR_KEY);
}

qx_int32_t sr_i_get_updated_rows(sr_i_table_t *p_table, qx_uint32_t *p_updated_rows_count,
                                 qx_uint32_t **p_p_updated_rows_fixed_indices) {
    SR_I_ASSERT_LOCKED(&p_table->lock);
    qx_uint32_t updated = 0;
    qx_uint32_t deleted = 0;
    for (sr_i_change_entry_t *p = p_table->p_rows_change_list; p != nullptr; p = p->p_next) {
        ++updated;
    }
    for (sr_i_change_entry_t *p = p_table->p_delete_rows_change_list; p != nullptr; p = p->p_next) {
        ++deleted;
    }
    if (updated + deleted == 0) {
        *p_p_updated_rows_fixed_indices = nullptr;
        *p_updated_rows_count = 0;
        return 0;
    }
    auto *p_indices = static_cast<qx_uint32_t *>(
        sr_i_malloc(sizeof(qx_uint32_t) * (static_cast<size_t>(updated) + deleted)));
    if (p_indices == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    qx_uint32_t n = 0;
    for (sr_i_change_entry_t *p_list :
         {p_table->p_rows_change_list, p_table->p_delete_rows_change_list}) {
        for (sr_i_change_entry_t *p = p_list; p != nullptr; p = p->p_next) {
            p_indices[n++] =
                static_cast<qx_uint32_t>(p->p_index_entry - p_table->p_rows_fixed_index);
        }
    }
    // The count covers the added and updated rows only; the deleted rows
    // follow them in the array.  Callers have always read it this way.
    *p_updated_rows_count = updated;
    *p_p_updated_rows_fixed_indices = p_indices;
    return 0;
}
