/*
 * pmsg_client.cpp - a protocol form back into a caller's value.
 *
 * The protocol bytes are untrusted: they may come from a file, another
 * process or another machine.  Every anchor is checked against the bytes that
 * contain it (the indirect area's limit for a slot, the enclosing form for a
 * nested anchor) before anything is read through it, every count against the
 * form's length, every element type against 2..22, and nesting against
 * kMaxDepth.
 *
 * Where the client layout is the protocol layout the value points into the
 * protocol bytes.  Everything else is built into one malloc'd block by one
 * walk that runs twice: once without a block to check and measure, once to
 * fill the block of exactly that size.  Who owns the block is chosen by the
 * caller's flags (see qx_pmsg.h): the caller, or the cache in pmsg_cache.cpp.
 */
#include <stdlib.h>

#include "pmsg_i.h"

namespace pmsg_i {
namespace {

struct Reader {
    cu_iconv_t *p_handle; /* NULL, or a handle that really converts */
    bool deep;            /* copy nested objects even when readable in place */
    uint8_t *p_block;     /* NULL while measuring */
    uint64_t used;        /* bytes of the block taken so far */
    uint64_t capacity;    /* size of the block (filling only) */
};

/* Takes n bytes of the block at the next multiple of 8; NULL while measuring. */
uint8_t *take(Reader &r, uint64_t n) {
    uint64_t at = align8(r.used);
    r.used = at + n;
    if (r.p_block == nullptr) return nullptr;
    return r.p_block + at;
}

/* Client alignment of objects that may be read in place. */
uintptr_t client_alignment(Kind kind) {
    switch (kind) {
        case kString:
            return 1;
        case kBinary:
        case kRsrcHandle:
        case kSbs:
            return alignof(qx_uint32_t);
        default:
            return alignof(qx_value_t);
    }
}

/* Checks the fixed part of a form: its length against its own counts. */
int check_form(Kind kind, const uint8_t *p, uint32_t length) {
    switch (kind) {
        case kString:
            if (length < 1 || p[length - 1] != 0) return QX_PMSG_E_CORRUPT;
            return QX_PMSG_OK;
        case kBinary:
        case kSbs:
            /* The length word counts the bytes after itself. */
            if (length < 4 || load32(p) != length - 4) return QX_PMSG_E_CORRUPT;
            return QX_PMSG_OK;
        case kRsrcHandle:
            return length == kRsrcHandleBytes ? QX_PMSG_OK : QX_PMSG_E_CORRUPT;
        case kScalarArray:
            if (length < kHeaderBytes) return QX_PMSG_E_CORRUPT;
            if (kHeaderBytes + uint64_t{kSlotBytes} * load32(p) != length) return QX_PMSG_E_CORRUPT;
            return QX_PMSG_OK;
        case kPointerArray:
            if (length < kHeaderBytes) return QX_PMSG_E_CORRUPT;
            if (kHeaderBytes + uint64_t{kSlotBytes} * load32(p) > length) return QX_PMSG_E_CORRUPT;
            return QX_PMSG_OK;
        case kSd:
            if (length < kHeaderBytes) return QX_PMSG_E_CORRUPT;
            if (kHeaderBytes + uint64_t{kSdElementBytes} * load32(p) > length)
                return QX_PMSG_E_CORRUPT;
            return QX_PMSG_OK;
        default:
            return QX_PMSG_E_CORRUPT;
    }
}

/* Whether structured data holds scalars only (then its client layout is its
 * protocol layout); QX_PMSG_E_CORRUPT for an element of no valid type. */
int sd_all_scalar(const uint8_t *p, bool *p_all_scalar) {
    uint32_t count = load32(p);
    bool all_scalar = true;
    for (uint32_t i = 0; i < count; i++) {
        Kind kind = kind_of(load32(p + kHeaderBytes + kSdElementBytes * i));
        if (kind == kInvalid) return QX_PMSG_E_CORRUPT;
        if (!is_scalar(kind)) all_scalar = false;
    }
    *p_all_scalar = all_scalar;
    return QX_PMSG_OK;
}

/* The nested form an anchor designates inside the form [p, p + length);
 * *p_cursor is where the previous nested form ended. */
int nested(const uint8_t *p, uint32_t length, const uint8_t *p_anchor, uint64_t *p_cursor,
           const uint8_t **pp_nested, uint32_t *p_nested_length) {
    uint32_t offset = load32(p_anchor);
    uint32_t nested_length = load32(p_anchor + 4);
    int rc = check_nested(offset, nested_length, length, p_cursor);
    if (rc != QX_PMSG_OK) return rc;
    *pp_nested = p + offset;
    *p_nested_length = nested_length;
    return QX_PMSG_OK;
}

/* A scalar slot as a client value: the 32-bit kinds keep their first four
 * bytes and read zero above them. */
qx_value_t scalar_value(Kind kind, const uint8_t *p_slot) {
    qx_value_t value;
    value.val_uint64 = 0;
    memcpy(&value, p_slot, kind == kScalar32 ? 4 : 8);
    return value;
}

int client_of(Reader &r, uint32_t type, const uint8_t *p, uint32_t length, bool may_ref, int depth,
              void **pp_out);

int text_client(Reader &r, const uint8_t *p, uint32_t length, bool may_ref, void **pp_out) {
    if (r.p_handle == nullptr) {
        if (may_ref) {
            *pp_out = const_cast<uint8_t *>(p);
            return QX_PMSG_OK;
        }
        uint8_t *p_copy = take(r, length);
        if (p_copy != nullptr) memcpy(p_copy, p, length);
        *pp_out = p_copy;
        return QX_PMSG_OK;
    }
    const char *p_text = reinterpret_cast<const char *>(p);
    size_t converted = 0;
    if (r.p_block == nullptr) {
        int rc = cu_iconv_buf_1(r.p_handle, p_text, length - 1, nullptr, 0, &converted);
        if (rc != CU_OK && rc != CU_E_ROOM)
            return rc == CU_E_NOMEM ? QX_PMSG_E_NOMEM : QX_PMSG_E_CONVERT;
        take(r, uint64_t{converted} + 1);
        *pp_out = nullptr;
        return QX_PMSG_OK;
    }
    /* Filling: the measuring pass sized the block for exactly this text. */
    uint64_t at = align8(r.used);
    if (at >= r.capacity) return QX_PMSG_E_CONVERT;
    char *p_out = reinterpret_cast<char *>(r.p_block + at);
    int rc = cu_iconv_buf_1(r.p_handle, p_text, length - 1, p_out,
                            static_cast<size_t>(r.capacity - at - 1), &converted);
    if (rc != CU_OK) return rc == CU_E_NOMEM ? QX_PMSG_E_NOMEM : QX_PMSG_E_CONVERT;
    p_out[converted] = 0;
    r.used = at + converted + 1;
    *pp_out = p_out;
    return QX_PMSG_OK;
}

int sd_client(Reader &r, const uint8_t *p, uint32_t length, bool may_ref, int depth,
              void **pp_out) {
    bool all_scalar = false;
    int rc = sd_all_scalar(p, &all_scalar);
    if (rc != QX_PMSG_OK) return rc;
    if (all_scalar && may_ref && aligned(p, alignof(qx_value_t))) {
        *pp_out = const_cast<uint8_t *>(p);
        return QX_PMSG_OK;
    }
    uint32_t count = load32(p);
    auto *p_sd = reinterpret_cast<qx_structured_data_t *>(take(r, QX_SD_SIZE(count)));
    if (p_sd != nullptr) {
        p_sd->element_count = count;
        p_sd->pad = 0;
    }
    uint64_t cursor = kHeaderBytes + uint64_t{kSdElementBytes} * count;
    for (uint32_t i = 0; i < count; i++) {
        const uint8_t *p_element = p + kHeaderBytes + kSdElementBytes * i;
        uint32_t element_type = load32(p_element);
        Kind kind = kind_of(element_type);
        qx_value_t value;
        if (is_scalar(kind)) {
            value = scalar_value(kind, p_element + 8);
        } else {
            const uint8_t *p_nested = nullptr;
            uint32_t nested_length = 0;
            rc = nested(p, length, p_element + 8, &cursor, &p_nested, &nested_length);
            if (rc != QX_PMSG_OK) return rc;
            void *p_value = nullptr;
            rc = client_of(r, element_type, p_nested, nested_length, !r.deep, depth + 1, &p_value);
            if (rc != QX_PMSG_OK) return rc;
            value.ptr_char = static_cast<char *>(p_value);
        }
        if (p_sd != nullptr) {
            p_sd->elements[i].data_type = static_cast<qx_data_type_t>(element_type);
            p_sd->elements[i].pad = 0;
            p_sd->elements[i].value = value;
        }
    }
    *pp_out = p_sd;
    return QX_PMSG_OK;
}

int pointer_array_client(Reader &r, uint32_t type, const uint8_t *p, uint32_t length, int depth,
                         void **pp_out) {
    uint32_t count = load32(p);
    uint32_t base = array_base_type(type);
    auto *p_array = reinterpret_cast<qx_array_t *>(take(r, QX_ARRAY_SIZE(count)));
    if (p_array != nullptr) {
        p_array->element_count = count;
        p_array->pad = 0;
    }
    uint64_t cursor = kHeaderBytes + uint64_t{kSlotBytes} * count;
    for (uint32_t i = 0; i < count; i++) {
        const uint8_t *p_nested = nullptr;
        uint32_t nested_length = 0;
        int rc = nested(p, length, p + kHeaderBytes + kSlotBytes * i, &cursor, &p_nested,
                        &nested_length);
        if (rc != QX_PMSG_OK) return rc;
        void *p_value = nullptr;
        rc = client_of(r, base, p_nested, nested_length, !r.deep, depth + 1, &p_value);
        if (rc != QX_PMSG_OK) return rc;
        if (p_array != nullptr) p_array->elements[i].ptr_char = static_cast<char *>(p_value);
    }
    *pp_out = p_array;
    return QX_PMSG_OK;
}

/*
 * Checks the form of `type` at [p, p + length) and makes its client value:
 * in place when may_ref allows and the layout and alignment permit, else in
 * the block.  While measuring, *pp_out is the in-place pointer or NULL.
 */
int client_of(Reader &r, uint32_t type, const uint8_t *p, uint32_t length, bool may_ref, int depth,
              void **pp_out) {
    if (depth > kMaxDepth) return QX_PMSG_E_CORRUPT;
    Kind kind = kind_of(type);
    int rc = check_form(kind, p, length);
    if (rc != QX_PMSG_OK) return rc;
    switch (kind) {
        case kString:
            return text_client(r, p, length, may_ref, pp_out);
        case kSd:
            return sd_client(r, p, length, may_ref, depth, pp_out);
        case kPointerArray:
            return pointer_array_client(r, type, p, length, depth, pp_out);
        default:
            break;
    }
    /* Binary, resource handle, SBS and arrays of scalars: the protocol bytes
     * are the client object. */
    if (may_ref && aligned(p, client_alignment(kind))) {
        *pp_out = const_cast<uint8_t *>(p);
        return QX_PMSG_OK;
    }
    uint8_t *p_copy = take(r, length);
    if (p_copy != nullptr) memcpy(p_copy, p, length);
    *pp_out = p_copy;
    return QX_PMSG_OK;
}

/* Measures, allocates and fills a block for the value at [p, p + length). */
int build_block(Reader &r, uint32_t type, const uint8_t *p, uint32_t length, bool may_ref,
                void **pp_block, void **pp_value) {
    void *p_value = nullptr;
    int rc = client_of(r, type, p, length, may_ref, 0, &p_value);
    if (rc != QX_PMSG_OK) return rc;
    if (r.used == 0) { /* nothing to copy: the value lies in place */
        *pp_block = nullptr;
        *pp_value = p_value;
        return QX_PMSG_OK;
    }
    uint64_t capacity = r.used;
    if (capacity > SIZE_MAX) return QX_PMSG_E_NOMEM;
    auto *p_block = static_cast<uint8_t *>(malloc(static_cast<size_t>(capacity)));
    if (p_block == nullptr) return QX_PMSG_E_NOMEM;
    r.p_block = p_block;
    r.used = 0;
    r.capacity = capacity;
    rc = client_of(r, type, p, length, may_ref, 0, &p_value);
    if (rc != QX_PMSG_OK) {
        free(p_block);
        return rc;
    }
    *pp_block = p_block;
    *pp_value = p_value;
    return QX_PMSG_OK;
}

/* Whether the top-level value can be handed out in place without building
 * anything; only cheap checks (no walk of nested forms). */
bool readable_in_place(const Reader &r, Kind kind, const uint8_t *p, uint32_t length) {
    switch (kind) {
        case kString:
            return r.p_handle == nullptr;
        case kBinary:
        case kRsrcHandle:
        case kSbs:
        case kScalarArray:
            return aligned(p, client_alignment(kind));
        case kSd: {
            if (!aligned(p, alignof(qx_value_t))) return false;
            bool all_scalar = false;
            if (check_form(kind, p, length) != QX_PMSG_OK) return false;
            return sd_all_scalar(p, &all_scalar) == QX_PMSG_OK && all_scalar;
        }
        default:
            return false;
    }
}

}  // namespace
}  // namespace pmsg_i

using namespace pmsg_i;

int qx_pmsg_build_conv_packed_client_value_1(cu_iconv_t *p_handle, qx_uint32_t flags,
                                             qx_data_type_t type, qx_value_t *p_result,
                                             const void *p_slot, const void *p_indirect_area,
                                             qx_int64_t limit) {
    if (p_result == nullptr || p_slot == nullptr) return QX_PMSG_E_INVAL;
    if ((flags & ~(QX_PMSG_CLIENT_MALLOC | QX_PMSG_CLIENT_DEEP)) != 0) return QX_PMSG_E_INVAL;
    if ((flags & QX_PMSG_CLIENT_DEEP) != 0 && (flags & QX_PMSG_CLIENT_MALLOC) == 0)
        return QX_PMSG_E_INVAL;
    if (limit < -1) return QX_PMSG_E_INVAL;
    uint32_t type_word = static_cast<uint32_t>(type);
    Kind kind = kind_of(type_word);
    if (kind == kInvalid) return QX_PMSG_E_TYPE;
    if (is_scalar(kind)) {
        *p_result = scalar_value(kind, static_cast<const uint8_t *>(p_slot));
        return QX_PMSG_OK;
    }
    if (p_indirect_area == nullptr) return QX_PMSG_E_INVAL;

    const uint8_t *p_anchor = static_cast<const uint8_t *>(p_slot);
    uint32_t offset = load32(p_anchor);
    uint32_t length = load32(p_anchor + 4);
    if (limit >= 0 && uint64_t{offset} + length > static_cast<uint64_t>(limit))
        return QX_PMSG_E_BOUNDS;
    const uint8_t *p = static_cast<const uint8_t *>(p_indirect_area) + offset;

    Reader r{effective_handle(p_handle), (flags & QX_PMSG_CLIENT_DEEP) != 0, nullptr, 0, 0};
    void *p_block = nullptr;
    void *p_value = nullptr;
    if ((flags & QX_PMSG_CLIENT_MALLOC) != 0) {
        /* The caller frees the top-level object, so it is always a block. */
        int rc = build_block(r, type_word, p, length, false, &p_block, &p_value);
        if (rc != QX_PMSG_OK) return rc;
        p_result->ptr_char = static_cast<char *>(p_value);
        return QX_PMSG_OK;
    }

    if (readable_in_place(r, kind, p, length)) {
        int rc = client_of(r, type_word, p, length, true, 0, &p_value);
        if (rc != QX_PMSG_OK) return rc;
        p_result->ptr_char = static_cast<char *>(p_value);
        return QX_PMSG_OK;
    }

    /* A value the library builds and keeps: reuse the one built from these
     * very bytes when there is one. */
    CacheKey key{p_slot, p_indirect_area,       r.p_handle, type_word, offset,
                 length, fingerprint(p, length)};
    p_value = cache_find(key);
    if (p_value == nullptr) {
        int rc = build_block(r, type_word, p, length, true, &p_block, &p_value);
        if (rc != QX_PMSG_OK) return rc;
        if (p_block != nullptr) {
            /* The value's pointer is the block's start: the top-level object
             * is always taken first. */
            p_value = cache_insert(key, p_block);
            if (p_value == nullptr) return QX_PMSG_E_NOMEM;
        }
    }
    p_result->ptr_char = static_cast<char *>(p_value);
    return QX_PMSG_OK;
}
