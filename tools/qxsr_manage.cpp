// Table management commands: listing, copying, moving and renaming tables,
// changing their columns and defaults, and repairing left-over rewrite files.
#include <algorithm>
#include <cstdio>
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

// Drops the session's handle of `path`, if it has one, before the library
// replaces or removes the table under it.
void forget(Shell &shell, const char *path) {
    for (size_t i = 0; i < shell.tables.size(); ++i) {
        if (shell.tables[i].path == path) {
            sr_close_table_1(shell.tables[i].handle);
            shell.tables.erase(shell.tables.begin() + static_cast<long>(i));
            return;
        }
    }
}

int run_list(Shell &shell, int argc, char **argv) {
    if (argc != 2) return usage(shell, "list PATH");
    qx_char_ptr_t *p_list = nullptr;
    qx_uint32_t count = 0;
    int rc = sr_list_tables_1(shell.tree, argv[1], &p_list, &count);
    if (rc != 0) return report_failure(shell, "list", rc);
    // Directory order means nothing to a reader: sorted.
    std::vector<std::string> names(p_list, p_list + count);
    sr_free_table_list_1(p_list, count);
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) std::fprintf(shell.out, "%s\n", name.c_str());
    return 0;
}

// copy/move/rename [--overwrite] FROM TO
int copy_or_move(Shell &shell, int argc, char **argv, bool move, bool allow_overwrite) {
    const char *text = !allow_overwrite ? "rename FROM TO"
                       : move           ? "move [--overwrite] FROM TO"
                                        : "copy [--overwrite] FROM TO";
    int overwrite = 0;
    int first = 1;
    if (allow_overwrite && argc > 1 && std::strcmp(argv[1], "--overwrite") == 0) {
        overwrite = 1;
        first = 2;
    }
    if (argc - first != 2) return usage(shell, text);
    char *from = argv[first];
    char *to = argv[first + 1];
    if (move) forget(shell, from);
    forget(shell, to);
    int rc = move ? sr_move_table_by_name_1(shell.tree, from, to, overwrite)
                  : sr_copy_table_by_name_1(shell.tree, from, to, overwrite);
    if (rc != 0) return report_failure(shell, argv[0], rc);
    std::fprintf(shell.out, "%s %s to %s\n", move ? "moved" : "copied", from, to);
    return 0;
}

int run_copy(Shell &shell, int argc, char **argv) {
    return copy_or_move(shell, argc, argv, false, true);
}
int run_move(Shell &shell, int argc, char **argv) {
    return copy_or_move(shell, argc, argv, true, true);
}
int run_rename(Shell &shell, int argc, char **argv) {
    return copy_or_move(shell, argc, argv, true, false);
}

int run_add_columns(Shell &shell, int argc, char **argv) {
    if (argc < 3) return usage(shell, "add-columns PATH COLUMN...");
    ValueArena arena;
    std::vector<sr_column_t> columns;
    for (int i = 2; i < argc; ++i) {
        sr_column_t column;
        std::string error;
        if (!parse_column_spec(argv[i], arena, &column, &error)) {
            std::fprintf(shell.err, "qxsr: %s\n", error.c_str());
            return 2;
        }
        columns.push_back(column);
    }
    sr_opaque_handle_t handle = table_for(shell, argv[1], SR_MODE_WRITE);
    if (handle == nullptr) return 1;
    int rc = sr_add_columns_1(handle, columns.data(), static_cast<qx_uint32_t>(columns.size()));
    if (rc != 0) return report_failure(shell, "add-columns", rc);
    std::fprintf(shell.out, "added %s to %s\n", counted(columns.size(), "column").c_str(), argv[1]);
    return 0;
}

int run_delete_columns(Shell &shell, int argc, char **argv) {
    if (argc < 3) return usage(shell, "delete-columns PATH NAME...");
    sr_opaque_handle_t handle = table_for(shell, argv[1], SR_MODE_WRITE);
    if (handle == nullptr) return 1;
    int rc = sr_delete_columns_1(handle, argv + 2, static_cast<qx_uint32_t>(argc - 2));
    if (rc != 0) return report_failure(shell, "delete-columns", rc);
    std::fprintf(shell.out, "deleted %s from %s\n", counted(argc - 2, "column").c_str(), argv[1]);
    return 0;
}

int run_rename_column(Shell &shell, int argc, char **argv) {
    if (argc != 4) return usage(shell, "rename-column PATH OLD NEW");
    sr_opaque_handle_t handle = table_for(shell, argv[1], SR_MODE_WRITE);
    if (handle == nullptr) return 1;
    int rc = sr_change_column_name_1(handle, argv[2], argv[3]);
    if (rc != 0) return report_failure(shell, "rename-column", rc);
    std::fprintf(shell.out, "renamed column %s of %s to %s\n", argv[2], argv[1], argv[3]);
    return 0;
}

// change-default and overlay-default: the value is parsed by the column's type.
int change_default(Shell &shell, int argc, char **argv, bool overlay) {
    if (argc != 4) {
        return usage(shell, overlay ? "overlay-default PATH COLUMN VALUE"
                                    : "change-default PATH COLUMN VALUE");
    }
    sr_opaque_handle_t handle = table_for(shell, argv[1], SR_MODE_WRITE);
    if (handle == nullptr) return 1;
    sr_table_metadata_t *p_metadata = nullptr;
    int rc = sr_get_table_metadata_1(handle, -1, &p_metadata);
    if (rc != 0) return report_failure(shell, argv[0], rc);
    const sr_column_t *p_column = nullptr;
    for (qx_uint32_t i = 0; i < p_metadata->number_of_columns; ++i) {
        if (std::strcmp(p_metadata->column_definitions[i].name, argv[2]) == 0) {
            p_column = &p_metadata->column_definitions[i];
        }
    }
    ValueArena arena;
    qx_value_t value{};
    if (p_column != nullptr) {
        std::string error;
        if (!parse_value(argv[3], p_column->type, p_column->sd_defn, arena, &value, &error)) {
            std::fprintf(shell.err, "qxsr: %s: %s\n", argv[2], error.c_str());
            sr_free_table_metadata_1(p_metadata);
            return 2;
        }
    }
    sr_free_table_metadata_1(p_metadata);
    // An unknown column is the library's to refuse (105).
    rc = overlay ? sr_overlay_memory_default_value_1(handle, argv[2], value)
                 : sr_change_default_value_1(handle, argv[2], value);
    if (rc != 0) return report_failure(shell, argv[0], rc);
    std::fprintf(shell.out, "%s default of %s in %s\n", overlay ? "overlaid" : "changed", argv[2],
                 argv[1]);
    return 0;
}

int run_change_default(Shell &shell, int argc, char **argv) {
    return change_default(shell, argc, argv, false);
}
int run_overlay_default(Shell &shell, int argc, char **argv) {
    return change_default(shell, argc, argv, true);
}

int run_repair(Shell &shell, int argc, char **argv) {
    if (argc < 2) return usage(shell, "repair PATH...");
    int rc = sr_repair_tables_1(shell.tree, argv + 1, static_cast<qx_uint32_t>(argc - 1));
    if (rc != 0) return report_failure(shell, "repair", rc);
    std::fprintf(shell.out, "repaired %s\n", counted(argc - 1, "table").c_str());
    return 0;
}

constexpr Command kCommands[] = {
    {"list", "list PATH", "list the tables under a registry path", run_list},
    {"copy", "copy [--overwrite] FROM TO", "copy a table (memory or file, either way)", run_copy},
    {"move", "move [--overwrite] FROM TO", "move a table; the source goes once the target exists",
     run_move},
    {"rename", "rename FROM TO", "rename a table (a move that never replaces a table)", run_rename},
    {"add-columns", "add-columns PATH COLUMN...", "add columns (COLUMN as for create)",
     run_add_columns},
    {"delete-columns", "delete-columns PATH NAME...", "delete columns of a table",
     run_delete_columns},
    {"rename-column", "rename-column PATH OLD NEW", "rename a column", run_rename_column},
    {"change-default", "change-default PATH COLUMN VALUE", "change a column's default for good",
     run_change_default},
    {"overlay-default", "overlay-default PATH COLUMN VALUE",
     "change a column's default in memory only", run_overlay_default},
    {"repair", "repair PATH...", "delete left-over rewrite files of the named tables", run_repair},
};

}  // namespace

const Command *manage_commands(int *p_count) {
    *p_count = static_cast<int>(sizeof kCommands / sizeof kCommands[0]);
    return kCommands;
}

}  // namespace qxsr
