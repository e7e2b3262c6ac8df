// qxsr: the registry's command-line shell.
#include <cstdio>
#include <cstring>

int main(int argc, char **argv) {
    if (argc < 2 || std::strcmp(argv[1], "help") == 0) {
        std::puts("usage: qxsr help | version");
        return 0;
    }
    return 0;
}
