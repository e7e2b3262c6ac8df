// Creating tables: the checks of the exported create calls, column
// validation, the metadata record built from the caller's columns, transient
// and persistent tables, and the read-only table built from packed rows.
//
// The metadata record holds the column array as 32-byte entries (the same
// bytes on every host), followed by its indirect data area: the packed
// default values, the column names, then the structured-data definitions.
// Entries hold offsets into that area, in the pool as in the file; the table
// reads its columns through a native copy (p_columns) built from them.
#include <errno.h>
#include <fcntl.h>
#include <search.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "sr_i_application_metadata.h"
#include "sr_i_files.h"
#include "sr_i_hash_table.h"
#include "sr_i_management.h"
#include "sr_i_pool.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_rows.h"
#include "sr_i_table.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_i_create_table", "1.1");

namespace {

constexpr qx_uint32_t kHeader = SR_I_RECORD_HEADER_LENGTH;
constexpr qx_uint32_t kMetadataFixed = SR_I_METADATA_FIXED_LENGTH;
constexpr qx_uint32_t kColumnSize = SR_I_COLUMN_ENTRY_LENGTH;

bool is_pointer_type(qx_uint32_t type) {
    return sr_i_is_pointer_type(static_cast<qx_data_type_t>(type));
}

bool is_structured(qx_uint32_t type) {
    return type == QX_SD_PTR || type == QX_SD_PTR_ARRAY;
}

// Bytes of a structured-data definition in the metadata record: the field
// count, then per field its type and its name with the NUL, unaligned.
qx_uint64_t sd_definition_size(const sr_sd_def_t *p_sd) {
    qx_uint64_t size = 4;
    for (qx_uint32_t f = 0; f < p_sd->number_of_fields; ++f) {
        size += 4 + std::strlen(p_sd->field_def[f].name) + 1;
    }
    return size;
}

// The byte-order flag of the metadata record: 1 on a big-endian writer.
qx_uint32_t byte_order_flag() {
    qx_uint16_t probe = 0xFEFF;
    unsigned char first;
    std::memcpy(&first, &probe, 1);
    return first == 0xFE ? 1 : 0;
}

// Column validation, in its order; returns 0 and the key column's position.
qx_int32_t validate_columns(const sr_column_t *p_columns, qx_uint32_t total_columns,
                            qx_uint32_t *p_key_index) {
    if (total_columns == 0) return SR_ERROR(SR_E_NO_COLUMNS);
    qx_uint32_t keys = 0;
    qx_uint32_t key_index = 0;
    for (qx_uint32_t i = 0; i < total_columns; ++i) {
        const sr_column_t &column = p_columns[i];
        qx_uint32_t type = static_cast<qx_uint32_t>(column.type);
        qx_uint32_t base = column.qualifier & SR_QUALIFIER_BASE_MASK;
        if (!sr_i_valid_column_name(column.name)) return SR_ERROR(SR_E_INVALID_COLUMN);
        if (type < QX_INT32 || type > QX_SD_PTR_ARRAY) return SR_ERROR(SR_E_INVALID_COLUMN);
        if (base != SR_STANDARD && base != SR_PRIMARY_KEY && base != SR_PRIMARY_KEY_NOCHECK) {
            return SR_ERROR(SR_E_INVALID_COLUMN);
        }
        if (is_structured(type)) {
            if (column.sd_defn == nullptr) return SR_ERROR(SR_E_INVALID_COLUMN);
            for (qx_uint32_t f = 0; f < column.sd_defn->number_of_fields; ++f) {
                if (column.sd_defn->field_def[f].name == nullptr)
                    return SR_ERROR(SR_E_INVALID_COLUMN);
            }
        }
        if (base == SR_PRIMARY_KEY || base == SR_PRIMARY_KEY_NOCHECK) {
            if (type > QX_CHAR_PTR && type != QX_RSRC_HANDLE_PTR)
                return SR_ERROR(SR_E_INVALID_COLUMN);
            if (keys++ == 0) key_index = i;
        }
    }
    if (keys == 0) return SR_ERROR(SR_E_NO_KEY);
    if (keys > 1) return SR_ERROR(SR_E_DUPLICATE_KEY);
    for (qx_uint32_t i = 1; i < total_columns; ++i) {
        for (qx_uint32_t j = 0; j < i; ++j) {
            if (std::strcmp(p_columns[i].name, p_columns[j].name) == 0)
                return SR_ERROR(SR_E_DUPLICATE_COLUMN);
        }
    }
    *p_key_index = key_index;
    return 0;
}

// Lays out the metadata record for the (key-first) columns in the pool.
qx_int32_t build_metadata_record(sr_i_table_t *p_table, const sr_column_t *p_columns,
                                 qx_uint32_t total_columns, const char *p_defaults,
                                 qx_uint32_t defaults_length, qx_uint32_t total_variable) {
    qx_uint64_t names_length = 0;
    qx_uint64_t sd_length = 0;
    for (qx_uint32_t i = 0; i < total_columns; ++i) {
        names_length += std::strlen(p_columns[i].name) + 1;
        if (is_structured(p_columns[i].type) && p_columns[i].sd_defn != nullptr) {
            sd_length += sd_definition_size(p_columns[i].sd_defn);
        }
    }
    const qx_uint64_t array_length = static_cast<qx_uint64_t>(total_columns) * kColumnSize;
    const qx_uint64_t data_length =
        kMetadataFixed + defaults_length + array_length + names_length + sd_length;
    if (data_length > UINT32_MAX / 2) return SR_ERROR(SR_E_NO_MEMORY);
    char *p_data = nullptr;
    qx_int32_t rc =
        sr_i_reserve_record(&p_table->record_buffer_pool, static_cast<qx_uint32_t>(data_length),
                            SR_I_RECORD_TYPE_METADATA, &p_data);
    if (rc != 0) return rc;
    sr_i_store_u32(p_data, byte_order_flag());
    sr_i_store_u32(p_data + 4, 0);
    sr_i_store_u32(p_data + 8, total_columns);
    sr_i_store_u32(p_data + 12, total_variable);
    char *p_area = sr_i_metadata_indirect_area(p_data, total_columns);
    if (defaults_length > 0) std::memcpy(p_area, p_defaults, defaults_length);
    char *p_name = p_area + defaults_length;
    char *p_sd = p_name + names_length;
    for (qx_uint32_t i = 0; i < total_columns; ++i) {
        const sr_column_t &column = p_columns[i];
        char *p_entry = sr_i_column_entry(p_data, i);
        size_t length = std::strlen(column.name) + 1;
        std::memcpy(p_name, column.name, length);
        sr_i_store_u32(p_entry + SR_I_COLUMN_ENTRY_NAME, static_cast<qx_uint32_t>(p_name - p_area));
        p_name += length;
        sr_i_store_u32(p_entry + SR_I_COLUMN_ENTRY_TYPE, static_cast<qx_uint32_t>(column.type));
        sr_i_store_u32(p_entry + SR_I_COLUMN_ENTRY_QUALIFIER, column.qualifier);
        sr_i_store_u32(p_entry + SR_I_COLUMN_ENTRY_PROPERTIES,
                       static_cast<qx_uint32_t>(column.properties));
        qx_uint32_t sd_offset = 0;
        if (is_structured(column.type) && column.sd_defn != nullptr) {
            const sr_sd_def_t *p_def = column.sd_defn;
            sd_offset = static_cast<qx_uint32_t>(p_sd - p_area);
            sr_i_store_u32(p_sd, p_def->number_of_fields);
            p_sd += 4;
            for (qx_uint32_t f = 0; f < p_def->number_of_fields; ++f) {
                sr_i_store_u32(p_sd, static_cast<qx_uint32_t>(p_def->field_def[f].type));
                size_t field_length = std::strlen(p_def->field_def[f].name) + 1;
                std::memcpy(p_sd + 4, p_def->field_def[f].name, field_length);
                p_sd += 4 + field_length;
            }
        }
        sr_i_store_u32(p_entry + SR_I_COLUMN_ENTRY_SD_DEFN, sd_offset);
        sr_i_store_u32(p_entry + SR_I_COLUMN_ENTRY_SD_DEFN + 4, 0);
        std::memcpy(p_entry + SR_I_COLUMN_ENTRY_DEFAULT, &column.default_value, 8);
    }
    p_table->p_metadata_record_data = p_data;
    p_table->total_columns = total_columns;
    p_table->total_variable_length_columns = total_variable;
    return sr_i_load_columns(p_table);
}

}  // namespace

char *sr_i_strdup(const char *p_text) {
    size_t length = std::strlen(p_text) + 1;
    char *p_copy = static_cast<char *>(sr_i_malloc(length));
    if (p_copy != nullptr) std::memcpy(p_copy, p_text, length);
    return p_copy;
}

qx_int32_t sr_i_load_columns(sr_i_table_t *p_table) {
    const qx_uint32_t total = p_table->total_columns;
    auto *p_columns =
        static_cast<sr_column_t *>(sr_i_calloc(total != 0 ? total : 1, sizeof(sr_column_t)));
    if (p_columns == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    char *p_data = p_table->p_metadata_record_data;
    char *p_area = sr_i_metadata_indirect_area(p_data, total);
    for (qx_uint32_t i = 0; i < total; ++i) {
        const char *p_entry = sr_i_column_entry(p_data, i);
        sr_column_t &column = p_columns[i];
        column.name = p_area + sr_i_load_u32(p_entry + SR_I_COLUMN_ENTRY_NAME);
        column.type = static_cast<qx_data_type_t>(sr_i_load_u32(p_entry + SR_I_COLUMN_ENTRY_TYPE));
        column.qualifier = sr_i_load_u32(p_entry + SR_I_COLUMN_ENTRY_QUALIFIER);
        column.properties =
            static_cast<qx_int32_t>(sr_i_load_u32(p_entry + SR_I_COLUMN_ENTRY_PROPERTIES));
        const qx_uint32_t sd_offset = sr_i_load_u32(p_entry + SR_I_COLUMN_ENTRY_SD_DEFN);
        column.sd_defn =
            sd_offset == 0 ? nullptr : reinterpret_cast<sr_sd_def_t *>(p_area + sd_offset);
        std::memcpy(&column.default_value, p_entry + SR_I_COLUMN_ENTRY_DEFAULT, 8);
    }
    std::free(p_table->p_columns);
    p_table->p_columns = p_columns;
    sr_i_overlays_reapply(p_table);
    return 0;
}

void sr_i_set_column_qualifier(sr_i_table_t *p_table, qx_uint32_t column,
                               sr_qualifier_t qualifier) {
    sr_i_store_u32(
        sr_i_column_entry(p_table->p_metadata_record_data, column) + SR_I_COLUMN_ENTRY_QUALIFIER,
        qualifier);
    p_table->p_columns[column].qualifier = qualifier;
}

void sr_i_swap_columns(sr_column_t *p_column1, sr_column_t *p_column2) {
    sr_column_t temporary;
    std::memcpy(&temporary, p_column1, sizeof temporary);
    std::memcpy(p_column1, p_column2, sizeof temporary);
    std::memcpy(p_column2, &temporary, sizeof temporary);
}

qx_uint32_t sr_i_valid_column_name(const char *column_name) {
    if (column_name == nullptr) return 0;
    size_t length = std::strlen(column_name);
    if (length < 1 || length > 255) return 0;
    if (!std::isalpha(static_cast<unsigned char>(column_name[0]))) return 0;
    for (size_t i = 1; i < length; ++i) {
        unsigned char c = static_cast<unsigned char>(column_name[i]);
        if (std::isspace(c) || (!std::isalnum(c) && c != '_')) return 0;
    }
    return 1;
}

qx_int32_t sr_i_create_null_table(sr_i_table_t **p_table) {
    auto *p_new = static_cast<sr_i_table_t *>(sr_i_calloc(1, sizeof(sr_i_table_t)));
    if (p_new == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    p_new->references = 1;
    p_new->implicitly_controlled = 1;
    p_new->change_counter = 1;
    p_new->file_fd = -1;
    p_new->rewrite_file_fd = -1;
    p_new->uncommitted_updates_visible = getenv("SR_UNCOMMITTED_UPDATES_VISIBLE") != nullptr;
    sr_i_rw_open(&p_new->lock);
    *p_table = p_new;
    return 0;
}

qx_int32_t sr_i_pack_variable_length_default_values(
    sr_column_t *p_columns, qx_uint32_t total_columns, char **p_default_value_indirect_data,
    qx_uint32_t *default_value_indirect_data_length,
    qx_uint32_t *total_variable_length_columns_return, cu_iconv_t *p_string_conversion_handle) {
    *p_default_value_indirect_data = nullptr;
    *default_value_indirect_data_length = 0;
    *total_variable_length_columns_return = 0;
    qx_uint32_t room = 4096;
    char *p_buffer = static_cast<char *>(sr_i_malloc(room));
    if (p_buffer == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    qx_uint32_t used = 0;
    qx_uint32_t total_variable = 0;
    for (qx_uint32_t i = 0; i < total_columns; ++i) {
        sr_column_t &column = p_columns[i];
        if (!is_pointer_type(column.type)) continue;
        qx_value_t copy;
        sr_i_dup_nonscalar_value(column.type, &column.default_value, &copy);
        qx_pmsg_value_t anchor;
        for (;;) {
            int rc = qx_pmsg_build_conv_protocol_value_1(p_string_conversion_handle, 0, column.type,
                                                         &copy, &anchor, p_buffer, room, &used);
            if (rc == 0) break;
            if (rc != QX_PMSG_E_ROOM) {
                std::free(p_buffer);
                return SR_ERROR_LIBCALL("qx_pmsg_build_conv_protocol_value", rc);
            }
            char *p_bigger = room <= UINT32_MAX / 2
                                 ? static_cast<char *>(sr_i_realloc(p_buffer, room * 2u))
                                 : nullptr;
            if (p_bigger == nullptr) {
                std::free(p_buffer);
                return SR_ERROR(SR_E_NO_MEMORY);
            }
            p_buffer = p_bigger;
            room *= 2;
        }
        // The anchor replaces the default in the caller's own array and stays
        // there: the metadata record is copied from that array, and callers
        // have long relied on seeing where their defaults were packed.
        std::memcpy(&column.default_value, &anchor, sizeof anchor);
        ++total_variable;
    }
    if (total_variable == 0) {
        std::free(p_buffer);
        return SR_E_INTERNAL;  // nothing to pack; the caller accepts it without an error
    }
    *p_default_value_indirect_data = p_buffer;
    *default_value_indirect_data_length = used;
    *total_variable_length_columns_return = total_variable;
    return 0;
}

qx_int32_t sr_i_create_transient_table_common(sr_i_tree_t *p_tree, const char *p_name,
                                              sr_column_t *p_columns, qx_uint32_t total_columns,
                                              qx_uint32_t mode, sr_hash_table_t *p_rows_hash_table,
                                              sr_i_table_t **p_table) {
    qx_uint32_t key_index = 0;
    qx_int32_t rc = validate_columns(p_columns, total_columns, &key_index);
    if (rc != 0) {
        sr_i_hash_table_close(p_rows_hash_table);
        return rc;
    }
    sr_i_table_t *p_new = nullptr;
    rc = sr_i_create_null_table(&p_new);
    if (rc != 0) {
        sr_i_hash_table_close(p_rows_hash_table);
        return rc;
    }
    // The key is column 0 of every table; the caller's array gets its order
    // back before this function returns, on every path.
    if (key_index != 0) sr_i_swap_columns(&p_columns[0], &p_columns[key_index]);
    p_new->p_rows_hash_table = p_rows_hash_table;
    p_new->implicitly_controlled = (mode & SR_MODE_EXPLICIT_CONTROL) ? 0 : 1;
    p_new->p_tree = p_tree;
    if (p_name != nullptr) {
        p_new->p_name = sr_i_strdup(p_name);
        if (p_new->p_name == nullptr) rc = SR_ERROR(SR_E_NO_MEMORY);
    }
    if (rc == 0) rc = sr_i_establish_rows_index(p_new, 100);
    char *p_defaults = nullptr;
    qx_uint32_t defaults_length = 0;
    qx_uint32_t total_variable = 0;
    if (rc == 0) {
        rc = sr_i_pack_variable_length_default_values(
            p_columns, total_columns, &p_defaults, &defaults_length, &total_variable,
            p_tree != nullptr ? p_tree->p_to_table_string_conversion_handle : nullptr);
        if (rc == SR_E_INTERNAL) rc = 0;
    }
    if (rc == 0) {
        rc = build_metadata_record(p_new, p_columns, total_columns, p_defaults, defaults_length,
                                   total_variable);
    }
    std::free(p_defaults);
    if (rc == 0 && p_new->p_rows_hash_table == nullptr && p_columns[0].type == QX_RSRC_HANDLE_PTR) {
        rc = sr_i_hash_table_open(0, nullptr, nullptr, &p_new->p_rows_hash_table);
    }
    if (rc == 0) rc = sr_i_allocate_application_metadata_buffer(1, &p_new->p_application_metadata);
    if (key_index != 0) sr_i_swap_columns(&p_columns[0], &p_columns[key_index]);
    if (rc != 0) {
        sr_i_close_table(p_new);
        return rc;
    }
    *p_table = p_new;
    return 0;
}

qx_int32_t sr_i_create_transient_table(sr_i_tree_t *p_tree, const char *p_name,
                                       sr_column_t *p_columns, qx_uint32_t total_columns,
                                       qx_uint32_t mode, sr_hash_table_t *p_rows_hash_table,
                                       sr_i_table_t **p_table) {
    sr_i_table_t *p_new = nullptr;
    qx_int32_t rc = sr_i_create_transient_table_common(p_tree, p_name, p_columns, total_columns,
                                                       mode, p_rows_hash_table, &p_new);
    if (rc != 0) return rc;
    // Found, not taken: the pool adds the buffer the first rows will use.
    char *p_room = nullptr;
    char *p_previous = nullptr;
    qx_uint32_t actual = 0;
    rc = sr_i_rb_find_suitable_record(
        &p_new->record_buffer_pool,
        p_new->total_columns * 800 + p_new->total_variable_length_columns * 10000 + 1600, &p_room,
        &p_previous, &actual);
    if (rc != 0) {
        sr_i_close_table(p_new);
        return rc;
    }
    p_new->mode = SR_MODE_WRITE;
    *p_table = p_new;
    return 0;
}

qx_int32_t sr_i_create_persistent_table(sr_i_tree_t *p_tree, const char *p_name,
                                        const char *p_file_name, sr_column_t *p_columns,
                                        qx_uint32_t total_columns, qx_uint32_t mode,
                                        qx_uint32_t block_size, sr_hash_table_t *p_rows_hash_table,
                                        sr_i_table_t **p_table) {
    if (p_file_name == nullptr) {
        sr_i_hash_table_close(p_rows_hash_table);
        return SR_ERROR(SR_E_NULL_POINTER);
    }
    sr_i_table_t *p_new = nullptr;
    qx_int32_t rc = sr_i_create_transient_table(p_tree, p_file_name, p_columns, total_columns, mode,
                                                p_rows_hash_table, &p_new);
    if (rc != 0) return rc;
    p_new->block_size = block_size;
    size_t name_length = std::strlen(p_file_name);
    p_new->p_file_path = static_cast<char *>(sr_i_malloc(name_length + 9));
    if (p_name != nullptr) p_new->p_persistent_table_registry_path = sr_i_strdup(p_name);
    if (p_new->p_file_path == nullptr ||
        (p_name != nullptr && p_new->p_persistent_table_registry_path == nullptr)) {
        sr_i_close_table(p_new);
        return SR_ERROR(SR_E_NO_MEMORY);
    }
    std::memcpy(p_new->p_file_path, p_file_name, name_length);
    std::memcpy(p_new->p_file_path + name_length, ".rewrite", 9);
    p_new->file_path_length = static_cast<qx_uint32_t>(name_length);

    // The new file is written under the ".rewrite" name and renamed into place
    // only when complete and synced, so the data file name never designates a
    // partial file.
    const char *p_rewrite = sr_i_set_rewrite_path(p_new);
    qx_int32_t fd = sr_i_open_file(p_rewrite, O_RDWR | O_CREAT, 0644);
    if (fd < 0) {
        int err = errno;
        if (err == ENOSPC) unlink(p_rewrite);
        rc = SR_ERROR_FILE("open", err, false);
        sr_i_close_table(p_new);
        return rc;
    }
    // Two creators of one table meet here: the loser of the non-waiting lock
    // leaves the ".rewrite" file alone, since it is the winner's file that the
    // winner is about to rename.  (Linux reports the held lock as EAGAIN.)
    if (lockf(fd, F_TLOCK, 0) != 0) {
        int err = errno;
        close(fd);
        sr_i_close_table(p_new);
        if (err == EACCES || err == EEXIST || err == EAGAIN) return SR_ERROR(SR_E_TABLE_EXISTS);
        return SR_ERROR_SYSCALL("lockf", err);
    }
    struct stat st;
    if (stat(sr_i_set_data_path(p_new), &st) == 0) {
        unlink(sr_i_set_rewrite_path(p_new));
        close(fd);
        sr_i_close_table(p_new);
        return SR_ERROR(SR_E_TABLE_EXISTS);
    }

    p_new->file_length = 0;
    char *p_commit = nullptr;
    qx_uint32_t commit_length = 0;
    rc = sr_i_create_commit_record(nullptr, p_new->change_counter, &commit_length, &p_commit);
    if (rc == 0) {
        char *p_meta_header = p_new->p_metadata_record_data - kHeader;
        p_new->io_vector[0].iov_base = p_meta_header;
        p_new->io_vector[0].iov_len = sr_i_load_u32(p_meta_header);
        p_new->io_vector[1].iov_base = p_commit;
        p_new->io_vector[1].iov_len = commit_length;
        rc = sr_i_writev(fd, p_new->io_vector, 2,
                         static_cast<ssize_t>(p_new->io_vector[0].iov_len + commit_length),
                         &p_new->file_length);
        std::free(p_commit);
    }
    if (rc == 0) rc = sr_i_fdatasync(fd);
    bool renamed = false;
    if (rc == 0) {
        // The two names share one buffer; the table's name is the data name.
        // A table another process created since the check above is never
        // replaced: the rename refuses an existing name.
        if (sr_i_sys_rename_noreplace(sr_i_set_rewrite_path(p_new), p_new->p_name) != 0) {
            int err = errno;
            if (err == EEXIST) {
                sr_i_sys_unlink(sr_i_set_rewrite_path(p_new));
                close(fd);
                sr_i_close_table(p_new);
                return SR_ERROR(SR_E_TABLE_EXISTS);
            }
            if (err == ENOSPC) unlink(sr_i_set_data_path(p_new));
            rc = SR_ERROR_FILE("rename", err, false);
        } else {
            renamed = true;
            // The new name survives a power loss only with its directory.
            // The table exists either way: a failure is captured, not
            // returned.
            (void)sr_i_sync_directory_of(p_new->p_name);
        }
    }
    if (rc == 0) rc = sr_i_register_data_file(fd, 2);
    if (rc != 0) {
        // A failed create leaves no file behind.
        sr_i_sys_unlink(renamed ? sr_i_set_data_path(p_new) : sr_i_set_rewrite_path(p_new));
        close(fd);
        sr_i_close_table(p_new);
        return rc;
    }
    sr_i_set_data_path(p_new);
    p_new->commit_record_offset = p_new->file_length - commit_length;
    p_new->commit_record_length = commit_length;
    p_new->file_fd = fd;
    p_new->rewrite_file_fd = -1;
    *p_table = p_new;
    return 0;
}

qx_int32_t sr_i_create_read_only_transient_table_from_packed_rows(
    sr_i_tree_t *p_tree, const char *p_name, sr_column_t *p_columns, qx_uint32_t total_columns,
    sr_hash_table_t *p_rows_hash_table, qx_array_t *p_packed_rows_array, sr_i_table_t **p_table) {
    sr_i_table_t *p_new = nullptr;
    qx_int32_t rc = sr_i_create_transient_table_common(p_tree, p_name, p_columns, total_columns,
                                                       SR_MODE_READ, p_rows_hash_table, &p_new);
    if (rc != 0) {
        std::free(p_packed_rows_array);
        return rc;
    }
    // The table keeps the array (and through it the packed buffer) from here.
    p_new->p_packed_rows_array = p_packed_rows_array;
    const qx_data_type_t key_type = sr_i_load_column(p_new->p_columns).type;
    const size_t fixed_length = 4 + 8 * static_cast<size_t>(p_new->total_columns);
    const qx_uint32_t rows = sr_i_load_u32(&p_packed_rows_array->element_count);
    for (qx_uint32_t i = 0; i < rows && rc == 0; ++i) {
        // The rows stay in the packed buffer: the table reads them in place.
        char *p_header;
        std::memcpy(&p_header, &p_packed_rows_array->elements[i], sizeof p_header);
        char *p_data = p_header + kHeader;
        const qx_uint32_t length = sr_i_record_length(p_header);
        if (length < kHeader + fixed_length) {
            rc = SR_ERROR(SR_E_TABLE_UNREADABLE);
            break;
        }
        // The key in the table's code set, as the uniqueness check compares it
        // with the stored keys.
        qx_value_t key;
        int pmsg_rc = qx_pmsg_build_conv_packed_client_value_1(
            nullptr, QX_PMSG_CLIENT_MALLOC, key_type, &key, p_data + 4, p_data + fixed_length,
            static_cast<qx_int64_t>(length - kHeader - fixed_length));
        if (pmsg_rc != 0) {
            rc = SR_ERROR_LIBCALL("qx_pmsg_build_conv_packed_client_value", pmsg_rc);
            break;
        }
        sr_i_index_entry_t *p_entry = nullptr;
        sr_hash_table_element_t *p_existing = nullptr;
        rc = sr_i_add_row_raw(p_new, p_data, &key, &p_entry, &p_existing);
        if (sr_i_is_pointer_type(key_type)) std::free(key.ptr_char);
        if (rc != 0) break;
        // Committed at once: the packed index, both counts, both versions.
        p_new->p_rows_packed_index[p_new->total_applied_rows] =
            static_cast<qx_uint32_t>(p_entry - p_new->p_rows_fixed_index);
        p_entry->packed_index = p_new->total_applied_rows;
        ++p_new->total_applied_rows;
        ++p_new->total_committed_rows;
        p_entry->p_committed = p_entry->p_applied;
    }
    if (rc != 0) {
        sr_i_close_table(p_new);
        return rc;
    }
    p_new->mode = SR_MODE_READ;
    *p_table = p_new;
    return 0;
}

qx_int32_t sr_x_create_table(sr_opaque_handle_t tree_handle, qx_char_ptr_t p_registry_path,
                             sr_column_t *p_columns, qx_uint32_t array_count, qx_int32_t mode,
                             sr_hash_table_t *p_rows_hash_table, qx_array_t *p_packed_rows_array,
                             sr_opaque_handle_t *p_result_table_handle) {
    auto *p_tree = static_cast<sr_i_tree_t *>(tree_handle);
    qx_int32_t rc = 0;
    if (p_tree == nullptr) {
        rc = SR_ERROR(SR_E_INVALID_HANDLE);
    } else if (p_columns == nullptr || p_result_table_handle == nullptr) {
        rc = SR_ERROR(SR_E_NULL_POINTER);
    } else if (mode < 0 || mode > 7) {
        rc = SR_ERROR(SR_E_INVALID_MODE);
    }
    if (rc != 0) {
        sr_i_hash_table_close(p_rows_hash_table);
        std::free(p_packed_rows_array);
        return rc;
    }
    // A table is always created open for write.
    const qx_uint32_t effective_mode = (mode & SR_MODE_EXPLICIT_CONTROL)
                                           ? (SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL)
                                           : SR_MODE_WRITE;
    rc = sr_i_rw_lock_write(&p_tree->lock);
    if (rc != 0) {
        sr_i_hash_table_close(p_rows_hash_table);
        std::free(p_packed_rows_array);
        return rc;
    }
    qx_char_ptr_t p_absolute = nullptr;
    qx_uint32_t block_size = 0;
    rc = sr_i_resolve_path(p_tree, p_registry_path, &p_absolute, &block_size);
    if (rc == 0 && block_size != 0 && p_packed_rows_array != nullptr) {
        // Unpacked rows live in the caller's buffer, never in a file: such a
        // table is transient and known by its registry path, wherever that
        // path lies.
        std::free(p_absolute);
        p_absolute = p_registry_path;
        block_size = 0;
    }
    if (rc == 0 && tfind(p_absolute, &p_tree->p_tables, sr_i_string_to_table_compare) != nullptr) {
        rc = SR_ERROR(SR_E_TABLE_EXISTS);
    }
    struct stat st;
    if (rc == 0 && block_size != 0 && (stat(p_absolute, &st) == 0 || errno != ENOENT)) {
        rc = SR_ERROR(SR_E_TABLE_EXISTS);
    }
    // The anchors of the packed defaults are written into the caller's array;
    // a create that fails must leave that array as it was given.
    qx_value_t *p_saved_defaults = nullptr;
    if (rc == 0) {
        p_saved_defaults =
            static_cast<qx_value_t *>(sr_i_malloc(sizeof(qx_value_t) * (array_count + 1u)));
        if (p_saved_defaults == nullptr) rc = SR_ERROR(SR_E_NO_MEMORY);
    }
    if (rc != 0) {
        sr_i_hash_table_close(p_rows_hash_table);
        std::free(p_packed_rows_array);
    } else {
        for (qx_uint32_t i = 0; i < array_count; ++i) {
            p_saved_defaults[i] = p_columns[i].default_value;
        }
        sr_i_table_t *p_new = nullptr;
        if (block_size != 0) {
            rc = sr_i_create_persistent_table(p_tree, p_registry_path, p_absolute, p_columns,
                                              array_count, effective_mode, block_size,
                                              p_rows_hash_table, &p_new);
        } else if (p_packed_rows_array != nullptr) {
            rc = sr_i_create_read_only_transient_table_from_packed_rows(
                p_tree, p_absolute, p_columns, array_count, p_rows_hash_table, p_packed_rows_array,
                &p_new);
        } else {
            rc = sr_i_create_transient_table(p_tree, p_absolute, p_columns, array_count,
                                             effective_mode, p_rows_hash_table, &p_new);
        }
        if (rc == 0 && tsearch(p_new, &p_tree->p_tables, sr_i_table_compare) == nullptr) {
            if (p_new->p_file_path != nullptr) unlink(sr_i_set_data_path(p_new));
            sr_i_close_table(p_new);
            rc = SR_ERROR(SR_E_NO_MEMORY);
        }
        if (rc == 0) {
            *p_result_table_handle = p_new;
        } else {
            for (qx_uint32_t i = 0; i < array_count; ++i) {
                p_columns[i].default_value = p_saved_defaults[i];
            }
        }
        std::free(p_saved_defaults);
    }
    if (block_size != 0) std::free(p_absolute);
    qx_int32_t unlock_rc = sr_i_rw_unlock_write(&p_tree->lock);
    return rc != 0 ? rc : unlock_rc;
}
