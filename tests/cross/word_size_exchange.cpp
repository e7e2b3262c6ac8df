// One side of the word-size exchange: built as a 64-bit and as a 32-bit x86
// program from the same sources, each writes table files and packed buffers
// from the same operations, and reads the other's.
//
//   word_size_exchange write DIR   mounts DIR, builds the test tables there
//                                  (applied and committed, the last change
//                                  left applied but uncommitted) and in
//                                  memory, packs the memory tables in both
//                                  views, and writes the buffers and the
//                                  description of every table beside them
//   word_size_exchange check DIR   opens the table files another process
//                                  wrote in DIR and unpacks its buffers, and
//                                  compares every table with its description
//
// The caller compares the two directories byte for byte.  Exit status 0 when
// everything agrees, 1 on any difference or failure.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cross/cross_tables.h"
#include "qx_sr.h"

namespace {

using qxcross::kViews;
using qxcross::read_file;
using qxcross::write_file;

int fail(const char *what, int rc) {
    std::fprintf(stderr, "word_size_exchange (%zu-bit): %s failed: %d\n", 8 * sizeof(void *), what,
                 rc);
    return 1;
}

int compare(const std::string &what, const std::string &expected, const std::string &got) {
    if (expected == got) {
        std::printf("%s: agrees (%zu bytes of description)\n", what.c_str(), expected.size());
        return 0;
    }
    size_t at = 0;
    while (at < expected.size() && at < got.size() && expected[at] == got[at]) ++at;
    std::fprintf(stderr, "%s: differs at byte %zu of the description\n", what.c_str(), at);
    return 1;
}

int write(const std::string &dir) {
    sr_opaque_handle_t tree = nullptr;
    int rc = sr_open_tree_1(&tree, 0, 0);
    if (rc != 0) return fail("sr_open_tree_1", rc);
    qxcross::Arena arena;
    rc = sr_mount_local_tree_1(tree, arena.text("/w"), arena.text(dir), 1);
    if (rc != 0) return fail("sr_mount_local_tree_1", rc);

    // Table files: the pending changes applied and committed, then a last
    // change applied and left uncommitted at the file's end.
    std::vector<sr_opaque_handle_t> files;
    rc = qxcross::build_tables(tree, "/w", arena, &files);
    if (rc != 0) return fail("building the table files", rc);
    std::string described;
    for (size_t i = 0; i < files.size(); ++i) {
        if ((rc = sr_apply_1(files[i], 0)) != 0 || (rc = sr_commit_1(files[i])) != 0) {
            return fail("applying and committing", rc);
        }
        described += qxcross::render_table(files[i], 0);
        if ((rc = sr_delete_row_by_index_1(files[i], 0)) != 0 ||
            (rc = sr_apply_1(files[i], 0)) != 0) {
            return fail("applying the uncommitted change", rc);
        }
    }
    if (!write_file(dir + "/tables.txt", described.data(), described.size())) {
        return fail("writing the description", 0);
    }

    // Packed buffers of the tables in memory (their names are registry
    // paths, the same for both sides).
    std::vector<sr_opaque_handle_t> tables;
    rc = qxcross::build_tables(tree, "/cross", arena, &tables);
    if (rc != 0) return fail("building the tables", rc);
    for (qx_uint32_t view = 0; view < 2; ++view) {
        std::vector<qx_uint32_t> views(tables.size(), view);
        void *p_buffer = nullptr;
        rc = sr_pack_tables_1(static_cast<qx_uint32_t>(tables.size()), tables.data(), views.data(),
                              nullptr, nullptr, &p_buffer);
        if (rc != 0) return fail("sr_pack_tables_1", rc);
        std::string report;
        for (sr_opaque_handle_t table : tables) report += qxcross::render_table(table, view);
        qx_uint32_t length;
        std::memcpy(&length, p_buffer, 4);
        const std::string base = dir + "/" + kViews[view];
        if (!write_file(base + ".buf", p_buffer, length) ||
            !write_file(base + ".txt", report.data(), report.size())) {
            return fail("writing the buffer", 0);
        }
        std::free(p_buffer);
    }
    // Closing drops the uncommitted change from memory; the file keeps its
    // bytes, which a reader skips.
    sr_close_tree_1(tree);
    return 0;
}

int check(const std::string &dir) {
    sr_opaque_handle_t tree = nullptr;
    int rc = sr_open_tree_1(&tree, 0, 0);
    if (rc != 0) return fail("sr_open_tree_1", rc);
    qxcross::Arena arena;
    rc = sr_mount_local_tree_1(tree, arena.text("/w"), arena.text(dir), 1);
    if (rc != 0) return fail("sr_mount_local_tree_1", rc);
    int failures = 0;

    std::string expected;
    if (!read_file(dir + "/tables.txt", &expected)) return fail("reading tables.txt", 0);
    std::string got;
    for (const qxcross::TableLayout &layout : qxcross::table_layouts()) {
        sr_opaque_handle_t table = nullptr;
        rc = sr_open_table_1(tree, arena.text("/w/" + std::string(layout.leaf)), SR_MODE_READ,
                             &table);
        if (rc != 0) return fail("sr_open_table_1", rc);
        got += qxcross::render_table(table, 0);
        sr_close_table_1(table);
    }
    failures += compare(dir + " table files", expected, got);

    for (const char *view : kViews) {
        const std::string base = dir + "/" + view;
        std::string bytes, report;
        if (!read_file(base + ".buf", &bytes) || !read_file(base + ".txt", &report)) {
            return fail(("reading " + base).c_str(), 0);
        }
        void *p = std::malloc(bytes.size());
        std::memcpy(p, bytes.data(), bytes.size());
        qx_uint32_t total = 0;
        rc = sr_get_total_packed_tables_1(p, &total);
        if (rc != 0) return fail("sr_get_total_packed_tables_1", rc);
        std::string received;
        for (qx_uint32_t i = 0; i < total; ++i) {
            sr_opaque_handle_t table = nullptr;
            rc = sr_unpack_table_1(p, 0, nullptr, nullptr, tree, i, &table);
            if (rc != 0) return fail("sr_unpack_table_1", rc);
            received += qxcross::render_table(table, 0);
            sr_close_table_1(table);
        }
        std::free(p);
        failures += compare(base + ".buf", report, received);
    }
    sr_close_tree_1(tree);
    return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc == 3 && std::strcmp(argv[1], "write") == 0) return write(argv[2]);
    if (argc == 3 && std::strcmp(argv[1], "check") == 0) return check(argv[2]);
    std::fprintf(stderr, "usage: word_size_exchange write|check DIR\n");
    return 2;
}
