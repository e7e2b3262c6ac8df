// The qxsr shell: command table, tokenizer and the helpers commands share.
#ifndef QXSR_SHELL_H
#define QXSR_SHELL_H

#include <cstdio>

#include "qx_cu.h"
#include "qx_sr.h"

namespace qxsr {

struct Shell {
    sr_opaque_handle_t tree = nullptr;
    FILE *out = stdout;
    FILE *err = stderr;
    bool interactive = false;
};

// A command: argv[0] is the command's name.  Returns 0 on success; a failing
// library call is reported with report_failure() and returns non-zero.
using CommandFunction = int (*)(Shell &shell, int argc, char **argv);

struct Command {
    const char *name;
    const char *usage;
    const char *summary;
    CommandFunction run;
};

// Prints "qxsr: <what>: <library message>" for the calling thread's error
// record (or the bare code when there is no record) and returns rc.
int report_failure(Shell &shell, const char *what, int rc);

// Runs one command line (already split into words).
int run_command(Shell &shell, int argc, char **argv);

// Splits a line into words: blanks separate, "double" and 'single' quotes
// group, backslash escapes the next character.  Returns the word count, or
// -1 for an unterminated quote.  Words point into `line`, which is modified.
int split_words(char *line, char **words, int max_words);

int run_main(int argc, char **argv);

// Registers the commands of a family (each family lives in its own file).
const Command *base_commands(int *p_count);

}  // namespace qxsr

#endif  // QXSR_SHELL_H
