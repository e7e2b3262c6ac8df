// One side of a table-file and packed-buffer exchange with s390x or i386; 0 when all agree.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "cross/cross_tables.h"
#include "qx_pmsg.h"
#include "qx_sr.h"

namespace {

using qxcross::kViews;

// A failed call or check ends the run with its name and code.
void check(int rc, const std::string &what) {
    if (rc != 0) throw std::runtime_error(what + " failed: " + std::to_string(rc));
}
void check(bool ok, const std::string &what) {
    check(ok ? 0 : -1, what);
}

int compare(const std::string &what, const std::string &expected, const std::string &got) {
    if (expected == got) return std::printf("%s: agrees\n", what.c_str()) < 0;
    std::fprintf(stderr, "%s differs\n--- expected\n%s--- got\n%s", what.c_str(), expected.c_str(),
                 got.c_str());
    return 1;
}

// Packs the tables in both views: BASE<view>.buf and its description.
void pack(std::vector<sr_opaque_handle_t> &tables, const std::string &base) {
    for (qx_uint32_t view = 0; view < 2; ++view) {
        std::vector<qx_uint32_t> views(tables.size(), view);
        void *p_buffer = nullptr;
        check(sr_pack_tables_1(static_cast<qx_uint32_t>(tables.size()), tables.data(), views.data(),
                               nullptr, nullptr, &p_buffer),
              "sr_pack_tables_1");
        std::string report;
        for (qx_uint32_t i = 0; i < tables.size(); ++i) {
            qx_char_ptr_t name = nullptr;
            check(sr_get_packed_table_name_1(p_buffer, i, &name), "sr_get_packed_table_name_1");
            const std::string description = qxcross::render_table(tables[i], view);
            // Five committed rows; the working view adds two and deletes one.
            check(qxcross::described_rows(description) == (view ? 6 : 5),
                  "describing " + description);
            report += std::string("table ") + name + "\n" + description;
        }
        qx_uint32_t length;
        std::memcpy(&length, p_buffer, 4);
        const std::string path = base + kViews[view];
        check(qxcross::write_file(path + ".buf", p_buffer, length) &&
                  qxcross::write_file(path + ".txt", report.data(), report.size()),
              "writing " + path);
        std::free(p_buffer);
        std::printf("packed %s: %u bytes, %zu tables\n", path.c_str(), length, tables.size());
    }
}

// Unpacks BASE<view>.buf (converted first when `convert`) and compares.
int unpack(sr_opaque_handle_t tree, const std::string &base, bool convert) {
    int failures = 0;
    for (const char *view : kViews) {
        const std::string path = base + view;
        std::string bytes, expected;
        check(qxcross::read_file(path + ".buf", &bytes) &&
                  qxcross::read_file(path + ".txt", &expected) && bytes.size() >= 40,
              "reading " + path);
        // Malloc'd, of exactly the buffer's size, as a receiver would hold it.
        void *p = std::memcpy(std::malloc(bytes.size()), bytes.data(), bytes.size());
        qx_uint32_t required = 0, length, total = 0;
        check(qx_pmsg_cnv_required_1(p, &required), "qx_pmsg_cnv_required_1");
        check(required == (convert ? 1u : 0u), path + " byte order");
        if (convert) check(sr_convert_packed_table_buffer_1(p, 0, 0), "converting");
        std::memcpy(&length, p, 4);
        check(length == bytes.size(), "the length word");
        check(sr_get_total_packed_tables_1(p, &total), "sr_get_total_packed_tables_1");
        std::string received;
        for (qx_uint32_t i = 0; i < total; ++i) {
            qx_char_ptr_t name = nullptr;
            sr_opaque_handle_t table = nullptr;
            check(sr_get_packed_table_name_1(p, i, &name), "sr_get_packed_table_name_1");
            check(sr_unpack_table_1(p, 0, nullptr, nullptr, tree, i, &table), "unpacking");
            received += std::string("table ") + name + "\n" + qxcross::render_table(table, 0);
            check(sr_close_table_1(table), "sr_close_table_1");
        }
        std::free(p);
        failures += compare(path + ".buf", expected, received);
    }
    return failures;
}

int run(const std::string &mode, const std::string &where) {
    sr_opaque_handle_t tree = nullptr;
    check(sr_open_tree_1(&tree, 0, 0), "sr_open_tree_1");
    qxcross::Arena arena;
    const bool files = mode == "write" || mode == "read";
    if (files) {
        check(sr_mount_local_tree_1(tree, arena.text("/w"), arena.text(where), 1), "mounting");
    }
    const std::string base = files ? where + "/" : where + "_";
    int failures = 0;
    if (mode == "write") {
        // Committed table files with a last change applied and uncommitted (a reader skips it).
        std::vector<sr_opaque_handle_t> tables;
        check(qxcross::build_tables(tree, "/w", arena, &tables), "building the table files");
        std::string described;
        for (sr_opaque_handle_t table : tables) {
            check(sr_apply_1(table, 0), "sr_apply_1");
            check(sr_commit_1(table), "sr_commit_1");
            described += qxcross::render_table(table, 0);
            check(sr_delete_row_by_index_1(table, 0), "sr_delete_row_by_index_1");
            check(sr_apply_1(table, 0), "applying the uncommitted change");
        }
        check(qxcross::write_file(base + "tables.txt", described.data(), described.size()),
              "writing the description");
    }
    if (mode == "pack" || mode == "write") {
        // Tables in memory: their names are registry paths, the same for both sides.
        std::vector<sr_opaque_handle_t> tables;
        check(qxcross::build_tables(tree, "/cross", arena, &tables), "building the tables");
        pack(tables, base);
    }
    if (mode == "read") {
        std::string expected, got;
        check(qxcross::read_file(base + "tables.txt", &expected), "reading tables.txt");
        for (const qxcross::TableLayout &layout : qxcross::table_layouts()) {
            sr_opaque_handle_t table = nullptr;
            check(sr_open_table_1(tree, arena.text("/w/" + std::string(layout.leaf)), SR_MODE_READ,
                                  &table),
                  "sr_open_table_1");
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
        if (argc != 3 || std::strcmp(argv[1], mode) != 0) continue;
        try {
            return run(mode, argv[2]);
        } catch (const std::exception &e) {
            std::fprintf(stderr, "exchange (%zu-bit): %s\n", 8 * sizeof(void *), e.what());
            return 1;
        }
    }
    std::fprintf(stderr, "usage: exchange pack|check PREFIX, exchange write|read DIR\n");
    return 2;
}
