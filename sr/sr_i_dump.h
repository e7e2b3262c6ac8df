/*
 * sr_i_dump.h - dumps of tables, records and pools (sr_i_dump_table.cpp).
 */
#ifndef SR_I_DUMP_H
#define SR_I_DUMP_H

#include <stdio.h>

#include "sr_i_table.h"

/* Dumps (sr_i_dump_table.cpp).  Detail bits of sr_i_dump_table: */
constexpr auto SR_I_DUMP_NAME = 0x1ull;
constexpr auto SR_I_DUMP_REFERENCES = 0x2ull;
constexpr auto SR_I_DUMP_TOTAL_COLUMNS = 0x4ull;
constexpr auto SR_I_DUMP_COLUMN = 0x8ull;
constexpr auto SR_I_DUMP_COLUMN_NAME = 0x10ull;
constexpr auto SR_I_DUMP_COLUMN_TYPE = 0x20ull;
constexpr auto SR_I_DUMP_COLUMN_QUALIFIER = 0x40ull;
constexpr auto SR_I_DUMP_COLUMN_MODIFIERS = 0x80ull;
constexpr auto SR_I_DUMP_COLUMN_PROPERTIES = 0x100ull;
constexpr auto SR_I_DUMP_COLUMN_SD_DEFN = 0x200ull;
constexpr auto SR_I_DUMP_COLUMN_DEFAULT = 0x400ull;
constexpr auto SR_I_DUMP_ROW_COUNTS = 0x800ull;
constexpr auto SR_I_DUMP_ROWS = 0x1000ull;
constexpr auto SR_I_DUMP_APPLIED_RECORDS = 0x2000ull;
constexpr auto SR_I_DUMP_COMMITTED_RECORDS = 0x4000ull;
constexpr auto SR_I_DUMP_POINTERS = 0x8000ull;
constexpr auto SR_I_DUMP_APPLICATION_METADATA = 0x10000ull;
constexpr auto SR_I_DUMP_VARIABLE_LENGTH_COLUMNS = 0x20000ull;
constexpr auto SR_I_DUMP_IMPLICITLY_CONTROLLED = 0x40000ull;
constexpr auto SR_I_DUMP_UNCOMMITTED_VISIBLE = 0x80000ull;
constexpr auto SR_I_DUMP_CHANGE_COUNTER = 0x100000ull;
constexpr auto SR_I_DUMP_APPLIED_CHANGE_COUNTER = 0x200000ull;
constexpr auto SR_I_DUMP_FILE_STATE = 0x400000ull;
constexpr auto SR_I_DUMP_RECORD_BUFFER_POOL = 0x800000ull;
constexpr auto SR_I_DUMP_ALL = 0xFFFFFFFFFFFFFFFFull;

/* vfprintf when required_detail & detail_flags; else 0 and nothing printed. */
int sr_i_printf(qx_uint64_t required_detail, qx_uint64_t detail_flags, FILE *p_stream,
                const char *p_format, ...) __attribute__((format(printf, 4, 5)));
/* Hex lines of width * 4 bytes, each "prefix0x<address> " and the bytes in
 * groups of four; lines are separated by "\n" (the caller ends the last). */
void sr_i_dump_storage(const void *start, qx_uint32_t length, qx_uint32_t width,
                       const char *p_indent_prefix, FILE *p_stream, qx_uint64_t detail_flags,
                       qx_uint64_t required_detail);
/* "QX_INT32" ... for a data type, "GARBAGE" outside the enumeration. */
const char *sr_i_get_type_string(qx_data_type_t type);
/* "SR_STANDARD" ... for qualifier & 0xF, "GARBAGE" otherwise. */
const char *sr_i_get_qualifier_type_string(sr_qualifier_t qualifier);
/* One row record's column values, bounded by the record's own length. */
void dump_columns(sr_i_table_t *p_table, const char *p_record_data, const char *p_indent_prefix,
                  FILE *p_stream, qx_uint64_t detail_flags, qx_uint64_t required_detail);
void dump_record_buffer_pool(sr_i_record_buffer_pool_t *p_record_buffer_pool, FILE *p_stream,
                             qx_uint64_t detail_flags);

#endif /* SR_I_DUMP_H */
