// Schema changes rewrite the file for every handle; overlays change memory only.
#include <errno.h>

#include <algorithm>
#include <string>
#include <vector>

#include "sr/rows_test_util.h"

namespace qxtest {
namespace {

class SchemaTest : public RowsTest {
  protected:
    // Rows 1..3: ("v<k>", k).
    sr_i_table_t *Filled(int mode = SR_MODE_WRITE) {
        sr_i_table_t *p_table = Make("/m/t", mode);
        for (qx_int32_t k = 1; k <= 3; ++k)
            EXPECT_EQ(AddRow(p_table, k, ("v" + std::to_string(k)).c_str(), k), 0);
        EXPECT_EQ((mode & SR_MODE_EXPLICIT_CONTROL) ? ApplyCommit(p_table) : 0, 0);
        return p_table;
    }
    sr_column_t Column(const char *name, qx_data_type_t type, qx_value_t default_value) {
        return {Text(name), type, SR_STANDARD, 0, nullptr, default_value};
    }
    struct Schema {  // column names, defaults as text, the change counter
        std::vector<std::string> names, defaults;
        qx_uint64_t counter = 0;
        bool operator==(const Schema &) const = default;
    };
    Schema SchemaOf(sr_opaque_handle_t table, qx_int32_t which = -1) {
        Schema schema;
        sr_table_metadata_t *p_metadata = nullptr;
        EXPECT_EQ(sr_get_table_metadata_1(table, which, &p_metadata), 0);
        if (p_metadata == nullptr) return schema;
        for (qx_uint32_t c = 0; c < p_metadata->number_of_columns; ++c) {
            const sr_column_t &column = p_metadata->column_definitions[c];
            schema.names.push_back(column.name);
            schema.defaults.push_back(column.type == QX_CHAR_PTR
                                          ? column.default_value.ptr_char
                                          : std::to_string(column.default_value.val_int32));
        }
        schema.counter = p_metadata->table_change_counter;
        sr_free_table_metadata_1(p_metadata);
        return schema;
    }
    // Defaults "overlaid text" and 77, and "s" invisible too if `invisible`.
    void Overlay(sr_i_table_t *p_table, bool invisible) {
        EXPECT_EQ(sr_overlay_memory_default_value_1(p_table, Text("s"), Str("overlaid text")), 0);
        EXPECT_EQ(sr_overlay_memory_default_value_1(p_table, Text("n"), I32(77)), 0);
        const qx_uint32_t qualifier = invisible ? SR_STANDARD | SR_INVISIBLE : SR_STANDARD;
        EXPECT_EQ(sr_overlay_memory_column_qualifier_1(p_table, Text("s"), qualifier), 0);
    }
    sr_i_table_t *Reopen(sr_i_table_t *p_table) {
        while (p_table->references > 1) sr_close_table_1(p_table);
        EXPECT_EQ(sr_close_table_1(p_table), 0);
        sr_opaque_handle_t handle = nullptr;
        EXPECT_EQ(sr_open_table_1(tree_, Text("/m/t"), SR_MODE_WRITE, &handle), 0);
        return static_cast<sr_i_table_t *>(handle);
    }
};

TEST_F(SchemaTest, AddedColumnsAreInEveryHandleAndTheFileIsRewrittenWhole) {
    sr_i_table_t *p_table = Filled();
    sr_opaque_handle_t second = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/t"), SR_MODE_WRITE, &second), 0);
    for (int i = 0; i < 5; ++i) {  // dead records in the old file
        qx_value_t v = I32(100 + i);
        ASSERT_EQ(sr_set_field_by_key_1(p_table, I64(2), Text("n"), &v), 0);
    }
    const qx_uint64_t counter = SchemaOf(p_table).counter;
    sr_column_t added[] = {Column("extra", QX_INT32, I32(42)),
                           Column("label", QX_CHAR_PTR, Str("none"))};
    ASSERT_EQ(sr_add_columns_1(p_table, added, 2), 0);
    // The file holds the metadata record, the rows and one commit record.
    const std::string bytes = ReadBytes(File("t"));
    std::vector<qx_int32_t> types;
    for (size_t at = 0; at < bytes.size(); at += std::max(U32At(bytes, at), 12u))
        types.push_back(static_cast<qx_int32_t>(U32At(bytes, at + 8)));
    EXPECT_EQ(types, (std::vector<qx_int32_t>{SR_I_RECORD_TYPE_METADATA, SR_I_RECORD_TYPE_ROW,
                                              SR_I_RECORD_TYPE_ROW, SR_I_RECORD_TYPE_ROW,
                                              SR_I_RECORD_TYPE_COMMIT}));
    EXPECT_FALSE(Exists(File("t.rewrite")));
    for (sr_opaque_handle_t handle : {static_cast<sr_opaque_handle_t>(p_table), second}) {
        EXPECT_EQ(Val(handle, 3, "extra").val_int32, 42);
        EXPECT_STREQ(Val(handle, 1, "label").ptr_char, "none");
    }
    EXPECT_EQ(Val(p_table, 2, "n").val_int32, 104);
    EXPECT_EQ(Add(p_table, {{"k", I64(1)}}), 108);  // the new table still checks its keys
    ASSERT_EQ(Add(p_table, {{"k", I64(9)}, {"extra", I32(5)}}), 0);
    p_table = Reopen(p_table);
    EXPECT_EQ(
        SchemaOf(p_table),
        (Schema{{"k", "s", "n", "extra", "label"}, {"0", "dflt", "7", "42", "none"}, counter + 2}));
    EXPECT_EQ(Val(p_table, 9, "extra").val_int32, 5);
}

TEST_F(SchemaTest, RefusalsChangeNothing) {
    sr_i_table_t *p_table = Filled(SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL);
    const std::string before = ReadBytes(File("t"));
    const Schema schema = SchemaOf(p_table);
    sr_column_t extra = Column("extra", QX_INT32, I32(1));
    char *s[] = {Text("s")}, *key[] = {Text("k")}, *unknown[] = {Text("zz")};
    EXPECT_EQ(sr_change_column_name_1(p_table, Text("nope"), Text("other")), 105);
    EXPECT_EQ(sr_change_default_value_1(p_table, Text("S"), Str("x")), 105);
    EXPECT_EQ(sr_change_column_name_1(p_table, Text("s"), Text("n")), 106);
    EXPECT_EQ(sr_change_column_name_1(p_table, Text("s"), Text("9bad")), 105);
    EXPECT_EQ(sr_delete_columns_1(p_table, key, 1), 107);
    EXPECT_EQ(sr_delete_columns_1(p_table, unknown, 1), 105);
    EXPECT_EQ(sr_delete_columns_1(p_table, s, 0), 104);
    EXPECT_EQ(ReadBytes(File("t")), before);
    EXPECT_EQ(SchemaOf(p_table), schema);
    // Anything pending or applied: 209.
    ASSERT_EQ(AddRow(p_table, 10, "pending", 1), 0);
    EXPECT_EQ(sr_add_columns_1(p_table, &extra, 1), 209);
    EXPECT_EQ(sr_change_column_name_1(p_table, Text("s"), Text("t")), 209);
    EXPECT_EQ(sr_delete_columns_1(p_table, s, 1), 209);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    EXPECT_EQ(sr_change_default_value_1(p_table, Text("n"), I32(3)), 209);
    ASSERT_EQ(sr_abort_1(p_table), 0);
}

TEST_F(SchemaTest, FailedRewriteLeavesTheOldTableAndFile) {
    sr_i_table_t *p_table = Filled();
    const std::string before = ReadBytes(File("t"));
    const Schema schema = SchemaOf(p_table);
    sr_column_t extra = Column("extra", QX_INT32, I32(1));
    sr_i_file_ops.p_fdatasync = [](int) -> int {
        errno = ENOSPC;
        return -1;
    };
    EXPECT_EQ(sr_add_columns_1(p_table, &extra, 1), 13);
    sr_i_file_ops = sr_i_default_file_ops;
    EXPECT_EQ(ReadBytes(File("t")), before);
    EXPECT_FALSE(Exists(File("t.rewrite")));
    EXPECT_EQ(SchemaOf(p_table), schema);
    ASSERT_EQ(AddRow(p_table, 4, "v4", 4), 0);  // still the file's writer, on the old descriptor
    p_table = Reopen(p_table);
    EXPECT_EQ(TextOf(p_table, 4), "v4");
    EachAllocationFailure([&] { return sr_add_columns_1(p_table, &extra, 1); },
                          [&] {
                              EXPECT_EQ(SchemaOf(p_table).names, schema.names);
                              EXPECT_EQ(TextOf(p_table, 4), "v4");
                          },
                          true);
}

TEST_F(SchemaTest, OverlaysAreSeenAtOnceAndEndWithTheTableOrASchemaChange) {
    sr_i_table_t *p_table = Filled();
    const std::string before = ReadBytes(File("t"));
    Overlay(p_table, true);
    EXPECT_EQ(sr_overlay_memory_default_value_1(p_table, Text("none"), I32(1)), 105);
    EXPECT_EQ(sr_overlay_memory_column_qualifier_1(p_table, Text("k"), SR_STANDARD), 105);
    EXPECT_EQ(sr_overlay_memory_column_qualifier_1(p_table, Text("n"), SR_PRIMARY_KEY), 105);
    EXPECT_EQ(sr_overlay_memory_column_qualifier_1(p_table, Text("zz"), SR_STANDARD), 105);
    EXPECT_EQ(ReadBytes(File("t")), before);
    EXPECT_EQ(SchemaOf(p_table).defaults, (std::vector<std::string>{"0", "overlaid text", "77"}));
    EXPECT_EQ(SchemaOf(p_table, 1).names.size(), 2u);  // no invisible column
    ASSERT_EQ(Add(p_table, {{"k", I64(5)}}), 0);
    EXPECT_EQ(TextOf(p_table, 5), "overlaid text");
    EXPECT_EQ(Val(p_table, 5, "n").val_int32, 77);
    p_table = Reopen(p_table);
    EXPECT_EQ(TextOf(p_table, 5), "overlaid text");  // the row keeps its value
    EXPECT_EQ(SchemaOf(p_table, 1).names.size(), 3u);
    ASSERT_EQ(Add(p_table, {{"k", I64(6)}}), 0);
    EXPECT_EQ(TextOf(p_table, 6), "dflt");
    // A schema change builds the table anew from the file's definitions.
    Overlay(p_table, false);
    ASSERT_EQ(sr_change_column_name_1(p_table, Text("n"), Text("m")), 0);
    ASSERT_EQ(Add(p_table, {{"k", I64(8)}}), 0);
    EXPECT_EQ(TextOf(p_table, 8), "dflt");
    EXPECT_EQ(SchemaOf(p_table).defaults, (std::vector<std::string>{"0", "dflt", "7"}));
}

}  // namespace
}  // namespace qxtest
