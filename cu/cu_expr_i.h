/*
 * cu_expr_i.h - the selection expression compiler and evaluator.
 *
 * A selection expression is compiled once into a flat array of nodes (each
 * node names its children by index) plus a constant pool and the compiled
 * regular expressions; evaluating it on a row walks the nodes recursively and
 * touches nothing but the row, the pool and the stack, so the per-row path
 * never allocates.  The compiler bounds both the nesting of the text and the
 * depth of the node tree, which bounds the evaluator's recursion too.
 *
 * Values are typed twice: statically when compiling (a column's declared type,
 * a literal's kind) to reject comparisons that can never be made, and
 * dynamically when evaluating, because the elements of structured data carry
 * their own type in every row and may differ from the declared one.
 */
#ifndef CU_EXPR_I_H
#define CU_EXPR_I_H

#include <stddef.h>
#include <stdint.h>

#include "qx_cu.h"

namespace re2 {
class RE2;
}

namespace cu_expr {

/* Longest expression text accepted, in bytes. */
constexpr uint32_t kMaxTextBytes = 1u << 20;
/* Deepest nesting of the text and of the compiled tree. */
constexpr uint32_t kMaxDepth = 256;
constexpr uint32_t kNoIndex = 0xFFFFFFFFu;

/* What a value is, statically and at run time. */
enum Kind : uint8_t {
    kKindNone, /* element kind of an empty array literal: matches anything */
    kKindBool,
    kKindInt,  /* signed 64-bit (INT32, UINT32, INT64 and small literals) */
    kKindUInt, /* unsigned 64-bit (UINT64, literals above INT64_MAX) */
    kKindF32,  /* a single-precision value widened to double */
    kKindF64,
    kKindText,  /* bytes without the NUL; a NUL always follows them */
    kKindBin,   /* binary bytes */
    kKindSbs,   /* structured byte string bytes (compared as binary) */
    kKindRh,    /* the 20 bytes of a resource handle */
    kKindSd,    /* a structured-data form */
    kKindArray, /* an array form, or an array literal */
};

inline bool is_numeric(Kind k) {
    return k == kKindInt || k == kKindUInt || k == kKindF32 || k == kKindF64;
}
inline bool is_integer(Kind k) {
    return k == kKindInt || k == kKindUInt;
}
inline bool is_bytes(Kind k) {
    return k == kKindBin || k == kKindSbs;
}

enum Op : uint8_t {
    kOpConst,  /* value in the node itself (or the pool) */
    kOpColumn, /* a: column id; type: its data type */
    kOpField,  /* a: structured data; b: field position; type: declared type */
    kOpIndex,  /* a: array; b: index */
    kOpNeg,    /* a */
    kOpBitNot, /* a */
    kOpNot,    /* a */
    kOpAdd,
    kOpSub,
    kOpMul,
    kOpDiv,
    kOpMod,
    kOpBitAnd,
    kOpBitOr,
    kOpBitXor,
    kOpShl,
    kOpShr,
    kOpEq,
    kOpNe,
    kOpLt,
    kOpLe,
    kOpGt,
    kOpGe,
    kOpMatch,    /* a: text; b: regex number; negate: !~ */
    kOpLike,     /* a: text; b: pattern; negate: NOT LIKE */
    kOpIn,       /* a: value; list/count: the candidates; negate: NOT IN */
    kOpContains, /* a: array; b: element; negate: NOT CONTAINS */
    kOpAnd,
    kOpOr,
    kOpArray, /* an array literal: list/count hold its constant elements */
};

/* One compiled node.  Constants keep their value here; texts, binaries and
 * handles keep offset and length into the pool. */
struct Node {
    uint8_t op;
    uint8_t kind;      /* static kind of the result */
    uint8_t elem_kind; /* arrays: static kind of the elements */
    uint8_t negate;    /* !~, NOT LIKE, NOT IN, NOT CONTAINS */
    uint32_t type;     /* columns and fields: the data type (qx_data_type_t) */
    uint32_t a;
    uint32_t b;
    uint32_t list;  /* first entry in the list array (IN, array literals) */
    uint32_t count; /* entries there */
    uint32_t depth; /* height of the subtree, bounded by kMaxDepth */
    uint32_t pos;   /* byte position in the text, for messages */
    union {
        int64_t i;
        uint64_t u;
        double d;
        uint8_t b; /* booleans */
        struct {
            uint32_t offset;
            uint32_t length;
        } pool;
    } k;
};

/* A value while evaluating.  Byte values point into the row or the pool;
 * array and structured-data forms keep their start and length so that nested
 * anchors can be bounded by their container. */
struct Value {
    uint8_t kind;
    uint8_t literal;    /* arrays: an array literal (p is the node list) */
    uint32_t elem_type; /* arrays: the element data type */
    uint32_t n;         /* bytes of text/binary, elements of arrays and sd */
    uint32_t form_length;
    union {
        int64_t i;
        uint64_t u;
        double d;
        uint8_t b;
        const uint8_t *p;
    };
};

}  // namespace cu_expr

struct cu_expr_struct {
    cu_expr::Node *p_nodes;
    uint32_t total_nodes;
    uint32_t root;
    uint32_t *p_lists; /* node indices referenced by IN lists and array literals */
    uint32_t total_lists;
    uint32_t total_regexes;
    uint8_t *p_pool; /* decoded texts (each followed by a NUL), binaries, handles */
    uint32_t pool_bytes;
    uint32_t pad;
    re2::RE2 **p_p_regexes;
};

namespace cu_expr {

/* Tokens of the language. */
enum Tok : uint8_t {
    kTokEnd,
    kTokIdent,
    kTokInt,
    kTokFloat,
    kTokText,
    kTokLParen,
    kTokRParen,
    kTokLBrace,
    kTokRBrace,
    kTokLBracket,
    kTokRBracket,
    kTokComma,
    kTokDot,
    kTokOrOr,
    kTokAndAnd,
    kTokBang,
    kTokEq,
    kTokNe,
    kTokLt,
    kTokLe,
    kTokGt,
    kTokGe,
    kTokMatch,
    kTokNoMatch,
    kTokPipe,
    kTokCaret,
    kTokAmp,
    kTokShl,
    kTokShr,
    kTokPlus,
    kTokMinus,
    kTokStar,
    kTokSlash,
    kTokPercent,
    kTokTilde,
    kTokKwAnd,
    kTokKwOr,
    kTokKwNot,
    kTokKwLike,
    kTokKwIn,
    kTokKwContains,
    kTokKwTrue,
    kTokKwFalse,
    kTokError,
};

struct Token {
    Tok type;
    bool big;      /* integer literal above INT64_MAX */
    uint32_t pos;  /* byte position of the token */
    uint32_t len;  /* bytes of the token in the text */
    uint32_t name; /* identifiers: first byte of the name (after a backquote) */
    uint32_t name_len;
    uint64_t u;        /* integer literals */
    double d;          /* floating literals */
    uint32_t pool_off; /* texts: decoded bytes in the pool */
    uint32_t pool_len;
};

/* A growable malloc'd byte buffer (no exceptions on the compile path). */
struct Buf {
    uint8_t *p = nullptr;
    uint32_t used = 0;
    uint32_t room = 0;
    /* Appends n bytes (p_src may be NULL to append zeros); false when memory
     * or the 32-bit size runs out. */
    bool append(const void *p_src, uint32_t n);
};

/* The lexer's state.  Errors are reported through err_pos/err_reason. */
struct Lexer {
    const char *text;
    uint32_t length;
    uint32_t pos;
    Buf *pool;
    bool nomem;
    uint32_t err_pos;
    const char *err_reason;
};

/* Reads the next token at lx->pos; kTokError sets err_pos and err_reason. */
void lex(Lexer *lx, Token *p_tok);

/* The static kind of a column or field of data type t, and of its elements. */
Kind kind_of_type(uint32_t t);
Kind elem_kind_of_type(uint32_t t);

/* Evaluates node `index`; CU_OK or a per-row outcome (6, 7, 8) or
 * kRowCorrupt.  Used by the evaluator and by constant folding. */
struct Row {
    const uint8_t *slots;
    uint32_t slot_count;
    const uint8_t *area;
    int64_t area_length; /* -1: not bounded */
};
constexpr int kRowCorrupt = 9;
int eval(const cu_expr_t *p, uint32_t index, const Row *row, Value *out);

/* Three-way comparison of two values: 0 and *p_cmp < 0, 0 or > 0, or 2 in
 * *p_cmp when the values are unordered (NaN); CU_EXPR_TYPE_MISMATCH when
 * they cannot be compared at all. */
int compare_values(const cu_expr_t *p, const Value &a, const Value &b, int *p_cmp);

/* LIKE: % any run of bytes, _ one UTF-8 character, \ escapes the next byte. */
bool like_match(const uint8_t *s, uint32_t n, const uint8_t *pat, uint32_t m);

}  // namespace cu_expr

#endif /* CU_EXPR_I_H */
