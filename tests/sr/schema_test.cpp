// Schema changes on open tables: adding, deleting and renaming columns and
// changing defaults rewrite the table file whole and show every handle the
// new columns; refusals and failures leave the table as it was; overlays
// change memory only.
#include <errno.h>

#include <string>
#include <vector>

#include "sr/rows_test_util.h"

namespace qxtest {
namespace {

class SchemaTest : public RowsTest {
  protected:
    // /m/t (or a transient path) with rows 1..3: ("v<k>", k).
    sr_i_table_t *Filled(const std::string &path = "/m/t", int mode = SR_MODE_WRITE,
                         bool hashed = false) {
        sr_i_table_t *p_table = Make(path, mode, hashed);
        for (qx_int64_t k = 1; k <= 3; ++k) {
            EXPECT_EQ(
                AddRow(p_table, k, ("v" + std::to_string(k)).c_str(), static_cast<qx_int32_t>(k)),
                0);
        }
        if ((mode & SR_MODE_EXPLICIT_CONTROL) != 0) {
            EXPECT_EQ(ApplyCommit(p_table), 0);
        }
        return p_table;
    }

    sr_column_t Column(const char *name, qx_data_type_t type, qx_value_t default_value) {
        sr_column_t c{};
        c.name = Text(name);
        c.type = type;
        c.qualifier = SR_STANDARD;
        c.default_value = default_value;
        return c;
    }

    std::vector<std::string> ColumnNames(sr_i_table_t *p_table) {
        std::vector<std::string> names;
        for (qx_uint32_t c = 0; c < p_table->total_columns; ++c) {
            names.push_back(p_table->p_columns[c].name);
        }
        return names;
    }

    // The record types of a table file, in order, and whether they end
    // exactly at its end.
    std::vector<qx_int32_t> RecordTypes(const std::string &name, bool *p_exact) {
        std::string bytes = ReadBytes(File(name));
        std::vector<qx_int32_t> types;
        size_t at = 0;
        while (at + 12 <= bytes.size()) {
            qx_uint32_t length = U32At(bytes, at);
            types.push_back(static_cast<qx_int32_t>(U32At(bytes, at + 8)));
            if (length < 12) break;
            at += length;
        }
        *p_exact = at == bytes.size();
        return types;
    }

    sr_i_table_t *Reopen(sr_i_table_t *p_table, const std::string &path) {
        while (p_table->references > 1) sr_close_table_1(p_table);
        EXPECT_EQ(sr_close_table_1(p_table), 0);
        sr_opaque_handle_t handle = nullptr;
        EXPECT_EQ(sr_open_table_1(tree_, Text(path), SR_MODE_WRITE, &handle), 0);
        return static_cast<sr_i_table_t *>(handle);
    }

    qx_uint64_t Counter(sr_i_table_t *p_table) {
        sr_table_metadata_t *p_metadata = nullptr;
        EXPECT_EQ(sr_get_table_metadata_1(p_table, 0, &p_metadata), 0);
        qx_uint64_t counter = p_metadata != nullptr ? p_metadata->table_change_counter : 0;
        sr_free_table_metadata_1(p_metadata);
        return counter;
    }
};

TEST_F(SchemaTest, AddedColumnIsInEveryHandleAndTheFileIsRewrittenWhole) {
    sr_i_table_t *p_table = Filled();
    sr_opaque_handle_t second = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/t"), SR_MODE_WRITE, &second), 0);
    ASSERT_EQ(second, p_table);
    // Many appends first, so that the old file holds dead records.
    for (int i = 0; i < 5; ++i) {
        qx_value_t v = I32(100 + i);
        ASSERT_EQ(sr_set_field_by_key_1(p_table, I64(2), Text("n"), &v), 0);
    }
    const qx_uint64_t counter = Counter(p_table);

    sr_column_t extra = Column("extra", QX_INT32, I32(42));
    sr_column_t label = Column("label", QX_CHAR_PTR, Str("none"));
    sr_column_t added[] = {extra, label};
    ASSERT_EQ(sr_add_columns_1(p_table, added, 2), 0);

    bool exact = false;
    EXPECT_EQ(RecordTypes("t", &exact),
              (std::vector<qx_int32_t>{SR_I_RECORD_TYPE_METADATA, SR_I_RECORD_TYPE_ROW,
                                       SR_I_RECORD_TYPE_ROW, SR_I_RECORD_TYPE_ROW,
                                       SR_I_RECORD_TYPE_COMMIT}));
    EXPECT_TRUE(exact);
    EXPECT_FALSE(Exists(File("t.rewrite")));

    for (sr_opaque_handle_t handle : {static_cast<sr_opaque_handle_t>(p_table), second}) {
        for (qx_int64_t k = 1; k <= 3; ++k) {
            qx_value_t v{};
            ASSERT_EQ(sr_get_field_by_key_1(handle, I64(k), Text("extra"), &v), 0);
            EXPECT_EQ(v.val_int32, 42);
            ASSERT_EQ(sr_get_field_by_key_1(handle, I64(k), Text("label"), &v), 0);
            EXPECT_STREQ(v.ptr_char, "none");
        }
    }
    EXPECT_EQ(TextOf(p_table, 3), "v3");
    EXPECT_EQ(IntOf(p_table, 2), 104);
    // One committed change: the counter moves on by one, in memory and file.
    EXPECT_EQ(Counter(p_table), counter + 1);

    // The table goes on working on its new file, and still checks its keys.
    EXPECT_EQ(Add(p_table, {{"k", I64(1)}}), 108);
    ASSERT_EQ(Add(p_table, {{"k", I64(9)}, {"extra", I32(5)}}), 0);
    p_table = Reopen(p_table, "/m/t");
    EXPECT_EQ(Counter(p_table), counter + 2);
    EXPECT_EQ(ColumnNames(p_table), (std::vector<std::string>{"k", "s", "n", "extra", "label"}));
    EXPECT_EQ(p_table->p_columns[0].qualifier, static_cast<sr_qualifier_t>(SR_PRIMARY_KEY));
    qx_value_t v{};
    ASSERT_EQ(sr_get_field_by_key_1(p_table, I64(9), Text("extra"), &v), 0);
    EXPECT_EQ(v.val_int32, 5);
    ASSERT_EQ(sr_get_field_by_key_1(p_table, I64(1), Text("label"), &v), 0);
    EXPECT_STREQ(v.ptr_char, "none");
}

TEST_F(SchemaTest, TablesWithAnythingPendingOrAppliedAreRefused) {
    sr_i_table_t *p_table = Filled("/m/t", SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL);
    const std::string before = ReadBytes(File("t"));
    sr_column_t extra = Column("extra", QX_INT32, I32(1));
    ASSERT_EQ(AddRow(p_table, 10, "pending", 1), 0);
    EXPECT_EQ(sr_add_columns_1(p_table, &extra, 1), 209);
    EXPECT_EQ(sr_change_column_name_1(p_table, Text("s"), Text("t")), 209);
    char *names[] = {Text("s")};
    EXPECT_EQ(sr_delete_columns_1(p_table, names, 1), 209);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    EXPECT_EQ(sr_change_default_value_1(p_table, Text("n"), I32(3)), 209);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(sr_add_columns_1(p_table, &extra, 1), 0);
    EXPECT_NE(ReadBytes(File("t")), before);

    // A table opened for reading cannot change its columns.
    sr_i_table_t *p_memory = Filled("/t/r");
    sr_close_table_1(p_memory);
    sr_opaque_handle_t reader = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/t/r"), SR_MODE_READ, &reader), 0);
    EXPECT_EQ(sr_add_columns_1(reader, &extra, 1), 206);
}

TEST_F(SchemaTest, RenamingAnUnknownColumnChangesNothing) {
    sr_i_table_t *p_table = Filled();
    const std::string before = ReadBytes(File("t"));
    const qx_uint64_t counter = Counter(p_table);
    EXPECT_EQ(sr_change_column_name_1(p_table, Text("nope"), Text("other")), 105);
    EXPECT_EQ(sr_change_default_value_1(p_table, Text("S"), Str("x")), 105);
    EXPECT_EQ(ReadBytes(File("t")), before);
    EXPECT_EQ(Counter(p_table), counter);
    EXPECT_EQ(ColumnNames(p_table), (std::vector<std::string>{"k", "s", "n"}));
    EXPECT_EQ(sr_change_column_name_1(p_table, Text("s"), Text("n")), 106);
    EXPECT_EQ(sr_change_column_name_1(p_table, Text("s"), Text("9bad")), 105);
    EXPECT_EQ(sr_change_column_name_1(p_table, nullptr, Text("x")), 101);
    EXPECT_EQ(sr_change_column_name_1(nullptr, Text("s"), Text("x")), 100);
    EXPECT_EQ(ReadBytes(File("t")), before);
}

TEST_F(SchemaTest, RenamedColumnKeepsItsValues) {
    sr_i_table_t *p_table = Filled("/m/t", SR_MODE_WRITE, true);
    ASSERT_EQ(sr_change_column_name_1(p_table, Text("s"), Text("text")), 0);
    qx_value_t v{};
    ASSERT_EQ(sr_get_field_by_key_1(p_table, I64(2), Text("text"), &v), 0);
    EXPECT_STREQ(v.ptr_char, "v2");
    EXPECT_EQ(sr_get_field_by_key_1(p_table, I64(2), Text("s"), &v), 105);
    // The hashed key index was rebuilt with the rows.
    ASSERT_NE(p_table->p_rows_hash_table, nullptr);
    EXPECT_EQ(FixedOf(p_table, 3), p_table->p_rows_packed_index[2]);
    EXPECT_EQ(Add(p_table, {{"k", I64(3)}}), 108);
}

TEST_F(SchemaTest, ChangedDefaultAppliesToNewRowsOnly) {
    sr_i_table_t *p_table = Filled();
    ASSERT_EQ(sr_change_default_value_1(p_table, Text("s"), Str("fresh")), 0);
    ASSERT_EQ(Add(p_table, {{"k", I64(7)}}), 0);
    EXPECT_EQ(TextOf(p_table, 7), "fresh");
    EXPECT_EQ(TextOf(p_table, 1), "v1");
    p_table = Reopen(p_table, "/m/t");
    ASSERT_EQ(Add(p_table, {{"k", I64(8)}}), 0);
    EXPECT_EQ(TextOf(p_table, 8), "fresh");
}

TEST_F(SchemaTest, DeletedColumnsAreGoneFromRowsAndFile) {
    sr_i_table_t *p_table = Filled();
    char *names[] = {Text("s")};
    ASSERT_EQ(sr_delete_columns_1(p_table, names, 1), 0);
    EXPECT_EQ(ColumnNames(p_table), (std::vector<std::string>{"k", "n"}));
    EXPECT_EQ(IntOf(p_table, 3), 3);
    bool exact = false;
    EXPECT_EQ(RecordTypes("t", &exact).size(), 5u);
    EXPECT_TRUE(exact);
    p_table = Reopen(p_table, "/m/t");
    EXPECT_EQ(ColumnNames(p_table), (std::vector<std::string>{"k", "n"}));
    EXPECT_EQ(IntOf(p_table, 1), 1);

    char *key[] = {Text("k")};
    EXPECT_EQ(sr_delete_columns_1(p_table, key, 1), 107);
    char *unknown[] = {Text("zz")};
    EXPECT_EQ(sr_delete_columns_1(p_table, unknown, 1), 105);
    EXPECT_EQ(sr_delete_columns_1(p_table, names, 0), 104);
    EXPECT_EQ(sr_delete_columns_1(p_table, nullptr, 1), 101);
    // Every column but the key may go.
    char *last[] = {Text("n")};
    ASSERT_EQ(sr_delete_columns_1(p_table, last, 1), 0);
    EXPECT_EQ(ColumnNames(p_table), (std::vector<std::string>{"k"}));
    EXPECT_EQ(p_table->total_committed_rows, 3u);
}

TEST_F(SchemaTest, MemoryTablesChangeTheirColumnsToo) {
    sr_i_table_t *p_table = Filled("/t/mem");
    const qx_uint64_t counter = Counter(p_table);
    sr_column_t extra = Column("extra", QX_INT64, I64(-1));
    ASSERT_EQ(sr_add_columns_1(p_table, &extra, 1), 0);
    qx_value_t v{};
    ASSERT_EQ(sr_get_field_by_key_1(p_table, I64(1), Text("extra"), &v), 0);
    EXPECT_EQ(v.val_int64, -1);
    EXPECT_EQ(Counter(p_table), counter + 1);
    EXPECT_EQ(p_table->p_file_path, nullptr);
}

TEST_F(SchemaTest, FailedRewriteLeavesTheOldTableAndFile) {
    sr_i_table_t *p_table = Filled();
    const std::string before = ReadBytes(File("t"));
    sr_column_t extra = Column("extra", QX_INT32, I32(1));
    sr_i_file_ops.p_fdatasync = [](int) -> int {
        errno = ENOSPC;
        return -1;
    };
    EXPECT_EQ(sr_add_columns_1(p_table, &extra, 1), 13);
    sr_i_file_ops = sr_i_default_file_ops;
    EXPECT_EQ(ReadBytes(File("t")), before);
    EXPECT_FALSE(Exists(File("t.rewrite")));
    EXPECT_EQ(ColumnNames(p_table), (std::vector<std::string>{"k", "s", "n"}));
    EXPECT_EQ(TextOf(p_table, 2), "v2");
    // Still the file's writer, on the old descriptor.
    ASSERT_EQ(AddRow(p_table, 4, "v4", 4), 0);
    p_table = Reopen(p_table, "/m/t");
    EXPECT_EQ(TextOf(p_table, 4), "v4");

    // Memory failures anywhere in the rebuild: a code and the old table.
    for (qx_int64_t n = 0; n < 60; ++n) {
        sr_i_alloc_fail_after(n);
        qx_int32_t rc = sr_add_columns_1(p_table, &extra, 1);
        const bool failed = sr_i_alloc_failure_pending() == 0;
        sr_i_alloc_fail_after(-1);
        if (rc == 0) break;
        EXPECT_TRUE(failed) << n;
        EXPECT_EQ(ColumnNames(p_table), (std::vector<std::string>{"k", "s", "n"})) << n;
        EXPECT_EQ(TextOf(p_table, 4), "v4") << n;
    }
}

TEST_F(SchemaTest, OverlaidDefaultIsSeenAtOnceAndGoneAfterReopening) {
    sr_i_table_t *p_table = Filled();
    const std::string before = ReadBytes(File("t"));
    ASSERT_EQ(sr_overlay_memory_default_value_1(p_table, Text("s"), Str("overlaid text")), 0);
    ASSERT_EQ(sr_overlay_memory_default_value_1(p_table, Text("n"), I32(77)), 0);
    EXPECT_EQ(ReadBytes(File("t")), before);
    sr_table_metadata_t *p_metadata = nullptr;
    ASSERT_EQ(sr_get_table_metadata_1(p_table, -1, &p_metadata), 0);
    EXPECT_STREQ(p_metadata->column_definitions[1].default_value.ptr_char, "overlaid text");
    EXPECT_STREQ(p_metadata->column_definitions[1].name, "s");
    EXPECT_EQ(p_metadata->column_definitions[2].default_value.val_int32, 77);
    sr_free_table_metadata_1(p_metadata);
    ASSERT_EQ(Add(p_table, {{"k", I64(5)}}), 0);
    EXPECT_EQ(TextOf(p_table, 5), "overlaid text");
    EXPECT_EQ(IntOf(p_table, 5), 77);

    p_table = Reopen(p_table, "/m/t");
    EXPECT_EQ(TextOf(p_table, 5), "overlaid text");  // the row keeps its value
    ASSERT_EQ(Add(p_table, {{"k", I64(6)}}), 0);
    EXPECT_EQ(TextOf(p_table, 6), "dflt");
    EXPECT_EQ(IntOf(p_table, 6), 7);
    EXPECT_EQ(sr_overlay_memory_default_value_1(p_table, Text("none"), I32(1)), 105);
    EXPECT_EQ(sr_overlay_memory_default_value_1(p_table, nullptr, I32(1)), 101);
}

// A schema change builds the table anew from the file's definitions: the
// overlays end with the table they were made on, in memory as in the file,
// for surviving columns too.
TEST_F(SchemaTest, ASchemaChangeEndsTheOverlays) {
    sr_i_table_t *p_table = Filled();
    ASSERT_EQ(sr_overlay_memory_default_value_1(p_table, Text("s"), Str("overlaid text")), 0);
    ASSERT_EQ(sr_overlay_memory_default_value_1(p_table, Text("n"), I32(77)), 0);
    ASSERT_EQ(sr_change_column_name_1(p_table, Text("n"), Text("m")), 0);
    ASSERT_EQ(Add(p_table, {{"k", I64(6)}}), 0);
    EXPECT_EQ(TextOf(p_table, 6), "dflt");
    sr_table_metadata_t *p_metadata = nullptr;
    ASSERT_EQ(sr_get_table_metadata_1(p_table, -1, &p_metadata), 0);
    EXPECT_STREQ(p_metadata->column_definitions[1].default_value.ptr_char, "dflt");
    EXPECT_EQ(p_metadata->column_definitions[2].default_value.val_int32, 7);
    sr_free_table_metadata_1(p_metadata);
}

// An overlay lasts while the table is open: a rewrite of the file and a copy
// into a file, which both write the metadata record, write it without them.
TEST_F(SchemaTest, OverlaysNeverReachTheFileThroughARewriteOrACopy) {
    for (bool copy : {false, true}) {
        SCOPED_TRACE(copy ? "copy" : "rewrite");
        const std::string source = copy ? "/t/o" : "/m/o";
        sr_i_table_t *p_table = Filled(source, SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL);
        ASSERT_EQ(sr_overlay_memory_default_value_1(p_table, Text("s"), Str("overlaid text")), 0);
        ASSERT_EQ(sr_overlay_memory_default_value_1(p_table, Text("n"), I32(77)), 0);
        ASSERT_EQ(
            sr_overlay_memory_column_qualifier_1(p_table, Text("s"), SR_STANDARD | SR_INVISIBLE),
            0);
        ASSERT_EQ(AddRow(p_table, 9, "x", 9), 0);
        if (copy) {
            ASSERT_EQ(sr_copy_table_by_handle_1(p_table, Text("/m/o2"), 0), 0);
        } else {
            ASSERT_EQ(sr_i_apply(p_table, 1, 0), 0);  // a complete new image
            ASSERT_EQ(sr_i_commit(p_table), 0);
        }
        // Still overlaid in memory.
        EXPECT_EQ(sr_i_load_column(&p_table->p_columns[1]).qualifier,
                  SR_STANDARD | SR_INVISIBLE);
        sr_i_table_t *p_file = nullptr;
        if (copy) {
            ASSERT_EQ(sr_close_table_1(p_table), 0);
            ASSERT_EQ(sr_delete_table_1(tree_, Text(source)), 0);
            sr_opaque_handle_t handle = nullptr;
            ASSERT_EQ(sr_open_table_1(tree_, Text("/m/o2"), SR_MODE_WRITE, &handle), 0);
            p_file = static_cast<sr_i_table_t *>(handle);
        } else {
            p_file = Reopen(p_table, "/m/o");
        }
        ASSERT_NE(p_file, nullptr);
        ASSERT_EQ(Add(p_file, {{"k", I64(6)}}), 0);
        EXPECT_EQ(TextOf(p_file, 9), "x");
        EXPECT_EQ(TextOf(p_file, 6), "dflt");
        EXPECT_EQ(IntOf(p_file, 6), 7);
        EXPECT_EQ(sr_i_load_column(&p_file->p_columns[1]).qualifier, SR_STANDARD);
        ASSERT_EQ(sr_close_table_1(p_file), 0);
    }
}

TEST_F(SchemaTest, OverlaidQualifierChangesOnlyModifiersOfStandardColumns) {
    sr_i_table_t *p_table = Filled();
    ASSERT_EQ(sr_overlay_memory_column_qualifier_1(p_table, Text("s"), SR_STANDARD | SR_INVISIBLE),
              0);
    sr_table_metadata_t *p_metadata = nullptr;
    ASSERT_EQ(sr_get_table_metadata_1(p_table, 1, &p_metadata), 0);
    EXPECT_EQ(p_metadata->number_of_columns, 2u);
    sr_free_table_metadata_1(p_metadata);
    EXPECT_EQ(sr_overlay_memory_column_qualifier_1(p_table, Text("k"), SR_STANDARD), 105);
    EXPECT_EQ(sr_overlay_memory_column_qualifier_1(p_table, Text("n"), SR_PRIMARY_KEY), 105);
    EXPECT_EQ(sr_overlay_memory_column_qualifier_1(p_table, Text("zz"), SR_STANDARD), 105);
    p_table = Reopen(p_table, "/m/t");
    EXPECT_EQ(p_table->p_columns[1].qualifier, static_cast<sr_qualifier_t>(SR_STANDARD));
}

}  // namespace
}  // namespace qxtest
