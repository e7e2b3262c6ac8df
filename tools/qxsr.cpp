// qxsr: the registry's command-line shell.
//
//   qxsr help [COMMAND] | --version | demo
//   qxsr [-m REGISTRY_PATH=DIRECTORY]... [--table|--csv|--json|--line] [COMMAND [ARG...]]
//   qxsr [-m ...] -f SCRIPT            (one command per line, # comments)
//   qxsr [-m ...]                      (commands from standard input; edited
//                                       lines with history at a terminal)
//
// Every command runs against one tree opened at start-up; -m mounts local
// trees before the first command.  A failing call prints the library's own
// formatted message.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qxsr_shell.h"

int main(int argc, char **argv) {
    return qxsr::run_main(argc, argv);
}
