// Selection over every column type, `$` items, the committed view, sr_select_1.
#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "qx_sr.hpp"
#include "sr/rows_test_util.h"

namespace qxtest {
namespace {

// The text of a criteria string with its items, or "<code>".
std::string Format(const char *criteria, ...) {
    va_list ap;
    va_start(ap, criteria);
    char *p_out = nullptr;
    qx_int32_t rc = sr_i_select_printf(&p_out, const_cast<char *>(criteria), ap);
    va_end(ap);
    std::string text = rc != 0 ? "<" + std::to_string(rc) + ">" : p_out;
    free(p_out);
    return text;
}

// The rows a selection chooses, or {1000 + code}.
using Rows = std::vector<qx_uint32_t>;
Rows Sel(sr_opaque_handle_t table, qx_uint32_t visible, const char *criteria, ...) {
    va_list ap;
    va_start(ap, criteria);
    qx_uint32_t count = 0, *p_rows = nullptr;
    qx_int32_t rc =
        sr_get_selected_rows_v_1(table, const_cast<char *>(criteria), ap, visible, &count, &p_rows);
    va_end(ap);
    Rows rows = rc != 0 ? Rows{1000u + static_cast<qx_uint32_t>(rc)} : Rows(p_rows, p_rows + count);
    free(p_rows);
    return rows;
}

TEST(SelectPrintfTest, ItemsFormatAsTheirTypesAndBadItemsAre109) {
    const qx::sr::Value bin(qx::sr::Bytes{0xde, 0x0a, 0xff}), empty(qx::sr::Bytes{});
    qx_resource_handle_t handle{};
    qx_uint16_t fields[2] = {0x1, 0xab};
    memcpy(&handle.header, fields, 4);
    handle.id = {0x11111111u, 0x2u, 0xabcdu, 0xffffffffu};
    EXPECT_EQ("name == \"abc\" -42 4000000000",
              Format("name == $S $I $UI", "abc", -42, 4000000000u));
    EXPECT_EQ("-9000000000 18000000000000000000",
              Format("$L $UL", qx_int64_t{-9000000000LL}, qx_uint64_t{18000000000000000000ull}));
    // Single precision with six decimals, double precision shortest.
    EXPECT_EQ("1.500000 1.5 0.100000 0.1", Format("$F $D $F $D", 1.5f, 1.5, 0.1f, 0.1));
    EXPECT_EQ("-5 7 \"abc\" 3 4",
              Format("$i $ui $s $l $ul", -5, 7u, "abc", qx_int64_t{3}, qx_uint64_t{4}));
    EXPECT_EQ("cost $\" and $'", Format("cost $\" and $'"));
    EXPECT_EQ("\"0x\" \"0xde0aff\"", Format("$B $b", empty.get().ptr_binary, bin.get().ptr_binary));
    EXPECT_EQ("\"0x0001 0x00ab 0x11111111 0x00000002 0x0000abcd 0xffffffff\"",
              Format("$RH", &handle));
    EXPECT_EQ(Format("$RH", &handle), Format("$rh", &handle));
    const std::string tail(10000, 'x'), long_text(5000, 'y');
    EXPECT_EQ("\"v\"" + tail + "\"" + long_text + "\"",
              Format(("$S" + tail + "$S").c_str(), "v", long_text.c_str()));
    for (const char *bad : {"k == $X", "k == $U", "k == $UX", "k == $R", "k == $Rx", "k == $"}) {
        EXPECT_EQ("<109>", Format(bad, 1, 2, 3)) << bad;
        EXPECT_NE(std::string::npos, last_error().message.find(bad)) << bad;
    }
}

const char *const kNames[] = {"k", "name", "n", "blob", "owner", "info", "nums", "f", "u"};

// Columns: k INT64 key, name CHAR_PTR, n INT32, blob BINARY_PTR, owner
// RSRC_HANDLE_PTR, info SD_PTR (level INT32, label CHAR_PTR), nums
// INT32_ARRAY, f FLOAT32, u UINT64.
class SelectTest : public RowsTest {
  protected:
    struct Model {
        qx_int64_t k;
        std::string name;
        qx_int32_t n;
        qx::sr::Bytes blob;
        qx_uint32_t owner_id4;
        qx_int32_t level;
        std::string label;
        std::vector<qx_int32_t> nums;
        float f;
        qx_uint64_t u;
    };

    sr_i_table_t *MakeTable(const std::string &path, int mode = 3, bool hashed = false,
                            qx_uint32_t key_qualifier = SR_PRIMARY_KEY) {
        sd_def_.resize(offsetof(sr_sd_def_t, field_def) + 2 * sizeof(sr_sd_field_def_t));
        auto *p_def = reinterpret_cast<sr_sd_def_t *>(sd_def_.data());
        p_def->number_of_fields = 2;
        p_def->field_def[0] = {QX_INT32, Text("level")};
        p_def->field_def[1] = {QX_CHAR_PTR, Text("label")};
        const qx_data_type_t types[] = {QX_INT64,       QX_CHAR_PTR,        QX_INT32,
                                        QX_BINARY_PTR,  QX_RSRC_HANDLE_PTR, QX_SD_PTR,
                                        QX_INT32_ARRAY, QX_FLOAT32,         QX_UINT64};
        std::vector<sr_column_t> columns(9);
        for (int i = 0; i < 9; ++i)
            columns[i] = {Text(kNames[i]),          types[i], i ? SR_STANDARD : key_qualifier, 0,
                          i == 5 ? p_def : nullptr, {}};
        return Make(path, columns, mode, hashed);
    }

    qx_int32_t AddModel(sr_opaque_handle_t table, const Model &m) {
        qx::sr::Value blob(m.blob), nums(m.nums);
        qx_resource_handle_t owner{};
        const qx_uint16_t halves[2] = {1, 2};
        memcpy(&owner.header, halves, 4);
        owner.id = {0x10u, 0x20u, 0x30u, m.owner_id4};
        std::vector<unsigned char> sd(QX_SD_SIZE(2));
        auto *p_sd = reinterpret_cast<qx_structured_data_t *>(sd.data());
        p_sd->element_count = 2;
        p_sd->elements[0] = {QX_INT32, 0, I32(m.level)};
        p_sd->elements[1] = {QX_CHAR_PTR, 0, Str(m.label.c_str())};
        qx_value_t v[9] = {I64(m.k), Str(m.name.c_str()), I32(m.n), blob.get(), {}, {}, nums.get()};
        v[4].ptr_rsrc_handle = &owner;
        v[5].ptr_sd = p_sd;
        v[7].val_float32 = m.f;
        v[8].val_uint64 = m.u;
        qx_value_t *values[9];
        for (int i = 0; i < 9; ++i) values[i] = &v[i];
        return sr_add_row_1(table, const_cast<qx_char_ptr_t *>(kNames), values, 9);
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

TEST_F(SelectTest, ExpressionsAndItemsOverEveryColumnTypeChooseTheirRows) {
    sr_i_table_t *p = Filled("/t/every");
    const struct {
        const char *criteria;
        Rows expected;
    } cases[] = {{"k > 1", {1, 2}},
                 {"name LIKE '%a' and name NOT LIKE 'g%'", {0, 1}},
                 {"name =~ '^(alpha|gamma) ?'", {0, 2}},
                 {"blob == '0xdead'", {1}},
                 {"blob == '0x'", {0}},
                 {"owner == \"0x0001 0x0002 0x00000010 0x00000020 0x00000030 0x00000007\"", {2}},
                 {"info.level >= 5 AND info.label != 'high'", {1}},
                 {"nums CONTAINS 2 or nums == {4}", {0, 1}},
                 {"nums[0] == 4", {1}},
                 {"f == 1.1 || f < 0", {0, 2}},
                 {"u > 0x7FFFFFFFFFFFFFFF", {1}},
                 {nullptr, {0, 1, 2}},
                 // Rows whose value cannot be evaluated are skipped: a division by
                 // zero, an element past the end; the other side may still decide.
                 {"100 / (n - 3) != 0", {0, 2}},
                 {"nums[2] == 3", {0}},
                 {"nums[2] == 3 || nums[0] == 4", {0, 1}}};
    for (const auto &c : cases) EXPECT_EQ(c.expected, Sel(p, 0, c.criteria)) << c.criteria;
    // $D of a FLOAT32 has more digits and is compared rounded to single precision.
    EXPECT_EQ((Rows{0}), Sel(p, 0, "f == $F", 1.1f));
    EXPECT_EQ((Rows{1}), Sel(p, 0, "f == $D", static_cast<double>(2.5f)));
    EXPECT_EQ((Rows{1109}), Sel(p, 0, "k == $Q", 1));
    for (const char *bad : {"nosuch == 1", "name == 1", "info.nosuch == 1", "k >"})
        EXPECT_EQ((Rows{1011}), Sel(p, 0, bad)) << bad;
    EXPECT_NE(std::string::npos, last_error().message.find("cu_comp_expr"));
    // A deletion skips the rows it cannot evaluate too: row 1 divides by zero.
    ASSERT_EQ(0, sr_delete_rows_1(p, const_cast<char *>("100 / (n - 3) < $I"), 0));
    EXPECT_EQ((Rows{0, 1}), Sel(p, 0, nullptr));
}

// The committed view chooses committed rows by their working values where they have them.
TEST_F(SelectTest, CommittedViewChoosesCommittedRowsByTheirWorkingValues) {
    sr_i_table_t *p = Filled("/m/views", 7);
    ASSERT_EQ(0, ApplyCommit(p));
    qx_value_t renamed = Str("omega");
    ASSERT_EQ(0, sr_set_field_by_key_1(p, I64(1), const_cast<char *>("name"), &renamed));
    ASSERT_EQ(0, sr_delete_rows_1(p, const_cast<char *>("k == 3")));
    ASSERT_EQ(0, AddModel(p, {4, "omega", 0, {}, 9, 0, "x", {}, 0.0f, 0}));
    const struct {
        qx_uint32_t visible;
        const char *criteria;
        Rows expected;
    } cases[] = {{1, "name == 'omega'", {0, 3}},
                 {0, "name == 'omega'", {0}},      // the added row is not in the view
                 {0, "name == 'gamma ray'", {2}},  // no working version: committed values
                 {1, "name == 'gamma ray'", {}},
                 {0, nullptr, {0, 1, 2}}};
    for (const auto &c : cases)
        EXPECT_EQ(c.expected, Sel(p, c.visible, c.criteria)) << c.criteria << c.visible;
    ASSERT_EQ(0, sr_abort_1(p));
}

TEST_F(SelectTest, SelectBuildsAnUnnamedTableWithTheKeyFirstAndOnce) {
    sr_i_table_t *p = Filled("/t/source", 3, true);
    sr_opaque_handle_t result = nullptr;
    const char *names[] = {"name", "k", "info", "name"};
    ASSERT_EQ(0, sr_select_1(p, const_cast<qx_char_ptr_t *>(names), 4, &result,
                             const_cast<char *>("n > $I"), 0));
    qx::sr::Table selected(result);
    EXPECT_EQ((std::vector<std::string>{"k", "name", "info"}), *selected.columns());
    EXPECT_EQ(2u, *selected.size());
    // The copies read back through the ordinary calls, pointer values too.
    qx_value_t value{};
    ASSERT_EQ(0, sr_get_field_by_key_1(result, I64(2), const_cast<char *>("info"), &value));
    EXPECT_EQ(5, value.ptr_sd->elements[0].value.val_int32);
    EXPECT_STREQ("mid", value.ptr_sd->elements[1].value.ptr_char);
    EXPECT_EQ(105, sr_get_field_by_key_1(result, I64(2), const_cast<char *>("n"), &value));
    EXPECT_EQ(202, sr_get_field_by_key_1(result, I64(3), const_cast<char *>("name"), &value));
    EXPECT_EQ(1u, Sel(result, 0, "info.label == 'mid'").size());
    EXPECT_TRUE(selected.add({{"k", std::int64_t{4}}}));
    // No names: every column; criteria matching nothing: an empty table.
    for (auto [criteria, rows] : {std::pair{"k > 100", 0u}, {nullptr, 3u}}) {
        ASSERT_EQ(0, sr_select_1(p, nullptr, 0, &result, const_cast<char *>(criteria)));
        selected = qx::sr::Table(result);
        EXPECT_EQ(9u, selected.columns()->size());
        EXPECT_EQ(rows, *selected.size());
    }
    ASSERT_EQ(0, selected.close().code());
    const char *unknown[] = {"nosuch"};
    EXPECT_EQ(105, sr_select_1(p, const_cast<qx_char_ptr_t *>(unknown), 1, &result, nullptr));
    EXPECT_EQ(104, sr_select_1(p, nullptr, 2, &result, nullptr));
    EXPECT_EQ(109, sr_select_1(p, nullptr, 0, &result, const_cast<char *>("k == $")));
    EXPECT_EQ(11, sr_select_1(p, nullptr, 0, &result, const_cast<char *>("nosuch > 1")));
    EXPECT_EQ(nullptr, static_cast<sr_i_tree_t *>(tree_)->p_unnamed_tables);
}

TEST_F(SelectTest, DuplicateRowsThroughAnUnhashedAndAHashedTable) {
    for (bool hashed : {false, true}) {
        SCOPED_TRACE(hashed);
        sr_i_table_t *p =
            MakeTable(hashed ? "/t/dup_hashed" : "/t/dup_plain", 7, hashed, SR_PRIMARY_KEY_NOCHECK);
        std::vector<Model> rows = ThreeRows();
        rows[1].k = 1;  // keys 1, 1, 3, then 1 pending and 22 more to grow the array
        for (const Model &m : rows) ASSERT_EQ(0, AddModel(p, m));
        ASSERT_EQ(0, ApplyCommit(p));
        for (int i = 0; i < 23; ++i) ASSERT_EQ(0, AddModel(p, rows[0]));
        auto duplicates = [&](qx_int64_t key, qx_uint32_t visible) {
            qx_uint32_t count = 0;
            qx_uint32_t *p_rows = nullptr;
            qx_int32_t rc = sr_get_duplicate_rows_1(p, I64(key), &count, &p_rows, visible);
            std::set<qx_uint32_t> found(p_rows, p_rows + (rc == 0 ? count : 0));
            free(p_rows);
            return rc == 0 ? found : std::set<qx_uint32_t>{static_cast<qx_uint32_t>(rc) + 1000};
        };
        EXPECT_EQ((std::set<qx_uint32_t>{0, 1}), duplicates(1, 0));
        EXPECT_EQ(25u, duplicates(1, 1).size());
        EXPECT_EQ((std::set<qx_uint32_t>{1202}), duplicates(2, 1));
        EXPECT_EQ((std::set<qx_uint32_t>{2}), duplicates(3, 1));
        ASSERT_EQ(0, sr_abort_1(p));
    }
}

class SelectConcurrencyTest : public SelectTest {};

TEST_F(SelectConcurrencyTest, ReadersSelectTheSameTableAtOnce) {
    sr_i_table_t *p = Filled("/t/concurrent");
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i)
                failures[t] += Sel(p, 0, "name =~ 'a$' && nums CONTAINS $I", 2) != Rows{0};
        });
    }
    for (std::thread &th : threads) th.join();
    EXPECT_EQ((std::vector<int>(4, 0)), failures);
}

}  // namespace
}  // namespace qxtest
