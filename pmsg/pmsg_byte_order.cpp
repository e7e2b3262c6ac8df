/*
 * pmsg_byte_order.cpp - protocol forms written on a machine of the other
 * byte order.
 *
 * Every integer of a form is a 32- or 64-bit word in its writer's byte order:
 * slots, anchors, counts, length words, element types and the five words of a
 * resource handle.  Text, binary data and the bytes of an SBS are opaque and
 * stay as they are.
 *
 * Conversion walks the form exactly as a reader would, reading each word in
 * the other byte order before writing it back in ours.  It runs twice: a dry
 * run that only checks every anchor and count, and then the real one, so a
 * malformed form is refused before a single byte has changed.
 */
#include "pmsg_i.h"

namespace pmsg_i {
namespace {

/* Reads a foreign 32-bit word at p; when `apply`, writes it back converted. */
uint32_t take32(uint8_t *p, bool apply) {
    uint32_t v = __builtin_bswap32(load32(p));
    if (apply) store32(p, v);
    return v;
}

void swap64(uint8_t *p, bool apply) {
    if (apply) store64(p, __builtin_bswap64(load64(p)));
}

void convert_scalar(Kind kind, uint8_t *p_slot, bool apply) {
    if (kind == kScalar32) {
        take32(p_slot, apply);
    } else {
        swap64(p_slot, apply);
    }
}

int convert_form(uint32_t type, uint8_t *p, uint32_t length, int depth, bool apply);

/* Converts an anchor inside the form [p, p + length) and the form it
 * designates; *p_cursor is where the previous nested form ended. */
int convert_nested(uint32_t type, uint8_t *p, uint32_t length, uint8_t *p_anchor,
                   uint64_t *p_cursor, int depth, bool apply) {
    uint32_t offset = take32(p_anchor, apply);
    uint32_t nested_length = take32(p_anchor + 4, apply);
    int rc = check_nested(offset, nested_length, length, p_cursor);
    if (rc != QX_PMSG_OK) return rc;
    return convert_form(type, p + offset, nested_length, depth + 1, apply);
}

int convert_form(uint32_t type, uint8_t *p, uint32_t length, int depth, bool apply) {
    if (depth > kMaxDepth) return QX_PMSG_E_CORRUPT;
    Kind kind = kind_of(type);
    switch (kind) {
        case kString:
            if (length < 1 || p[length - 1] != 0) return QX_PMSG_E_CORRUPT;
            return QX_PMSG_OK;
        case kBinary:
        case kSbs:
            if (length < 4 || take32(p, apply) != length - 4) return QX_PMSG_E_CORRUPT;
            return QX_PMSG_OK;
        case kRsrcHandle:
            if (length != kRsrcHandleBytes) return QX_PMSG_E_CORRUPT;
            for (uint32_t i = 0; i < kRsrcHandleBytes; i += 4) take32(p + i, apply);
            return QX_PMSG_OK;
        default:
            break;
    }
    if (length < kHeaderBytes) return QX_PMSG_E_CORRUPT;
    uint32_t count = take32(p, apply);
    if (kind == kSd) {
        uint64_t cursor = kHeaderBytes + uint64_t{kSdElementBytes} * count;
        if (cursor > length) return QX_PMSG_E_CORRUPT;
        for (uint32_t i = 0; i < count; i++) {
            uint8_t *p_element = p + kHeaderBytes + kSdElementBytes * i;
            uint32_t element_type = take32(p_element, apply);
            Kind element_kind = kind_of(element_type);
            if (element_kind == kInvalid) return QX_PMSG_E_CORRUPT;
            if (is_scalar(element_kind)) {
                convert_scalar(element_kind, p_element + 8, apply);
                continue;
            }
            int rc = convert_nested(element_type, p, length, p_element + 8, &cursor, depth, apply);
            if (rc != QX_PMSG_OK) return rc;
        }
        return QX_PMSG_OK;
    }
    uint64_t slots_end = kHeaderBytes + uint64_t{kSlotBytes} * count;
    uint32_t base = array_base_type(type);
    Kind base_kind = kind_of(base);
    if (kind == kScalarArray) {
        if (slots_end != length) return QX_PMSG_E_CORRUPT;
        for (uint32_t i = 0; i < count; i++)
            convert_scalar(base_kind, p + kHeaderBytes + kSlotBytes * i, apply);
        return QX_PMSG_OK;
    }
    if (slots_end > length) return QX_PMSG_E_CORRUPT;
    uint64_t cursor = slots_end;
    for (uint32_t i = 0; i < count; i++) {
        int rc = convert_nested(base, p, length, p + kHeaderBytes + kSlotBytes * i, &cursor, depth,
                                apply);
        if (rc != QX_PMSG_OK) return rc;
    }
    return QX_PMSG_OK;
}

int convert_value(uint8_t *p_slot, uint32_t type, uint8_t *p_area, int64_t limit, bool apply) {
    Kind kind = kind_of(type);
    if (is_scalar(kind)) {
        convert_scalar(kind, p_slot, apply);
        return QX_PMSG_OK;
    }
    uint32_t offset = take32(p_slot, apply);
    uint32_t length = take32(p_slot + 4, apply);
    if (limit >= 0 && uint64_t{offset} + length > static_cast<uint64_t>(limit))
        return QX_PMSG_E_BOUNDS;
    return convert_form(type, p_area + offset, length, 0, apply);
}

}  // namespace
}  // namespace pmsg_i

using namespace pmsg_i;

int qx_pmsg_cnv_required_1(const void *p_buffer, qx_uint32_t *p_required) {
    if (p_buffer == nullptr || p_required == nullptr) return QX_PMSG_E_INVAL;
    /* The writer put the 32-bit value 1 in the slot at offset 16: it reads as
     * 1 in the writer's byte order and as 0x01000000 in the other. */
    uint32_t mark = load32(static_cast<const uint8_t *>(p_buffer) + 16);
    if (mark == 1) {
        *p_required = 0;
    } else if (mark == __builtin_bswap32(1u)) {
        *p_required = 1;
    } else {
        return QX_PMSG_E_CORRUPT;
    }
    return QX_PMSG_OK;
}

int qx_pmsg_convert_pmsg_value_bounded_1(void *p_slot, qx_data_type_t type, void *p_indirect_base,
                                         qx_int64_t limit) {
    if (p_slot == nullptr || limit < -1) return QX_PMSG_E_INVAL;
    uint32_t type_word = static_cast<uint32_t>(type);
    Kind kind = kind_of(type_word);
    if (kind == kInvalid) return QX_PMSG_E_TYPE;
    if (!is_scalar(kind) && p_indirect_base == nullptr) return QX_PMSG_E_INVAL;
    auto *p = static_cast<uint8_t *>(p_slot);
    auto *p_area = static_cast<uint8_t *>(p_indirect_base);
    int rc = convert_value(p, type_word, p_area, limit, false);
    if (rc != QX_PMSG_OK) return rc;
    return convert_value(p, type_word, p_area, limit, true);
}

int qx_pmsg_convert_pmsg_value_1(void *p_slot, qx_data_type_t type, void *p_indirect_base) {
    return qx_pmsg_convert_pmsg_value_bounded_1(p_slot, type, p_indirect_base, -1);
}
