// Row commands: add, show, get, set, delete, and explicit transactions.
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

// A table's columns, fetched once per command.
class Columns {
  public:
    ~Columns() {
        if (p_metadata_ != nullptr) sr_free_table_metadata_1(p_metadata_);
    }
    bool load(Shell &shell, sr_opaque_handle_t handle) {
        int rc = sr_get_table_metadata_1(handle, -1, &p_metadata_);
        if (rc != 0) {
            report_failure(shell, "metadata", rc);
            return false;
        }
        return true;
    }
    qx_uint32_t count() const { return p_metadata_->number_of_columns; }
    const sr_column_t &at(qx_uint32_t i) const { return p_metadata_->column_definitions[i]; }
    const sr_column_t *find(const std::string &name) const {
        for (qx_uint32_t i = 0; i < count(); ++i) {
            if (name == at(i).name) return &at(i);
        }
        return nullptr;
    }

  private:
    sr_table_metadata_t *p_metadata_ = nullptr;
};

// NAME=VALUE words into parallel arrays of names and values.
struct Assignments {
    std::vector<char *> names;
    std::vector<qx_value_t> values;
    std::vector<qx_value_t *> pointers;
};

bool parse_assignments(Shell &shell, const Columns &columns, int argc, char **argv,
                       ValueArena &arena, Assignments *p_out) {
    for (int i = 0; i < argc; ++i) {
        char *eq = std::strchr(argv[i], '=');
        if (eq == nullptr) {
            std::fprintf(shell.err, "qxsr: '%s' is not NAME=VALUE\n", argv[i]);
            return false;
        }
        std::string name(argv[i], static_cast<size_t>(eq - argv[i]));
        const sr_column_t *p_column = columns.find(name);
        qx_value_t value{};
        if (p_column != nullptr) {
            std::string error;
            if (!parse_value(eq + 1, p_column->type, p_column->sd_defn, arena, &value, &error)) {
                std::fprintf(shell.err, "qxsr: %s: %s\n", name.c_str(), error.c_str());
                return false;
            }
        }
        // An unknown name is passed on: the library's answer (105) is the
        // message the user should see.
        p_out->names.push_back(arena.copy(name));
        p_out->values.push_back(value);
    }
    for (auto &v : p_out->values) p_out->pointers.push_back(&v);
    return true;
}

const char *state_text(sr_row_state_t state) {
    switch (state) {
        case SR_ROW_STATE_COMMITTED:
            return "committed";
        case SR_ROW_STATE_ADDED:
            return "added";
        case SR_ROW_STATE_UPDATED:
            return "updated";
        case SR_ROW_STATE_DELETED:
            return "deleted";
        case SR_ROW_STATE_NO_ROW:
            return "no row";
        default:
            return "?";
    }
}

sr_opaque_handle_t writable(Shell &shell, const char *path) {
    return table_for(shell, path, SR_MODE_WRITE);
}

int run_add(Shell &shell, int argc, char **argv) {
    if (argc < 3) return usage(shell, "add PATH NAME=VALUE...");
    sr_opaque_handle_t handle = writable(shell, argv[1]);
    if (handle == nullptr) return 1;
    Columns columns;
    if (!columns.load(shell, handle)) return 1;
    ValueArena arena;
    Assignments a;
    if (!parse_assignments(shell, columns, argc - 2, argv + 2, arena, &a)) return 2;
    int rc = sr_add_row_1(handle, a.names.data(), a.pointers.data(),
                          static_cast<qx_uint32_t>(a.names.size()));
    return rc == 0 ? 0 : report_failure(shell, "add", rc);
}

// Which row a get/set/delete names: "index N", "fixed N" or "key VALUE".
struct RowRef {
    enum { kIndex, kFixed, kKey } kind = kIndex;
    qx_int32_t number = 0;
    qx_value_t key{};
};

bool parse_row_ref(Shell &shell, const Columns &columns, char **argv, ValueArena &arena,
                   RowRef *p_ref) {
    std::string what = argv[0];
    if (what == "index" || what == "fixed") {
        char *end = nullptr;
        long n = std::strtol(argv[1], &end, 0);
        if (*end != '\0') {
            std::fprintf(shell.err, "qxsr: '%s' is not a row number\n", argv[1]);
            return false;
        }
        p_ref->kind = what == "index" ? RowRef::kIndex : RowRef::kFixed;
        p_ref->number = static_cast<qx_int32_t>(n);
        return true;
    }
    if (what == "key") {
        std::string error;
        const sr_column_t &key = columns.at(0);
        if (!parse_value(argv[1], key.type, key.sd_defn, arena, &p_ref->key, &error)) {
            std::fprintf(shell.err, "qxsr: key: %s\n", error.c_str());
            return false;
        }
        p_ref->kind = RowRef::kKey;
        return true;
    }
    std::fprintf(shell.err, "qxsr: name a row with index N, fixed N or key VALUE\n");
    return false;
}

// Reads one row (every column) in the chosen view.
int read_row(sr_opaque_handle_t handle, const Columns &columns, const RowRef &ref,
             qx_uint32_t uncommitted, CellRow *p_cells, sr_row_state_t *p_state) {
    std::vector<char *> names;
    std::vector<qx_value_t> values(columns.count());
    std::vector<qx_value_t *> pointers;
    for (qx_uint32_t i = 0; i < columns.count(); ++i) {
        names.push_back(columns.at(i).name);
        pointers.push_back(&values[i]);
    }
    int rc;
    switch (ref.kind) {
        case RowRef::kIndex:
            rc = sr_get_fields_by_index_and_visibility_1(handle, ref.number, names.data(),
                                                         pointers.data(), columns.count(),
                                                         uncommitted, p_state);
            break;
        case RowRef::kFixed:
            rc = sr_get_fields_by_fixed_index_and_visibility_1(handle, ref.number, names.data(),
                                                               pointers.data(), columns.count(),
                                                               uncommitted, p_state);
            break;
        default:
            rc = sr_get_fields_by_key_and_visibility_1(handle, ref.key, names.data(),
                                                       pointers.data(), columns.count(),
                                                       uncommitted, p_state);
            break;
    }
    if (rc != 0) return rc;
    for (qx_uint32_t i = 0; i < columns.count(); ++i) {
        const sr_column_t &column = columns.at(i);
        p_cells->push_back({format_value(column.type, values[i]),
                            format_json(column.type, values[i], column.sd_defn)});
    }
    return 0;
}

std::vector<std::string> header_of(const Columns &columns, bool with_state) {
    std::vector<std::string> header;
    if (with_state) header.push_back("state");
    for (qx_uint32_t i = 0; i < columns.count(); ++i) header.push_back(columns.at(i).name);
    return header;
}

// "show PATH [committed|uncommitted]": every row by packed index.
int run_show(Shell &shell, int argc, char **argv) {
    if (argc < 2 || argc > 3) return usage(shell, "show PATH [committed|uncommitted]");
    sr_opaque_handle_t handle = table_for(shell, argv[1], SR_MODE_READ);
    if (handle == nullptr) return 1;
    qx_uint32_t uncommitted = argc == 3 && std::strcmp(argv[2], "uncommitted") == 0 ? 1 : 0;
    Columns columns;
    if (!columns.load(shell, handle)) return 1;
    std::vector<CellRow> rows;
    for (qx_int32_t i = 0;; ++i) {
        CellRow cells;
        sr_row_state_t state = SR_ROW_STATE_NO_ROW;
        RowRef ref;
        ref.number = i;
        int rc = read_row(handle, columns, ref, uncommitted, &cells, &state);
        if (rc == 203) break;  // past the last row
        if (rc == 204) continue;
        if (rc != 0) return report_failure(shell, "show", rc);
        cells.insert(cells.begin(), {state_text(state), ""});
        rows.push_back(cells);
    }
    print_rows(shell, header_of(columns, true), rows, true);
    return 0;
}

// "get PATH (index N|fixed N|key VALUE) [committed|uncommitted]"
int run_get(Shell &shell, int argc, char **argv) {
    if (argc < 4 || argc > 5)
        return usage(shell, "get PATH (index N|fixed N|key VALUE) [committed|uncommitted]");
    sr_opaque_handle_t handle = table_for(shell, argv[1], SR_MODE_READ);
    if (handle == nullptr) return 1;
    Columns columns;
    if (!columns.load(shell, handle)) return 1;
    ValueArena arena;
    RowRef ref;
    if (!parse_row_ref(shell, columns, argv + 2, arena, &ref)) return 2;
    qx_uint32_t uncommitted = argc == 5 && std::strcmp(argv[4], "uncommitted") == 0 ? 1 : 0;
    CellRow cells;
    sr_row_state_t state = SR_ROW_STATE_NO_ROW;
    int rc = read_row(handle, columns, ref, uncommitted, &cells, &state);
    if (rc != 0) return report_failure(shell, "get", rc);
    cells.insert(cells.begin(), {state_text(state), ""});
    print_rows(shell, header_of(columns, true), {cells}, false);
    return 0;
}

// "set PATH (index N|fixed N|key VALUE) NAME=VALUE..."
int run_set(Shell &shell, int argc, char **argv) {
    if (argc < 5) return usage(shell, "set PATH (index N|fixed N|key VALUE) NAME=VALUE...");
    sr_opaque_handle_t handle = writable(shell, argv[1]);
    if (handle == nullptr) return 1;
    Columns columns;
    if (!columns.load(shell, handle)) return 1;
    ValueArena arena;
    RowRef ref;
    if (!parse_row_ref(shell, columns, argv + 2, arena, &ref)) return 2;
    Assignments a;
    if (!parse_assignments(shell, columns, argc - 4, argv + 4, arena, &a)) return 2;
    qx_uint32_t n = static_cast<qx_uint32_t>(a.names.size());
    int rc;
    switch (ref.kind) {
        case RowRef::kIndex:
            rc = sr_set_fields_by_index_1(handle, ref.number, a.names.data(), a.pointers.data(), n);
            break;
        case RowRef::kFixed:
            rc = sr_set_fields_by_fixed_index_1(handle, ref.number, a.names.data(),
                                                a.pointers.data(), n);
            break;
        default:
            rc = sr_set_fields_by_key_1(handle, ref.key, a.names.data(), a.pointers.data(), n);
            break;
    }
    return rc == 0 ? 0 : report_failure(shell, "set", rc);
}

// "delete PATH (index N|all)"
int run_delete(Shell &shell, int argc, char **argv) {
    bool all = argc == 3 && std::strcmp(argv[2], "all") == 0;
    bool index = argc == 4 && std::strcmp(argv[2], "index") == 0;
    if (!all && !index) return usage(shell, "delete PATH (index N|all)");
    sr_opaque_handle_t handle = writable(shell, argv[1]);
    if (handle == nullptr) return 1;
    int rc;
    if (all) {
        rc = sr_delete_rows_1(handle, nullptr);
    } else {
        char *end = nullptr;
        unsigned long n = std::strtoul(argv[3], &end, 0);
        if (*end != '\0') return usage(shell, "delete PATH (index N|all)");
        rc = sr_delete_row_by_index_1(handle, static_cast<qx_uint32_t>(n));
    }
    return rc == 0 ? 0 : report_failure(shell, "delete", rc);
}

// Explicit transactions: "begin PATH" opens the table under explicit control.
int run_begin(Shell &shell, int argc, char **argv) {
    if (argc != 2) return usage(shell, "begin PATH");
    for (const OpenTable &t : shell.tables) {
        if (t.path == argv[1]) {
            if ((t.mode & SR_MODE_EXPLICIT_CONTROL) != 0) return 0;
            std::fprintf(shell.err, "qxsr: %s is open under implicit control; close it first\n",
                         argv[1]);
            return 1;
        }
    }
    return table_for(shell, argv[1], SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL) != nullptr ? 0 : 1;
}

int run_apply(Shell &shell, int argc, char **argv) {
    if (argc < 2 || argc > 3) return usage(shell, "apply PATH [CHANGE_COUNTER]");
    sr_opaque_handle_t handle = writable(shell, argv[1]);
    if (handle == nullptr) return 1;
    qx_uint64_t counter = argc == 3 ? std::strtoull(argv[2], nullptr, 0) : 0;
    int rc = sr_apply_1(handle, counter);
    return rc == 0 ? 0 : report_failure(shell, "apply", rc);
}

int run_commit(Shell &shell, int argc, char **argv) {
    if (argc != 2) return usage(shell, "commit PATH");
    sr_opaque_handle_t handle = writable(shell, argv[1]);
    if (handle == nullptr) return 1;
    int rc = sr_commit_1(handle);
    return rc == 0 ? 0 : report_failure(shell, "commit", rc);
}

int run_abort(Shell &shell, int argc, char **argv) {
    if (argc != 2) return usage(shell, "abort PATH");
    sr_opaque_handle_t handle = writable(shell, argv[1]);
    if (handle == nullptr) return 1;
    int rc = sr_abort_1(handle);
    return rc == 0 ? 0 : report_failure(shell, "abort", rc);
}

constexpr Command kCommands[] = {
    {"add", "add PATH NAME=VALUE...", "add a row (the key column must be named)", run_add},
    {"show", "show PATH [committed|uncommitted]", "print every row with its state", run_show},
    {"get", "get PATH (index N|fixed N|key V) [uncommitted]", "print one row", run_get},
    {"set", "set PATH (index N|fixed N|key V) NAME=VALUE...", "change fields of a row", run_set},
    {"delete", "delete PATH (index N|all)", "delete the row at a packed index, or every row",
     run_delete},
    {"begin", "begin PATH", "open a table under explicit control", run_begin},
    {"apply", "apply PATH [CHANGE_COUNTER]", "write pending changes to the table file", run_apply},
    {"commit", "commit PATH", "make applied changes the committed state", run_commit},
    {"abort", "abort PATH", "throw pending and applied changes away", run_abort},
};

}  // namespace

const Command *row_commands(int *p_count) {
    *p_count = static_cast<int>(sizeof kCommands / sizeof kCommands[0]);
    return kCommands;
}

}  // namespace qxsr
