// Opens and closes a tree through the installed package.
#include <cstdio>

#include "qx_sr.h"

int main() {
    sr_opaque_handle_t tree = nullptr;
    if (sr_open_tree_1(&tree, 0, 0) != 0) return 1;
    if (sr_close_tree_1(tree) != 0) return 1;
    std::puts("consumer: opened and closed a tree");
    return 0;
}
