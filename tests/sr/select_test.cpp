// Selection: `$` items and their exact texts, expressions over every column
// type through the exported calls, rows skipped by per-row outcomes, deleting
// by criteria, the table sr_select_1 builds, duplicate keys through a hashed
// and an unhashed table, the committed view, and a randomized comparison of
// selections with the same predicate evaluated here on the model rows.
#include <gtest/gtest.h>
#include <search.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "sr/table_test_util.h"
#include "sr/test_util.h"
#include "sr_i.h"

namespace qxtest {
namespace {

// sr_i_select_printf through a variadic front: the code and the text.
struct Formatted {
    qx_int32_t rc;
    std::string text;
};

Formatted Format(const char *criteria, ...) {
    va_list ap;
    va_start(ap, criteria);
    char *p_out = nullptr;
    qx_int32_t rc = sr_i_select_printf(&p_out, const_cast<char *>(criteria), ap);
    va_end(ap);
    Formatted f{rc, p_out != nullptr ? std::string(p_out) : std::string()};
    free(p_out);
    return f;
}

qx_int32_t Selected(sr_opaque_handle_t table, qx_uint32_t visible, std::vector<qx_uint32_t> *p_out,
                    const char *criteria, ...) {
    va_list ap;
    va_start(ap, criteria);
    qx_uint32_t count = 0;
    qx_uint32_t *p_rows = nullptr;
    qx_int32_t rc =
        sr_get_selected_rows_v_1(table, const_cast<char *>(criteria), ap, visible, &count, &p_rows);
    va_end(ap);
    p_out->clear();
    if (rc == 0) p_out->assign(p_rows, p_rows + count);
    free(p_rows);
    return rc;
}

TEST(SelectPrintfTest, EveryItemFormatsAsItsType) {
    EXPECT_EQ("name == \"abc\" && x", Format("name == $S && x", "abc").text);
    EXPECT_EQ("-42 4000000000", Format("$I $UI", -42, 4000000000u).text);
    EXPECT_EQ(
        "-9000000000 18000000000000000000",
        Format("$L $UL", qx_int64_t{-9000000000LL}, qx_uint64_t{18000000000000000000ull}).text);
    // Single precision with six decimals, double precision shortest.
    EXPECT_EQ("1.500000 1.5 0.100000 0.1", Format("$F $D $F $D", 1.5f, 1.5, 0.1f, 0.1).text);
    EXPECT_EQ("-5 7 \"abc\" 3 4",
              Format("$i $ui $s $l $ul", -5, 7u, "abc", qx_int64_t{3}, qx_uint64_t{4}).text);
    EXPECT_EQ("\"abc\"", Format("$s", "abc").text);
    EXPECT_EQ("cost $\" and $'", Format("cost $\" and $'").text);
}

TEST(SelectPrintfTest, BinariesAndHandlesFormatAsTheirHexTexts) {
    qx_binary_t empty{};
    EXPECT_EQ("b == \"0x\"", Format("b == $B", &empty).text);
    alignas(8) unsigned char storage[16] = {};
    qx_binary_t *p_bin = reinterpret_cast<qx_binary_t *>(storage);
    p_bin->length = 3;
    p_bin->data[0] = 0xde;
    p_bin->data[1] = 0x0a;
    p_bin->data[2] = 0xff;
    EXPECT_EQ("\"0xde0aff\"", Format("$b", p_bin).text);
    qx_resource_handle_t handle{};
    qx_uint16_t fields[2] = {0x1, 0xab};
    memcpy(&handle.header, fields, 4);
    handle.id = {0x11111111u, 0x2u, 0xabcdu, 0xffffffffu};
    EXPECT_EQ("\"0x0001 0x00ab 0x11111111 0x00000002 0x0000abcd 0xffffffff\"",
              Format("$RH", &handle).text);
    EXPECT_EQ(Format("$RH", &handle).text, Format("$rh", &handle).text);
}

TEST(SelectPrintfTest, BadItemsFailWith109NamingTheWholeString) {
    for (const char *bad : {"k == $X", "k == $U", "k == $UX", "k == $R", "k == $Rx", "k == $"}) {
        Formatted f = Format(bad, 1, 2, 3);
        EXPECT_EQ(109, f.rc) << bad;
        LastError e = last_error();
        EXPECT_EQ(109, e.code);
        EXPECT_NE(std::string::npos, e.message.find(bad)) << e.message;
    }
}

TEST(SelectPrintfTest, LongResultsGrowPastTheFirstBuffer) {
    std::string tail(10000, 'x');
    std::string long_text(5000, 'y');
    Formatted f = Format(("$S" + tail + "$S").c_str(), "v", long_text.c_str());
    EXPECT_EQ(0, f.rc);
    EXPECT_EQ("\"v\"" + tail + "\"" + long_text + "\"", f.text);
}

// ---------------------------------------------------------------------------

// A table with one column of each kind the expressions test:
//   k INT64 key, name CHAR_PTR, n INT32, blob BINARY_PTR, owner
//   RSRC_HANDLE_PTR, info SD_PTR (level INT32, label CHAR_PTR),
//   nums INT32_ARRAY, f FLOAT32, u UINT64.
class SelectTest : public TableTest {
  protected:
    struct Model {
        qx_int64_t k;
        std::string name;
        qx_int32_t n;
        std::vector<unsigned char> blob;
        qx_uint32_t owner_id4;
        qx_int32_t level;
        std::string label;
        std::vector<qx_int32_t> nums;
        float f;
        qx_uint64_t u;
    };

    std::vector<sr_column_t> AllColumns(qx_uint32_t key_qualifier = SR_PRIMARY_KEY) {
        sd_def_.resize(offsetof(sr_sd_def_t, field_def) + 2 * sizeof(sr_sd_field_def_t));
        auto *p_def = reinterpret_cast<sr_sd_def_t *>(sd_def_.data());
        p_def->number_of_fields = 2;
        p_def->field_def[0].type = QX_INT32;
        p_def->field_def[0].name = Text("level");
        p_def->field_def[1].type = QX_CHAR_PTR;
        p_def->field_def[1].name = Text("label");
        const struct {
            const char *name;
            qx_data_type_t type;
        } kinds[] = {{"k", QX_INT64},
                     {"name", QX_CHAR_PTR},
                     {"n", QX_INT32},
                     {"blob", QX_BINARY_PTR},
                     {"owner", QX_RSRC_HANDLE_PTR},
                     {"info", QX_SD_PTR},
                     {"nums", QX_INT32_ARRAY},
                     {"f", QX_FLOAT32},
                     {"u", QX_UINT64}};
        std::vector<sr_column_t> columns;
        for (const auto &s : kinds) {
            sr_column_t c{};
            c.name = Text(s.name);
            c.type = s.type;
            c.qualifier = columns.empty() ? key_qualifier : SR_STANDARD;
            if (s.type == QX_SD_PTR) c.sd_defn = p_def;
            columns.push_back(c);
        }
        return columns;
    }

    sr_i_table_t *MakeTable(const std::string &path, int mode = 3, bool hashed = false,
                            qx_uint32_t key_qualifier = SR_PRIMARY_KEY) {
        std::vector<sr_column_t> columns = AllColumns(key_qualifier);
        sr_opaque_handle_t table = nullptr;
        qx_int32_t rc =
            hashed ? sr_create_hashed_key_table_1(tree_, Text(path), columns.data(),
                                                  static_cast<qx_uint32_t>(columns.size()), mode,
                                                  1024, HashI64, CompareI64, &table)
                   : sr_create_table_1(tree_, Text(path), columns.data(),
                                       static_cast<qx_uint32_t>(columns.size()), mode, &table);
        EXPECT_EQ(0, rc) << path << " " << last_error().message;
        return static_cast<sr_i_table_t *>(table);
    }

    static qx_uint32_t HashI64(const void *p_key) {
        qx_int64_t v;
        memcpy(&v, p_key, sizeof v);
        return static_cast<qx_uint32_t>(static_cast<qx_uint64_t>(v) % 1024);
    }
    static qx_int32_t CompareI64(const void *p_a, const void *p_b) {
        qx_int64_t a;
        qx_int64_t b;
        memcpy(&a, p_a, sizeof a);
        memcpy(&b, p_b, sizeof b);
        return a < b ? -1 : (a > b ? 1 : 0);
    }

    // Adds a row built from the model; the caller's values live until the
    // call returns.
    qx_int32_t AddModel(sr_opaque_handle_t table, const Model &m,
                        qx_data_type_t level_type = QX_INT32) {
        std::vector<unsigned char> bin(4 + m.blob.size() + 1);
        qx_uint32_t blen = static_cast<qx_uint32_t>(m.blob.size());
        memcpy(bin.data(), &blen, 4);
        if (!m.blob.empty()) memcpy(bin.data() + 4, m.blob.data(), m.blob.size());
        qx_resource_handle_t owner{};
        qx_uint16_t halves[2] = {1, 2};
        memcpy(&owner.header, halves, 4);
        owner.id = {0x10u, 0x20u, 0x30u, m.owner_id4};
        std::vector<unsigned char> sd(QX_SD_SIZE(2));
        auto *p_sd = reinterpret_cast<qx_structured_data_t *>(sd.data());
        p_sd->element_count = 2;
        p_sd->elements[0].data_type = level_type;
        if (level_type == QX_CHAR_PTR) {
            p_sd->elements[0].value.ptr_char = const_cast<char *>("not a number");
        } else {
            p_sd->elements[0].value.val_int32 = m.level;
        }
        p_sd->elements[1].data_type = QX_CHAR_PTR;
        p_sd->elements[1].value.ptr_char = const_cast<char *>(m.label.c_str());
        std::vector<unsigned char> arr(QX_ARRAY_SIZE(m.nums.size() + 1));
        auto *p_arr = reinterpret_cast<qx_array_t *>(arr.data());
        p_arr->element_count = static_cast<qx_uint32_t>(m.nums.size());
        for (size_t i = 0; i < m.nums.size(); ++i) {
            p_arr->elements[i].val_int64 = 0;
            p_arr->elements[i].val_int32 = m.nums[i];
        }
        qx_value_t v[9] = {};
        v[0].val_int64 = m.k;
        v[1].ptr_char = const_cast<char *>(m.name.c_str());
        v[2].val_int32 = m.n;
        v[3].ptr_binary = reinterpret_cast<qx_binary_t *>(bin.data());
        v[4].ptr_rsrc_handle = &owner;
        v[5].ptr_sd = p_sd;
        v[6].ptr_array = p_arr;
        v[7].val_float32 = m.f;
        v[8].val_uint64 = m.u;
        const char *names[9] = {"k", "name", "n", "blob", "owner", "info", "nums", "f", "u"};
        qx_value_t *values[9];
        for (int i = 0; i < 9; ++i) values[i] = &v[i];
        return sr_add_row_1(table, const_cast<qx_char_ptr_t *>(names), values, 9);
    }

    // Three rows; fixed indices 0, 1, 2 in this order.
    std::vector<Model> ThreeRows() {
        return {
            {1, "alpha", 10, {}, 5, 1, "low", {1, 2, 3}, 1.1f, 1},
            {2, "beta", 3, {0xde, 0xad}, 6, 5, "mid", {4}, 2.5f, 18000000000000000000ull},
            {3, "gamma ray", -7, {0x01}, 7, 9, "high", {}, -0.25f, 7},
        };
    }

    sr_i_table_t *Filled(const std::string &path, int mode = 3, bool hashed = false) {
        sr_i_table_t *p_table = MakeTable(path, mode, hashed);
        for (const Model &m : ThreeRows())
            EXPECT_EQ(0, AddModel(p_table, m)) << last_error().message;
        return p_table;
    }

    std::vector<char> sd_def_;
};

using Rows = std::vector<qx_uint32_t>;

TEST_F(SelectTest, ExpressionsOverEveryColumnTypeChooseTheirRows) {
    sr_i_table_t *p = Filled("/t/every");
    Rows rows;
    struct Case {
        const char *criteria;
        Rows expected;
    } cases[] = {
        {"k > 1", {1, 2}},
        {"n < 0 || k == 1", {0, 2}},
        {"name == \"beta\"", {1}},
        {"name LIKE '%a' and name NOT LIKE 'g%'", {0, 1}},
        {"name =~ '^(alpha|gamma) ?'", {0, 2}},
        {"name IN ('beta', 'gamma ray', 'delta')", {1, 2}},
        {"blob == '0xdead'", {1}},
        {"blob == '0x'", {0}},
        {"owner == \"0x0001 0x0002 0x00000010 0x00000020 0x00000030 0x00000007\"", {2}},
        {"info.level >= 5 AND info.label != 'high'", {1}},
        {"nums CONTAINS 2 or nums == {4}", {0, 1}},
        {"nums[0] == 4", {1}},
        {"f == 1.1 || f < 0", {0, 2}},
        {"u > 0x7FFFFFFFFFFFFFFF", {1}},
        {"(n * 2 + 1) % 3 == 0 and n & 1 == 1", {}},
        {"TRUE", {0, 1, 2}},
        {"NOT (k IN (1, 3))", {1}},
    };
    for (const Case &c : cases) {
        ASSERT_EQ(0, Selected(p, 0, &rows, c.criteria)) << c.criteria << last_error().message;
        EXPECT_EQ(c.expected, rows) << c.criteria;
    }
    ASSERT_EQ(0, Selected(p, 0, &rows, nullptr));
    EXPECT_EQ((Rows{0, 1, 2}), rows);
}

TEST_F(SelectTest, EveryDollarItemComparesWithItsColumn) {
    sr_i_table_t *p = Filled("/t/items");
    Rows rows;
    alignas(8) unsigned char storage[8] = {};
    auto *p_bin = reinterpret_cast<qx_binary_t *>(storage);
    p_bin->length = 2;
    p_bin->data[0] = 0xde;
    p_bin->data[1] = 0xad;
    qx_resource_handle_t owner{};
    qx_uint16_t halves[2] = {1, 2};
    memcpy(&owner.header, halves, 4);
    owner.id = {0x10u, 0x20u, 0x30u, 6u};
    ASSERT_EQ(0, Selected(p, 0, &rows, "blob == $B && owner == $RH", p_bin, &owner));
    EXPECT_EQ((Rows{1}), rows);
    qx_binary_t empty{};
    ASSERT_EQ(0, Selected(p, 0, &rows, "blob == $B", &empty));
    EXPECT_EQ((Rows{0}), rows);
    ASSERT_EQ(0, Selected(p, 0, &rows, "name == $S or n == $I", "gamma ray", 10));
    EXPECT_EQ((Rows{0, 2}), rows);
    ASSERT_EQ(0, Selected(p, 0, &rows, "k == $L || u == $UL", qx_int64_t{1},
                          qx_uint64_t{18000000000000000000ull}));
    EXPECT_EQ((Rows{0, 1}), rows);
    ASSERT_EQ(0, Selected(p, 0, &rows, "n == $UI", 3u));
    EXPECT_EQ((Rows{1}), rows);
    // A FLOAT32 value printed by $F equals its column; $D of the same float
    // carries more digits and is compared rounded to single precision too.
    ASSERT_EQ(0, Selected(p, 0, &rows, "f == $F", 1.1f));
    EXPECT_EQ((Rows{0}), rows);
    ASSERT_EQ(0, Selected(p, 0, &rows, "f == $D", static_cast<double>(2.5f)));
    EXPECT_EQ((Rows{1}), rows);
    EXPECT_EQ(109, Selected(p, 0, &rows, "k == $Q", 1));
}

TEST_F(SelectTest, UnknownColumnsAndTextAgainstNumbersFailToCompileWith11) {
    sr_i_table_t *p = Filled("/t/unknown");
    Rows rows;
    EXPECT_EQ(11, Selected(p, 0, &rows, "nosuch == 1"));
    LastError e = last_error();
    EXPECT_EQ(11, e.code);
    EXPECT_NE(std::string::npos, e.message.find("cu_comp_expr")) << e.message;
    EXPECT_EQ(11, Selected(p, 0, &rows, "name == 1"));
    EXPECT_EQ(11, Selected(p, 0, &rows, "info.nosuch == 1"));
    EXPECT_EQ(11, Selected(p, 0, &rows, "k >"));
}

TEST_F(SelectTest, RowsThatCannotBeEvaluatedAreSkipped) {
    sr_i_table_t *p = Filled("/t/outcomes");
    Rows rows;
    // 7: row 1 has n == 3, a division by zero.
    ASSERT_EQ(0, Selected(p, 0, &rows, "100 / (n - 3) != 0"));
    EXPECT_EQ((Rows{0, 2}), rows);
    // 8: only row 0 has a third element.
    ASSERT_EQ(0, Selected(p, 0, &rows, "nums[2] == 3"));
    EXPECT_EQ((Rows{0}), rows);
    // A side that cannot be evaluated leaves the other side to decide.
    ASSERT_EQ(0, Selected(p, 0, &rows, "nums[2] == 3 || nums[0] == 4"));
    EXPECT_EQ((Rows{0, 1}), rows);
    // 6: a row whose structured data holds text where an integer is declared.
    Model odd = {4, "delta", 1, {}, 8, 0, "odd", {}, 0.0f, 0};
    ASSERT_EQ(0, AddModel(p, odd, QX_CHAR_PTR)) << last_error().message;
    ASSERT_EQ(0, Selected(p, 0, &rows, "info.level > 0"));
    EXPECT_EQ((Rows{0, 1, 2}), rows);
    // The same outcomes skip rows when deleting: row 1's division fails and
    // row 3's level is text, so only row 2 goes.
    ASSERT_EQ(0, sr_delete_rows_1(p, const_cast<char *>("100 / (n - 3) < 0 && info.level > 4")));
    ASSERT_EQ(0, Selected(p, 0, &rows, nullptr));
    EXPECT_EQ((Rows{0, 1, 3}), rows);
}

TEST_F(SelectTest, DeletingByCriteriaRemovesOnlyTheMatchingRows) {
    sr_i_table_t *p = Filled("/m/delete_where");
    ASSERT_EQ(0, sr_delete_rows_1(p, const_cast<char *>("name LIKE $S"), "%a"));
    Rows rows;
    ASSERT_EQ(0, Selected(p, 0, &rows, nullptr));
    EXPECT_EQ((Rows{2}), rows);
    EXPECT_EQ(1u, p->total_committed_rows);
    // Criteria matching nothing still succeed.
    ASSERT_EQ(0, sr_delete_rows_1(p, const_cast<char *>("k == 99")));
    EXPECT_EQ(1u, p->total_committed_rows);
    // Compile failures and bad items delete nothing.
    EXPECT_EQ(11, sr_delete_rows_1(p, const_cast<char *>("nosuch == 1")));
    EXPECT_EQ(109, sr_delete_rows_1(p, const_cast<char *>("k == $Z")));
    EXPECT_EQ(1u, p->total_committed_rows);
    // Reopened, the file holds the surviving row only.
    ASSERT_EQ(0, sr_close_table_1(p));
    sr_opaque_handle_t again = nullptr;
    ASSERT_EQ(0, sr_open_table_1(tree_, Text("/m/delete_where"), 3, &again));
    ASSERT_EQ(0, Selected(again, 0, &rows, "name == 'gamma ray'"));
    EXPECT_EQ(1u, rows.size());
    ASSERT_EQ(0, sr_close_table_1(again));
}

TEST_F(SelectTest, DeletingFromATableWhoseRowsAreAllDeletedIs205) {
    sr_i_table_t *p = Filled("/t/all_deleted");
    ASSERT_EQ(0, sr_delete_rows_1(p, const_cast<char *>("k > 0")));
    EXPECT_EQ(205, sr_delete_rows_1(p, const_cast<char *>("k > 0")));
    EXPECT_EQ(205, last_error().code);
    EXPECT_EQ(205, sr_delete_rows_1(p, nullptr));
}

TEST_F(SelectTest, CommittedViewChoosesCommittedRowsByTheirWorkingValues) {
    sr_i_table_t *p = Filled("/m/views", 7);  // explicit control
    ASSERT_EQ(0, sr_apply_1(p, 0));
    ASSERT_EQ(0, sr_commit_1(p));
    // Pending: row 0 renamed, row 2 deleted, a fourth row added.
    qx_value_t key{};
    key.val_int64 = 1;
    qx_value_t renamed{};
    renamed.ptr_char = const_cast<char *>("omega");
    ASSERT_EQ(0, sr_set_field_by_key_1(p, key, const_cast<char *>("name"), &renamed));
    ASSERT_EQ(0, sr_delete_rows_1(p, const_cast<char *>("k == 3")));
    Model added = {4, "omega", 0, {}, 9, 0, "x", {}, 0.0f, 0};
    ASSERT_EQ(0, AddModel(p, added));
    Rows rows;
    // Working view: rows 0 (renamed) and the added row 3.
    ASSERT_EQ(0, Selected(p, 1, &rows, "name == 'omega'"));
    EXPECT_EQ((Rows{0, 3}), rows);
    // Committed view: row 0 is chosen by its working values, the added row
    // is not in the view.
    ASSERT_EQ(0, Selected(p, 0, &rows, "name == 'omega'"));
    EXPECT_EQ((Rows{0}), rows);
    // The deleted row has no working version: its committed values decide.
    ASSERT_EQ(0, Selected(p, 0, &rows, "name == 'gamma ray'"));
    EXPECT_EQ((Rows{2}), rows);
    ASSERT_EQ(0, Selected(p, 1, &rows, "name == 'gamma ray'"));
    EXPECT_TRUE(rows.empty());
    ASSERT_EQ(0, Selected(p, 0, &rows, nullptr));
    EXPECT_EQ((Rows{0, 1, 2}), rows);
    ASSERT_EQ(0, sr_abort_1(p));
}

// ---------------------------------------------------------------------------

TEST_F(SelectTest, SelectBuildsAnUnnamedTableWithTheKeyFirstAndOnce) {
    sr_i_table_t *p = Filled("/t/source");
    sr_opaque_handle_t result = nullptr;
    const char *names[] = {"name", "k", "info", "name"};
    ASSERT_EQ(0, sr_select_1(p, const_cast<qx_char_ptr_t *>(names), 4, &result,
                             const_cast<char *>("n > $I"), 0))
        << last_error().message;
    auto *p_new = static_cast<sr_i_table_t *>(result);
    ASSERT_EQ(3u, p_new->total_columns);
    EXPECT_STREQ("k", p_new->p_columns[0].name);
    EXPECT_STREQ("name", p_new->p_columns[1].name);
    EXPECT_STREQ("info", p_new->p_columns[2].name);
    EXPECT_EQ(2u, p_new->total_committed_rows);
    EXPECT_EQ(nullptr, p_new->p_name);
    sr_i_tree_t *p_tree = static_cast<sr_i_tree_t *>(tree_);
    EXPECT_NE(nullptr, tfind(p_new, &p_tree->p_unnamed_tables, sr_i_pointer_compare));
    // The copies read back through the ordinary calls, pointer values too.
    qx_value_t key{};
    key.val_int64 = 2;
    qx_value_t value{};
    ASSERT_EQ(0, sr_get_field_by_key_1(result, key, const_cast<char *>("name"), &value));
    EXPECT_STREQ("beta", value.ptr_char);
    ASSERT_EQ(0, sr_get_field_by_key_1(result, key, const_cast<char *>("info"), &value));
    ASSERT_EQ(2u, value.ptr_sd->element_count);
    EXPECT_EQ(5, value.ptr_sd->elements[0].value.val_int32);
    EXPECT_STREQ("mid", value.ptr_sd->elements[1].value.ptr_char);
    // Columns not chosen are not there.
    EXPECT_EQ(105, sr_get_field_by_key_1(result, key, const_cast<char *>("n"), &value));
    // Selections work on the new table too, with its own columns.
    Rows rows;
    ASSERT_EQ(0, Selected(result, 0, &rows, "info.label == 'mid'"));
    EXPECT_EQ(1u, rows.size());
    EXPECT_EQ(11, Selected(result, 0, &rows, "n == 1"));
    ASSERT_EQ(0, sr_close_table_1(result));
    EXPECT_EQ(nullptr, tfind(p_new, &p_tree->p_unnamed_tables, sr_i_pointer_compare));
}

TEST_F(SelectTest, AnEmptySelectionIsAnEmptyTableAndEveryColumnWithoutNames) {
    sr_i_table_t *p = Filled("/t/empty_sel");
    sr_opaque_handle_t result = nullptr;
    ASSERT_EQ(0, sr_select_1(p, nullptr, 0, &result, const_cast<char *>("k > 100")));
    auto *p_new = static_cast<sr_i_table_t *>(result);
    EXPECT_EQ(p->total_columns, p_new->total_columns);
    EXPECT_EQ(0u, p_new->total_committed_rows);
    EXPECT_EQ(0u, p_new->total_applied_rows);
    Rows rows;
    ASSERT_EQ(0, Selected(result, 0, &rows, nullptr));
    EXPECT_TRUE(rows.empty());
    ASSERT_EQ(0, sr_close_table_1(result));
    // No criteria: every row.
    ASSERT_EQ(0, sr_select_1(p, nullptr, 0, &result, nullptr));
    EXPECT_EQ(3u, static_cast<sr_i_table_t *>(result)->total_committed_rows);
    ASSERT_EQ(0, sr_close_table_1(result));
}

TEST_F(SelectTest, SelectRefusesBadNamesAndHandles) {
    sr_i_table_t *p = Filled("/t/bad_sel");
    sr_opaque_handle_t result = nullptr;
    const char *unknown[] = {"nosuch"};
    EXPECT_EQ(105, sr_select_1(p, const_cast<qx_char_ptr_t *>(unknown), 1, &result, nullptr));
    EXPECT_EQ(104, sr_select_1(p, nullptr, 2, &result, nullptr));
    EXPECT_EQ(100, sr_select_1(nullptr, nullptr, 0, &result, nullptr));
    EXPECT_EQ(101, sr_select_1(p, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(109, sr_select_1(p, nullptr, 0, &result, const_cast<char *>("k == $")));
    EXPECT_EQ(11, sr_select_1(p, nullptr, 0, &result, const_cast<char *>("nosuch > 1")));
    sr_i_tree_t *p_tree = static_cast<sr_i_tree_t *>(tree_);
    EXPECT_EQ(nullptr, p_tree->p_unnamed_tables);
}

TEST_F(SelectTest, SelectFromAHashedTableKeepsItsHashedKeyIndex) {
    sr_i_table_t *p = Filled("/t/hashed_sel", 3, true);
    sr_opaque_handle_t result = nullptr;
    const char *names[] = {"n"};
    ASSERT_EQ(0, sr_select_1(p, const_cast<qx_char_ptr_t *>(names), 1, &result,
                             const_cast<char *>("k != 2")));
    auto *p_new = static_cast<sr_i_table_t *>(result);
    ASSERT_NE(nullptr, p_new->p_rows_hash_table);
    EXPECT_EQ(p->p_rows_hash_table->p_hash_function, p_new->p_rows_hash_table->p_hash_function);
    qx_uint32_t fixed = 99;
    qx_value_t key{};
    key.val_int64 = 3;
    ASSERT_EQ(0, sr_get_fixed_row_index_for_key_1(result, key, &fixed));
    qx_value_t n{};
    ASSERT_EQ(0, sr_get_field_by_key_1(result, key, const_cast<char *>("n"), &n));
    EXPECT_EQ(-7, n.val_int32);
    key.val_int64 = 2;
    EXPECT_EQ(202, sr_get_fixed_row_index_for_key_1(result, key, &fixed));
    // The new table accepts rows like any other.
    qx_value_t k4{};
    k4.val_int64 = 4;
    qx_value_t *values[] = {&k4};
    const char *key_name[] = {"k"};
    EXPECT_EQ(0, sr_add_row_1(result, const_cast<qx_char_ptr_t *>(key_name), values, 1));
    ASSERT_EQ(0, sr_close_table_1(result));
}

// ---------------------------------------------------------------------------

TEST_F(SelectTest, DuplicateRowsThroughAnUnhashedAndAHashedTable) {
    for (bool hashed : {false, true}) {
        std::string path = hashed ? "/t/dup_hashed" : "/t/dup_plain";
        sr_i_table_t *p = MakeTable(path, 7, hashed, SR_PRIMARY_KEY_NOCHECK);
        std::vector<Model> rows = ThreeRows();
        rows[1].k = 1;  // keys 1, 1, 3, then another 1 pending
        for (const Model &m : rows) ASSERT_EQ(0, AddModel(p, m));
        ASSERT_EQ(0, sr_apply_1(p, 0));
        ASSERT_EQ(0, sr_commit_1(p));
        Model more = rows[0];
        more.name = "pending";
        ASSERT_EQ(0, AddModel(p, more));
        qx_value_t key{};
        key.val_int64 = 1;
        qx_uint32_t count = 0;
        qx_uint32_t *p_rows = nullptr;
        ASSERT_EQ(0, sr_get_duplicate_rows_1(p, key, &count, &p_rows, 0)) << hashed;
        std::set<qx_uint32_t> committed(p_rows, p_rows + count);
        free(p_rows);
        EXPECT_EQ((std::set<qx_uint32_t>{0, 1}), committed) << hashed;
        ASSERT_EQ(0, sr_get_duplicate_rows_1(p, key, &count, &p_rows, 1));
        std::set<qx_uint32_t> applied(p_rows, p_rows + count);
        free(p_rows);
        EXPECT_EQ((std::set<qx_uint32_t>{0, 1, 3}), applied) << hashed;
        key.val_int64 = 2;
        p_rows = nullptr;
        EXPECT_EQ(202, sr_get_duplicate_rows_1(p, key, &count, &p_rows, 1)) << hashed;
        EXPECT_EQ(nullptr, p_rows);
        key.val_int64 = 3;
        ASSERT_EQ(0, sr_get_duplicate_rows_1(p, key, &count, &p_rows, 1));
        EXPECT_EQ(1u, count);
        free(p_rows);
        EXPECT_EQ(101, sr_get_duplicate_rows_1(p, key, nullptr, &p_rows, 1));
        ASSERT_EQ(0, sr_abort_1(p));
    }
}

TEST_F(SelectTest, DuplicateRowsGrowTheirArrayPastTen) {
    sr_i_table_t *p = MakeTable("/t/dup_many", 3, false, SR_PRIMARY_KEY_NOCHECK);
    Model m = ThreeRows()[0];
    for (int i = 0; i < 25; ++i) ASSERT_EQ(0, AddModel(p, m));
    qx_value_t key{};
    key.val_int64 = 1;
    qx_uint32_t count = 0;
    qx_uint32_t *p_rows = nullptr;
    ASSERT_EQ(0, sr_get_duplicate_rows_1(p, key, &count, &p_rows, 0));
    EXPECT_EQ(25u, count);
    free(p_rows);
}

// ---------------------------------------------------------------------------

// Random rows and random predicates: the registry's selection agrees with the
// same predicate evaluated here on the model rows.
TEST_F(SelectTest, RandomSelectionsAgreeWithTheModel) {
    sr_i_table_t *p = MakeTable("/t/random");
    qx_uint64_t seed = 0x2545F4914F6CDD1Dull;
    auto rnd = [&seed](qx_uint32_t bound) {
        seed ^= seed << 13;
        seed ^= seed >> 7;
        seed ^= seed << 17;
        return static_cast<qx_uint32_t>(seed % bound);
    };
    const char *words[] = {"ant", "bee", "cat", "dog", "eel", "fox"};
    std::map<qx_uint32_t, Model> model;  // by fixed index
    for (qx_int64_t k = 0; k < 300; ++k) {
        Model m{};
        m.k = k;
        m.name = std::string(words[rnd(6)]) + std::to_string(rnd(10));
        m.n = static_cast<qx_int32_t>(rnd(200)) - 100;
        m.level = static_cast<qx_int32_t>(rnd(10));
        m.label = words[rnd(6)];
        m.owner_id4 = rnd(4);
        for (qx_uint32_t i = rnd(4); i > 0; --i) m.nums.push_back(static_cast<qx_int32_t>(rnd(5)));
        ASSERT_EQ(0, AddModel(p, m));
        model[static_cast<qx_uint32_t>(k)] = m;
    }
    // Delete a few, as deletions leave holes in the fixed index.
    ASSERT_EQ(0, sr_delete_rows_1(p, const_cast<char *>("k % 17 == 5")));
    for (auto it = model.begin(); it != model.end();) {
        it = it->second.k % 17 == 5 ? model.erase(it) : std::next(it);
    }
    struct Predicate {
        std::string text;
        std::function<bool(const Model &)> test;
    };
    auto atom = [&]() -> Predicate {
        qx_int32_t c = static_cast<qx_int32_t>(rnd(200)) - 100;
        std::string w = words[rnd(6)];
        qx_int32_t e = static_cast<qx_int32_t>(rnd(5));
        switch (rnd(7)) {
            case 0:
                return {"n < " + std::to_string(c), [c](const Model &m) { return m.n < c; }};
            case 1:
                return {"n % 3 == " + std::to_string(e % 3),
                        [e](const Model &m) { return m.n % 3 == e % 3; }};
            case 2:
                return {"name LIKE '" + w + "%'",
                        [w](const Model &m) { return m.name.rfind(w, 0) == 0; }};
            case 3:
                return {"info.level >= " + std::to_string(e * 2),
                        [e](const Model &m) { return m.level >= e * 2; }};
            case 4:
                return {"nums CONTAINS " + std::to_string(e), [e](const Model &m) {
                            return std::find(m.nums.begin(), m.nums.end(), e) != m.nums.end();
                        }};
            case 5:
                return {"name =~ '[0-4]$'", [](const Model &m) {
                            return m.name.back() >= '0' && m.name.back() <= '4';
                        }};
            default:
                return {"info.label IN ('" + w + "', 'cat')",
                        [w](const Model &m) { return m.label == w || m.label == "cat"; }};
        }
    };
    for (int iter = 0; iter < 60; ++iter) {
        Predicate a = atom();
        Predicate b = atom();
        Predicate c = atom();
        Predicate whole;
        switch (rnd(3)) {
            case 0:
                whole = {
                    "(" + a.text + ") AND (" + b.text + ") OR " + c.text,
                    [a, b, c](const Model &m) { return (a.test(m) && b.test(m)) || c.test(m); }};
                break;
            case 1:
                whole = {
                    "NOT (" + a.text + ") && (" + b.text + " || " + c.text + ")",
                    [a, b, c](const Model &m) { return !a.test(m) && (b.test(m) || c.test(m)); }};
                break;
            default:
                whole = {a.text, a.test};
                break;
        }
        Rows rows;
        ASSERT_EQ(0, Selected(p, 1, &rows, whole.text.c_str())) << whole.text;
        Rows expected;
        for (const auto &[fixed, m] : model) {
            if (whole.test(m)) expected.push_back(fixed);
        }
        EXPECT_EQ(expected, rows) << whole.text;
    }
}

class SelectConcurrencyTest : public SelectTest {};

TEST_F(SelectConcurrencyTest, ReadersSelectTheSameTableAtOnce) {
    sr_i_table_t *p = Filled("/t/concurrent");
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                Rows rows;
                if (Selected(p, 0, &rows, "name =~ 'a$' && nums CONTAINS $I", 2) != 0 ||
                    rows != Rows{0}) {
                    ++failures[t];
                }
            }
        });
    }
    for (std::thread &th : threads) th.join();
    for (int f : failures) EXPECT_EQ(0, f);
}

}  // namespace
}  // namespace qxtest
