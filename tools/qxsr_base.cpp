// Commands that need no table: the demonstration and tree-level checks.
#include <cstdio>
#include <cstring>

#include "qxsr_shell.h"

namespace qxsr {

namespace {

// Shows what a caller sees of the library: a tree, and the exact message of
// a refused call.
int run_demo(Shell &shell, int, char **) {
    std::fprintf(shell.out, "Opened a registry tree.\n");
    std::fprintf(shell.out, "Calling sr_open_tree_1 with no place for the handle:\n");
    int rc = sr_open_tree_1(nullptr, 0, 0);
    std::fprintf(shell.out, "  result %d\n", rc);
    cu_error_t *p_error = nullptr;
    char *p_message = nullptr;
    if (cu_get_error_1(&p_error) == 0 && cu_get_errmsg_1(p_error, &p_message) == 0) {
        std::fprintf(shell.out, "  message: %s", p_message);
    }
    cu_rel_errmsg_1(p_message);
    cu_rel_error_1(p_error);
    return 0;
}

int run_message(Shell &shell, int argc, char **argv) {
    if (argc != 2) {
        std::fputs("usage: message CODE\n", shell.err);
        return 2;
    }
    long code = std::strtol(argv[1], nullptr, 10);
    for (int i = 1; i < SR_NUMBER_OF_MESSAGES; ++i) {
        const char *text = cu_mesgtbl_qx_sr_set[i];
        if (std::strtol(text + 5, nullptr, 10) == code) {
            std::fputs(text, shell.out);
            return 0;
        }
    }
    std::fprintf(shell.err, "qxsr: %ld is not a result code\n", code);
    return 1;
}

constexpr Command kCommands[] = {
    {"demo", "demo", "open a tree and show a refused call's message", run_demo},
    {"message", "message CODE", "print the default text of a result code", run_message},
};

}  // namespace

const Command *base_commands(int *p_count) {
    *p_count = static_cast<int>(sizeof kCommands / sizeof kCommands[0]);
    return kCommands;
}

}  // namespace qxsr
