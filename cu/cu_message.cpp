/*
 * cu_message.cpp - turns an error record into its message text.
 *
 * The text comes from the record's message catalogue when one can be found
 * (the translated text wins), else from the record's default text.  Either
 * way the substitution values are the typed copies stored in the record, and
 * the formatter here walks the text itself: a catalogue is outside data, so
 * its conversions are never handed to printf together with values they do
 * not describe.  Each conversion that survives checking is rebuilt from
 * validated pieces and given exactly one value of exactly the type it names.
 */
#include <errno.h>
#include <langinfo.h>
#include <limits.h>
#include <locale.h>
#include <nl_types.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cu_i.h"
#include "qx_cu.h"

#ifndef QX_INSTALL_DATADIR
#define QX_INSTALL_DATADIR "/usr/local/share"
#endif

namespace cu_i {

const char *g_install_datadir = QX_INSTALL_DATADIR;

namespace {

/* Reads up to kMaxFieldWidth in decimal; *p_too_big is set past that. */
const char *read_number(const char *p, int *p_value, bool *p_too_big) {
    long value = 0;
    while (*p >= '0' && *p <= '9') {
        if (value <= kMaxFieldWidth) value = value * 10 + (*p - '0');
        ++p;
    }
    if (value > kMaxFieldWidth) *p_too_big = true;
    *p_value = static_cast<int>(value > kMaxFieldWidth ? kMaxFieldWidth : value);
    return p;
}

/* Reads "m$" after a '*': the explicit position of a width or precision. */
const char *read_star_position(const char *p, uint32_t *p_position, bool *p_bad) {
    if (*p < '1' || *p > '9') return p; /* sequential '*' */
    bool too_big = false;
    int n = 0;
    const char *q = read_number(p, &n, &too_big);
    if (*q != '$' || too_big || n > CU_ERROR_MAX_ARGS) {
        *p_bad = true;
        return q;
    }
    *p_position = static_cast<uint32_t>(n);
    return q + 1;
}

}  // namespace

const char *parse_conversion(const char *p, ConversionCursor *p_cursor, Conversion *p_conv) {
    Conversion s{};
    s.width = kNotGiven;
    s.precision = kNotGiven;
    bool bad = false;
    bool too_big = false;

    /* "n$": only when the digits are followed by '$'; otherwise they are a
     * width and are read again below. */
    if (*p >= '1' && *p <= '9') {
        int n = 0;
        bool big = false;
        const char *q = read_number(p, &n, &big);
        if (*q == '$') {
            if (big || n > CU_ERROR_MAX_ARGS) return nullptr;
            s.position = static_cast<uint32_t>(n);
            p = q + 1;
        }
    }

    size_t flag_count = 0;
    while (*p != '\0' && strchr("-+ #0", *p) != nullptr) {
        if (memchr(s.flags, *p, flag_count) == nullptr && flag_count < sizeof(s.flags) - 1) {
            s.flags[flag_count++] = *p;
        }
        ++p;
    }

    if (*p == '*') {
        s.width = kFromValue;
        p = read_star_position(p + 1, &s.width_position, &bad);
    } else if (*p >= '1' && *p <= '9') {
        p = read_number(p, &s.width, &too_big);
    }

    if (*p == '.') {
        ++p;
        if (*p == '*') {
            s.precision = kFromValue;
            p = read_star_position(p + 1, &s.prec_position, &bad);
        } else {
            p = read_number(p, &s.precision, &too_big);
        }
    }
    if (bad || too_big) return nullptr;

    s.length = kLenNone;
    bool long_double_or_wide = false;
    if (p[0] == 'h' && p[1] == 'h') {
        s.length = kLenHH;
        p += 2;
    } else if (p[0] == 'h') {
        s.length = kLenH;
        p += 1;
    } else if (p[0] == 'l' && p[1] == 'l') {
        s.length = kLenLong;
        p += 2;
    } else if (p[0] == 'l' || p[0] == 'j' || p[0] == 'z' || p[0] == 't') {
        s.length = kLenLong;
        p += 1;
    } else if (p[0] == 'L' || p[0] == 'q') {
        long_double_or_wide = true;
        p += 1;
    }
    if (long_double_or_wide) return nullptr;

    s.conv = *p;
    switch (*p) {
        case 's':
            if (s.length != kLenNone) return nullptr; /* %ls is wide text */
            s.conv_class = kConvString;
            break;
        case 'c':
            if (s.length != kLenNone) return nullptr;
            s.conv_class = kConvChar;
            break;
        case 'd':
        case 'i':
            s.conv_class = kConvSigned;
            break;
        case 'u':
        case 'o':
        case 'x':
        case 'X':
            s.conv_class = kConvUnsigned;
            break;
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            /* "%lf" is a double like "%f"; hh and h mean nothing here. */
            if (s.length == kLenHH || s.length == kLenH) return nullptr;
            s.length = kLenNone;
            s.conv_class = kConvFloat;
            break;
        default:
            /* %n, %p, %m and anything unknown are printed as they stand. */
            return nullptr;
    }
    ++p;

    /* Sequential values are numbered in the order printf consumes them:
     * width, precision, then the value itself.  The cursor moves only for
     * a conversion that is accepted. */
    uint32_t next = p_cursor->next_sequential;
    if (s.width == kFromValue && s.width_position == 0) s.width_position = next++;
    if (s.precision == kFromValue && s.prec_position == 0) s.prec_position = next++;
    if (s.position == 0) s.position = next++;
    if (s.position > CU_ERROR_MAX_ARGS || s.width_position > CU_ERROR_MAX_ARGS ||
        s.prec_position > CU_ERROR_MAX_ARGS) {
        return nullptr;
    }
    p_cursor->next_sequential = next;
    *p_conv = s;
    return p;
}

cu_error_arg_type_t arg_type_for(const Conversion &conversion) {
    switch (conversion.conv_class) {
        case kConvString:
            return CU_ERROR_ARG_CHAR_STR;
        case kConvSigned:
            return conversion.length == kLenLong ? CU_ERROR_ARG_INT64 : CU_ERROR_ARG_INT32;
        case kConvUnsigned:
            return conversion.length == kLenLong ? CU_ERROR_ARG_UINT64 : CU_ERROR_ARG_UINT32;
        case kConvChar:
            return CU_ERROR_ARG_INT32;
        case kConvFloat:
            return CU_ERROR_ARG_FLOAT64;
    }
    return CU_ERROR_ARG_NONE;
}

namespace {

/* A growing malloc'd text; the first failed allocation sticks. */
struct TextBuffer {
    char *data = nullptr;
    size_t length = 0;
    size_t capacity = 0;
    bool failed = false;

    bool reserve(size_t extra) {
        if (failed) return false;
        if (length + extra + 1 <= capacity) return true;
        size_t want = capacity == 0 ? 128 : capacity;
        while (want < length + extra + 1) want *= 2;
        char *grown = static_cast<char *>(realloc(data, want));
        if (grown == nullptr) {
            failed = true;
            return false;
        }
        data = grown;
        capacity = want;
        return true;
    }
    void append(const char *text, size_t n) {
        if (!reserve(n)) return;
        memcpy(data + length, text, n);
        length += n;
        data[length] = '\0';
    }
    /* fmt is built by format_one from checked pieces and takes exactly one
     * value of type T. */
    template <typename T>
    void append_formatted(const char *fmt, T value) {
        int n = snprintf(nullptr, 0, fmt, value);
        if (n < 0) {
            append("?", 1);
            return;
        }
        if (!reserve(static_cast<size_t>(n))) return;
        snprintf(data + length, static_cast<size_t>(n) + 1, fmt, value);
        length += static_cast<size_t>(n);
    }
};

const cu_error_arg_t *arg_at(const cu_error_arg_t *args, uint32_t count, uint32_t position) {
    if (position == 0 || position > count || args == nullptr) return nullptr;
    return &args[position - 1];
}

bool is_integer(const cu_error_arg_t *a) {
    return a != nullptr &&
           (a->cu_arg_type == CU_ERROR_ARG_INT32 || a->cu_arg_type == CU_ERROR_ARG_UINT32 ||
            a->cu_arg_type == CU_ERROR_ARG_INT64 || a->cu_arg_type == CU_ERROR_ARG_UINT64);
}

/* An integer value as printf would see it through a signed conversion. */
long long signed_value(const cu_error_arg_t *a, LengthMod length) {
    long long v = 0;
    switch (a->cu_arg_type) {
        case CU_ERROR_ARG_INT32:
            v = a->cu_arg_value.cu_arg_int32;
            break;
        case CU_ERROR_ARG_UINT32:
            v = a->cu_arg_value.cu_arg_uint32;
            break;
        case CU_ERROR_ARG_INT64:
            v = a->cu_arg_value.cu_arg_int64;
            break;
        default:
            v = static_cast<long long>(a->cu_arg_value.cu_arg_uint64);
            break;
    }
    if (length == kLenHH) return static_cast<signed char>(v);
    if (length == kLenH) return static_cast<short>(v);
    return v;
}

/* ...and through an unsigned one: a 32-bit value keeps its 32-bit width. */
unsigned long long unsigned_value(const cu_error_arg_t *a, LengthMod length) {
    unsigned long long v = 0;
    switch (a->cu_arg_type) {
        case CU_ERROR_ARG_INT32:
            v = static_cast<uint32_t>(a->cu_arg_value.cu_arg_int32);
            break;
        case CU_ERROR_ARG_UINT32:
            v = a->cu_arg_value.cu_arg_uint32;
            break;
        case CU_ERROR_ARG_INT64:
            v = static_cast<uint64_t>(a->cu_arg_value.cu_arg_int64);
            break;
        default:
            v = a->cu_arg_value.cu_arg_uint64;
            break;
    }
    if (length == kLenHH) return static_cast<unsigned char>(v);
    if (length == kLenH) return static_cast<unsigned short>(v);
    return v;
}

/* Substitutes one conversion, or "?" when its values are missing or of
 * another kind. */
void format_one(TextBuffer *p_out, const Conversion &s, const cu_error_arg_t *args,
                uint32_t count) {
    const cu_error_arg_t *a = arg_at(args, count, s.position);
    bool usable = a != nullptr;
    if (usable) {
        switch (s.conv_class) {
            case kConvString:
                usable = a->cu_arg_type == CU_ERROR_ARG_CHAR_STR;
                break;
            case kConvFloat:
                usable = a->cu_arg_type == CU_ERROR_ARG_FLOAT64;
                break;
            default:
                usable = is_integer(a);
                break;
        }
    }

    /* Keep only the flags (and precision) the C library defines for this
     * conversion: '#' on d/i/u/s/c, '0' on s/c and a precision on c are
     * undefined, and the format handed to snprintf must never be. */
    const char *allowed = "-+ #0";
    if (s.conv_class == kConvString || s.conv_class == kConvChar) {
        allowed = "-";
    } else if (s.conv == 'd' || s.conv == 'i' || s.conv == 'u') {
        allowed = "-+ 0";
    }
    char flags[sizeof(s.flags) + 1] = {};
    size_t flag_count = 0;
    for (const char *f = s.flags; *f != '\0'; ++f) {
        if (strchr(allowed, *f) != nullptr) flags[flag_count++] = *f;
    }
    int width = s.width;
    int precision = s.precision;
    if (usable && width == kFromValue) {
        const cu_error_arg_t *w = arg_at(args, count, s.width_position);
        if (!is_integer(w)) {
            usable = false;
        } else {
            /* A negative width means '-' and its magnitude, as in printf. */
            long long v = signed_value(w, kLenNone);
            usable = v >= -kMaxFieldWidth && v <= kMaxFieldWidth;
            if (usable && v < 0) {
                if (strchr(flags, '-') == nullptr) strcat(flags, "-");
                v = -v;
            }
            width = static_cast<int>(usable ? v : 0);
        }
    }
    if (usable && precision == kFromValue) {
        const cu_error_arg_t *pr = arg_at(args, count, s.prec_position);
        if (!is_integer(pr)) {
            usable = false;
        } else {
            long long v = signed_value(pr, kLenNone);
            usable = v <= kMaxFieldWidth;
            precision = v < 0 ? kNotGiven : static_cast<int>(usable ? v : 0);
        }
    }
    if (!usable) {
        p_out->append("?", 1);
        return;
    }
    if (s.conv_class == kConvChar) precision = kNotGiven;

    char fmt[48];
    int n = 0;
    const char *length = (s.conv_class == kConvSigned || s.conv_class == kConvUnsigned) ? "ll" : "";
    if (width >= 0 && precision >= 0) {
        n = snprintf(fmt, sizeof(fmt), "%%%s%d.%d%s%c", flags, width, precision, length, s.conv);
    } else if (width >= 0) {
        n = snprintf(fmt, sizeof(fmt), "%%%s%d%s%c", flags, width, length, s.conv);
    } else if (precision >= 0) {
        n = snprintf(fmt, sizeof(fmt), "%%%s.%d%s%c", flags, precision, length, s.conv);
    } else {
        n = snprintf(fmt, sizeof(fmt), "%%%s%s%c", flags, length, s.conv);
    }
    if (n < 0 || static_cast<size_t>(n) >= sizeof(fmt)) {
        p_out->append("?", 1);
        return;
    }

    switch (s.conv_class) {
        case kConvString: {
            /* Recorded text is never NULL, but a record may be built by hand. */
            const char *text = a->cu_arg_value.cu_arg_char_str;
            p_out->append_formatted(fmt, text != nullptr ? text : "(null)");
            break;
        }
        case kConvSigned:
            p_out->append_formatted(fmt, signed_value(a, s.length));
            break;
        case kConvUnsigned:
            p_out->append_formatted(fmt, unsigned_value(a, s.length));
            break;
        case kConvChar:
            p_out->append_formatted(
                fmt,
                static_cast<int>(static_cast<unsigned char>(unsigned_value(a, kLenNone) & 0xFFu)));
            break;
        case kConvFloat:
            p_out->append_formatted(fmt, a->cu_arg_value.cu_arg_float64);
            break;
    }
}

}  // namespace

int format_message(const char *text, const cu_error_arg_t *args, uint32_t count, char **pp_out) {
    TextBuffer out;
    out.append("", 0); /* an empty text still yields "" */
    walk_text(
        text, [&out](const char *literal, size_t n) { out.append(literal, n); },
        [&](const Conversion &conversion) { format_one(&out, conversion, args, count); });
    if (out.failed) {
        free(out.data);
        return CU_E_NOMEM;
    }
    *pp_out = out.data;
    return CU_OK;
}

}  // namespace cu_i

namespace {

/* An open catalogue and the message found in it; the text lives in the
 * catalogue's memory, so it is used before the catalogue is closed. */
struct CatalogueText {
    nl_catd catd = reinterpret_cast<nl_catd>(-1);
    const char *text = nullptr;

    ~CatalogueText() {
        if (catd != reinterpret_cast<nl_catd>(-1)) catclose(catd);
    }
    bool try_open(const char *name, int set, int number) {
        nl_catd d = catopen(name, NL_CAT_LOCALE);
        if (d == reinterpret_cast<nl_catd>(-1)) return false;
        const char *found = catgets(d, set, number, nullptr);
        if (found == nullptr) {
            catclose(d);
            return false;
        }
        catd = d;
        text = found;
        return true;
    }
};

/*
 * Finds the message in the named catalogue.  catopen goes first so that
 * NLSPATH and the caller's locale decide; a process started without NLSPATH
 * still finds the catalogues we install, in the locale's directory and then
 * in the C one (which always exists because it is built from the default
 * texts themselves).
 */
bool find_catalogue_text(const char *name, int set, int number, CatalogueText *p_found) {
    if (name == nullptr || *name == '\0') return false;
    if (p_found->try_open(name, set, number)) return true;
    if (strchr(name, '/') != nullptr) return false; /* an explicit path was tried */

    char path[PATH_MAX];
    const char *locale_name = nl_langinfo(_NL_LOCALE_NAME(LC_MESSAGES));
    if (locale_name != nullptr && *locale_name != '\0' && strcmp(locale_name, "C") != 0 &&
        strcmp(locale_name, "POSIX") != 0 && strchr(locale_name, '/') == nullptr) {
        int n = snprintf(path, sizeof(path), "%s/qx/nls/%s/%s", cu_i::g_install_datadir,
                         locale_name, name);
        if (n > 0 && static_cast<size_t>(n) < sizeof(path) &&
            p_found->try_open(path, set, number)) {
            return true;
        }
    }
    int n = snprintf(path, sizeof(path), "%s/qx/nls/C/%s", cu_i::g_install_datadir, name);
    return n > 0 && static_cast<size_t>(n) < sizeof(path) && p_found->try_open(path, set, number);
}

}  // namespace

extern "C" int cu_get_errmsg_1(cu_error_t *p_error, char **pp_msg) {
    if (p_error == nullptr || pp_msg == nullptr) return CU_E_INVAL;
    *pp_msg = nullptr;
    if (p_error->cu_error_id == 0) {
        char *empty = static_cast<char *>(malloc(1));
        if (empty == nullptr) return CU_E_NOMEM;
        empty[0] = '\0';
        *pp_msg = empty;
        return CU_OK;
    }
    /* The lookup may set errno on a miss; the caller's errno is often the
     * very thing the message reports. */
    int saved_errno = errno;
    uint32_t count = p_error->cu_args != nullptr ? p_error->cu_arg_cnt : 0;
    CatalogueText found;
    const char *text = p_error->cu_msg_default;
    if (find_catalogue_text(p_error->cu_msg_cat, p_error->cu_msg_set, p_error->cu_msg_num,
                            &found)) {
        text = found.text;
    }
    int rc = cu_i::format_message(text, p_error->cu_args, count, pp_msg);
    errno = saved_errno;
    return rc;
}

extern "C" int cu_rel_errmsg_1(char *p_msg) {
    free(p_msg);
    return CU_OK;
}
