/*
 * sr_i_common.h - what every internal module of the registry library shares:
 * error reporting, tracing and the alignment-safe loads and stores.
 *
 * Nothing in the sr_i_*.h headers is exported from libqx_sr.so; the unit
 * tests reach it through the static archive.
 */
#ifndef SR_I_COMMON_H
#define SR_I_COMMON_H

#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "qx_cu.h"
#include "qx_pmsg.h"
#include "qx_sr.h"
#include "qx_tr.h"

/* Where a failure was detected: one per source file. */
struct sr_i_source_t {
    const char *file;    /* path below the source root without extension, e.g. "sr/sr_i_paths" */
    const char *version; /* the file's version identification string */
};

/* Declares a source file's identification; every sr/ file opens with it. */
/* clang-format off */
#define SR_SOURCE_FILE(path, version) \
    [[maybe_unused]] static constexpr sr_i_source_t sr_i_this_source{path, version}
/* clang-format on */

/*
 * The one error-reporting helper.  Records `code` for the calling thread with
 * its message and substitution values, then writes the error trace record
 * when error tracing is on, and returns `code` so callers can `return` it.
 *   10: p_text = the system call's name, value = errno
 *   11: p_text = the library function's name, value = what it returned
 *   12, 15: neither (the function, line, file and version are added here)
 *   102: p_text = the offending path (NULL gives "<NULL POINTER>")
 *   109: p_text = the offending text
 *   any other code: neither.
 */
qx_int32_t sr_i_set_error(const sr_i_source_t &source, const char *p_function, int line,
                          qx_int32_t code, const char *p_text = nullptr, int value = 0);

/* The message number of a result code (its position in the message table),
 * or 0 for a value that is not a result code. */
qx_uint32_t sr_i_message_index(qx_int32_t code);

#define SR_ERROR(code) sr_i_set_error(sr_i_this_source, __func__, __LINE__, (code))
#define SR_ERROR_SYSCALL(name, err) \
    sr_i_set_error(sr_i_this_source, __func__, __LINE__, SR_E_SYSTEM_CALL, (name), (err))
#define SR_ERROR_LIBCALL(name, rc) \
    sr_i_set_error(sr_i_this_source, __func__, __LINE__, SR_E_LIBRARY_CALL, (name), (int)(rc))
#define SR_ERROR_TEXT(code, text) \
    sr_i_set_error(sr_i_this_source, __func__, __LINE__, (code), (text))

/* Writes "function(%s) errno(%d) line(%d) sccsid(%s)\n" into
 * "reginfo_pid.<pid>" in the working directory, replacing any earlier capture
 * of this process.  Used when a sync fails. */
void sr_i_capture_errno(const char *p_function_name, int the_errno, int line_number,
                        const char *p_sccsid);

/* Trace state of the component "_SRA". */
constexpr char SR_TRACE_COMPONENT[] = "_SRA";
constexpr auto SR_TRACE_API = 0;
constexpr auto SR_TRACE_ERRORS = 1;
constexpr auto SR_TRACE_WHEREVER = 2;
extern qx_uint8_t Sr_Trace_Level_Of_Detail[3];
extern qx_uint32_t Sr_Library_Registered_For_Trace;
extern const tr_category_description_t Sr_Trace_Categories[3];

/* Development records: unconditional, "DV|" + tag + "|%.3d" + the fields. */
#define SR_DV_TRACE(fmt, ...) \
    tr_record_fmt_string_1(SR_TRACE_COMPONENT, TR_CATEGORY_ALWAYS, fmt, __VA_ARGS__)

/* Alignment-safe loads and stores: records, slots and column entries lie at
 * any alignment in a file image, a pool or a packed buffer. */
inline qx_uint32_t sr_i_load_u32(const void *p) {
    qx_uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}
inline void sr_i_store_u32(void *p, qx_uint32_t v) {
    memcpy(p, &v, sizeof v);
}
inline qx_uint64_t sr_i_load_u64(const void *p) {
    qx_uint64_t v;
    memcpy(&v, p, sizeof v);
    return v;
}
inline void sr_i_store_u64(void *p, qx_uint64_t v) {
    memcpy(p, &v, sizeof v);
}

#endif /* SR_I_COMMON_H */
