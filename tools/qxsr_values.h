// Typed values on the command line: column specifications, parsing a word
// into a qx_value_t of a column's type, and formatting a value for display.
#ifndef QXSR_VALUES_H
#define QXSR_VALUES_H

#include <cstdio>
#include <string>
#include <vector>

#include "qx_sr.h"

namespace qxsr {

// Owns the memory parsed values point to (strings, binaries, arrays, ...).
class ValueArena {
  public:
    ValueArena() = default;
    ValueArena(const ValueArena &) = delete;
    ValueArena &operator=(const ValueArena &) = delete;
    ~ValueArena();
    void *allocate(size_t bytes);
    char *copy(const std::string &text);

  private:
    std::vector<void *> blocks_;
};

// "int32" ... "sd[]" for a type, or nullptr.
const char *type_word(qx_data_type_t type);
// The element type of an array type (QX_UNKNOWN for any other type).
qx_data_type_t array_element_type(qx_data_type_t type);
// The type a word names (QX_UNKNOWN when none).
qx_data_type_t parse_type_word(const std::string &word);

// One column of a `create` command:
//   NAME:TYPE[:key|:key-nocheck][:protected][:invisible][:default-when-unspecified][=DEFAULT]
// with TYPE one of int32 uint32 int64 uint64 float32 float64 string binary handle sbs, sd(...)
// with fields "f:TYPE,g:TYPE", or any of these followed by "[]" for an array.
struct ColumnSpec {
    sr_column_t column{};
};

// Parses column specifications into columns whose memory lives in `arena`.
// Returns false with a message in *p_error on a bad column description.
bool parse_column_spec(const std::string &description, ValueArena &arena, sr_column_t *p_column,
                       std::string *p_error);

// Parses `text` as a value of `type` (sd values use the column's definition).
//   integers: decimal, 0x hex, negative;  floats: strtod;  string: as written;
//   binary, sbs: 0x followed by hex digits;  handle: six numbers (as printed);
//   arrays: [a,b,c];  sd: {a,b,c} in field order.
bool parse_value(const std::string &text, qx_data_type_t type, const sr_sd_def_t *p_sd,
                 ValueArena &arena, qx_value_t *p_value, std::string *p_error);

// Formats a value for display (text parse_value reads back).
std::string format_value(qx_data_type_t type, const qx_value_t &value);

// Formats a value as JSON: numbers as numbers, arrays as arrays, structured
// data as an object named by `p_sd`'s fields, binaries and handles as their
// text; a missing pointer value is null.
std::string format_json(qx_data_type_t type, const qx_value_t &value, const sr_sd_def_t *p_sd);

// `text` as a JSON string literal.
std::string json_text(const std::string &text);

}  // namespace qxsr

#endif  // QXSR_VALUES_H
