// Diagnostic dumps: detail bits, line forms, hex words, names, the tree dump.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "cross/cross_tables.h"
#include "sr/table_test_util.h"

namespace {

using qxcross::Arena;
using Lines = std::vector<std::string>;

template <typename Dump>
std::string Capture(Dump &&dump) {
    char *p_text = nullptr;
    size_t length = 0;
    FILE *p_stream = open_memstream(&p_text, &length);
    dump(p_stream);
    std::fclose(p_stream);
    std::string text(p_text, length);
    std::free(p_text);
    return text;
}

Lines Split(const std::string &text) {
    Lines lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

void ExpectLines(const std::string &text, const Lines &lines) {
    const Lines have = Split(text);
    for (const std::string &line : lines) {
        EXPECT_NE(std::find(have.begin(), have.end(), line), have.end()) << line << "\n" << text;
    }
}

std::string Address(const void *p) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%.8lx", static_cast<unsigned long>(uintptr_t(p)));
    return text;
}

class DumpTest : public qxtest::TableTest {
  protected:
    sr_column_t Column(const char *name, qx_data_type_t type, qx_uint32_t qualifier) {
        return {Text(name), type, qualifier, 0, nullptr, {}};
    }
    std::string Dump(sr_i_table_t *p_table, qx_uint64_t flags) {
        return Capture([&](FILE *p) { EXPECT_EQ(sr_i_dump_table(p_table, p, flags), 0); });
    }
    Arena arena_;
};

// Each detail bit prints its own lines (every type, a pending row, application metadata).
TEST_F(DumpTest, EachDetailBitPrintsItsLines) {
    const qxcross::TableLayout layout = qxcross::table_layouts()[0];
    std::vector<sr_column_t> columns = qxcross::column_definitions(arena_, layout);
    columns[0].qualifier |= SR_PROTECTED | SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED;
    sr_i_table_t *p_table = Create("/d/q", columns, 6);
    ASSERT_EQ(qxcross::add_row(p_table, arena_, layout, 6), 0);
    char data[] = "abc";
    ASSERT_EQ(sr_i_set_application_metadata(p_table->p_application_metadata, 7, 3, data), 0);
    const std::string header = "Table p_table(" + Address(p_table) + ")\n";
    EXPECT_EQ(Dump(p_table, 0), "");
    EXPECT_EQ(Dump(p_table, 0xFFFFFFFF00000000ull), "");  // not the table dump's bits
    EXPECT_EQ(Dump(p_table, SR_I_DUMP_NAME), header + "  p_name(/d/q)\n");
    // Every column's default, none unknown to the dump.
    const std::string all = Dump(p_table, SR_I_DUMP_ALL);
    EXPECT_EQ(Split(all)[2], "  references(1)");
    ExpectLines(all, {"    qualifier_modifiers(SR_PROTECTED|SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED)",
                      "    qualifier_modifiers(SR_PROTECTED)"});
    EXPECT_EQ(all.find("GARBAGE"), std::string::npos);
    const Lines all_lines = Split(all);
    EXPECT_EQ(
        std::count_if(all_lines.begin(), all_lines.end(),
                      [](const std::string &l) { return l.rfind("    default_value:", 0) == 0; }),
        22);
    ExpectLines(all, {"    default_value: 4026532742", "    default_value: -1116049372671192",
                      "    default_value: 18364758544493065624", "    default_value: 1357.25",
                      "    default_value: 302", "    default_value: text-907",
                      "    default_value: length(8), data:", "            name(b)",
                      "  total_applied_rows(1) total_committed_rows(0) maximum_rows(100)",
                      "        APPLIED: length(3), data:", "        COMMITTED: NONE",
                      "    APPLIED ROW RECORD: replaces_offset(0), COLUMN VALUES:",
                      "      k(QX_INT32): 4100", "    COMMITTED ROW RECORD: NONE"});
    EXPECT_NE(all.find("\n  row(0) p_applied(0x"), std::string::npos);
    EXPECT_NE(all.find(" p_committed(0x0) "), std::string::npos);
    EXPECT_NE(all.find(" file_offset(0) applied_file_offset(0)\n"), std::string::npos);
    EXPECT_NE(all.find("      0: type(7) p_applied(0x"), std::string::npos);
    EXPECT_NE(all.find(" 616263"), std::string::npos);
    EXPECT_NE(all.find(" 04000000 f4f5f6f7 \n"), std::string::npos);  // binary data in words
    sr_opaque_handle_t unnamed = nullptr;
    ASSERT_EQ(sr_select_1(p_table, nullptr, 0, &unnamed, nullptr), 0);
    ExpectLines(Dump(static_cast<sr_i_table_t *>(unnamed), 1), {"  p_name(UNNAMED TABLE)"});
    sr_close_table_1(unnamed);
    // A type no column may have, as a damaged record would carry it.
    sr_column_t column = sr_i_load_column(&p_table->p_columns[2]);
    column.type = static_cast<qx_data_type_t>(23);
    std::memcpy(&p_table->p_columns[2], &column, sizeof column);
    const std::string garbage = Dump(p_table, SR_I_DUMP_COLUMN_TYPE | SR_I_DUMP_COLUMN_DEFAULT);
    ExpectLines(garbage, {"    type(GARBAGE)", "    default_value: GARBAGE"});
    EXPECT_EQ(Dump(nullptr, SR_I_DUMP_ALL), "Table p_table(0x00000000)\n");
}

// A new two-int32 file: 120 bytes, a pool buffer of 100 * 84 + 20 bytes; the tree to stdout.
TEST_F(DumpTest, NewFileItsPoolAndTheTree) {
    sr_i_table_t *p_table =
        Create("/m/t", {Column("k", QX_INT32, SR_PRIMARY_KEY), Column("v", QX_INT32, SR_STANDARD)});
    EXPECT_EQ(qxtest::ReadBytes(File("t")).size(), 120u);
    const std::string text = Dump(p_table, SR_I_DUMP_RECORD_BUFFER_POOL);
    ExpectLines(text, {"  total_bytes(8420)", "  used_bytes(116)", "  cumulative_total_bytes(8420)",
                       "  cumulative_used_bytes(116)"});
    const size_t first = text.find("\n    record(");
    EXPECT_EQ(text.compare(first + 1, 13, "    record(0:"), 0) << text;
    EXPECT_NE(text.find("length(96) type(1)", first), std::string::npos);
    Create("/d/one", {Column("k", QX_INT32, SR_PRIMARY_KEY)});
    testing::internal::CaptureStdout();
    EXPECT_EQ(sr_i_dump_tree(static_cast<sr_i_tree_t *>(tree_)), 0);
    const std::string tree = testing::internal::GetCapturedStdout();
    EXPECT_EQ(tree.rfind("Tree p_tree(0x", 0), 0u);
    ExpectLines(tree, {"  p_name(/d/one)", "  p_persistent_table_registry_path(/m/t)",
                       "  p_name(" + File("t") + ")", "    p_name(/m/)",
                       "    p_filesystem_path(" + tmp_.file("d") + ")"});
    EXPECT_EQ(Split(tree).back().rfind("  p_from_table_string_conversion_handle(0x", 0), 0u);
}

}  // namespace
