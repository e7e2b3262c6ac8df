/*
 * pmsg_i.h - internals shared by the protocol-message value sources.
 *
 * The byte forms themselves are described in pmsg/README.md.  This header
 * holds what every source needs to agree on: how a data type is laid out
 * (its "kind"), the unaligned loads and stores every byte of a protocol form
 * goes through, and the cache of
 * library-owned client values.
 *
 * Nothing here is exported from libqx_pmsg.so; the unit tests reach it
 * through the static archive.
 */
#ifndef PMSG_I_H
#define PMSG_I_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "qx_pmsg.h"

namespace pmsg_i {

/* How a type is laid out, both in protocol form and as a client value. */
enum Kind : uint8_t {
    kInvalid,     /* 0, 1 and everything above 22 */
    kScalar32,    /* int32, uint32, float32: first 4 bytes of the slot */
    kScalar64,    /* int64, uint64, float64: all 8 bytes */
    kString,      /* NUL-terminated text */
    kBinary,      /* u32 length, bytes */
    kRsrcHandle,  /* 20 bytes, five u32 words */
    kSd,          /* structured data: elements carry their own types */
    kSbs,         /* i32 length, opaque bytes */
    kScalarArray, /* u32 count, u32 pad, count 8-byte slots */
    kPointerArray /* u32 count, u32 pad, count anchors, nested forms */
};

/* The kind of `type`; kInvalid for anything that is not 2..22. */
inline Kind kind_of(uint32_t type) {
    static constexpr Kind kKinds[QX_NUMBER_OF_DATA_TYPES] = {
        kInvalid,     kInvalid,      kScalar32,     kScalar32,     kScalar64,     kScalar64,
        kScalar32,    kScalar64,     kString,       kBinary,       kRsrcHandle,   kSd,
        kSbs,         kScalarArray,  kScalarArray,  kScalarArray,  kScalarArray,  kScalarArray,
        kScalarArray, kPointerArray, kPointerArray, kPointerArray, kPointerArray,
    };
    return type < QX_NUMBER_OF_DATA_TYPES ? kKinds[type] : kInvalid;
}

inline bool is_scalar(Kind k) {
    return k == kScalar32 || k == kScalar64;
}

/* Element type of an array type (13..22 -> 2..11). */
inline uint32_t array_base_type(uint32_t type) {
    return type - (QX_INT32_ARRAY - QX_INT32);
}

/* Nesting deeper than this (structured data inside arrays inside structured
 * data ...) is refused: it bounds the recursion on untrusted bytes and turns a
 * caller's cyclic structure into an error instead of a stack overflow. */
constexpr int kMaxDepth = 32;

/* Rounds up to a multiple of 8: the alignment of client blocks built in
 * malloc'd memory.  Protocol forms are never padded. */
constexpr uint64_t align8(uint64_t n) {
    return (n + 7) & ~uint64_t{7};
}

constexpr uint32_t kHeaderBytes = 8; /* count and pad of arrays and structured data */
constexpr uint32_t kSlotBytes = 8;   /* one value slot or anchor */
constexpr uint32_t kSdElementBytes = 16;
constexpr uint32_t kRsrcHandleBytes = 20;

inline uint32_t load32(const void *p) {
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}
inline uint64_t load64(const void *p) {
    uint64_t v;
    memcpy(&v, p, sizeof v);
    return v;
}
inline void store32(void *p, uint32_t v) {
    memcpy(p, &v, sizeof v);
}
inline void store64(void *p, uint64_t v) {
    memcpy(p, &v, sizeof v);
}

/*
 * Checks a nested anchor of a container form of container_length bytes: the
 * nested form must lie inside the container, after its header and slots and
 * after the previous nested form (*p_cursor, which advances past it).  Built
 * forms always satisfy this; requiring it of untrusted bytes means no byte
 * belongs to two forms, so a walk never revisits shared bytes (no blow-up
 * through anchors aimed at one another) and a conversion never swaps a word
 * twice.
 */
inline int check_nested(uint32_t offset, uint32_t length, uint32_t container_length,
                        uint64_t *p_cursor) {
    if (uint64_t{offset} + length > container_length) return QX_PMSG_E_BOUNDS;
    if (offset < *p_cursor) return QX_PMSG_E_CORRUPT;
    *p_cursor = uint64_t{offset} + length;
    return QX_PMSG_OK;
}

inline bool aligned(const void *p, uintptr_t alignment) {
    return (reinterpret_cast<uintptr_t>(p) & (alignment - 1)) == 0;
}

/* A handle that converts nothing is treated as no handle at all, so text is
 * copied (or read in place) without a call into the converter. */
inline cu_iconv_t *effective_handle(cu_iconv_t *p_handle) {
    if (p_handle == nullptr || cu_iconv_is_identity_1(p_handle)) return nullptr;
    return p_handle;
}

/* ---------------------------------------------------------------------------
 * Library-owned client values (pmsg_cache.cpp).
 *
 * A client value that cannot point into the protocol bytes is built once into
 * a malloc'd block and remembered under the address of the slot it came from.
 * The key also holds everything the block was derived from: the indirect area
 * pointer, the anchor, the type, the conversion handle and a fingerprint of
 * the anchored bytes.  A later read of the same slot returns the block only
 * when all of them still match, so a slot rewritten in place, or memory reused
 * for another record, never yields a stale value.
 */
struct CacheKey {
    const void *p_slot;
    const void *p_area;
    const void *p_handle;
    uint32_t type;
    uint32_t offset;
    uint32_t length;
    uint64_t fingerprint;
};

/* The cached block for `key`, or NULL.  Entries of the same slot whose area,
 * anchor or bytes differ are dropped on the way: the record they were built
 * from has been replaced. */
void *cache_find(const CacheKey &key);

/* Remembers `block` for `key` and returns the block to hand out: `block`
 * itself, or an equal one another thread inserted first (then `block` is
 * freed).  NULL when the entry could not be allocated (`block` is freed). */
void *cache_insert(const CacheKey &key, void *block);

/* Number of cached blocks (for tests). */
size_t cache_entry_count();

/* A fast 64-bit fingerprint of n bytes at any alignment. */
uint64_t fingerprint(const void *p, size_t n);

}  // namespace pmsg_i

#endif /* PMSG_I_H */
