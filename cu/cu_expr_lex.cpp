/*
 * cu_expr_lex.cpp - tokens of selection expressions.
 *
 * The lexer runs on demand, one token at a time, so a long expression is
 * never held twice.  Quoted texts are decoded (escapes resolved) straight into
 * the compiled expression's constant pool, each followed by a NUL so that the
 * regular-expression compiler and matcher can take them as they stand.
 */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "cu_expr_i.h"

namespace cu_expr {

bool Buf::append(const void *p_src, uint32_t n) {
    if (n > UINT32_MAX - used) return false;
    if (used + n > room) {
        uint64_t want = room == 0 ? 256 : static_cast<uint64_t>(room) * 2;
        while (want < static_cast<uint64_t>(used) + n) want *= 2;
        if (want > UINT32_MAX) want = UINT32_MAX;
        void *grown = realloc(p, want);
        if (grown == nullptr) return false;
        p = static_cast<uint8_t *>(grown);
        room = static_cast<uint32_t>(want);
    }
    if (n != 0) {
        if (p_src != nullptr) {
            memcpy(p + used, p_src, n);
        } else {
            memset(p + used, 0, n);
        }
    }
    used += n;
    return true;
}

namespace {

bool is_ident_start(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

bool is_ident_char(char c) {
    return is_ident_start(c) || (c >= '0' && c <= '9');
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

struct Keyword {
    const char *word;
    uint32_t len;
    Tok tok;
};

constexpr Keyword kKeywords[] = {
    {"AND", 3, kTokKwAnd},           {"OR", 2, kTokKwOr},       {"NOT", 3, kTokKwNot},
    {"LIKE", 4, kTokKwLike},         {"IN", 2, kTokKwIn},       {"TRUE", 4, kTokKwTrue},
    {"CONTAINS", 8, kTokKwContains}, {"FALSE", 5, kTokKwFalse},
};

/* Keywords are recognised in either case. */
Tok keyword(const char *s, uint32_t n) {
    for (const Keyword &k : kKeywords) {
        if (k.len != n) continue;
        uint32_t i = 0;
        while (i < n) {
            char c = s[i];
            if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
            if (c != k.word[i]) break;
            ++i;
        }
        if (i == n) return k.tok;
    }
    return kTokIdent;
}

void fail(Lexer *lx, Token *t, uint32_t pos, const char *reason) {
    t->type = kTokError;
    if (lx->err_reason == nullptr) {
        lx->err_pos = pos;
        lx->err_reason = reason;
    }
}

void lex_number(Lexer *lx, Token *t) {
    const char *s = lx->text;
    uint32_t start = lx->pos;
    uint32_t i = start;
    if (s[i] == '0' && (s[i + 1] == 'x' || s[i + 1] == 'X')) {
        i += 2;
        uint64_t v = 0;
        uint32_t digits = 0;
        while (i < lx->length && hex_value(s[i]) >= 0) {
            if (v >> 60 != 0) return fail(lx, t, start, "integer literal out of range");
            v = v << 4 | static_cast<uint64_t>(hex_value(s[i]));
            ++digits;
            ++i;
        }
        if (digits == 0) return fail(lx, t, start, "hexadecimal literal without digits");
        if (i < lx->length && (is_ident_char(s[i]) || s[i] == '.')) {
            return fail(lx, t, start, "malformed number");
        }
        t->type = kTokInt;
        t->u = v;
        t->big = v > static_cast<uint64_t>(INT64_MAX);
        lx->pos = i;
        return;
    }
    bool is_float = false;
    while (i < lx->length && is_digit(s[i])) ++i;
    if (i < lx->length && s[i] == '.' && i + 1 < lx->length && is_digit(s[i + 1])) {
        is_float = true;
        ++i;
        while (i < lx->length && is_digit(s[i])) ++i;
    }
    if (i < lx->length && (s[i] == 'e' || s[i] == 'E')) {
        uint32_t j = i + 1;
        if (j < lx->length && (s[j] == '+' || s[j] == '-')) ++j;
        if (j < lx->length && is_digit(s[j])) {
            is_float = true;
            i = j;
            while (i < lx->length && is_digit(s[i])) ++i;
        } else {
            return fail(lx, t, start, "exponent without digits");
        }
    }
    if (i < lx->length && (is_ident_char(s[i]) || s[i] == '.')) {
        return fail(lx, t, start, "malformed number");
    }
    lx->pos = i;
    if (is_float) {
        /* The span is a complete decimal float: strtod stops exactly at its
         * end because the next byte is neither a digit nor a letter. */
        char local[128];
        uint32_t n = i - start;
        if (n >= sizeof(local)) return fail(lx, t, start, "floating literal too long");
        memcpy(local, s + start, n);
        local[n] = '\0';
        errno = 0;
        double d = strtod(local, nullptr);
        if (errno == ERANGE && (d > 1.0 || d < -1.0)) {
            return fail(lx, t, start, "floating literal out of range");
        }
        t->type = kTokFloat;
        t->d = d;
        return;
    }
    uint64_t v = 0;
    for (uint32_t j = start; j < i; ++j) {
        uint64_t digit = static_cast<uint64_t>(s[j] - '0');
        if (v > (UINT64_MAX - digit) / 10)
            return fail(lx, t, start, "integer literal out of range");
        v = v * 10 + digit;
    }
    t->type = kTokInt;
    t->u = v;
    t->big = v > static_cast<uint64_t>(INT64_MAX);
}

/* Decodes a quoted text into the pool: \n \t \r \0 \\ \" \' and \xHH. */
void lex_text(Lexer *lx, Token *t) {
    const char *s = lx->text;
    uint32_t start = lx->pos;
    char quote = s[start];
    uint32_t i = start + 1;
    uint32_t off = lx->pool->used;
    for (;;) {
        if (i >= lx->length) return fail(lx, t, start, "text without its closing quote");
        char c = s[i];
        if (c == quote) break;
        uint32_t run = i;
        while (run < lx->length && s[run] != quote && s[run] != '\\') ++run;
        if (run > i) {
            if (!lx->pool->append(s + i, run - i)) {
                lx->nomem = true;
                return fail(lx, t, start, "no memory");
            }
            i = run;
            continue;
        }
        /* A backslash. */
        if (i + 1 >= lx->length) return fail(lx, t, start, "text without its closing quote");
        char e = s[i + 1];
        char out;
        uint32_t used = 2;
        switch (e) {
            case 'n':
                out = '\n';
                break;
            case 't':
                out = '\t';
                break;
            case 'r':
                out = '\r';
                break;
            case '0':
                out = '\0';
                break;
            case '\\':
            case '"':
            case '\'':
            case '%':
            case '_':
                /* \% and \_ stay escaped so that LIKE sees a literal. */
                if (e == '%' || e == '_') {
                    if (!lx->pool->append("\\", 1)) {
                        lx->nomem = true;
                        return fail(lx, t, start, "no memory");
                    }
                }
                out = e;
                break;
            case 'x': {
                int hi = i + 2 < lx->length ? hex_value(s[i + 2]) : -1;
                int lo = i + 3 < lx->length ? hex_value(s[i + 3]) : -1;
                if (hi < 0 || lo < 0) return fail(lx, t, i, "\\x needs two hexadecimal digits");
                out = static_cast<char>(hi << 4 | lo);
                used = 4;
                break;
            }
            default:
                return fail(lx, t, i, "unknown escape sequence in text");
        }
        if (!lx->pool->append(&out, 1)) {
            lx->nomem = true;
            return fail(lx, t, start, "no memory");
        }
        i += used;
    }
    if (!lx->pool->append("", 1)) {
        lx->nomem = true;
        return fail(lx, t, start, "no memory");
    }
    t->type = kTokText;
    t->pool_off = off;
    t->pool_len = lx->pool->used - off - 1;
    lx->pos = i + 1;
}

}  // namespace

void lex(Lexer *lx, Token *t) {
    const char *s = lx->text;
    while (lx->pos < lx->length &&
           (s[lx->pos] == ' ' || s[lx->pos] == '\t' || s[lx->pos] == '\n' || s[lx->pos] == '\r')) {
        ++lx->pos;
    }
    t->big = false;
    t->pos = lx->pos;
    t->u = 0;
    t->d = 0;
    t->name = 0;
    t->name_len = 0;
    t->pool_off = 0;
    t->pool_len = 0;
    if (lx->pos >= lx->length) {
        t->type = kTokEnd;
        t->len = 0;
        return;
    }
    char c = s[lx->pos];
    char n = lx->pos + 1 < lx->length ? s[lx->pos + 1] : '\0';
    uint32_t start = lx->pos;
    Tok two = kTokError;
    Tok one = kTokError;
    if (is_ident_start(c)) {
        uint32_t i = start;
        while (i < lx->length && is_ident_char(s[i])) ++i;
        t->type = keyword(s + start, i - start);
        t->name = start;
        t->name_len = i - start;
        lx->pos = i;
    } else if (c == '`') {
        /* A quoted name: any bytes but the backquote, for columns whose
         * names are not identifiers or are keywords. */
        uint32_t i = start + 1;
        while (i < lx->length && s[i] != '`') ++i;
        if (i >= lx->length) return fail(lx, t, start, "name without its closing backquote");
        if (i == start + 1) return fail(lx, t, start, "empty quoted name");
        t->type = kTokIdent;
        t->name = start + 1;
        t->name_len = i - start - 1;
        lx->pos = i + 1;
    } else if (is_digit(c)) {
        lex_number(lx, t);
    } else if (c == '"' || c == '\'') {
        lex_text(lx, t);
    } else {
        switch (c) {
            case '(':
                one = kTokLParen;
                break;
            case ')':
                one = kTokRParen;
                break;
            case '{':
                one = kTokLBrace;
                break;
            case '}':
                one = kTokRBrace;
                break;
            case '[':
                one = kTokLBracket;
                break;
            case ']':
                one = kTokRBracket;
                break;
            case ',':
                one = kTokComma;
                break;
            case '.':
                one = kTokDot;
                break;
            case '+':
                one = kTokPlus;
                break;
            case '-':
                one = kTokMinus;
                break;
            case '*':
                one = kTokStar;
                break;
            case '/':
                one = kTokSlash;
                break;
            case '%':
                one = kTokPercent;
                break;
            case '~':
                one = kTokTilde;
                break;
            case '^':
                one = kTokCaret;
                break;
            case '|':
                two = n == '|' ? kTokOrOr : kTokError;
                one = kTokPipe;
                break;
            case '&':
                two = n == '&' ? kTokAndAnd : kTokError;
                one = kTokAmp;
                break;
            case '!':
                two = n == '=' ? kTokNe : n == '~' ? kTokNoMatch : kTokError;
                one = kTokBang;
                break;
            case '=':
                two = n == '=' ? kTokEq : n == '~' ? kTokMatch : kTokError;
                one = kTokEq;
                break;
            case '<':
                two = n == '=' ? kTokLe : n == '>' ? kTokNe : n == '<' ? kTokShl : kTokError;
                one = kTokLt;
                break;
            case '>':
                two = n == '=' ? kTokGe : n == '>' ? kTokShr : kTokError;
                one = kTokGt;
                break;
            default:
                return fail(lx, t, start, "unexpected character");
        }
        if (two != kTokError) {
            t->type = two;
            lx->pos += 2;
        } else {
            t->type = one;
            lx->pos += 1;
        }
    }
    if (t->type != kTokError) t->len = lx->pos - start;
}

}  // namespace cu_expr
