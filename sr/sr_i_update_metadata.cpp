// Schema changes.  The columns of a table are changed by building a complete
// new table with the new column set, copying every row into it, writing it
// over the table's file as a full rewrite (complete image, sync, rename) and
// then swapping the new contents into the record the callers' handles point
// at.  Until the rename the file is untouched, and until the swap the record
// is: a failure at any step leaves the table as it was.
//
// A schema change counts as one committed change: the rebuilt table ends with
// the old change counter + 1, in memory and in the rewritten commit record
// alike, so reopening the table reports the same counter.
//
// Overlays change one column definition in memory only; nothing is written,
// and the change is gone once the table is read from its file again.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "sr_i_application_metadata.h"
#include "sr_i_hash_table.h"
#include "sr_i_management.h"
#include "sr_i_pool.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_rows.h"
#include "sr_i_select.h"
#include "sr_i_table.h"
#include "sr_i_test_pause.h"
#include "sr_i_transaction.h"

SR_SOURCE_FILE("sr/sr_i_update_metadata", "1.1");

namespace {

constexpr qx_uint32_t kHeader = SR_I_RECORD_HEADER_LENGTH;
// Data bytes of a metadata record before its column array.
constexpr qx_uint32_t kMetadataFixed = 16;

// Application metadata changed since the last commit.
bool application_metadata_pending(const sr_i_application_metadata_t *p_metadata) {
    if (p_metadata == nullptr) return false;
    for (qx_uint32_t i = 0; i < p_metadata->total_elements; ++i) {
        if (p_metadata->p_index[i].p_applied != p_metadata->p_index[i].p_committed) return true;
    }
    return false;
}

// The preconditions of every rebuild: open for write (206), nothing pending
// or applied (209).
qx_int32_t check_committed(const sr_i_table_t *p_table) {
    if ((p_table->mode & SR_MODE_WRITE) == 0) return SR_ERROR(SR_E_ACCESS);
    if (p_table->ready_for_commit != 0 || p_table->p_rows_change_list != nullptr ||
        p_table->p_delete_rows_change_list != nullptr ||
        application_metadata_pending(p_table->p_application_metadata)) {
        return SR_ERROR(SR_E_NOT_COMMITTED);
    }
    return 0;
}

void free_metadata(sr_table_metadata_t *p_metadata) {
    if (p_metadata == nullptr) return;
    sr_i_free_column_metadata(p_metadata->column_definitions, p_metadata->number_of_columns);
    std::free(p_metadata->column_definitions);
    std::free(p_metadata->name);
    std::free(p_metadata);
}

// A new index with the parameters of the table's own, or none.
qx_int32_t open_index_like(const sr_i_table_t *p_table, sr_hash_table_t **p_p_index) {
    *p_p_index = nullptr;
    const sr_hash_table_t *p_old = p_table->p_rows_hash_table;
    if (p_old == nullptr) return 0;
    return sr_i_hash_table_open(p_old->total_hash_buckets, p_old->p_hash_function,
                                p_old->p_compare_function, p_p_index);
}

// Adds every committed row of p_table to p_new: the values of the old
// columns (read under their old names, written under the new ones); new
// columns take their defaults.
qx_int32_t copy_rows(sr_i_table_t *p_table, sr_i_table_t *p_new, qx_char_ptr_t *p_old_names,
                     qx_char_ptr_t *p_new_names, qx_uint32_t total) {
    auto *p_values = static_cast<qx_value_t *>(sr_i_calloc(total, sizeof(qx_value_t)));
    auto *p_p_values = static_cast<qx_value_t **>(sr_i_calloc(total, sizeof(qx_value_t *)));
    qx_int32_t rc = p_values == nullptr || p_p_values == nullptr ? SR_ERROR(SR_E_NO_MEMORY) : 0;
    for (qx_uint32_t i = 0; i < total && rc == 0; ++i) p_p_values[i] = &p_values[i];
    for (qx_uint32_t row = 0; row < p_table->total_committed_rows && rc == 0; ++row) {
        sr_row_state_t state;
        rc = sr_i_get_values_for_packed_index(p_table, row, p_old_names, p_p_values, total, 0,
                                              &state);
        if (rc == 0) rc = sr_i_add_row(p_new, p_new_names, p_p_values, total);
    }
    std::free(p_p_values);
    std::free(p_values);
    return rc;
}

// Moves the metadata record to a new pool record of new_data_length data
// bytes (at least its present length), keeping its contents; returns the new
// record's data.
qx_int32_t move_metadata_record(sr_i_table_t *p_table, qx_uint32_t new_data_length,
                                char **p_p_data) {
    char *p_old = p_table->p_metadata_record_data;
    const qx_uint32_t old_length = sr_i_record_length(p_old - kHeader) - kHeader;
    char *p_data = nullptr;
    qx_int32_t rc = sr_i_reserve_record(&p_table->record_buffer_pool, new_data_length,
                                        SR_I_RECORD_TYPE_METADATA, &p_data);
    if (rc != 0) return rc;
    std::memcpy(p_data, p_old, old_length);
    std::memset(p_data + old_length, 0, new_data_length - old_length);
    p_table->p_metadata_record_data = p_data;
    rc = sr_i_load_columns(p_table);
    if (rc != 0) {
        p_table->p_metadata_record_data = p_old;
        sr_i_rb_free_record(&p_table->record_buffer_pool, p_data);
        return rc;
    }
    // Values handed out from the old record's bytes go with it.
    qx_pmsg_release_client_values_1(p_old, old_length);
    sr_i_rb_free_record(&p_table->record_buffer_pool, p_old);
    *p_p_data = p_data;
    return 0;
}

}  // namespace

void sr_i_swap_after_metadata_update(sr_i_table_t *p_table, sr_i_table_t *p_new_table) {
    auto swap = [](auto &a, auto &b) {
        auto t = a;
        a = b;
        b = t;
    };
    swap(p_table->p_metadata_record_data, p_new_table->p_metadata_record_data);
    swap(p_table->p_columns, p_new_table->p_columns);
    swap(p_table->total_columns, p_new_table->total_columns);
    swap(p_table->total_variable_length_columns, p_new_table->total_variable_length_columns);
    swap(p_table->maximum_rows, p_new_table->maximum_rows);
    swap(p_table->total_applied_rows, p_new_table->total_applied_rows);
    swap(p_table->total_committed_rows, p_new_table->total_committed_rows);
    swap(p_table->p_rows_fixed_index, p_new_table->p_rows_fixed_index);
    // The packed index lists slots of the fixed index beside it and must go
    // with it, or the record would keep positions into the other table.
    swap(p_table->p_rows_packed_index, p_new_table->p_rows_packed_index);
    swap(p_table->uncommitted_updates_visible, p_new_table->uncommitted_updates_visible);
    swap(p_table->change_counter, p_new_table->change_counter);
    swap(p_table->commit_record_offset, p_new_table->commit_record_offset);
    swap(p_table->applied_commit_record_offset, p_new_table->applied_commit_record_offset);
    swap(p_table->commit_record_length, p_new_table->commit_record_length);
    swap(p_table->applied_commit_record_length, p_new_table->applied_commit_record_length);
    swap(p_table->file_length, p_new_table->file_length);
    swap(p_table->rewrite_file_length, p_new_table->rewrite_file_length);
    swap(p_table->file_fd, p_new_table->file_fd);
    swap(p_table->rewrite_file_fd, p_new_table->rewrite_file_fd);
    swap(p_table->record_buffer_pool, p_new_table->record_buffer_pool);
    swap(p_table->p_rows_hash_table, p_new_table->p_rows_hash_table);
    // The index of keys names slots of the fixed index beside it.
    swap(p_table->p_unique_key_index, p_new_table->p_unique_key_index);
    swap(p_table->p_rows_free_chain, p_new_table->p_rows_free_chain);
    // Overlays name columns of the old column array and go with it.
    swap(p_table->p_overlays, p_new_table->p_overlays);
    swap(p_table->total_overlays, p_new_table->total_overlays);
}

// ---------------------------------------------------------------------------
// Overlays.  An overlay lasts only while the table is open, so no file may
// ever see it: it changes only the native column copy, never the metadata
// record that apply and copy write.  Each overlaid column also keeps its
// definition as the file has it, for a schema change, which builds the new
// table from the file's definitions, and for putting the overlays back when
// the native copy is rebuilt from the record.

struct sr_i_overlay_struct {
    qx_uint32_t column;
    char file_qualifier[sizeof(sr_qualifier_t)];
    char file_default[sizeof(qx_value_t)];
    char overlay_qualifier[sizeof(sr_qualifier_t)];
    char overlay_default[sizeof(qx_value_t)];
};

namespace {

constexpr size_t kQualifierAt = offsetof(sr_column_t, qualifier);
constexpr size_t kDefaultAt = offsetof(sr_column_t, default_value);

void put_definitions(char *p_column_array, const sr_i_overlay_struct *p_overlays, qx_uint32_t total,
                     bool file_form) {
    for (qx_uint32_t i = 0; i < total; ++i) {
        const sr_i_overlay_struct &o = p_overlays[i];
        char *p_entry = p_column_array + static_cast<size_t>(o.column) * sizeof(sr_column_t);
        std::memcpy(p_entry + kQualifierAt, file_form ? o.file_qualifier : o.overlay_qualifier,
                    sizeof o.file_qualifier);
        std::memcpy(p_entry + kDefaultAt, file_form ? o.file_default : o.overlay_default,
                    sizeof o.file_default);
    }
}

// The overlay record of column c, made (with the file's definition) at the
// first overlay of the column; nullptr without memory.
sr_i_overlay_struct *overlay_of(sr_i_table_t *p_table, qx_uint32_t c) {
    for (qx_uint32_t i = 0; i < p_table->total_overlays; ++i) {
        if (p_table->p_overlays[i].column == c) return &p_table->p_overlays[i];
    }
    auto *p_grown = static_cast<sr_i_overlay_struct *>(sr_i_realloc(
        p_table->p_overlays, (p_table->total_overlays + 1) * sizeof(sr_i_overlay_struct)));
    if (p_grown == nullptr) return nullptr;
    p_table->p_overlays = p_grown;
    sr_i_overlay_struct &o = p_grown[p_table->total_overlays++];
    const char *p_entry = reinterpret_cast<const char *>(&p_table->p_columns[c]);
    o.column = c;
    std::memcpy(o.file_qualifier, p_entry + kQualifierAt, sizeof o.file_qualifier);
    std::memcpy(o.file_default, p_entry + kDefaultAt, sizeof o.file_default);
    std::memcpy(o.overlay_qualifier, o.file_qualifier, sizeof o.file_qualifier);
    std::memcpy(o.overlay_default, o.file_default, sizeof o.file_default);
    return &o;
}

// Hides the overlays of a table for a scope.
class overlays_hidden_t {
  public:
    explicit overlays_hidden_t(sr_i_table_t *p_table) : p_table_(p_table) {
        sr_i_overlays_hide(p_table_);
    }
    ~overlays_hidden_t() { sr_i_overlays_show(p_table_); }
    overlays_hidden_t(const overlays_hidden_t &) = delete;
    overlays_hidden_t &operator=(const overlays_hidden_t &) = delete;

  private:
    sr_i_table_t *p_table_;
};

// After an overlay changed column c in memory.
void remember_overlay(sr_i_table_t *p_table, sr_i_overlay_struct *p_overlay) {
    const char *p_entry = reinterpret_cast<const char *>(&p_table->p_columns[p_overlay->column]);
    std::memcpy(p_overlay->overlay_qualifier, p_entry + kQualifierAt,
                sizeof p_overlay->overlay_qualifier);
    std::memcpy(p_overlay->overlay_default, p_entry + kDefaultAt,
                sizeof p_overlay->overlay_default);
}

}  // namespace

void sr_i_overlays_hide(sr_i_table_t *p_table) {
    if (p_table->overlays_hidden++ == 0) {
        put_definitions(reinterpret_cast<char *>(p_table->p_columns), p_table->p_overlays,
                        p_table->total_overlays, true);
    }
}

void sr_i_overlays_show(sr_i_table_t *p_table) {
    if (p_table->overlays_hidden > 0 && --p_table->overlays_hidden == 0) {
        put_definitions(reinterpret_cast<char *>(p_table->p_columns), p_table->p_overlays,
                        p_table->total_overlays, false);
    }
}

void sr_i_overlays_reapply(sr_i_table_t *p_table) {
    if (p_table->overlays_hidden == 0) {
        put_definitions(reinterpret_cast<char *>(p_table->p_columns), p_table->p_overlays,
                        p_table->total_overlays, false);
    }
}

qx_int32_t sr_i_update_metadata(sr_i_table_t *p_table, sr_column_t *p_new_columns,
                                qx_uint32_t total_new_columns, qx_char_ptr_t p_old_column_name,
                                qx_char_ptr_t p_new_column_name, qx_value_t *p_new_value,
                                sr_i_table_t **p_result_table) {
    SR_I_ASSERT_LOCKED(&p_table->lock);
    // The new file is built from the file's definitions; the overlays end
    // with the table they were made on.
    overlays_hidden_t hidden(p_table);
    qx_int32_t rc = check_committed(p_table);
    if (rc != 0) return rc;
    if (total_new_columns != 0 && p_new_columns == nullptr) return SR_ERROR(SR_E_NULL_POINTER);
    sr_table_metadata_t *p_metadata = nullptr;
    rc = sr_i_get_table_metadata(p_table, -1, &p_metadata);
    if (rc != 0) return rc;
    const qx_uint32_t old_total = p_metadata->number_of_columns;
    const qx_uint64_t total = static_cast<qx_uint64_t>(old_total) + total_new_columns;

    // Shallow copies: creating the table packs the defaults and writes
    // anchors over pointer defaults in this array, while the metadata keeps
    // the values it must free.
    auto *p_columns = static_cast<sr_column_t *>(total > UINT32_MAX / sizeof(sr_column_t)
                                                     ? nullptr
                                                     : sr_i_malloc(sizeof(sr_column_t) * total));
    auto *p_old_names =
        static_cast<qx_char_ptr_t *>(sr_i_malloc(sizeof(qx_char_ptr_t) * old_total));
    auto *p_new_names =
        static_cast<qx_char_ptr_t *>(sr_i_malloc(sizeof(qx_char_ptr_t) * old_total));
    if (p_columns == nullptr || p_old_names == nullptr || p_new_names == nullptr) {
        rc = SR_ERROR(SR_E_NO_MEMORY);
    }
    if (rc == 0) {
        for (qx_uint32_t i = 0; i < old_total; ++i) {
            p_columns[i] = p_metadata->column_definitions[i];
            p_old_names[i] = p_columns[i].name;
        }
        for (qx_uint32_t i = 0; i < total_new_columns; ++i) {
            std::memcpy(&p_columns[old_total + i], &p_new_columns[i], sizeof(sr_column_t));
        }
        if (p_old_column_name != nullptr) {
            qx_uint32_t found = old_total;
            for (qx_uint32_t i = 0; i < old_total && found == old_total; ++i) {
                if (std::strcmp(p_columns[i].name, p_old_column_name) == 0) found = i;
            }
            if (found == old_total) {
                rc = SR_ERROR(SR_E_INVALID_COLUMN);
            } else if (p_new_column_name != nullptr) {
                p_columns[found].name = p_new_column_name;
            } else if (p_new_value != nullptr) {
                p_columns[found].default_value = *p_new_value;
            }
        }
        for (qx_uint32_t i = 0; i < old_total; ++i) p_new_names[i] = p_columns[i].name;
    }
    sr_hash_table_t *p_index = nullptr;
    if (rc == 0) rc = open_index_like(p_table, &p_index);
    // The keys come from a table that has already checked them.  Without a
    // hashed index every added row would search all rows before it for its
    // key, so the copy runs with the check off and the key's qualifier is
    // put back before the new table is written or used.
    sr_qualifier_t key_qualifier = 0;
    if (rc == 0) {
        key_qualifier = p_columns[0].qualifier;
        if ((key_qualifier & SR_QUALIFIER_BASE_MASK) == SR_PRIMARY_KEY) {
            p_columns[0].qualifier =
                (key_qualifier & ~static_cast<sr_qualifier_t>(SR_QUALIFIER_BASE_MASK)) |
                SR_PRIMARY_KEY_NOCHECK;
        }
    }
    sr_i_table_t *p_new = nullptr;
    if (rc == 0) {
        rc = sr_i_create_transient_table(p_table->p_tree, nullptr, p_columns,
                                         static_cast<qx_uint32_t>(total), SR_MODE_WRITE, p_index,
                                         &p_new);
    }
    if (rc == 0) {
        rc = copy_rows(p_table, p_new, p_old_names, p_new_names, old_total);
        sr_i_set_column_qualifier(p_new, 0, key_qualifier);
        if (rc != 0) sr_i_close_table(p_new);
    }
    std::free(p_new_names);
    std::free(p_old_names);
    std::free(p_columns);
    free_metadata(p_metadata);
    if (rc == 0) *p_result_table = p_new;
    return rc;
}

qx_int32_t sr_i_delete_columns(sr_i_table_t *p_table, qx_char_ptr_t *column_names,
                               qx_uint32_t array_count, sr_i_table_t **p_p_result_table) {
    SR_I_ASSERT_LOCKED(&p_table->lock);
    overlays_hidden_t hidden(p_table);
    qx_int32_t rc = check_committed(p_table);
    if (rc != 0) return rc;
    if (column_names == nullptr) return SR_ERROR(SR_E_NULL_POINTER);
    if (array_count == 0) return SR_ERROR(SR_E_NO_COLUMNS);
    const qx_uint32_t total = p_table->total_columns;
    auto *p_deleted = static_cast<bool *>(sr_i_calloc(total, sizeof(bool)));
    auto *p_keep = static_cast<qx_char_ptr_t *>(sr_i_malloc(sizeof(qx_char_ptr_t) * total));
    if (p_deleted == nullptr || p_keep == nullptr) rc = SR_ERROR(SR_E_NO_MEMORY);
    for (qx_uint32_t i = 0; i < array_count && rc == 0; ++i) {
        const qx_int32_t c =
            column_names[i] != nullptr ? sr_i_find_column(p_table, column_names[i]) : -1;
        if (c < 0) {
            rc = SR_ERROR(SR_E_INVALID_COLUMN);
        } else if (c == 0) {
            rc = SR_ERROR(SR_E_NO_KEY);  // every table keeps exactly one key column
        } else {
            p_deleted[c] = true;
        }
    }
    // The selection always leads with the key; naming it keeps a table whose
    // other columns are all deleted from meaning "every column".
    qx_uint32_t kept = 0;
    if (rc == 0) {
        for (qx_uint32_t c = 0; c < total; ++c) {
            if (!p_deleted[c]) p_keep[kept++] = p_table->p_columns[c].name;
        }
        rc = sr_i_select(p_table, p_keep, kept, nullptr, p_p_result_table);
    }
    std::free(p_keep);
    std::free(p_deleted);
    return rc;
}

qx_int32_t sr_i_install_rebuilt_table(sr_i_table_t *p_table, sr_i_table_t *p_new) {
    SR_I_ASSERT_WRITE_LOCKED(&p_table->lock);
    p_new->change_counter = p_table->change_counter;
    // The rewritten commit record carries the table's application metadata;
    // the record keeps its own, this copy goes with the old contents.
    sr_i_application_metadata_t *p_copy = nullptr;
    qx_int32_t rc = 0;
    if (p_table->p_application_metadata != nullptr) {
        rc = sr_i_duplicate_application_metadata_buffer(p_table->p_application_metadata, &p_copy);
        if (rc != 0) {
            sr_i_close_table(p_new);
            return rc;
        }
        sr_i_free_application_metadata(p_new->p_application_metadata);
        p_new->p_application_metadata = p_copy;
    }
    const bool persistent = p_table->p_file_path != nullptr;
    if (persistent) {
        // Shared, not copied: the new table writes the old table's rewrite
        // file, and its commit renames it over the table file and closes the
        // old descriptor.
        p_new->p_file_path = p_table->p_file_path;
        p_new->file_path_length = p_table->file_path_length;
        p_new->file_fd = p_table->file_fd;
        p_new->block_size = p_table->block_size;
    }
    rc = sr_i_apply(p_new, persistent ? 1 : 0, 0);
    if (rc == 0) {
        sr_i_test_pause("schema-applied");
        rc = sr_i_commit(p_new);
    }
    // Only a commit that got past its rename has replaced the file (and with
    // it the descriptor); the memory then has to follow the file.
    const bool switched = persistent && p_new->file_fd != p_table->file_fd;
    if (rc != 0 && !switched) {
        // Nothing of the old table may be closed with the new one.
        p_new->p_file_path = nullptr;
        p_new->file_fd = -1;
        p_new->rewrite_file_fd = -1;
        sr_i_close_table(p_new);
        return rc;
    }
    p_new->p_file_path = nullptr;
    sr_i_swap_after_metadata_update(p_table, p_new);
    // The descriptor the new record received was closed by commit.
    p_new->file_fd = -1;
    p_new->rewrite_file_fd = -1;
    sr_i_close_table(p_new);
    return rc;
}

qx_int32_t sr_i_overlay_memory_column_qualifier(sr_i_table_t *p_table, qx_char_ptr_t p_column_name,
                                                sr_qualifier_t new_qualifier) {
    SR_I_ASSERT_WRITE_LOCKED(&p_table->lock);
    // Only the modifier bits of a standard column can change this way.
    if ((new_qualifier & SR_QUALIFIER_BASE_MASK) != SR_STANDARD)
        return SR_ERROR(SR_E_INVALID_COLUMN);
    const qx_int32_t c = sr_i_find_column(p_table, p_column_name);
    if (c < 0) return SR_ERROR(SR_E_INVALID_COLUMN);
    sr_column_t column = sr_i_load_column(&p_table->p_columns[c]);
    if ((column.qualifier & SR_QUALIFIER_BASE_MASK) != SR_STANDARD)
        return SR_ERROR(SR_E_INVALID_COLUMN);
    sr_i_overlay_struct *p_overlay = overlay_of(p_table, static_cast<qx_uint32_t>(c));
    if (p_overlay == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    p_table->p_columns[c].qualifier = new_qualifier;
    remember_overlay(p_table, p_overlay);
    return 0;
}

qx_int32_t sr_i_overlay_memory_default_value(sr_i_table_t *p_table, qx_char_ptr_t p_column_name,
                                             qx_value_t new_default_value) {
    SR_I_ASSERT_WRITE_LOCKED(&p_table->lock);
    const qx_int32_t c = sr_i_find_column(p_table, p_column_name);
    if (c < 0) return SR_ERROR(SR_E_INVALID_COLUMN);
    const qx_data_type_t type = sr_i_load_column(&p_table->p_columns[c]).type;
    if (overlay_of(p_table, static_cast<qx_uint32_t>(c)) == nullptr)
        return SR_ERROR(SR_E_NO_MEMORY);
    if (!sr_i_is_pointer_type(type)) {
        std::memcpy(&p_table->p_columns[c].default_value, &new_default_value,
                    sizeof new_default_value);
        remember_overlay(p_table, overlay_of(p_table, static_cast<qx_uint32_t>(c)));
        return 0;
    }

    // The protocol form of the value, built apart first to learn its size.
    cu_iconv_t *p_handle =
        p_table->p_tree != nullptr ? p_table->p_tree->p_to_table_string_conversion_handle : nullptr;
    qx_value_t value;
    sr_i_dup_nonscalar_value(type, &new_default_value, &value);
    qx_uint32_t room = 256;
    char *p_form = nullptr;
    qx_pmsg_anchor_t anchor{};
    qx_uint32_t running = 0;
    for (;;) {
        char *p_grown = static_cast<char *>(sr_i_realloc(p_form, room));
        if (p_grown == nullptr) {
            std::free(p_form);
            return SR_ERROR(SR_E_NO_MEMORY);
        }
        p_form = p_grown;
        running = 0;
        int build_rc = qx_pmsg_build_conv_protocol_value_1(p_handle, 0, type, &value, &anchor,
                                                           p_form, room, &running);
        if (build_rc == 0) break;
        if (build_rc != QX_PMSG_E_ROOM || room > UINT32_MAX / 4) {
            std::free(p_form);
            return build_rc == QX_PMSG_E_NOMEM
                       ? SR_ERROR(SR_E_NO_MEMORY)
                       : SR_ERROR_LIBCALL("qx_pmsg_build_conv_protocol_value", build_rc);
        }
        room *= 2;
    }

    // The defaults live in the metadata record's indirect area: the record
    // grows by the new form, placed at its end, and the column's anchor is
    // pointed at it.  The old form stays behind as dead bytes until the
    // table is next rebuilt.
    const qx_uint32_t area_start =
        kMetadataFixed + p_table->total_columns * SR_I_COLUMN_ENTRY_LENGTH;
    const qx_uint32_t old_length =
        sr_i_record_length(p_table->p_metadata_record_data - kHeader) - kHeader;
    const qx_uint64_t new_length = static_cast<qx_uint64_t>(old_length) + anchor.length;
    if (new_length > UINT32_MAX / 2) {
        std::free(p_form);
        return SR_ERROR(SR_E_NO_MEMORY);
    }
    char *p_data = nullptr;
    qx_int32_t rc = move_metadata_record(p_table, static_cast<qx_uint32_t>(new_length), &p_data);
    if (rc == 0) {
        qx_uint32_t place = old_length - area_start;
        qx_value_t slot;
        rc = sr_i_place_indirect_bytes(reinterpret_cast<char *>(&slot), p_data + area_start,
                                       static_cast<qx_uint32_t>(new_length) - area_start, &place,
                                       p_form + anchor.offset, anchor.length);
        if (rc != 0) {
            rc = SR_ERROR(SR_E_INTERNAL);
        } else {
            std::memcpy(&p_table->p_columns[c].default_value, &slot, sizeof slot);
        }
    }
    // The file's form of the old default stays in the record's area.
    if (rc == 0) remember_overlay(p_table, overlay_of(p_table, static_cast<qx_uint32_t>(c)));
    std::free(p_form);
    return rc;
}
