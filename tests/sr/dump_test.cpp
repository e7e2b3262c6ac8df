// Diagnostic dumps: detail bits, line forms, hex dump, names, the tree dump.
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

TEST_F(DumpTest, NamesPrintfAndHexStorage) {
    const std::pair<int, const char *> types[] = {{QX_UNKNOWN, "QX_UNKNOWN"},
                                                  {QX_RSRC_HANDLE_PTR, "QX_RSRC_HANDLE_PTR"},
                                                  {QX_SD_PTR_ARRAY, "QX_SD_PTR_ARRAY"},
                                                  {23, "GARBAGE"},
                                                  {-1, "GARBAGE"}},
                                       qualifiers[] = {{0, "SR_UNKNOWN_QUALIFIER"},
                                                       {SR_SYSTEM, "SR_SYSTEM"},
                                                       {SR_PRIMARY_KEY_NOCHECK | SR_INVISIBLE,
                                                        "SR_PRIMARY_KEY_NOCHECK"},
                                                       {5, "GARBAGE"},
                                                       {15 | SR_PROTECTED, "GARBAGE"}};
    for (auto [t, name] : types) EXPECT_STREQ(sr_i_get_type_string(qx_data_type_t(t)), name);
    for (auto [q, name] : qualifiers) EXPECT_STREQ(sr_i_get_qualifier_type_string(q), name);
    EXPECT_EQ(Capture([](FILE *p) { EXPECT_EQ(sr_i_printf(0x10, 0x0F, p, "x%d", 1), 0); }), "");
    EXPECT_EQ(Capture([](FILE *p) { EXPECT_EQ(sr_i_printf(0x18, 0x08, p, "x%d", 12), 3); }), "x12");
    // Lines of `width` words grouped by four, the last one left unended.
    unsigned char bytes[70];
    for (int i = 0; i < 70; ++i) bytes[i] = static_cast<unsigned char>(i);
    const std::string text =
        Capture([&](FILE *p) { sr_i_dump_storage(bytes, 70, 16, ">>", p, 0x4, 0x4); });
    const Lines lines = Split(text);
    ASSERT_EQ(lines.size(), 2u);
    const std::string prefix = ">>" + Address(bytes) + " ";
    EXPECT_EQ(lines[0].rfind(prefix + "00010203 04050607 ", 0), 0u);
    EXPECT_EQ(lines[0].size(), prefix.size() + 16 * 9);
    EXPECT_EQ(lines[1], ">>" + Address(bytes + 64) + " 40414243 4445");
    EXPECT_NE(text.back(), '\n');
    EXPECT_EQ(Capture([&](FILE *p) { sr_i_dump_storage(bytes, 70, 16, ">>", p, 0x4, 0x8); }), "");
}

// Each detail bit prints its own lines (a column of every kind, an uncommitted
// row, application metadata); all bits print every one of them.
TEST_F(DumpTest, EachDetailBitPrintsItsLines) {
    std::vector<sr_column_t> columns = {
        Column("k", QX_INT32, SR_PRIMARY_KEY | SR_PROTECTED | SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED),
        Column("s", QX_CHAR_PTR, SR_STANDARD),
        Column("u", QX_UINT32, SR_STANDARD),
        Column("i", QX_INT64, SR_STANDARD),
        Column("w", QX_UINT64, SR_STANDARD),
        Column("f", QX_FLOAT32, SR_STANDARD),
        Column("d", QX_FLOAT64, SR_STANDARD),
        Column("b", QX_BINARY_PTR, SR_STANDARD),
        Column("sd", QX_SD_PTR, SR_STANDARD)};
    columns[1].default_value.ptr_char = arena_.text("dflt");
    columns[2].default_value.val_uint32 = 4000000000u;
    columns[3].default_value.val_int64 = -5000000000ll;
    columns[4].default_value.val_uint64 = 18000000000000000000ull;
    columns[5].default_value.val_float32 = 0.5f;
    columns[6].default_value.val_float64 = -1.25;
    columns[7].default_value.ptr_binary = qxcross::make_value(arena_, QX_BINARY_PTR, 2).ptr_binary;
    columns[8].sd_defn = qxcross::sd_definition(arena_);
    sr_i_table_t *p_table = Create("/d/q", columns, 6);
    qx_value_t key{}, text{};
    key.val_int32 = 42;
    text.ptr_char = arena_.text("hello");
    qx_char_ptr_t names[] = {Text("k"), Text("s")};
    qx_value_t *p_values[] = {&key, &text};
    ASSERT_EQ(sr_add_row_1(p_table, names, p_values, 2), 0);
    char data[] = "abc";
    ASSERT_EQ(sr_i_set_application_metadata(p_table->p_application_metadata, 7, 3, data), 0);
    const std::string header = "Table p_table(" + Address(p_table) + ")\n";
    EXPECT_EQ(Dump(p_table, 0), "");
    EXPECT_EQ(Dump(p_table, 0xFFFFFFFF00000000ull), "");  // not the table dump's bits
    EXPECT_EQ(Dump(p_table, SR_I_DUMP_NAME), header + "  p_name(/d/q)\n");
    EXPECT_EQ(Dump(p_table, SR_I_DUMP_REFERENCES), header + "  references(1)\n");
    EXPECT_EQ(
        Dump(p_table, SR_I_DUMP_COLUMN_MODIFIERS),
        header + "    qualifier_modifiers(SR_PROTECTED|SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED)\n");
    const Lines rows = Split(
        Dump(p_table, SR_I_DUMP_ROWS | SR_I_DUMP_APPLIED_RECORDS | SR_I_DUMP_COMMITTED_RECORDS));
    ASSERT_GT(rows.size(), 6u);
    EXPECT_EQ(rows[1].rfind("  row(0) p_applied(0x", 0), 0u);
    EXPECT_NE(rows[1].find(" p_committed(0x0) "), std::string::npos);
    EXPECT_NE(rows[1].find(" file_offset(0) applied_file_offset(0)"), std::string::npos);
    EXPECT_EQ(Lines(rows.begin() + 2, rows.begin() + 5),
              (Lines{"    APPLIED ROW RECORD: replaces_offset(0), COLUMN VALUES:",
                     "      k(QX_INT32): 42", "      s(QX_CHAR_PTR): hello"}));
    EXPECT_EQ(rows.back(), "    COMMITTED ROW RECORD: NONE");
    const std::string all = Dump(p_table, SR_I_DUMP_ALL);
    EXPECT_EQ(Split(all)[2], "  references(1)");
    for (const char *value : {"0", "dflt", "4000000000", "-5000000000", "18000000000000000000",
                              "0.5", "-1.25", "length(7), data:"}) {
        ExpectLines(all, {std::string("    default_value: ") + value});
    }
    ExpectLines(all, {"    qualifier(SR_PRIMARY_KEY)", "            name(b)",
                      "  total_applied_rows(1) total_committed_rows(0) maximum_rows(100)",
                      "  total_variable_length_columns(3)", "        APPLIED: length(3), data:",
                      "        COMMITTED: NONE", "      k(QX_INT32): 42"});
    EXPECT_NE(all.find("      0: type(7) p_applied(0x"), std::string::npos);
    EXPECT_NE(all.find(" 616263"), std::string::npos);
    // A type no column may have, as a damaged record would carry it.
    sr_column_t column = sr_i_load_column(&p_table->p_columns[2]);
    column.type = static_cast<qx_data_type_t>(23);
    std::memcpy(&p_table->p_columns[2], &column, sizeof column);
    const std::string garbage = Dump(p_table, SR_I_DUMP_COLUMN_TYPE | SR_I_DUMP_COLUMN_DEFAULT);
    ExpectLines(garbage, {"    type(GARBAGE)", "    default_value: GARBAGE"});
    EXPECT_EQ(Dump(nullptr, SR_I_DUMP_ALL), "Table p_table(0x00000000)\n");
    sr_i_table_t *p_unnamed = nullptr;
    ASSERT_EQ(sr_i_create_transient_table(static_cast<sr_i_tree_t *>(tree_), nullptr,
                                          columns.data(), 1, SR_MODE_WRITE, nullptr, &p_unnamed),
              0);
    ExpectLines(Dump(p_unnamed, 1), {"  p_name(UNNAMED TABLE)"});
    sr_i_close_table(p_unnamed);
}

// A new two-int32 file: 120 bytes (metadata 96, commit 24), a pool buffer of
// 100 * 84 + 20 bytes, 116 used; the tree dump goes to standard output.
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
