/*
 * pmsg_protocol.cpp - a caller's value into its protocol form.
 *
 * qx_pmsg_size_conv_protocol_value_1 and qx_pmsg_build_conv_protocol_value_1
 * share one walk over the caller's value: run without an output buffer it
 * checks the value and measures its form; run with one it writes the form.
 * Because the build measures first and writes only when the whole form fits,
 * "room too small" is decided before a byte changes, and the size call can
 * never disagree with what the build uses.
 *
 * Nothing is allocated: text is converted straight into the indirect area.
 */
#include "pmsg_i.h"

namespace pmsg_i {
namespace {

struct Writer {
    cu_iconv_t *p_handle; /* NULL, or a handle that really converts */
    uint8_t *p_end;       /* end of the measured form (writing only) */
};

/* Whether n bytes at p fit in the measured form.  They always do unless a
 * converter gives a longer text on the second pass than on the first; that
 * is refused rather than written past the form. */
bool fits(const Writer &w, const uint8_t *p, uint64_t n) {
    return n <= static_cast<uint64_t>(w.p_end - p);
}

int map_cu_result(int rc) {
    if (rc == CU_E_NOMEM) return QX_PMSG_E_NOMEM;
    return QX_PMSG_E_CONVERT;
}

int form_of(Writer &w, uint32_t type, const qx_value_t &value, uint8_t *p_out, int depth,
            uint64_t *p_length);

/* The text's bytes in the table code set plus its NUL. */
int text_form(Writer &w, const char *p_text, uint8_t *p_out, uint64_t *p_length) {
    if (p_text == nullptr) return QX_PMSG_E_INVAL;
    size_t n = strlen(p_text);
    if (w.p_handle == nullptr) {
        if (p_out != nullptr) memcpy(p_out, p_text, n + 1);
        *p_length = uint64_t{n} + 1;
        return QX_PMSG_OK;
    }
    size_t converted = 0;
    if (p_out == nullptr) {
        int rc = cu_iconv_buf_1(w.p_handle, p_text, n, nullptr, 0, &converted);
        if (rc != CU_OK && rc != CU_E_ROOM) return map_cu_result(rc);
    } else {
        /* The measuring pass made room for exactly the converted text. */
        if (!fits(w, p_out, 1)) return QX_PMSG_E_CONVERT;
        size_t room = static_cast<size_t>(w.p_end - p_out) - 1;
        int rc = cu_iconv_buf_1(w.p_handle, p_text, n, reinterpret_cast<char *>(p_out), room,
                                &converted);
        if (rc != CU_OK) return rc == CU_E_ROOM ? QX_PMSG_E_CONVERT : map_cu_result(rc);
        p_out[converted] = 0;
    }
    *p_length = uint64_t{converted} + 1;
    return QX_PMSG_OK;
}

/* A length word followed by that many bytes (binary, SBS). */
int counted_form(const Writer &w, const void *p_object, int64_t count, uint8_t *p_out,
                 uint64_t *p_length) {
    if (p_object == nullptr) return QX_PMSG_E_INVAL;
    if (count < 0) return QX_PMSG_E_INVAL;
    uint64_t length = 4 + static_cast<uint64_t>(count);
    if (length > UINT32_MAX) return QX_PMSG_E_TOO_LARGE;
    if (p_out != nullptr) {
        if (!fits(w, p_out, length)) return QX_PMSG_E_CONVERT;
        store32(p_out, static_cast<uint32_t>(count));
        memcpy(p_out + 4, static_cast<const uint8_t *>(p_object) + 4, static_cast<size_t>(count));
    }
    *p_length = length;
    return QX_PMSG_OK;
}

/* One scalar into an 8-byte slot; a 32-bit value's upper half is zeroed so
 * forms are byte-for-byte reproducible. */
void scalar_slot(Kind kind, const qx_value_t &value, uint8_t *p_slot) {
    if (kind == kScalar32) {
        store32(p_slot, value.val_uint32);
        store32(p_slot + 4, 0);
    } else {
        store64(p_slot, value.val_uint64);
    }
}

/*
 * Places a nested form at *p_cursor inside the composite being built at
 * p_base, writes its anchor (relative to p_base) into p_anchor and advances
 * the cursor past it: nested forms lie end to end.
 */
int nested_form(Writer &w, uint32_t type, const qx_value_t &value, uint8_t *p_base,
                uint8_t *p_anchor, uint64_t *p_cursor, int depth) {
    uint64_t start = *p_cursor;
    uint8_t *p_out = nullptr;
    if (p_base != nullptr) {
        if (!fits(w, p_base, start)) return QX_PMSG_E_CONVERT;
        p_out = p_base + start;
    }
    uint64_t length = 0;
    int rc = form_of(w, type, value, p_out, depth + 1, &length);
    if (rc != QX_PMSG_OK) return rc;
    if (start + length > UINT32_MAX) return QX_PMSG_E_TOO_LARGE;
    if (p_anchor != nullptr) {
        store32(p_anchor, static_cast<uint32_t>(start));
        store32(p_anchor + 4, static_cast<uint32_t>(length));
    }
    *p_cursor = start + length;
    return QX_PMSG_OK;
}

int array_form(Writer &w, uint32_t type, const qx_array_t *p_array, uint8_t *p_out, int depth,
               uint64_t *p_length) {
    if (p_array == nullptr) return QX_PMSG_E_INVAL;
    uint32_t count = p_array->element_count;
    uint64_t cursor = kHeaderBytes + uint64_t{kSlotBytes} * count;
    if (cursor > UINT32_MAX) return QX_PMSG_E_TOO_LARGE;
    uint32_t base = array_base_type(type);
    Kind base_kind = kind_of(base);
    if (p_out != nullptr) {
        if (!fits(w, p_out, cursor)) return QX_PMSG_E_CONVERT;
        store32(p_out, count);
        store32(p_out + 4, 0);
    }
    if (is_scalar(base_kind)) {
        if (p_out != nullptr) {
            for (uint32_t i = 0; i < count; i++) {
                scalar_slot(base_kind, p_array->elements[i], p_out + kHeaderBytes + 8 * i);
            }
        }
    } else {
        for (uint32_t i = 0; i < count; i++) {
            uint8_t *p_anchor = p_out == nullptr ? nullptr : p_out + kHeaderBytes + 8 * i;
            int rc = nested_form(w, base, p_array->elements[i], p_out, p_anchor, &cursor, depth);
            if (rc != QX_PMSG_OK) return rc;
        }
    }
    *p_length = cursor;
    return QX_PMSG_OK;
}

int sd_form(Writer &w, const qx_structured_data_t *p_sd, uint8_t *p_out, int depth,
            uint64_t *p_length) {
    if (p_sd == nullptr) return QX_PMSG_E_INVAL;
    uint32_t count = p_sd->element_count;
    uint64_t cursor = kHeaderBytes + uint64_t{kSdElementBytes} * count;
    if (cursor > UINT32_MAX) return QX_PMSG_E_TOO_LARGE;
    if (p_out != nullptr) {
        if (!fits(w, p_out, cursor)) return QX_PMSG_E_CONVERT;
        store32(p_out, count);
        store32(p_out + 4, 0);
    }
    for (uint32_t i = 0; i < count; i++) {
        const qx_structured_data_element_t &element = p_sd->elements[i];
        uint32_t element_type = static_cast<uint32_t>(element.data_type);
        Kind element_kind = kind_of(element_type);
        if (element_kind == kInvalid) return QX_PMSG_E_TYPE;
        uint8_t *p_element = p_out == nullptr ? nullptr : p_out + kHeaderBytes + 16 * i;
        if (p_element != nullptr) {
            store32(p_element, element_type);
            store32(p_element + 4, 0);
        }
        if (is_scalar(element_kind)) {
            if (p_element != nullptr) scalar_slot(element_kind, element.value, p_element + 8);
        } else {
            uint8_t *p_anchor = p_element == nullptr ? nullptr : p_element + 8;
            int rc = nested_form(w, element_type, element.value, p_out, p_anchor, &cursor, depth);
            if (rc != QX_PMSG_OK) return rc;
        }
    }
    *p_length = cursor;
    return QX_PMSG_OK;
}

/*
 * Measures (p_out NULL) or writes the form of a pointer-type value.
 */
int form_of(Writer &w, uint32_t type, const qx_value_t &value, uint8_t *p_out, int depth,
            uint64_t *p_length) {
    if (depth > kMaxDepth) return QX_PMSG_E_INVAL;
    switch (kind_of(type)) {
        case kString:
            return text_form(w, value.ptr_char, p_out, p_length);
        case kBinary:
            if (value.ptr_binary == nullptr) return QX_PMSG_E_INVAL;
            return counted_form(w, value.ptr_binary, value.ptr_binary->length, p_out, p_length);
        case kSbs:
            if (value.ptr_sbs == nullptr) return QX_PMSG_E_INVAL;
            return counted_form(w, value.ptr_sbs, value.ptr_sbs->length, p_out, p_length);
        case kRsrcHandle:
            if (value.ptr_rsrc_handle == nullptr) return QX_PMSG_E_INVAL;
            if (p_out != nullptr) {
                if (!fits(w, p_out, kRsrcHandleBytes)) return QX_PMSG_E_CONVERT;
                memcpy(p_out, value.ptr_rsrc_handle, kRsrcHandleBytes);
            }
            *p_length = kRsrcHandleBytes;
            return QX_PMSG_OK;
        case kSd:
            return sd_form(w, value.ptr_sd, p_out, depth, p_length);
        case kScalarArray:
        case kPointerArray:
            return array_form(w, type, value.ptr_array, p_out, depth, p_length);
        default:
            return QX_PMSG_E_TYPE;
    }
}

}  // namespace
}  // namespace pmsg_i

using namespace pmsg_i;

int qx_pmsg_size_conv_protocol_value_1(cu_iconv_t *p_handle, qx_uint32_t flags, qx_data_type_t type,
                                       const qx_value_t *p_value, qx_uint32_t *p_size) {
    if (p_value == nullptr || p_size == nullptr || flags != 0) return QX_PMSG_E_INVAL;
    Kind kind = kind_of(static_cast<uint32_t>(type));
    if (kind == kInvalid) return QX_PMSG_E_TYPE;
    if (is_scalar(kind)) {
        *p_size = 0;
        return QX_PMSG_OK;
    }
    Writer w{effective_handle(p_handle), nullptr};
    uint64_t length = 0;
    int rc = form_of(w, static_cast<uint32_t>(type), *p_value, nullptr, 0, &length);
    if (rc != QX_PMSG_OK) return rc;
    if (length > UINT32_MAX) return QX_PMSG_E_TOO_LARGE;
    *p_size = static_cast<qx_uint32_t>(length);
    return QX_PMSG_OK;
}

int qx_pmsg_build_conv_protocol_value_1(cu_iconv_t *p_handle, qx_uint32_t flags,
                                        qx_data_type_t type, const qx_value_t *p_value,
                                        void *p_slot, void *p_indirect_area, qx_uint32_t room,
                                        qx_uint32_t *p_running_offset) {
    if (p_value == nullptr || p_slot == nullptr || flags != 0) return QX_PMSG_E_INVAL;
    Kind kind = kind_of(static_cast<uint32_t>(type));
    if (kind == kInvalid) return QX_PMSG_E_TYPE;
    if (is_scalar(kind)) {
        scalar_slot(kind, *p_value, static_cast<uint8_t *>(p_slot));
        return QX_PMSG_OK;
    }
    if (p_indirect_area == nullptr || p_running_offset == nullptr) return QX_PMSG_E_INVAL;

    Writer w{effective_handle(p_handle), nullptr};
    uint64_t length = 0;
    /* Text that needs no conversion is its own form: measured once and
     * copied, where any other value is walked twice, to measure and to write. */
    const bool plain_text = kind == kString && w.p_handle == nullptr;
    if (plain_text) {
        if (p_value->ptr_char == nullptr) return QX_PMSG_E_INVAL;
        length = uint64_t{strlen(p_value->ptr_char)} + 1;
    } else {
        int rc = form_of(w, static_cast<uint32_t>(type), *p_value, nullptr, 0, &length);
        if (rc != QX_PMSG_OK) return rc;
    }
    /* Forms lie end to end: a form starts where the previous one ended. */
    uint64_t start = *p_running_offset;
    uint64_t end = start + length;
    /* No room could ever hold a form that ends beyond 32-bit offsets. */
    if (end > UINT32_MAX) return QX_PMSG_E_TOO_LARGE;
    if (end > room) return QX_PMSG_E_ROOM;

    uint8_t *p_area = static_cast<uint8_t *>(p_indirect_area);
    if (plain_text) {
        memcpy(p_area + start, p_value->ptr_char, static_cast<size_t>(length));
    } else {
        w.p_end = p_area + start + length;
        uint64_t written = 0;
        int rc = form_of(w, static_cast<uint32_t>(type), *p_value, p_area + start, 0, &written);
        if (rc != QX_PMSG_OK) return rc;
        if (written != length) return QX_PMSG_E_CONVERT; /* the converter changed its mind */
    }

    /* The slot and the running offset change last, and only on success. */
    qx_pmsg_value_t slot;
    slot.anchor.offset = static_cast<qx_uint32_t>(start);
    slot.anchor.length = static_cast<qx_uint32_t>(length);
    memcpy(p_slot, &slot, sizeof slot);
    *p_running_offset = static_cast<qx_uint32_t>(end);
    return QX_PMSG_OK;
}
