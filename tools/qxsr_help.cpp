// The longer help of every command: what `help COMMAND` adds to the usage
// line, and an example to copy.
#include <cstring>

#include "qxsr_shell.h"

namespace qxsr {

namespace {

constexpr CommandHelp kHelp[] = {
    {"help", "List the commands, or show one command's syntax, details and example.",
     "help select"},
    {"version", "Print the shell's version (also: qxsr --version).", "version"},
    {"quit", "End the session (end of input does too); open tables are closed.", "quit"},
    {"exit", "End the session, as quit does.", "exit"},
    {"demo", "Open a tree, make a call the library refuses and print its message.", "demo"},
    {"message", "Print the default text of a result code of the library.", "message 200"},
    {"mount",
     "Map a registry path onto a local directory: tables under the path become\n"
     "files in the directory.  Paths not under a mount point are in memory.",
     "mount /demo /tmp/tables"},
    {"unmount", "Remove a mount point; the files stay.", "unmount /demo"},
    {"create",
     "Create a table and keep it open.  A COLUMN is\n"
     "  NAME:TYPE[:key|:key-nocheck][:protected][:invisible][:default-when-unspecified][=DEFAULT]\n"
     "with TYPE int32 uint32 int64 uint64 float32 float64 string binary handle sbs,\n"
     "sd(FIELD:TYPE,...), or any of these but sbs followed by [] for an array.\n"
     "--explicit opens the table under explicit control (see begin).",
     "create /demo/people id:int32:key name:string=nobody tags:string[]"},
    {"open",
     "Open a table in this session: read, write (the default; every change is\n"
     "committed at once) or explicit (changes wait for apply and commit).",
     "open /demo/people read"},
    {"close", "Close a table this session opened; uncommitted changes are dropped.",
     "close /demo/people"},
    {"describe",
     "Show a table's columns, types, qualifiers and defaults, its row count\n"
     "and change counter.",
     "describe /demo/people"},
    {"delete-table", "Delete a table and, for a table under a mount point, its file.",
     "delete-table /demo/people"},
    {"add",
     "Add a row.  Values are written as on the command line: integers (0x hex),\n"
     "numbers, text, 0x... for binary, [a,b] for arrays, {a,b} for structured data\n"
     "in field order.  Columns left out take their defaults.",
     "add /demo/people id=1 name=Ada tags=[math,engines]"},
    {"show",
     "Print every row with its state, in the output mode (see mode); uncommitted\n"
     "shows the working version of each row.",
     "show /demo/people uncommitted"},
    {"get", "Print one row: by packed index, fixed index or key value.", "get /demo/people key 1"},
    {"set", "Change fields of one row, named as for get.", "set /demo/people key 1 name=Ada"},
    {"delete", "Delete the row at a packed index, or every row.", "delete /demo/people index 0"},
    {"begin",
     "Open a table under explicit control: add, set and delete wait until apply\n"
     "writes them and commit makes them the committed state (abort drops them).",
     "begin /demo/people"},
    {"apply",
     "Write pending changes to the table file; with CHANGE_COUNTER, only if the\n"
     "table is still at that change.",
     "apply /demo/people"},
    {"commit", "Make applied changes the committed state.", "commit /demo/people"},
    {"abort", "Throw pending and applied changes away.", "abort /demo/people"},
    {"select",
     "Print the rows an expression matches, key column first.  -c names the\n"
     "columns to print, -i prints fixed indices instead (-u: in the uncommitted\n"
     "view).  Write values in the expression as literals: 42, 2.5, \"text\",\n"
     "'0xBEEF', {1,2}; quote the whole expression when it holds quotes.",
     "select /demo/people -c name \"age > 30 && name LIKE 'A%'\""},
    {"delete-where", "Delete the rows an expression (as for select) matches.",
     "delete-where /demo/people \"age >= 90\""},
    {"mode",
     "With no argument, print the output mode.  table (the default) aligns\n"
     "columns and counts the rows; csv quotes as RFC 4180 does; json prints one\n"
     "array of objects with numbers, arrays and structured data as themselves and\n"
     "binaries as hex text; line prints one \"column = value\" line a field.\n"
     "The options --table, --csv, --json and --line choose a mode at start-up.",
     "mode json"},
    {"export",
     "Write a table's committed rows to FILE: CSV (a header row, then the values\n"
     "as the shell prints them, lines ending CR LF) or JSON (as mode json prints\n"
     "them), by the file's extension .csv or .json, or by --csv or --json.",
     "export /demo/people people.csv"},
    {"import",
     "Add the rows of a CSV or JSON file (as export writes them) in one\n"
     "transaction: all of them or, after an error, none.  The CSV header row and\n"
     "the JSON object keys name the columns; values are read by the column's type.\n"
     "An empty CSV field or a JSON null leaves a column to its default (an empty\n"
     "field of a string column is the empty text).  An error names the line, the\n"
     "column and the value.",
     "import /demo/people people.csv"},
    {"list", "List the tables under a registry path, sorted.", "list /demo"},
    {"copy",
     "Copy a table, between files and memory either way; --overwrite replaces\n"
     "an existing target.",
     "copy /demo/people /mem/people"},
    {"move", "Move a table; the source goes once the target exists.",
     "move /mem/people /demo/people2"},
    {"rename", "Rename a table: a move that never replaces an existing table.",
     "rename /demo/people2 /demo/folk"},
    {"add-columns", "Add columns, written as for create.",
     "add-columns /demo/people weight:float64=1.5"},
    {"delete-columns", "Delete columns of a table.", "delete-columns /demo/people weight"},
    {"rename-column", "Rename a column.", "rename-column /demo/people name title"},
    {"change-default", "Change a column's default, in the table file too.",
     "change-default /demo/people name unknown"},
    {"overlay-default", "Change a column's default in memory only, for this tree.",
     "overlay-default /demo/people name unknown"},
    {"repair", "Delete rewrite files an interrupted write left beside the named tables.",
     "repair /demo/people"},
    {"pack", "Pack tables into one buffer file (--uncommitted: their working rows).",
     "pack tables.buf /demo/people /demo/parts"},
    {"packed", "List the tables of a buffer file.", "packed tables.buf"},
    {"unpack", "Make a buffer's tables (or the one at INDEX) read-only session tables.",
     "unpack tables.buf 1"},
    {"convert", "Convert a buffer file written on a host of the other byte order.",
     "convert s390x.buf here.buf"},
    {"dump", "Print a table's in-memory records; BITS chooses the detail.", "dump /demo/people 7"},
    {"dump-tree", "Print the tree, its tables and its mount points.", "dump-tree"},
};

}  // namespace

const CommandHelp *command_help(const char *name) {
    for (const CommandHelp &help : kHelp) {
        if (std::strcmp(help.name, name) == 0) return &help;
    }
    return nullptr;
}

}  // namespace qxsr
