/*
 * qx_cu.h - the suite's common-utilities library (libqx_cu.so).
 *
 * Four services that every suite library shares:
 *   - the per-thread error record and its formatted message (message
 *     catalogues through catopen/catgets, falling back to a default text);
 *   - the caller's locale and code-set conversion handles (tables hold UTF-8);
 *   - the data-type characteristics table and the shared empty values;
 *   - selection expressions, compiled once and evaluated per row.
 *
 * Every function returns 0 on success unless its comment says otherwise.
 * Compiles as C11 and as C++20.
 */
#ifndef QX_CU_H
#define QX_CU_H

#include <stddef.h>

#include "qx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Only the declarations below are exported from the shared library. */
#pragma GCC visibility push(default)

/* ---------------------------------------------------------------------------
 * Result codes of the cu_* calls themselves.
 */
#define CU_OK 0
#define CU_E_INVAL 1  /* a NULL or otherwise invalid argument */
#define CU_E_NOMEM 2  /* memory could not be allocated */
#define CU_E_ILSEQ 3  /* text that cannot be represented in the target code set */
#define CU_E_ROOM 4   /* the caller's buffer is too small (see *p_needed) */
#define CU_E_SYSTEM 5 /* a C library call failed (errno is left as it was) */
#define CU_E_SYNTAX 6 /* a selection expression does not compile */

/* ---------------------------------------------------------------------------
 * Error records.
 *
 * A library reports a failure with cu_set_error_1(); the record is kept per
 * thread until the thread's next cu_set_error_1() or cu_set_no_error_1().
 * Callers fetch a copy with cu_get_error_1() and the formatted message with
 * cu_get_errmsg_1().
 */
typedef enum cu_error_arg_type {
    CU_ERROR_ARG_NONE = 0,
    CU_ERROR_ARG_CHAR_STR = 1, /* %n$s */
    CU_ERROR_ARG_INT32 = 2,    /* %n$d, %n$i, %n$c */
    CU_ERROR_ARG_UINT32 = 3,   /* %n$u, %n$x, %n$X, %n$o */
    CU_ERROR_ARG_INT64 = 4,    /* %n$lld, %n$ld */
    CU_ERROR_ARG_UINT64 = 5,   /* %n$llu, %n$lu, %n$llx, %n$lx */
    CU_ERROR_ARG_FLOAT64 = 6,  /* %n$f, %n$g, %n$e */
    CU_ERROR_ARG_FORCE_32BIT = 0x7fffffff
} cu_error_arg_type_t;

typedef struct cu_error_arg_struct {
    cu_error_arg_type_t cu_arg_type;
    qx_uint32_t cu_arg_pad;
    union {
        qx_char_ptr_t cu_arg_char_str; /* owned copy of the text */
        qx_int32_t cu_arg_int32;
        qx_uint32_t cu_arg_uint32;
        qx_int64_t cu_arg_int64;
        qx_uint64_t cu_arg_uint64;
        qx_float64_t cu_arg_float64;
    } cu_arg_value;
} cu_error_arg_t;

/* Largest %n$ position a message may use. */
#define CU_ERROR_MAX_ARGS 16

typedef struct cu_error_struct {
    qx_int32_t cu_error_id;       /* the result code; 0 when there is no error */
    qx_uint32_t cu_pad;
    qx_char_ptr_t cu_ffdc_id;     /* first-failure data capture id, or NULL */
    qx_char_ptr_t cu_msg_cat;     /* message catalogue name, e.g. "qx_sr.cat" */
    qx_int32_t cu_msg_set;        /* message set in the catalogue */
    qx_int32_t cu_msg_num;        /* message number in the set */
    qx_char_ptr_t cu_msg_default; /* default text (printf format with %n$) */
    qx_uint32_t cu_arg_cnt;       /* number of substitution values */
    qx_uint32_t cu_pad2;
    cu_error_arg_t *cu_args;      /* cu_arg_cnt values, in %n$ order */
} cu_error_t;

/*
 * Records an error for the calling thread.  The variadic arguments are the
 * substitution values in the order of the default text's %n$ positions, typed
 * by their conversions (s: const char *, d/i/c: int, u/x/X/o: unsigned int,
 * ld/lld: long long, lu/llu/lx/llx: unsigned long long, f/g/e: double).
 * A NULL text argument is recorded as "(null)".  Returns 0, or CU_E_NOMEM
 * when the record could not be stored (the previous record is then cleared).
 */
int cu_set_error_1(qx_int32_t error_id, const char *ffdc_id, const char *msg_cat,
                   qx_int32_t msg_set, qx_int32_t msg_num, const char *msg_default, ...);

/* Clears the calling thread's error record. */
int cu_set_no_error_1(void);

/* A malloc'd copy of the calling thread's record (cu_error_id 0 when there is
 * none); release it with cu_rel_error_1. */
int cu_get_error_1(cu_error_t **pp_error);

/* The record's message, formatted from the catalogue text when the catalogue
 * has one (catopen honours NLSPATH and the locale), else from the default
 * text.  Release it with cu_rel_errmsg_1.  A record with no error gives "". */
int cu_get_errmsg_1(cu_error_t *p_error, char **pp_msg);

int cu_rel_error_1(cu_error_t *p_error);
int cu_rel_errmsg_1(char *p_msg);

/* ---------------------------------------------------------------------------
 * Locale and code-set conversion.
 *
 * Tables hold text in UTF-8.  A "to-table" handle converts from the caller's
 * locale code set into UTF-8, a "from-table" handle back.  When the caller's
 * code set is UTF-8 (cu_utf8_is_not_modified_1) and CU_ICONV_UTF8_UNMODIFIED is
 * given, the handle is a pass-through: it converts nothing and buffers nothing.
 * Text that cannot be converted fails with CU_E_ILSEQ; nothing is substituted.
 */
typedef struct cu_locale_info_struct {
    qx_char_ptr_t cu_locale_name; /* LC_CTYPE locale name, e.g. "en_US.ISO-8859-1" */
    qx_char_ptr_t cu_codeset;     /* nl_langinfo(CODESET), e.g. "ISO-8859-1" */
} cu_locale_info_t;

/* The calling thread's LC_CTYPE locale; release with cu_rel_locale_info_1. */
int cu_get_locale_info_1(cu_locale_info_t **pp_info);
int cu_rel_locale_info_1(cu_locale_info_t *p_info);

/* Non-zero when text in this locale reaches UTF-8 unmodified. */
int cu_utf8_is_not_modified_1(const cu_locale_info_t *p_info);

typedef struct cu_iconv_struct cu_iconv_t;

#define CU_ICONV_TO_TABLE 0x0         /* caller's code set -> UTF-8 */
#define CU_ICONV_FROM_TABLE 0x1       /* UTF-8 -> caller's code set */
#define CU_ICONV_UTF8_UNMODIFIED 0x8  /* pass-through when the locale is UTF-8 */

/* Opens a conversion handle for the locale described by p_info. */
int cu_iconv_open_1(const cu_locale_info_t *p_info, qx_uint32_t flags, cu_iconv_t **pp_handle);
int cu_iconv_close_1(cu_iconv_t *p_handle);

/* Non-zero when the handle converts nothing (a NULL handle converts nothing). */
int cu_iconv_is_identity_1(const cu_iconv_t *p_handle);

/*
 * Converts the NUL-terminated text p_in into a new malloc'd NUL-terminated
 * string in *pp_out (the caller frees it).  A NULL handle copies.  flags is
 * reserved and must be 0.  Thread-safe: one handle may be used by several
 * threads at once.
 */
int cu_iconv_str_1(cu_iconv_t *p_handle, qx_uint32_t flags, const char *p_in, char **pp_out);

/*
 * Converts in_length bytes at p_in into p_out (room bytes), without a
 * terminating NUL.  *p_needed always receives the converted length; when it
 * exceeds room the result is CU_E_ROOM and p_out's contents are unspecified.
 * p_out may be NULL with room 0 to ask for the length alone.
 */
int cu_iconv_buf_1(cu_iconv_t *p_handle, const char *p_in, size_t in_length, char *p_out,
                   size_t room, size_t *p_needed);

/* ---------------------------------------------------------------------------
 * Data-type characteristics.
 */
#define CU_DTC_SCALAR 0x1   /* held in the value union itself */
#define CU_DTC_ARRAY 0x2    /* a qx_array_t of dtc_base_type */
#define CU_DTC_POINTER 0x4  /* held by pointer: strings, binary, handles, sd, sbs, arrays */
#define CU_DTC_INTEGER 0x8  /* integer scalar (or array of them) */
#define CU_DTC_FLOAT 0x10   /* floating scalar (or array of them) */
#define CU_DTC_SIGNED 0x20  /* signed integer */

typedef struct cu_dtc_entry_struct {
    qx_data_type_t dtc_type;       /* equals the entry's index */
    qx_uint32_t dtc_flags;         /* CU_DTC_* bits */
    qx_uint32_t dtc_size;          /* bytes of a scalar value, 0 for pointer types */
    qx_data_type_t dtc_base_type;  /* element type of an array, else dtc_type */
    const char *dtc_name;          /* "QX_INT32" ... */
} cu_dtc_entry_t;

/* One entry per type 0 .. QX_NUMBER_OF_DATA_TYPES - 1. */
extern const cu_dtc_entry_t cu_dtc_table_1[QX_NUMBER_OF_DATA_TYPES];

/* Shared empty values.  They point to static, read-only objects: the empty
 * string, a binary of length 0, the invalid resource handle (every word
 * 0xFFFFFFFF), structured data and an array with no elements. */
extern qx_char_ptr_t const cu_ptr_empty_char_1;
extern qx_binary_t *const cu_ptr_empty_binary_1;
extern qx_resource_handle_t *const cu_ptr_invld_rsrc_hndl_1;
extern qx_structured_data_t *const cu_ptr_empty_sd_1;
extern qx_array_t *const cu_ptr_empty_array_1;

/* A total order on resource handles (header, then id1..id4, unsigned);
 * 0 when equal.  Both arguments point to qx_resource_handle_t. */
qx_int32_t cu_rsrc_hndl_cmp_1(const void *p_handle1, const void *p_handle2);

/* ---------------------------------------------------------------------------
 * Selection expressions.
 *
 * A row is evaluated as an array of 8-byte slots, one per column in column
 * order; pointer values are anchors (32-bit offset, 32-bit length) into the
 * row's indirect data area, in the protocol value form of libqx_pmsg.so.
 *
 * The language, loosest binding first:
 *   a || b, a OR b                 either condition
 *   a && b, a AND b                both conditions (left to right, stopping
 *                                  as soon as the result is known; a side
 *                                  with a per-row outcome below is unknown,
 *                                  and the other side decides if it can)
 *   !a, NOT a                      negation of a condition
 *   == (=)  != (<>)  <  <=  >  >=  comparisons (they do not chain)
 *   t =~ "re", t !~ "re"           POSIX extended regular expression match
 *                                  (the pattern is a quoted text; matched
 *                                  byte by byte, in time linear in the text;
 *                                  back-references are refused, and one
 *                                  expression holds at most 32 patterns of
 *                                  16384 bytes in all)
 *   t LIKE p, t NOT LIKE p         % any run, _ one character, \ escapes
 *   x IN (a, b, ...), NOT IN       equal to one of the values
 *   arr CONTAINS x, NOT CONTAINS   an element of the array equals x
 *   |   ^   &   << >>   + -   * / %   integer and floating arithmetic
 *   -x  ~x                         negation, bit complement
 *   col  `any name`  col.field  col[i]  (...)  TRUE  FALSE
 *   literals: 42 -7 0x1F 1.5 2e10 "text" 'text' {1, 2, 3}
 * Keywords are recognised in either case.  Texts take the escapes \n \t
 * \r \0 \\ \" \' \xHH (and \% \_ , kept for LIKE).  Integers compute
 * in 64 bits: INT32, UINT32 and INT64 values and literals up to INT64_MAX are
 * signed, UINT64 values and larger literals unsigned, and an operation with an
 * unsigned operand is unsigned (as in C).  A number with a decimal point or
 * exponent is a double; FLOAT32 values compare with constants rounded to
 * single precision.  Texts, binaries and SBS compare byte-wise.  A quoted text
 * compared with a binary (or SBS) is read as "0x" followed by hex pairs; with
 * a resource handle as "0x%04x 0x%04x 0x%08x 0x%08x 0x%08x 0x%08x" (the two
 * 16-bit halves of the header as they lie in memory, then id1..id4).  Text
 * never compares with a number; arrays compare only for (in)equality.
 */
typedef struct cu_expr_struct cu_expr_t;

/* Parent id of a top-level name in the validation callback. */
#define CU_EXPR_TOP_LEVEL 0xFFFFFFFFu

typedef struct cu_validate_data_struct {
    qx_uint32_t id;           /* column index, or field position within its parent */
    qx_data_type_t type;      /* its data type */
} cu_validate_data_t;

/* Resolves a name (p_name, NUL-terminated; length bytes) under parent_id:
 * 0 and *p_return_data filled when found, -1 when not.  Field names of
 * structured data (col.field, or col[i].field for an array of structured
 * data) are asked with the column's id as parent_id. */
typedef qx_int32_t cu_validate_callback_t(void *token, qx_char_t *p_name, qx_uint32_t length,
                                          qx_uint32_t parent_id,
                                          cu_validate_data_t *p_return_data);

/* The flags of cu_exec_expr_1: the row is given in the protocol form. */
#define CU_EXPR_PROTOCOL_ROW 16u

/* Per-row outcomes of cu_exec_expr_1 that mean "this row does not match". */
#define CU_EXPR_TYPE_MISMATCH 6  /* values that cannot be compared on this row, e.g.
                                    a structured-data element of another type */
#define CU_EXPR_ARITHMETIC 7     /* division by zero, signed overflow, a shift
                                    by a negative count or by 64 or more */
#define CU_EXPR_NO_ELEMENT 8     /* an array index, a field or a column the row
                                    does not have */
/* A real failure: an anchor outside its area or a malformed form. */
#define CU_EXPR_BAD_ROW 9

/* Compiles p_text (flags 0) into *pp_compiled, resolving every name through
 * p_validate once.  Fails with CU_E_SYNTAX (error record: position counted
 * from 1, the text there and the reason), CU_E_NOMEM or CU_E_INVAL.  Texts
 * longer than 1 MiB and nesting deeper than 256 levels are refused.  The
 * compiled expression may be evaluated by several threads at once. */
int cu_comp_expr_1(const char *p_text, qx_uint32_t flags, cu_validate_callback_t *p_validate,
                   void *token, cu_expr_t **pp_compiled);

/* Evaluates the expression on one row (flags CU_EXPR_PROTOCOL_ROW): 0 with
 * *p_match 1 or 0, a per-row outcome above (*p_match 0), CU_EXPR_BAD_ROW or
 * CU_E_INVAL.  Allocates nothing.  Anchors are not bounded: prefer the
 * bounded call when the area's length is known. */
int cu_exec_expr_1(const cu_expr_t *p_compiled, qx_uint32_t flags, const void *p_slots,
                   qx_uint32_t slot_count, qx_int32_t *p_match, const void *p_indirect_area);

/* As cu_exec_expr_1, reading nothing outside the slot_count * 8 bytes of
 * slots and the indirect_length bytes of the area (-1: unbounded). */
int cu_exec_expr_bounded_1(const cu_expr_t *p_compiled, qx_uint32_t flags, const void *p_slots,
                           qx_uint32_t slot_count, qx_int32_t *p_match,
                           const void *p_indirect_area, qx_int64_t indirect_length);

int cu_free_expr_1(cu_expr_t *p_compiled);

#pragma GCC visibility pop

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* QX_CU_H */
