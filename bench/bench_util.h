// What the table-file benchmarks share: a scratch mount point and the
// little-endian writers they assemble records with.
#pragma once

#include <stdlib.h>

#include <string>

#include "qx_sr.h"

namespace qxbench {

struct BenchTree {
    sr_opaque_handle_t tree = nullptr;
    std::string dir;
    BenchTree() {
        const char *base = getenv("TMPDIR");
        std::string templ = std::string(base != nullptr ? base : "/tmp") + "/qxsr-bench-XXXXXX";
        char *made = mkdtemp(templ.data());
        dir = made != nullptr ? made : "/tmp";
        sr_open_tree_1(&tree, 0, 0);
        sr_mount_local_tree_1(tree, const_cast<char *>("/b"), dir.data(), 1);
    }
    ~BenchTree() {
        sr_close_tree_1(tree);
        std::string command = "rm -rf '" + dir + "'";
        if (system(command.c_str()) != 0) {
        }
    }
};

inline BenchTree &bench_tree() {
    static BenchTree tree;
    return tree;
}

inline void put32(std::string &b, qx_uint32_t v) {
    b.append(reinterpret_cast<const char *>(&v), 4);
}
inline void put64(std::string &b, qx_uint64_t v) {
    b.append(reinterpret_cast<const char *>(&v), 8);
}

}  // namespace qxbench
