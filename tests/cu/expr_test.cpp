// Selection expressions: refusals, every operator on every column type, per-row outcomes, threads.
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "cu_test_util.h"
#include "pmsg/pmsg_test_util.h"
#include "qx_cu.h"

namespace {

using Bytes = std::vector<uint8_t>;
using pmsg_test::Arena;

void put32(Bytes &b, size_t at, uint32_t v) {
    memcpy(b.data() + at, &v, 4);
}

// A row in the protocol form, built by the protocol library: slots in column order, then the area.
struct Row {
    Bytes slots, area;
    qx_uint32_t used = 0;

    void add(int type, qx_value_t value) {
        slots.resize(slots.size() + 8);
        area.resize(1024);
        EXPECT_EQ(0, pmsg_test::build(type, &value, slots.data() + slots.size() - 8, area.data(),
                                      1024, &used));
        area.resize(used);
    }
    uint32_t slot_count() const { return static_cast<uint32_t>(slots.size() / 8); }
};

struct Column {
    const char *name;
    qx_data_type_t type;
};
// The top level's columns, and the fields of info (column 9) and of parts (column 13).
// clang-format off
const std::vector<Column> kColumns = {
    {"i32", QX_INT32}, {"u32", QX_UINT32}, {"i64", QX_INT64}, {"u64", QX_UINT64},
    {"f32", QX_FLOAT32}, {"f64", QX_FLOAT64}, {"name", QX_CHAR_PTR}, {"blob", QX_BINARY_PTR},
    {"owner", QX_RSRC_HANDLE_PTR}, {"info", QX_SD_PTR}, {"sbs", QX_SBS_PTR},
    {"nums", QX_INT32_ARRAY}, {"tags", QX_CHAR_PTR_ARRAY}, {"parts", QX_SD_PTR_ARRAY},
    {"weird name", QX_INT32}, {"AND", QX_INT32}, {"doubles", QX_FLOAT64_ARRAY},
    {"blobs", QX_BINARY_PTR_ARRAY}};
// clang-format on
const std::vector<Column> kInfoFields = {
    {"level", QX_INT32}, {"label", QX_CHAR_PTR}, {"ratio", QX_FLOAT64}};
const std::vector<Column> kPartFields = {{"id", QX_UINT32}, {"what", QX_CHAR_PTR}};

qx_int32_t validate(void *token, qx_char_t *p_name, qx_uint32_t length, qx_uint32_t parent_id,
                    cu_validate_data_t *p_out) {
    if (token != nullptr) static_cast<std::vector<uint32_t> *>(token)->push_back(parent_id);
    const std::vector<Column> &table = parent_id == 9    ? kInfoFields
                                       : parent_id == 13 ? kPartFields
                                                         : kColumns;
    if (strlen(p_name) != length || (&table == &kColumns && parent_id != CU_EXPR_TOP_LEVEL)) {
        return -1;
    }
    for (uint32_t i = 0; i < table.size(); ++i) {
        if (strcmp(table[i].name, p_name) == 0) {
            *p_out = {i, table[i].type};
            return 0;
        }
    }
    return -1;
}

// One row holding a value in every column (`info` holding one text when `text_info`).
Row sample_row(bool text_info = false) {
    Arena a;
    Row r;
    r.add(QX_INT32, {.val_int32 = -5});
    r.add(QX_UINT32, {.val_uint32 = 4000000000u});
    r.add(QX_INT64, {.val_int64 = 1234567890123LL});
    r.add(QX_UINT64, {.val_uint64 = 18000000000000000000ull});
    r.add(QX_FLOAT32, {.val_float32 = 1.1f});
    r.add(QX_FLOAT64, {.val_float64 = 2.5});
    r.add(QX_CHAR_PTR, {.ptr_char = a.text("caf\xC3\xA9 noir")});
    r.add(QX_BINARY_PTR, {.ptr_binary = a.binary("\xde\xad\x01")});
    r.add(QX_RSRC_HANDLE_PTR, {.ptr_rsrc_handle = a.rsrc(0x00020001u, 0x11111111u, 0x22222222u,
                                                         0x0000abcdu, 0xffffffffu)});
    r.add(QX_SD_PTR, {.ptr_sd = text_info ? a.sd({{QX_CHAR_PTR, 0, {.ptr_char = a.text("seven")}}})
                                          : a.sd({{QX_INT32, 0, {.val_int32 = 7}},
                                                  {QX_CHAR_PTR, 0, {.ptr_char = a.text("top")}},
                                                  {QX_FLOAT64, 0, {.val_float64 = 0.25}}})});
    r.add(QX_SBS_PTR, {.ptr_sbs = a.sbs("\x01\x02")});
    std::vector<qx_value_t> nums, tags;
    for (int n : {3, 1, 4, 1, 5}) nums.push_back({.val_int32 = n});
    for (const char *t : {"red", "green", ""}) tags.push_back({.ptr_char = a.text(t)});
    r.add(QX_INT32_ARRAY, {.ptr_array = a.array(nums)});
    r.add(QX_CHAR_PTR_ARRAY, {.ptr_array = a.array(tags)});
    std::vector<qx_value_t> parts;
    for (auto [id, what] : {std::pair{10u, "wheel"}, {11u, "axle"}}) {
        parts.push_back({.ptr_sd = a.sd({{QX_UINT32, 0, {.val_uint32 = id}},
                                         {QX_CHAR_PTR, 0, {.ptr_char = a.text(what)}}})});
    }
    r.add(QX_SD_PTR_ARRAY, {.ptr_array = a.array(parts)});
    r.add(QX_INT32, {.val_int32 = 99});
    r.add(QX_INT32, {.val_int32 = 1});
    r.add(QX_FLOAT64_ARRAY, {.ptr_array = a.array({{.val_float64 = 0.5}, {.val_float64 = -1.0}})});
    r.add(QX_BINARY_PTR_ARRAY,
          {.ptr_array = a.array({{.ptr_binary = a.binary("")}, {.ptr_binary = a.binary("\xff")}})});
    return r;
}

struct Compiled {
    cu_expr_t *p = nullptr;
    int rc = 0;
    explicit Compiled(const char *text, void *token = nullptr) {
        rc = cu_comp_expr_1(text, 0, validate, token, &p);
    }
    ~Compiled() { cu_free_expr_1(p); }
    Compiled(const Compiled &) = delete;
    Compiled &operator=(const Compiled &) = delete;
};

// Evaluates on a copy of the row at odd addresses: -1 when the text does not compile.
int run(const char *text, const Row &row, int *p_match, uint32_t slot_count = UINT32_MAX) {
    Compiled c(text);
    if (c.rc != CU_OK) return -1;
    Bytes slots(row.slots.size() + 3);
    Bytes area(row.area.size() + 5);
    memcpy(slots.data() + 3, row.slots.data(), row.slots.size());
    memcpy(area.data() + 5, row.area.data(), row.area.size());
    qx_int32_t match = -1;
    int rc =
        cu_exec_expr_bounded_1(c.p, CU_EXPR_PROTOCOL_ROW, slots.data() + 3,
                               slot_count == UINT32_MAX ? row.slot_count() : slot_count, &match,
                               area.data() + 5, static_cast<qx_int64_t>(row.area.size()));
    *p_match = match;
    return rc;
}

// The outcome on the sample row: "match", "no match", "outcome N" or the compile error.
std::string result(const std::string &text) {
    int match = 0;
    int rc = run(text.c_str(), sample_row(), &match);
    if (rc == -1) return "does not compile: " + cu_test::current_message();
    if (rc != CU_OK) return "outcome " + std::to_string(rc);
    return match == 1 ? "match" : "no match";
}

void expect_refused(const std::string &text, const std::string &reason, int position = 0) {
    cu_set_no_error_1();
    Compiled c(text.c_str());
    EXPECT_EQ(CU_E_SYNTAX, c.rc) << text.substr(0, 40);
    const std::string message = c.rc == CU_OK ? "" : cu_test::current_message();
    const std::string where = position ? "position " + std::to_string(position) + " " : "";
    EXPECT_NE(std::string::npos, message.find(where)) << text << ": " << message;
    EXPECT_NE(std::string::npos, message.find(reason)) << text.substr(0, 40) << ": " << message;
}

TEST(ExprCompileTest, NamesResolveOnceRefusalsGivePositionAndReasonAndDepthIsBounded) {
    std::vector<uint32_t> parents;  // info, level (under info), nums, parts, what (under parts)
    Compiled c("info.level > 2 && nums[1] == 1 && parts[0].what == \"wheel\"", &parents);
    ASSERT_EQ(CU_OK, c.rc) << cu_test::current_message();
    EXPECT_EQ(
        (std::vector<uint32_t>{CU_EXPR_TOP_LEVEL, 9, CU_EXPR_TOP_LEVEL, CU_EXPR_TOP_LEVEL, 13}),
        parents);
    const struct {
        const char *text;
        unsigned position;
        const char *reason;
    } cases[] = {{"i32 > 1 AND missing_col = 3", 13, "unknown column \"missing_col\""},
                 {"info.nothing == 1", 0, "unknown field"},
                 {"", 1, "empty"},
                 {"   ", 1, "empty"},
                 {"i32 >", 6, "ends where a value is expected"},
                 {"i32 > 1)", 8, "unexpected text after the expression"},
                 {"(i32 > 1", 9, "expected ')'"},
                 {"name == \"abc", 9, "closing quote"},
                 {"name == 'a\\qb'", 11, "unknown escape"},
                 {"i32 > 12abc", 7, "malformed number"},
                 {"i32 > 0x", 7, "without digits"},
                 {"i32 > 99999999999999999999", 7, "out of range"},
                 {"i32 > -9223372036854775809", 7, "out of range"},
                 {"i32 $ 2", 5, "unexpected character"},
                 {"i32 + 1", 5, "not a condition"},
                 {"1 < i32 < 3", 9, "do not chain"},
                 {"name =~ \"(\"", 9, "bad regular expression"},
                 {"name =~ name", 9, "must be a quoted text"},
                 {"name =~ \"(a{100}){100}\"", 9, "bad regular expression"},
                 // Back-references have no linear-time match and are refused.
                 {"name =~ '(.*)(.*)(.*)(.*)(.*)(.*)\\\\6\\\\5\\\\4\\\\3\\\\2\\\\1z'", 9,
                  "bad regular expression"},
                 {"i32 > 1 / 0", 9, "arithmetic fault"},
                 {"blob == \"0x1\"", 9, "pairs of hex digits"},
                 {"owner == \"0x1 0x2\"", 10, "resource handle is written"},
                 {"{1, i32} CONTAINS 1", 5, "must be constants"},
                 {"nums < {1}", 6, "have an order"},
                 {"info == info", 6, "cannot be compared"},
                 {"NOT i32", 1, "negates a condition"},
                 {"i32 && i64", 5, "AND and OR"},
                 {"f64 % 2 == 0", 5, "needs integers"},
                 {"`unclosed == 1", 1, "backquote"},
                 {"i32 IN ()", 5, "at least one"}};
    for (const auto &c : cases) expect_refused(c.text, c.reason, static_cast<int>(c.position));
    for (const char *t : {"i32.level == 1", "i32[0] == 1", "nums[\"a\"] == 1", "info.label.x == 1"})
        expect_refused(t, "");
    for (const char *t : {"name == 1", "1 = 'a'", "i32 IN ('1', 2)", "tags CONTAINS 3",
                          "nums CONTAINS \"3\"", "name < 2.5"})
        expect_refused(t, "text cannot be compared with a number");
    EXPECT_EQ(CU_E_SYNTAX, cu_test::current_error_id());

    cu_expr_t *p = nullptr;
    EXPECT_EQ(CU_E_INVAL, cu_comp_expr_1(nullptr, 0, validate, nullptr, &p));
    EXPECT_EQ(CU_E_INVAL, cu_comp_expr_1("i32 > 1", 1, validate, nullptr, &p));
    EXPECT_EQ(CU_E_INVAL, cu_comp_expr_1("i32 > 1", 0, validate, nullptr, nullptr));
    EXPECT_EQ(CU_E_SYNTAX, cu_comp_expr_1("i32 > 1", 0, nullptr, nullptr, &p));
    EXPECT_EQ(nullptr, p);
    EXPECT_EQ(CU_OK, cu_comp_expr_1("1 < 2", 0, nullptr, nullptr, &p));
    cu_free_expr_1(p);
    EXPECT_EQ(CU_OK, cu_free_expr_1(nullptr));
    // Deep and long texts are refused without exhausting the stack.
    constexpr size_t n = 200000;
    std::string index;
    for (size_t i = 0; i < n / 8; ++i) index += "nums[";
    std::string sum = "i32", chain = "i32 == 1";
    for (size_t i = 0; i < 100000; ++i) sum += " + 1";
    for (size_t i = 0; i < 50000; ++i) chain += " || i32 == 1";
    for (const std::string &t :
         {std::string(n, '(') + "i32 > 1" + std::string(n, ')'), std::string(n, '!') + "TRUE",
          std::string(n, '-') + "i32 > 1", std::string(n, '~') + "1 == 1",
          index + "0" + std::string(n / 8, ']') + " == 1", std::string(n, '{'), sum + " > 0",
          chain}) {
        expect_refused(t, "nested too deeply");
    }
    expect_refused("name == \"" + std::string(2u << 20, 'a') + "\"", "longer than");
    // Regular expressions are bounded in size and number.
    std::string many = "name =~ 'a'";
    for (int i = 1; i < 32; ++i) many += " || name =~ 'a'";
    EXPECT_EQ("match", result(many));
    expect_refused(many + " || name =~ 'a'", "too many regular expressions");
    expect_refused("name =~ '" + std::string(16385, 'a') + "'", "too long");
    expect_refused(
        "name =~ '" + std::string(9000, 'a') + "' || name =~ '" + std::string(9000, 'a') + "'",
        "too long");
    expect_refused("name =~ '(" + std::string(8000, 'a') + "){1,20}'", "bad regular expression");
}

// Every operator on every column type of the sample row.
TEST(ExprEvalTest, ExpressionsOnTheSampleRow) {
    std::string nested = ".";
    for (int i = 0; i < 18; ++i) nested = "(" + nested + ")+";
    std::string ands = "i32 == -5";
    for (int i = 0; i < 200; ++i) ands += " AND i64 > 0";
    const std::string matching[] = {
        std::string(100, '(') + "i32 == -5" + std::string(100, ')'), ands,
        // Integers compute in 64 bits; an unsigned operand makes a comparison unsigned.
        "i32 = -5 and u32 = 4000000000 and u32 > i32 and u32 * 4 == 16000000000",
        "i64 == 1234567890123 && i64 / 1000 == 1234567890",
        "u64 == 18000000000000000000 and u64 > 0x7FFFFFFFFFFFFFFF and u64 < -1",
        "i32 % 3 == -2 && -i32 % 3 == 2 && (i32 & 0xFF) == 0xFB && (1 << 40) == 1099511627776",
        "(i32 >> 1) == -3 && (i32 ^ -1) == 4 && ~i32 == 4 && (2 | 1) == 3",
        "-9223372036854775808 < i32 && 2 + 3 * 4 == 14 && (2 + 3) * 4 == 20",
        // Single precision meets its constants rounded the same way.
        "f32 == 1.1 and f64 == 2.5 && f64 > 2 && f64 * 2 == 5 && f64 / 2 == 1.25",
        "f64 == 25e-1 && 2e10 == 20000000000 and i32 < f64 && i32 + 0.5 == -4.5",
        // Texts compare byte-wise.
        "name == \"caf\\xC3\\xA9 noir\" and name == 'caf\xC3\xA9 noir' and name > 'cafe'",
        "name > 'caf' && name < 'cb' && name != 'caf' && tags[2] == '' && tags[2] < 'a'",
        "'a\\'b' == \"a'b\" && \"tab\\there\" != 'tab there'",
        "name LIKE 'caf_ noir'",  // _ is the two-byte é
        "name LIKE 'caf%' and name LIKE '%noir' and name like '%f%o%' and name LIKE '%'",
        "name NOT LIKE 'caf' and '50%' LIKE '50\\%' and '50x' NOT LIKE '50\\%'",
        "'a_b' LIKE 'a\\_b' and 'axb' not like 'a\\_b'",
        "'aaaaaaaaaaaaaaaaaaaaaaaaaaaaab' NOT LIKE '%a%a%a%a%a%a%a%a%a%c'",
        "'' LIKE '' and '' LIKE '%' and '' NOT LIKE '_'",
        "name =~ 'noir' and name =~ '^caf.+ (noir|blanc)$' and name !~ '^noir'",
        "tags[1] =~ 'e{2}'", "name =~ '^" + nested + "$'", "name =~ '^(a)+++|noir'",
        "name =~ '^(caf..)?( ?noir)+$'",  // '.' is one byte, é takes two
        "i32 IN (1, -5, 7) and i32 NOT IN (1, 2) and name in ('x', 'caf\\xc3\\xa9 noir')",
        "f64 IN (2, 2.5) and u64 IN (18000000000000000000) and blob IN ('0x00', '0xDEAD01')",
        "i32 IN (i64, -5) and blob == \"0xdead01\" && blob == '0xDEAD01'",
        "blob > '0xdead' && blob < '0xdead02' && blobs[0] == \"0x\" && blobs[1] == '0xff'",
        "sbs == '0x0102' && sbs != blob && blobs CONTAINS '0xff' and blobs not contains '0xfe'",
        // Handles compare as header, then id1..id4, unsigned.
        "owner == \"0x0001 0x0002 0x11111111 0x22222222 0x0000abcd 0xffffffff\"",
        "owner != \"0x0001 0x0002 0x11111111 0x22222222 0x0000abcd 0xfffffffe\"",
        "owner > \"0x0001 0x0002 0x11111111 0x22222222 0x0000abcc 0xffffffff\"",
        "info.level == 7 && info.label == 'top' && info.ratio < 0.5",
        "nums[0] == 3 && nums[4] == 5 && nums[i32 + 7] == 4 and nums == {3, 1, 4, 1, 5}",
        "nums != {3, 1, 4} and nums != {} and nums CONTAINS 4 and nums not contains 9",
        "tags CONTAINS 'green' and tags == {'red', 'green', ''} and parts[1].what == 'axle'",
        "parts[0].id == 10 and doubles CONTAINS -1 and doubles[0] == 0.5 and {1, 2, 3} CONTAINS 2",
        "`weird name` == 99 AnD `AND` == 1 oR FALSE",
        "NOT i32 > 0 and not (i32 == 1) and !(i32 == 2) and true and i32 <> 3 and TRUE == true",
        "i32 > 0 or i64 > 0 && i32 < 0",  // && binds tighter than ||
        "i32 < 0 || 10 / (i32 + 5) == 1",
        // A side that cannot be evaluated is unknown: the other side settles OR.
        "10 / (i32 + 5) == 1 || i32 < 0", "nums[9] == 1 or info.level == 7"};
    for (const std::string &text : matching) EXPECT_EQ("match", result(text)) << text;
    // A fault or missing element makes a side unknown; else the first outcome stands, even NOT.
    const std::string no = "no match", fault = "outcome " + std::to_string(CU_EXPR_ARITHMETIC),
                      absent = "outcome " + std::to_string(CU_EXPR_NO_ELEMENT);
    const std::pair<std::string, std::vector<std::string>> others[] = {
        {no,
         {"i32 >= 0", "f64 != 2.5", "name =~ '^[0-9]+$'",
          "name =~ '[+*]{2}x'",  // bracketed quantifier characters are literals
          "name =~ '^" + nested + "x$'", "name =~ '^(caf.)?( ?noir)+$'",
          "i32 > 0 && 10 / (i32 + 5) == 1", "nums[9] == 1 AND i32 > 0",
          "i32 > 0 AND nums[9] == 1"}},
        {fault,
         {"i32 > 0 || 10 / (i32 + 5) == 1", "10 / (i32 + 5) == 1 || nums[9] == 1",
          "i64 / (i32 + 5) > 1", "i64 % (i32 + 5) > 1", "f64 / (i32 + 5) > 1",
          "i64 * 9223372036854775807 > 1", "(1 << (i32 + 70)) > 1", "(1 << i32) > 1"}},
        {absent,
         {"nums[9] == 1 AND i32 < 0", "nums[9] == 1 || 10 / (i32 + 5) == 1",
          "NOT (nums[9] == 1 || i32 > 0)", "nums[5] == 1", "nums[i32] == 1", "parts[2].id == 1"}}};
    for (const auto &[outcome, texts] : others) {
        for (const std::string &text : texts) EXPECT_EQ(outcome, result(text)) << text;
    }
    // Rows of another shape or with bad anchors are skipped, not followed.
    int match = 1;
    EXPECT_EQ(CU_EXPR_NO_ELEMENT, run("blob == '0x'", sample_row(), &match, 7));
    EXPECT_EQ(0, match);
    // "info" holding one text element where level is declared an integer.
    Row other = sample_row(true);
    EXPECT_EQ(CU_EXPR_TYPE_MISMATCH, run("info.level == 7", other, &match));
    EXPECT_EQ(0, match);
    EXPECT_EQ(CU_EXPR_NO_ELEMENT, run("info.label == 'x'", other, &match));
    EXPECT_EQ(CU_OK, run("i32 == -5", other, &match));
    EXPECT_EQ(1, match);

    Row r = sample_row();
    put32(r.slots, 6 * 8, static_cast<uint32_t>(r.area.size()) - 4);  // past the area's end
    put32(r.slots, 6 * 8 + 4, 16);
    EXPECT_EQ(CU_EXPR_BAD_ROW, run("name == 'x'", r, &match));
    Row t = sample_row();
    put32(t.slots, 6 * 8 + 4, 3);  // the last byte is not the NUL
    EXPECT_EQ(CU_EXPR_BAD_ROW, run("name == 'x'", t, &match));
    Row a = sample_row();
    uint32_t tags;  // the first text's anchor leaves its array
    memcpy(&tags, a.slots.data() + 12 * 8, 4);
    put32(a.area, tags + 8, 4000);
    EXPECT_EQ(CU_EXPR_BAD_ROW, run("tags[0] == 'red'", a, &match));

    // Scalars need no area at all.
    Compiled c("i32 == -5");
    ASSERT_EQ(CU_OK, c.rc);
    EXPECT_EQ(CU_OK, cu_exec_expr_bounded_1(c.p, CU_EXPR_PROTOCOL_ROW, r.slots.data(), 1, &match,
                                            nullptr, 0));
    EXPECT_EQ(1, match);
    Compiled n("name == 'x'");
    EXPECT_EQ(CU_EXPR_BAD_ROW, cu_exec_expr_bounded_1(n.p, CU_EXPR_PROTOCOL_ROW, r.slots.data(), 7,
                                                      &match, nullptr, 0));
    EXPECT_EQ(CU_E_INVAL, cu_exec_expr_1(nullptr, 16, r.slots.data(), 1, &match, nullptr));
    EXPECT_EQ(CU_E_INVAL, cu_exec_expr_1(c.p, 0, r.slots.data(), 1, &match, nullptr));
    EXPECT_EQ(CU_E_INVAL, cu_exec_expr_1(c.p, 16, nullptr, 1, &match, nullptr));
    EXPECT_EQ(CU_E_INVAL, cu_exec_expr_1(c.p, 16, r.slots.data(), 1, nullptr, nullptr));
    EXPECT_EQ(CU_OK, cu_exec_expr_1(c.p, 16, r.slots.data(), 1, &match, nullptr));
    EXPECT_EQ(1, match);
}

TEST(ExprConcurrencyTest, OneCompiledExpressionServesSeveralThreads) {
    Compiled c("name =~ '^caf' && nums CONTAINS 4 && name LIKE '%noir' && i32 IN (1, -5)");
    ASSERT_EQ(CU_OK, c.rc) << cu_test::current_message();
    Row r = sample_row();
    Row miss = sample_row();
    int32_t other = 2;
    memcpy(miss.slots.data(), &other, 4);
    std::vector<std::thread> threads;
    std::vector<int> matches(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) {
                qx_int32_t m = 0;
                const Row &row = i % 2 == 0 ? r : miss;
                if (cu_exec_expr_bounded_1(c.p, CU_EXPR_PROTOCOL_ROW, row.slots.data(),
                                           row.slot_count(), &m, row.area.data(),
                                           static_cast<qx_int64_t>(row.area.size())) == CU_OK) {
                    matches[t] += m;
                }
            }
        });
    }
    for (std::thread &th : threads) th.join();
    for (int m : matches) EXPECT_EQ(1000, m);
}

}  // namespace
