/*
 * cu_locale.cpp - the caller's character locale and whether its text can
 * reach the tables (which hold UTF-8) without conversion.
 *
 * Both answers are taken for the calling thread: nl_langinfo reads the
 * locale installed with uselocale() when there is one, the global locale
 * otherwise, so a thread working in its own locale gets its own code set.
 */
#include <langinfo.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>

#include "cu_i.h"
#include "qx_cu.h"

namespace {

/* Lower-case letters and digits only: "UTF-8", "utf8" and "Utf_8" match. */
void normalise_codeset(const char *in, char *out, size_t room) {
    size_t n = 0;
    for (; *in != '\0' && n + 1 < room; ++in) {
        char c = *in;
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) out[n++] = c;
    }
    out[n] = '\0';
}

}  // namespace

extern "C" int cu_get_locale_info_1(cu_locale_info_t **pp_info) {
    if (pp_info == nullptr) return CU_E_INVAL;
    *pp_info = nullptr;
    const char *name = nl_langinfo(_NL_LOCALE_NAME(LC_CTYPE));
    const char *codeset = nl_langinfo(CODESET);
    if (name == nullptr) name = "";
    if (codeset == nullptr) codeset = "";
    size_t name_bytes = strlen(name) + 1;
    size_t codeset_bytes = strlen(codeset) + 1;
    /* One block, so that the caller could release it with free() too. */
    char *block =
        static_cast<char *>(malloc(sizeof(cu_locale_info_t) + name_bytes + codeset_bytes));
    if (block == nullptr) return CU_E_NOMEM;
    cu_locale_info_t *info = reinterpret_cast<cu_locale_info_t *>(block);
    info->cu_locale_name = block + sizeof(cu_locale_info_t);
    info->cu_codeset = info->cu_locale_name + name_bytes;
    memcpy(info->cu_locale_name, name, name_bytes);
    memcpy(info->cu_codeset, codeset, codeset_bytes);
    *pp_info = info;
    return CU_OK;
}

extern "C" int cu_rel_locale_info_1(cu_locale_info_t *p_info) {
    free(p_info);
    return CU_OK;
}

/*
 * UTF-8 reaches the tables unmodified, obviously.  So does the C/POSIX
 * locale's ASCII ("ANSI_X3.4-1968" from glibc): ASCII is a subset of UTF-8,
 * and a program that never calls setlocale() runs in that locale while it
 * usually handles UTF-8 bytes anyway.  Converting its text from ASCII would
 * reject every non-ASCII byte of text it means as UTF-8, so its bytes are
 * passed through untouched instead.
 */
extern "C" int cu_utf8_is_not_modified_1(const cu_locale_info_t *p_info) {
    if (p_info == nullptr || p_info->cu_codeset == nullptr) return 0;
    char norm[32];
    normalise_codeset(p_info->cu_codeset, norm, sizeof(norm));
    return strcmp(norm, "utf8") == 0 || strcmp(norm, "ansix341968") == 0 ||
           strcmp(norm, "ascii") == 0 || strcmp(norm, "usascii") == 0;
}
