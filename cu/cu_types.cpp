/*
 * cu_types.cpp - the data-type characteristics table, the shared empty
 * values and the resource-handle order.
 *
 * The empty values are read-only objects: code that hands one out as a
 * column default or an absent field can never have it modified under
 * another table, and a stray write faults instead of corrupting them.
 */
#include <string.h>

#include "cu_i.h"
#include "qx_cu.h"

namespace {

constexpr qx_uint32_t kSignedInt = CU_DTC_INTEGER | CU_DTC_SIGNED;
constexpr qx_uint32_t kArray = CU_DTC_ARRAY | CU_DTC_POINTER;

const char kEmptyChar[1] = {'\0'};
const qx_binary_t kEmptyBinary = {0, {0}};
const qx_resource_handle_t kInvalidHandle = {0xFFFFFFFFu,
                                             {0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu}};
const qx_structured_data_t kEmptySd = {0, 0, {{QX_UNKNOWN, 0, {0}}}};
const qx_array_t kEmptyArray = {0, 0, {{0}}};

}  // namespace

extern "C" {

const cu_dtc_entry_t cu_dtc_table_1[QX_NUMBER_OF_DATA_TYPES] = {
    {QX_UNKNOWN, 0, 0, QX_UNKNOWN, "QX_UNKNOWN"},
    {QX_NONE, 0, 0, QX_NONE, "QX_NONE"},
    {QX_INT32, CU_DTC_SCALAR | kSignedInt, 4, QX_INT32, "QX_INT32"},
    {QX_UINT32, CU_DTC_SCALAR | CU_DTC_INTEGER, 4, QX_UINT32, "QX_UINT32"},
    {QX_INT64, CU_DTC_SCALAR | kSignedInt, 8, QX_INT64, "QX_INT64"},
    {QX_UINT64, CU_DTC_SCALAR | CU_DTC_INTEGER, 8, QX_UINT64, "QX_UINT64"},
    {QX_FLOAT32, CU_DTC_SCALAR | CU_DTC_FLOAT, 4, QX_FLOAT32, "QX_FLOAT32"},
    {QX_FLOAT64, CU_DTC_SCALAR | CU_DTC_FLOAT, 8, QX_FLOAT64, "QX_FLOAT64"},
    {QX_CHAR_PTR, CU_DTC_POINTER, 0, QX_CHAR_PTR, "QX_CHAR_PTR"},
    {QX_BINARY_PTR, CU_DTC_POINTER, 0, QX_BINARY_PTR, "QX_BINARY_PTR"},
    {QX_RSRC_HANDLE_PTR, CU_DTC_POINTER, 0, QX_RSRC_HANDLE_PTR, "QX_RSRC_HANDLE_PTR"},
    {QX_SD_PTR, CU_DTC_POINTER, 0, QX_SD_PTR, "QX_SD_PTR"},
    {QX_SBS_PTR, CU_DTC_POINTER, 0, QX_SBS_PTR, "QX_SBS_PTR"},
    {QX_INT32_ARRAY, kArray | kSignedInt, 0, QX_INT32, "QX_INT32_ARRAY"},
    {QX_UINT32_ARRAY, kArray | CU_DTC_INTEGER, 0, QX_UINT32, "QX_UINT32_ARRAY"},
    {QX_INT64_ARRAY, kArray | kSignedInt, 0, QX_INT64, "QX_INT64_ARRAY"},
    {QX_UINT64_ARRAY, kArray | CU_DTC_INTEGER, 0, QX_UINT64, "QX_UINT64_ARRAY"},
    {QX_FLOAT32_ARRAY, kArray | CU_DTC_FLOAT, 0, QX_FLOAT32, "QX_FLOAT32_ARRAY"},
    {QX_FLOAT64_ARRAY, kArray | CU_DTC_FLOAT, 0, QX_FLOAT64, "QX_FLOAT64_ARRAY"},
    {QX_CHAR_PTR_ARRAY, kArray, 0, QX_CHAR_PTR, "QX_CHAR_PTR_ARRAY"},
    {QX_BINARY_PTR_ARRAY, kArray, 0, QX_BINARY_PTR, "QX_BINARY_PTR_ARRAY"},
    {QX_RSRC_HANDLE_PTR_ARRAY, kArray, 0, QX_RSRC_HANDLE_PTR, "QX_RSRC_HANDLE_PTR_ARRAY"},
    {QX_SD_PTR_ARRAY, kArray, 0, QX_SD_PTR, "QX_SD_PTR_ARRAY"},
};

/* The types say "pointer to modifiable" for the callers' sake; the objects
 * themselves stay read-only. */
qx_char_ptr_t const cu_ptr_empty_char_1 = const_cast<char *>(kEmptyChar);
qx_binary_t *const cu_ptr_empty_binary_1 = const_cast<qx_binary_t *>(&kEmptyBinary);
qx_resource_handle_t *const cu_ptr_invld_rsrc_hndl_1 =
    const_cast<qx_resource_handle_t *>(&kInvalidHandle);
qx_structured_data_t *const cu_ptr_empty_sd_1 = const_cast<qx_structured_data_t *>(&kEmptySd);
qx_array_t *const cu_ptr_empty_array_1 = const_cast<qx_array_t *>(&kEmptyArray);

/* Handles arrive straight from row records and packed buffers at any
 * alignment, so each word is copied out rather than read in place.  A NULL
 * handle sorts before every real one. */
qx_int32_t cu_rsrc_hndl_cmp_1(const void *p_handle1, const void *p_handle2) {
    if (p_handle1 == p_handle2) return 0;
    if (p_handle1 == nullptr) return -1;
    if (p_handle2 == nullptr) return 1;
    qx_uint32_t a[5];
    qx_uint32_t b[5];
    static_assert(sizeof(a) == sizeof(qx_resource_handle_t), "five words: header, id1..id4");
    memcpy(a, p_handle1, sizeof(a));
    memcpy(b, p_handle2, sizeof(b));
    for (int i = 0; i < 5; ++i) {
        if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
    }
    return 0;
}

}  // extern "C"
