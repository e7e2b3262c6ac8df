// One side of a byte-order exchange of packed table buffers.  Built for this
// machine and for big-endian s390x (run under qemu-user), so each side packs
// buffers the other converts and unpacks.
//
//   cross_exchange pack PREFIX    builds the test tables, packs them in the
//                                 committed and the working view, and writes
//                                 PREFIX_<view>.buf with the description of
//                                 every table it packed in PREFIX_<view>.txt
//   cross_exchange check PREFIX   reads those buffers, which must come from
//                                 the other byte order, converts them in
//                                 place, unpacks every table and compares its
//                                 description with the packer's, line by line
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

int fail(const char *what, int rc) {
    std::fprintf(stderr, "cross_exchange: %s failed: %d\n", what, rc);
    return 1;
}

int pack(const std::string &prefix) {
    sr_opaque_handle_t tree = nullptr;
    int rc = sr_open_tree_1(&tree, 0, 0);
    if (rc != 0) return fail("sr_open_tree_1", rc);
    qxcross::Arena arena;
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
        for (qx_uint32_t i = 0; i < tables.size(); ++i) {
            qx_char_ptr_t name = nullptr;
            rc = sr_get_packed_table_name_1(p_buffer, i, &name);
            if (rc != 0) return fail("sr_get_packed_table_name_1", rc);
            const std::string description = qxcross::render_table(tables[i], view);
            // Five committed rows; the working view adds two and deletes one.
            if (qxcross::described_rows(description) != (view ? 6 : 5)) {
                std::fprintf(stderr, "%s", description.c_str());
                return fail("describing the packed table", qxcross::described_rows(description));
            }
            report += std::string("table ") + name + "\n" + description;
        }
        qx_uint32_t length;
        std::memcpy(&length, p_buffer, 4);
        const std::string base = prefix + "_" + kViews[view];
        if (!write_file(base + ".buf", p_buffer, length) ||
            !write_file(base + ".txt", report.data(), report.size())) {
            return fail("writing the buffer", 0);
        }
        std::free(p_buffer);
        std::printf("packed %s: %u bytes, %zu tables\n", base.c_str(), length, tables.size());
    }
    sr_close_tree_1(tree);
    return 0;
}

int check(const std::string &prefix) {
    sr_opaque_handle_t tree = nullptr;
    int rc = sr_open_tree_1(&tree, 0, 0);
    if (rc != 0) return fail("sr_open_tree_1", rc);
    int failures = 0;
    for (const char *view : kViews) {
        const std::string base = prefix + "_" + view;
        std::string bytes, expected;
        if (!read_file(base + ".buf", &bytes) || !read_file(base + ".txt", &expected) ||
            bytes.size() < 40) {
            return fail(("reading " + base).c_str(), 0);
        }
        // Malloc'd, of exactly the buffer's size, as a receiver would hold it.
        void *p = std::malloc(bytes.size());
        std::memcpy(p, bytes.data(), bytes.size());
        qx_uint32_t required = 0;
        rc = qx_pmsg_cnv_required_1(p, &required);
        if (rc != 0 || required != 1) {
            std::fprintf(stderr, "%s: not a buffer of the other byte order (%d, %u)\n",
                         base.c_str(), rc, required);
            return 1;
        }
        rc = sr_convert_packed_table_buffer_1(p, 0, 0);
        if (rc != 0) return fail("sr_convert_packed_table_buffer_1", rc);
        qx_uint32_t length;
        std::memcpy(&length, p, 4);
        if (length != bytes.size())
            return fail("the converted length word", static_cast<int>(length));
        qx_uint32_t total = 0;
        rc = sr_get_total_packed_tables_1(p, &total);
        if (rc != 0) return fail("sr_get_total_packed_tables_1", rc);
        std::string received;
        for (qx_uint32_t i = 0; i < total; ++i) {
            qx_char_ptr_t name = nullptr;
            rc = sr_get_packed_table_name_1(p, i, &name);
            if (rc != 0) return fail("sr_get_packed_table_name_1", rc);
            sr_opaque_handle_t table = nullptr;
            rc = sr_unpack_table_1(p, 0, nullptr, nullptr, tree, i, &table);
            if (rc != 0) return fail("sr_unpack_table_1", rc);
            received += std::string("table ") + name + "\n" + qxcross::render_table(table, 0);
            rc = sr_close_table_1(table);
            if (rc != 0) return fail("sr_close_table_1", rc);
        }
        std::free(p);
        if (received == expected) {
            std::printf("%s: %u tables agree (%zu bytes of description)\n", base.c_str(), total,
                        expected.size());
            continue;
        }
        ++failures;
        size_t at = 0;
        while (at < received.size() && at < expected.size() && received[at] == expected[at]) ++at;
        const size_t line_start = expected.rfind('\n', at == 0 ? 0 : at - 1);
        const size_t from = line_start == std::string::npos ? 0 : line_start + 1;
        std::fprintf(stderr, "%s: differs at byte %zu\n  packed:   %s\n  received: %s\n",
                     base.c_str(), at,
                     expected.substr(from, expected.find('\n', from) - from).c_str(),
                     received.substr(from, received.find('\n', from) - from).c_str());
    }
    sr_close_tree_1(tree);
    return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc == 3 && std::strcmp(argv[1], "pack") == 0) return pack(argv[2]);
    if (argc == 3 && std::strcmp(argv[1], "check") == 0) return check(argv[2]);
    std::fprintf(stderr, "usage: cross_exchange pack|check PREFIX\n");
    return 2;
}
