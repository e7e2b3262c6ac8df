/*
 * cu_i.h - internals shared by the common-utilities sources.
 *
 * The error record and its message share one reading of printf-style
 * conversions: cu_set_error_1 must know how many values a text takes and of
 * which types before it can pull them off a va_list, and the formatter must
 * read the very same grammar when it substitutes them later (possibly into a
 * catalogue text that orders them differently).  Both use cu_i_parse_conversion.
 */
#ifndef CU_I_H
#define CU_I_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "qx_cu.h"

namespace cu_i {

/* What a conversion consumes from the value list. */
enum ConvClass : uint8_t {
    kConvString,   /* s */
    kConvSigned,   /* d i */
    kConvUnsigned, /* u o x X */
    kConvChar,     /* c */
    kConvFloat,    /* f F e E g G a A */
};

enum LengthMod : uint8_t {
    kLenNone,
    kLenHH,
    kLenH,
    kLenLong, /* l, ll, j, z, t: all 64-bit values here */
};

/* Width and precision come either as digits or from a value ('*'). */
constexpr int kNotGiven = -1;
constexpr int kFromValue = -2;

/* Largest width or precision honoured; anything bigger is not a conversion
 * (a catalogue text must not make us pad a message to gigabytes). */
constexpr int kMaxFieldWidth = 4096;

/* One parsed conversion.  Positions are 1-based; 0 means "not used". */
struct Conversion {
    uint32_t position;       /* the value converted */
    uint32_t width_position; /* the value giving '*' width, or 0 */
    uint32_t prec_position;  /* the value giving '*' precision, or 0 */
    int width;               /* kNotGiven, kFromValue or digits */
    int precision;           /* kNotGiven, kFromValue or digits */
    char flags[6];           /* NUL-terminated subset of "-+ #0" */
    ConvClass conv_class;
    LengthMod length;
    char conv; /* the conversion letter */
};

/* Non-positional conversions take the next value in order; the counter is
 * shared across a text so that "%s and %d" means values 1 and 2. */
struct ConversionCursor {
    uint32_t next_sequential = 1;
};

/*
 * Parses the conversion that starts at p (which points just past a '%' that
 * is not part of "%%").  Returns the first character after it and fills
 * *p_conv, or returns nullptr when the text there is not a conversion this
 * library substitutes (the caller then prints it as plain text).
 */
const char *parse_conversion(const char *p, ConversionCursor *p_cursor, Conversion *p_conv);

/*
 * Walks text once, in order: on_text(p, n) for each run of literal text
 * ("%%" arrives as "%", a '%' that starts no conversion as itself) and
 * on_conversion(c) for each conversion.  The value types of a record and
 * its formatted message come from the same walk, so they cannot disagree
 * about which '%' is which.
 */
template <typename OnText, typename OnConversion>
void walk_text(const char *text, OnText &&on_text, OnConversion &&on_conversion) {
    ConversionCursor cursor;
    const char *p = text != nullptr ? text : "";
    while (*p != '\0') {
        const char *percent = strchr(p, '%');
        if (percent == nullptr) {
            on_text(p, strlen(p));
            return;
        }
        if (percent != p) on_text(p, static_cast<size_t>(percent - p));
        if (percent[1] == '%') {
            on_text(percent, 1);
            p = percent + 2;
            continue;
        }
        Conversion conversion;
        const char *after = parse_conversion(percent + 1, &cursor, &conversion);
        if (after == nullptr) {
            on_text(percent, 1);
            p = percent + 1;
            continue;
        }
        on_conversion(static_cast<const Conversion &>(conversion));
        p = after;
    }
}

/* The record type a conversion class stores. */
cu_error_arg_type_t arg_type_for(const Conversion &conversion);

/*
 * Formats text with the typed values args[0..count-1] (value n at index
 * n-1) into a new malloc'd string.  A conversion whose value is missing or
 * of another kind prints "?".  Returns CU_OK or CU_E_NOMEM.
 */
int format_message(const char *text, const cu_error_arg_t *args, uint32_t count, char **pp_out);

/* The data directory searched for installed catalogues after NLSPATH
 * ("<dir>/qx/nls/<locale>/<name>", then "<dir>/qx/nls/C/<name>").  It is the
 * build's install location; tests point it at a scratch tree before any
 * thread formats a message. */
extern const char *g_install_datadir;

}  // namespace cu_i

#endif /* CU_I_H */
