// Diagnostic dumps: which detail bit prints which line, the exact line forms,
// the hex dump, the type and qualifier names, and the tree dump on standard
// output.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "cross/cross_tables.h"
#include "sr/test_util.h"
#include "sr_i.h"

namespace {

using qxcross::Arena;

// Runs `dump` against a memory stream and returns what it printed.
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

std::vector<std::string> Lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

bool HasLine(const std::string &text, const std::string &line) {
    for (const std::string &l : Lines(text)) {
        if (l == line) return true;
    }
    return false;
}

class DumpTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(sr_open_tree_1(&tree_, 0, 0), 0); }
    void TearDown() override { sr_close_tree_1(tree_); }

    sr_i_table_t *Table(const std::string &path, std::vector<sr_column_t> columns) {
        sr_opaque_handle_t handle = nullptr;
        EXPECT_EQ(
            sr_create_table_1(tree_, arena_.text(path), columns.data(),
                              static_cast<qx_uint32_t>(columns.size()), SR_MODE_WRITE, &handle),
            0);
        return static_cast<sr_i_table_t *>(handle);
    }
    sr_column_t Column(const char *name, qx_data_type_t type, qx_uint32_t qualifier) {
        sr_column_t c{};
        c.name = arena_.text(name);
        c.type = type;
        c.qualifier = qualifier;
        return c;
    }
    std::string Dump(sr_i_table_t *p_table, qx_uint64_t flags) {
        return Capture([&](FILE *p) { EXPECT_EQ(sr_i_dump_table(p_table, p, flags), 0); });
    }

    sr_opaque_handle_t tree_ = nullptr;
    Arena arena_;
};

TEST_F(DumpTest, NoDetailBitsPrintNothingAtAll) {
    sr_i_table_t *p_table = Table("/d/t", {Column("k", QX_INT32, SR_PRIMARY_KEY)});
    EXPECT_EQ(Dump(p_table, 0), "");
    // The high word is not the table dump's either.
    EXPECT_EQ(Dump(p_table, 0xFFFFFFFF00000000ull), "");
}

TEST_F(DumpTest, NameBitPrintsTheHeaderAndTheNameOnly) {
    sr_i_table_t *p_table = Table("/d/t", {Column("k", QX_INT32, SR_PRIMARY_KEY)});
    char header[64];
    std::snprintf(header, sizeof header, "Table p_table(0x%.8lx)\n",
                  static_cast<unsigned long>(reinterpret_cast<uintptr_t>(p_table)));
    EXPECT_EQ(Dump(p_table, 1), std::string(header) + "  p_name(/d/t)\n");
}

TEST_F(DumpTest, TableWithoutNameAndNullTable) {
    std::vector<sr_column_t> columns = {Column("k", QX_INT32, SR_PRIMARY_KEY)};
    sr_i_table_t *p_unnamed = nullptr;
    ASSERT_EQ(sr_i_create_transient_table(static_cast<sr_i_tree_t *>(tree_), nullptr,
                                          columns.data(), 1, SR_MODE_WRITE, nullptr, &p_unnamed),
              0);
    EXPECT_TRUE(HasLine(Dump(p_unnamed, 1), "  p_name(UNNAMED TABLE)"));
    sr_i_close_table(p_unnamed);
    EXPECT_EQ(Dump(nullptr, SR_I_DUMP_ALL), "Table p_table(0x00000000)\n");
}

TEST_F(DumpTest, KeyWithModifiersPrintsItsQualifierAndModifiersLines) {
    sr_i_table_t *p_table =
        Table("/d/q", {Column("v", QX_UINT32, SR_STANDARD),
                       Column("k", QX_CHAR_PTR,
                              SR_PRIMARY_KEY | SR_PROTECTED | SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED)});
    const std::string text =
        Dump(p_table, SR_I_DUMP_COLUMN | SR_I_DUMP_COLUMN_NAME | SR_I_DUMP_COLUMN_TYPE |
                          SR_I_DUMP_COLUMN_QUALIFIER | SR_I_DUMP_COLUMN_MODIFIERS);
    const std::vector<std::string> lines = Lines(text);
    ASSERT_EQ(lines.size(), 10u) << text;
    // The key is column 0.
    EXPECT_EQ(lines[1], "  column(0)");
    EXPECT_EQ(lines[2], "    name(k)");
    EXPECT_EQ(lines[3], "    type(QX_CHAR_PTR)");
    EXPECT_EQ(lines[4], "    qualifier(SR_PRIMARY_KEY)");
    EXPECT_EQ(lines[5], "    qualifier_modifiers(SR_PROTECTED|SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED)");
    EXPECT_EQ(lines[6], "  column(1)");
    EXPECT_EQ(lines[9], "    qualifier(SR_STANDARD)");
    // Without a modifier bit set there is no modifiers line at all.
    const std::string plain = Dump(p_table, SR_I_DUMP_COLUMN_MODIFIERS);
    EXPECT_EQ(Lines(plain).size(), 2u) << plain;
}

TEST_F(DumpTest, TypeAndQualifierNames) {
    EXPECT_STREQ(sr_i_get_type_string(QX_UNKNOWN), "QX_UNKNOWN");
    EXPECT_STREQ(sr_i_get_type_string(QX_INT32), "QX_INT32");
    EXPECT_STREQ(sr_i_get_type_string(QX_RSRC_HANDLE_PTR), "QX_RSRC_HANDLE_PTR");
    EXPECT_STREQ(sr_i_get_type_string(QX_SD_PTR_ARRAY), "QX_SD_PTR_ARRAY");
    EXPECT_STREQ(sr_i_get_type_string(static_cast<qx_data_type_t>(23)), "GARBAGE");
    EXPECT_STREQ(sr_i_get_type_string(static_cast<qx_data_type_t>(-1)), "GARBAGE");
    EXPECT_STREQ(sr_i_get_qualifier_type_string(0), "SR_UNKNOWN_QUALIFIER");
    EXPECT_STREQ(sr_i_get_qualifier_type_string(SR_SYSTEM), "SR_SYSTEM");
    EXPECT_STREQ(sr_i_get_qualifier_type_string(SR_PRIMARY_KEY_NOCHECK | SR_INVISIBLE),
                 "SR_PRIMARY_KEY_NOCHECK");
    EXPECT_STREQ(sr_i_get_qualifier_type_string(5), "GARBAGE");
    EXPECT_STREQ(sr_i_get_qualifier_type_string(15 | SR_PROTECTED), "GARBAGE");
}

TEST_F(DumpTest, TypeTwentyThreeInAColumnPrintsGarbage) {
    sr_i_table_t *p_table =
        Table("/d/g", {Column("k", QX_INT32, SR_PRIMARY_KEY), Column("v", QX_INT64, SR_STANDARD)});
    // Overlay the type in memory, as a damaged record would carry it.
    sr_column_t column = sr_i_load_column(&p_table->p_columns[1]);
    column.type = static_cast<qx_data_type_t>(23);
    std::memcpy(&p_table->p_columns[1], &column, sizeof column);
    const std::string text = Dump(p_table, SR_I_DUMP_COLUMN_TYPE | SR_I_DUMP_COLUMN_DEFAULT);
    EXPECT_TRUE(HasLine(text, "    type(GARBAGE)")) << text;
    EXPECT_TRUE(HasLine(text, "    default_value: GARBAGE")) << text;
}

TEST_F(DumpTest, PrintfPrintsOnlyWithARequiredBit) {
    EXPECT_EQ(Capture([](FILE *p) { EXPECT_EQ(sr_i_printf(0x10, 0x0F, p, "x%d", 1), 0); }), "");
    EXPECT_EQ(Capture([](FILE *p) { EXPECT_EQ(sr_i_printf(0x18, 0x08, p, "x%d", 12), 3); }), "x12");
}

TEST_F(DumpTest, StorageLinesHoldWidthWordsGroupedByFour) {
    unsigned char bytes[70];
    for (int i = 0; i < 70; ++i) bytes[i] = static_cast<unsigned char>(i);
    const std::string text =
        Capture([&](FILE *p) { sr_i_dump_storage(bytes, 70, 16, ">>", p, 0x4, 0x4); });
    const std::vector<std::string> lines = Lines(text);
    ASSERT_EQ(lines.size(), 2u);
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, ">>0x%.8lx ",
                  static_cast<unsigned long>(reinterpret_cast<uintptr_t>(bytes)));
    EXPECT_EQ(lines[0].rfind(prefix, 0), 0u);
    EXPECT_EQ(lines[0].substr(std::strlen(prefix), 18), "00010203 04050607 ");
    // 64 bytes: 16 groups of 8 hex digits and a blank.
    EXPECT_EQ(lines[0].size(), std::strlen(prefix) + 16 * 9);
    std::snprintf(prefix, sizeof prefix, ">>0x%.8lx ",
                  static_cast<unsigned long>(reinterpret_cast<uintptr_t>(bytes + 64)));
    EXPECT_EQ(lines[1], std::string(prefix) + "40414243 4445");
    // The last line is not ended: the caller ends it.
    EXPECT_NE(text.back(), '\n');
    EXPECT_EQ(Capture([&](FILE *p) { sr_i_dump_storage(bytes, 70, 16, ">>", p, 0x4, 0x8); }), "");
}

TEST_F(DumpTest, CountersAndStateLinesFollowTheirBits) {
    sr_i_table_t *p_table = Table("/d/c", {Column("k", QX_INT32, SR_PRIMARY_KEY)});
    const std::string text =
        Dump(p_table, SR_I_DUMP_REFERENCES | SR_I_DUMP_TOTAL_COLUMNS | SR_I_DUMP_ROW_COUNTS |
                          SR_I_DUMP_CHANGE_COUNTER | SR_I_DUMP_IMPLICITLY_CONTROLLED |
                          SR_I_DUMP_VARIABLE_LENGTH_COLUMNS | SR_I_DUMP_FILE_STATE);
    EXPECT_TRUE(HasLine(text, "  references(1)")) << text;
    EXPECT_TRUE(HasLine(text, "  total_columns(1)"));
    EXPECT_TRUE(HasLine(text, "  total_variable_length_columns(0)"));
    EXPECT_TRUE(HasLine(text, "  total_applied_rows(0) total_committed_rows(0) maximum_rows(100)"));
    EXPECT_TRUE(HasLine(text, "  applied_deletions(0)"));
    EXPECT_TRUE(HasLine(text, "  change_counter(1)"));
    EXPECT_TRUE(HasLine(text, "  implicitly_controlled(1)"));
    EXPECT_TRUE(HasLine(text, "  mode(2)"));
    EXPECT_TRUE(HasLine(text, "  file_fd(-1)"));
    EXPECT_TRUE(HasLine(text, "  p_persistent_table_registry_path()"));
    EXPECT_FALSE(HasLine(text, "  p_name(/d/c)"));
    EXPECT_EQ(text.find("applied_change_counter"), std::string::npos);
    EXPECT_EQ(text.find("p_rows_fixed_index"), std::string::npos);
}

TEST_F(DumpTest, DefaultValuesPrintByType) {
    std::vector<sr_column_t> columns = {
        Column("k", QX_INT32, SR_PRIMARY_KEY), Column("i", QX_INT64, SR_STANDARD),
        Column("s", QX_CHAR_PTR, SR_STANDARD), Column("b", QX_BINARY_PTR, SR_STANDARD)};
    columns[1].default_value.val_int64 = -5000000000ll;
    columns[2].default_value.ptr_char = arena_.text("dflt");
    qx_binary_t *p_binary = static_cast<qx_binary_t *>(arena_.alloc(QX_BINARY_SIZE(3)));
    p_binary->length = 3;
    p_binary->data[0] = 0xAB;
    p_binary->data[1] = 0xCD;
    p_binary->data[2] = 0xEF;
    columns[3].default_value.ptr_binary = p_binary;
    sr_i_table_t *p_table = Table("/d/v", columns);
    const std::vector<std::string> lines = Lines(Dump(p_table, SR_I_DUMP_COLUMN_DEFAULT));
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[1], "    default_value: 0");
    EXPECT_EQ(lines[2], "    default_value: -5000000000");
    EXPECT_EQ(lines[3], "    default_value: dflt");
    EXPECT_EQ(lines[4], "    default_value: length(7), data:");
    // The binary's protocol form: its length word (3) and its bytes.
    EXPECT_NE(lines[5].find(" 03000000 abcdef"), std::string::npos) << lines[5];
}

TEST_F(DumpTest, RowsShowTheirRecordsAndColumnValues) {
    sr_i_table_t *p_table = Table(
        "/d/r", {Column("k", QX_INT32, SR_PRIMARY_KEY), Column("s", QX_CHAR_PTR, SR_STANDARD)});
    p_table->implicitly_controlled = 0;  // keep the added row uncommitted
    qx_value_t key, text;
    key.val_uint64 = 0;
    key.val_int32 = 42;
    text.ptr_char = arena_.text("hello");
    qx_char_ptr_t names[] = {arena_.text("k"), arena_.text("s")};
    qx_value_t *values[] = {&key, &text};
    ASSERT_EQ(sr_add_row_1(p_table, names, values, 2), 0);
    const std::string text_dump =
        Dump(p_table, SR_I_DUMP_ROWS | SR_I_DUMP_APPLIED_RECORDS | SR_I_DUMP_COMMITTED_RECORDS);
    const std::vector<std::string> lines = Lines(text_dump);
    ASSERT_EQ(lines.size(), 6u) << text_dump;
    EXPECT_EQ(lines[1].rfind("  row(0) p_applied(0x", 0), 0u);
    EXPECT_NE(lines[1].find(" p_committed(0x0) "), std::string::npos);
    EXPECT_NE(lines[1].find(" file_offset(0) applied_file_offset(0)"), std::string::npos);
    EXPECT_EQ(lines[2], "    APPLIED ROW RECORD: replaces_offset(0), COLUMN VALUES:");
    EXPECT_EQ(lines[3], "      k(QX_INT32): 42");
    EXPECT_EQ(lines[4], "      s(QX_CHAR_PTR): hello");
    EXPECT_EQ(lines[5], "    COMMITTED ROW RECORD: NONE");
}

TEST_F(DumpTest, PoolDumpTotalsAgreeWithThePool) {
    sr_i_table_t *p_table = Table(
        "/d/p", {Column("k", QX_INT32, SR_PRIMARY_KEY), Column("s", QX_CHAR_PTR, SR_STANDARD)});
    qx_char_ptr_t names[] = {arena_.text("k"), arena_.text("s")};
    for (int i = 0; i < 20; ++i) {
        qx_value_t key, text;
        key.val_uint64 = 0;
        key.val_int32 = i;
        text.ptr_char = arena_.text(std::string(static_cast<size_t>(i) * 7, 'x'));
        qx_value_t *values[] = {&key, &text};
        ASSERT_EQ(sr_add_row_1(p_table, names, values, 2), 0);
    }
    ASSERT_EQ(sr_delete_row_by_index_1(p_table, 4), 0);
    const std::string text = Dump(p_table, SR_I_DUMP_RECORD_BUFFER_POOL);
    char line[96];
    std::snprintf(line, sizeof line, "  cumulative_total_bytes(%u)",
                  p_table->record_buffer_pool.total_bytes);
    EXPECT_TRUE(HasLine(text, line)) << text;
    std::snprintf(line, sizeof line, "  cumulative_used_bytes(%u)",
                  p_table->record_buffer_pool.used_bytes);
    EXPECT_TRUE(HasLine(text, line)) << text;
    int records = 0;
    for (const std::string &l : Lines(text)) records += l.rfind("    record(", 0) == 0;
    EXPECT_GE(records, 21);  // the metadata record, the live rows and free space
}

TEST_F(DumpTest, ApplicationMetadataShowsBothVersions) {
    sr_i_table_t *p_table = Table("/d/a", {Column("k", QX_INT32, SR_PRIMARY_KEY)});
    char data[] = "abc";
    ASSERT_EQ(sr_i_set_application_metadata(p_table->p_application_metadata, 7, 3, data), 0);
    const std::vector<std::string> lines = Lines(Dump(p_table, SR_I_DUMP_APPLICATION_METADATA));
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(lines[2], "    max_elements(1)");
    EXPECT_EQ(lines[3], "    total_elements(1)");
    EXPECT_EQ(lines[4].rfind("      0: type(7) p_applied(0x", 0), 0u);
    EXPECT_EQ(lines[5], "        APPLIED: length(3), data:");
    EXPECT_NE(lines[6].find(" 616263"), std::string::npos);
    EXPECT_EQ(lines[7], "        COMMITTED: NONE");
}

TEST_F(DumpTest, TreeDumpGoesToStandardOutputWithTablesAndMountPoints) {
    qxtest::TempDir dir;
    ASSERT_EQ(sr_mount_local_tree_1(tree_, arena_.text("/m"), arena_.text(dir.path()), 1), 0);
    Table("/d/one", {Column("k", QX_INT32, SR_PRIMARY_KEY)});
    Table("/m/two", {Column("k", QX_INT32, SR_PRIMARY_KEY)});
    const std::string out_path = dir.file("stdout.txt");
    std::fflush(stdout);
    const int saved = dup(1);
    FILE *p_file = std::fopen(out_path.c_str(), "w");
    ASSERT_NE(p_file, nullptr);
    dup2(fileno(p_file), 1);
    EXPECT_EQ(sr_i_dump_tree(static_cast<sr_i_tree_t *>(tree_)), 0);
    std::fflush(stdout);
    dup2(saved, 1);
    close(saved);
    std::fclose(p_file);
    FILE *p_in = std::fopen(out_path.c_str(), "r");
    std::string text;
    for (int c; (c = std::fgetc(p_in)) != EOF;) text += static_cast<char>(c);
    std::fclose(p_in);
    const std::vector<std::string> lines = Lines(text);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0].rfind("Tree p_tree(0x", 0), 0u);
    EXPECT_TRUE(HasLine(text, "  p_name(/d/one)")) << text;
    EXPECT_TRUE(HasLine(text, "  p_name(" + dir.file("two") + ")"));
    EXPECT_TRUE(HasLine(text, "    p_name(/m/)"));
    EXPECT_TRUE(HasLine(text, "    p_filesystem_path(" + dir.path() + ")"));
    EXPECT_EQ(lines.back().rfind("  p_from_table_string_conversion_handle(0x", 0), 0u);
    // Every table is dumped with every detail.
    int tables = 0;
    for (const std::string &l : lines) tables += l.rfind("Table p_table(0x", 0) == 0;
    EXPECT_EQ(tables, 2);
    EXPECT_TRUE(HasLine(text, "  p_persistent_table_registry_path(/m/two)"));
}

// The pool numbers of a new table file with two int32 columns: a 120-byte
// file (metadata record 96, commit record 24), a first pool buffer of 8,420
// bytes (a hundred times the 84 data bytes asked for, plus 20) of which 116
// are used, and the metadata record first in it.  A row of an int32 key, a
// uint32, an int64 and "one" adds a 52-byte record: values end to end.
TEST_F(DumpTest, NewTwoColumnFileAndItsPoolHaveTheFormatsNumbers) {
    qxtest::TempDir dir;
    ASSERT_EQ(sr_mount_local_tree_1(tree_, arena_.text("/m"), arena_.text(dir.path()), 1), 0);
    sr_i_table_t *p_table =
        Table("/m/t", {Column("k", QX_INT32, SR_PRIMARY_KEY), Column("v", QX_INT32, SR_STANDARD)});
    ASSERT_NE(p_table, nullptr);
    struct stat st;
    ASSERT_EQ(stat(dir.file("t").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 120);
    const std::string text = Dump(p_table, SR_I_DUMP_RECORD_BUFFER_POOL);
    EXPECT_TRUE(HasLine(text, "  total_bytes(8420)")) << text;
    EXPECT_TRUE(HasLine(text, "  used_bytes(116)")) << text;
    std::string first;
    for (const std::string &line : Lines(text)) {
        if (first.empty() && line.rfind("    record(", 0) == 0) first = line;
    }
    EXPECT_EQ(first.rfind("    record(0:", 0), 0u) << text;
    EXPECT_NE(first.find("length(96) type(1)"), std::string::npos) << text;
    EXPECT_EQ(sr_close_table_1(p_table), 0);

    p_table =
        Table("/m/r", {Column("k", QX_INT32, SR_PRIMARY_KEY), Column("u", QX_UINT32, SR_STANDARD),
                       Column("i", QX_INT64, SR_STANDARD), Column("s", QX_CHAR_PTR, SR_STANDARD)});
    ASSERT_NE(p_table, nullptr);
    ASSERT_EQ(stat(dir.file("r").c_str(), &st), 0);
    const off_t created = st.st_size;
    qx_value_t values[4];
    values[0].val_int32 = 1;
    values[1].val_uint32 = 2;
    values[2].val_int64 = 3;
    values[3].ptr_char = arena_.text("one");
    qx_value_t *p_values[4] = {&values[0], &values[1], &values[2], &values[3]};
    qx_char_ptr_t names[4] = {arena_.text("k"), arena_.text("u"), arena_.text("i"),
                              arena_.text("s")};
    ASSERT_EQ(sr_add_row_1(p_table, names, p_values, 4), 0);
    ASSERT_EQ(stat(dir.file("r").c_str(), &st), 0);
    EXPECT_EQ(st.st_size - created, 52 + 24);  // the row and the new commit record
    EXPECT_EQ(sr_i_record_length(p_table->p_rows_fixed_index[0].p_committed - 12), 52u);
    EXPECT_EQ(sr_close_table_1(p_table), 0);
}

}  // namespace
