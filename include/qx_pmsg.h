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

/* Bytes of indirect data that building `value` of `type` needs (0 for
 * scalars), text converted through p_handle when given. */
int qx_pmsg_size_conv_protocol_value_1(cu_iconv_t *p_handle, qx_uint32_t flags,
                                       qx_data_type_t type, const qx_value_t *p_value,
                                       qx_uint32_t *p_size);

/*
 * Builds the protocol form of a caller's value: the 8-byte slot at p_slot and,
 * for pointer types, the value's bytes in p_indirect_area starting at
 * *p_running_offset, which advances past them.  `room` is the size of the
 * indirect area.  Returns QX_PMSG_E_ROOM exactly when room is too small, and
 * then leaves the slot, the area and the running offset unchanged.
 */
int qx_pmsg_build_conv_protocol_value_1(cu_iconv_t *p_handle, qx_uint32_t flags,
                                        qx_data_type_t type, const qx_value_t *p_value,
                                        void *p_slot, void *p_indirect_area, qx_uint32_t room,
                                        qx_uint32_t *p_running_offset);

/*
 * Makes a caller's value from a slot.  `limit` is the size of the indirect
 * area, or -1 for no bound.  See pmsg/README.md for who owns the memory that
 * pointer values designate.
 */
int qx_pmsg_build_conv_packed_client_value_1(cu_iconv_t *p_handle, qx_uint32_t flags,
                                             qx_data_type_t type, qx_value_t *p_result,
                                             const void *p_slot, const void *p_indirect_area,
                                             qx_int64_t limit);

/* Whether a buffer whose 8-byte slot at offset 16 holds the 32-bit value 1 in
 * its writer's byte order needs converting here: *p_required 1 or 0. */
int qx_pmsg_cnv_required_1(const void *p_buffer, qx_uint32_t *p_required);

/* Converts a slot of `type` and everything it anchors to the other byte order,
 * in place. */
int qx_pmsg_convert_pmsg_value_1(void *p_slot, qx_data_type_t type, void *p_indirect_base);

#pragma GCC visibility pop

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* QX_PMSG_H */
