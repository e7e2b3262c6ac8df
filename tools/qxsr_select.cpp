// Selection commands: select (print the rows an expression chooses as a
// table, or their fixed indices) and delete-where.
//
// Values are written as literals in the expression itself (42, -7, 0x1F,
// 2.5, "text", '0xBEEF' for a binary, "0x0001 0x0002 0x... " for a handle,
// {1, 2} for an array), so the command line needs no `$` items; quote the
// whole expression when it holds quotes of its own, as the shell's word
// splitting removes one level.  A `$` inside
// a quoted text is passed as the escape \x24; anywhere else it is refused.
// When the library cannot compile an expression, the shell compiles it once
// more against the table's columns to show where and why.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qxsr_shell.h"
#include "qxsr_values.h"

namespace qxsr {

namespace {

int usage(Shell &shell, const char *text) {
    std::fprintf(shell.err, "usage: %s\n", text);
    return 2;
}

// The expression words joined by blanks, with `$` made harmless.  False with
// a message for a `$` outside quotes.
bool build_expression(Shell &shell, int argc, char **argv, std::string *p_out) {
    std::string joined;
    for (int i = 0; i < argc; ++i) {
        if (i > 0) joined += ' ';
        joined += argv[i];
    }
    std::string out;
    char quote = '\0';
    for (size_t i = 0; i < joined.size(); ++i) {
        char c = joined[i];
        if (quote != '\0') {
            if (c == '\\' && i + 1 < joined.size()) {
                out += c;
                out += joined[++i];
                continue;
            }
            if (c == quote) quote = '\0';
            out += c == '$' ? std::string("\\x24") : std::string(1, c);
            continue;
        }
        if (c == '"' || c == '\'') quote = c;
        if (c == '$') {
            std::fprintf(shell.err,
                         "qxsr: '$' is not part of an expression typed here; write values as "
                         "literals (42, 2.5, \"text\", '0xBEEF', {1,2})\n");
            return false;
        }
        out += c;
    }
    *p_out = out;
    return true;
}

// Name lookups for the shell's own compile, over the table's metadata.
qx_int32_t lookup(void *token, qx_char_t *p_name, qx_uint32_t, qx_uint32_t parent_id,
                  cu_validate_data_t *p_out) {
    const sr_table_metadata_t *p_metadata = static_cast<const sr_table_metadata_t *>(token);
    if (parent_id == CU_EXPR_TOP_LEVEL) {
        for (qx_uint32_t c = 0; c < p_metadata->number_of_columns; ++c) {
            if (std::strcmp(p_metadata->column_definitions[c].name, p_name) == 0) {
                p_out->id = c;
                p_out->type = p_metadata->column_definitions[c].type;
                return 0;
            }
        }
        return -1;
    }
    if (parent_id >= p_metadata->number_of_columns) return -1;
    const sr_sd_def_t *p_sd = p_metadata->column_definitions[parent_id].sd_defn;
    if (p_sd == nullptr) return -1;
    for (qx_uint32_t f = 0; f < p_sd->number_of_fields; ++f) {
        if (std::strcmp(p_sd->field_def[f].name, p_name) == 0) {
            p_out->id = f;
            p_out->type = p_sd->field_def[f].type;
            return 0;
        }
    }
    return -1;
}

// After the library refused to compile (11): the position and the reason.
void explain_expression(Shell &shell, sr_opaque_handle_t handle, const std::string &expression) {
    sr_table_metadata_t *p_metadata = nullptr;
    if (sr_get_table_metadata_1(handle, -1, &p_metadata) != 0) return;
    cu_expr_t *p_compiled = nullptr;
    if (cu_comp_expr_1(expression.c_str(), 0, lookup, p_metadata, &p_compiled) == CU_OK) {
        cu_free_expr_1(p_compiled);
    } else {
        cu_error_t *p_error = nullptr;
        char *p_message = nullptr;
        if (cu_get_error_1(&p_error) == CU_OK && cu_get_errmsg_1(p_error, &p_message) == CU_OK) {
            std::fprintf(shell.err, "qxsr: %s", p_message);
            size_t n = std::strlen(p_message);
            if (n == 0 || p_message[n - 1] != '\n') std::fputc('\n', shell.err);
        }
        cu_rel_errmsg_1(p_message);
        cu_rel_error_1(p_error);
    }
    sr_free_table_metadata_1(p_metadata);
}

int failed(Shell &shell, const char *what, int rc, sr_opaque_handle_t handle,
           const std::string &expression) {
    report_failure(shell, what, rc);
    if (rc == 11 && !expression.empty()) explain_expression(shell, handle, expression);
    return rc;
}

// sr_get_selected_rows_v_1 wants a va_list: the expression has no `$` items,
// so an empty one serves.
qx_int32_t selected_rows(sr_opaque_handle_t handle, char *p_expression, qx_uint32_t uncommitted,
                         qx_uint32_t *p_count, qx_uint32_t **p_p_rows, ...) {
    va_list ap;
    va_start(ap, p_p_rows);
    qx_int32_t rc =
        sr_get_selected_rows_v_1(handle, p_expression, ap, uncommitted, p_count, p_p_rows);
    va_end(ap);
    return rc;
}

// Prints every row of a result table.
int print_result(Shell &shell, sr_opaque_handle_t result) {
    sr_table_metadata_t *p_metadata = nullptr;
    int rc = sr_get_table_metadata_1(result, -1, &p_metadata);
    if (rc != 0) return report_failure(shell, "metadata", rc);
    const qx_uint32_t columns = p_metadata->number_of_columns;
    std::vector<std::string> header;
    std::vector<char *> names;
    for (qx_uint32_t c = 0; c < columns; ++c) {
        header.push_back(p_metadata->column_definitions[c].name);
        names.push_back(p_metadata->column_definitions[c].name);
    }
    std::vector<CellRow> rows;
    for (qx_int32_t i = 0; rc == 0; ++i) {
        std::vector<qx_value_t> values(columns);
        std::vector<qx_value_t *> pointers;
        for (qx_value_t &v : values) pointers.push_back(&v);
        sr_row_state_t state = SR_ROW_STATE_NO_ROW;
        rc = sr_get_fields_by_index_and_visibility_1(result, i, names.data(), pointers.data(),
                                                     columns, 0, &state);
        if (rc == 203) {
            rc = 0;
            break;
        }
        if (rc != 0) break;
        CellRow cells;
        for (qx_uint32_t c = 0; c < columns; ++c) {
            const sr_column_t &column = p_metadata->column_definitions[c];
            cells.push_back({format_value(column.type, values[c]),
                             format_json(column.type, values[c], column.sd_defn)});
        }
        rows.push_back(cells);
    }
    sr_free_table_metadata_1(p_metadata);
    if (rc != 0) return report_failure(shell, "select", rc);
    print_rows(shell, header, rows, true);
    return 0;
}

constexpr const char *kSelectUsage = "select PATH [-c COLUMN,...] [-i [-u]] ['EXPRESSION']";

// "select PATH [-c COLUMN,...] [-i [-u]] [EXPRESSION...]": the matching rows
// with the key and the named columns (all without -c), or with -i their
// fixed indices (-u: in the uncommitted view).
int run_select(Shell &shell, int argc, char **argv) {
    if (argc < 2) return usage(shell, kSelectUsage);
    const char *path = argv[1];
    std::vector<std::string> column_names;
    bool indices = false;
    bool uncommitted = false;
    int first = 2;
    while (first < argc && argv[first][0] == '-' && argv[first][1] != '\0' &&
           std::strchr("ciu", argv[first][1]) != nullptr && argv[first][2] == '\0') {
        char option = argv[first][1];
        if (option == 'c') {
            if (first + 1 >= argc) return usage(shell, kSelectUsage);
            std::string list = argv[first + 1];
            size_t start = 0;
            while (start <= list.size()) {
                size_t comma = list.find(',', start);
                if (comma == std::string::npos) comma = list.size();
                if (comma > start) column_names.push_back(list.substr(start, comma - start));
                start = comma + 1;
            }
            first += 2;
        } else {
            (option == 'i' ? indices : uncommitted) = true;
            ++first;
        }
    }
    if (uncommitted && !indices) return usage(shell, kSelectUsage);
    std::string expression;
    if (!build_expression(shell, argc - first, argv + first, &expression)) return 2;
    char *p_expression = expression.empty() ? nullptr : expression.data();
    sr_opaque_handle_t handle = table_for(shell, path, SR_MODE_READ);
    if (handle == nullptr) return 1;

    if (indices) {
        qx_uint32_t count = 0;
        qx_uint32_t *p_rows = nullptr;
        int rc = selected_rows(handle, p_expression, uncommitted ? 1 : 0, &count, &p_rows);
        if (rc != 0) return failed(shell, "select", rc, handle, expression);
        std::vector<CellRow> rows;
        for (qx_uint32_t i = 0; i < count; ++i) {
            std::string number = std::to_string(p_rows[i]);
            rows.push_back({{number, number}});
        }
        std::free(p_rows);
        print_rows(shell, {"fixed index"}, rows, true);
        return 0;
    }
    std::vector<char *> names;
    for (std::string &n : column_names) names.push_back(n.data());
    sr_opaque_handle_t result = nullptr;
    int rc = sr_select_1(handle, names.empty() ? nullptr : names.data(),
                         static_cast<qx_uint32_t>(names.size()), &result, p_expression);
    if (rc != 0) return failed(shell, "select", rc, handle, expression);
    rc = print_result(shell, result);
    sr_close_table_1(result);
    return rc;
}

// "delete-where PATH EXPRESSION...": deletes the rows the expression matches.
int run_delete_where(Shell &shell, int argc, char **argv) {
    if (argc < 3) return usage(shell, "delete-where PATH 'EXPRESSION'");
    std::string expression;
    if (!build_expression(shell, argc - 2, argv + 2, &expression)) return 2;
    sr_opaque_handle_t handle = table_for(shell, argv[1], SR_MODE_WRITE);
    if (handle == nullptr) return 1;
    int rc = sr_delete_rows_1(handle, expression.data());
    if (rc != 0) return failed(shell, "delete-where", rc, handle, expression);
    return 0;
}

constexpr Command kCommands[] = {
    {"select", kSelectUsage, "print the rows an expression matches (key first)", run_select},
    {"delete-where", "delete-where PATH 'EXPRESSION'", "delete the rows an expression matches",
     run_delete_where},
};

}  // namespace

const Command *select_commands(int *p_count) {
    *p_count = static_cast<int>(sizeof kCommands / sizeof kCommands[0]);
    return kCommands;
}

}  // namespace qxsr
