// Test tables with committed rows and uncommitted changes (public headers only: cross builds too).
#ifndef QX_TESTS_CROSS_CROSS_TABLES_H
#define QX_TESTS_CROSS_CROSS_TABLES_H

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "../pmsg/pmsg_test_util.h"
#include "qx_sr.h"

namespace qxcross {

using Arena = pmsg_test::Arena;

inline sr_sd_def_t *sd_definition(Arena &arena) {
    auto *p_def =
        static_cast<sr_sd_def_t *>(arena.alloc(sizeof(sr_sd_def_t) + sizeof(sr_sd_field_def_t)));
    p_def->number_of_fields = 2;
    p_def->field_def[0] = {QX_INT32, arena.text("a")};
    p_def->field_def[1] = {QX_CHAR_PTR, arena.text("b")};
    return p_def;
}

inline qx_data_type_t base_type(qx_data_type_t array_type) {
    return static_cast<qx_data_type_t>(array_type - (QX_INT32_ARRAY - QX_INT32));
}

// A deterministic value of `type` for `seed`; an array holds one to three of its base type.
inline qx_value_t make_value(Arena &arena, qx_data_type_t type, qx_uint32_t seed) {
    qx_value_t v;
    v.val_uint64 = 0;
    auto bytes = [](qx_uint32_t length, qx_uint32_t first) {
        std::string s;
        for (qx_uint32_t i = 0; i < length; ++i) s += static_cast<char>(first + i);
        return s;
    };
    switch (type) {
        // clang-format off
        case QX_INT32: v.val_int32 = static_cast<qx_int32_t>(seed * 7) - 100; break;
        case QX_UINT32: v.val_uint32 = 0xF0000000u + seed; break;
        case QX_INT64: v.val_int64 = -1234567890123ll * static_cast<qx_int64_t>(seed + 1); break;
        case QX_UINT64: v.val_uint64 = 0xFEDCBA9876543210ull + seed; break;
        case QX_FLOAT32: v.val_float32 = 1.5f * static_cast<float>(seed) - 0.25f; break;
        case QX_FLOAT64: v.val_float64 = static_cast<double>(seed) / 3.0 - 1e-300; break;
        // clang-format on
        case QX_CHAR_PTR:
            v.ptr_char = arena.text("text-" + std::to_string(seed));
            break;
        case QX_BINARY_PTR:
            v.ptr_binary = arena.binary(bytes(seed % 5 + 1, seed * 31));
            break;
        case QX_RSRC_HANDLE_PTR:
            v.ptr_rsrc_handle = arena.rsrc(0x40000000u + seed, 0x01020304u * (seed + 1), seed,
                                           0xA0B0C0D0u ^ seed, seed * 977u);
            break;
        case QX_SD_PTR:
            v.ptr_sd = arena.sd(
                {{QX_INT32, 0, {.val_int32 = -static_cast<qx_int32_t>(seed) - 5}},
                 {QX_CHAR_PTR, 0, {.ptr_char = arena.text("sd-" + std::to_string(seed))}}});
            break;
        case QX_SBS_PTR:
            v.ptr_sbs = arena.sbs(bytes(seed % 3 + 3, seed));
            break;
        default: {
            std::vector<qx_value_t> elements(seed % 3 + 1);
            for (qx_uint32_t i = 0; i < elements.size(); ++i)
                elements[i] = make_value(arena, base_type(type), seed * 10 + i);
            v.ptr_array = arena.array(elements);
        }
    }
    return v;
}

inline std::string hex(const qx_uint8_t *p, size_t length) {
    std::string s;
    char byte[3];
    for (size_t i = 0; i < length; ++i)
        s.append(byte, static_cast<size_t>(std::snprintf(byte, 3, "%02x", p[i])));
    return s;
}

inline std::string hex_float(double d) {
    char buffer[64];
    return std::string(buffer, static_cast<size_t>(std::snprintf(buffer, 64, "%a", d)));
}

// The canonical text of a value; floats exactly (hexadecimal).
inline std::string render(qx_data_type_t type, const qx_value_t &v) {
    char buffer[64];
    switch (type) {
        // clang-format off
        case QX_INT32: return std::to_string(v.val_int32);
        case QX_UINT32: return std::to_string(v.val_uint32);
        case QX_INT64: return std::to_string(v.val_int64);
        case QX_UINT64: return std::to_string(v.val_uint64);
        case QX_FLOAT32: return hex_float(static_cast<double>(v.val_float32));
        case QX_FLOAT64: return hex_float(v.val_float64);
        default: break;
            // clang-format on
    }
    if (v.ptr_char == nullptr) return "null";
    switch (type) {
        case QX_CHAR_PTR:
            return "\"" + std::string(v.ptr_char) + "\"";
        case QX_BINARY_PTR:
            return "bin(" + hex(v.ptr_binary->data, v.ptr_binary->length) + ")";
        case QX_RSRC_HANDLE_PTR: {
            const qx_resource_handle_t &h = *v.ptr_rsrc_handle;
            std::snprintf(buffer, sizeof buffer, "h(%08x:%08x.%08x.%08x.%08x)", h.header, h.id.id1,
                          h.id.id2, h.id.id3, h.id.id4);
            return buffer;
        }
        case QX_SBS_PTR:
            return "sbs(" + hex(v.ptr_sbs->fields, static_cast<size_t>(v.ptr_sbs->length)) + ")";
        case QX_SD_PTR: {
            std::string s = "{";
            for (qx_uint32_t i = 0; i < v.ptr_sd->element_count; ++i) {
                const qx_structured_data_element_t &e = v.ptr_sd->elements[i];
                if (i != 0) s += ",";
                s += std::to_string(static_cast<int>(e.data_type)) + ":" +
                     render(e.data_type, e.value);
            }
            return s + "}";
        }
        default: {
            if (type < QX_INT32_ARRAY || type > QX_SD_PTR_ARRAY) return "?";
            const qx_data_type_t base = base_type(type);
            std::string s = "[";
            for (qx_uint32_t i = 0; i < v.ptr_array->element_count; ++i) {
                if (i != 0) s += ",";
                s += render(base, v.ptr_array->elements[i]);
            }
            return s + "]";
        }
    }
}

struct ColumnSpec {
    const char *name;
    qx_data_type_t type;
    qx_uint32_t qualifier;
};

struct TableLayout {
    const char *leaf;  // registry path below the prefix
    std::vector<ColumnSpec> columns;
};

// The three tables; column 0 of each is its key.
inline std::vector<TableLayout> table_layouts() {
    std::vector<TableLayout> layouts(3);
    layouts[0].leaf = "all";
    layouts[0].columns = {{"k", QX_INT32, SR_PRIMARY_KEY}};
    static const char *const kNames[] = {
        nullptr, nullptr, "i32",  "u32",  "i64",  "u64",  "f32",  "f64", "s",  "b",  "h",  "sd",
        "sbs",   "ai32",  "au32", "ai64", "au64", "af32", "af64", "as",  "ab", "ah", "asd"};
    for (int t = QX_INT32; t <= QX_SD_PTR_ARRAY; ++t) {
        layouts[0].columns.push_back({kNames[t], static_cast<qx_data_type_t>(t),
                                      SR_STANDARD | (t == QX_UINT32 ? SR_PROTECTED : 0u)});
    }
    layouts[1].leaf = "text";
    layouts[1].columns = {{"name", QX_CHAR_PTR, SR_PRIMARY_KEY},
                          {"v", QX_UINT64, SR_STANDARD | SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED},
                          {"tags", QX_CHAR_PTR_ARRAY, SR_STANDARD}};
    layouts[2].leaf = "handles";
    layouts[2].columns = {{"h", QX_RSRC_HANDLE_PTR, SR_PRIMARY_KEY},
                          {"n", QX_INT64, SR_STANDARD},
                          {"blob", QX_BINARY_PTR, SR_STANDARD}};
    return layouts;
}

inline std::vector<sr_column_t> column_definitions(Arena &arena, const TableLayout &layout) {
    std::vector<sr_column_t> columns(layout.columns.size());
    for (size_t i = 0; i < layout.columns.size(); ++i) {
        sr_column_t &c = columns[i];
        c.name = arena.text(layout.columns[i].name);
        c.type = layout.columns[i].type;
        c.qualifier = layout.columns[i].qualifier;
        c.properties = static_cast<qx_int32_t>(i * 3) - 2;
        c.sd_defn =
            (c.type == QX_SD_PTR || c.type == QX_SD_PTR_ARRAY) ? sd_definition(arena) : nullptr;
        // Every column but the key has a default (qx_value_t{} would zero only the first member).
        c.default_value.val_uint64 = 0;
        if (i != 0) c.default_value = make_value(arena, c.type, 900 + static_cast<qx_uint32_t>(i));
    }
    return columns;
}

// Adds the row of `seed` (every column given).  Returns the library's code.
inline int add_row(sr_opaque_handle_t table, Arena &arena, const TableLayout &layout,
                   qx_uint32_t seed) {
    std::vector<qx_char_ptr_t> names;
    std::vector<qx_value_t> values(layout.columns.size());
    std::vector<qx_value_t *> pointers;
    for (size_t i = 0; i < layout.columns.size(); ++i) {
        names.push_back(const_cast<char *>(layout.columns[i].name));
        values[i] =
            make_value(arena, layout.columns[i].type, seed * 100 + static_cast<qx_uint32_t>(i));
        pointers.push_back(&values[i]);
    }
    return sr_add_row_1(table, names.data(), pointers.data(),
                        static_cast<qx_uint32_t>(names.size()));
}

// 5 committed rows, then uncommitted: row 1 updated, 3 deleted, 5 and 6 added; 0 or a code.
inline int build_tables(sr_opaque_handle_t tree, const std::string &prefix, Arena &arena,
                        std::vector<sr_opaque_handle_t> *p_handles) {
    for (const TableLayout &layout : table_layouts()) {
        std::vector<sr_column_t> columns = column_definitions(arena, layout);
        sr_opaque_handle_t table = nullptr;
        std::string path = prefix + "/" + layout.leaf;
        int rc = sr_create_table_1(tree, arena.text(path), columns.data(),
                                   static_cast<qx_uint32_t>(columns.size()),
                                   SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL, &table);
        if (rc != 0) return rc;
        p_handles->push_back(table);
        for (qx_uint32_t seed = 0; seed < 5; ++seed) {
            if ((rc = add_row(table, arena, layout, seed)) != 0) return rc;
        }
        if ((rc = sr_apply_1(table, 0)) != 0 || (rc = sr_commit_1(table)) != 0) return rc;
        qx_value_t updated = make_value(arena, layout.columns.back().type, 4242);
        rc = sr_set_field_by_fixed_index_1(table, 1, const_cast<char *>(layout.columns.back().name),
                                           &updated);
        if (rc != 0) return rc;
        if ((rc = sr_delete_row_by_index_1(table, 3)) != 0) return rc;
        for (qx_uint32_t seed = 5; seed < 7; ++seed) {
            if ((rc = add_row(table, arena, layout, seed)) != 0) return rc;
        }
    }
    return 0;
}

// A table as text: metadata (but structured defaults, which do not travel) and every row.
inline std::string render_table(sr_opaque_handle_t table, qx_uint32_t view_applied) {
    std::string out;
    sr_table_metadata_t *p_metadata = nullptr;
    int rc = sr_get_table_metadata_1(table, -1, &p_metadata);
    if (rc != 0) return "metadata failed: " + std::to_string(rc) + "\n";
    out += "columns " + std::to_string(p_metadata->number_of_columns) + "\n";
    // The names outlive the metadata they are copied from.
    std::vector<std::string> name_texts;
    std::vector<qx_data_type_t> types;
    for (qx_uint32_t c = 0; c < p_metadata->number_of_columns; ++c) {
        const sr_column_t &column = p_metadata->column_definitions[c];
        name_texts.push_back(column.name);
        types.push_back(column.type);
        out += std::string("  ") + column.name + " type " + std::to_string(column.type) +
               " qualifier " + std::to_string(column.qualifier) + " properties " +
               std::to_string(column.properties);
        if (column.sd_defn != nullptr) {
            out += " fields";
            for (qx_uint32_t f = 0; f < column.sd_defn->number_of_fields; ++f) {
                out += std::string(" ") + column.sd_defn->field_def[f].name + ":" +
                       std::to_string(column.sd_defn->field_def[f].type);
            }
        }
        if (c != 0 && column.type != QX_SD_PTR && column.type != QX_SD_PTR_ARRAY) {
            out += " default " + render(column.type, column.default_value);
        }
        out += "\n";
    }
    sr_free_table_metadata_1(p_metadata);
    std::vector<qx_char_ptr_t> names;
    for (std::string &name : name_texts) names.push_back(name.data());
    std::vector<qx_value_t> values(names.size());
    std::vector<qx_value_t *> pointers;
    for (qx_value_t &v : values) pointers.push_back(&v);
    for (qx_int32_t f = 0;; ++f) {
        sr_row_state_t state;
        rc = sr_get_fields_by_fixed_index_and_visibility_1(table, f, names.data(), pointers.data(),
                                                           static_cast<qx_uint32_t>(names.size()),
                                                           view_applied, &state);
        if (rc == SR_E_NO_ROW_FOR_INDEX) break;
        if (rc == SR_E_ROW_DELETED) continue;
        if (rc != 0) return out + "read failed: " + std::to_string(rc) + "\n";
        out += "row";
        for (size_t c = 0; c < names.size(); ++c) out += " " + render(types[c], values[c]);
        out += "\n";
    }
    return out;
}

// Rows a description lists, or -1 when it records a failure.
inline int described_rows(const std::string &description) {
    if (description.find("failed") != std::string::npos) return -1;
    int rows = 0;
    for (size_t at = 0; (at = description.find("\nrow ", at)) != std::string::npos; ++at) ++rows;
    return rows;
}

// The two views every exchange writes and reads, in file-name order.
inline const char *const kViews[] = {"committed", "working"};

inline bool read_file(const std::string &path, std::string *p_bytes) {
    std::ifstream in(path, std::ios::binary);
    p_bytes->append(std::istreambuf_iterator<char>(in), {});
    return in.is_open();
}

inline bool write_file(const std::string &path, const void *p_bytes, size_t length) {
    std::ofstream out(path, std::ios::binary);
    return static_cast<bool>(
        out.write(static_cast<const char *>(p_bytes), static_cast<std::streamsize>(length))
            .flush());
}

}  // namespace qxcross

#endif  // QX_TESTS_CROSS_CROSS_TABLES_H
