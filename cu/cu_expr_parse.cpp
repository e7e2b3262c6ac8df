/*
 * cu_expr_parse.cpp - compiling selection expressions.
 *
 * A precedence-climbing parser builds the node array directly and checks
 * kinds as it goes, so that a comparison that can never be made (text with a
 * number, an ordering of arrays) is refused once, here, instead of failing on
 * every row.  Subtrees made only of constants are folded by running the
 * evaluator on them, which keeps the compile-time and run-time meanings of an
 * operator identical; a quoted text that meets a binary or resource-handle
 * value is converted here into that value once.
 *
 * Untrusted text is bounded three ways: its length, the number of parser
 * frames alive at once (parentheses, prefix operators, brackets) and the
 * height of the tree, which also bounds the evaluator's recursion.  Regular
 * expressions go to an automaton-based matcher whose compile is linear in the
 * pattern, whose memory is capped per pattern and whose match is linear in the
 * text; what it cannot do in those bounds (back-references among them) is
 * refused here.
 */
#ifndef QX_CU_NO_RE2
#include <re2/re2.h>
#endif
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <new>

#include "cu_expr_i.h"

namespace cu_expr {

Kind kind_of_type(uint32_t t) {
    switch (t) {
        case QX_INT32:
        case QX_UINT32:
        case QX_INT64:
            return kKindInt;
        case QX_UINT64:
            return kKindUInt;
        case QX_FLOAT32:
            return kKindF32;
        case QX_FLOAT64:
            return kKindF64;
        case QX_CHAR_PTR:
            return kKindText;
        case QX_BINARY_PTR:
            return kKindBin;
        case QX_RSRC_HANDLE_PTR:
            return kKindRh;
        case QX_SD_PTR:
            return kKindSd;
        case QX_SBS_PTR:
            return kKindSbs;
        default:
            return t >= QX_INT32_ARRAY && t <= QX_SD_PTR_ARRAY ? kKindArray : kKindNone;
    }
}

Kind elem_kind_of_type(uint32_t t) {
    if (t < QX_INT32_ARRAY || t > QX_SD_PTR_ARRAY) return kKindNone;
    return kind_of_type(cu_dtc_table_1[t].dtc_base_type);
}

namespace {

/* Parser frames alive at once; each parenthesis level costs about four. */
constexpr uint32_t kMaxFrames = 4 * kMaxDepth;

/* Binding strength of the binary operators, loosest first. */
enum Prec : int {
    kPrecNone = 0,
    kPrecOr = 1,
    kPrecAnd = 2,
    kPrecNot = 3,
    kPrecCompare = 4,
    kPrecBitOr = 5,
    kPrecBitXor = 6,
    kPrecBitAnd = 7,
    kPrecShift = 8,
    kPrecAdd = 9,
    kPrecMul = 10,
};

struct Compiler {
    Lexer lx;
    Token cur;
    Token ahead;
    bool has_ahead = false;
    Buf nodes;
    Buf lists;
    Buf pool;
    re2::RE2 **p_p_regexes = nullptr;
    uint32_t total_regexes = 0;
    uint32_t room_regexes = 0;
    size_t regex_bytes = 0; /* pattern bytes compiled so far */
    cu_validate_callback_t *p_validate = nullptr;
    void *token = nullptr;
    uint32_t frames = 0;
    bool nomem = false;
    uint32_t err_pos = 0;
    const char *err_reason = nullptr;
    char reason_buf[192];

    Node &n(uint32_t i) { return reinterpret_cast<Node *>(nodes.p)[i]; }
};

void free_regex(re2::RE2 *re);

/* Frees what a compiler holds (used on failure; success moves it out). */
void release(Compiler *c) {
    for (uint32_t i = 0; i < c->total_regexes; ++i) free_regex(c->p_p_regexes[i]);
    free(c->p_p_regexes);
    free(c->nodes.p);
    free(c->lists.p);
    free(c->pool.p);
}

uint32_t error(Compiler *c, uint32_t pos, const char *reason) {
    if (c->err_reason == nullptr) {
        c->err_pos = pos;
        c->err_reason = reason;
    }
    return kNoIndex;
}

uint32_t no_memory(Compiler *c, uint32_t pos) {
    c->nomem = true;
    return error(c, pos, "no memory");
}

bool failed(const Compiler *c) {
    return c->err_reason != nullptr || c->lx.err_reason != nullptr;
}

void next(Compiler *c) {
    if (c->has_ahead) {
        c->cur = c->ahead;
        c->has_ahead = false;
    } else {
        lex(&c->lx, &c->cur);
    }
}

const Token &peek(Compiler *c) {
    if (!c->has_ahead) {
        lex(&c->lx, &c->ahead);
        c->has_ahead = true;
    }
    return c->ahead;
}

/* A lexing error surfaces as a kTokError token; its reason is the lexer's. */
uint32_t token_error(Compiler *c, const char *reason) {
    if (c->cur.type == kTokError) {
        if (c->lx.nomem) c->nomem = true;
        return error(c, c->lx.err_pos, c->lx.err_reason);
    }
    return error(c, c->cur.pos, reason);
}

uint32_t new_node(Compiler *c, uint8_t op, uint8_t kind, uint32_t pos) {
    if (c->nodes.used / sizeof(Node) >= kNoIndex - 1) return error(c, pos, "expression too large");
    uint32_t index = c->nodes.used / sizeof(Node);
    if (!c->nodes.append(nullptr, sizeof(Node))) return no_memory(c, pos);
    Node &node = c->n(index);
    node.op = op;
    node.kind = kind;
    node.elem_kind = kKindNone;
    node.negate = 0;
    node.type = 0;
    node.a = kNoIndex;
    node.b = kNoIndex;
    node.list = 0;
    node.count = 0;
    node.depth = 1;
    node.pos = pos;
    node.k.u = 0;
    return index;
}

/* Records a child's height in its parent; false when the tree grows too tall. */
bool adopt(Compiler *c, uint32_t parent, uint32_t child) {
    uint32_t d = c->n(child).depth + 1;
    if (d > c->n(parent).depth) c->n(parent).depth = d;
    if (c->n(parent).depth > kMaxDepth) {
        error(c, c->n(parent).pos, "expression nested too deeply");
        return false;
    }
    return true;
}

bool is_const(Compiler *c, uint32_t i) {
    return c->n(i).op == kOpConst;
}

bool is_const_or_literal(Compiler *c, uint32_t i) {
    return c->n(i).op == kOpConst || c->n(i).op == kOpArray;
}

/* A view of what is compiled so far, for folding constants. */
cu_expr_t view(Compiler *c) {
    cu_expr_t e;
    memset(&e, 0, sizeof(e));
    e.p_nodes = reinterpret_cast<Node *>(c->nodes.p);
    e.total_nodes = c->nodes.used / sizeof(Node);
    e.p_lists = reinterpret_cast<uint32_t *>(c->lists.p);
    e.total_lists = c->lists.used / sizeof(uint32_t);
    e.p_pool = c->pool.p;
    e.pool_bytes = c->pool.used;
    e.p_p_regexes = c->p_p_regexes;
    e.total_regexes = c->total_regexes;
    return e;
}

/* Replaces a node whose operands are all constants by its value. */
uint32_t fold(Compiler *c, uint32_t i) {
    Node &node = c->n(i);
    Kind k = static_cast<Kind>(node.kind);
    if (!(is_numeric(k) || k == kKindBool)) return i;
    cu_expr_t e = view(c);
    Row row = {nullptr, 0, nullptr, 0};
    Value v;
    int rc = eval(&e, i, &row, &v);
    if (rc == CU_EXPR_ARITHMETIC) {
        return error(c, node.pos,
                     "arithmetic fault in constants (division by zero, overflow or shift)");
    }
    if (rc != CU_OK) return error(c, node.pos, "constants that cannot be combined");
    node.op = kOpConst;
    node.kind = v.kind;
    node.depth = 1;
    node.a = node.b = kNoIndex;
    if (v.kind == kKindBool) {
        node.k.u = 0;
        node.k.b = v.b;
    } else if (v.kind == kKindF32 || v.kind == kKindF64) {
        node.k.d = v.d;
    } else {
        node.k.i = v.i;
    }
    return i;
}

int hex_digit(uint8_t ch) {
    if (ch >= '0' && ch <= '9') return ch - '0';
    if (ch >= 'a' && ch <= 'f') return ch - 'a' + 10;
    if (ch >= 'A' && ch <= 'F') return ch - 'A' + 10;
    return -1;
}

/* Reads "0x" and 1..max_digits hex digits at s[*p_i]; false when absent. */
bool read_hex_word(const uint8_t *s, uint32_t n, uint32_t *p_i, uint32_t max_digits,
                   uint32_t *p_value) {
    uint32_t i = *p_i;
    if (i + 2 > n || s[i] != '0' || (s[i + 1] != 'x' && s[i + 1] != 'X')) return false;
    i += 2;
    uint32_t v = 0;
    uint32_t digits = 0;
    while (i < n && hex_digit(s[i]) >= 0 && digits < max_digits) {
        v = v << 4 | static_cast<uint32_t>(hex_digit(s[i]));
        ++digits;
        ++i;
    }
    if (digits == 0 || (i < n && hex_digit(s[i]) >= 0)) return false;
    *p_i = i;
    *p_value = v;
    return true;
}

/* Converts the quoted text constant at node i into the value of kind
 * `target`: "0x" and hex pairs for binaries, the six hex words a formatted
 * resource handle shows for handles.  Other pairs are left alone. */
bool coerce_text(Compiler *c, uint32_t i, Kind target) {
    Node &node = c->n(i);
    if (node.op != kOpConst || node.kind != kKindText) return true;
    if (!(is_bytes(target) || target == kKindRh)) return true;
    uint32_t off = node.k.pool.offset;
    uint32_t len = node.k.pool.length;
    uint32_t pos = node.pos;
    if (is_bytes(target)) {
        const uint8_t *s = c->pool.p + off;
        if (len < 2 || s[0] != '0' || (s[1] != 'x' && s[1] != 'X') || len % 2 != 0) {
            error(c, pos, "a binary value is written as \"0x\" followed by pairs of hex digits");
            return false;
        }
        for (uint32_t j = 2; j < len; ++j) {
            if (hex_digit(s[j]) < 0) {
                error(c, pos,
                      "a binary value is written as \"0x\" followed by pairs of hex digits");
                return false;
            }
        }
        uint32_t out = c->pool.used;
        uint32_t bytes = (len - 2) / 2;
        if (!c->pool.append(nullptr, bytes + 1)) {
            no_memory(c, pos);
            return false;
        }
        s = c->pool.p + off; /* the pool may have moved */
        for (uint32_t j = 0; j < bytes; ++j) {
            c->pool.p[out + j] =
                static_cast<uint8_t>(hex_digit(s[2 + 2 * j]) << 4 | hex_digit(s[3 + 2 * j]));
        }
        Node &moved = c->n(i);
        moved.kind = kKindBin;
        moved.k.pool.offset = out;
        moved.k.pool.length = bytes;
        return true;
    }
    /* "0x%04x 0x%04x 0x%08x 0x%08x 0x%08x 0x%08x": the two 16-bit halves of
     * the header as they lie in memory, then the four id words. */
    uint32_t words[6];
    uint32_t j = 0;
    const uint8_t *s = c->pool.p + off;
    int parsed = 0;
    while (parsed < 6) {
        if (parsed > 0) {
            if (j >= len || s[j] != ' ') break;
            ++j;
        }
        if (!read_hex_word(s, len, &j, parsed < 2 ? 4 : 8, &words[parsed])) break;
        ++parsed;
    }
    if (parsed != 6 || j != len) {
        error(c, pos,
              "a resource handle is written as \"0x%04x 0x%04x 0x%08x 0x%08x 0x%08x 0x%08x\"");
        return false;
    }
    uint8_t handle[20];
    uint16_t h0 = static_cast<uint16_t>(words[0]);
    uint16_t h1 = static_cast<uint16_t>(words[1]);
    memcpy(handle, &h0, 2);
    memcpy(handle + 2, &h1, 2);
    for (int w = 0; w < 4; ++w) memcpy(handle + 4 + 4 * w, &words[2 + w], 4);
    uint32_t out = c->pool.used;
    if (!c->pool.append(handle, sizeof(handle))) {
        no_memory(c, pos);
        return false;
    }
    Node &moved = c->n(i);
    moved.kind = kKindRh;
    moved.k.pool.offset = out;
    moved.k.pool.length = 20;
    return true;
}

/* Brings constant node i toward a value of kind `target` (elements
 * `target_elem` for arrays): quoted texts become binaries or handles, and a
 * double meeting a single-precision value is rounded to single precision so
 * that 1.1 equals a FLOAT32 column holding 1.1. */
bool coerce(Compiler *c, uint32_t i, Kind target, Kind target_elem) {
    Node &node = c->n(i);
    if (node.op == kOpArray) {
        if (target != kKindArray) return true;
        uint32_t list = node.list;
        uint32_t count = node.count;
        for (uint32_t j = 0; j < count; ++j) {
            uint32_t item = reinterpret_cast<uint32_t *>(c->lists.p)[list + j];
            if (!coerce(c, item, target_elem, kKindNone)) return false;
        }
        if (count > 0) {
            uint32_t first = reinterpret_cast<uint32_t *>(c->lists.p)[list];
            c->n(i).elem_kind = c->n(first).kind;
        }
        return true;
    }
    if (node.op != kOpConst) return true;
    if (node.kind == kKindText) return coerce_text(c, i, target);
    if (target == kKindF32 && node.kind == kKindF64) {
        node.k.d = static_cast<double>(static_cast<float>(node.k.d));
        node.kind = kKindF32;
    }
    return true;
}

bool comparable(Kind a, Kind b) {
    if (a == kKindNone || b == kKindNone) return true;
    if (is_numeric(a) && is_numeric(b)) return true;
    if (is_bytes(a) && is_bytes(b)) return true;
    return a == b && a != kKindSd;
}

bool elems_comparable(Compiler *c, uint32_t x, uint32_t y) {
    return comparable(static_cast<Kind>(c->n(x).elem_kind), static_cast<Kind>(c->n(y).elem_kind));
}

/* Makes x and y ready to be compared: converts constants toward the other
 * side and checks that the kinds meet. */
bool prepare_comparison(Compiler *c, uint32_t x, uint32_t y, uint32_t pos) {
    Kind kx = static_cast<Kind>(c->n(x).kind);
    Kind ky = static_cast<Kind>(c->n(y).kind);
    if (!is_const_or_literal(c, x) || is_const_or_literal(c, y)) {
        if (!coerce(c, y, kx, static_cast<Kind>(c->n(x).elem_kind))) return false;
    }
    if (is_const_or_literal(c, x)) {
        if (!coerce(c, x, ky, static_cast<Kind>(c->n(y).elem_kind))) return false;
    }
    kx = static_cast<Kind>(c->n(x).kind);
    ky = static_cast<Kind>(c->n(y).kind);
    if (!comparable(kx, ky) || (kx == kKindArray && !elems_comparable(c, x, y))) {
        if ((kx == kKindText && is_numeric(ky)) || (ky == kKindText && is_numeric(kx))) {
            error(c, pos, "text cannot be compared with a number");
        } else {
            error(c, pos, "values of these types cannot be compared");
        }
        return false;
    }
    return true;
}

const char *op_text(uint8_t op) {
    switch (op) {
        case kOpAdd:
            return "+";
        case kOpSub:
            return "-";
        case kOpMul:
            return "*";
        case kOpDiv:
            return "/";
        case kOpMod:
            return "%";
        case kOpBitAnd:
            return "&";
        case kOpBitOr:
            return "|";
        case kOpBitXor:
            return "^";
        case kOpShl:
            return "<<";
        case kOpShr:
            return ">>";
        default:
            return "?";
    }
}

uint32_t make_binary(Compiler *c, uint8_t op, uint32_t x, uint32_t y, uint32_t pos) {
    Kind kx = static_cast<Kind>(c->n(x).kind);
    Kind ky = static_cast<Kind>(c->n(y).kind);
    uint8_t kind = kKindBool;
    switch (op) {
        case kOpAnd:
        case kOpOr:
            if (kx != kKindBool || ky != kKindBool) {
                return error(c, pos, "AND and OR combine conditions (true or false values)");
            }
            break;
        case kOpAdd:
        case kOpSub:
        case kOpMul:
        case kOpDiv:
            if (!is_numeric(kx) || !is_numeric(ky)) {
                snprintf(c->reason_buf, sizeof(c->reason_buf), "operator %s needs numbers",
                         op_text(op));
                return error(c, pos, c->reason_buf);
            }
            if (!is_integer(kx) || !is_integer(ky)) {
                kind = kKindF64;
            } else {
                kind = kx == kKindUInt || ky == kKindUInt ? kKindUInt : kKindInt;
            }
            break;
        case kOpMod:
        case kOpBitAnd:
        case kOpBitOr:
        case kOpBitXor:
        case kOpShl:
        case kOpShr:
            if (!is_integer(kx) || !is_integer(ky)) {
                snprintf(c->reason_buf, sizeof(c->reason_buf), "operator %s needs integers",
                         op_text(op));
                return error(c, pos, c->reason_buf);
            }
            if (op == kOpShl || op == kOpShr) {
                kind = kx;
            } else {
                kind = kx == kKindUInt || ky == kKindUInt ? kKindUInt : kKindInt;
            }
            break;
        case kOpEq:
        case kOpNe:
            if (!prepare_comparison(c, x, y, pos)) return kNoIndex;
            break;
        case kOpLt:
        case kOpLe:
        case kOpGt:
        case kOpGe:
            if (!prepare_comparison(c, x, y, pos)) return kNoIndex;
            kx = static_cast<Kind>(c->n(x).kind);
            if (kx == kKindArray || kx == kKindBool || c->n(y).kind == kKindArray ||
                c->n(y).kind == kKindBool) {
                return error(c, pos, "only numbers, texts, binaries and handles have an order");
            }
            break;
        default:
            return error(c, pos, "internal: unknown operator");
    }
    uint32_t i = new_node(c, op, kind, pos);
    if (i == kNoIndex) return i;
    c->n(i).a = x;
    c->n(i).b = y;
    if (!adopt(c, i, x) || !adopt(c, i, y)) return kNoIndex;
    if (is_const(c, x) && is_const(c, y)) return fold(c, i);
    return i;
}

uint32_t parse_expr(Compiler *c, int min_prec);

/* Binary operator at the current token: its node op and strength. */
int binary_prec(Compiler *c, uint8_t *p_op) {
    switch (c->cur.type) {
        case kTokOrOr:
        case kTokKwOr:
            *p_op = kOpOr;
            return kPrecOr;
        case kTokAndAnd:
        case kTokKwAnd:
            *p_op = kOpAnd;
            return kPrecAnd;
        case kTokEq:
            *p_op = kOpEq;
            return kPrecCompare;
        case kTokNe:
            *p_op = kOpNe;
            return kPrecCompare;
        case kTokLt:
            *p_op = kOpLt;
            return kPrecCompare;
        case kTokLe:
            *p_op = kOpLe;
            return kPrecCompare;
        case kTokGt:
            *p_op = kOpGt;
            return kPrecCompare;
        case kTokGe:
            *p_op = kOpGe;
            return kPrecCompare;
        case kTokMatch:
        case kTokNoMatch:
            *p_op = kOpMatch;
            return kPrecCompare;
        case kTokKwLike:
            *p_op = kOpLike;
            return kPrecCompare;
        case kTokKwIn:
            *p_op = kOpIn;
            return kPrecCompare;
        case kTokKwContains:
            *p_op = kOpContains;
            return kPrecCompare;
        case kTokKwNot: {
            /* NOT LIKE, NOT IN, NOT CONTAINS */
            Tok t = peek(c).type;
            if (t == kTokKwLike) {
                *p_op = kOpLike;
                return kPrecCompare;
            }
            if (t == kTokKwIn) {
                *p_op = kOpIn;
                return kPrecCompare;
            }
            if (t == kTokKwContains) {
                *p_op = kOpContains;
                return kPrecCompare;
            }
            return kPrecNone;
        }
        case kTokPipe:
            *p_op = kOpBitOr;
            return kPrecBitOr;
        case kTokCaret:
            *p_op = kOpBitXor;
            return kPrecBitXor;
        case kTokAmp:
            *p_op = kOpBitAnd;
            return kPrecBitAnd;
        case kTokShl:
            *p_op = kOpShl;
            return kPrecShift;
        case kTokShr:
            *p_op = kOpShr;
            return kPrecShift;
        case kTokPlus:
            *p_op = kOpAdd;
            return kPrecAdd;
        case kTokMinus:
            *p_op = kOpSub;
            return kPrecAdd;
        case kTokStar:
            *p_op = kOpMul;
            return kPrecMul;
        case kTokSlash:
            *p_op = kOpDiv;
            return kPrecMul;
        case kTokPercent:
            *p_op = kOpMod;
            return kPrecMul;
        default:
            return kPrecNone;
    }
}

/* A scope-bound list of node indices, gathered before they are stored. */
struct Items {
    Buf buf;
    ~Items() { free(buf.p); }
    uint32_t count() const { return buf.used / sizeof(uint32_t); }
    uint32_t at(uint32_t j) const {
        uint32_t v;
        memcpy(&v, buf.p + j * sizeof(uint32_t), sizeof(v));
        return v;
    }
};

/* Parses "( item, item, ... )" or "{ ... }" up to the closing token. */
bool parse_items(Compiler *c, Tok close, Items *items) {
    next(c); /* the opening token */
    if (c->cur.type == close) {
        next(c);
        return true;
    }
    for (;;) {
        uint32_t item = parse_expr(c, kPrecOr);
        if (item == kNoIndex) return false;
        if (!items->buf.append(&item, sizeof(item))) {
            no_memory(c, c->cur.pos);
            return false;
        }
        if (c->cur.type == kTokComma) {
            next(c);
            continue;
        }
        if (c->cur.type == close) {
            next(c);
            return true;
        }
        token_error(c, close == kTokRParen ? "expected ',' or ')' in the list"
                                           : "expected ',' or '}' in the array");
        return false;
    }
}

bool store_items(Compiler *c, uint32_t node, const Items &items) {
    uint32_t start = c->lists.used / sizeof(uint32_t);
    for (uint32_t j = 0; j < items.count(); ++j) {
        uint32_t item = items.at(j);
        if (!c->lists.append(&item, sizeof(item))) {
            no_memory(c, c->n(node).pos);
            return false;
        }
        if (!adopt(c, node, item)) return false;
    }
    c->n(node).list = start;
    c->n(node).count = items.count();
    return true;
}

uint32_t parse_in(Compiler *c, uint32_t x, bool negate, uint32_t pos) {
    if (c->cur.type != kTokLParen) return token_error(c, "IN is followed by a parenthesised list");
    Items items;
    if (!parse_items(c, kTokRParen, &items)) return kNoIndex;
    if (items.count() == 0) return error(c, pos, "IN needs at least one value");
    for (uint32_t j = 0; j < items.count(); ++j) {
        if (!prepare_comparison(c, x, items.at(j), c->n(items.at(j)).pos)) return kNoIndex;
    }
    uint32_t i = new_node(c, kOpIn, kKindBool, pos);
    if (i == kNoIndex) return i;
    c->n(i).a = x;
    c->n(i).negate = negate ? 1 : 0;
    if (!adopt(c, i, x) || !store_items(c, i, items)) return kNoIndex;
    return i;
}

#ifndef QX_CU_NO_RE2
/* Each pattern's automaton and its matching scratch space may use this much
 * memory, one expression may hold this many patterns, and their texts this
 * many bytes together, so that no accepted expression of any length costs
 * more than a few megabytes or milliseconds to compile, or megabytes to
 * evaluate.  A pattern too large for the budget is refused when compiled. */
constexpr int64_t kRegexMaxMem = 256 << 10;
constexpr uint32_t kMaxRegexes = 32;
constexpr size_t kMaxPatternBytes = 16 << 10;

/* POSIX extended syntax and its leftmost-longest rule, matched byte by byte
 * (texts may be in any code set), with the C library's defaults for a match
 * without REG_NEWLINE: '.' matches a newline and '^' '$' only the ends of the
 * text.  Only a yes/no answer is wanted, so nothing is captured. */
RE2::Options regex_options() {
    RE2::Options o;
    o.set_posix_syntax(true);
    o.set_longest_match(true);
    o.set_encoding(RE2::Options::EncodingLatin1);
    o.set_one_line(true);
    o.set_dot_nl(true);
    o.set_never_capture(true);
    o.set_perl_classes(true);
    o.set_word_boundary(true);
    o.set_log_errors(false);
    o.set_max_mem(kRegexMaxMem);
    return o;
}

/* Compiles a pattern; nullptr when memory ran out. */
re2::RE2 *compile_regex(const char *pattern, size_t length) {
    try {
        return new re2::RE2(re2::StringPiece(pattern, length), regex_options());
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

void free_regex(re2::RE2 *re) { delete re; }
#else
void free_regex(re2::RE2 *) {}
#endif

uint32_t make_match(Compiler *c, uint32_t x, uint32_t y, bool negate, uint32_t pos) {
    if (c->n(x).kind != kKindText) return error(c, pos, "=~ and !~ match texts");
    if (c->n(y).op != kOpConst || c->n(y).kind != kKindText) {
        return error(c, c->n(y).pos, "the pattern of =~ and !~ must be a quoted text");
    }
#ifdef QX_CU_NO_RE2
    (void)negate;
    return error(c, pos, "regular expressions are not available in this build");
#else
    if (c->total_regexes == kMaxRegexes) {
        return error(c, pos, "too many regular expressions (at most 32 in one expression)");
    }
    if (c->total_regexes == c->room_regexes) {
        uint32_t room = c->room_regexes == 0 ? 4 : c->room_regexes * 2;
        void *grown = realloc(c->p_p_regexes, room * sizeof(re2::RE2 *));
        if (grown == nullptr) return no_memory(c, pos);
        c->p_p_regexes = static_cast<re2::RE2 **>(grown);
        c->room_regexes = room;
    }
    const char *pattern = reinterpret_cast<const char *>(c->pool.p + c->n(y).k.pool.offset);
    /* The pattern ends at its first NUL, as a text does. */
    size_t length = strnlen(pattern, c->n(y).k.pool.length);
    if (length > kMaxPatternBytes - c->regex_bytes) {
        return error(c, c->n(y).pos,
                     "regular expressions too long (at most 16384 bytes in one expression)");
    }
    c->regex_bytes += length;
    re2::RE2 *re = compile_regex(pattern, length);
    if (re == nullptr) return no_memory(c, pos);
    if (!re->ok()) {
        /* Back-references, and patterns whose automaton would not fit the
         * memory budget, are among what the matcher refuses. */
        snprintf(c->reason_buf, sizeof(c->reason_buf), "bad regular expression: %s",
                 re->error().c_str());
        delete re;
        return error(c, c->n(y).pos, c->reason_buf);
    }
    c->p_p_regexes[c->total_regexes] = re;
    uint32_t i = new_node(c, kOpMatch, kKindBool, pos);
    if (i == kNoIndex) {
        delete re;
        return i;
    }
    c->n(i).a = x;
    c->n(i).b = c->total_regexes++;
    c->n(i).negate = negate ? 1 : 0;
    if (!adopt(c, i, x)) return kNoIndex;
    return i;
#endif
}

uint32_t make_like(Compiler *c, uint32_t x, uint32_t y, bool negate, uint32_t pos) {
    if (c->n(x).kind != kKindText || c->n(y).kind != kKindText) {
        return error(c, pos, "LIKE matches a text against a text pattern");
    }
    uint32_t i = new_node(c, kOpLike, kKindBool, pos);
    if (i == kNoIndex) return i;
    c->n(i).a = x;
    c->n(i).b = y;
    c->n(i).negate = negate ? 1 : 0;
    if (!adopt(c, i, x) || !adopt(c, i, y)) return kNoIndex;
    return i;
}

uint32_t make_contains(Compiler *c, uint32_t x, uint32_t y, bool negate, uint32_t pos) {
    if (c->n(x).kind != kKindArray) return error(c, pos, "CONTAINS looks into an array");
    Kind elem = static_cast<Kind>(c->n(x).elem_kind);
    if (!coerce(c, y, elem, kKindNone)) return kNoIndex;
    Kind ky = static_cast<Kind>(c->n(y).kind);
    if (!comparable(elem, ky) || ky == kKindArray) {
        if ((elem == kKindText && is_numeric(ky)) || (ky == kKindText && is_numeric(elem))) {
            return error(c, pos, "text cannot be compared with a number");
        }
        return error(c, pos, "the array's elements cannot be compared with this value");
    }
    uint32_t i = new_node(c, kOpContains, kKindBool, pos);
    if (i == kNoIndex) return i;
    c->n(i).a = x;
    c->n(i).b = y;
    c->n(i).negate = negate ? 1 : 0;
    if (!adopt(c, i, x) || !adopt(c, i, y)) return kNoIndex;
    return i;
}

/* Asks the caller for a name; fills *p_data or reports why not. */
bool resolve(Compiler *c, const Token &t, uint32_t parent, cu_validate_data_t *p_data) {
    char local[128];
    char *name = local;
    if (t.name_len >= sizeof(local)) {
        name = static_cast<char *>(malloc(t.name_len + 1));
        if (name == nullptr) {
            no_memory(c, t.pos);
            return false;
        }
    }
    memcpy(name, c->lx.text + t.name, t.name_len);
    name[t.name_len] = '\0';
    qx_int32_t rc = -1;
    if (c->p_validate != nullptr) {
        p_data->id = 0;
        p_data->type = QX_UNKNOWN;
        rc = c->p_validate(c->token, name, t.name_len, parent, p_data);
    }
    if (rc != 0) {
        snprintf(c->reason_buf, sizeof(c->reason_buf), "%s \"%.100s\"",
                 parent == CU_EXPR_TOP_LEVEL ? "unknown column" : "unknown field", name);
    } else if (kind_of_type(static_cast<uint32_t>(p_data->type)) == kKindNone) {
        snprintf(c->reason_buf, sizeof(c->reason_buf), "\"%.100s\" has a type that has no value",
                 name);
        rc = -1;
    }
    if (name != local) free(name);
    if (rc != 0) {
        error(c, t.pos, c->reason_buf);
        return false;
    }
    return true;
}

/* The column whose definition names the fields of structured data x. */
uint32_t sd_column_of(Compiler *c, uint32_t x) {
    const Node &node = c->n(x);
    if (node.op == kOpColumn) return node.a;
    if (node.op == kOpIndex && c->n(node.a).op == kOpColumn) return c->n(node.a).a;
    return kNoIndex;
}

uint32_t parse_primary(Compiler *c) {
    Token t = c->cur;
    switch (t.type) {
        case kTokInt: {
            next(c);
            uint32_t i = new_node(c, kOpConst, t.big ? kKindUInt : kKindInt, t.pos);
            if (i != kNoIndex) c->n(i).k.u = t.u;
            return i;
        }
        case kTokFloat: {
            next(c);
            uint32_t i = new_node(c, kOpConst, kKindF64, t.pos);
            if (i != kNoIndex) c->n(i).k.d = t.d;
            return i;
        }
        case kTokText: {
            next(c);
            uint32_t i = new_node(c, kOpConst, kKindText, t.pos);
            if (i != kNoIndex) {
                c->n(i).k.pool.offset = t.pool_off;
                c->n(i).k.pool.length = t.pool_len;
            }
            return i;
        }
        case kTokKwTrue:
        case kTokKwFalse: {
            next(c);
            uint32_t i = new_node(c, kOpConst, kKindBool, t.pos);
            if (i != kNoIndex) c->n(i).k.b = t.type == kTokKwTrue ? 1 : 0;
            return i;
        }
        case kTokIdent: {
            cu_validate_data_t data;
            if (!resolve(c, t, CU_EXPR_TOP_LEVEL, &data)) return kNoIndex;
            next(c);
            uint32_t type = static_cast<uint32_t>(data.type);
            uint32_t i = new_node(c, kOpColumn, kind_of_type(type), t.pos);
            if (i == kNoIndex) return i;
            c->n(i).a = data.id;
            c->n(i).type = type;
            c->n(i).elem_kind = elem_kind_of_type(type);
            return i;
        }
        case kTokLParen: {
            next(c);
            uint32_t i = parse_expr(c, kPrecOr);
            if (i == kNoIndex) return i;
            if (c->cur.type != kTokRParen) return token_error(c, "expected ')'");
            next(c);
            return i;
        }
        case kTokLBrace: {
            Items items;
            if (!parse_items(c, kTokRBrace, &items)) return kNoIndex;
            uint8_t elem = kKindNone;
            for (uint32_t j = 0; j < items.count(); ++j) {
                const Node &item = c->n(items.at(j));
                if (item.op != kOpConst)
                    return error(c, item.pos, "array elements must be constants");
                if (item.kind == kKindBool) return error(c, item.pos, "arrays hold no conditions");
                if (j == 0) {
                    elem = item.kind;
                } else if (!comparable(static_cast<Kind>(elem), static_cast<Kind>(item.kind))) {
                    return error(c, item.pos, "array elements of different kinds");
                }
            }
            uint32_t i = new_node(c, kOpArray, kKindArray, t.pos);
            if (i == kNoIndex) return i;
            c->n(i).elem_kind = elem;
            if (!store_items(c, i, items)) return kNoIndex;
            return i;
        }
        case kTokEnd:
            return error(c, t.pos, "the expression ends where a value is expected");
        default:
            return token_error(c, "a value is expected here");
    }
}

/* Postfix: element access x[i] and field access x.name. */
uint32_t parse_postfix(Compiler *c) {
    uint32_t x = parse_primary(c);
    while (x != kNoIndex) {
        if (c->cur.type == kTokLBracket) {
            uint32_t pos = c->cur.pos;
            if (c->n(x).kind != kKindArray) return error(c, pos, "only arrays have elements");
            next(c);
            if (++c->frames > kMaxFrames) return error(c, pos, "expression nested too deeply");
            uint32_t index = parse_expr(c, kPrecOr);
            --c->frames;
            if (index == kNoIndex) return index;
            if (!is_integer(static_cast<Kind>(c->n(index).kind))) {
                return error(c, c->n(index).pos, "an array index is an integer");
            }
            if (c->cur.type != kTokRBracket) return token_error(c, "expected ']'");
            next(c);
            uint32_t i = new_node(c, kOpIndex, c->n(x).elem_kind, pos);
            if (i == kNoIndex) return i;
            uint32_t t = c->n(x).type;
            c->n(i).a = x;
            c->n(i).b = index;
            c->n(i).type =
                t >= QX_INT32_ARRAY && t <= QX_SD_PTR_ARRAY ? cu_dtc_table_1[t].dtc_base_type : 0;
            if (!adopt(c, i, x) || !adopt(c, i, index)) return kNoIndex;
            x = i;
        } else if (c->cur.type == kTokDot) {
            uint32_t pos = c->cur.pos;
            if (c->n(x).kind != kKindSd) return error(c, pos, "only structured data has fields");
            uint32_t column = sd_column_of(c, x);
            if (column == kNoIndex) {
                return error(c, pos,
                             "fields are named on a structured-data column or an element of one");
            }
            next(c);
            if (c->cur.type != kTokIdent)
                return token_error(c, "a field name is expected after '.'");
            cu_validate_data_t data;
            if (!resolve(c, c->cur, column, &data)) return kNoIndex;
            next(c);
            uint32_t type = static_cast<uint32_t>(data.type);
            uint32_t i = new_node(c, kOpField, kind_of_type(type), pos);
            if (i == kNoIndex) return i;
            c->n(i).a = x;
            c->n(i).b = data.id;
            c->n(i).type = type;
            c->n(i).elem_kind = elem_kind_of_type(type);
            if (!adopt(c, i, x)) return kNoIndex;
            x = i;
        } else {
            break;
        }
    }
    return x;
}

uint32_t parse_prefix(Compiler *c) {
    if (++c->frames > kMaxFrames) return error(c, c->cur.pos, "expression nested too deeply");
    uint32_t result;
    Token t = c->cur;
    if (t.type == kTokKwNot || t.type == kTokBang) {
        next(c);
        uint32_t x = parse_expr(c, kPrecCompare);
        if (x == kNoIndex) {
            result = x;
        } else if (c->n(x).kind != kKindBool) {
            result = error(c, t.pos, "NOT negates a condition (a true or false value)");
        } else {
            result = new_node(c, kOpNot, kKindBool, t.pos);
            if (result != kNoIndex) {
                c->n(result).a = x;
                if (!adopt(c, result, x)) {
                    result = kNoIndex;
                } else if (is_const(c, x)) {
                    result = fold(c, result);
                }
            }
        }
    } else if (t.type == kTokMinus && peek(c).type == kTokInt && peek(c).pos == t.pos + 1) {
        /* A negative literal: -9223372036854775808 must not pass through
         * the unsigned 9223372036854775808. */
        next(c);
        Token lit = c->cur;
        next(c);
        if (lit.u > static_cast<uint64_t>(INT64_MAX) + 1) {
            result = error(c, t.pos, "integer literal out of range");
        } else {
            result = new_node(c, kOpConst, kKindInt, t.pos);
            if (result != kNoIndex) c->n(result).k.u = 0 - lit.u;
        }
        /* Postfix operators do not apply to a literal; done. */
    } else if (t.type == kTokMinus || t.type == kTokTilde) {
        next(c);
        uint32_t x = parse_prefix(c);
        if (x == kNoIndex) {
            result = x;
        } else {
            Kind k = static_cast<Kind>(c->n(x).kind);
            if (t.type == kTokMinus ? !is_numeric(k) : !is_integer(k)) {
                result = error(
                    c, t.pos,
                    t.type == kTokMinus ? "unary - needs a number" : "operator ~ needs an integer");
            } else {
                uint8_t kind = static_cast<uint8_t>(k == kKindF32 ? kKindF64 : k);
                result = new_node(c, t.type == kTokMinus ? kOpNeg : kOpBitNot, kind, t.pos);
                if (result != kNoIndex) {
                    c->n(result).a = x;
                    if (!adopt(c, result, x)) {
                        result = kNoIndex;
                    } else if (is_const(c, x)) {
                        result = fold(c, result);
                    }
                }
            }
        }
    } else {
        result = parse_postfix(c);
    }
    --c->frames;
    return result;
}

uint32_t parse_expr(Compiler *c, int min_prec) {
    if (++c->frames > kMaxFrames) return error(c, c->cur.pos, "expression nested too deeply");
    uint32_t x = parse_prefix(c);
    bool compared = false;
    while (x != kNoIndex) {
        uint8_t op = 0;
        int prec = binary_prec(c, &op);
        if (prec == kPrecNone || prec < min_prec) break;
        uint32_t pos = c->cur.pos;
        bool negate = false;
        if (prec == kPrecCompare) {
            if (compared) {
                x = error(c, pos, "comparisons do not chain; combine them with AND");
                break;
            }
            compared = true;
            if (c->cur.type == kTokKwNot) {
                negate = true;
                next(c);
            }
            negate = negate || c->cur.type == kTokNoMatch;
        }
        next(c);
        if (op == kOpIn) {
            x = parse_in(c, x, negate, pos);
            continue;
        }
        uint32_t y = parse_expr(c, prec + 1);
        if (y == kNoIndex) {
            x = y;
            break;
        }
        if (op == kOpMatch) {
            x = make_match(c, x, y, negate, pos);
        } else if (op == kOpLike) {
            x = make_like(c, x, y, negate, pos);
        } else if (op == kOpContains) {
            x = make_contains(c, x, y, negate, pos);
        } else {
            x = make_binary(c, op, x, y, pos);
        }
    }
    --c->frames;
    return x;
}

/* Copies up to 24 bytes of the text at pos for the message, without
 * newlines. */
void near_text(const char *text, uint32_t length, uint32_t pos, char *out, size_t room) {
    size_t n = 0;
    for (uint32_t i = pos; i < length && n + 1 < room && n < 24; ++i) {
        char ch = text[i];
        out[n++] = (ch == '\n' || ch == '\r' || ch == '\t') ? ' ' : ch;
    }
    out[n] = '\0';
}

}  // namespace

}  // namespace cu_expr

using cu_expr::Compiler;
using cu_expr::kNoIndex;

/* The message every compile error carries: position (counted from 1), the
 * text found there and the reason. */
static const char kSyntaxText[] =
    "2650-001 The selection expression cannot be compiled at position %1$u (near \"%2$s\"): "
    "%3$s.\n";

extern "C" int cu_comp_expr_1(const char *p_text, qx_uint32_t flags,
                              cu_validate_callback_t *p_validate, void *token,
                              cu_expr_t **pp_compiled) {
    if (pp_compiled == nullptr) return CU_E_INVAL;
    *pp_compiled = nullptr;
    if (p_text == nullptr || flags != 0) {
        cu_set_error_1(CU_E_INVAL, nullptr, "qx_cu.cat", 2, 2,
                       "2650-002 A selection expression was compiled with a NULL text or "
                       "unknown flags.\n");
        return CU_E_INVAL;
    }
    size_t length = strnlen(p_text, cu_expr::kMaxTextBytes + 1);
    Compiler *c = new (std::nothrow) Compiler;
    if (c == nullptr) return CU_E_NOMEM;
    c->lx.text = p_text;
    c->lx.length = static_cast<uint32_t>(length);
    c->lx.pos = 0;
    c->lx.pool = &c->pool;
    c->lx.nomem = false;
    c->lx.err_pos = 0;
    c->lx.err_reason = nullptr;
    c->p_validate = p_validate;
    c->token = token;

    uint32_t root = kNoIndex;
    if (length > cu_expr::kMaxTextBytes) {
        cu_expr::error(c, 0, "the expression is longer than 1048576 bytes");
    } else {
        cu_expr::next(c);
        if (c->cur.type == cu_expr::kTokEnd) {
            cu_expr::error(c, 0, "the expression is empty");
        } else {
            root = cu_expr::parse_expr(c, cu_expr::kPrecOr);
            if (root != kNoIndex && c->cur.type != cu_expr::kTokEnd) {
                root = cu_expr::token_error(c, "unexpected text after the expression");
            }
            if (root != kNoIndex && c->n(root).kind != cu_expr::kKindBool) {
                root = cu_expr::error(c, c->n(root).pos,
                                      "the expression is not a condition (true or false)");
            }
        }
    }
    if (root == kNoIndex || cu_expr::failed(c)) {
        int rc = c->nomem || c->lx.nomem ? CU_E_NOMEM : CU_E_SYNTAX;
        const char *reason = c->err_reason != nullptr ? c->err_reason : c->lx.err_reason;
        uint32_t pos = c->err_reason != nullptr ? c->err_pos : c->lx.err_pos;
        char near[32];
        cu_expr::near_text(p_text, c->lx.length, pos, near, sizeof(near));
        cu_set_error_1(rc, nullptr, "qx_cu.cat", 2, 1, kSyntaxText, pos + 1, near,
                       reason != nullptr ? reason : "unknown");
        cu_expr::release(c);
        delete c;
        return rc;
    }

    cu_expr_t *e = static_cast<cu_expr_t *>(malloc(sizeof(cu_expr_t)));
    if (e == nullptr) {
        cu_expr::release(c);
        delete c;
        return CU_E_NOMEM;
    }
    e->p_nodes = reinterpret_cast<cu_expr::Node *>(c->nodes.p);
    e->total_nodes = c->nodes.used / sizeof(cu_expr::Node);
    e->root = root;
    e->p_lists = reinterpret_cast<uint32_t *>(c->lists.p);
    e->total_lists = c->lists.used / sizeof(uint32_t);
    e->p_pool = c->pool.p;
    e->pool_bytes = c->pool.used;
    e->pad = 0;
    e->p_p_regexes = c->p_p_regexes;
    e->total_regexes = c->total_regexes;
    delete c;
    *pp_compiled = e;
    return CU_OK;
}

extern "C" int cu_free_expr_1(cu_expr_t *p_compiled) {
    if (p_compiled == nullptr) return CU_OK;
    for (uint32_t i = 0; i < p_compiled->total_regexes; ++i) {
        cu_expr::free_regex(p_compiled->p_p_regexes[i]);
    }
    free(p_compiled->p_p_regexes);
    free(p_compiled->p_nodes);
    free(p_compiled->p_lists);
    free(p_compiled->p_pool);
    free(p_compiled);
    return CU_OK;
}
