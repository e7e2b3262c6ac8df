// The shell's driver: option parsing, the tree, the command loop.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qxsr_shell.h"

namespace qxsr {

namespace {

constexpr int kMaxWords = 256;

using Family = const Command *(*)(int *);
constexpr Family kFamilies[] = {base_commands,   table_commands,  row_commands,
                                select_commands, output_commands, transfer_commands,
                                manage_commands, pack_commands};

int run_help(Shell &shell, int argc, char **argv);
int run_version(Shell &shell, int argc, char **argv);
int run_nothing(Shell &, int, char **) {
    return 0;
}

// The commands the driver itself answers.
constexpr Command kDriverCommands[] = {
    {"help", "help [COMMAND]", "list the commands, or explain one", run_help},
    {"version", "version", "print the shell's version", run_version},
    {"quit", "quit", "end the session", run_nothing},
    {"exit", "exit", "end the session", run_nothing},
};

const Command *find_command(const char *name) {
    for (const Command &command : kDriverCommands) {
        if (std::strcmp(command.name, name) == 0) return &command;
    }
    for (Family family : kFamilies) {
        int count = 0;
        const Command *commands = family(&count);
        for (int i = 0; i < count; ++i) {
            if (std::strcmp(commands[i].name, name) == 0) return &commands[i];
        }
    }
    return nullptr;
}

int run_help(Shell &shell, int argc, char **argv) {
    if (argc == 2) {
        const Command *command = find_command(argv[1]);
        if (command == nullptr) {
            std::fprintf(shell.err, "qxsr: no command '%s' (try 'help')\n", argv[1]);
            return 2;
        }
        std::fprintf(shell.out, "usage: %s\n  %s\n", command->usage, command->summary);
        const CommandHelp *help = command_help(command->name);
        if (help != nullptr) {
            std::fprintf(shell.out, "\n%s\n\nexample:\n  %s\n", help->details, help->example);
        }
        return 0;
    }
    if (argc > 2) {
        std::fputs("usage: help [COMMAND]\n", shell.err);
        return 2;
    }
    std::fputs(
        "qxsr - the registry's command-line shell\n\n"
        "usage: qxsr [OPTION]... [COMMAND [ARG...]]\n"
        "       qxsr [OPTION]... -f SCRIPT   run one command per line\n"
        "       qxsr [OPTION]...             read commands from standard input\n\n"
        "options:\n"
        "  -m REGISTRY_PATH=DIRECTORY   mount a directory first (repeatable)\n"
        "  --table --csv --json --line  choose the output mode\n"
        "  --version                    print the version\n"
        "  -h, --help                   print this help\n\n"
        "commands ('help COMMAND' explains one):\n",
        shell.out);
    for (const Command &command : kDriverCommands) {
        std::fprintf(shell.out, "  %-40s %s\n", command.usage, command.summary);
    }
    for (Family family : kFamilies) {
        int count = 0;
        const Command *commands = family(&count);
        for (int i = 0; i < count; ++i) {
            std::fprintf(shell.out, "  %-40s %s\n", commands[i].usage, commands[i].summary);
        }
    }
    return 0;
}

int run_version(Shell &shell, int, char **) {
    std::fprintf(shell.out, "qxsr %s\n", QXSR_VERSION);
    return 0;
}

// Runs one line of input; false when it ends the session.  Outside a
// terminal, a failing line is reported by its number.
bool handle_line(Shell &shell, char *line, int *p_failures) {
    ++shell.line_number;
    const char *first = line + std::strspn(line, " \t");
    if (*first == '#') return true;
    char *words[kMaxWords];
    int count = split_words(line, words, kMaxWords);
    int rc = 0;
    if (count < 0) {
        std::fputs("qxsr: unterminated quote\n", shell.err);
        rc = 2;
    } else if (count > 0 && words[0][0] != '#') {
        if (std::strcmp(words[0], "quit") == 0 || std::strcmp(words[0], "exit") == 0) return false;
        rc = run_command(shell, count, words);
    }
    if (rc != 0) {
        ++*p_failures;
        if (!shell.interactive) {
            std::fprintf(shell.err, "qxsr: line %d failed%s%s\n", shell.line_number,
                         count > 0 ? ": " : "", count > 0 ? words[0] : "");
        }
    }
    return true;
}

// Runs commands line by line; status 1 when any failed.
int run_lines(Shell &shell, FILE *in) {
    if (shell.interactive && line_editing_available()) return run_edited_lines(shell, handle_line);
    int failures = 0;
    char *buffer = nullptr;
    size_t capacity = 0;
    for (;;) {
        if (shell.interactive) std::fputs("qxsr> ", shell.out);
        if (getline(&buffer, &capacity, in) < 0 || !handle_line(shell, buffer, &failures)) break;
    }
    std::free(buffer);
    return failures == 0 ? 0 : 1;
}

}  // namespace

int report_failure(Shell &shell, const char *what, int rc) {
    // Keep the failure in order with what the commands before it printed.
    std::fflush(shell.out);
    cu_error_t *p_error = nullptr;
    char *p_message = nullptr;
    if (cu_get_error_1(&p_error) == 0 && p_error != nullptr && p_error->cu_error_id != 0 &&
        cu_get_errmsg_1(p_error, &p_message) == 0 && p_message != nullptr) {
        std::fprintf(shell.err, "qxsr: %s: %s", what, p_message);
        size_t length = std::strlen(p_message);
        if (length == 0 || p_message[length - 1] != '\n') std::fputc('\n', shell.err);
    } else {
        std::fprintf(shell.err, "qxsr: %s: failed with result %d\n", what, rc);
    }
    cu_rel_errmsg_1(p_message);
    cu_rel_error_1(p_error);
    return rc;
}

sr_opaque_handle_t table_for(Shell &shell, const char *path, qx_int32_t mode) {
    for (OpenTable &t : shell.tables) {
        if (t.path != path) continue;
        if ((mode & SR_MODE_WRITE) == 0 || (t.mode & SR_MODE_WRITE) != 0) return t.handle;
        // Opened for reading earlier in the session; an update needs it
        // open for writing (the library reloads the shared record).
        sr_opaque_handle_t handle = nullptr;
        int rc = sr_open_table_1(shell.tree, const_cast<char *>(path), mode, &handle);
        if (rc != 0) {
            report_failure(shell, path, rc);
            return nullptr;
        }
        sr_close_table_1(t.handle);
        t.handle = handle;
        t.mode = mode;
        return handle;
    }
    sr_opaque_handle_t handle = nullptr;
    int rc = sr_open_table_1(shell.tree, const_cast<char *>(path), mode, &handle);
    if (rc != 0) {
        report_failure(shell, path, rc);
        return nullptr;
    }
    shell.tables.push_back({path, handle, mode});
    return handle;
}

int close_table(Shell &shell, const char *path) {
    for (size_t i = 0; i < shell.tables.size(); ++i) {
        if (shell.tables[i].path == path) {
            int rc = sr_close_table_1(shell.tables[i].handle);
            shell.tables.erase(shell.tables.begin() + static_cast<long>(i));
            return rc == 0 ? 0 : report_failure(shell, path, rc);
        }
    }
    std::fprintf(shell.err, "qxsr: %s is not open in this session\n", path);
    return 1;
}

int split_words(char *line, char **words, int max_words) {
    int count = 0;
    char *in = line;
    while (*in != '\0') {
        while (*in == ' ' || *in == '\t' || *in == '\n' || *in == '\r') ++in;
        if (*in == '\0') break;
        if (count == max_words) return count;
        char *out = in;
        words[count++] = out;
        char quote = 0;
        while (*in != '\0') {
            char c = *in;
            if (quote != 0) {
                if (c == quote) {
                    quote = 0;
                    ++in;
                    continue;
                }
            } else if (c == '"' || c == '\'') {
                quote = c;
                ++in;
                continue;
            } else if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
                break;
            }
            if (c == '\\' && in[1] != '\0' && quote != '\'') {
                ++in;
                c = *in == 'n' ? '\n' : (*in == 't' ? '\t' : *in);
            }
            *out++ = c;
            ++in;
        }
        if (quote != 0) return -1;
        if (*in != '\0') ++in;
        *out = '\0';
    }
    return count;
}

std::vector<std::string> command_names() {
    std::vector<std::string> names;
    for (const Command &command : kDriverCommands) names.emplace_back(command.name);
    for (Family family : kFamilies) {
        int count = 0;
        const Command *commands = family(&count);
        for (int i = 0; i < count; ++i) names.emplace_back(commands[i].name);
    }
    return names;
}

int run_command(Shell &shell, int argc, char **argv) {
    const Command *command = find_command(argv[0]);
    if (command == nullptr) {
        std::fprintf(shell.err, "qxsr: unknown command '%s' (try 'qxsr help')\n", argv[0]);
        return 2;
    }
    return command->run(shell, argc, argv);
}

int run_main(int argc, char **argv) {
    Shell shell;
    const char *script = nullptr;
    int first = 1;
    // Options come first; the rest is one command.
    struct Mount {
        char *registry_path;
        char *directory;
    } mounts[32];
    int total_mounts = 0;
    while (first < argc && argv[first][0] == '-') {
        if (std::strcmp(argv[first], "-f") == 0 && first + 1 < argc) {
            script = argv[first + 1];
            first += 2;
        } else if (std::strcmp(argv[first], "-m") == 0 && first + 1 < argc && total_mounts < 32) {
            char *eq = std::strchr(argv[first + 1], '=');
            if (eq == nullptr) {
                std::fputs("qxsr: -m wants REGISTRY_PATH=DIRECTORY\n", stderr);
                return 2;
            }
            *eq = '\0';
            mounts[total_mounts++] = {argv[first + 1], eq + 1};
            shell.mounts.emplace_back(argv[first + 1]);
            first += 2;
        } else if (argv[first][0] == '-' && argv[first][1] == '-' &&
                   parse_mode_name(argv[first] + 2, &shell.mode)) {
            ++first;
        } else if (std::strcmp(argv[first], "--help") == 0 || std::strcmp(argv[first], "-h") == 0) {
            return run_help(shell, 1, nullptr);
        } else if (std::strcmp(argv[first], "--version") == 0) {
            return run_version(shell, 1, nullptr);
        } else {
            std::fprintf(stderr, "qxsr: unknown option '%s' (try 'qxsr help')\n", argv[first]);
            return 2;
        }
    }
    if (first < argc &&
        (std::strcmp(argv[first], "help") == 0 || std::strcmp(argv[first], "version") == 0)) {
        return run_command(shell, argc - first, argv + first);
    }
    int rc = sr_open_tree_1(&shell.tree, 0, 0);
    if (rc != 0) return report_failure(shell, "sr_open_tree_1", rc) != 0 ? 1 : 0;
    int status = 0;
    for (int i = 0; i < total_mounts && status == 0; ++i) {
        rc = sr_mount_local_tree_1(shell.tree, mounts[i].registry_path, mounts[i].directory, 1);
        if (rc != 0) {
            report_failure(shell, "mount", rc);
            status = 1;
        }
    }
    if (status == 0) {
        if (first < argc) {
            status = run_command(shell, argc - first, argv + first) == 0 ? 0 : 1;
        } else if (script != nullptr) {
            FILE *in = std::fopen(script, "r");
            if (in == nullptr) {
                std::fprintf(stderr, "qxsr: cannot open %s: %s\n", script, std::strerror(errno));
                status = 2;
            } else {
                status = run_lines(shell, in);
                std::fclose(in);
            }
        } else {
            shell.interactive = isatty(STDIN_FILENO) != 0;
            status = run_lines(shell, stdin);
        }
    }
    // Closing the tree closes every table the session left open.
    sr_close_tree_1(shell.tree);
    return status;
}

}  // namespace qxsr
