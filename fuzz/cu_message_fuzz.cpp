// Message texts come from catalogue files, which are outside data: any text
// must format against any recorded values without reading past them.  The
// same input also goes through a UTF-8 -> Latin-1 handle, whose results
// must convert back to the input exactly.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "cu_i.h"
#include "qx_cu.h"

namespace {

cu_iconv_t *from_table() {
    static cu_iconv_t *h = [] {
        cu_locale_info_t info;
        info.cu_locale_name = const_cast<char *>("fuzz");
        info.cu_codeset = const_cast<char *>("ISO-8859-1");
        cu_iconv_t *opened = nullptr;
        cu_iconv_open_1(&info, CU_ICONV_FROM_TABLE, &opened);
        return opened;
    }();
    return h;
}

cu_iconv_t *to_table() {
    static cu_iconv_t *h = [] {
        cu_locale_info_t info;
        info.cu_locale_name = const_cast<char *>("fuzz");
        info.cu_codeset = const_cast<char *>("ISO-8859-1");
        cu_iconv_t *opened = nullptr;
        cu_iconv_open_1(&info, CU_ICONV_TO_TABLE, &opened);
        return opened;
    }();
    return h;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // The first byte chooses how many values are recorded and of which kinds.
    uint32_t count = size > 0 ? data[0] % (CU_ERROR_MAX_ARGS + 1) : 0;
    cu_error_arg_t args[CU_ERROR_MAX_ARGS];
    for (uint32_t i = 0; i < count; ++i) {
        uint8_t pick = i + 1 < size ? data[i + 1] : 0;
        args[i].cu_arg_pad = 0;
        switch (pick % 6) {
            case 0:
                args[i].cu_arg_type = CU_ERROR_ARG_CHAR_STR;
                args[i].cu_arg_value.cu_arg_char_str = const_cast<char *>("text");
                break;
            case 1:
                args[i].cu_arg_type = CU_ERROR_ARG_INT32;
                args[i].cu_arg_value.cu_arg_int32 = -static_cast<int32_t>(pick);
                break;
            case 2:
                args[i].cu_arg_type = CU_ERROR_ARG_UINT32;
                args[i].cu_arg_value.cu_arg_uint32 = 0xFFFFFFFFu - pick;
                break;
            case 3:
                args[i].cu_arg_type = CU_ERROR_ARG_INT64;
                args[i].cu_arg_value.cu_arg_int64 = INT64_MIN + pick;
                break;
            case 4:
                args[i].cu_arg_type = CU_ERROR_ARG_UINT64;
                args[i].cu_arg_value.cu_arg_uint64 = UINT64_MAX - pick;
                break;
            default:
                args[i].cu_arg_type = CU_ERROR_ARG_FLOAT64;
                args[i].cu_arg_value.cu_arg_float64 = pick * 1e300;
                break;
        }
    }
    std::string text(reinterpret_cast<const char *>(data), size);
    char *msg = nullptr;
    if (cu_i::format_message(text.c_str(), args, count, &msg) == CU_OK) free(msg);

    size_t needed = 0;
    char out[512];
    int rc = cu_iconv_buf_1(from_table(), text.data(), text.size(), out, sizeof(out), &needed);
    if (rc == CU_OK) {
        char back[1024];
        size_t back_needed = 0;
        if (cu_iconv_buf_1(to_table(), out, needed, back, sizeof(back), &back_needed) != CU_OK ||
            back_needed != text.size() || memcmp(back, text.data(), text.size()) != 0) {
            abort();
        }
    } else if (rc != CU_E_ROOM && rc != CU_E_ILSEQ) {
        abort();
    }
    return 0;
}
