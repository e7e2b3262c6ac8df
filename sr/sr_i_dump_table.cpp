// Diagnostic dumps of a tree and of a table: every field of the in-memory
// records as one "name(value)" line, filtered by a 64-bit set of detail bits,
// for developers chasing a problem.  They take no locks and change nothing;
// the caller keeps the tree or table still meanwhile.  Values stored in row
// records and defaults are decoded within their record's own bounds, so a
// dump of a damaged record prints what it can and never reads past it.
#include <search.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sr_i_application_metadata.h"
#include "sr_i_dump.h"
#include "sr_i_pool.h"
#include "sr_i_table.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_i_dump_table", "1.1");

namespace {

constexpr qx_uint32_t kHeader = SR_I_RECORD_HEADER_LENGTH;
// Hex dumps of rows and metadata: 16 words, 64 bytes a line.
constexpr qx_uint32_t kDumpWidth = 16;

constexpr const char *kQualifierNames[] = {"SR_UNKNOWN_QUALIFIER", "SR_SYSTEM", "SR_STANDARD",
                                           "SR_PRIMARY_KEY", "SR_PRIMARY_KEY_NOCHECK"};

inline unsigned long address(const void *p) {
    return static_cast<unsigned long>(reinterpret_cast<uintptr_t>(p));
}

// One stored value: the slot and the indirect area (limit bytes) it anchors
// into.  Scalars on the current line; variable-length values as a length
// line and a hex dump of their bytes.
void dump_value(qx_data_type_t type, const char *p_slot, const char *p_area, qx_int64_t limit,
                const char *p_indent, FILE *p_stream, qx_uint64_t flags, qx_uint64_t required) {
    qx_value_t v;
    std::memcpy(&v, p_slot, sizeof v);
    switch (type) {
        case QX_INT32:
            sr_i_printf(required, flags, p_stream, "%d\n", v.val_int32);
            return;
        case QX_UINT32:
            sr_i_printf(required, flags, p_stream, "%u\n", v.val_uint32);
            return;
        case QX_INT64:
            sr_i_printf(required, flags, p_stream, "%lld\n", static_cast<long long>(v.val_int64));
            return;
        case QX_UINT64:
            sr_i_printf(required, flags, p_stream, "%llu\n",
                        static_cast<unsigned long long>(v.val_uint64));
            return;
        case QX_FLOAT32:
            sr_i_printf(required, flags, p_stream, "%g\n", static_cast<double>(v.val_float32));
            return;
        case QX_FLOAT64:
            sr_i_printf(required, flags, p_stream, "%g\n", v.val_float64);
            return;
        default:
            break;
    }
    if (!sr_i_is_pointer_type(type)) {
        sr_i_printf(required, flags, p_stream, "GARBAGE\n");
        return;
    }
    const qx_uint32_t offset = sr_i_load_u32(p_slot);
    const qx_uint32_t length = sr_i_load_u32(p_slot + 4);
    if (static_cast<qx_int64_t>(offset) + length > limit) {
        sr_i_printf(required, flags, p_stream, "offset(%u) length(%u) OUT OF BOUNDS\n", offset,
                    length);
        return;
    }
    const char *p_bytes = p_area + offset;
    if (type == QX_CHAR_PTR && length > 0 && p_bytes[length - 1] == '\0') {
        sr_i_printf(required, flags, p_stream, "%s\n", p_bytes);
        return;
    }
    sr_i_printf(required, flags, p_stream, "length(%u), data:\n", length);
    if (length == 0) return;
    sr_i_dump_storage(p_bytes, length, kDumpWidth, p_indent, p_stream, flags, required);
    sr_i_printf(required, flags, p_stream, "\n");
}

void dump_column_definition(sr_i_table_t *p_table, qx_uint32_t index, FILE *p_stream,
                            qx_uint64_t flags) {
    const sr_column_t column = sr_i_load_column(&p_table->p_columns[index]);
    sr_i_printf(SR_I_DUMP_COLUMN, flags, p_stream, "  column(%u)\n", index);
    sr_i_printf(SR_I_DUMP_COLUMN_NAME, flags, p_stream, "    name(%s)\n", column.name);
    sr_i_printf(SR_I_DUMP_COLUMN_TYPE, flags, p_stream, "    type(%s)\n",
                sr_i_get_type_string(column.type));
    sr_i_printf(SR_I_DUMP_COLUMN_QUALIFIER, flags, p_stream, "    qualifier(%s)\n",
                sr_i_get_qualifier_type_string(column.qualifier));
    const qx_uint32_t modifiers =
        column.qualifier & (SR_PROTECTED | SR_INVISIBLE | SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED);
    if (modifiers != 0) {
        sr_i_printf(SR_I_DUMP_COLUMN_MODIFIERS, flags, p_stream, "    qualifier_modifiers(");
        const char *p_separator = "";
        const struct {
            qx_uint32_t bit;
            const char *p_name;
        } kModifiers[] = {
            {SR_PROTECTED, "SR_PROTECTED"},
            {SR_INVISIBLE, "SR_INVISIBLE"},
            {SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED, "SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED"}};
        for (const auto &modifier : kModifiers) {
            if ((modifiers & modifier.bit) == 0) continue;
            sr_i_printf(SR_I_DUMP_COLUMN_MODIFIERS, flags, p_stream, "%s%s", p_separator,
                        modifier.p_name);
            p_separator = "|";
        }
        sr_i_printf(SR_I_DUMP_COLUMN_MODIFIERS, flags, p_stream, ")\n");
    }
    sr_i_printf(SR_I_DUMP_COLUMN_PROPERTIES, flags, p_stream, "    properties(%d)\n",
                column.properties);
    sr_i_printf(SR_I_DUMP_COLUMN_SD_DEFN, flags, p_stream, "    sd_defn(0x%.8lx)\n",
                address(column.sd_defn));
    if ((column.type == QX_SD_PTR || column.type == QX_SD_PTR_ARRAY) && column.sd_defn != nullptr) {
        // The definition's packed form in the metadata record: a field count,
        // then per field its type word and its name with the NUL.
        const char *p = reinterpret_cast<const char *>(column.sd_defn);
        const char *p_end = p_table->p_metadata_record_data +
                            sr_i_record_length(p_table->p_metadata_record_data - kHeader) - kHeader;
        const qx_uint32_t fields = sr_i_load_u32(p);
        sr_i_printf(SR_I_DUMP_COLUMN_SD_DEFN, flags, p_stream, "        number_of_fields(%u)\n",
                    fields);
        p += 4;
        for (qx_uint32_t f = 0; f < fields && p_end - p >= 5; ++f) {
            const size_t name_length = strnlen(p + 4, static_cast<size_t>(p_end - p - 4));
            sr_i_printf(SR_I_DUMP_COLUMN_SD_DEFN, flags, p_stream, "            type(%s)\n",
                        sr_i_get_type_string(static_cast<qx_data_type_t>(sr_i_load_u32(p))));
            sr_i_printf(SR_I_DUMP_COLUMN_SD_DEFN, flags, p_stream, "            name(%.*s)\n",
                        static_cast<int>(name_length), p + 4);
            p += 4 + name_length + 1;
        }
    }
    if ((flags & SR_I_DUMP_COLUMN_DEFAULT) != 0) {
        sr_i_printf(SR_I_DUMP_COLUMN_DEFAULT, flags, p_stream, "    default_value: ");
        const char *p_area =
            sr_i_metadata_indirect_area(p_table->p_metadata_record_data, p_table->total_columns);
        const qx_int64_t limit =
            static_cast<qx_int64_t>(sr_i_record_length(p_table->p_metadata_record_data - kHeader)) -
            kHeader - (p_area - p_table->p_metadata_record_data);
        dump_value(column.type,
                   reinterpret_cast<const char *>(&p_table->p_columns[index].default_value), p_area,
                   limit, "      ", p_stream, flags, SR_I_DUMP_COLUMN_DEFAULT);
    }
}

void dump_row_record(sr_i_table_t *p_table, const char *p_record, const char *p_label,
                     FILE *p_stream, qx_uint64_t flags, qx_uint64_t required) {
    if (p_record == nullptr) {
        sr_i_printf(required, flags, p_stream, "    %s ROW RECORD: NONE\n", p_label);
        return;
    }
    sr_i_printf(required, flags, p_stream,
                "    %s ROW RECORD: replaces_offset(%u), COLUMN VALUES:\n", p_label,
                sr_i_load_u32(p_record));
    dump_columns(p_table, p_record, "      ", p_stream, flags, required);
}

void dump_application_metadata(const sr_i_application_metadata_t *p_metadata, FILE *p_stream,
                               qx_uint64_t flags) {
    constexpr qx_uint64_t kBit = SR_I_DUMP_APPLICATION_METADATA;
    sr_i_printf(kBit, flags, p_stream, "  p_application_metadata(0x%.8lx)\n", address(p_metadata));
    if (p_metadata == nullptr) return;
    sr_i_printf(kBit, flags, p_stream, "    max_elements(%u)\n", p_metadata->max_elements);
    sr_i_printf(kBit, flags, p_stream, "    total_elements(%u)\n", p_metadata->total_elements);
    for (qx_uint32_t i = 0; i < p_metadata->total_elements; ++i) {
        const sr_i_application_metadata_index_element_t &element = p_metadata->p_index[i];
        sr_i_printf(kBit, flags, p_stream,
                    "      %u: type(%u) p_applied(0x%.8lx) p_committed(0x%.8lx)\n", i, element.type,
                    address(element.p_applied), address(element.p_committed));
        const struct {
            const char *p_label;
            const qx_binary_t *p_block;
        } kVersions[] = {{"APPLIED", element.p_applied}, {"COMMITTED", element.p_committed}};
        for (const auto &version : kVersions) {
            if (version.p_block == nullptr) {
                sr_i_printf(kBit, flags, p_stream, "        %s: NONE\n", version.p_label);
                continue;
            }
            const qx_uint32_t length = sr_i_load_u32(&version.p_block->length);
            sr_i_printf(kBit, flags, p_stream, "        %s: length(%u), data:\n", version.p_label,
                        length);
            if (length == 0) continue;
            sr_i_dump_storage(version.p_block->data, length, kDumpWidth, "          ", p_stream,
                              flags, kBit);
            sr_i_printf(kBit, flags, p_stream, "\n");
        }
    }
}

void dump_file_state(sr_i_table_t *p_table, FILE *p_stream, qx_uint64_t flags) {
    constexpr qx_uint64_t kBit = SR_I_DUMP_FILE_STATE;
    sr_i_printf(kBit, flags, p_stream, "  mode(%u)\n", p_table->mode);
    sr_i_printf(kBit, flags, p_stream, "  block_size(%u)\n", p_table->block_size);
    sr_i_printf(kBit, flags, p_stream, "  ready_for_commit(%u)\n", p_table->ready_for_commit);
    sr_i_printf(kBit, flags, p_stream, "  file_fd(%d)\n", p_table->file_fd);
    sr_i_printf(kBit, flags, p_stream, "  rewrite_file_fd(%d)\n", p_table->rewrite_file_fd);
    sr_i_printf(kBit, flags, p_stream, "  p_file_path(0x%.8lx)\n", address(p_table->p_file_path));
    if (p_table->p_file_path != nullptr) {
        // The buffer holds the data name and, past it, the ".rewrite" suffix:
        // printed up to the data name's end whichever name is switched in.
        sr_i_printf(kBit, flags, p_stream, " file_path(%.*s)\n",
                    static_cast<int>(p_table->file_path_length), p_table->p_file_path);
    }
    sr_i_printf(kBit, flags, p_stream, "  file_path_length(%u)\n", p_table->file_path_length);
    sr_i_printf(kBit, flags, p_stream, "  commit_record_offset(%u)\n",
                p_table->commit_record_offset);
    sr_i_printf(kBit, flags, p_stream, "  applied_commit_record_offset(%u)\n",
                p_table->applied_commit_record_offset);
    sr_i_printf(kBit, flags, p_stream, "  commit_record_length(%u)\n",
                p_table->commit_record_length);
    sr_i_printf(kBit, flags, p_stream, "  applied_commit_record_length(%u)\n",
                p_table->applied_commit_record_length);
    sr_i_printf(kBit, flags, p_stream, "  file_length(%u)\n", p_table->file_length);
    sr_i_printf(kBit, flags, p_stream, "  rewrite_file_length(%u)\n", p_table->rewrite_file_length);
    sr_i_printf(kBit, flags, p_stream, "  p_persistent_table_registry_path(%s)\n",
                p_table->p_persistent_table_registry_path != nullptr
                    ? p_table->p_persistent_table_registry_path
                    : "");
}

void dump_pointers(sr_i_table_t *p_table, FILE *p_stream, qx_uint64_t flags) {
    constexpr qx_uint64_t kBit = SR_I_DUMP_POINTERS;
    const struct {
        const char *p_name;
        const void *p;
    } kPointers[] = {
        {"p_metadata_record_data", p_table->p_metadata_record_data},
        {"p_columns", p_table->p_columns},
        {"p_rows_fixed_index", p_table->p_rows_fixed_index},
        {"p_rows_packed_index", p_table->p_rows_packed_index},
        {"p_rows_change_list", p_table->p_rows_change_list},
        {"p_rows_change_list_tail", p_table->p_rows_change_list_tail},
        {"p_delete_rows_change_list", p_table->p_delete_rows_change_list},
        {"p_delete_rows_change_list_tail", p_table->p_delete_rows_change_list_tail},
        {"p_tree", p_table->p_tree},
        {"p_next", p_table->p_next},
        {"p_file_path", p_table->p_file_path},
    };
    for (const auto &pointer : kPointers) {
        sr_i_printf(kBit, flags, p_stream, "  %s(0x%.8lx)\n", pointer.p_name, address(pointer.p));
    }
}

void dump_rows(sr_i_table_t *p_table, FILE *p_stream, qx_uint64_t flags) {
    constexpr qx_uint64_t kAny =
        SR_I_DUMP_ROWS | SR_I_DUMP_APPLIED_RECORDS | SR_I_DUMP_COMMITTED_RECORDS;
    if ((flags & kAny) == 0 || p_table->p_rows_fixed_index == nullptr) return;
    for (qx_uint32_t f = 0; f < p_table->maximum_rows; ++f) {
        const sr_i_index_entry_t &entry = p_table->p_rows_fixed_index[f];
        if (entry.p_applied == nullptr && entry.p_committed == nullptr) continue;
        // A free slot's p_pending_change is the free-chain link; a slot with
        // a record holds its change entry there.
        sr_i_printf(SR_I_DUMP_ROWS, flags, p_stream,
                    "  row(%u) p_applied(0x%lx) p_committed(0x%lx) p_pending_change(0x%lx) "
                    "file_offset(%u) applied_file_offset(%u)\n",
                    f, address(entry.p_applied), address(entry.p_committed),
                    address(entry.p_pending_change), entry.file_offset, entry.applied_file_offset);
        if ((flags & SR_I_DUMP_APPLIED_RECORDS) != 0) {
            dump_row_record(p_table, entry.p_applied, "APPLIED", p_stream, flags,
                            SR_I_DUMP_APPLIED_RECORDS);
        }
        if ((flags & SR_I_DUMP_COMMITTED_RECORDS) != 0) {
            dump_row_record(p_table, entry.p_committed, "COMMITTED", p_stream, flags,
                            SR_I_DUMP_COMMITTED_RECORDS);
        }
    }
}

// twalk has no context argument: the tree dump is single-threaded by
// contract (the caller keeps the tree still), so each walk prints directly.
void dump_table_node(const void *p_node, VISIT which, int) {
    if (which != postorder && which != leaf) return;
    auto *p_table = *static_cast<sr_i_table_t *const *>(p_node);
    sr_i_dump_table(p_table, stdout, SR_I_DUMP_ALL);
}

void dump_mount_point_node(const void *p_node, VISIT which, int) {
    if (which != postorder && which != leaf) return;
    auto *p_mount = *static_cast<sr_i_mount_point_t *const *>(p_node);
    std::printf("    p_name(%s)\n", p_mount->p_name);
    std::printf("    p_filesystem_path(%s)\n", p_mount->p_filesystem_path);
}

}  // namespace

int sr_i_printf(qx_uint64_t required_detail, qx_uint64_t detail_flags, FILE *p_stream,
                const char *p_format, ...) {
    if ((required_detail & detail_flags) == 0) return 0;
    va_list ap;
    va_start(ap, p_format);
    int rc = std::vfprintf(p_stream, p_format, ap);
    va_end(ap);
    return rc;
}

void sr_i_dump_storage(const void *start, qx_uint32_t length, qx_uint32_t width,
                       const char *p_indent_prefix, FILE *p_stream, qx_uint64_t detail_flags,
                       qx_uint64_t required_detail) {
    if ((required_detail & detail_flags) == 0) return;
    if (width == 0) width = 1;
    const auto *p = static_cast<const unsigned char *>(start);
    const qx_uint64_t line_bytes = static_cast<qx_uint64_t>(width) * 4;
    for (qx_uint64_t at = 0; at < length; at += line_bytes) {
        if (p_indent_prefix != nullptr) std::fputs(p_indent_prefix, p_stream);
        std::fprintf(p_stream, "0x%.8lx ", address(p + at));
        for (qx_uint64_t i = at; i < length && i < at + line_bytes; ++i) {
            std::fprintf(p_stream, "%.2x", p[i]);
            if ((i - at) % 4 == 3) std::fputc(' ', p_stream);
        }
        if (at + line_bytes < length) std::fputc('\n', p_stream);
    }
}

const char *sr_i_get_type_string(qx_data_type_t type) {
    const auto index = static_cast<qx_uint32_t>(type);
    // The enumeration names live in the common type table.
    return index < QX_NUMBER_OF_DATA_TYPES ? cu_dtc_table_1[index].dtc_name : "GARBAGE";
}

const char *sr_i_get_qualifier_type_string(sr_qualifier_t qualifier) {
    const qx_uint32_t base = qualifier & SR_QUALIFIER_BASE_MASK;
    return base < sizeof kQualifierNames / sizeof kQualifierNames[0] ? kQualifierNames[base]
                                                                     : "GARBAGE";
}

void dump_columns(sr_i_table_t *p_table, const char *p_record_data, const char *p_indent_prefix,
                  FILE *p_stream, qx_uint64_t detail_flags, qx_uint64_t required_detail) {
    if ((required_detail & detail_flags) == 0) return;
    const char *p_indent = p_indent_prefix != nullptr ? p_indent_prefix : "";
    const qx_int64_t data_length =
        static_cast<qx_int64_t>(sr_i_record_length(p_record_data - kHeader)) - kHeader;
    const qx_int64_t fixed_part = 4 + 8 * static_cast<qx_int64_t>(p_table->total_columns);
    if (data_length < fixed_part) {
        sr_i_printf(required_detail, detail_flags, p_stream, "%slength(%lld) TOO SHORT\n", p_indent,
                    static_cast<long long>(data_length));
        return;
    }
    const char *p_area = p_record_data + fixed_part;
    for (qx_uint32_t c = 0; c < p_table->total_columns; ++c) {
        const sr_column_t column = sr_i_load_column(&p_table->p_columns[c]);
        sr_i_printf(required_detail, detail_flags, p_stream, "%s%s(%s): ", p_indent, column.name,
                    sr_i_get_type_string(column.type));
        dump_value(column.type, p_record_data + 4 + 8 * static_cast<size_t>(c), p_area,
                   data_length - fixed_part, p_indent, p_stream, detail_flags, required_detail);
    }
}

void dump_record_buffer_pool(sr_i_record_buffer_pool_t *p_record_buffer_pool, FILE *p_stream,
                             qx_uint64_t detail_flags) {
    constexpr qx_uint64_t kBit = SR_I_DUMP_RECORD_BUFFER_POOL;
    const sr_i_record_buffer_pool_t *p_pool = p_record_buffer_pool;
    sr_i_printf(kBit, detail_flags, p_stream, "  total_bytes(%u)\n", p_pool->total_bytes);
    sr_i_printf(kBit, detail_flags, p_stream, "  used_bytes(%u)\n", p_pool->used_bytes);
    sr_i_printf(kBit, detail_flags, p_stream, "  p_free_chain(0x%.8lx)\n",
                address(p_pool->p_free_chain));
    sr_i_printf(kBit, detail_flags, p_stream, "  p_first_record_buffer(0x%.8lx)\n",
                address(p_pool->p_first_record_buffer));
    sr_i_printf(kBit, detail_flags, p_stream, "  p_last_record_buffer(0x%.8lx)\n",
                address(p_pool->p_last_record_buffer));
    qx_uint64_t cumulative_total = 0;
    qx_uint64_t cumulative_used = 0;
    qx_uint32_t buffer_number = 0;
    for (sr_i_record_buffer_t *p_buffer = p_pool->p_first_record_buffer; p_buffer != nullptr;
         p_buffer = p_buffer->p_next, ++buffer_number) {
        sr_i_printf(kBit, detail_flags, p_stream, "  record_buffer(%u:0x%.8lx)\n", buffer_number,
                    address(p_buffer));
        sr_i_printf(kBit, detail_flags, p_stream, "    total_bytes(%u)\n", p_buffer->total_bytes);
        sr_i_printf(kBit, detail_flags, p_stream, "    p_next(0x%.8lx)\n",
                    address(p_buffer->p_next));
        // Counted as the pool counts: the buffer header, every record header,
        // and the data of every record that is not free.
        qx_uint64_t used = SR_I_RECORD_BUFFER_HEADER_LENGTH;
        qx_uint32_t record_number = 0;
        const char *p_end = sr_i_rb_buffer_end(p_buffer);
        for (const char *p = sr_i_rb_buffer_data(p_buffer);
             p_end - p >= static_cast<ptrdiff_t>(kHeader); ++record_number) {
            const qx_uint32_t length = sr_i_record_length(p);
            const qx_int32_t type = sr_i_record_type(p);
            sr_i_printf(kBit, detail_flags, p_stream,
                        "    record(%u:0x%.8lx) length(%u) type(%d) p_next_free(0x%.8x)\n",
                        record_number, address(p), length, type, sr_i_record_link(p));
            if (length < kHeader || length > static_cast<qx_uint64_t>(p_end - p)) break;
            used += type == SR_I_RECORD_TYPE_FREE ? kHeader : length;
            p += length;
        }
        sr_i_printf(kBit, detail_flags, p_stream, "    buffer_total_bytes(%u)\n",
                    p_buffer->total_bytes);
        sr_i_printf(kBit, detail_flags, p_stream, "    buffer_used_bytes(%llu)\n",
                    static_cast<unsigned long long>(used));
        cumulative_total += p_buffer->total_bytes;
        cumulative_used += used;
    }
    sr_i_printf(kBit, detail_flags, p_stream, "  cumulative_total_bytes(%u)\n",
                static_cast<qx_uint32_t>(cumulative_total));
    sr_i_printf(kBit, detail_flags, p_stream, "  cumulative_used_bytes(%u)\n",
                static_cast<qx_uint32_t>(cumulative_used));
}

extern "C" qx_int32_t sr_i_dump_table(sr_i_table_t *p_table, FILE *p_stream,
                                      qx_uint64_t detail_flags) {
    // The high word is not the table dump's.
    const qx_uint64_t flags = detail_flags & 0xFFFFFFFFull;
    if (flags == 0 || p_stream == nullptr) return 0;
    std::fprintf(p_stream, "Table p_table(0x%.8lx)\n", address(p_table));
    if (p_table == nullptr) return 0;
    sr_i_printf(SR_I_DUMP_NAME, flags, p_stream, "  p_name(%s)\n",
                p_table->p_name != nullptr ? p_table->p_name : "UNNAMED TABLE");
    sr_i_printf(SR_I_DUMP_REFERENCES, flags, p_stream, "  references(%u)\n", p_table->references);
    sr_i_printf(SR_I_DUMP_TOTAL_COLUMNS, flags, p_stream, "  total_columns(%u)\n",
                p_table->total_columns);
    sr_i_printf(SR_I_DUMP_VARIABLE_LENGTH_COLUMNS, flags, p_stream,
                "  total_variable_length_columns(%u)\n", p_table->total_variable_length_columns);
    if (p_table->p_columns != nullptr) {
        for (qx_uint32_t c = 0; c < p_table->total_columns; ++c) {
            dump_column_definition(p_table, c, p_stream, flags);
        }
    }
    dump_pointers(p_table, p_stream, flags);
    sr_i_printf(SR_I_DUMP_ROW_COUNTS, flags, p_stream,
                "  total_applied_rows(%u) total_committed_rows(%u) maximum_rows(%u)\n",
                p_table->total_applied_rows, p_table->total_committed_rows, p_table->maximum_rows);
    sr_i_printf(SR_I_DUMP_ROW_COUNTS, flags, p_stream, "  applied_deletions(%u)\n",
                p_table->applied_deletions);
    sr_i_printf(SR_I_DUMP_IMPLICITLY_CONTROLLED, flags, p_stream, "  implicitly_controlled(%u)\n",
                p_table->implicitly_controlled);
    sr_i_printf(SR_I_DUMP_UNCOMMITTED_VISIBLE, flags, p_stream,
                "  uncommitted_updates_visible(%u)\n", p_table->uncommitted_updates_visible);
    sr_i_printf(SR_I_DUMP_CHANGE_COUNTER, flags, p_stream, "  change_counter(%llu)\n",
                static_cast<unsigned long long>(p_table->change_counter));
    sr_i_printf(SR_I_DUMP_APPLIED_CHANGE_COUNTER, flags, p_stream,
                "  applied_change_counter(%llu)\n",
                static_cast<unsigned long long>(p_table->applied_change_counter));
    if ((flags & SR_I_DUMP_FILE_STATE) != 0) dump_file_state(p_table, p_stream, flags);
    if ((flags & SR_I_DUMP_APPLICATION_METADATA) != 0) {
        dump_application_metadata(p_table->p_application_metadata, p_stream, flags);
    }
    dump_rows(p_table, p_stream, flags);
    if ((flags & SR_I_DUMP_RECORD_BUFFER_POOL) != 0) {
        dump_record_buffer_pool(&p_table->record_buffer_pool, p_stream, flags);
    }
    return 0;
}

extern "C" qx_int32_t sr_i_dump_tree(sr_i_tree_t *p_tree) {
    std::printf("Tree p_tree(0x%lx)\n", address(p_tree));
    if (p_tree == nullptr) return 0;
    std::printf("  p_tables(0x%lx)\n", address(p_tree->p_tables));
    twalk(p_tree->p_tables, dump_table_node);
    std::printf("  p_unnamed_tables(0x%lx)\n", address(p_tree->p_unnamed_tables));
    twalk(p_tree->p_unnamed_tables, dump_table_node);
    std::printf("  p_mount_points(0x%lx)\n", address(p_tree->p_mount_points));
    twalk(p_tree->p_mount_points, dump_mount_point_node);
    std::printf("  p_to_table_string_conversion_handle(0x%lx)\n",
                address(p_tree->p_to_table_string_conversion_handle));
    std::printf("  p_from_table_string_conversion_handle(0x%lx)\n",
                address(p_tree->p_from_table_string_conversion_handle));
    // The dump goes to standard output, which may be a pipe read afterwards.
    std::fflush(stdout);
    return 0;
}
