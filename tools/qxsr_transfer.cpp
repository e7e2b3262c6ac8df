// Moving rows between tables and files: `export` writes a table's committed
// rows as CSV or JSON (the forms the output modes print), `import` reads such
// a file back into a table, every row in one transaction.
//
// CSV: the header row names the columns; a field holds the value as the
// shell prints it and reads it on the command line.  An empty field leaves
// its column to the default, except for a string column, where it is the
// empty text.  JSON: one array of objects; numbers, arrays and structured
// data (objects named by field) as themselves, everything else as text;
// null leaves the column to the default.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
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

// "--csv" / "--json", else the file name's extension.
bool file_mode(Shell &shell, const char *file, const char *flag, OutputMode *p_mode) {
    std::string name = file;
    std::string choice;
    if (flag != nullptr) {
        choice = flag[0] == '-' && flag[1] == '-' ? flag + 2 : "";
    } else if (name.size() > 4 && name.compare(name.size() - 4, 4, ".csv") == 0) {
        choice = "csv";
    } else if (name.size() > 5 && name.compare(name.size() - 5, 5, ".json") == 0) {
        choice = "json";
    }
    if (choice == "csv" || choice == "json") {
        *p_mode = choice == "csv" ? OutputMode::kCsv : OutputMode::kJson;
        return true;
    }
    std::fprintf(shell.err, "qxsr: name the format of %s with --csv or --json\n", file);
    return false;
}

struct MetadataDeleter {
    void operator()(sr_table_metadata_t *p) const { sr_free_table_metadata_1(p); }
};
using Metadata = std::unique_ptr<sr_table_metadata_t, MetadataDeleter>;

int run_export(Shell &shell, int argc, char **argv) {
    constexpr const char *kUsage = "export PATH FILE [--csv|--json]";
    if (argc < 3 || argc > 4) return usage(shell, kUsage);
    OutputMode mode;
    if (!file_mode(shell, argv[2], argc == 4 ? argv[3] : nullptr, &mode)) return 2;
    sr_opaque_handle_t handle = table_for(shell, argv[1], SR_MODE_READ);
    if (handle == nullptr) return 1;
    sr_table_metadata_t *p_raw = nullptr;
    int rc = sr_get_table_metadata_1(handle, -1, &p_raw);
    if (rc != 0) return report_failure(shell, "export", rc);
    Metadata metadata(p_raw);
    const qx_uint32_t count = metadata->number_of_columns;
    std::vector<std::string> header;
    std::vector<char *> names;
    for (qx_uint32_t c = 0; c < count; ++c) {
        header.push_back(metadata->column_definitions[c].name);
        names.push_back(metadata->column_definitions[c].name);
    }
    std::vector<CellRow> rows;
    std::vector<qx_value_t> values(count);
    std::vector<qx_value_t *> pointers;
    for (qx_value_t &v : values) pointers.push_back(&v);
    for (qx_int32_t i = 0;; ++i) {
        sr_row_state_t state = SR_ROW_STATE_NO_ROW;
        rc = sr_get_fields_by_index_and_visibility_1(handle, i, names.data(), pointers.data(),
                                                     count, 0, &state);
        if (rc == SR_E_NO_ROW_FOR_INDEX) break;
        if (rc == SR_E_ROW_DELETED) continue;
        if (rc != 0) return report_failure(shell, "export", rc);
        CellRow cells;
        for (qx_uint32_t c = 0; c < count; ++c) {
            const sr_column_t &column = metadata->column_definitions[c];
            cells.push_back({format_value(column.type, values[c]),
                             format_json(column.type, values[c], column.sd_defn)});
        }
        rows.push_back(std::move(cells));
    }
    FILE *out = std::fopen(argv[2], "wb");
    if (out == nullptr) {
        std::fprintf(shell.err, "qxsr: cannot write %s: %s\n", argv[2], std::strerror(errno));
        return 1;
    }
    write_rows(out, mode, header, rows, true);
    bool written = std::ferror(out) == 0;
    written = std::fclose(out) == 0 && written;
    if (!written) {
        std::fprintf(shell.err, "qxsr: cannot write %s\n", argv[2]);
        return 1;
    }
    std::fprintf(shell.out, "exported %zu row%s to %s\n", rows.size(), rows.size() == 1 ? "" : "s",
                 argv[2]);
    return 0;
}

// --- Reading the file ------------------------------------------------------

// One field of the file: its text (CSV, or a JSON scalar's text) or a JSON
// array or object, with the line it starts on.
struct Field {
    enum Kind { kText, kNumber, kNull, kArray, kObject } kind = kText;
    std::string text;
    std::vector<Field> items;
    std::vector<std::string> keys;  // of an object, parallel to items
    int line = 0;
};

// A row of the file: the fields named by the header.
struct FileRow {
    int line = 0;
    std::vector<std::string> names;
    std::vector<Field> fields;
};

bool read_file(const char *path, std::string *p_text, std::string *p_error) {
    FILE *in = std::fopen(path, "rb");
    if (in == nullptr) {
        *p_error = std::string("cannot open ") + path + ": " + std::strerror(errno);
        return false;
    }
    char buffer[65536];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, in)) > 0) p_text->append(buffer, n);
    bool ok = std::ferror(in) == 0;
    std::fclose(in);
    if (!ok) *p_error = std::string("cannot read ") + path;
    return ok;
}

// RFC 4180 records: quoted fields may hold commas, doubled quotes and line
// breaks; lines end with LF or CR LF.
bool parse_csv(const std::string &text, std::vector<FileRow> *p_rows, std::string *p_error) {
    std::vector<std::vector<std::string>> records;
    std::vector<int> lines;
    size_t i = 0;
    int line = 1;
    while (i < text.size()) {
        // A blank line holds no record (a file often ends with one).
        if (text[i] == '\n' || (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n')) {
            i += text[i] == '\r' ? 2 : 1;
            ++line;
            continue;
        }
        std::vector<std::string> record;
        int start_line = line;
        for (;;) {
            std::string field;
            if (i < text.size() && text[i] == '"') {
                ++i;
                for (;;) {
                    if (i >= text.size()) {
                        *p_error = "line " + std::to_string(start_line) + ": unterminated quote";
                        return false;
                    }
                    if (text[i] == '"') {
                        if (i + 1 < text.size() && text[i + 1] == '"') {
                            field += '"';
                            i += 2;
                            continue;
                        }
                        ++i;
                        break;
                    }
                    if (text[i] == '\n') ++line;
                    field += text[i++];
                }
                if (i < text.size() && text[i] != ',' && text[i] != '\n' && text[i] != '\r') {
                    *p_error = "line " + std::to_string(line) + ": text after a closing quote";
                    return false;
                }
            } else {
                while (i < text.size() && text[i] != ',' && text[i] != '\n' && text[i] != '\r') {
                    field += text[i++];
                }
            }
            record.push_back(field);
            if (i < text.size() && text[i] == ',') {
                ++i;
                continue;
            }
            if (i < text.size() && text[i] == '\r') ++i;
            if (i < text.size() && text[i] == '\n') ++i;
            ++line;
            break;
        }
        records.push_back(std::move(record));
        lines.push_back(start_line);
    }
    if (records.empty()) {
        *p_error = "no header row";
        return false;
    }
    const std::vector<std::string> &header = records[0];
    for (size_t r = 1; r < records.size(); ++r) {
        if (records[r].size() != header.size()) {
            *p_error = "line " + std::to_string(lines[r]) + ": " +
                       std::to_string(records[r].size()) + " fields where the header names " +
                       std::to_string(header.size());
            return false;
        }
        FileRow row;
        row.line = lines[r];
        row.names = header;
        for (const std::string &value : records[r]) {
            Field field;
            field.text = value;
            field.line = lines[r];
            row.fields.push_back(std::move(field));
        }
        p_rows->push_back(std::move(row));
    }
    return true;
}

class JsonReader {
  public:
    explicit JsonReader(const std::string &text) : text_(text) {}

    bool rows(std::vector<FileRow> *p_rows, std::string *p_error) {
        Field top;
        if (!value(&top, 0) || (skip(), pos_ != text_.size())) {
            if (error_.empty()) error_ = "text after the array";
            *p_error = "line " + std::to_string(line_) + ": " + error_;
            return false;
        }
        if (top.kind != Field::kArray) {
            *p_error = "line 1: the file is not one array of objects";
            return false;
        }
        for (Field &item : top.items) {
            if (item.kind != Field::kObject) {
                *p_error = "line " + std::to_string(item.line) + ": a row is not an object";
                return false;
            }
            FileRow row;
            row.line = item.line;
            row.names = std::move(item.keys);
            row.fields = std::move(item.items);
            p_rows->push_back(std::move(row));
        }
        return true;
    }

  private:
    void skip() {
        while (pos_ < text_.size() && std::strchr(" \t\r\n", text_[pos_]) != nullptr) {
            if (text_[pos_] == '\n') ++line_;
            ++pos_;
        }
    }
    bool fail(const char *what) {
        error_ = what;
        return false;
    }
    bool string(std::string *p_out) {
        ++pos_;  // the opening quote
        while (pos_ < text_.size() && text_[pos_] != '"') {
            char c = text_[pos_++];
            if (static_cast<unsigned char>(c) < 0x20) return fail("a control character in text");
            if (c != '\\') {
                *p_out += c;
                continue;
            }
            if (pos_ >= text_.size()) break;
            char e = text_[pos_++];
            switch (e) {
                case 'n':
                    *p_out += '\n';
                    break;
                case 't':
                    *p_out += '\t';
                    break;
                case 'r':
                    *p_out += '\r';
                    break;
                case 'b':
                    *p_out += '\b';
                    break;
                case 'f':
                    *p_out += '\f';
                    break;
                case 'u': {
                    if (pos_ + 4 > text_.size()) return fail("a short \\u escape");
                    unsigned long code = std::strtoul(text_.substr(pos_, 4).c_str(), nullptr, 16);
                    pos_ += 4;
                    // UTF-8 for the basic plane (surrogate pairs are kept
                    // as written: the shell's own files never hold them).
                    if (code < 0x80) {
                        *p_out += static_cast<char>(code);
                    } else if (code < 0x800) {
                        *p_out += static_cast<char>(0xC0 | (code >> 6));
                        *p_out += static_cast<char>(0x80 | (code & 0x3F));
                    } else {
                        *p_out += static_cast<char>(0xE0 | (code >> 12));
                        *p_out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
                        *p_out += static_cast<char>(0x80 | (code & 0x3F));
                    }
                    break;
                }
                default:
                    *p_out += e;  // \" \\ \/
            }
        }
        if (pos_ >= text_.size()) return fail("unterminated text");
        ++pos_;
        return true;
    }
    bool value(Field *p_field, int depth) {
        if (depth > 64) return fail("nesting too deep");
        skip();
        p_field->line = line_;
        if (pos_ >= text_.size()) return fail("unexpected end of file");
        char c = text_[pos_];
        if (c == '"') {
            p_field->kind = Field::kText;
            return string(&p_field->text);
        }
        if (c == '[' || c == '{') {
            bool object = c == '{';
            p_field->kind = object ? Field::kObject : Field::kArray;
            ++pos_;
            skip();
            if (pos_ < text_.size() && text_[pos_] == (object ? '}' : ']')) {
                ++pos_;
                return true;
            }
            for (;;) {
                skip();
                if (object) {
                    if (pos_ >= text_.size() || text_[pos_] != '"') return fail("expected a name");
                    std::string key;
                    if (!string(&key)) return false;
                    skip();
                    if (pos_ >= text_.size() || text_[pos_] != ':') return fail("expected ':'");
                    ++pos_;
                    p_field->keys.push_back(key);
                }
                Field item;
                if (!value(&item, depth + 1)) return false;
                p_field->items.push_back(std::move(item));
                skip();
                if (pos_ < text_.size() && text_[pos_] == ',') {
                    ++pos_;
                    continue;
                }
                if (pos_ < text_.size() && text_[pos_] == (object ? '}' : ']')) {
                    ++pos_;
                    return true;
                }
                return fail(object ? "expected ',' or '}'" : "expected ',' or ']'");
            }
        }
        size_t end = pos_;
        while (end < text_.size() && std::strchr(",]} \t\r\n", text_[end]) == nullptr) ++end;
        std::string word = text_.substr(pos_, end - pos_);
        pos_ = end;
        if (word == "null") {
            p_field->kind = Field::kNull;
        } else if (word == "true" || word == "false") {
            p_field->kind = Field::kNumber;
            p_field->text = word == "true" ? "1" : "0";
        } else if (!word.empty() && std::strchr("-0123456789", word[0]) != nullptr) {
            p_field->kind = Field::kNumber;
            p_field->text = word;
        } else {
            return fail("not a JSON value");
        }
        return true;
    }

    const std::string &text_;
    size_t pos_ = 0;
    int line_ = 1;
    std::string error_;
};

// --- Values ------------------------------------------------------------------

// A file field as a value of `type`; false with the reason in *p_error.
bool field_value(const Field &field, qx_data_type_t type, const sr_sd_def_t *p_sd,
                 ValueArena &arena, qx_value_t *p_value, std::string *p_error) {
    if (field.kind == Field::kText || field.kind == Field::kNumber) {
        return parse_value(field.text, type, p_sd, arena, p_value, p_error);
    }
    if (field.kind == Field::kArray && type != QX_SD_PTR) {
        qx_data_type_t element = array_element_type(type);
        if (element == QX_UNKNOWN) {
            *p_error = "an array is not a value of this column";
            return false;
        }
        auto *array = static_cast<qx_array_t *>(arena.allocate(QX_ARRAY_SIZE(field.items.size())));
        array->element_count = static_cast<qx_uint32_t>(field.items.size());
        for (size_t i = 0; i < field.items.size(); ++i) {
            if (!field_value(field.items[i], element, p_sd, arena, &array->elements[i], p_error))
                return false;
        }
        std::memset(p_value, 0, sizeof *p_value);
        p_value->ptr_array = array;
        return true;
    }
    if (field.kind == Field::kObject && type == QX_SD_PTR && p_sd != nullptr) {
        auto *sd =
            static_cast<qx_structured_data_t *>(arena.allocate(QX_SD_SIZE(p_sd->number_of_fields)));
        sd->element_count = p_sd->number_of_fields;
        for (qx_uint32_t f = 0; f < p_sd->number_of_fields; ++f) {
            const Field *p_item = nullptr;
            for (size_t k = 0; k < field.keys.size(); ++k) {
                if (field.keys[k] == p_sd->field_def[f].name) p_item = &field.items[k];
            }
            if (p_item == nullptr) {
                *p_error = std::string("field '") + p_sd->field_def[f].name + "' is missing";
                return false;
            }
            sd->elements[f].data_type = p_sd->field_def[f].type;
            if (!field_value(*p_item, p_sd->field_def[f].type, nullptr, arena,
                             &sd->elements[f].value, p_error))
                return false;
        }
        std::memset(p_value, 0, sizeof *p_value);
        p_value->ptr_sd = sd;
        return true;
    }
    *p_error = "not a value of this column";
    return false;
}

// How a field shows in an error message.
std::string field_text(const Field &field) {
    switch (field.kind) {
        case Field::kArray:
            return "[...]";
        case Field::kObject:
            return "{...}";
        case Field::kNull:
            return "null";
        default:
            return field.text;
    }
}

// The explicitly controlled handle an import works through: the session's,
// when it already controls the table; otherwise a new one.  A handle the
// session keeps for implicit updates refuses a second, explicit writer:
// that one is closed first (its next command opens it again).
sr_opaque_handle_t import_handle(Shell &shell, const char *path, bool *p_session_owned) {
    bool implicit_writer = false;
    for (const OpenTable &t : shell.tables) {
        if (t.path != path) continue;
        if ((t.mode & SR_MODE_EXPLICIT_CONTROL) != 0) {
            *p_session_owned = true;
            return t.handle;
        }
        implicit_writer = (t.mode & SR_MODE_WRITE) != 0;
    }
    *p_session_owned = false;
    sr_opaque_handle_t handle = nullptr;
    constexpr qx_int32_t kMode = SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL;
    int rc = sr_open_table_1(shell.tree, const_cast<char *>(path), kMode, &handle);
    if (rc == SR_E_EXCLUSIVE_MODES && implicit_writer && close_table(shell, path) == 0) {
        rc = sr_open_table_1(shell.tree, const_cast<char *>(path), kMode, &handle);
    }
    if (rc != 0) {
        report_failure(shell, path, rc);
        return nullptr;
    }
    return handle;
}

// Parses every row before the first change, so that a bad value changes
// nothing; then adds them, applies and commits.  In a transaction the
// session began, the rows join it and `commit PATH` ends it as usual.
int import_rows(Shell &shell, const char *path, const char *file, sr_opaque_handle_t handle,
                bool session_owned, const std::vector<FileRow> &file_rows) {
    sr_table_metadata_t *p_raw = nullptr;
    int rc = sr_get_table_metadata_1(handle, -1, &p_raw);
    if (rc != 0) return report_failure(shell, "import", rc);
    Metadata metadata(p_raw);
    auto column_of = [&](const std::string &name) -> const sr_column_t * {
        for (qx_uint32_t c = 0; c < metadata->number_of_columns; ++c) {
            if (name == metadata->column_definitions[c].name)
                return &metadata->column_definitions[c];
        }
        return nullptr;
    };
    ValueArena arena;
    struct Parsed {
        std::vector<char *> names;
        std::vector<qx_value_t> values;
        std::vector<qx_value_t *> pointers;
    };
    std::vector<Parsed> parsed(file_rows.size());
    for (size_t r = 0; r < file_rows.size(); ++r) {
        const FileRow &row = file_rows[r];
        Parsed &out = parsed[r];
        for (size_t f = 0; f < row.fields.size(); ++f) {
            const sr_column_t *p_column = column_of(row.names[f]);
            if (p_column == nullptr) {
                std::fprintf(shell.err, "qxsr: import %s: line %d: no column '%s' in %s\n", file,
                             row.line, row.names[f].c_str(), path);
                return 2;
            }
            const Field &field = row.fields[f];
            // Absent: null in JSON, an empty field in CSV (but an empty
            // text for a string column), and empty structured data (what
            // a row shows where its structured data was never given).
            bool absent = field.kind == Field::kNull ||
                          (field.kind == Field::kText && field.text.empty() &&
                           p_column->type != QX_CHAR_PTR) ||
                          (p_column->type == QX_SD_PTR &&
                           ((field.kind == Field::kText && field.text == "{}") ||
                            (field.kind == Field::kObject && field.items.empty())));
            if (absent) continue;
            qx_value_t value{};
            std::string error;
            if (!field_value(field, p_column->type, p_column->sd_defn, arena, &value, &error)) {
                std::fprintf(shell.err, "qxsr: import %s: line %d, column %s, value '%s': %s\n",
                             file, field.line, p_column->name, field_text(field).c_str(),
                             error.c_str());
                return 2;
            }
            out.names.push_back(p_column->name);
            out.values.push_back(value);
        }
        for (qx_value_t &v : out.values) out.pointers.push_back(&v);
    }
    for (size_t r = 0; r < parsed.size(); ++r) {
        Parsed &row = parsed[r];
        rc = sr_add_row_1(handle, row.names.data(), row.pointers.data(),
                          static_cast<qx_uint32_t>(row.names.size()));
        if (rc != 0) {
            std::string what =
                "import " + std::string(file) + ": line " + std::to_string(file_rows[r].line);
            report_failure(shell, what.c_str(), rc);
            sr_abort_1(handle);
            std::fprintf(shell.err, "qxsr: import %s: nothing imported\n", file);
            return 1;
        }
    }
    if (!session_owned) {
        rc = sr_apply_1(handle, 0);
        if (rc == 0) rc = sr_commit_1(handle);
        if (rc != 0) {
            report_failure(shell, "import", rc);
            sr_abort_1(handle);
            return 1;
        }
    }
    std::fprintf(shell.out, "imported %zu row%s into %s\n", parsed.size(),
                 parsed.size() == 1 ? "" : "s", path);
    return 0;
}

int run_import(Shell &shell, int argc, char **argv) {
    constexpr const char *kUsage = "import PATH FILE [--csv|--json]";
    if (argc < 3 || argc > 4) return usage(shell, kUsage);
    OutputMode mode;
    if (!file_mode(shell, argv[2], argc == 4 ? argv[3] : nullptr, &mode)) return 2;
    std::string text;
    std::string error;
    std::vector<FileRow> rows;
    bool ok = read_file(argv[2], &text, &error);
    // A byte order mark some editors put first is no part of the data.
    if (ok && text.compare(0, 3, "\xEF\xBB\xBF") == 0) text.erase(0, 3);
    if (ok)
        ok = mode == OutputMode::kCsv ? parse_csv(text, &rows, &error)
                                      : JsonReader(text).rows(&rows, &error);
    if (!ok) {
        std::fprintf(shell.err, "qxsr: import %s: %s\n", argv[2], error.c_str());
        return 2;
    }
    bool session_owned = false;
    sr_opaque_handle_t handle = import_handle(shell, argv[1], &session_owned);
    if (handle == nullptr) return 1;
    int rc = import_rows(shell, argv[1], argv[2], handle, session_owned, rows);
    if (!session_owned) {
        sr_close_table_1(handle);
        // A read-only handle the session kept shares the table record the
        // import made explicitly controlled: drop it, so that the session's
        // next command opens the table afresh.
        for (const OpenTable &t : shell.tables) {
            if (t.path == argv[1]) {
                close_table(shell, argv[1]);
                break;
            }
        }
    }
    return rc;
}

constexpr Command kCommands[] = {
    {"export", "export PATH FILE [--csv|--json]", "write a table's rows to a CSV or JSON file",
     run_export},
    {"import", "import PATH FILE [--csv|--json]", "add a CSV or JSON file's rows, all or none",
     run_import},
};

}  // namespace

const Command *transfer_commands(int *p_count) {
    *p_count = static_cast<int>(sizeof kCommands / sizeof kCommands[0]);
    return kCommands;
}

}  // namespace qxsr
