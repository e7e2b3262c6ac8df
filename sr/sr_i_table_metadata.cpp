// Table metadata queries: a self-contained description of an open table that
// the caller owns.  Every column definition handed out is a deep copy (name,
// structured-data layout, default value), so it outlives the table.
#include <cstdlib>
#include <cstring>

#include "sr_i_pool.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_rows.h"
#include "sr_i_table.h"

SR_SOURCE_FILE("sr/sr_i_table_metadata", "1.1");

namespace {

constexpr qx_int32_t kAllColumns = -1;

bool is_structured(qx_data_type_t type) {
    return type == QX_SD_PTR || type == QX_SD_PTR_ARRAY;
}

// The structured-data layout of a table column (a count, then per field its
// type and its NUL-terminated name, packed without alignment) as a caller's
// sr_sd_def_t with names of its own.
qx_int32_t copy_sd_definition(const char *p_packed, sr_sd_def_t **p_p_copy) {
    const qx_uint32_t count = sr_i_load_u32(p_packed);
    const size_t size = offsetof(sr_sd_def_t, field_def) +
                        sizeof(sr_sd_field_def_t) * (count != 0 ? static_cast<size_t>(count) : 1);
    auto *p_copy = static_cast<sr_sd_def_t *>(sr_i_calloc(1, size));
    if (p_copy == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    p_copy->number_of_fields = count;
    const char *p = p_packed + 4;
    for (qx_uint32_t f = 0; f < count; ++f) {
        p_copy->field_def[f].type = static_cast<qx_data_type_t>(sr_i_load_u32(p));
        p_copy->field_def[f].name = sr_i_strdup(p + 4);
        if (p_copy->field_def[f].name == nullptr) {
            for (qx_uint32_t g = 0; g < f; ++g) std::free(p_copy->field_def[g].name);
            std::free(p_copy);
            return SR_ERROR(SR_E_NO_MEMORY);
        }
        p += 4 + std::strlen(p + 4) + 1;
    }
    *p_p_copy = p_copy;
    return 0;
}

// Deep copy of column `column` into *p_to (zeroed by the caller).  What is
// copied so far is left in *p_to for sr_i_free_column_metadata on failure.
qx_int32_t copy_column(const sr_i_table_t *p_table, qx_uint32_t column, sr_column_t *p_to) {
    const sr_column_t &from = p_table->p_columns[column];
    p_to->type = from.type;
    p_to->qualifier = from.qualifier;
    p_to->properties = from.properties;
    p_to->name = sr_i_strdup(from.name);
    if (p_to->name == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    if (is_structured(from.type) && from.sd_defn != nullptr) {
        qx_int32_t rc =
            copy_sd_definition(reinterpret_cast<const char *>(from.sd_defn), &p_to->sd_defn);
        if (rc != 0) return rc;
    }
    if (!sr_i_is_pointer_type(from.type)) {
        std::memcpy(&p_to->default_value, &from.default_value, sizeof p_to->default_value);
        return 0;
    }
    // The caller keeps the default past the table's close: a deep copy.
    const char *p_defaults =
        sr_i_metadata_indirect_area(p_table->p_metadata_record_data, p_table->total_columns);
    cu_iconv_t *p_handle = p_table->p_tree != nullptr
                               ? p_table->p_tree->p_from_table_string_conversion_handle
                               : nullptr;
    qx_value_t value{};
    int rc = qx_pmsg_build_conv_packed_client_value_1(
        p_handle, QX_PMSG_CLIENT_MALLOC | QX_PMSG_CLIENT_DEEP, from.type, &value,
        &from.default_value, p_defaults, -1);
    if (rc == QX_PMSG_E_NOMEM) return SR_ERROR(SR_E_NO_MEMORY);
    if (rc != 0) return SR_ERROR_LIBCALL("qx_pmsg_build_conv_packed_client_value", rc);
    p_to->default_value = value;
    return 0;
}

}  // namespace

void sr_i_free_column_metadata(sr_column_t *p_column, qx_uint32_t total_columns) {
    if (p_column == nullptr) return;
    for (qx_uint32_t c = 0; c < total_columns; ++c) {
        sr_column_t &column = p_column[c];
        std::free(column.name);
        if (column.sd_defn != nullptr) {
            for (qx_uint32_t f = 0; f < column.sd_defn->number_of_fields; ++f) {
                std::free(column.sd_defn->field_def[f].name);
            }
            std::free(column.sd_defn);
        }
        if (sr_i_is_pointer_type(column.type)) std::free(column.default_value.ptr_char);
    }
}

qx_int32_t sr_i_get_table_metadata(sr_i_table_t *p_table, qx_int32_t all_metadata,
                                   sr_table_metadata_t **p_p_metadata) {
    SR_I_ASSERT_LOCKED(&p_table->lock);
    auto *p_metadata =
        static_cast<sr_table_metadata_t *>(sr_i_calloc(1, sizeof(sr_table_metadata_t)));
    if (p_metadata == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    p_metadata->number_of_columns = p_table->total_columns;
    p_metadata->number_of_rows = p_table->uncommitted_updates_visible != 0
                                     ? p_table->total_applied_rows
                                     : p_table->total_committed_rows;
    p_metadata->table_change_counter = p_table->change_counter;
    p_metadata->properties = 0;
    // The name the caller knows the table by: the registry path of a
    // persistent table, the name of a transient one, "" for an unnamed one.
    const char *p_name = p_table->p_persistent_table_registry_path != nullptr
                             ? p_table->p_persistent_table_registry_path
                             : (p_table->p_name != nullptr ? p_table->p_name : "");
    p_metadata->name = sr_i_strdup(p_name);
    if (p_metadata->name == nullptr) {
        std::free(p_metadata);
        return SR_ERROR(SR_E_NO_MEMORY);
    }
    if (all_metadata != 0) {
        auto *p_columns = static_cast<sr_column_t *>(sr_i_calloc(
            p_table->total_columns != 0 ? p_table->total_columns : 1, sizeof(sr_column_t)));
        qx_int32_t rc = p_columns == nullptr ? SR_ERROR(SR_E_NO_MEMORY) : 0;
        qx_uint32_t copied = 0;
        for (qx_uint32_t c = 0; rc == 0 && c < p_table->total_columns; ++c) {
            if (all_metadata != kAllColumns && (p_table->p_columns[c].qualifier & SR_INVISIBLE)) {
                continue;
            }
            rc = copy_column(p_table, c, &p_columns[copied]);
            ++copied;  // a partial copy is freed with the rest
        }
        if (rc != 0) {
            sr_i_free_column_metadata(p_columns, copied);
            std::free(p_columns);
            std::free(p_metadata->name);
            std::free(p_metadata);
            return rc;
        }
        p_metadata->column_definitions = p_columns;
        p_metadata->number_of_columns = copied;
    }
    *p_p_metadata = p_metadata;
    return 0;
}
