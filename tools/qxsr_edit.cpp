// Reading commands: with line editing when standard input is a terminal
// (history kept in ~/.qxsr_history from one run to the next, completion of
// command names and of table paths under the mount points), plainly
// otherwise, so that scripts and pipes read exactly what they hold.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qxsr_shell.h"

#ifdef QXSR_HAVE_LIBEDIT
#include <editline/readline.h>
#endif

namespace qxsr {

#ifdef QXSR_HAVE_LIBEDIT

namespace {

constexpr int kHistoryLines = 1000;

// The completion callbacks take no context: the one interactive shell.
Shell *g_shell = nullptr;
std::vector<std::string> g_candidates;

std::string history_path() {
    const char *home = std::getenv("HOME");
    return home != nullptr && *home != '\0' ? std::string(home) + "/.qxsr_history" : "";
}

// Table paths under every mount point and of the tables this session has
// open (in-memory tables among them).
std::vector<std::string> table_paths(Shell &shell) {
    std::vector<std::string> paths;
    for (const std::string &mount : shell.mounts) {
        qx_char_ptr_t *p_list = nullptr;
        qx_uint32_t count = 0;
        if (sr_list_tables_1(shell.tree, const_cast<char *>(mount.c_str()), &p_list, &count) != 0)
            continue;
        for (qx_uint32_t i = 0; i < count; ++i) paths.emplace_back(p_list[i]);
        sr_free_table_list_1(p_list, count);
    }
    for (const OpenTable &t : shell.tables) paths.push_back(t.path);
    // One candidate a table: a duplicate would make the completion look
    // ambiguous.
    std::sort(paths.begin(), paths.end());
    paths.erase(std::unique(paths.begin(), paths.end()), paths.end());
    return paths;
}

char *next_candidate(const char *text, int state) {
    static size_t next = 0;
    if (state == 0) next = 0;
    size_t length = std::strlen(text);
    while (next < g_candidates.size()) {
        const std::string &candidate = g_candidates[next++];
        if (candidate.compare(0, length, text) == 0) return strdup(candidate.c_str());
    }
    return nullptr;
}

// The first word completes to a command name, a word starting with '/' to a
// table path, and help's argument to a command name.
char **complete(const char *text, int start, int) {
    g_candidates.clear();
    std::string before(rl_line_buffer, static_cast<size_t>(start));
    size_t first = before.find_first_not_of(" \t");
    bool first_word = first == std::string::npos;
    bool help_word = !first_word && before.compare(first, 5, "help ") == 0 &&
                     before.find_first_not_of(" \t", first + 5) == std::string::npos;
    if (first_word || help_word) {
        g_candidates = command_names();
    } else if (text[0] == '/') {
        g_candidates = table_paths(*g_shell);
    }
    rl_attempted_completion_over = 1;  // no file names otherwise
    return rl_completion_matches(text, next_candidate);
}

}  // namespace

bool line_editing_available() {
    return true;
}

int run_edited_lines(Shell &shell, LineHandler handle_line) {
    g_shell = &shell;
    rl_readline_name = const_cast<char *>("qxsr");
    rl_attempted_completion_function = complete;
    using_history();
    stifle_history(kHistoryLines);
    std::string path = history_path();
    if (!path.empty()) read_history(path.c_str());
    int failures = 0;
    for (;;) {
        char *line = readline("qxsr> ");
        if (line == nullptr) {
            std::fputc('\n', shell.out);
            break;
        }
        const char *first = line + std::strspn(line, " \t");
        if (*first != '\0') add_history(line);
        bool go_on = handle_line(shell, line, &failures);
        std::free(line);
        if (!go_on) break;
    }
    if (!path.empty()) write_history(path.c_str());
    clear_history();
    g_shell = nullptr;
    return failures == 0 ? 0 : 1;
}

#else

bool line_editing_available() {
    return false;
}

int run_edited_lines(Shell &, LineHandler) {
    return 1;
}

#endif

}  // namespace qxsr
