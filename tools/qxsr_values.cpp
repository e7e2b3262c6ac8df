// Typed values on the command line (see qxsr_values.h for the syntax).
#include "qxsr_values.h"

#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace qxsr {

namespace {

struct TypeName {
    qx_data_type_t type;
    const char *word;
};

constexpr TypeName kTypeNames[] = {
    {QX_INT32, "int32"},
    {QX_UINT32, "uint32"},
    {QX_INT64, "int64"},
    {QX_UINT64, "uint64"},
    {QX_FLOAT32, "float32"},
    {QX_FLOAT64, "float64"},
    {QX_CHAR_PTR, "string"},
    {QX_BINARY_PTR, "binary"},
    {QX_RSRC_HANDLE_PTR, "handle"},
    {QX_SD_PTR, "sd"},
    {QX_SBS_PTR, "sbs"},
    {QX_INT32_ARRAY, "int32[]"},
    {QX_UINT32_ARRAY, "uint32[]"},
    {QX_INT64_ARRAY, "int64[]"},
    {QX_UINT64_ARRAY, "uint64[]"},
    {QX_FLOAT32_ARRAY, "float32[]"},
    {QX_FLOAT64_ARRAY, "float64[]"},
    {QX_CHAR_PTR_ARRAY, "string[]"},
    {QX_BINARY_PTR_ARRAY, "binary[]"},
    {QX_RSRC_HANDLE_PTR_ARRAY, "handle[]"},
    {QX_SD_PTR_ARRAY, "sd[]"},
};

// The element type of an array type.
qx_data_type_t base_type(qx_data_type_t type) {
    switch (type) {
        case QX_INT32_ARRAY:
            return QX_INT32;
        case QX_UINT32_ARRAY:
            return QX_UINT32;
        case QX_INT64_ARRAY:
            return QX_INT64;
        case QX_UINT64_ARRAY:
            return QX_UINT64;
        case QX_FLOAT32_ARRAY:
            return QX_FLOAT32;
        case QX_FLOAT64_ARRAY:
            return QX_FLOAT64;
        case QX_CHAR_PTR_ARRAY:
            return QX_CHAR_PTR;
        case QX_BINARY_PTR_ARRAY:
            return QX_BINARY_PTR;
        case QX_RSRC_HANDLE_PTR_ARRAY:
            return QX_RSRC_HANDLE_PTR;
        case QX_SD_PTR_ARRAY:
            return QX_SD_PTR;
        default:
            return QX_UNKNOWN;
    }
}

// Splits "a,b,{c,d},[e]" at top-level commas.
std::vector<std::string> split_list(const std::string &text) {
    std::vector<std::string> parts;
    int depth = 0;
    std::string current;
    for (char c : text) {
        if (c == '{' || c == '[' || c == '(') ++depth;
        if (c == '}' || c == ']' || c == ')') --depth;
        if (c == ',' && depth == 0) {
            parts.push_back(current);
            current.clear();
        } else {
            current += c;
        }
    }
    if (!current.empty() || !parts.empty()) parts.push_back(current);
    return parts;
}

std::string trim(const std::string &text) {
    size_t b = text.find_first_not_of(" \t");
    if (b == std::string::npos) return "";
    size_t e = text.find_last_not_of(" \t");
    return text.substr(b, e - b + 1);
}

bool parse_hex_bytes(const std::string &text, std::vector<unsigned char> *p_bytes) {
    if (text.size() < 2 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X')) return false;
    std::string digits = text.substr(2);
    if (digits.size() % 2 != 0) return false;
    for (size_t i = 0; i < digits.size(); i += 2) {
        char pair[3] = {digits[i], digits[i + 1], 0};
        char *end = nullptr;
        unsigned long byte = std::strtoul(pair, &end, 16);
        if (end != pair + 2) return false;
        p_bytes->push_back(static_cast<unsigned char>(byte));
    }
    return true;
}

bool parse_integer(const std::string &text, bool is_signed, int bits, qx_uint64_t *p_out) {
    if (text.empty()) return false;
    errno = 0;
    char *end = nullptr;
    if (is_signed) {
        long long v = std::strtoll(text.c_str(), &end, 0);
        if (errno != 0 || *end != '\0') return false;
        if (bits == 32 && (v < INT32_MIN || v > INT32_MAX)) return false;
        *p_out = static_cast<qx_uint64_t>(v);
    } else {
        if (text[0] == '-') return false;
        unsigned long long v = std::strtoull(text.c_str(), &end, 0);
        if (errno != 0 || *end != '\0') return false;
        if (bits == 32 && v > UINT32_MAX) return false;
        *p_out = v;
    }
    return true;
}

std::string hex_bytes(const unsigned char *p, size_t length) {
    std::string out = "0x";
    char pair[3];
    for (size_t i = 0; i < length; ++i) {
        std::snprintf(pair, sizeof pair, "%02x", p[i]);
        out += pair;
    }
    return out;
}

}  // namespace

ValueArena::~ValueArena() {
    for (void *p : blocks_) std::free(p);
}

void *ValueArena::allocate(size_t bytes) {
    void *p = std::calloc(1, bytes == 0 ? 1 : bytes);
    if (p == nullptr) {
        std::fputs("qxsr: out of memory\n", stderr);
        std::exit(3);
    }
    blocks_.push_back(p);
    return p;
}

char *ValueArena::copy(const std::string &text) {
    char *p = static_cast<char *>(allocate(text.size() + 1));
    std::memcpy(p, text.c_str(), text.size() + 1);
    return p;
}

const char *type_word(qx_data_type_t type) {
    for (const auto &entry : kTypeNames) {
        if (entry.type == type) return entry.word;
    }
    return nullptr;
}

qx_data_type_t array_element_type(qx_data_type_t type) {
    return base_type(type);
}

qx_data_type_t parse_type_word(const std::string &word) {
    for (const auto &entry : kTypeNames) {
        if (word == entry.word) return entry.type;
    }
    return QX_UNKNOWN;
}

bool parse_value(const std::string &text, qx_data_type_t type, const sr_sd_def_t *p_sd,
                 ValueArena &arena, qx_value_t *p_value, std::string *p_error) {
    std::memset(p_value, 0, sizeof *p_value);
    qx_uint64_t bits = 0;
    auto fail = [&](const char *what) {
        *p_error = "'" + text + "' is not " + what;
        return false;
    };
    switch (type) {
        case QX_INT32:
            if (!parse_integer(text, true, 32, &bits)) return fail("an int32");
            p_value->val_int32 = static_cast<qx_int32_t>(bits);
            return true;
        case QX_UINT32:
            if (!parse_integer(text, false, 32, &bits)) return fail("a uint32");
            p_value->val_uint32 = static_cast<qx_uint32_t>(bits);
            return true;
        case QX_INT64:
            if (!parse_integer(text, true, 64, &bits)) return fail("an int64");
            p_value->val_int64 = static_cast<qx_int64_t>(bits);
            return true;
        case QX_UINT64:
            if (!parse_integer(text, false, 64, &bits)) return fail("a uint64");
            p_value->val_uint64 = bits;
            return true;
        case QX_FLOAT32:
        case QX_FLOAT64: {
            char *end = nullptr;
            double d = std::strtod(text.c_str(), &end);
            if (text.empty() || *end != '\0') return fail("a number");
            if (type == QX_FLOAT32) {
                p_value->val_float32 = static_cast<float>(d);
            } else {
                p_value->val_float64 = d;
            }
            return true;
        }
        case QX_CHAR_PTR:
            p_value->ptr_char = arena.copy(text);
            return true;
        case QX_BINARY_PTR:
        case QX_SBS_PTR: {
            std::vector<unsigned char> bytes;
            if (!parse_hex_bytes(text, &bytes)) return fail("0x followed by hex byte pairs");
            if (type == QX_BINARY_PTR) {
                auto *p = static_cast<qx_binary_t *>(arena.allocate(QX_BINARY_SIZE(bytes.size())));
                p->length = static_cast<qx_uint32_t>(bytes.size());
                if (!bytes.empty()) std::memcpy(p->data, bytes.data(), bytes.size());
                p_value->ptr_binary = p;
            } else {
                auto *p = static_cast<qx_sbs_t *>(arena.allocate(4 + bytes.size()));
                p->length = static_cast<qx_int32_t>(bytes.size());
                if (!bytes.empty()) std::memcpy(p->fields, bytes.data(), bytes.size());
                p_value->ptr_sbs = p;
            }
            return true;
        }
        case QX_RSRC_HANDLE_PTR: {
            // Six numbers: the header's two halves and the four id words,
            // separated by blanks or commas (the form values print in).
            std::string copy = text;
            for (char &c : copy) {
                if (c == ',') c = ' ';
            }
            unsigned long words[6];
            int n = 0;
            const char *p = copy.c_str();
            while (n < 6) {
                char *end = nullptr;
                errno = 0;
                words[n] = std::strtoul(p, &end, 0);
                if (end == p || errno != 0) break;
                ++n;
                p = end;
            }
            while (*p == ' ') ++p;
            if (n != 6 || *p != '\0' || words[0] > 0xffff || words[1] > 0xffff)
                return fail("a resource handle (six numbers)");
            auto *h =
                static_cast<qx_resource_handle_t *>(arena.allocate(sizeof(qx_resource_handle_t)));
            h->header = static_cast<qx_uint32_t>((words[0] << 16) | words[1]);
            h->id.id1 = static_cast<qx_uint32_t>(words[2]);
            h->id.id2 = static_cast<qx_uint32_t>(words[3]);
            h->id.id3 = static_cast<qx_uint32_t>(words[4]);
            h->id.id4 = static_cast<qx_uint32_t>(words[5]);
            p_value->ptr_rsrc_handle = h;
            return true;
        }
        case QX_SD_PTR: {
            if (p_sd == nullptr) return fail("structured data of a column with a definition");
            if (text.size() < 2 || text.front() != '{' || text.back() != '}')
                return fail("structured data {a,b,...}");
            auto parts = split_list(text.substr(1, text.size() - 2));
            if (parts.size() != p_sd->number_of_fields)
                return fail("structured data with one value per field");
            auto *sd =
                static_cast<qx_structured_data_t *>(arena.allocate(QX_SD_SIZE(parts.size())));
            sd->element_count = static_cast<qx_uint32_t>(parts.size());
            for (size_t i = 0; i < parts.size(); ++i) {
                qx_data_type_t field_type = p_sd->field_def[i].type;
                sd->elements[i].data_type = field_type;
                if (!parse_value(trim(parts[i]), field_type, nullptr, arena, &sd->elements[i].value,
                                 p_error))
                    return false;
            }
            p_value->ptr_sd = sd;
            return true;
        }
        default:
            break;
    }
    qx_data_type_t element = base_type(type);
    if (element == QX_UNKNOWN) return fail("of a known type");
    if (text.size() < 2 || text.front() != '[' || text.back() != ']')
        return fail("an array [a,b,...]");
    auto parts = split_list(text.substr(1, text.size() - 2));
    auto *array = static_cast<qx_array_t *>(arena.allocate(QX_ARRAY_SIZE(parts.size())));
    array->element_count = static_cast<qx_uint32_t>(parts.size());
    for (size_t i = 0; i < parts.size(); ++i) {
        if (!parse_value(trim(parts[i]), element, p_sd, arena, &array->elements[i], p_error))
            return false;
    }
    p_value->ptr_array = array;
    return true;
}

std::string format_value(qx_data_type_t type, const qx_value_t &value) {
    char buffer[128];
    switch (type) {
        case QX_INT32:
            std::snprintf(buffer, sizeof buffer, "%d", value.val_int32);
            return buffer;
        case QX_UINT32:
            std::snprintf(buffer, sizeof buffer, "%u", value.val_uint32);
            return buffer;
        case QX_INT64:
            std::snprintf(buffer, sizeof buffer, "%" PRId64, value.val_int64);
            return buffer;
        case QX_UINT64:
            std::snprintf(buffer, sizeof buffer, "%" PRIu64, value.val_uint64);
            return buffer;
        case QX_FLOAT32:
            // The shortest text that reads back as the same float.
            for (int digits = 6; digits <= 9; ++digits) {
                std::snprintf(buffer, sizeof buffer, "%.*g", digits,
                              static_cast<double>(value.val_float32));
                if (std::strtof(buffer, nullptr) == value.val_float32) break;
            }
            return buffer;
        case QX_FLOAT64:
            std::snprintf(buffer, sizeof buffer, "%.17g", value.val_float64);
            return buffer;
        case QX_CHAR_PTR:
            return value.ptr_char != nullptr ? value.ptr_char : "";
        case QX_BINARY_PTR:
            if (value.ptr_binary == nullptr) return "0x";
            return hex_bytes(value.ptr_binary->data, value.ptr_binary->length);
        case QX_SBS_PTR:
            if (value.ptr_sbs == nullptr || value.ptr_sbs->length <= 0) return "0x";
            return hex_bytes(value.ptr_sbs->fields, static_cast<size_t>(value.ptr_sbs->length));
        case QX_RSRC_HANDLE_PTR: {
            const qx_resource_handle_t *h = value.ptr_rsrc_handle;
            if (h == nullptr) return "";
            std::snprintf(buffer, sizeof buffer, "0x%04x 0x%04x 0x%08x 0x%08x 0x%08x 0x%08x",
                          h->header >> 16, h->header & 0xffff, h->id.id1, h->id.id2, h->id.id3,
                          h->id.id4);
            return buffer;
        }
        case QX_SD_PTR: {
            const qx_structured_data_t *sd = value.ptr_sd;
            std::string out = "{";
            for (qx_uint32_t i = 0; sd != nullptr && i < sd->element_count; ++i) {
                if (i != 0) out += ",";
                out += format_value(sd->elements[i].data_type, sd->elements[i].value);
            }
            return out + "}";
        }
        default:
            break;
    }
    qx_data_type_t element = base_type(type);
    if (element == QX_UNKNOWN) return "?";
    const qx_array_t *array = value.ptr_array;
    std::string out = "[";
    for (qx_uint32_t i = 0; array != nullptr && i < array->element_count; ++i) {
        if (i != 0) out += ",";
        out += format_value(element, array->elements[i]);
    }
    return out + "]";
}

bool parse_column_spec(const std::string &description, ValueArena &arena, sr_column_t *p_column,
                       std::string *p_error) {
    std::memset(p_column, 0, sizeof *p_column);
    std::string head = description;
    std::string default_text;
    bool has_default = false;
    // The default follows the first '=' outside parentheses.
    int depth = 0;
    for (size_t i = 0; i < description.size(); ++i) {
        if (description[i] == '(') ++depth;
        if (description[i] == ')') --depth;
        if (description[i] == '=' && depth == 0) {
            head = description.substr(0, i);
            default_text = description.substr(i + 1);
            has_default = true;
            break;
        }
    }
    size_t colon = head.find(':');
    if (colon == std::string::npos) {
        *p_error = "column '" + description + "' needs NAME:TYPE";
        return false;
    }
    p_column->name = arena.copy(head.substr(0, colon));
    std::string rest = head.substr(colon + 1);
    // The type, possibly sd(f:type,g:type) and possibly followed by "[]".
    size_t type_end = rest.find(':');
    if (rest.compare(0, 3, "sd(") == 0) {
        size_t close = rest.find(')');
        if (close == std::string::npos) {
            *p_error = "unterminated sd( in '" + description + "'";
            return false;
        }
        type_end = rest.find(':', close);
    }
    std::string type_text = rest.substr(0, type_end);
    std::string modifiers = type_end == std::string::npos ? "" : rest.substr(type_end + 1);
    if (type_text.compare(0, 3, "sd(") == 0) {
        size_t close = type_text.find(')');
        auto fields = split_list(type_text.substr(3, close - 3));
        std::string suffix = type_text.substr(close + 1);
        p_column->type = suffix == "[]" ? QX_SD_PTR_ARRAY : QX_SD_PTR;
        if (!suffix.empty() && suffix != "[]") {
            *p_error = "bad type '" + type_text + "'";
            return false;
        }
        auto *sd = static_cast<sr_sd_def_t *>(
            arena.allocate(sizeof(sr_sd_def_t) + fields.size() * sizeof(sr_sd_field_def_t)));
        sd->number_of_fields = static_cast<qx_uint32_t>(fields.size());
        for (size_t i = 0; i < fields.size(); ++i) {
            std::string field = trim(fields[i]);
            size_t c = field.find(':');
            qx_data_type_t ft =
                c == std::string::npos ? QX_UNKNOWN : parse_type_word(field.substr(c + 1));
            if (ft == QX_UNKNOWN) {
                *p_error = "field '" + field + "' needs NAME:TYPE";
                return false;
            }
            sd->field_def[i].name = arena.copy(field.substr(0, c));
            sd->field_def[i].type = ft;
        }
        p_column->sd_defn = sd;
    } else {
        p_column->type = parse_type_word(type_text);
        if (p_column->type == QX_UNKNOWN) {
            *p_error = "unknown type '" + type_text + "'";
            return false;
        }
    }
    sr_qualifier_t qualifier = SR_STANDARD;
    size_t start = 0;
    while (start < modifiers.size()) {
        size_t end = modifiers.find(':', start);
        std::string word = modifiers.substr(start, end == std::string::npos ? end : end - start);
        if (word == "key") {
            qualifier = (qualifier & ~0xFu) | SR_PRIMARY_KEY;
        } else if (word == "key-nocheck") {
            qualifier = (qualifier & ~0xFu) | SR_PRIMARY_KEY_NOCHECK;
        } else if (word == "protected") {
            qualifier |= SR_PROTECTED;
        } else if (word == "invisible") {
            qualifier |= SR_INVISIBLE;
        } else if (word == "default-when-unspecified") {
            qualifier |= SR_SET_TO_DEFAULT_WHEN_UNSPECIFIED;
        } else if (!word.empty()) {
            *p_error = "unknown column modifier '" + word + "'";
            return false;
        }
        if (end == std::string::npos) break;
        start = end + 1;
    }
    p_column->qualifier = qualifier;
    if (has_default && !parse_value(default_text, p_column->type, p_column->sd_defn, arena,
                                    &p_column->default_value, p_error))
        return false;
    return true;
}

std::string format_json(qx_data_type_t type, const qx_value_t &value, const sr_sd_def_t *p_sd) {
    switch (type) {
        case QX_INT32:
        case QX_UINT32:
        case QX_INT64:
        case QX_UINT64:
            return format_value(type, value);
        case QX_FLOAT32:
        case QX_FLOAT64: {
            double d =
                type == QX_FLOAT32 ? static_cast<double>(value.val_float32) : value.val_float64;
            // JSON has no infinities or NaN: those travel as their text.
            std::string text = format_value(type, value);
            return std::isfinite(d) ? text : "\"" + text + "\"";
        }
        case QX_SD_PTR: {
            const qx_structured_data_t *sd = value.ptr_sd;
            if (sd == nullptr) return "null";
            std::string out = "{";
            for (qx_uint32_t i = 0; i < sd->element_count; ++i) {
                if (i != 0) out += ", ";
                std::string name = p_sd != nullptr && i < p_sd->number_of_fields
                                       ? p_sd->field_def[i].name
                                       : std::to_string(i);
                out += json_text(name) + ": " +
                       format_json(sd->elements[i].data_type, sd->elements[i].value, nullptr);
            }
            return out + "}";
        }
        default:
            break;
    }
    qx_data_type_t element = base_type(type);
    if (element == QX_UNKNOWN) {
        bool absent = (type == QX_CHAR_PTR && value.ptr_char == nullptr) ||
                      (type == QX_RSRC_HANDLE_PTR && value.ptr_rsrc_handle == nullptr);
        return absent ? "null" : json_text(format_value(type, value));
    }
    const qx_array_t *array = value.ptr_array;
    if (array == nullptr) return "null";
    std::string out = "[";
    for (qx_uint32_t i = 0; i < array->element_count; ++i) {
        if (i != 0) out += ", ";
        out += format_json(element, array->elements[i], p_sd);
    }
    return out + "]";
}

std::string json_text(const std::string &text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    char buffer[8];
                    std::snprintf(buffer, sizeof buffer, "\\u%04x", c);
                    out += buffer;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

}  // namespace qxsr
