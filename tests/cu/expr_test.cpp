// Selection expressions: what compiles and what is refused (with the position
// and reason in the error record), what every operator yields on a row of
// every column type laid out in the protocol form at odd addresses, the
// per-row outcomes, bounded reads, and one compiled expression shared by
// several threads.
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "cu_test_util.h"
#include "qx_cu.h"

namespace {

using Bytes = std::vector<uint8_t>;

void put32(Bytes &b, size_t at, uint32_t v) {
    memcpy(b.data() + at, &v, 4);
}

void pad8(Bytes &b) {
    while (b.size() % 8 != 0) b.push_back(0);
}

Bytes slot_of(const void *p, size_t n) {
    Bytes s(8, 0);
    memcpy(s.data(), p, n);
    return s;
}

Bytes text_form(const std::string &s) {
    return Bytes(s.c_str(), s.c_str() + s.size() + 1);
}

Bytes bin_form(const Bytes &data) {
    Bytes b(4);
    put32(b, 0, static_cast<uint32_t>(data.size()));
    b.insert(b.end(), data.begin(), data.end());
    return b;
}

// Appends `form` to `area` at the next multiple of 8 and writes its anchor
// (offset in `area`, length) into `anchors` at `at`.
void anchor(Bytes &area, Bytes &anchors, size_t at, const Bytes &form) {
    pad8(area);
    put32(anchors, at, static_cast<uint32_t>(area.size()));
    put32(anchors, at + 4, static_cast<uint32_t>(form.size()));
    area.insert(area.end(), form.begin(), form.end());
}

// Count, 0, then the 8-byte slots or the anchors of the nested forms.
Bytes array_form(const std::vector<Bytes> &elements, bool scalars = false) {
    Bytes b(8, 0);
    put32(b, 0, static_cast<uint32_t>(elements.size()));
    if (scalars) {
        for (const Bytes &s : elements) b.insert(b.end(), s.begin(), s.end());
        return b;
    }
    b.resize(8 + 8 * elements.size());
    for (size_t i = 0; i < elements.size(); ++i) anchor(b, b, 8 + 8 * i, elements[i]);
    return b;
}

// A structured-data element: its type and either a scalar slot or a form.
struct Element {
    qx_data_type_t type;
    Bytes slot_or_form;
    bool is_form;
};

Bytes sd_form(const std::vector<Element> &elements) {
    Bytes b(8 + 16 * elements.size(), 0);
    put32(b, 0, static_cast<uint32_t>(elements.size()));
    for (size_t i = 0; i < elements.size(); ++i) {
        put32(b, 8 + 16 * i, static_cast<uint32_t>(elements[i].type));
        if (elements[i].is_form) {
            anchor(b, b, 16 + 16 * i, elements[i].slot_or_form);
        } else {
            memcpy(b.data() + 16 + 16 * i, elements[i].slot_or_form.data(), 8);
        }
    }
    return b;
}

Element scalar_element(qx_data_type_t type, const void *p, size_t n) {
    return Element{type, slot_of(p, n), false};
}

// A row in the protocol form: slots in column order and the indirect area.
struct Row {
    Bytes slots;
    Bytes area;

    void scalar(const void *p, size_t n) {
        Bytes s = slot_of(p, n);
        slots.insert(slots.end(), s.begin(), s.end());
    }
    void form(const Bytes &f) {
        slots.resize(slots.size() + 8);
        anchor(area, slots, slots.size() - 8, f);
    }
    uint32_t slot_count() const { return static_cast<uint32_t>(slots.size() / 8); }
};

struct Column {
    const char *name;
    qx_data_type_t type;
};

// clang-format off
const Column kColumns[] = {
    {"i32", QX_INT32}, {"u32", QX_UINT32}, {"i64", QX_INT64}, {"u64", QX_UINT64},
    {"f32", QX_FLOAT32}, {"f64", QX_FLOAT64}, {"name", QX_CHAR_PTR}, {"blob", QX_BINARY_PTR},
    {"owner", QX_RSRC_HANDLE_PTR}, {"info", QX_SD_PTR}, {"sbs", QX_SBS_PTR},
    {"nums", QX_INT32_ARRAY}, {"tags", QX_CHAR_PTR_ARRAY}, {"parts", QX_SD_PTR_ARRAY},
    {"weird name", QX_INT32}, {"AND", QX_INT32}, {"doubles", QX_FLOAT64_ARRAY},
    {"blobs", QX_BINARY_PTR_ARRAY}};
// clang-format on
const Column kInfoFields[] = {{"level", QX_INT32}, {"label", QX_CHAR_PTR}, {"ratio", QX_FLOAT64}};
const Column kPartFields[] = {{"id", QX_UINT32}, {"what", QX_CHAR_PTR}};

qx_int32_t validate(void *token, qx_char_t *p_name, qx_uint32_t length, qx_uint32_t parent_id,
                    cu_validate_data_t *p_out) {
    if (token != nullptr) static_cast<std::vector<uint32_t> *>(token)->push_back(parent_id);
    if (strlen(p_name) != length) return -1;
    const Column *table = kColumns;
    uint32_t n = sizeof(kColumns) / sizeof(kColumns[0]);
    if (parent_id == 9) {
        table = kInfoFields;
        n = 3;
    } else if (parent_id == 13) {
        table = kPartFields;
        n = 2;
    } else if (parent_id != CU_EXPR_TOP_LEVEL) {
        return -1;
    }
    for (uint32_t i = 0; i < n; ++i) {
        if (strcmp(table[i].name, p_name) == 0) {
            p_out->id = i;
            p_out->type = table[i].type;
            return 0;
        }
    }
    return -1;
}

// One row holding a value in every column.
Row sample_row() {
    Row r;
    int32_t i32 = -5;
    uint32_t u32 = 4000000000u;
    int64_t i64 = 1234567890123LL;
    uint64_t u64 = 18000000000000000000ull;
    float f32 = 1.1f;
    double f64 = 2.5;
    r.scalar(&i32, 4);
    r.scalar(&u32, 4);
    r.scalar(&i64, 8);
    r.scalar(&u64, 8);
    r.scalar(&f32, 4);
    r.scalar(&f64, 8);
    r.form(text_form("caf\xC3\xA9 noir"));
    r.form(bin_form({0xde, 0xad, 0x01}));
    const uint32_t owner[5] = {0x00020001u, 0x11111111u, 0x22222222u, 0x0000abcdu, 0xffffffffu};
    r.form(Bytes(reinterpret_cast<const uint8_t *>(owner),
                 reinterpret_cast<const uint8_t *>(owner) + 20));
    int32_t level = 7;
    double ratio = 0.25;
    r.form(sd_form({scalar_element(QX_INT32, &level, 4),
                    {QX_CHAR_PTR, text_form("top"), true},
                    scalar_element(QX_FLOAT64, &ratio, 8)}));
    r.form(bin_form({0x01, 0x02}));  // an SBS has the same byte form
    std::vector<Bytes> nums;
    for (int32_t v : {3, 1, 4, 1, 5}) nums.push_back(slot_of(&v, 4));
    r.form(array_form(nums, true));
    r.form(array_form({text_form("red"), text_form("green"), text_form("")}));
    uint32_t id0 = 10, id1 = 11;
    r.form(array_form(
        {sd_form({scalar_element(QX_UINT32, &id0, 4), {QX_CHAR_PTR, text_form("wheel"), true}}),
         sd_form({scalar_element(QX_UINT32, &id1, 4), {QX_CHAR_PTR, text_form("axle"), true}})}));
    int32_t weird = 99, and_col = 1;
    r.scalar(&weird, 4);
    r.scalar(&and_col, 4);
    std::vector<Bytes> doubles;
    for (double v : {0.5, -1.0}) doubles.push_back(slot_of(&v, 8));
    r.form(array_form(doubles, true));
    r.form(array_form({bin_form({}), bin_form({0xff})}));
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

// Evaluates on a copy of the row placed at odd addresses: -1 when the
// expression does not compile, else the outcome, with the match in *p_match.
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

// The outcome on the sample row: "match", "no match", "outcome N" or the
// compile error.
std::string result(const std::string &text) {
    int match = 0;
    int rc = run(text.c_str(), sample_row(), &match);
    if (rc == -1) return "does not compile: " + cu_test::current_message();
    if (rc != CU_OK) return "outcome " + std::to_string(rc);
    return match == 1 ? "match" : "no match";
}

struct CompileError {
    int rc;
    std::string message;
};

CompileError compile_error(const std::string &text) {
    cu_set_no_error_1();
    Compiled c(text.c_str());
    return CompileError{c.rc, c.rc == CU_OK ? std::string() : cu_test::current_message()};
}

void expect_refused(const std::string &text, const std::string &reason, int position = 0) {
    CompileError e = compile_error(text);
    EXPECT_EQ(CU_E_SYNTAX, e.rc) << text.substr(0, 40);
    if (position != 0) {
        std::string where = "position " + std::to_string(position) + " ";
        EXPECT_NE(std::string::npos, e.message.find(where)) << text << ": " << e.message;
    }
    EXPECT_NE(std::string::npos, e.message.find(reason)) << text.substr(0, 40) << ": " << e.message;
}

TEST(ExprCompileTest, ResolvesEachNameOnceWithTheRightParent) {
    std::vector<uint32_t> parents;
    Compiled c("info.level > 2 && nums[1] == 1 && parts[0].what == \"wheel\"", &parents);
    ASSERT_EQ(CU_OK, c.rc) << cu_test::current_message();
    // info (top), level (under info), nums, parts, what (under parts)
    EXPECT_EQ(
        (std::vector<uint32_t>{CU_EXPR_TOP_LEVEL, 9, CU_EXPR_TOP_LEVEL, CU_EXPR_TOP_LEVEL, 13}),
        parents);
}

TEST(ExprCompileTest, RefusedTextsGiveThePositionAndReason) {
    const struct {
        const char *text;
        unsigned position;
        const char *reason;
    } cases[] = {{"i32 > 1 AND missing_col = 3", 13, "unknown column \"missing_col\""},
                 {"info.nothing == 1", 0, "unknown field"},
                 {"i32.level == 1", 0, ""},
                 {"i32[0] == 1", 0, ""},
                 {"nums[\"a\"] == 1", 0, ""},
                 {"info.label.x == 1", 0, ""},
                 {"name == 1", 0, "text cannot be compared with a number"},
                 {"1 = 'a'", 0, "text cannot be compared with a number"},
                 {"i32 IN ('1', 2)", 0, "text cannot be compared with a number"},
                 {"tags CONTAINS 3", 0, "text cannot be compared with a number"},
                 {"nums CONTAINS \"3\"", 0, "text cannot be compared with a number"},
                 {"name < 2.5", 0, "text cannot be compared with a number"},
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
}

TEST(ExprCompileTest, DeepAndLongTextsAreRefusedWithoutExhaustingTheStack) {
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
        "i32 == -5", "i32 = -5 and u32 = 4000000000", "u32 > i32", "u32 * 4 == 16000000000",
        "i64 == 1234567890123 && i64 / 1000 == 1234567890", "u64 == 18000000000000000000",
        "u64 > 0x7FFFFFFFFFFFFFFF", "u64 < -1", "i32 % 3 == -2 && -i32 % 3 == 2",
        "(i32 & 0xFF) == 0xFB && (1 << 40) == 1099511627776",
        "(i32 >> 1) == -3 && (i32 ^ -1) == 4 && ~i32 == 4 && (2 | 1) == 3",
        "-9223372036854775808 < i32 && 2 + 3 * 4 == 14 && (2 + 3) * 4 == 20",
        // Single precision meets its constants rounded the same way.
        "f32 == 1.1", "f32 == 1.100000", "f64 == 2.5 && f64 > 2 && f64 * 2 == 5 && f64 / 2 == 1.25",
        "f64 == 25e-1 && 2e10 == 20000000000", "i32 < f64 && i32 + 0.5 == -4.5",
        // Texts compare byte-wise.
        "name == \"caf\\xC3\\xA9 noir\"", "name == 'caf\xC3\xA9 noir'",
        "name > 'caf' && name < 'cb' && name != 'caf'", "name > 'cafe'",
        "tags[2] == '' && tags[2] < 'a'", "'a\\'b' == \"a'b\" && \"tab\\there\" != 'tab there'",
        "name LIKE 'caf%'",
        "name LIKE 'caf_ noir'",  // _ is the two-byte é
        "name LIKE '%noir' and name like '%f%o%' and name LIKE '%'", "name NOT LIKE 'caf'",
        "'50%' LIKE '50\\%' and '50x' NOT LIKE '50\\%'",
        "'a_b' LIKE 'a\\_b' and 'axb' not like 'a\\_b'",
        "'aaaaaaaaaaaaaaaaaaaaaaaaaaaaab' NOT LIKE '%a%a%a%a%a%a%a%a%a%c'",
        "'' LIKE '' and '' LIKE '%' and '' NOT LIKE '_'", "name =~ 'noir'",
        "name =~ '^caf.+ (noir|blanc)$'", "name !~ '^noir'", "tags[1] =~ 'e{2}'",
        "name =~ '^" + nested + "$'", "name =~ '^(a)+++|noir'",
        "name =~ '^(caf..)?( ?noir)+$'",  // '.' is one byte, é takes two
        "i32 IN (1, -5, 7)", "i32 NOT IN (1, 2)", "name in ('x', 'caf\\xc3\\xa9 noir')",
        "f64 IN (2, 2.5) and u64 IN (18000000000000000000)", "blob IN ('0x00', '0xDEAD01')",
        "i32 IN (i64, -5)", "blob == \"0xdead01\" && blob == '0xDEAD01'",
        "blob > '0xdead' && blob < '0xdead02'", "blobs[0] == \"0x\" && blobs[1] == '0xff'",
        "sbs == '0x0102' && sbs != blob", "blobs CONTAINS '0xff' and blobs not contains '0xfe'",
        // Handles compare as header, then id1..id4, unsigned.
        "owner == \"0x0001 0x0002 0x11111111 0x22222222 0x0000abcd 0xffffffff\"",
        "owner != \"0x0001 0x0002 0x11111111 0x22222222 0x0000abcd 0xfffffffe\"",
        "owner > \"0x0001 0x0002 0x11111111 0x22222222 0x0000abcc 0xffffffff\"",
        "info.level == 7 && info.label == 'top' && info.ratio < 0.5",
        "nums[0] == 3 && nums[4] == 5 && nums[i32 + 7] == 4",
        "nums CONTAINS 4 and nums not contains 9",
        "nums == {3, 1, 4, 1, 5} and nums != {3, 1, 4} and nums != {}",
        "tags CONTAINS 'green' and tags == {'red', 'green', ''}",
        "parts[1].what == 'axle' and parts[0].id == 10",
        "doubles CONTAINS -1 and doubles[0] == 0.5", "{1, 2, 3} CONTAINS 2",
        "`weird name` == 99 AnD `AND` == 1 oR FALSE",
        "NOT i32 > 0 and not (i32 == 1) and !(i32 == 2) and true",
        "i32 <> 3 and i32 = -5 and TRUE == true",
        "i32 > 0 or i64 > 0 && i32 < 0",  // && binds tighter than ||
        "i32 < 0 || 10 / (i32 + 5) == 1",
        // A side that cannot be evaluated is unknown: the other side settles OR.
        "10 / (i32 + 5) == 1 || i32 < 0", "nums[9] == 1 or info.level == 7"};
    for (const std::string &text : matching) EXPECT_EQ("match", result(text)) << text;
    const std::string not_matching[] = {
        "i32 >= 0",
        "f64 != 2.5",
        "name =~ '^[0-9]+$'",
        "name =~ '[+*]{2}x'",  // bracketed quantifier characters are literals
        "name =~ '^" + nested + "x$'",
        "name =~ '^(caf.)?( ?noir)+$'",
        "i32 > 0 && 10 / (i32 + 5) == 1",
        "nums[9] == 1 AND i32 > 0",
        "i32 > 0 AND nums[9] == 1"};
    for (const std::string &text : not_matching) EXPECT_EQ("no match", result(text)) << text;
    const std::string arithmetic[] = {"i32 > 0 || 10 / (i32 + 5) == 1",
                                      "10 / (i32 + 5) == 1 || nums[9] == 1",
                                      "i64 / (i32 + 5) > 1",
                                      "i64 % (i32 + 5) > 1",
                                      "f64 / (i32 + 5) > 1",
                                      "i64 * 9223372036854775807 > 1",
                                      "(1 << (i32 + 70)) > 1",
                                      "(1 << i32) > 1"};
    for (const std::string &text : arithmetic) {
        EXPECT_EQ("outcome " + std::to_string(CU_EXPR_ARITHMETIC), result(text)) << text;
    }
    // Otherwise the first outcome stands, also under NOT.
    const std::string no_element[] = {"nums[9] == 1 AND i32 < 0",
                                      "nums[9] == 1 || 10 / (i32 + 5) == 1",
                                      "NOT (nums[9] == 1 || i32 > 0)",
                                      "nums[5] == 1",
                                      "nums[i32] == 1",
                                      "parts[2].id == 1"};
    for (const std::string &text : no_element) {
        EXPECT_EQ("outcome " + std::to_string(CU_EXPR_NO_ELEMENT), result(text)) << text;
    }
}

// Randomized integer arithmetic against the same computation in C++.
TEST(ExprEvalTest, RandomIntegerFormulasAgreeWithCpp) {
    uint64_t seed = 0x9E3779B97F4A7C15ull;
    auto rnd = [&seed]() {
        seed ^= seed << 13;
        seed ^= seed >> 7;
        seed ^= seed << 17;
        return seed;
    };
    const char *ops[] = {"+", "-", "*", "&", "|", "^"};
    auto apply = [](uint64_t op, int64_t x, int64_t y) -> int64_t {
        const int64_t r[] = {x + y, x - y, x * y, x & y, x | y, x ^ y};
        return r[op];
    };
    for (int iter = 0; iter < 300; ++iter) {
        int64_t a = static_cast<int64_t>(rnd() % 2001) - 1000;
        int64_t b = static_cast<int64_t>(rnd() % 2001) - 1000;
        int64_t c = static_cast<int64_t>(rnd() % 2001) - 1000;
        uint64_t o1 = rnd() % 6, o2 = rnd() % 6;
        std::string text = "((i64 - 1234567890123 + (" + std::to_string(a) + ")) " + ops[o1] +
                           " (" + std::to_string(b) + ")) " + ops[o2] + " (" + std::to_string(c) +
                           ") == " + std::to_string(apply(o2, apply(o1, a, b), c));
        EXPECT_EQ("match", result(text)) << text;
    }
}

TEST(ExprEvalTest, RowsOfAnotherShapeOrWithBadAnchorsAreSkippedNotFollowed) {
    int match = 1;
    // A row with fewer columns than the expression names.
    EXPECT_EQ(CU_EXPR_NO_ELEMENT, run("blob == '0x'", sample_row(), &match, 7));
    EXPECT_EQ(0, match);
    // "info" holding one text element where level is declared an integer.
    Row r = sample_row();
    Row other;
    other.slots.assign(r.slots.begin(), r.slots.begin() + 9 * 8);
    other.area = r.area;
    other.form(sd_form({{QX_CHAR_PTR, text_form("seven"), true}}));
    other.slots.insert(other.slots.end(), r.slots.begin() + 10 * 8, r.slots.end());
    EXPECT_EQ(CU_EXPR_TYPE_MISMATCH, run("info.level == 7", other, &match));
    EXPECT_EQ(0, match);
    EXPECT_EQ(CU_EXPR_NO_ELEMENT, run("info.label == 'x'", other, &match));
    EXPECT_EQ(CU_OK, run("i32 == -5", other, &match));
    EXPECT_EQ(1, match);

    put32(r.slots, 6 * 8, static_cast<uint32_t>(r.area.size()) - 4);  // past the area's end
    put32(r.slots, 6 * 8 + 4, 16);
    EXPECT_EQ(CU_EXPR_BAD_ROW, run("name == 'x'", r, &match));
    Row t = sample_row();
    put32(t.slots, 6 * 8 + 4, 3);  // the last byte is not the NUL
    EXPECT_EQ(CU_EXPR_BAD_ROW, run("name == 'x'", t, &match));
    Row a = sample_row();
    Bytes bad = array_form({text_form("red")});
    put32(bad, 8, 4000);  // a nested anchor leaving its array
    a.slots.resize(12 * 8);
    a.form(bad);
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
