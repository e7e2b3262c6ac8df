// Selection: formatting a selection string with its typed `$` values,
// compiling it against a table's columns, and the rows it chooses - their
// fixed indices, a new unnamed table holding copies of them, or their
// deletion - plus the rows that share one key.
//
// Rows are evaluated in place: the expression reads the record's slots and
// its indirect area straight from the pool, bounded by the record's own
// length, so a scan allocates nothing per row.
#include <stdlib.h>
#include <string.h>

#include "sr_i_hash_table.h"
#include "sr_i_pool.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_rows.h"
#include "sr_i_select.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_i_select", "1.1");

namespace {

constexpr qx_uint32_t kHeader = SR_I_RECORD_HEADER_LENGTH;
constexpr qx_uint32_t kResultStep = 4096;

// Bytes of a record's indirect area: what its length leaves after the
// replaces word and the slots.
qx_int64_t indirect_length(const char *p_record, qx_uint32_t total_columns) {
    const qx_int64_t length = static_cast<qx_int64_t>(sr_i_record_length(p_record - kHeader)) -
                              kHeader - 4 - 8 * static_cast<qx_int64_t>(total_columns);
    return length < 0 ? 0 : length;
}

// One row against a compiled expression: 0 with *p_match, or 11 naming the
// evaluator for a real failure.  The per-row outcomes (a comparison this row
// cannot make, an arithmetic fault, a missing element) are no match.
qx_int32_t evaluate(const sr_i_table_t *p_table, void *p_compiled, char *p_record,
                    qx_int32_t *p_match) {
    *p_match = 0;
    int rc = cu_exec_expr_bounded_1(static_cast<cu_expr_t *>(p_compiled), CU_EXPR_PROTOCOL_ROW,
                                    sr_i_row_slot(p_record, 0), p_table->total_columns, p_match,
                                    sr_i_row_indirect_area(p_record, p_table->total_columns),
                                    indirect_length(p_record, p_table->total_columns));
    if (rc == CU_EXPR_TYPE_MISMATCH || rc == CU_EXPR_ARITHMETIC || rc == CU_EXPR_NO_ELEMENT) {
        *p_match = 0;
        return 0;
    }
    if (rc != 0) return SR_ERROR_LIBCALL("cu_exec_expr", rc);
    return 0;
}

cu_iconv_t *to_table_handle(const sr_i_table_t *p_table) {
    return p_table->p_tree != nullptr ? p_table->p_tree->p_to_table_string_conversion_handle
                                      : nullptr;
}

// Frees a compiled expression at the end of a scope.
struct CompiledGuard {
    void *p = nullptr;
    ~CompiledGuard() { cu_free_expr_1(static_cast<cu_expr_t *>(p)); }
};

// Appends the text of one number formatted by snprintf.
template <typename T>
qx_int32_t append_number(qx_uint32_t *p_current, qx_uint32_t *p_max, qx_char_ptr_t *p_result,
                         qx_char_ptr_t *p_to, const char *p_format, T value) {
    char local[64];
    int n = snprintf(local, sizeof local, p_format, value);
    if (n < 0 || static_cast<size_t>(n) >= sizeof local) return SR_ERROR(SR_E_INTERNAL);
    return sr_i_append_buffer_to_result(p_current, p_max, static_cast<qx_uint32_t>(n), p_result,
                                        p_to, local);
}

qx_int32_t append_text(qx_uint32_t *p_current, qx_uint32_t *p_max, qx_char_ptr_t *p_result,
                       qx_char_ptr_t *p_to, const char *p_text, size_t length) {
    if (length > UINT32_MAX / 2) return SR_ERROR(SR_E_NO_MEMORY);
    return sr_i_append_buffer_to_result(p_current, p_max, static_cast<qx_uint32_t>(length),
                                        p_result, p_to, const_cast<char *>(p_text));
}

char upper(char c) {
    return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}

}  // namespace

qx_int32_t sr_i_append_buffer_to_result(qx_uint32_t *currentResultBytes,
                                        qx_uint32_t *maxResultBytes, qx_uint32_t length,
                                        qx_char_ptr_t *result, qx_char_ptr_t *to,
                                        qx_char_ptr_t buffer) {
    const qx_uint64_t needed = static_cast<qx_uint64_t>(*currentResultBytes) + length;
    if (needed > *maxResultBytes) {
        qx_uint64_t room = *maxResultBytes;
        while (room < needed) room += kResultStep;
        if (room > UINT32_MAX) return SR_ERROR(SR_E_NO_MEMORY);
        const size_t written = static_cast<size_t>(*to - *result);
        char *p_grown = static_cast<char *>(sr_i_realloc(*result, static_cast<size_t>(room)));
        if (p_grown == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
        *result = p_grown;
        *to = p_grown + written;
        *maxResultBytes = static_cast<qx_uint32_t>(room);
    }
    if (buffer != nullptr) {
        if (length != 0) memcpy(*to, buffer, length);
        *to += length;
        *currentResultBytes += length;
    }
    return 0;
}

qx_int32_t sr_i_select_printf(qx_char_ptr_t *result, qx_char_ptr_t selectionCriteria, va_list ap) {
    *result = nullptr;
    qx_uint32_t current = 0;
    qx_uint32_t max = kResultStep;
    char *p_result = static_cast<char *>(sr_i_malloc(max));
    if (p_result == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    char *p_to = p_result;
    const char *p = selectionCriteria;
    qx_int32_t rc = 0;
    while (rc == 0 && *p != '\0') {
        const char *p_dollar = strchr(p, '$');
        if (p_dollar == nullptr) {
            rc = append_text(&current, &max, &p_result, &p_to, p, strlen(p));
            break;
        }
        if (p_dollar != p) {
            rc =
                append_text(&current, &max, &p_result, &p_to, p, static_cast<size_t>(p_dollar - p));
            if (rc != 0) break;
        }
        const char item = upper(p_dollar[1]);
        p = p_dollar + 2;
        switch (item) {
            case '"':
            case '\'':
                // A quote after `$` is text: both characters stay as written.
                rc = append_text(&current, &max, &p_result, &p_to, p_dollar, 2);
                break;
            case 'I':
                rc = append_number(&current, &max, &p_result, &p_to, "%-d", va_arg(ap, qx_int32_t));
                break;
            case 'L':
                rc = append_number(&current, &max, &p_result, &p_to, "%-lld",
                                   static_cast<long long>(va_arg(ap, qx_int64_t)));
                break;
            case 'U': {
                const char width = upper(p_dollar[2]);
                if (width == 'I') {
                    rc = append_number(&current, &max, &p_result, &p_to, "%-u",
                                       va_arg(ap, qx_uint32_t));
                } else if (width == 'L') {
                    rc = append_number(&current, &max, &p_result, &p_to, "%-llu",
                                       static_cast<unsigned long long>(va_arg(ap, qx_uint64_t)));
                } else {
                    rc = SR_ERROR_TEXT(SR_E_INVALID_SUBSTITUTION, selectionCriteria);
                    break;
                }
                ++p;
                break;
            }
            case 'F':
                // Single precision arrives promoted; six decimals on purpose,
                // unlike $D.
                rc = append_number(&current, &max, &p_result, &p_to, "%-f", va_arg(ap, double));
                break;
            case 'D':
                rc = append_number(&current, &max, &p_result, &p_to, "%-g", va_arg(ap, double));
                break;
            case 'S': {
                const char *p_text = va_arg(ap, char *);
                if (p_text == nullptr) p_text = "";
                rc = append_text(&current, &max, &p_result, &p_to, "\"", 1);
                if (rc == 0)
                    rc = append_text(&current, &max, &p_result, &p_to, p_text, strlen(p_text));
                if (rc == 0) rc = append_text(&current, &max, &p_result, &p_to, "\"", 1);
                break;
            }
            case 'B': {
                const qx_binary_t *p_binary = va_arg(ap, qx_binary_t *);
                qx_uint32_t length = 0;
                if (p_binary != nullptr) memcpy(&length, &p_binary->length, sizeof length);
                rc = append_text(&current, &max, &p_result, &p_to, "\"0x", 3);
                for (qx_uint32_t i = 0; rc == 0 && i < length; ++i) {
                    rc = append_number(&current, &max, &p_result, &p_to, "%.2x",
                                       static_cast<unsigned>(p_binary->data[i]));
                }
                if (rc == 0) rc = append_text(&current, &max, &p_result, &p_to, "\"", 1);
                break;
            }
            case 'R': {
                if (upper(p_dollar[2]) != 'H') {
                    rc = SR_ERROR_TEXT(SR_E_INVALID_SUBSTITUTION, selectionCriteria);
                    break;
                }
                ++p;
                const void *p_handle = va_arg(ap, void *);
                if (p_handle == nullptr) p_handle = cu_ptr_invld_rsrc_hndl_1;
                // Two 16-bit fields as they lie in memory, then four words.
                const char *p_bytes = static_cast<const char *>(p_handle);
                qx_uint16_t field1;
                qx_uint16_t field2;
                memcpy(&field1, p_bytes, 2);
                memcpy(&field2, p_bytes + 2, 2);
                char local[80];
                snprintf(local, sizeof local, "\"0x%04x 0x%04x 0x%08x 0x%08x 0x%08x 0x%08x\"",
                         static_cast<unsigned>(field1), static_cast<unsigned>(field2),
                         sr_i_load_u32(p_bytes + 4), sr_i_load_u32(p_bytes + 8),
                         sr_i_load_u32(p_bytes + 12), sr_i_load_u32(p_bytes + 16));
                rc = append_text(&current, &max, &p_result, &p_to, local, strlen(local));
                break;
            }
            default:
                // Any other letter, and a `$` that ends the string.
                rc = SR_ERROR_TEXT(SR_E_INVALID_SUBSTITUTION, selectionCriteria);
                break;
        }
    }
    if (rc == 0) rc = sr_i_append_buffer_to_result(&current, &max, 1, &p_result, &p_to, nullptr);
    if (rc != 0) {
        free(p_result);
        return rc;
    }
    *p_to = '\0';
    *result = p_result;
    return 0;
}

qx_int32_t sr_i_validate_column_callback(void *token, qx_char_t *p_name, qx_uint32_t /*length*/,
                                         qx_uint32_t parent_id, cu_validate_data_t *p_return_data) {
    const sr_i_table_t *p_table = static_cast<const sr_i_table_t *>(token);
    if (parent_id == CU_EXPR_TOP_LEVEL) {
        for (qx_uint32_t c = 0; c < p_table->total_columns; ++c) {
            if (strcmp(p_table->p_columns[c].name, p_name) == 0) {
                p_return_data->type = p_table->p_columns[c].type;
                p_return_data->id = c;
                return 0;
            }
        }
        return -1;
    }
    if (parent_id >= p_table->total_columns) return -1;
    // The field definitions lie packed in the metadata record: a count, then
    // per field its type word and its name with the NUL, unaligned.
    const char *p_def = reinterpret_cast<const char *>(p_table->p_columns[parent_id].sd_defn);
    if (p_def == nullptr) return -1;
    const qx_uint32_t count = sr_i_load_u32(p_def);
    const char *p_field = p_def + 4;
    for (qx_uint32_t f = 0; f < count; ++f) {
        const char *p_field_name = p_field + 4;
        if (strcmp(p_field_name, p_name) == 0) {
            p_return_data->type = static_cast<qx_data_type_t>(sr_i_load_u32(p_field));
            p_return_data->id = f;
            return 0;
        }
        p_field = p_field_name + strlen(p_field_name) + 1;
    }
    return -1;
}

qx_int32_t sr_i_compile_expression(qx_char_ptr_t p_selection_criteria, sr_i_table_t *p_table,
                                   void **p_compiled_expression,
                                   cu_iconv_t *p_string_conversion_handle) {
    *p_compiled_expression = nullptr;
    if (p_string_conversion_handle == nullptr) return SR_ERROR(SR_E_INTERNAL);
    char *p_converted = nullptr;
    int rc = cu_iconv_str_1(p_string_conversion_handle, 0, p_selection_criteria, &p_converted);
    if (rc != 0) return SR_ERROR_LIBCALL("cu_iconv_str", rc);
    cu_expr_t *p_compiled = nullptr;
    rc = cu_comp_expr_1(p_converted, 0, sr_i_validate_column_callback, p_table, &p_compiled);
    free(p_converted);
    if (rc != 0) {
        // The expression library's own record (position and reason) is
        // replaced by the registry's; it goes to the error trace first.
        cu_error_t *p_error = nullptr;
        char *p_message = nullptr;
        if (cu_get_error_1(&p_error) == 0 && cu_get_errmsg_1(p_error, &p_message) == 0 &&
            Sr_Trace_Level_Of_Detail[SR_TRACE_ERRORS] != 0) {
            tr_record_fmt_string_1(SR_TRACE_COMPONENT, TR_CATEGORY_ALWAYS, "DV|select|%s",
                                   p_message);
        }
        cu_rel_errmsg_1(p_message);
        cu_rel_error_1(p_error);
        return SR_ERROR_LIBCALL("cu_comp_expr", rc);
    }
    *p_compiled_expression = p_compiled;
    return 0;
}

qx_int32_t sr_i_delete_rows_matching(sr_i_table_t *p_table, qx_char_ptr_t p_selection_criteria) {
    SR_I_ASSERT_WRITE_LOCKED(&p_table->lock);
    CompiledGuard compiled;
    qx_int32_t rc = sr_i_compile_expression(p_selection_criteria, p_table, &compiled.p,
                                            to_table_handle(p_table));
    if (rc != 0) return rc;
    const qx_uint32_t live = p_table->total_applied_rows - p_table->applied_deletions;
    qx_uint32_t seen = 0;
    for (qx_uint32_t f = 0; f < p_table->maximum_rows && seen < live; ++f) {
        sr_i_index_entry_t *p_entry = &p_table->p_rows_fixed_index[f];
        if (p_entry->p_applied == nullptr) continue;
        ++seen;
        qx_int32_t match = 0;
        rc = evaluate(p_table, compiled.p, p_entry->p_applied, &match);
        if (rc != 0) return rc;
        if (match == 0) continue;
        // Deletions made so far stay pending if a later one fails.
        rc = sr_i_delete_row(p_table, p_entry);
        if (rc != 0) return rc;
    }
    return 0;
}

qx_int32_t sr_i_get_selected_rows(sr_i_table_t *p_table, qx_char_ptr_t p_selection_criteria,
                                  qx_uint32_t uncommitted_updates_visible,
                                  qx_uint32_t *p_total_selected_rows,
                                  qx_uint32_t **p_p_selected_rows_fixed_index) {
    SR_I_ASSERT_LOCKED(&p_table->lock);
    const bool committed_view =
        uncommitted_updates_visible == 0 && p_table->uncommitted_updates_visible == 0;
    const qx_uint32_t rows = committed_view
                                 ? p_table->total_committed_rows
                                 : p_table->total_applied_rows - p_table->applied_deletions;
    auto *p_indices = static_cast<qx_uint32_t *>(
        sr_i_malloc(sizeof(qx_uint32_t) * (rows != 0 ? static_cast<size_t>(rows) : 1)));
    if (p_indices == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    CompiledGuard compiled;
    if (p_selection_criteria != nullptr) {
        qx_int32_t rc = sr_i_compile_expression(p_selection_criteria, p_table, &compiled.p,
                                                to_table_handle(p_table));
        if (rc != 0) {
            free(p_indices);
            return rc;
        }
    }
    qx_uint32_t seen = 0;
    qx_uint32_t selected = 0;
    // The records a few slots on are fetched while this one is evaluated:
    // the scan waits on memory, not on the evaluation.
    constexpr qx_uint32_t kAhead = 16;
    const qx_uint32_t slots = p_table->maximum_rows;
    for (qx_uint32_t f = 0; f < slots && seen < rows; ++f) {
        if (f + kAhead < slots) {
            const sr_i_index_entry_t &ahead = p_table->p_rows_fixed_index[f + kAhead];
            const char *p_ahead = ahead.p_applied != nullptr ? ahead.p_applied : ahead.p_committed;
            if (p_ahead != nullptr) __builtin_prefetch(p_ahead - SR_I_RECORD_HEADER_LENGTH);
        }
        const sr_i_index_entry_t &entry = p_table->p_rows_fixed_index[f];
        char *p_chosen = committed_view ? entry.p_committed : entry.p_applied;
        if (p_chosen == nullptr) continue;
        ++seen;
        if (compiled.p != nullptr) {
            // The working version decides, in either view: a committed row
            // updated since is chosen by its new values.  A row deleted since
            // has no working version; its committed values decide for it.
            char *p_evaluated = entry.p_applied != nullptr ? entry.p_applied : entry.p_committed;
            qx_int32_t match = 0;
            qx_int32_t rc = evaluate(p_table, compiled.p, p_evaluated, &match);
            if (rc != 0) {
                free(p_indices);
                return rc;
            }
            if (match == 0) continue;
        }
        p_indices[selected++] = f;
    }
    *p_total_selected_rows = selected;
    *p_p_selected_rows_fixed_index = p_indices;
    return 0;
}

qx_int32_t sr_i_copy_row(sr_i_table_t *p_table, qx_char_ptr_t p_from_record_data,
                         sr_i_table_t *p_new_table, qx_uint32_t *p_column_indices) {
    const qx_uint32_t total = p_new_table->total_columns;
    const qx_uint64_t fixed = 4 + 8 * static_cast<qx_uint64_t>(total);
    const char *p_from_area = sr_i_row_indirect_area(p_from_record_data, p_table->total_columns);
    const qx_int64_t from_limit = indirect_length(p_from_record_data, p_table->total_columns);

    // The chosen forms, end to end as the value library places them.
    qx_uint64_t indirect = 0;
    for (qx_uint32_t j = 0; j < total; ++j) {
        const qx_uint32_t c = p_column_indices != nullptr ? p_column_indices[j] : j;
        if (!sr_i_is_pointer_type(p_new_table->p_columns[j].type)) continue;
        qx_pmsg_anchor_t anchor;
        memcpy(&anchor, sr_i_row_slot(p_from_record_data, c), sizeof anchor);
        if (static_cast<qx_int64_t>(anchor.offset) + anchor.length > from_limit) {
            return SR_ERROR(SR_E_TABLE_UNREADABLE);
        }
        indirect += anchor.length;
    }
    if (fixed + indirect > UINT32_MAX / 2) return SR_ERROR(SR_E_NO_MEMORY);
    const qx_uint32_t length = static_cast<qx_uint32_t>(fixed + indirect);
    char *p_data = nullptr;
    qx_int32_t rc = sr_i_reserve_record(&p_new_table->record_buffer_pool, length,
                                        SR_I_RECORD_TYPE_ROW, &p_data);
    if (rc != 0) return rc;
    sr_i_store_u32(p_data, 0);
    char *p_area = sr_i_row_indirect_area(p_data, total);
    qx_uint32_t running = 0;
    for (qx_uint32_t j = 0; j < total; ++j) {
        const qx_uint32_t c = p_column_indices != nullptr ? p_column_indices[j] : j;
        const char *p_from_slot = sr_i_row_slot(p_from_record_data, c);
        char *p_slot = sr_i_row_slot(p_data, j);
        if (!sr_i_is_pointer_type(p_new_table->p_columns[j].type)) {
            memcpy(p_slot, p_from_slot, 8);
            continue;
        }
        qx_pmsg_anchor_t anchor;
        memcpy(&anchor, p_from_slot, sizeof anchor);
        if (sr_i_place_indirect_bytes(p_slot, p_area, static_cast<qx_uint32_t>(indirect), &running,
                                      p_from_area + anchor.offset, anchor.length) != 0) {
            sr_i_free_row_record(p_new_table, p_data);
            return SR_ERROR(SR_E_INTERNAL);
        }
    }

    // The copy is born committed: the new table has no transaction to apply.
    sr_i_index_entry_t *p_entry = sr_i_rows_free_chain_remove(p_new_table);
    if (p_entry == nullptr) {
        rc = sr_i_grow_index(p_new_table, p_new_table->maximum_rows);
        if (rc == 0) p_entry = sr_i_rows_free_chain_remove(p_new_table);
        if (p_entry == nullptr) {
            sr_i_free_row_record(p_new_table, p_data);
            return rc != 0 ? rc : SR_ERROR(SR_E_INTERNAL);
        }
    }
    const qx_uint32_t fixed_index =
        static_cast<qx_uint32_t>(p_entry - p_new_table->p_rows_fixed_index);
    if (p_new_table->p_rows_hash_table != nullptr) {
        qx_uint32_t bucket = 0;
        sr_hash_table_element_t *p_element = nullptr;
        rc = sr_i_hash_table_add(p_new_table->p_rows_hash_table,
                                 sr_i_row_key_value(p_new_table, p_data), fixed_index, &bucket,
                                 &p_element, p_new_table->p_columns[0].qualifier);
        if (rc != 0) {
            sr_i_rows_free_chain_insert(p_new_table, p_entry);
            sr_i_free_row_record(p_new_table, p_data);
            return rc == SR_E_DUPLICATE_KEY ? SR_ERROR(SR_E_DUPLICATE_KEY) : rc;
        }
        p_entry->hash_index = bucket;
        p_entry->p_hash_table_element = p_element;
    }
    p_entry->p_applied = p_data;
    p_entry->p_committed = p_data;
    p_entry->packed_index = p_new_table->total_applied_rows;
    p_new_table->p_rows_packed_index[p_new_table->total_applied_rows] = fixed_index;
    ++p_new_table->total_applied_rows;
    ++p_new_table->total_committed_rows;
    return 0;
}

namespace {

// The new table's columns: the key first, then each named column once, in
// the order named; 104 or 105 as the names require.
qx_int32_t choose_columns(const sr_i_table_t *p_table, qx_char_ptr_t *p_column_names,
                          qx_uint32_t total_column_names, qx_uint32_t **p_p_indices,
                          qx_uint32_t *p_total) {
    const qx_uint32_t room =
        total_column_names == 0 ? p_table->total_columns : total_column_names + 1;
    auto *p_indices = static_cast<qx_uint32_t *>(sr_i_malloc(sizeof(qx_uint32_t) * room));
    if (p_indices == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    qx_uint32_t total = 0;
    if (total_column_names == 0) {
        for (qx_uint32_t c = 0; c < p_table->total_columns; ++c) p_indices[total++] = c;
    } else {
        if (p_column_names == nullptr) {
            free(p_indices);
            return SR_ERROR(SR_E_NO_COLUMNS);
        }
        p_indices[total++] = 0;
        for (qx_uint32_t i = 0; i < total_column_names; ++i) {
            const qx_int32_t c = sr_i_find_column(p_table, p_column_names[i]);
            if (c < 0) {
                free(p_indices);
                return SR_ERROR(SR_E_INVALID_COLUMN);
            }
            bool present = false;
            for (qx_uint32_t k = 0; k < total && !present; ++k) {
                present = p_indices[k] == static_cast<qx_uint32_t>(c);
            }
            if (!present) p_indices[total++] = static_cast<qx_uint32_t>(c);
        }
    }
    *p_p_indices = p_indices;
    *p_total = total;
    return 0;
}

// An empty transient table with the chosen columns of p_table (their
// definitions and defaults), and a hashed key index like p_table's.
qx_int32_t create_result_table(sr_i_table_t *p_table, const qx_uint32_t *p_indices,
                               qx_uint32_t total, sr_i_table_t **p_p_new) {
    sr_table_metadata_t *p_metadata = nullptr;
    qx_int32_t rc = sr_i_get_table_metadata(p_table, -1, &p_metadata);
    if (rc != 0) return rc;
    auto *p_columns = static_cast<sr_column_t *>(sr_i_malloc(sizeof(sr_column_t) * total));
    if (p_columns == nullptr) rc = SR_ERROR(SR_E_NO_MEMORY);
    sr_hash_table_t *p_hash_table = nullptr;
    if (rc == 0) {
        // Shallow copies: creating the table packs the defaults and replaces
        // pointer defaults in this array by anchors, while the metadata keeps
        // the pointers it must free.
        for (qx_uint32_t j = 0; j < total; ++j) {
            p_columns[j] = p_metadata->column_definitions[p_indices[j]];
        }
        const sr_hash_table_t *p_source = p_table->p_rows_hash_table;
        if (p_source != nullptr) {
            rc = sr_i_hash_table_open(p_source->total_hash_buckets, p_source->p_hash_function,
                                      p_source->p_compare_function, &p_hash_table);
        }
    }
    if (rc == 0) {
        rc = sr_i_create_transient_table(p_table->p_tree, nullptr, p_columns, total,
                                         SR_MODE_READ | SR_MODE_WRITE, p_hash_table, p_p_new);
    }
    free(p_columns);
    sr_i_free_column_metadata(p_metadata->column_definitions, p_metadata->number_of_columns);
    free(p_metadata->column_definitions);
    free(p_metadata->name);
    free(p_metadata);
    return rc;
}

}  // namespace

qx_int32_t sr_i_select(sr_i_table_t *p_table, qx_char_ptr_t *p_column_names,
                       qx_uint32_t total_column_names, qx_char_ptr_t p_selection_criteria,
                       sr_i_table_t **p_select_table) {
    SR_I_ASSERT_LOCKED(&p_table->lock);
    qx_uint32_t *p_indices = nullptr;
    qx_uint32_t total = 0;
    qx_int32_t rc = choose_columns(p_table, p_column_names, total_column_names, &p_indices, &total);
    if (rc != 0) return rc;
    sr_i_table_t *p_new = nullptr;
    rc = create_result_table(p_table, p_indices, total, &p_new);
    if (rc != 0) {
        free(p_indices);
        return rc;
    }
    CompiledGuard compiled;
    if (p_selection_criteria != nullptr) {
        rc = sr_i_compile_expression(p_selection_criteria, p_table, &compiled.p,
                                     to_table_handle(p_table));
    }
    // Only the table's own setting chooses the version copied.
    const bool applied = p_table->uncommitted_updates_visible != 0;
    const qx_uint32_t rows = applied ? p_table->total_applied_rows - p_table->applied_deletions
                                     : p_table->total_committed_rows;
    qx_uint32_t seen = 0;
    for (qx_uint32_t f = 0; rc == 0 && f < p_table->maximum_rows && seen < rows; ++f) {
        const sr_i_index_entry_t &entry = p_table->p_rows_fixed_index[f];
        char *p_record = applied ? entry.p_applied : entry.p_committed;
        if (p_record == nullptr) continue;
        ++seen;
        if (compiled.p != nullptr) {
            qx_int32_t match = 0;
            rc = evaluate(p_table, compiled.p, p_record, &match);
            if (rc != 0 || match == 0) continue;
        }
        rc = sr_i_copy_row(p_table, p_record, p_new, p_indices);
    }
    free(p_indices);
    if (rc != 0) {
        sr_i_close_table(p_new);
        return rc;
    }
    *p_select_table = p_new;
    return 0;
}

qx_int32_t sr_i_get_duplicate_rows(sr_i_table_t *p_table, qx_value_t *p_key_value,
                                   qx_uint32_t *p_duplicate_rows_count,
                                   qx_uint32_t **p_p_duplicate_rows_fixed_indices,
                                   qx_uint32_t uncommitted_updates_visible) {
    SR_I_ASSERT_LOCKED(&p_table->lock);
    qx_uint32_t room = 10;
    qx_uint32_t count = 0;
    auto *p_indices = static_cast<qx_uint32_t *>(sr_i_malloc(sizeof(qx_uint32_t) * room));
    if (p_indices == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    auto collect = [&](qx_uint32_t fixed) -> qx_int32_t {
        if (count == room) {
            auto *p_grown = static_cast<qx_uint32_t *>(
                sr_i_realloc(p_indices, sizeof(qx_uint32_t) * (static_cast<size_t>(room) + 10)));
            if (p_grown == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
            p_indices = p_grown;
            room += 10;
        }
        p_indices[count++] = fixed;
        return 0;
    };
    // Only the argument chooses the view here, not the table's setting.
    auto record_of = [&](const sr_i_index_entry_t &entry) {
        return uncommitted_updates_visible != 0 ? entry.p_applied : entry.p_committed;
    };
    const qx_data_type_t key_type = p_table->p_columns[0].type;
    qx_int32_t rc = 0;
    sr_hash_table_t *p_hash = p_table->p_rows_hash_table;
    if (p_hash != nullptr) {
        const void *p_key = sr_i_is_pointer_type(key_type)
                                ? static_cast<const void *>(p_key_value->ptr_char)
                                : static_cast<const void *>(p_key_value);
        if (p_key == nullptr) {
            free(p_indices);
            return SR_ERROR(SR_E_NULL_POINTER);
        }
        qx_uint32_t bucket = p_hash->p_hash_function != nullptr
                                 ? p_hash->p_hash_function(p_key)
                                 : (sr_i_load_u32(static_cast<const char *>(p_key) + 16) & 0x3FFF);
        if (bucket >= p_hash->total_hash_buckets) {
            free(p_indices);
            return SR_ERROR(SR_E_INTERNAL);
        }
        sr_hash_keys_compare_function_t *p_compare =
            p_hash->p_compare_function != nullptr ? p_hash->p_compare_function : cu_rsrc_hndl_cmp_1;
        for (sr_hash_table_element_t *p = p_hash->p_elements[bucket]; rc == 0 && p != nullptr;
             p = p->p_next) {
            if (p_compare(p_key, p->p_key_value) != 0) continue;
            if (p->row_index >= p_table->maximum_rows) continue;
            if (record_of(p_table->p_rows_fixed_index[p->row_index]) == nullptr) continue;
            rc = collect(p->row_index);
        }
    } else {
        const qx_uint32_t rows = uncommitted_updates_visible != 0
                                     ? p_table->total_applied_rows - p_table->applied_deletions
                                     : p_table->total_committed_rows;
        qx_uint32_t seen = 0;
        for (qx_uint32_t f = 0; rc == 0 && f < p_table->maximum_rows && seen < rows; ++f) {
            char *p_record = record_of(p_table->p_rows_fixed_index[f]);
            if (p_record == nullptr) continue;
            ++seen;
            const qx_pmsg_value_t *p_slot =
                reinterpret_cast<const qx_pmsg_value_t *>(sr_i_row_slot(p_record, 0));
            if (sr_i_compare_values(p_key_value, p_slot, key_type,
                                    sr_i_row_indirect_area(p_record, p_table->total_columns)) ==
                0) {
                rc = collect(f);
            }
        }
    }
    if (rc == 0 && count == 0) rc = SR_ERROR(SR_E_NO_ROW_FOR_KEY);
    if (rc != 0) {
        free(p_indices);
        return rc;
    }
    *p_duplicate_rows_count = count;
    *p_p_duplicate_rows_fixed_indices = p_indices;
    return 0;
}
