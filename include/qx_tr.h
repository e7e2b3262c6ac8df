/*
 * qx_tr.h - the suite's trace library (libqx_tr.so).
 *
 * A component registers once with its categories; the library fills in one
 * detail byte per category, which the component tests before writing its
 * gated records (entry, exit, error).  Development records ("DV|...") are
 * written unconditionally by the caller and cost one branch when tracing is
 * off.  All calls are thread-safe and never fail the caller: a trace problem
 * is swallowed.
 *
 * Configuration, read at registration:
 *   QX_TRACE_LEVELS  detail levels, e.g. "_SRA:API=1,Errors=1;_XYZ:*=2".
 *                    "*" as a component or category name matches all.
 *   QX_TRACE_FILE    the file records are appended to (default: standard
 *                    error when QX_TRACE_LEVELS is set, nothing otherwise).
 *
 * Compiles as C11 and as C++20.
 */
#ifndef QX_TR_H
#define QX_TR_H

#include "qx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Only the declarations below are exported from the shared library. */
#pragma GCC visibility push(default)

typedef struct tr_category_description_struct {
    qx_uint32_t category_id;
    const char *category_name;
    qx_uint32_t default_level_of_detail;
    qx_uint32_t minimum_level_of_detail;
} tr_category_description_t;

/* Category argument of tr_record_fmt_string_1 for unconditional records. */
#define TR_CATEGORY_ALWAYS (-1)

/*
 * Registers a component (a four-character name such as "_SRA") with `count`
 * categories.  p_levels receives one detail byte per category, indexed by
 * position in p_categories.  Registering a component again refreshes its
 * levels.  Returns 0, or non-zero for a bad argument.
 */
int tr_register_component_1(const char *p_component, qx_uint8_t *p_levels,
                            const tr_category_description_t *p_categories, qx_uint32_t count);

/* An identifier record (entry of an operation). */
int tr_record_id_1(const char *p_component, qx_uint32_t id);

/* An identifier record with `count` 32-bit values (variadic, as unsigned int). */
int tr_record_values_32_1(const char *p_component, qx_uint32_t id, qx_uint32_t count, ...);

/* An error record: where a failure was detected. */
int tr_record_error_1(const char *p_component, qx_uint32_t error_id, const char *p_function,
                      qx_uint32_t line, const char *p_file, qx_uint32_t flags);

/* A formatted record (printf format).  Written when the component has any
 * category traced at a non-zero level, whatever the category argument. */
int tr_record_fmt_string_1(const char *p_component, qx_int32_t category, const char *p_format,
                           ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

/* Flushes buffered records to the trace file. */
int tr_flush_1(void);

#pragma GCC visibility pop

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* QX_TR_H */
