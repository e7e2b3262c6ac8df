/*
 * pmsg_client_value_fuzz.cpp - arbitrary bytes as a slot plus an indirect
 * area, read back as a client value of every type and in every ownership
 * mode, then converted from the other byte order.
 *
 * Input: byte 0 picks the type (mod 21, plus 2), byte 1 the flags, the next
 * 8 bytes are the slot and the rest is the indirect area.  The area is copied
 * into a buffer of exactly its size, so any read past it trips ASan.  A value
 * that reads back is walked completely, so a pointer into nowhere trips too.
 */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "qx_pmsg.h"

namespace {

volatile uint64_t g_sink;

void walk(int type, const qx_value_t &value, int depth);

void walk_bytes(const void *p, size_t n) {
    const unsigned char *p_byte = static_cast<const unsigned char *>(p);
    uint64_t sum = 0;
    for (size_t i = 0; i < n; i++) sum += p_byte[i];
    g_sink = g_sink + sum;
}

void walk(int type, const qx_value_t &value, int depth) {
    if (depth > 64) abort(); /* deeper than the library allows */
    switch (type) {
        case QX_CHAR_PTR:
            walk_bytes(value.ptr_char, strlen(value.ptr_char) + 1);
            return;
        case QX_BINARY_PTR:
            walk_bytes(value.ptr_binary->data, value.ptr_binary->length);
            return;
        case QX_RSRC_HANDLE_PTR:
            walk_bytes(value.ptr_rsrc_handle, sizeof(qx_resource_handle_t));
            return;
        case QX_SBS_PTR:
            walk_bytes(value.ptr_sbs->fields, static_cast<size_t>(value.ptr_sbs->length));
            return;
        case QX_SD_PTR:
            for (uint32_t i = 0; i < value.ptr_sd->element_count; i++)
                walk(value.ptr_sd->elements[i].data_type, value.ptr_sd->elements[i].value,
                     depth + 1);
            return;
        default:
            if (type >= QX_INT32_ARRAY && type <= QX_SD_PTR_ARRAY) {
                for (uint32_t i = 0; i < value.ptr_array->element_count; i++)
                    walk(type - (QX_INT32_ARRAY - QX_INT32), value.ptr_array->elements[i],
                         depth + 1);
            }
            return;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *p_data, size_t size) {
    if (size < 10) return 0;
    const int type = QX_INT32 + p_data[0] % (QX_SD_PTR_ARRAY - QX_INT32 + 1);
    static const qx_uint32_t kFlags[] = {0, QX_PMSG_CLIENT_MALLOC,
                                         QX_PMSG_CLIENT_MALLOC | QX_PMSG_CLIENT_DEEP};
    const qx_uint32_t flags = kFlags[p_data[1] % 3];
    const bool bounded = (p_data[1] & 0x80) == 0;
    uint8_t slot[8];
    memcpy(slot, p_data + 2, 8);
    const size_t area_size = size - 10;
    /* An 8-aligned copy, or one shifted off alignment when bit 6 says so. */
    const size_t shift = (p_data[1] & 0x40) != 0 ? 1 : 0;
    uint8_t *p_storage = static_cast<uint8_t *>(malloc(area_size + shift + 1));
    if (p_storage == nullptr) return 0;
    uint8_t *p_area = p_storage + shift;
    memcpy(p_area, p_data + 10, area_size);

    /* Unbounded reads trust the anchor by contract; keep it in the area. */
    qx_int64_t limit = static_cast<qx_int64_t>(area_size);
    if (!bounded) {
        uint32_t offset, length;
        memcpy(&offset, slot, 4);
        memcpy(&length, slot + 4, 4);
        if (uint64_t{offset} + length > area_size) {
            free(p_storage);
            return 0;
        }
        limit = -1;
    }

    qx_value_t value;
    int rc = qx_pmsg_build_conv_packed_client_value_1(
        nullptr, flags, static_cast<qx_data_type_t>(type), &value, slot, p_area, limit);
    if (rc == QX_PMSG_OK) {
        walk(type, value, 0);
        if ((flags & QX_PMSG_CLIENT_MALLOC) != 0 && (type < QX_INT32 || type > QX_FLOAT64))
            free(value.ptr_char);
    }
    qx_pmsg_release_client_values_1(slot, sizeof slot);

    qx_pmsg_convert_pmsg_value_bounded_1(slot, static_cast<qx_data_type_t>(type), p_area,
                                         static_cast<qx_int64_t>(area_size));
    free(p_storage);
    return 0;
}
