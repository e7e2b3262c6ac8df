// The qxsr shell: command table, tokenizer and the helpers commands share.
#ifndef QXSR_SHELL_H
#define QXSR_SHELL_H

#include <cstdio>
#include <string>
#include <vector>

#include "qx_cu.h"
#include "qx_sr.h"

namespace qxsr {

struct OpenTable {
    std::string path;
    sr_opaque_handle_t handle;
    qx_int32_t mode;
};

// How result rows print: an aligned table, CSV (RFC 4180), one JSON array
// of objects, or one "column = value" line a field.
enum class OutputMode { kTable, kCsv, kJson, kLine };

struct Shell {
    sr_opaque_handle_t tree = nullptr;
    OutputMode mode = OutputMode::kTable;
    FILE *out = stdout;
    FILE *err = stderr;
    bool interactive = false;
    std::vector<OpenTable> tables;    // tables this session opened, by registry path
    std::vector<std::string> mounts;  // registry paths mounted in this session
    int line_number = 0;              // of the input line being run
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

// What `help COMMAND` prints beyond the usage line: details and an example.
struct CommandHelp {
    const char *name;
    const char *details;
    const char *example;
};
const CommandHelp *command_help(const char *name);

// Prints "qxsr: <what>: <library message>" for the calling thread's error
// record (or the bare code when there is no record) and returns rc.
int report_failure(Shell &shell, const char *what, int rc);

// Runs one line of input; false when it ends the session.  Failures count
// in *p_failures.
using LineHandler = bool (*)(Shell &shell, char *line, int *p_failures);
// Whether the shell was built with line editing.
bool line_editing_available();
// Reads lines from the terminal with editing, history and completion, and
// hands each to `handle_line`.  Returns the exit status (1: a line failed).
int run_edited_lines(Shell &shell, LineHandler handle_line);
// Every command's name, for completion.
std::vector<std::string> command_names();

// Runs one command line (already split into words).
int run_command(Shell &shell, int argc, char **argv);

// Splits a line into words: blanks separate, "double" and 'single' quotes
// group, backslash escapes the next character.  Returns the word count, or
// -1 for an unterminated quote.  Words point into `line`, which is modified.
int split_words(char *line, char **words, int max_words);

int run_main(int argc, char **argv);

// The open handle of `path`, opening it with `mode` when the session has not
// (nullptr after reporting a failure).
sr_opaque_handle_t table_for(Shell &shell, const char *path, qx_int32_t mode);
// Forgets (and closes) the session's handle of `path`.
int close_table(Shell &shell, const char *path);

// One printed field: its display text and its JSON form (empty: the text
// as a JSON string).
struct Cell {
    std::string text;
    std::string json;
};
using CellRow = std::vector<Cell>;

// Prints rows in the session's output mode; the table mode ends with
// "(1 row)" / "(N rows)" when `count` is set.
void print_rows(Shell &shell, const std::vector<std::string> &header,
                const std::vector<CellRow> &rows, bool count);
// The same for rows of plain text.
void print_table(Shell &shell, const std::vector<std::string> &header,
                 const std::vector<std::vector<std::string>> &rows, bool count = false);

// "1 row", "2 rows": a count and its noun, singular for one.
std::string counted(unsigned long long count, const char *noun);

// Writes rows in one mode to `out` (export uses it too); `crlf` ends CSV
// lines with CR LF as RFC 4180 has it.
void write_rows(FILE *out, OutputMode mode, const std::vector<std::string> &header,
                const std::vector<CellRow> &rows, bool crlf);
// The mode a name ("table", "csv", "json", "line") chooses; false for none.
bool parse_mode_name(const char *name, OutputMode *p_mode);
// `text` as a CSV field (quoted when it holds a comma, quote, CR or LF).
std::string csv_field(const std::string &text);

// The command families (each lives in its own file).
const Command *base_commands(int *p_count);
const Command *table_commands(int *p_count);
const Command *row_commands(int *p_count);
const Command *manage_commands(int *p_count);
const Command *select_commands(int *p_count);
const Command *pack_commands(int *p_count);
const Command *output_commands(int *p_count);
const Command *transfer_commands(int *p_count);

}  // namespace qxsr

#endif  // QXSR_SHELL_H
