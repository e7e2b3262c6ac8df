// One side of an exchange of table files and packed buffers with another
// machine: built for this machine, for big-endian s390x (run under
// qemu-user) and for 32-bit x86, from the same sources.
//
//   exchange pack PREFIX   builds the test tables in memory, packs them in the
//                          committed and the working view into PREFIX_<view>.buf
//                          and describes every packed table in PREFIX_<view>.txt
//   exchange check PREFIX  converts those buffers (which must come from the
//                          other byte order) in place, unpacks every table and
//                          compares it with the packer's description
//   exchange write DIR     also builds the tables as files in DIR (applied and
//                          committed, a last change applied but uncommitted),
//                          described in DIR/tables.txt, and packs DIR/<view>.buf
//   exchange read DIR      opens the table files and unpacks the buffers another
//                          process wrote in DIR and compares them likewise
//
// Exit status 0 when everything agrees, 1 on any difference or failure.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cross/cross_tables.h"
#include "qx_pmsg.h"
#include "qx_sr.h"

namespace {

using qxcross::kViews;
using qxcross::read_file;
using qxcross::write_file;

int fail(const std::string &what, int rc) {
    std::fprintf(stderr, "exchange (%zu-bit): %s failed: %d\n", 8 * sizeof(void *), what.c_str(),
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
    const size_t from = at == 0 ? 0 : expected.rfind('\n', at - 1) + 1;
    std::fprintf(stderr, "%s: differs at byte %zu\n  expected: %s\n  got:      %s\n", what.c_str(),
                 at, expected.substr(from, expected.find('\n', from) - from).c_str(),
                 got.substr(from, got.find('\n', from) - from).c_str());
    return 1;
}

// Packs the tables in both views: BASE<view>.buf and its description.
int pack(std::vector<sr_opaque_handle_t> &tables, const std::string &base) {
    for (qx_uint32_t view = 0; view < 2; ++view) {
        std::vector<qx_uint32_t> views(tables.size(), view);
        void *p_buffer = nullptr;
        int rc = sr_pack_tables_1(static_cast<qx_uint32_t>(tables.size()), tables.data(),
                                  views.data(), nullptr, nullptr, &p_buffer);
        if (rc != 0) return fail("sr_pack_tables_1", rc);
        std::string report;
        for (qx_uint32_t i = 0; i < tables.size(); ++i) {
            qx_char_ptr_t name = nullptr;
            if ((rc = sr_get_packed_table_name_1(p_buffer, i, &name)) != 0) {
                return fail("sr_get_packed_table_name_1", rc);
            }
            const std::string description = qxcross::render_table(tables[i], view);
            // Five committed rows; the working view adds two and deletes one.
            if (qxcross::described_rows(description) != (view ? 6 : 5)) {
                return fail("describing " + description, qxcross::described_rows(description));
            }
            report += std::string("table ") + name + "\n" + description;
        }
        qx_uint32_t length;
        std::memcpy(&length, p_buffer, 4);
        const std::string path = base + kViews[view];
        if (!write_file(path + ".buf", p_buffer, length) ||
            !write_file(path + ".txt", report.data(), report.size())) {
            return fail("writing " + path, 0);
        }
        std::free(p_buffer);
        std::printf("packed %s: %u bytes, %zu tables\n", path.c_str(), length, tables.size());
    }
    return 0;
}

// Unpacks BASE<view>.buf (converted first when `convert`) and compares.
int unpack(sr_opaque_handle_t tree, const std::string &base, bool convert) {
    int failures = 0;
    for (const char *view : kViews) {
        const std::string path = base + view;
        std::string bytes, expected;
        if (!read_file(path + ".buf", &bytes) || !read_file(path + ".txt", &expected) ||
            bytes.size() < 40) {
            return fail("reading " + path, 0);
        }
        // Malloc'd, of exactly the buffer's size, as a receiver would hold it.
        void *p = std::malloc(bytes.size());
        std::memcpy(p, bytes.data(), bytes.size());
        qx_uint32_t required = 0;
        int rc = qx_pmsg_cnv_required_1(p, &required);
        if (rc != 0 || required != (convert ? 1u : 0u)) return fail(path + " byte order", rc);
        if (convert && (rc = sr_convert_packed_table_buffer_1(p, 0, 0)) != 0) {
            return fail("sr_convert_packed_table_buffer_1", rc);
        }
        qx_uint32_t length, total = 0;
        std::memcpy(&length, p, 4);
        if (length != bytes.size()) return fail("the length word", static_cast<int>(length));
        if ((rc = sr_get_total_packed_tables_1(p, &total)) != 0) {
            return fail("sr_get_total_packed_tables_1", rc);
        }
        std::string received;
        for (qx_uint32_t i = 0; i < total; ++i) {
            qx_char_ptr_t name = nullptr;
            sr_opaque_handle_t table = nullptr;
            if ((rc = sr_get_packed_table_name_1(p, i, &name)) != 0 ||
                (rc = sr_unpack_table_1(p, 0, nullptr, nullptr, tree, i, &table)) != 0) {
                return fail("unpacking", rc);
            }
            received += std::string("table ") + name + "\n" + qxcross::render_table(table, 0);
            if ((rc = sr_close_table_1(table)) != 0) return fail("sr_close_table_1", rc);
        }
        std::free(p);
        failures += compare(path + ".buf", expected, received);
    }
    return failures;
}

int run(const std::string &mode, const std::string &where) {
    sr_opaque_handle_t tree = nullptr;
    int rc = sr_open_tree_1(&tree, 0, 0);
    if (rc != 0) return fail("sr_open_tree_1", rc);
    qxcross::Arena arena;
    const bool files = mode == "write" || mode == "read";
    if (files && (rc = sr_mount_local_tree_1(tree, arena.text("/w"), arena.text(where), 1)) != 0) {
        return fail("sr_mount_local_tree_1", rc);
    }
    const std::string base = files ? where + "/" : where + "_";
    int failures = 0;
    if (mode == "write") {
        // Table files: the pending changes applied and committed, then a last
        // change applied and left uncommitted at the file's end (closing
        // drops it from memory; the file keeps its bytes, which a reader skips).
        std::vector<sr_opaque_handle_t> files;
        if ((rc = qxcross::build_tables(tree, "/w", arena, &files)) != 0) {
            return fail("building the table files", rc);
        }
        std::string described;
        for (sr_opaque_handle_t table : files) {
            if ((rc = sr_apply_1(table, 0)) != 0 || (rc = sr_commit_1(table)) != 0) {
                return fail("applying and committing", rc);
            }
            described += qxcross::render_table(table, 0);
            if ((rc = sr_delete_row_by_index_1(table, 0)) != 0 ||
                (rc = sr_apply_1(table, 0)) != 0) {
                return fail("applying the uncommitted change", rc);
            }
        }
        if (!write_file(base + "tables.txt", described.data(), described.size())) {
            return fail("writing the description", 0);
        }
    }
    if (mode == "pack" || mode == "write") {
        // Tables in memory: their names are registry paths, the same for both sides.
        std::vector<sr_opaque_handle_t> tables;
        if ((rc = qxcross::build_tables(tree, "/cross", arena, &tables)) != 0) {
            return fail("building the tables", rc);
        }
        failures += pack(tables, base);
    }
    if (mode == "read") {
        std::string expected, got;
        if (!read_file(base + "tables.txt", &expected)) return fail("reading tables.txt", 0);
        for (const qxcross::TableLayout &layout : qxcross::table_layouts()) {
            sr_opaque_handle_t table = nullptr;
            rc = sr_open_table_1(tree, arena.text("/w/" + std::string(layout.leaf)), SR_MODE_READ,
                                 &table);
            if (rc != 0) return fail("sr_open_table_1", rc);
            got += qxcross::render_table(table, 0);
            sr_close_table_1(table);
        }
        failures += compare(where + " table files", expected, got);
    }
    if (mode == "check" || mode == "read") failures += unpack(tree, base, mode == "check");
    sr_close_tree_1(tree);
    return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
    for (const char *mode : {"pack", "check", "write", "read"}) {
        if (argc == 3 && std::strcmp(argv[1], mode) == 0) return run(mode, argv[2]);
    }
    std::fprintf(stderr, "usage: exchange pack|check PREFIX, exchange write|read DIR\n");
    return 2;
}
