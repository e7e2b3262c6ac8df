/*
 * cu_expr_eval.cpp - evaluating compiled selection expressions on a row.
 *
 * A row is an array of 8-byte slots in column order; pointer values anchor
 * forms in the row's indirect area (offset and length from the area's start).
 * Rows come straight from pool records and files, at any alignment, so every
 * word is read with memcpy, and every anchor is checked against the bytes it
 * may use before it is followed: the area's length at the top level, the
 * containing form's length below it.  Nothing is allocated per row (the
 * matcher keeps its own scratch state, bounded when it was compiled).
 *
 * Per-row outcomes: CU_EXPR_TYPE_MISMATCH when values that the row actually
 * holds cannot be compared (a structured-data element whose type differs from
 * the declared one), CU_EXPR_ARITHMETIC for division by zero, signed
 * overflow and out-of-range shifts, CU_EXPR_NO_ELEMENT for an array index, a
 * field or a column that the row does not have.  AND and OR evaluate left
 * to right and stop as soon as the result is known, so "n != 0 && total / n
 * > 2" is safe; a side with an outcome counts as unknown, so the other side
 * still decides when it alone settles the result ("place.x > 5 || name ==
 * 'a'" matches a row without place.x whose name is a).  Otherwise the first
 * outcome met decides the row.
 */
#ifndef QX_CU_NO_RE2
#include <re2/re2.h>
#endif
#include <string.h>

#include "cu_expr_i.h"

namespace cu_expr {

namespace {

inline uint32_t rd32(const uint8_t *p) {
    uint32_t v;
    memcpy(&v, p, sizeof(v));
    return v;
}

inline double to_double(const Value &v) {
    switch (v.kind) {
        case kKindInt:
            return static_cast<double>(v.i);
        case kKindUInt:
            return static_cast<double>(v.u);
        default:
            return v.d;
    }
}

/* Loads the value of data type t from the slot at s.  Anchors count from
 * base and must lie within limit bytes of it (limit -1: unchecked). */
int load(uint32_t t, const uint8_t *s, const uint8_t *base, int64_t limit, Value *out) {
    out->literal = 0;
    switch (t) {
        case QX_INT32: {
            int32_t v;
            memcpy(&v, s, sizeof(v));
            out->kind = kKindInt;
            out->i = v;
            return CU_OK;
        }
        case QX_UINT32:
            out->kind = kKindInt;
            out->i = static_cast<int64_t>(rd32(s));
            return CU_OK;
        case QX_INT64:
            out->kind = kKindInt;
            memcpy(&out->i, s, sizeof(out->i));
            return CU_OK;
        case QX_UINT64:
            out->kind = kKindUInt;
            memcpy(&out->u, s, sizeof(out->u));
            return CU_OK;
        case QX_FLOAT32: {
            float f;
            memcpy(&f, s, sizeof(f));
            out->kind = kKindF32;
            out->d = f;
            return CU_OK;
        }
        case QX_FLOAT64:
            out->kind = kKindF64;
            memcpy(&out->d, s, sizeof(out->d));
            return CU_OK;
        default:
            break;
    }
    if (t < QX_CHAR_PTR || t > QX_SD_PTR_ARRAY) return kRowCorrupt;
    uint32_t offset = rd32(s);
    uint32_t length = rd32(s + 4);
    if (base == nullptr) return kRowCorrupt;
    if (limit >= 0 && static_cast<int64_t>(offset) + length > limit) return kRowCorrupt;
    const uint8_t *p = base + offset;
    switch (t) {
        case QX_CHAR_PTR:
            if (length == 0 || p[length - 1] != 0) return kRowCorrupt;
            out->kind = kKindText;
            out->p = p;
            out->n = length - 1;
            return CU_OK;
        case QX_BINARY_PTR:
        case QX_SBS_PTR: {
            if (length < 4) return kRowCorrupt;
            uint32_t n = rd32(p);
            if (n > length - 4) return kRowCorrupt; /* SBS: also a negative length */
            out->kind = t == QX_BINARY_PTR ? kKindBin : kKindSbs;
            out->p = p + 4;
            out->n = n;
            return CU_OK;
        }
        case QX_RSRC_HANDLE_PTR:
            if (length < 20) return kRowCorrupt;
            out->kind = kKindRh;
            out->p = p;
            out->n = 20;
            return CU_OK;
        case QX_SD_PTR: {
            if (length < 8) return kRowCorrupt;
            uint32_t count = rd32(p);
            if (count > (length - 8) / 16) return kRowCorrupt;
            out->kind = kKindSd;
            out->p = p;
            out->n = count;
            out->form_length = length;
            return CU_OK;
        }
        default: {
            if (length < 8) return kRowCorrupt;
            uint32_t count = rd32(p);
            if (count > (length - 8) / 8) return kRowCorrupt;
            out->kind = kKindArray;
            out->elem_type = cu_dtc_table_1[t].dtc_base_type;
            out->p = p;
            out->n = count;
            out->form_length = length;
            return CU_OK;
        }
    }
}

void const_value(const cu_expr_t *prog, const Node &node, Value *out) {
    out->kind = node.kind;
    out->literal = 0;
    switch (node.kind) {
        case kKindBool:
            out->b = node.k.b;
            break;
        case kKindInt:
        case kKindUInt:
            out->i = node.k.i;
            break;
        case kKindF32:
        case kKindF64:
            out->d = node.k.d;
            break;
        default:
            out->p = prog->p_pool + node.k.pool.offset;
            out->n = node.k.pool.length;
            break;
    }
}

/* Element i (< arr.n) of an array value. */
int get_elem(const cu_expr_t *prog, const Value &arr, uint32_t i, Value *out) {
    if (arr.literal) {
        uint32_t node;
        memcpy(&node, arr.p + i * sizeof(uint32_t), sizeof(node));
        const_value(prog, prog->p_nodes[node], out);
        return CU_OK;
    }
    return load(arr.elem_type, arr.p + 8 + 8 * static_cast<size_t>(i), arr.p, arr.form_length, out);
}

int sign_of(int64_t d) {
    return d < 0 ? -1 : d > 0 ? 1 : 0;
}

int compare_bytes(const Value &a, const Value &b) {
    uint32_t n = a.n < b.n ? a.n : b.n;
    int c = n == 0 ? 0 : memcmp(a.p, b.p, n);
    if (c != 0) return c < 0 ? -1 : 1;
    return a.n < b.n ? -1 : a.n > b.n ? 1 : 0;
}

int arith(uint8_t op, const Value &a, const Value &b, Value *out) {
    if (!is_numeric(static_cast<Kind>(a.kind)) || !is_numeric(static_cast<Kind>(b.kind))) {
        return CU_EXPR_TYPE_MISMATCH;
    }
    out->literal = 0;
    if (!is_integer(static_cast<Kind>(a.kind)) || !is_integer(static_cast<Kind>(b.kind))) {
        double x = to_double(a);
        double y = to_double(b);
        out->kind = kKindF64;
        switch (op) {
            case kOpAdd:
                out->d = x + y;
                return CU_OK;
            case kOpSub:
                out->d = x - y;
                return CU_OK;
            case kOpMul:
                out->d = x * y;
                return CU_OK;
            case kOpDiv:
                if (y == 0) return CU_EXPR_ARITHMETIC;
                out->d = x / y;
                return CU_OK;
            default:
                return CU_EXPR_TYPE_MISMATCH;
        }
    }
    if (op == kOpShl || op == kOpShr) {
        /* The result has the left operand's kind, as in C. */
        bool negative = b.kind == kKindInt && b.i < 0;
        if (negative || b.u >= 64) return CU_EXPR_ARITHMETIC;
        unsigned count = static_cast<unsigned>(b.u);
        out->kind = a.kind;
        if (op == kOpShl) {
            out->u = a.u << count;
        } else if (a.kind == kKindInt) {
            out->i = a.i >> count;
        } else {
            out->u = a.u >> count;
        }
        return CU_OK;
    }
    if (a.kind == kKindUInt || b.kind == kKindUInt) {
        /* The usual conversions: a signed operand is taken as unsigned. */
        uint64_t x = a.u;
        uint64_t y = b.u;
        out->kind = kKindUInt;
        switch (op) {
            case kOpAdd:
                out->u = x + y;
                return CU_OK;
            case kOpSub:
                out->u = x - y;
                return CU_OK;
            case kOpMul:
                out->u = x * y;
                return CU_OK;
            case kOpDiv:
                if (y == 0) return CU_EXPR_ARITHMETIC;
                out->u = x / y;
                return CU_OK;
            case kOpMod:
                if (y == 0) return CU_EXPR_ARITHMETIC;
                out->u = x % y;
                return CU_OK;
            case kOpBitAnd:
                out->u = x & y;
                return CU_OK;
            case kOpBitOr:
                out->u = x | y;
                return CU_OK;
            case kOpBitXor:
                out->u = x ^ y;
                return CU_OK;
            default:
                return CU_EXPR_TYPE_MISMATCH;
        }
    }
    int64_t x = a.i;
    int64_t y = b.i;
    out->kind = kKindInt;
    switch (op) {
        case kOpAdd:
            return __builtin_add_overflow(x, y, &out->i) ? CU_EXPR_ARITHMETIC : CU_OK;
        case kOpSub:
            return __builtin_sub_overflow(x, y, &out->i) ? CU_EXPR_ARITHMETIC : CU_OK;
        case kOpMul:
            return __builtin_mul_overflow(x, y, &out->i) ? CU_EXPR_ARITHMETIC : CU_OK;
        case kOpDiv:
            if (y == 0 || (x == INT64_MIN && y == -1)) return CU_EXPR_ARITHMETIC;
            out->i = x / y;
            return CU_OK;
        case kOpMod:
            if (y == 0) return CU_EXPR_ARITHMETIC;
            out->i = y == -1 ? 0 : x % y;
            return CU_OK;
        case kOpBitAnd:
            out->i = x & y;
            return CU_OK;
        case kOpBitOr:
            out->i = x | y;
            return CU_OK;
        case kOpBitXor:
            out->i = x ^ y;
            return CU_OK;
        default:
            return CU_EXPR_TYPE_MISMATCH;
    }
}

bool is_row_outcome(int rc) {
    return rc == CU_EXPR_TYPE_MISMATCH || rc == CU_EXPR_ARITHMETIC || rc == CU_EXPR_NO_ELEMENT;
}

bool equal_after(int rc, int cmp) {
    return rc == CU_OK && cmp == 0;
}

}  // namespace

int compare_values(const cu_expr_t *prog, const Value &a, const Value &b, int *p_cmp) {
    Kind ka = static_cast<Kind>(a.kind);
    Kind kb = static_cast<Kind>(b.kind);
    if (is_numeric(ka) && is_numeric(kb)) {
        if (!is_integer(ka) || !is_integer(kb)) {
            double x = to_double(a);
            double y = to_double(b);
            *p_cmp = x < y ? -1 : x > y ? 1 : x == y ? 0 : 2;
        } else if (ka == kKindUInt || kb == kKindUInt) {
            *p_cmp = a.u < b.u ? -1 : a.u > b.u ? 1 : 0;
        } else {
            *p_cmp = sign_of(a.i < b.i ? -1 : a.i > b.i ? 1 : 0);
        }
        return CU_OK;
    }
    if ((ka == kKindText && kb == kKindText) || (is_bytes(ka) && is_bytes(kb))) {
        *p_cmp = compare_bytes(a, b);
        return CU_OK;
    }
    if (ka == kKindRh && kb == kKindRh) {
        qx_resource_handle_t x;
        qx_resource_handle_t y;
        memcpy(&x, a.p, sizeof(x));
        memcpy(&y, b.p, sizeof(y));
        int c = cu_rsrc_hndl_cmp_1(&x, &y);
        *p_cmp = c < 0 ? -1 : c > 0 ? 1 : 0;
        return CU_OK;
    }
    if (ka == kKindBool && kb == kKindBool) {
        *p_cmp = a.b == b.b ? 0 : a.b < b.b ? -1 : 1;
        return CU_OK;
    }
    if (ka == kKindArray && kb == kKindArray) {
        /* Arrays are only equal or not: same count, equal elements. */
        if (a.n != b.n) {
            *p_cmp = 1;
            return CU_OK;
        }
        for (uint32_t i = 0; i < a.n; ++i) {
            Value x;
            Value y;
            int rc = get_elem(prog, a, i, &x);
            if (rc == CU_OK) rc = get_elem(prog, b, i, &y);
            if (rc != CU_OK) return rc;
            if (x.kind == kKindArray || x.kind == kKindSd) return CU_EXPR_TYPE_MISMATCH;
            int c = 0;
            rc = compare_values(prog, x, y, &c);
            if (rc != CU_OK) return rc;
            if (c != 0) {
                *p_cmp = 1;
                return CU_OK;
            }
        }
        *p_cmp = 0;
        return CU_OK;
    }
    return CU_EXPR_TYPE_MISMATCH;
}

bool like_match(const uint8_t *s, uint32_t n, const uint8_t *pat, uint32_t m) {
    uint32_t i = 0;
    uint32_t j = 0;
    uint32_t star_j = kNoIndex;
    uint32_t star_i = 0;
    auto next_char = [s, n](uint32_t k) {
        ++k;
        while (k < n && (s[k] & 0xC0) == 0x80) ++k;
        return k;
    };
    while (i < n) {
        if (j < m && pat[j] == '%') {
            star_j = ++j;
            star_i = i;
            continue;
        }
        if (j < m) {
            if (pat[j] == '_') {
                i = next_char(i);
                ++j;
                continue;
            }
            uint8_t lit = pat[j];
            uint32_t adv = 1;
            if (lit == '\\' && j + 1 < m) {
                lit = pat[j + 1];
                adv = 2;
            }
            if (s[i] == lit) {
                ++i;
                j += adv;
                continue;
            }
        }
        if (star_j == kNoIndex) return false;
        /* Let the last % take one more character and try again. */
        star_i = next_char(star_i);
        i = star_i;
        j = star_j;
    }
    while (j < m && pat[j] == '%') ++j;
    return j == m;
}

int eval(const cu_expr_t *prog, uint32_t index, const Row *row, Value *out) {
    const Node &node = prog->p_nodes[index];
    switch (node.op) {
        case kOpConst:
            const_value(prog, node, out);
            return CU_OK;
        case kOpArray:
            out->kind = kKindArray;
            out->literal = 1;
            out->p = reinterpret_cast<const uint8_t *>(prog->p_lists + node.list);
            out->n = node.count;
            return CU_OK;
        case kOpColumn:
            if (node.a >= row->slot_count) return CU_EXPR_NO_ELEMENT;
            return load(node.type, row->slots + 8 * static_cast<size_t>(node.a), row->area,
                        row->area_length, out);
        case kOpField: {
            Value sd;
            int rc = eval(prog, node.a, row, &sd);
            if (rc != CU_OK) return rc;
            if (sd.kind != kKindSd) return CU_EXPR_TYPE_MISMATCH;
            if (node.b >= sd.n) return CU_EXPR_NO_ELEMENT;
            const uint8_t *element = sd.p + 8 + 16 * static_cast<size_t>(node.b);
            uint32_t type = rd32(element);
            if (type < QX_INT32 || type > QX_SD_PTR_ARRAY) return kRowCorrupt;
            return load(type, element + 8, sd.p, sd.form_length, out);
        }
        case kOpIndex: {
            Value arr;
            Value idx;
            int rc = eval(prog, node.a, row, &arr);
            if (rc == CU_OK) rc = eval(prog, node.b, row, &idx);
            if (rc != CU_OK) return rc;
            if (arr.kind != kKindArray || !is_integer(static_cast<Kind>(idx.kind))) {
                return CU_EXPR_TYPE_MISMATCH;
            }
            if ((idx.kind == kKindInt && idx.i < 0) || idx.u >= arr.n) return CU_EXPR_NO_ELEMENT;
            return get_elem(prog, arr, static_cast<uint32_t>(idx.u), out);
        }
        case kOpNeg: {
            Value v;
            int rc = eval(prog, node.a, row, &v);
            if (rc != CU_OK) return rc;
            out->literal = 0;
            switch (v.kind) {
                case kKindInt:
                    if (v.i == INT64_MIN) return CU_EXPR_ARITHMETIC;
                    out->kind = kKindInt;
                    out->i = -v.i;
                    return CU_OK;
                case kKindUInt:
                    out->kind = kKindUInt;
                    out->u = 0 - v.u;
                    return CU_OK;
                case kKindF32:
                case kKindF64:
                    out->kind = kKindF64;
                    out->d = -v.d;
                    return CU_OK;
                default:
                    return CU_EXPR_TYPE_MISMATCH;
            }
        }
        case kOpBitNot: {
            Value v;
            int rc = eval(prog, node.a, row, &v);
            if (rc != CU_OK) return rc;
            if (!is_integer(static_cast<Kind>(v.kind))) return CU_EXPR_TYPE_MISMATCH;
            out->literal = 0;
            out->kind = v.kind;
            out->u = ~v.u;
            return CU_OK;
        }
        case kOpNot: {
            Value v;
            int rc = eval(prog, node.a, row, &v);
            if (rc != CU_OK) return rc;
            if (v.kind != kKindBool) return CU_EXPR_TYPE_MISMATCH;
            out->literal = 0;
            out->kind = kKindBool;
            out->b = v.b ? 0 : 1;
            return CU_OK;
        }
        case kOpAdd:
        case kOpSub:
        case kOpMul:
        case kOpDiv:
        case kOpMod:
        case kOpBitAnd:
        case kOpBitOr:
        case kOpBitXor:
        case kOpShl:
        case kOpShr: {
            Value x;
            Value y;
            int rc = eval(prog, node.a, row, &x);
            if (rc == CU_OK) rc = eval(prog, node.b, row, &y);
            if (rc != CU_OK) return rc;
            return arith(node.op, x, y, out);
        }
        case kOpEq:
        case kOpNe:
        case kOpLt:
        case kOpLe:
        case kOpGt:
        case kOpGe: {
            Value x;
            Value y;
            int rc = eval(prog, node.a, row, &x);
            if (rc == CU_OK) rc = eval(prog, node.b, row, &y);
            if (rc != CU_OK) return rc;
            int c = 0;
            rc = compare_values(prog, x, y, &c);
            if (rc != CU_OK) return rc;
            if (node.op != kOpEq && node.op != kOpNe &&
                (x.kind == kKindArray || x.kind == kKindBool)) {
                return CU_EXPR_TYPE_MISMATCH;
            }
            bool r;
            if (c == 2) {
                r = node.op == kOpNe; /* NaN: unordered, unequal */
            } else {
                switch (node.op) {
                    case kOpEq:
                        r = c == 0;
                        break;
                    case kOpNe:
                        r = c != 0;
                        break;
                    case kOpLt:
                        r = c < 0;
                        break;
                    case kOpLe:
                        r = c <= 0;
                        break;
                    case kOpGt:
                        r = c > 0;
                        break;
                    default:
                        r = c >= 0;
                        break;
                }
            }
            out->literal = 0;
            out->kind = kKindBool;
            out->b = r ? 1 : 0;
            return CU_OK;
        }
        case kOpMatch: {
            Value x;
            int rc = eval(prog, node.a, row, &x);
            if (rc != CU_OK) return rc;
            if (x.kind != kKindText) return CU_EXPR_TYPE_MISMATCH;
#ifdef QX_CU_NO_RE2
            bool m = false; /* such a build compiles no pattern */
#else
            /* A text ends at its first NUL, as everywhere else in the language. */
            const char *text = reinterpret_cast<const char *>(x.p);
            bool m = RE2::PartialMatch(re2::StringPiece(text, strnlen(text, x.n)),
                                       *prog->p_p_regexes[node.b]);
#endif
            out->literal = 0;
            out->kind = kKindBool;
            out->b = (m != (node.negate != 0)) ? 1 : 0;
            return CU_OK;
        }
        case kOpLike: {
            Value x;
            Value y;
            int rc = eval(prog, node.a, row, &x);
            if (rc == CU_OK) rc = eval(prog, node.b, row, &y);
            if (rc != CU_OK) return rc;
            if (x.kind != kKindText || y.kind != kKindText) return CU_EXPR_TYPE_MISMATCH;
            bool m = like_match(x.p, x.n, y.p, y.n);
            out->literal = 0;
            out->kind = kKindBool;
            out->b = (m != (node.negate != 0)) ? 1 : 0;
            return CU_OK;
        }
        case kOpIn: {
            Value x;
            int rc = eval(prog, node.a, row, &x);
            if (rc != CU_OK) return rc;
            bool found = false;
            for (uint32_t j = 0; j < node.count && !found; ++j) {
                Value y;
                rc = eval(prog, prog->p_lists[node.list + j], row, &y);
                if (rc != CU_OK) return rc;
                int c = 0;
                rc = compare_values(prog, x, y, &c);
                if (rc != CU_OK) return rc;
                found = c == 0;
            }
            out->literal = 0;
            out->kind = kKindBool;
            out->b = (found != (node.negate != 0)) ? 1 : 0;
            return CU_OK;
        }
        case kOpContains: {
            Value arr;
            Value y;
            int rc = eval(prog, node.a, row, &arr);
            if (rc == CU_OK) rc = eval(prog, node.b, row, &y);
            if (rc != CU_OK) return rc;
            if (arr.kind != kKindArray) return CU_EXPR_TYPE_MISMATCH;
            bool found = false;
            for (uint32_t j = 0; j < arr.n && !found; ++j) {
                Value e;
                rc = get_elem(prog, arr, j, &e);
                if (rc != CU_OK) return rc;
                int c = 0;
                rc = compare_values(prog, e, y, &c);
                found = equal_after(rc, c);
                if (rc != CU_OK) return rc;
            }
            out->literal = 0;
            out->kind = kKindBool;
            out->b = (found != (node.negate != 0)) ? 1 : 0;
            return CU_OK;
        }
        case kOpAnd:
        case kOpOr: {
            // A side that cannot be evaluated on this row is unknown: the
            // other side still decides when it alone settles the result
            // (false for AND, true for OR); otherwise the first outcome
            // stands.
            const bool settles = node.op == kOpOr;
            Value x;
            int rc = eval(prog, node.a, row, &x);
            if (rc == CU_OK && x.kind != kKindBool) return CU_EXPR_TYPE_MISMATCH;
            if (rc == CU_OK && (x.b != 0) == settles) {
                *out = x;
                return CU_OK;
            }
            if (rc != CU_OK && !is_row_outcome(rc)) return rc;
            Value y;
            int rc_y = eval(prog, node.b, row, &y);
            if (rc_y == CU_OK && y.kind != kKindBool) return CU_EXPR_TYPE_MISMATCH;
            if (rc_y == CU_OK && (rc == CU_OK || (y.b != 0) == settles)) {
                *out = y;
                return CU_OK;
            }
            return rc != CU_OK ? rc : rc_y;
        }
        default:
            return kRowCorrupt;
    }
}

}  // namespace cu_expr

extern "C" int cu_exec_expr_bounded_1(const cu_expr_t *p_compiled, qx_uint32_t flags,
                                      const void *p_slots, qx_uint32_t slot_count,
                                      qx_int32_t *p_match, const void *p_indirect_area,
                                      qx_int64_t indirect_length) {
    if (p_match != nullptr) *p_match = 0;
    if (p_compiled == nullptr || p_match == nullptr || (p_slots == nullptr && slot_count != 0) ||
        flags != CU_EXPR_PROTOCOL_ROW || indirect_length < -1) {
        return CU_E_INVAL;
    }
    cu_expr::Row row;
    row.slots = static_cast<const uint8_t *>(p_slots);
    row.slot_count = slot_count;
    row.area = static_cast<const uint8_t *>(p_indirect_area);
    row.area_length = indirect_length;
    cu_expr::Value v;
    int rc = cu_expr::eval(p_compiled, p_compiled->root, &row, &v);
    if (rc != CU_OK) return rc;
    *p_match = v.b != 0 ? 1 : 0;
    return CU_OK;
}

extern "C" int cu_exec_expr_1(const cu_expr_t *p_compiled, qx_uint32_t flags, const void *p_slots,
                              qx_uint32_t slot_count, qx_int32_t *p_match,
                              const void *p_indirect_area) {
    return cu_exec_expr_bounded_1(p_compiled, flags, p_slots, slot_count, p_match, p_indirect_area,
                                  -1);
}
