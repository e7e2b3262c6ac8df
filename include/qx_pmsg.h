/*
 * qx_pmsg.h - the suite's protocol-message value library (libqx_pmsg.so).
 *
 * A protocol value is an 8-byte slot plus, for pointer types, bytes in an
 * indirect data area that the slot anchors (32-bit offset, 32-bit length).
 * Offsets are relative to the indirect area, so a value can be copied, written
 * to a file or sent elsewhere and read back at any address.  Slots and areas
 * may lie at any alignment: the library reads and writes them with memcpy.
 *
 * (The byte forms of every type are described in pmsg/README.md.)
 *
 * Forms lie end to end, unpadded: a form begins where the previous one ended,
 * so the bytes of an area depend on the values only.  A client value is read
 * in place where its address suits its C type and copied otherwise.
 *
 * Compiles as C11 and as C++20.
 */
#ifndef QX_PMSG_H
#define QX_PMSG_H

#include "qx_cu.h"
#include "qx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Only the declarations below are exported from the shared library. */
#pragma GCC visibility push(default)

typedef struct qx_pmsg_anchor_struct {
    qx_uint32_t offset; /* from the start of the indirect data area */
    qx_uint32_t length; /* bytes of the value there */
} qx_pmsg_anchor_t;

typedef union qx_pmsg_value_union {
    qx_int32_t val_int32;
    qx_uint32_t val_uint32;
    qx_int64_t val_int64;
    qx_uint64_t val_uint64;
    qx_float32_t val_float32;
    qx_float64_t val_float64;
    qx_pmsg_anchor_t anchor;
} qx_pmsg_value_t;

/* Result codes. */
#define QX_PMSG_OK 0
#define QX_PMSG_E_INVAL 1     /* NULL pointer or bad argument */
#define QX_PMSG_E_TYPE 2      /* not a data type 2..22 */
#define QX_PMSG_E_NOMEM 3     /* memory could not be allocated */
#define QX_PMSG_E_CONVERT 4   /* text could not be converted between code sets */
#define QX_PMSG_E_ROOM 5      /* the room given is too small; nothing was changed */
#define QX_PMSG_E_BOUNDS 6    /* an anchor or count points outside the area */
#define QX_PMSG_E_CORRUPT 7   /* malformed protocol bytes */
#define QX_PMSG_E_TOO_LARGE 8 /* a value whose protocol form exceeds 32-bit sizes */

/* Flags of qx_pmsg_build_conv_packed_client_value_1 (the build of protocol
 * forms takes 0).
 *
 * 0: the library owns pointer values.  A value whose client layout is its
 *    protocol layout (text that needs no conversion, binary, resource handle,
 *    SBS, arrays of scalars, structured data of scalars) points straight into
 *    the protocol bytes when the address is aligned for its type; any other
 *    value is built once, cached under the slot's address and returned again
 *    by every read of the unchanged slot.  The caller never frees it; it stays
 *    valid until the slot's bytes change or the caller releases the slot's
 *    address range with qx_pmsg_release_client_values_1.
 * QX_PMSG_CLIENT_MALLOC: the caller owns the value: the top-level object is one
 *    malloc'd block, released with a single free().  Nested objects that can
 *    be read in place (see above) still point into the protocol bytes, so the
 *    value is valid while both the block and the protocol bytes are.
 * QX_PMSG_CLIENT_MALLOC | QX_PMSG_CLIENT_DEEP: as MALLOC, but every nested
 *    object is copied into the block too: the value outlives the protocol
 *    bytes.  QX_PMSG_CLIENT_DEEP alone is refused with QX_PMSG_E_INVAL.
 * Scalars are always copied into *p_result; the flags do not apply to them. */
#define QX_PMSG_CLIENT_MALLOC 0x1u
#define QX_PMSG_CLIENT_DEEP 0x2u

/* Bytes of indirect data that building `value` of `type` needs (0 for
 * scalars), text converted through p_handle when given: exactly what the
 * build advances the running offset by. */
int qx_pmsg_size_conv_protocol_value_1(cu_iconv_t *p_handle, qx_uint32_t flags, qx_data_type_t type,
                                       const qx_value_t *p_value, qx_uint32_t *p_size);

/*
 * Builds the protocol form of a caller's value: the 8-byte slot at p_slot and,
 * for pointer types, the value's bytes in p_indirect_area starting at
 * *p_running_offset, which advances past them.  `room` is the size of the
 * indirect area.  The form starts at the running offset itself and nothing
 * is written beyond its own bytes.  Returns QX_PMSG_E_ROOM
 * exactly when room is too small, and then leaves the slot, the area and the
 * running offset unchanged; on any other failure the slot and the running
 * offset are unchanged too.  A NULL pointer as a pointer type's value is
 * refused with QX_PMSG_E_INVAL (callers substitute the empty value).
 */
int qx_pmsg_build_conv_protocol_value_1(cu_iconv_t *p_handle, qx_uint32_t flags,
                                        qx_data_type_t type, const qx_value_t *p_value,
                                        void *p_slot, void *p_indirect_area, qx_uint32_t room,
                                        qx_uint32_t *p_running_offset);

/*
 * Makes a caller's value from a slot, converting text through p_handle (a
 * from-table handle) when one is given.  `limit` is the size of the indirect
 * area, or -1 for no bound; otherwise every anchor, nested ones included,
 * must lie within limit bytes.  Who owns the memory pointer values designate
 * is chosen by `flags` (above).  Malformed or out-of-bounds bytes give a
 * non-zero result and leave *p_result unchanged.
 */
int qx_pmsg_build_conv_packed_client_value_1(cu_iconv_t *p_handle, qx_uint32_t flags,
                                             qx_data_type_t type, qx_value_t *p_result,
                                             const void *p_slot, const void *p_indirect_area,
                                             qx_int64_t limit);

/* Whether a buffer whose 8-byte slot at offset 16 holds the 32-bit value 1 in
 * its writer's byte order needs converting here: *p_required 1 or 0. */
int qx_pmsg_cnv_required_1(const void *p_buffer, qx_uint32_t *p_required);

/* Converts a slot of `type` and everything it anchors, written in the other
 * byte order, to this machine's byte order, in place.  The bytes are checked
 * before any is changed: on failure nothing is converted. */
int qx_pmsg_convert_pmsg_value_1(void *p_slot, qx_data_type_t type, void *p_indirect_base);

/* As qx_pmsg_convert_pmsg_value_1, with every anchor bounded by the `limit`
 * bytes of the indirect area (-1: no bound). */
int qx_pmsg_convert_pmsg_value_bounded_1(void *p_slot, qx_data_type_t type, void *p_indirect_base,
                                         qx_int64_t limit);

/*
 * Releases every library-owned client value built from a slot whose address
 * lies in [p_begin, p_begin + length): call it before the memory holding those
 * slots (a row record, a table's records, a buffer) is freed or reused.
 * (NULL, SIZE_MAX) releases them all.  Values built from the range must not be
 * in use by any thread.  Always returns 0.
 */
int qx_pmsg_release_client_values_1(const void *p_begin, size_t length);

#pragma GCC visibility pop

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* QX_PMSG_H */
