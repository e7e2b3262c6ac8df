// The registry's message table.  The position of a text is its message
// number in the catalogue "qx_sr.cat" (set 1); the number after "2605-" is
// the result code.  The build also generates the catalogue source from this
// table, so the catalogue and the compiled-in defaults cannot drift apart.
#include "qx_sr.h"

extern "C" const char *const cu_mesgtbl_qx_sr_set[SR_NUMBER_OF_MESSAGES] = {
    "Reserved: DO NOT USE!",
    "2605-010 The %1$s system call unexpectedly returned an errno of %2$d to the %3$s function "
    "near line %4$d of file %5$s, version %6$s.\n",
    "2605-011 The %1$s library function unexpectedly returned %2$d to the %3$s function near "
    "line %4$d of file %5$s, version %6$s.\n",
    "2605-012 Memory could not be allocated in the %1$s function near line %2$d of file %3$s, "
    "version %4$s.\n",
    "2605-013 The filesystem containing the local tree is full.\n",
    "2605-014 The table is unreadable.\n",
    "2605-015 An irrecoverable internal inconsistency occurred during the %1$s function near "
    "line %2$d of file %3$s, version %4$s.\n",
    "2605-100 A function was passed an invalid handle.\n",
    "2605-101 A function was passed a NULL pointer.\n",
    "2605-102 %1$s is an invalid pathname.\n",
    "2605-103 An invalid mode was specified while trying to create or open the table.\n",
    "2605-104 One or more column names or definitions were expected.\n",
    "2605-105 A column definition is invalid or a specified column name is not defined to the "
    "table.\n",
    "2605-106 More than one column with the same name was supplied.\n",
    "2605-107 The key column value was expected.\n",
    "2605-108 A row with the specified key already exists when adding a row or more than one "
    "key column was specified when creating a table.\n",
    "2605-109 An invalid positional/replacement variable type was found in the selection "
    "criteria string: %1$s.\n",
    "2605-200 The table does not exist.\n",
    "2605-201 The table already exists.\n",
    "2605-202 There is no row corresponding to the specified key value.\n",
    "2605-203 There is no row corresponding to the specified index value.\n",
    "2605-204 The row corresponding to the specified index has been deleted.\n",
    "2605-205 There are no rows to delete from the table.\n",
    "2605-206 The calling process does not have sufficient access permission to the persistent "
    "files corresponding to the table, or a write operation was called against a table opened "
    "only for read.\n",
    "2605-207 A mount point containing the path already exists.\n",
    "2605-208 The specified mount point does not exist.\n",
    "2605-209 A function requiring a committed table was called on an uncommitted table.\n",
    "2605-210 A function requiring pending table updates to have been applied was called before "
    "they were applied.\n",
    "2605-211 An attempt to open a table more than once in mutually exclusive modes was made.\n",
    "2605-212 An attempt was made to update a table that has applied but uncommitted updates.\n",
};
