// Selection expressions come from callers and command lines: any text must
// compile or be refused with CU_E_SYNTAX, never crash, recurse without bound
// or hang.  Whatever compiles is evaluated on a row made of the input's
// remaining bytes, which must be read only within the slots and area given.
//
// Input: the expression text, then a NUL, then the row: slot bytes for the
// schema's columns followed by the indirect area.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "qx_cu.h"

namespace {

struct Column {
    const char *name;
    qx_data_type_t type;
};

const Column kColumns[] = {
    {"a", QX_INT32},
    {"b", QX_UINT32},
    {"c", QX_INT64},
    {"d", QX_UINT64},
    {"e", QX_FLOAT32},
    {"f", QX_FLOAT64},
    {"s", QX_CHAR_PTR},
    {"bin", QX_BINARY_PTR},
    {"rh", QX_RSRC_HANDLE_PTR},
    {"sd", QX_SD_PTR},
    {"sbs", QX_SBS_PTR},
    {"ia", QX_INT32_ARRAY},
    {"ta", QX_CHAR_PTR_ARRAY},
    {"sa", QX_SD_PTR_ARRAY},
    {"fa", QX_FLOAT64_ARRAY},
    {"ba", QX_BINARY_PTR_ARRAY},
    {"ra", QX_RSRC_HANDLE_PTR_ARRAY},
    {"ua", QX_UINT64_ARRAY},
};
constexpr uint32_t kColumnCount = sizeof(kColumns) / sizeof(kColumns[0]);

const Column kFields[] = {
    {"x", QX_INT32}, {"y", QX_CHAR_PTR}, {"z", QX_INT32_ARRAY}, {"w", QX_SD_PTR}};

qx_int32_t validate(void *, qx_char_t *p_name, qx_uint32_t, qx_uint32_t parent_id,
                    cu_validate_data_t *p_out) {
    const Column *table = kColumns;
    uint32_t n = kColumnCount;
    if (parent_id == 9 || parent_id == 13) {
        table = kFields;
        n = 4;
    } else if (parent_id != CU_EXPR_TOP_LEVEL) {
        return -1;
    }
    for (uint32_t i = 0; i < n; ++i) {
        if (strcmp(table[i].name, p_name) == 0) {
            p_out->id = i;
            p_out->type = table[i].type;
            return 0;
        }
    }
    return -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const uint8_t *nul = static_cast<const uint8_t *>(memchr(data, 0, size));
    size_t text_len = nul != nullptr ? static_cast<size_t>(nul - data) : size;
    std::string text(reinterpret_cast<const char *>(data), text_len);
    cu_expr_t *p = nullptr;
    int rc = cu_comp_expr_1(text.c_str(), 0, validate, nullptr, &p);
    if (rc != CU_OK) {
        if (rc != CU_E_SYNTAX && rc != CU_E_NOMEM) abort();
        if (p != nullptr) abort();
        return 0;
    }
    // Exact-size copies so that the sanitizer sees any read past them.
    size_t rest = nul != nullptr ? size - text_len - 1 : 0;
    const uint8_t *row = nul != nullptr ? nul + 1 : data + size;
    size_t slot_bytes = rest < kColumnCount * 8 ? rest - rest % 8 : kColumnCount * 8;
    std::vector<uint8_t> slots(row, row + slot_bytes);
    std::vector<uint8_t> area(row + slot_bytes, row + rest);
    qx_int32_t match = -1;
    rc = cu_exec_expr_bounded_1(p, CU_EXPR_PROTOCOL_ROW, slots.empty() ? nullptr : slots.data(),
                                static_cast<qx_uint32_t>(slot_bytes / 8), &match,
                                area.empty() ? nullptr : area.data(),
                                static_cast<qx_int64_t>(area.size()));
    if (rc == CU_OK && match != 0 && match != 1) abort();
    if (rc != CU_OK && match != 0) abort();
    if (rc != CU_OK && rc != CU_EXPR_TYPE_MISMATCH && rc != CU_EXPR_ARITHMETIC &&
        rc != CU_EXPR_NO_ELEMENT && rc != CU_EXPR_BAD_ROW) {
        abort();
    }
    cu_free_expr_1(p);
    return 0;
}
