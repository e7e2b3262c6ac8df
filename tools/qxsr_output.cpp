// Printing rows: the aligned table, CSV, JSON and line modes, and the
// `mode` command that chooses among them.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "qxsr_shell.h"
#include "qxsr_values.h"

namespace qxsr {

namespace {

void write_table(FILE *out, const std::vector<std::string> &header,
                 const std::vector<CellRow> &rows) {
    std::vector<size_t> widths(header.size());
    for (size_t c = 0; c < header.size(); ++c) widths[c] = header[c].size();
    for (const auto &row : rows) {
        for (size_t c = 0; c < row.size() && c < widths.size(); ++c) {
            if (row[c].text.size() > widths[c]) widths[c] = row[c].text.size();
        }
    }
    auto line = [&](auto cell_text) {
        for (size_t c = 0; c < widths.size(); ++c) {
            const std::string cell = cell_text(c);
            std::fprintf(out, c + 1 < widths.size() ? "%-*s  " : "%-*s",
                         static_cast<int>(c + 1 < widths.size() ? widths[c] : 0), cell.c_str());
        }
        std::fputc('\n', out);
    };
    line([&](size_t c) { return header[c]; });
    line([&](size_t c) { return std::string(widths[c], '-'); });
    for (const auto &row : rows) {
        line([&](size_t c) { return c < row.size() ? row[c].text : std::string(); });
    }
}

void write_csv(FILE *out, const std::vector<std::string> &header, const std::vector<CellRow> &rows,
               bool crlf) {
    const char *end = crlf ? "\r\n" : "\n";
    for (size_t c = 0; c < header.size(); ++c) {
        std::fprintf(out, "%s%s", c == 0 ? "" : ",", csv_field(header[c]).c_str());
    }
    std::fputs(end, out);
    for (const auto &row : rows) {
        for (size_t c = 0; c < row.size(); ++c) {
            std::fprintf(out, "%s%s", c == 0 ? "" : ",", csv_field(row[c].text).c_str());
        }
        std::fputs(end, out);
    }
}

void write_json(FILE *out, const std::vector<std::string> &header,
                const std::vector<CellRow> &rows) {
    std::fputc('[', out);
    for (size_t r = 0; r < rows.size(); ++r) {
        std::fputs(r == 0 ? "\n  {" : ",\n  {", out);
        for (size_t c = 0; c < rows[r].size() && c < header.size(); ++c) {
            const Cell &cell = rows[r][c];
            std::fprintf(out, "%s%s: %s", c == 0 ? "" : ", ", json_text(header[c]).c_str(),
                         cell.json.empty() ? json_text(cell.text).c_str() : cell.json.c_str());
        }
        std::fputc('}', out);
    }
    std::fputs(rows.empty() ? "]\n" : "\n]\n", out);
}

void write_lines(FILE *out, const std::vector<std::string> &header,
                 const std::vector<CellRow> &rows) {
    size_t width = 0;
    for (const auto &name : header) width = name.size() > width ? name.size() : width;
    for (size_t r = 0; r < rows.size(); ++r) {
        if (r != 0) std::fputc('\n', out);
        for (size_t c = 0; c < rows[r].size() && c < header.size(); ++c) {
            std::fprintf(out, "%*s = %s\n", static_cast<int>(width), header[c].c_str(),
                         rows[r][c].text.c_str());
        }
    }
}

struct ModeName {
    OutputMode mode;
    const char *name;
};
constexpr ModeName kModes[] = {{OutputMode::kTable, "table"},
                               {OutputMode::kCsv, "csv"},
                               {OutputMode::kJson, "json"},
                               {OutputMode::kLine, "line"}};

int run_mode(Shell &shell, int argc, char **argv) {
    if (argc == 1) {
        for (const ModeName &m : kModes) {
            if (m.mode == shell.mode) std::fprintf(shell.out, "%s\n", m.name);
        }
        return 0;
    }
    OutputMode mode;
    if (argc == 2 && parse_mode_name(argv[1], &mode)) {
        shell.mode = mode;
        return 0;
    }
    std::fputs("usage: mode [table|csv|json|line]\n", shell.err);
    return 2;
}

constexpr Command kCommands[] = {
    {"mode", "mode [table|csv|json|line]", "show or choose how rows print", run_mode},
};

}  // namespace

bool parse_mode_name(const char *name, OutputMode *p_mode) {
    for (const ModeName &m : kModes) {
        if (std::strcmp(m.name, name) == 0) {
            *p_mode = m.mode;
            return true;
        }
    }
    return false;
}

std::string csv_field(const std::string &text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string out = "\"";
    for (char c : text) {
        if (c == '"') out += '"';
        out += c;
    }
    return out + "\"";
}

void write_rows(FILE *out, OutputMode mode, const std::vector<std::string> &header,
                const std::vector<CellRow> &rows, bool crlf) {
    switch (mode) {
        case OutputMode::kCsv:
            write_csv(out, header, rows, crlf);
            break;
        case OutputMode::kJson:
            write_json(out, header, rows);
            break;
        case OutputMode::kLine:
            write_lines(out, header, rows);
            break;
        default:
            write_table(out, header, rows);
            break;
    }
}

std::string counted(unsigned long long count, const char *noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

void print_rows(Shell &shell, const std::vector<std::string> &header,
                const std::vector<CellRow> &rows, bool count) {
    write_rows(shell.out, shell.mode, header, rows, false);
    if (count && shell.mode == OutputMode::kTable) {
        std::fprintf(shell.out, "(%s)\n", counted(rows.size(), "row").c_str());
    }
}

void print_table(Shell &shell, const std::vector<std::string> &header,
                 const std::vector<std::vector<std::string>> &rows, bool count) {
    std::vector<CellRow> cells;
    for (const auto &row : rows) {
        CellRow cell_row;
        for (const auto &text : row) cell_row.push_back({text, ""});
        cells.push_back(std::move(cell_row));
    }
    print_rows(shell, header, cells, count);
}

const Command *output_commands(int *p_count) {
    *p_count = static_cast<int>(sizeof kCommands / sizeof kCommands[0]);
    return kCommands;
}

}  // namespace qxsr
