// Packed table buffers: whole tables (name, counts, column definitions and
// row records) in one self-describing block in the protocol value layout, so
// that another process, possibly on a machine of the other byte order, can
// convert it in place and unpack each table into a read-only transient table
// whose rows are the buffer's own records.
//
// Layout (integers in the packer's byte order until converted):
//   0   length word of the whole buffer; 4..7 version 0, arch 1, protocol 2, 0
//   8   slot 0; 16 slot 1 (the byte-order mark); 24 slot length; 32 slot N
//   40 + 32 i   table i: name, fixed metadata, column metadata, rows
//   40 + 32 N   the indirect area every anchor counts from
//
// A received buffer is untrusted and the calls take no length: the length
// word bounds everything.  The head is checked against it before anything
// else is read, every value is decoded or converted with the indirect area's
// length as its bound, and every row record must hold its slots within its
// own length.  The arithmetic of those bounds is 64-bit throughout.
//
// Rows travel as binaries whose length word is the record's first header
// word (the record length, header included), so that the record arrives as
// it lay in the pool and its header is where the binary starts.  Such a
// binary is four bytes longer than the record it carries; in the pool those
// four bytes belong to the next record or lie past the buffer, so the rows
// form is written here rather than by the value library, byte for byte as
// the library would write it, with the four trailing bytes zero.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "sr_i_hash_table.h"
#include "sr_i_pack.h"
#include "sr_i_pool.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_table.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_i_pack", "1.1");

namespace {

constexpr qx_uint32_t kHeader = SR_I_RECORD_HEADER_LENGTH;
constexpr qx_uint64_t kHead = SR_I_PACKED_HEAD_LENGTH;
constexpr qx_uint64_t kTableSlots = SR_I_PACKED_TABLE_SLOTS_LENGTH;

// Fixed metadata elements and column metadata elements, in order.
constexpr qx_uint32_t kFixedElements = 5;
constexpr qx_uint32_t kColumnElements = 6;
constexpr qx_uint32_t kColumnElementsWithDefinition = 8;

bool is_structured(qx_data_type_t type) {
    return type == QX_SD_PTR || type == QX_SD_PTR_ARRAY;
}

void set_element(qx_structured_data_t *p_sd, qx_uint32_t index, qx_data_type_t type,
                 qx_value_t value) {
    p_sd->elements[index].data_type = type;
    p_sd->elements[index].pad = 0;
    p_sd->elements[index].value = value;
}

qx_value_t u32_value(qx_uint32_t v) {
    qx_value_t value;
    value.val_uint64 = 0;
    value.val_uint32 = v;
    return value;
}

// Start of the metadata record's indirect area (after the column array) and
// its length, from the record's own length word.
void metadata_area(const sr_i_table_t *p_table, const char **p_p_area, qx_int64_t *p_length) {
    const char *p_data = p_table->p_metadata_record_data;
    const char *p_area =
        sr_i_metadata_indirect_area(p_table->p_metadata_record_data, p_table->total_columns);
    const qx_int64_t record_end = static_cast<qx_int64_t>(sr_i_record_length(p_data - kHeader));
    const qx_int64_t length = record_end - kHeader - (p_area - p_data);
    *p_p_area = p_area;
    *p_length = length < 0 ? 0 : length;
}

// Bytes of the rows form for `total` records: the array head and anchors,
// then per record a binary of 4 + L bytes, end to end.
qx_uint64_t rows_form_length(const qx_array_t *p_rows) {
    qx_uint64_t length = 8 + 8 * static_cast<qx_uint64_t>(p_rows->element_count);
    for (qx_uint32_t i = 0; i < p_rows->element_count; ++i) {
        const char *p_header = p_rows->elements[i].ptr_char;
        length += 4 + static_cast<qx_uint64_t>(sr_i_record_length(p_header));
    }
    return length;
}

// Writes the rows form at p_form (zeroed memory) and returns its length.
qx_uint32_t write_rows_form(const qx_array_t *p_rows, char *p_form) {
    const qx_uint32_t count = p_rows->element_count;
    sr_i_store_u32(p_form, count);
    sr_i_store_u32(p_form + 4, 0);
    qx_uint64_t position = 8 + 8 * static_cast<qx_uint64_t>(count);
    for (qx_uint32_t i = 0; i < count; ++i) {
        const char *p_header = p_rows->elements[i].ptr_char;
        const qx_uint32_t length = sr_i_record_length(p_header);
        sr_i_store_u32(p_form + 8 + 8 * static_cast<size_t>(i), static_cast<qx_uint32_t>(position));
        sr_i_store_u32(p_form + 12 + 8 * static_cast<size_t>(i), 4 + length);
        char *p_binary = p_form + position;
        sr_i_store_u32(p_binary, length);
        std::memcpy(p_binary + 4, p_header + 4, length - 4);
        // The binary's last four bytes stay zero (see the file comment).
        position += 4 + static_cast<qx_uint64_t>(length);
    }
    return static_cast<qx_uint32_t>(position);
}

// Adds the protocol size of one value to *p_total.
qx_int32_t add_size(qx_data_type_t type, const qx_value_t &value, qx_uint64_t *p_total) {
    qx_uint32_t size = 0;
    int rc = qx_pmsg_size_conv_protocol_value_1(nullptr, 0, type, &value, &size);
    if (rc != 0) return SR_ERROR_LIBCALL("qx_pmsg_size_conv_protocol_value", rc);
    *p_total += size;
    return 0;
}

qx_int32_t build_value(qx_data_type_t type, const qx_value_t &value, char *p_slot, char *p_area,
                       qx_uint32_t room, qx_uint32_t *p_running) {
    int rc = qx_pmsg_build_conv_protocol_value_1(nullptr, 0, type, &value, p_slot, p_area, room,
                                                 p_running);
    if (rc != 0) return SR_ERROR_LIBCALL("qx_pmsg_build_conv_protocol_value", rc);
    return 0;
}

// A caller-owned client value of a slot in an untrusted area.
qx_int32_t client_value(qx_data_type_t type, const void *p_slot, const void *p_area,
                        qx_int64_t limit, qx_value_t *p_value) {
    p_value->val_uint64 = 0;
    int rc = qx_pmsg_build_conv_packed_client_value_1(nullptr, QX_PMSG_CLIENT_MALLOC, type, p_value,
                                                      p_slot, p_area, limit);
    if (rc != 0) return SR_ERROR_LIBCALL("qx_pmsg_build_conv_packed_client_value", rc);
    return 0;
}

qx_int32_t convert_value(void *p_slot, qx_data_type_t type, void *p_base, qx_int64_t limit) {
    int rc = qx_pmsg_convert_pmsg_value_bounded_1(p_slot, type, p_base, limit);
    if (rc != 0) return SR_ERROR_LIBCALL("qx_pmsg_convert_pmsg_value", rc);
    return 0;
}

// Element types are read as plain words: a damaged buffer can hold any
// value there, and only a checked value may become a qx_data_type_t.
qx_uint32_t element_type(const qx_structured_data_t *p_sd, qx_uint32_t index) {
    qx_uint32_t word;
    std::memcpy(&word, &p_sd->elements[index].data_type, sizeof word);
    return word;
}

bool element_is(const qx_structured_data_t *p_sd, qx_uint32_t index, qx_data_type_t type) {
    return element_type(p_sd, index) == static_cast<qx_uint32_t>(type);
}

bool is_column_type(qx_uint32_t word) {
    return word >= QX_INT32 && word <= QX_SD_PTR_ARRAY;
}

// Whether an unpacked fixed metadata value has the five elements it must.
bool fixed_metadata_shape(const qx_structured_data_t *p_sd) {
    return p_sd != nullptr && p_sd->element_count == kFixedElements &&
           element_is(p_sd, 0, QX_CHAR_PTR) && element_is(p_sd, 1, QX_UINT32) &&
           element_is(p_sd, 2, QX_UINT32) && element_is(p_sd, 3, QX_UINT64) &&
           element_is(p_sd, 4, QX_INT32);
}

// Whether one unpacked column description has the shape a column needs, so
// that no element is read as something it is not.
bool column_shape(const qx_structured_data_t *p_sd) {
    if (p_sd == nullptr) return false;
    const qx_uint32_t count = p_sd->element_count;
    if (count != kColumnElements && count != kColumnElementsWithDefinition) return false;
    if (!element_is(p_sd, 0, QX_CHAR_PTR) || !element_is(p_sd, 1, QX_UINT32) ||
        !element_is(p_sd, 2, QX_UINT32) || !element_is(p_sd, 3, QX_INT32) ||
        !element_is(p_sd, 5, QX_UINT32)) {
        return false;
    }
    const qx_uint32_t type_word = p_sd->elements[1].value.val_uint32;
    if (!is_column_type(type_word)) return false;
    const auto type = static_cast<qx_data_type_t>(type_word);
    const qx_uint32_t default_type = element_type(p_sd, 4);
    if (is_structured(type) ? default_type != QX_UINT32 : default_type != type_word) return false;
    if (count == kColumnElementsWithDefinition) {
        const qx_uint32_t fields = p_sd->elements[5].value.val_uint32;
        const qx_array_t *p_types = p_sd->elements[6].value.ptr_array;
        const qx_array_t *p_names = p_sd->elements[7].value.ptr_array;
        if (!element_is(p_sd, 6, QX_UINT32_ARRAY) || !element_is(p_sd, 7, QX_CHAR_PTR_ARRAY) ||
            p_types == nullptr || p_names == nullptr || p_types->element_count != fields ||
            p_names->element_count != fields) {
            return false;
        }
        for (qx_uint32_t f = 0; f < fields; ++f) {
            if (!is_column_type(p_types->elements[f].val_uint32)) return false;
        }
    }
    return true;
}

bool column_metadata_shape(const qx_array_t *p_array) {
    if (p_array == nullptr) return false;
    for (qx_uint32_t i = 0; i < p_array->element_count; ++i) {
        if (!column_shape(p_array->elements[i].ptr_sd)) return false;
    }
    return true;
}

// Frees what pack_tables built per table.
struct PackParts {
    qx_uint32_t total = 0;
    qx_structured_data_t **p_fixed = nullptr;
    qx_array_t **p_columns = nullptr;
    qx_array_t **p_rows = nullptr;

    ~PackParts() {
        for (qx_uint32_t i = 0; i < total; ++i) {
            if (p_fixed != nullptr) std::free(p_fixed[i]);
            if (p_columns != nullptr) sr_i_free_packed_table_column_metadata_array(p_columns[i]);
            if (p_rows != nullptr) std::free(p_rows[i]);
        }
        std::free(p_fixed);
        std::free(p_columns);
        std::free(p_rows);
    }
};

// Builds one column's description into *p_p_sd.
qx_int32_t describe_column(const sr_i_table_t *p_table, qx_uint32_t index,
                           qx_structured_data_t **p_p_sd) {
    const sr_column_t column = sr_i_load_column(&p_table->p_columns[index]);
    const char *p_record_end = p_table->p_metadata_record_data +
                               sr_i_record_length(p_table->p_metadata_record_data - kHeader) -
                               kHeader;
    const bool definition = is_structured(column.type) && column.sd_defn != nullptr;
    const qx_uint32_t fields =
        definition ? sr_i_load_u32(reinterpret_cast<const char *>(column.sd_defn)) : 0;
    const size_t sd_size = QX_SD_SIZE(kColumnElementsWithDefinition);
    const size_t array_size = QX_ARRAY_SIZE(fields);
    auto *p_block = static_cast<char *>(sr_i_calloc(1, sd_size + 2 * array_size));
    if (p_block == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    auto *p_sd = reinterpret_cast<qx_structured_data_t *>(p_block);
    p_sd->element_count = definition ? kColumnElementsWithDefinition : kColumnElements;
    qx_value_t value;
    value.ptr_char = column.name;
    set_element(p_sd, 0, QX_CHAR_PTR, value);
    set_element(p_sd, 1, QX_UINT32, u32_value(static_cast<qx_uint32_t>(column.type)));
    set_element(p_sd, 2, QX_UINT32, u32_value(column.qualifier));
    value.val_uint64 = 0;
    value.val_int32 = column.properties;
    set_element(p_sd, 3, QX_INT32, value);
    // Structured defaults do not travel; other pointer defaults are read back
    // from their packed form in the metadata record into a value of our own.
    set_element(p_sd, 4, QX_UINT32, u32_value(0));
    if (!is_structured(column.type)) {
        if (sr_i_is_pointer_type(column.type)) {
            const char *p_area = nullptr;
            qx_int64_t area_length = 0;
            metadata_area(p_table, &p_area, &area_length);
            qx_int32_t rc = client_value(column.type, &p_table->p_columns[index].default_value,
                                         p_area, area_length, &value);
            if (rc != 0) {
                std::free(p_block);
                return rc;
            }
        } else {
            value = column.default_value;
        }
        set_element(p_sd, 4, column.type, value);
    }
    set_element(p_sd, 5, QX_UINT32, u32_value(fields));
    if (definition) {
        auto *p_types = reinterpret_cast<qx_array_t *>(p_block + sd_size);
        auto *p_names = reinterpret_cast<qx_array_t *>(p_block + sd_size + array_size);
        p_types->element_count = fields;
        p_names->element_count = fields;
        const char *p = reinterpret_cast<const char *>(column.sd_defn) + 4;
        for (qx_uint32_t f = 0; f < fields; ++f) {
            if (p_record_end - p < 5) break;  // never read past our own record
            p_types->elements[f] = u32_value(sr_i_load_u32(p));
            p_names->elements[f].ptr_char = const_cast<char *>(p + 4);
            p += 4 + strnlen(p + 4, static_cast<size_t>(p_record_end - p - 4)) + 1;
        }
        value.ptr_array = p_types;
        set_element(p_sd, 6, QX_UINT32_ARRAY, value);
        value.ptr_array = p_names;
        set_element(p_sd, 7, QX_CHAR_PTR_ARRAY, value);
    }
    *p_p_sd = p_sd;
    return 0;
}

}  // namespace

qx_int32_t sr_i_get_table_fixed_metadata_SD(sr_i_table_t *p_table, qx_uint32_t view_applied,
                                            qx_structured_data_t **p_p_fixed_metadata) {
    SR_I_ASSERT_LOCKED(&p_table->lock);
    auto *p_sd = static_cast<qx_structured_data_t *>(sr_i_calloc(1, QX_SD_SIZE(kFixedElements)));
    if (p_sd == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    p_sd->element_count = kFixedElements;
    const char *p_name = p_table->p_persistent_table_registry_path != nullptr
                             ? p_table->p_persistent_table_registry_path
                             : (p_table->p_name != nullptr ? p_table->p_name : "");
    qx_value_t value;
    value.ptr_char = const_cast<char *>(p_name);
    set_element(p_sd, 0, QX_CHAR_PTR, value);
    set_element(
        p_sd, 1, QX_UINT32,
        u32_value(view_applied ? p_table->total_applied_rows : p_table->total_committed_rows));
    set_element(p_sd, 2, QX_UINT32, u32_value(p_table->total_columns));
    value.val_uint64 = p_table->change_counter;
    set_element(p_sd, 3, QX_UINT64, value);
    value.val_uint64 = 0;
    set_element(p_sd, 4, QX_INT32, value);
    *p_p_fixed_metadata = p_sd;
    return 0;
}

qx_int32_t sr_i_get_table_column_metadata_array(sr_i_table_t *p_table,
                                                qx_array_t **p_p_column_metadata_array) {
    auto *p_array =
        static_cast<qx_array_t *>(sr_i_calloc(1, QX_ARRAY_SIZE(p_table->total_columns)));
    if (p_array == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    for (qx_uint32_t i = 0; i < p_table->total_columns; ++i) {
        qx_structured_data_t *p_sd = nullptr;
        qx_int32_t rc = describe_column(p_table, i, &p_sd);
        if (rc != 0) {
            sr_i_free_packed_table_column_metadata_array(p_array);
            return rc;
        }
        p_array->elements[i].ptr_sd = p_sd;
        p_array->element_count = i + 1;
    }
    *p_p_column_metadata_array = p_array;
    return 0;
}

void sr_i_free_packed_table_column_metadata_array(qx_array_t *p_column_metadata_array) {
    if (p_column_metadata_array == nullptr) return;
    for (qx_uint32_t i = 0; i < p_column_metadata_array->element_count; ++i) {
        qx_structured_data_t *p_sd = p_column_metadata_array->elements[i].ptr_sd;
        if (p_sd == nullptr) continue;
        // The default of a pointer type is the one value allocated apart.
        const qx_uint32_t default_type = element_type(p_sd, 4);
        if (is_column_type(default_type) &&
            sr_i_is_pointer_type(static_cast<qx_data_type_t>(default_type))) {
            std::free(p_sd->elements[4].value.ptr_char);
        }
        std::free(p_sd);
    }
    std::free(p_column_metadata_array);
}

qx_int32_t sr_i_get_table_row_array(sr_i_table_t *p_table, qx_uint32_t view_applied,
                                    qx_array_t **p_p_row_array) {
    const qx_uint32_t wanted =
        view_applied ? p_table->total_applied_rows : p_table->total_committed_rows;
    auto *p_array = static_cast<qx_array_t *>(sr_i_calloc(1, QX_ARRAY_SIZE(wanted)));
    if (p_array == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    qx_uint32_t found = 0;
    // Slots without the view's record (free, deleted, or added and deleted
    // again before commit) are passed over.
    for (qx_uint32_t f = 0; f < p_table->maximum_rows && found < wanted; ++f) {
        const sr_i_index_entry_t &entry = p_table->p_rows_fixed_index[f];
        char *p_record = view_applied ? entry.p_applied : entry.p_committed;
        if (p_record == nullptr) continue;
        p_array->elements[found++].ptr_char = p_record - kHeader;
    }
    p_array->element_count = found;
    *p_p_row_array = p_array;
    return 0;
}

qx_int32_t sr_i_get_table_row_array_by_fixed_index(sr_i_table_t *p_table, qx_uint32_t view_applied,
                                                   qx_uint32_t total_row_fixed_indices,
                                                   const qx_uint32_t *p_row_fixed_indices,
                                                   qx_array_t **p_p_row_array) {
    auto *p_array =
        static_cast<qx_array_t *>(sr_i_calloc(1, QX_ARRAY_SIZE(total_row_fixed_indices)));
    if (p_array == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    for (qx_uint32_t i = 0; i < total_row_fixed_indices; ++i) {
        const qx_uint32_t f = p_row_fixed_indices[i];
        qx_int32_t rc = 0;
        char *p_record = nullptr;
        if (f >= p_table->maximum_rows) {
            rc = SR_ERROR(SR_E_NO_ROW_FOR_INDEX);
        } else {
            const sr_i_index_entry_t &entry = p_table->p_rows_fixed_index[f];
            p_record = view_applied ? entry.p_applied : entry.p_committed;
            if (p_record == nullptr) rc = SR_ERROR(SR_E_ROW_DELETED);
        }
        if (rc != 0) {
            std::free(p_array);
            return rc;
        }
        p_array->elements[i].ptr_char = p_record - kHeader;
    }
    p_array->element_count = total_row_fixed_indices;
    *p_p_row_array = p_array;
    return 0;
}

qx_int32_t sr_i_pack_tables(qx_uint32_t total_tables, sr_i_table_t **p_tables,
                            const qx_uint32_t *p_view_applied,
                            const qx_uint32_t *p_total_row_fixed_indices,
                            const qx_uint32_t *p_row_fixed_indices, void **p_p_buffer) {
    PackParts parts;
    parts.p_fixed = static_cast<qx_structured_data_t **>(
        sr_i_calloc(total_tables, sizeof(qx_structured_data_t *)));
    parts.p_columns = static_cast<qx_array_t **>(sr_i_calloc(total_tables, sizeof(qx_array_t *)));
    parts.p_rows = static_cast<qx_array_t **>(sr_i_calloc(total_tables, sizeof(qx_array_t *)));
    if (parts.p_fixed == nullptr || parts.p_columns == nullptr || parts.p_rows == nullptr) {
        return SR_ERROR(SR_E_NO_MEMORY);
    }
    parts.total = total_tables;

    qx_uint64_t total_length = kHead + kTableSlots * total_tables;
    const qx_uint32_t *p_next_fixed_index = p_row_fixed_indices;
    for (qx_uint32_t i = 0; i < total_tables; ++i) {
        sr_i_table_t *p_table = p_tables[i];
        const qx_uint32_t view = p_view_applied[i];
        qx_value_t value;
        value.ptr_char = const_cast<char *>(p_table->p_name != nullptr ? p_table->p_name : "");
        qx_int32_t rc = add_size(QX_CHAR_PTR, value, &total_length);
        if (rc == 0) rc = sr_i_get_table_fixed_metadata_SD(p_table, view, &parts.p_fixed[i]);
        if (rc == 0) {
            value.ptr_sd = parts.p_fixed[i];
            rc = add_size(QX_SD_PTR, value, &total_length);
        }
        if (rc == 0) rc = sr_i_get_table_column_metadata_array(p_table, &parts.p_columns[i]);
        if (rc == 0) {
            value.ptr_array = parts.p_columns[i];
            rc = add_size(QX_SD_PTR_ARRAY, value, &total_length);
        }
        if (rc == 0) {
            const qx_uint32_t chosen =
                p_total_row_fixed_indices != nullptr ? p_total_row_fixed_indices[i] : 0;
            if (chosen != 0) {
                // One list of fixed indices for all tables, consumed in turn.
                rc = sr_i_get_table_row_array_by_fixed_index(p_table, view, chosen,
                                                             p_next_fixed_index, &parts.p_rows[i]);
                p_next_fixed_index += chosen;
            } else {
                rc = sr_i_get_table_row_array(p_table, view, &parts.p_rows[i]);
            }
        }
        if (rc != 0) return rc;
        total_length += rows_form_length(parts.p_rows[i]);
    }
    // The length word is 32 bits.
    if (total_length > UINT32_MAX) return SR_ERROR(SR_E_NO_MEMORY);

    auto *p_buffer = static_cast<char *>(sr_i_calloc(1, static_cast<size_t>(total_length)));
    if (p_buffer == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    const qx_uint32_t length = static_cast<qx_uint32_t>(total_length);
    sr_i_store_u32(p_buffer, length);
    p_buffer[4] = 0;  // version
    p_buffer[5] = 1;  // architecture properties
    p_buffer[6] = 2;  // protocol type
    p_buffer[7] = 0;
    sr_i_store_u32(p_buffer + 8, 0);
    // The 1 at offset 16 is the byte-order mark a receiver asks about.
    sr_i_store_u32(p_buffer + 16, 1);
    sr_i_store_u32(p_buffer + 24, length);
    sr_i_store_u32(p_buffer + 32, total_tables);

    char *p_area = p_buffer + kHead + kTableSlots * total_tables;
    const qx_uint32_t room =
        static_cast<qx_uint32_t>(total_length - kHead - kTableSlots * total_tables);
    qx_uint32_t running = 0;
    for (qx_uint32_t i = 0; i < total_tables; ++i) {
        char *p_slots = p_buffer + kHead + kTableSlots * i;
        qx_value_t value;
        value.ptr_char =
            const_cast<char *>(p_tables[i]->p_name != nullptr ? p_tables[i]->p_name : "");
        qx_int32_t rc = build_value(QX_CHAR_PTR, value, p_slots, p_area, room, &running);
        if (rc == 0) {
            value.ptr_sd = parts.p_fixed[i];
            rc = build_value(QX_SD_PTR, value, p_slots + 8, p_area, room, &running);
        }
        if (rc == 0) {
            value.ptr_array = parts.p_columns[i];
            rc = build_value(QX_SD_PTR_ARRAY, value, p_slots + 16, p_area, room, &running);
        }
        if (rc != 0) {
            std::free(p_buffer);
            return rc;
        }
        const qx_uint32_t form_length = write_rows_form(parts.p_rows[i], p_area + running);
        sr_i_store_u32(p_slots + 24, running);
        sr_i_store_u32(p_slots + 28, form_length);
        running += form_length;
    }
    *p_p_buffer = p_buffer;
    return 0;
}

qx_int32_t sr_i_packed_buffer_head(const void *p_buffer, qx_uint32_t *p_total_tables,
                                   const char **p_p_indirect_area,
                                   qx_uint32_t *p_indirect_area_length) {
    const char *p = static_cast<const char *>(p_buffer);
    const qx_uint64_t length = sr_i_load_u32(p);
    if (length < kHead) return SR_ERROR(SR_E_TABLE_UNREADABLE);
    const qx_uint32_t total_tables = sr_i_load_u32(p + 32);
    const qx_uint64_t slots_end = kHead + kTableSlots * total_tables;
    if (slots_end > length) return SR_ERROR(SR_E_TABLE_UNREADABLE);
    *p_total_tables = total_tables;
    if (p_p_indirect_area != nullptr) *p_p_indirect_area = p + slots_end;
    if (p_indirect_area_length != nullptr) {
        *p_indirect_area_length = static_cast<qx_uint32_t>(length - slots_end);
    }
    return 0;
}

qx_int32_t sr_i_get_packed_table_name(const void *p_buffer, qx_uint32_t table_index,
                                      qx_char_ptr_t *p_table_name) {
    qx_uint32_t total_tables = 0;
    const char *p_area = nullptr;
    qx_uint32_t area_length = 0;
    qx_int32_t rc = sr_i_packed_buffer_head(p_buffer, &total_tables, &p_area, &area_length);
    if (rc != 0) return rc;
    if (static_cast<qx_uint64_t>(table_index) + 1 > total_tables)
        return SR_ERROR(SR_E_NO_ROW_FOR_INDEX);
    const char *p_slot = static_cast<const char *>(p_buffer) + kHead + kTableSlots * table_index;
    // Decoding checks that the text lies in the area and ends in its NUL; an
    // unconverted text is handed out in place, so nothing is allocated.
    qx_value_t value;
    int pmsg_rc = qx_pmsg_build_conv_packed_client_value_1(nullptr, 0, QX_CHAR_PTR, &value, p_slot,
                                                           p_area, area_length);
    if (pmsg_rc != 0) return SR_ERROR_LIBCALL("qx_pmsg_build_conv_packed_client_value", pmsg_rc);
    *p_table_name = const_cast<char *>(p_area) + sr_i_load_u32(p_slot);
    return 0;
}

qx_int32_t sr_i_convert_packed_table_buffer(void *p_buffer, qx_uint32_t header_already_converted,
                                            qx_int32_t do_conversion) {
    char *p = static_cast<char *>(p_buffer);
    qx_uint32_t required = 0;
    if (header_already_converted == 0) {
        int pmsg_rc = qx_pmsg_cnv_required_1(p_buffer, &required);
        if (pmsg_rc != 0) return SR_ERROR_LIBCALL("qx_pmsg_cnv_required", pmsg_rc);
    } else {
        required = do_conversion != 0;
    }
    if (required == 0) return 0;

    // The length word belongs to the header: converted here unless the
    // caller's transport converted the header already.  It bounds the rest,
    // so it is checked before any other word is touched.
    qx_uint32_t length = sr_i_load_u32(p);
    if (header_already_converted == 0) length = __builtin_bswap32(length);
    if (length < kHead) return SR_ERROR(SR_E_TABLE_UNREADABLE);
    const qx_uint32_t total_tables = __builtin_bswap32(sr_i_load_u32(p + 32));
    const qx_uint64_t slots_end = kHead + kTableSlots * static_cast<qx_uint64_t>(total_tables);
    if (slots_end > length) return SR_ERROR(SR_E_TABLE_UNREADABLE);
    sr_i_store_u32(p, length);
    // The byte-order mark is converted with the length word, so that the
    // buffer always tells which order it is in: asked again, a converted
    // buffer needs nothing, and its length word is never swapped twice.
    sr_i_store_u32(p + 16, __builtin_bswap32(sr_i_load_u32(p + 16)));
    qx_int32_t rc = convert_value(p + 32, QX_UINT32, p + slots_end, length - slots_end);
    if (rc != 0) return rc;

    char *p_area = p + slots_end;
    const qx_int64_t area_length = static_cast<qx_int64_t>(length - slots_end);
    for (qx_uint32_t i = 0; i < total_tables; ++i) {
        char *p_slots = p + kHead + kTableSlots * i;
        rc = convert_value(p_slots, QX_CHAR_PTR, p_area, area_length);
        if (rc == 0) rc = convert_value(p_slots + 8, QX_SD_PTR, p_area, area_length);
        qx_value_t fixed;
        fixed.ptr_sd = nullptr;
        if (rc == 0) rc = client_value(QX_SD_PTR, p_slots + 8, p_area, area_length, &fixed);
        qx_uint32_t total_columns = 0;
        if (rc == 0) {
            if (fixed_metadata_shape(fixed.ptr_sd)) {
                total_columns = fixed.ptr_sd->elements[2].value.val_uint32;
            } else {
                rc = SR_ERROR(SR_E_TABLE_UNREADABLE);
            }
        }
        std::free(fixed.ptr_sd);
        if (rc == 0) rc = convert_value(p_slots + 16, QX_SD_PTR_ARRAY, p_area, area_length);
        if (rc == 0) rc = convert_value(p_slots + 24, QX_BINARY_PTR_ARRAY, p_area, area_length);
        if (rc != 0) return rc;

        // The rows form was checked whole by its conversion: every nested
        // anchor lies in it and agrees with its binary's length word.
        char *p_form = p_area + sr_i_load_u32(p_slots + 24);
        const qx_uint32_t total_rows = sr_i_load_u32(p_form);
        if (total_rows == 0) continue;
        qx_value_t columns;
        rc = client_value(QX_SD_PTR_ARRAY, p_slots + 16, p_area, area_length, &columns);
        if (rc != 0) return rc;
        const qx_array_t *p_columns = columns.ptr_array;
        if (!column_metadata_shape(p_columns) || p_columns->element_count != total_columns) {
            std::free(columns.ptr_array);
            return SR_ERROR(SR_E_TABLE_UNREADABLE);
        }
        const qx_uint64_t fixed_part = 16 + 8 * static_cast<qx_uint64_t>(total_columns);
        for (qx_uint32_t r = 0; r < total_rows && rc == 0; ++r) {
            char *p_record = p_form + sr_i_load_u32(p_form + 8 + 8 * static_cast<size_t>(r));
            const qx_uint32_t record_length = sr_i_record_length(p_record);
            if (record_length < fixed_part) {
                rc = SR_ERROR(SR_E_TABLE_UNREADABLE);
                break;
            }
            // Link and replaced offset are the packer's own; the type word is
            // the one header word the value conversion does not reach.
            sr_i_store_u32(p_record + 4, 0);
            sr_i_store_u32(p_record + 8, __builtin_bswap32(sr_i_load_u32(p_record + 8)));
            sr_i_store_u32(p_record + 12, 0);
            char *p_row_area = p_record + fixed_part;
            const qx_int64_t row_area_length = static_cast<qx_int64_t>(record_length - fixed_part);
            for (qx_uint32_t c = 0; c < total_columns && rc == 0; ++c) {
                const auto type = static_cast<qx_data_type_t>(
                    p_columns->elements[c].ptr_sd->elements[1].value.val_uint32);
                rc = convert_value(p_record + 16 + 8 * static_cast<size_t>(c), type, p_row_area,
                                   row_area_length);
            }
        }
        std::free(columns.ptr_array);
        if (rc != 0) return rc;
    }
    return 0;
}

qx_int32_t sr_i_unpack_column_definitions(const qx_array_t *p_column_metadata_array,
                                          qx_uint32_t *p_total_columns, sr_column_t **p_p_columns) {
    if (!column_metadata_shape(p_column_metadata_array)) return SR_ERROR(SR_E_TABLE_UNREADABLE);
    const qx_uint32_t total = p_column_metadata_array->element_count;
    auto *p_columns = static_cast<sr_column_t *>(sr_i_calloc(total, sizeof(sr_column_t)));
    if (p_columns == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    for (qx_uint32_t i = 0; i < total; ++i) {
        const qx_structured_data_t *p_sd = p_column_metadata_array->elements[i].ptr_sd;
        sr_column_t &column = p_columns[i];
        column.name = p_sd->elements[0].value.ptr_char;
        column.type = static_cast<qx_data_type_t>(p_sd->elements[1].value.val_uint32);
        column.qualifier = p_sd->elements[2].value.val_uint32;
        column.properties = p_sd->elements[3].value.val_int32;
        // As it stands: a pointer into the unpacked value for pointer types,
        // and 0 (no default) for structured data, whose defaults stay behind.
        column.default_value = p_sd->elements[4].value;
        // Whatever a damaged buffer says there, a structured column has no
        // default pointer to follow.
        if (is_structured(column.type)) column.default_value.val_uint64 = 0;
        column.sd_defn = nullptr;
        if (p_sd->element_count <= kColumnElements) continue;
        const qx_uint32_t fields = p_sd->elements[5].value.val_uint32;
        const qx_array_t *p_types = p_sd->elements[6].value.ptr_array;
        const qx_array_t *p_names = p_sd->elements[7].value.ptr_array;
        const size_t size = offsetof(sr_sd_def_t, field_def) +
                            sizeof(sr_sd_field_def_t) * (fields == 0 ? 1 : fields);
        auto *p_definition = static_cast<sr_sd_def_t *>(sr_i_calloc(1, size));
        if (p_definition == nullptr) {
            sr_i_free_unpacked_column_definitions(p_columns, total);
            return SR_ERROR(SR_E_NO_MEMORY);
        }
        p_definition->number_of_fields = fields;
        for (qx_uint32_t f = 0; f < fields; ++f) {
            p_definition->field_def[f].type =
                static_cast<qx_data_type_t>(p_types->elements[f].val_uint32);
            p_definition->field_def[f].name = p_names->elements[f].ptr_char;
        }
        column.sd_defn = p_definition;
    }
    *p_total_columns = total;
    *p_p_columns = p_columns;
    return 0;
}

void sr_i_free_unpacked_column_definitions(sr_column_t *p_columns, qx_uint32_t total_columns) {
    if (p_columns == nullptr) return;
    for (qx_uint32_t i = 0; i < total_columns; ++i) std::free(p_columns[i].sd_defn);
    std::free(p_columns);
}

namespace {

// Every row record must hold its slots within its own length, and every
// value it anchors must lie in its own indirect area: the key is handed to
// hash and compare functions as a raw address, and nothing read later may
// reach past the record.
qx_int32_t check_rows(const qx_array_t *p_rows, const sr_column_t *p_columns,
                      qx_uint32_t total_columns) {
    const qx_uint64_t fixed_part = 16 + 8 * static_cast<qx_uint64_t>(total_columns);
    for (qx_uint32_t r = 0; r < p_rows->element_count; ++r) {
        const char *p_header = p_rows->elements[r].ptr_char;
        if (p_header == nullptr) return SR_ERROR(SR_E_TABLE_UNREADABLE);
        const qx_uint32_t record_length = sr_i_record_length(p_header);
        if (record_length < fixed_part) return SR_ERROR(SR_E_TABLE_UNREADABLE);
        const char *p_area = p_header + fixed_part;
        const qx_int64_t area_length = static_cast<qx_int64_t>(record_length - fixed_part);
        for (qx_uint32_t c = 0; c < total_columns; ++c) {
            if (!sr_i_is_pointer_type(p_columns[c].type)) continue;
            qx_value_t value;
            qx_int32_t rc =
                client_value(p_columns[c].type, p_header + 16 + 8 * static_cast<size_t>(c), p_area,
                             area_length, &value);
            if (rc != 0) return rc;
            std::free(value.ptr_char);
        }
    }
    return 0;
}

// The client value of the rows array (checked, but holding copies of every
// binary that lies misaligned) becomes an array of the records' header
// addresses in the buffer itself: the table reads its rows there, in place.
qx_int32_t rows_in_place(const char *p_rows_slot, const char *p_area, qx_array_t **p_p_rows) {
    const qx_array_t *p_checked = *p_p_rows;
    const qx_uint32_t count = p_checked->element_count;
    auto *p_rows = static_cast<qx_array_t *>(sr_i_malloc(QX_ARRAY_SIZE(count)));
    if (p_rows == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    p_rows->element_count = count;
    p_rows->pad = 0;
    const char *p_form = p_area + sr_i_load_u32(p_rows_slot);
    for (qx_uint32_t i = 0; i < count; ++i) {
        p_rows->elements[i].ptr_char =
            const_cast<char *>(p_form + sr_i_load_u32(p_form + 8 + 8 * static_cast<size_t>(i)));
    }
    std::free(*p_p_rows);
    *p_p_rows = p_rows;
    return 0;
}

// Whether the key column (the first with a key qualifier) holds resource
// handles.
bool resource_handle_key(const sr_column_t *p_columns, qx_uint32_t total_columns) {
    for (qx_uint32_t c = 0; c < total_columns; ++c) {
        const qx_uint32_t base = p_columns[c].qualifier & SR_QUALIFIER_BASE_MASK;
        if (base == SR_PRIMARY_KEY || base == SR_PRIMARY_KEY_NOCHECK) {
            return p_columns[c].type == QX_RSRC_HANDLE_PTR;
        }
    }
    return false;
}

}  // namespace

qx_int32_t sr_i_unpack_table(void *p_buffer, qx_uint32_t total_hash_buckets,
                             sr_hash_function_t *hash_function,
                             sr_hash_keys_compare_function_t *compare_function, sr_i_tree_t *p_tree,
                             qx_uint32_t table_index, sr_opaque_handle_t *p_table) {
    qx_uint32_t total_tables = 0;
    const char *p_area = nullptr;
    qx_uint32_t area_length = 0;
    qx_int32_t rc = sr_i_packed_buffer_head(p_buffer, &total_tables, &p_area, &area_length);
    if (rc != 0) return rc;
    if (static_cast<qx_uint64_t>(table_index) + 1 > total_tables)
        return SR_ERROR(SR_E_NO_ROW_FOR_INDEX);
    if (p_tree == nullptr) return SR_ERROR(SR_E_INVALID_HANDLE);
    const char *p_slots = static_cast<const char *>(p_buffer) + kHead + kTableSlots * table_index;

    qx_value_t fixed, columns, rows;
    fixed.ptr_sd = nullptr;
    columns.ptr_array = nullptr;
    rows.ptr_array = nullptr;
    rc = client_value(QX_SD_PTR, p_slots + 8, p_area, area_length, &fixed);
    if (rc == 0) rc = client_value(QX_SD_PTR_ARRAY, p_slots + 16, p_area, area_length, &columns);
    if (rc == 0) rc = client_value(QX_BINARY_PTR_ARRAY, p_slots + 24, p_area, area_length, &rows);
    if (rc == 0) rc = rows_in_place(p_slots + 24, p_area, &rows.ptr_array);
    if (rc == 0 && !fixed_metadata_shape(fixed.ptr_sd)) rc = SR_ERROR(SR_E_TABLE_UNREADABLE);
    sr_column_t *p_columns = nullptr;
    qx_uint32_t total_columns = 0;
    if (rc == 0) rc = sr_i_unpack_column_definitions(columns.ptr_array, &total_columns, &p_columns);
    if (rc == 0 && total_columns != fixed.ptr_sd->elements[2].value.val_uint32)
        rc = SR_ERROR(SR_E_TABLE_UNREADABLE);
    if (rc == 0) rc = check_rows(rows.ptr_array, p_columns, total_columns);
    // Without the caller's hash function the index takes the defaults, which
    // hash and compare resource handles: they serve a resource-handle key
    // only (as the index made for such a table when it is created), and would
    // read past any other key.
    if (rc == 0 && total_hash_buckets != 0 && hash_function == nullptr &&
        !resource_handle_key(p_columns, total_columns)) {
        rc = SR_ERROR(SR_E_NULL_POINTER);
    }
    sr_hash_table_t *p_hash_table = nullptr;
    if (rc == 0 && total_hash_buckets != 0) {
        rc = sr_i_hash_table_open(total_hash_buckets, hash_function, compare_function,
                                  &p_hash_table);
    }
    if (rc == 0) {
        // The rows array passes to the table, which keeps it (and through it
        // the caller's buffer) until it is closed.
        qx_array_t *p_rows = rows.ptr_array;
        rows.ptr_array = nullptr;
        rc = sr_x_create_table(p_tree, fixed.ptr_sd->elements[0].value.ptr_char, p_columns,
                               total_columns, SR_MODE_READ, p_hash_table, p_rows, p_table);
    }
    sr_i_free_unpacked_column_definitions(p_columns, total_columns);
    std::free(fixed.ptr_sd);
    std::free(columns.ptr_array);
    std::free(rows.ptr_array);
    return rc;
}
