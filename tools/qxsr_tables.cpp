// Table-level commands: mount points, creating, opening, describing,
// closing and deleting tables.
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

int run_mount(Shell &shell, int argc, char **argv) {
    if (argc != 3) return usage(shell, "mount REGISTRY_PATH DIRECTORY");
    int rc = sr_mount_local_tree_1(shell.tree, argv[1], argv[2], 1);
    if (rc != 0) return report_failure(shell, "mount", rc);
    shell.mounts.emplace_back(argv[1]);
    std::fprintf(shell.out, "mounted %s on %s\n", argv[1], argv[2]);
    return 0;
}

int run_unmount(Shell &shell, int argc, char **argv) {
    if (argc != 2) return usage(shell, "unmount REGISTRY_PATH");
    int rc = sr_unmount_local_tree_1(shell.tree, argv[1]);
    if (rc != 0) return report_failure(shell, "unmount", rc);
    std::erase(shell.mounts, std::string(argv[1]));
    return 0;
}

int run_create(Shell &shell, int argc, char **argv) {
    if (argc < 3) return usage(shell, "create PATH [--explicit] COLUMN...");
    ValueArena arena;
    std::vector<sr_column_t> columns;
    qx_int32_t mode = SR_MODE_WRITE;
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--explicit") == 0) {
            mode |= SR_MODE_EXPLICIT_CONTROL;
            continue;
        }
        sr_column_t column;
        std::string error;
        if (!parse_column_spec(argv[i], arena, &column, &error)) {
            std::fprintf(shell.err, "qxsr: %s\n", error.c_str());
            return 2;
        }
        columns.push_back(column);
    }
    sr_opaque_handle_t handle = nullptr;
    int rc = sr_create_table_1(shell.tree, argv[1], columns.data(),
                               static_cast<qx_uint32_t>(columns.size()), mode, &handle);
    if (rc != 0) return report_failure(shell, "create", rc);
    shell.tables.push_back({argv[1], handle, mode});
    std::fprintf(shell.out, "created %s with %s\n", argv[1],
                 counted(columns.size(), "column").c_str());
    return 0;
}

qx_int32_t parse_mode(const char *word) {
    if (std::strcmp(word, "read") == 0) return SR_MODE_READ;
    if (std::strcmp(word, "write") == 0) return SR_MODE_WRITE;
    if (std::strcmp(word, "explicit") == 0) return SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL;
    return -1;
}

int run_open(Shell &shell, int argc, char **argv) {
    if (argc < 2 || argc > 3) return usage(shell, "open PATH [read|write|explicit]");
    qx_int32_t mode = argc == 3 ? parse_mode(argv[2]) : SR_MODE_WRITE;
    if (mode < 0) return usage(shell, "open PATH [read|write|explicit]");
    for (const OpenTable &t : shell.tables) {
        if (t.path == argv[1]) {
            std::fprintf(shell.err, "qxsr: %s is already open in this session\n", argv[1]);
            return 1;
        }
    }
    return table_for(shell, argv[1], mode) != nullptr ? 0 : 1;
}

int run_close(Shell &shell, int argc, char **argv) {
    if (argc != 2) return usage(shell, "close PATH");
    return close_table(shell, argv[1]);
}

std::string qualifier_text(sr_qualifier_t qualifier) {
    static const char *const kBase[] = {"unknown", "system", "standard", "key", "key-nocheck"};
    qx_uint32_t base = qualifier & SR_QUALIFIER_BASE_MASK;
    std::string text = base < 5 ? kBase[base] : "?";
    if (qualifier & SR_PROTECTED) text += ",protected";
    if (qualifier & SR_INVISIBLE) text += ",invisible";
    if (qualifier & SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED) text += ",default-when-unspecified";
    return text;
}

std::string type_text(const sr_column_t &column) {
    const char *word = type_word(column.type);
    std::string text = word != nullptr ? word : "?";
    if (column.sd_defn != nullptr) {
        std::string fields;
        for (qx_uint32_t i = 0; i < column.sd_defn->number_of_fields; ++i) {
            const char *fw = type_word(column.sd_defn->field_def[i].type);
            if (i != 0) fields += ",";
            fields += std::string(column.sd_defn->field_def[i].name) + ":" + (fw ? fw : "?");
        }
        text = (column.type == QX_SD_PTR_ARRAY ? "sd(" + fields + ")[]" : "sd(" + fields + ")");
    }
    return text;
}

int run_describe(Shell &shell, int argc, char **argv) {
    if (argc != 2) return usage(shell, "describe PATH");
    sr_opaque_handle_t handle = table_for(shell, argv[1], SR_MODE_READ);
    if (handle == nullptr) return 1;
    sr_table_metadata_t *p_metadata = nullptr;
    int rc = sr_get_table_metadata_1(handle, -1, &p_metadata);
    if (rc != 0) return report_failure(shell, "describe", rc);
    std::fprintf(shell.out, "table %s: %s, %s, change counter %llu\n", p_metadata->name,
                 counted(p_metadata->number_of_rows, "row").c_str(),
                 counted(p_metadata->number_of_columns, "column").c_str(),
                 static_cast<unsigned long long>(p_metadata->table_change_counter));
    std::vector<std::vector<std::string>> rows;
    for (qx_uint32_t i = 0; i < p_metadata->number_of_columns; ++i) {
        const sr_column_t &c = p_metadata->column_definitions[i];
        rows.push_back({c.name, type_text(c), qualifier_text(c.qualifier),
                        format_value(c.type, c.default_value)});
    }
    print_table(shell, {"column", "type", "qualifier", "default"}, rows);
    sr_free_table_metadata_1(p_metadata);
    return 0;
}

int run_delete_table(Shell &shell, int argc, char **argv) {
    if (argc != 2) return usage(shell, "delete-table PATH");
    int rc = sr_delete_table_1(shell.tree, argv[1]);
    if (rc != 0) return report_failure(shell, "delete-table", rc);
    // A deleted table lives on for its openers until their last close: ours
    // is closed now, which frees it.
    for (size_t i = 0; i < shell.tables.size(); ++i) {
        if (shell.tables[i].path == argv[1]) {
            (void)sr_close_table_1(shell.tables[i].handle);
            shell.tables.erase(shell.tables.begin() + static_cast<long>(i));
            break;
        }
    }
    return 0;
}

constexpr Command kCommands[] = {
    {"mount", "mount REGISTRY_PATH DIRECTORY", "map a registry path onto a directory", run_mount},
    {"unmount", "unmount REGISTRY_PATH", "remove a mount point", run_unmount},
    {"create", "create PATH [--explicit] COLUMN...",
     "create a table; COLUMN is NAME:TYPE[:key][:protected]...[=DEFAULT]", run_create},
    {"open", "open PATH [read|write|explicit]", "open a table in this session", run_open},
    {"close", "close PATH", "close a table opened in this session", run_close},
    {"describe", "describe PATH", "show a table's columns, row count and change counter",
     run_describe},
    {"delete-table", "delete-table PATH", "delete a table (and its file)", run_delete_table},
};

}  // namespace

const Command *table_commands(int *p_count) {
    *p_count = static_cast<int>(sizeof kCommands / sizeof kCommands[0]);
    return kCommands;
}

}  // namespace qxsr
