/*
 * qx_types.h - the suite's common value types.
 *
 * Every field value enters and leaves the suite's libraries through the
 * untagged 8-byte union qx_value_t; its type travels separately (in a column
 * definition or a structured-data element).  Callers build these objects
 * themselves, so the layouts below are part of the ABI and are pinned by the
 * static assertions at the end of this file.
 *
 * Compiles as C11 and as C++20.
 */
#ifndef QX_TYPES_H
#define QX_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int8_t qx_int8_t;
typedef int16_t qx_int16_t;
typedef int32_t qx_int32_t;
typedef int64_t qx_int64_t;
typedef uint8_t qx_uint8_t;
typedef uint16_t qx_uint16_t;
typedef uint32_t qx_uint32_t;
typedef uint64_t qx_uint64_t;
typedef float qx_float32_t;
typedef double qx_float64_t;
typedef char qx_char_t;
typedef qx_char_t *qx_char_ptr_t;

/* The data types.  2..7 are held in the union itself, 8..12 point to one
 * variable-length object, 13..22 point to a qx_array_t of the named base. */
typedef enum qx_data_type {
    QX_UNKNOWN = 0,
    QX_NONE = 1,
    QX_INT32 = 2,
    QX_UINT32 = 3,
    QX_INT64 = 4,
    QX_UINT64 = 5,
    QX_FLOAT32 = 6,
    QX_FLOAT64 = 7,
    QX_CHAR_PTR = 8,
    QX_BINARY_PTR = 9,
    QX_RSRC_HANDLE_PTR = 10,
    QX_SD_PTR = 11,
    QX_SBS_PTR = 12,
    QX_INT32_ARRAY = 13,
    QX_UINT32_ARRAY = 14,
    QX_INT64_ARRAY = 15,
    QX_UINT64_ARRAY = 16,
    QX_FLOAT32_ARRAY = 17,
    QX_FLOAT64_ARRAY = 18,
    QX_CHAR_PTR_ARRAY = 19,
    QX_BINARY_PTR_ARRAY = 20,
    QX_RSRC_HANDLE_PTR_ARRAY = 21,
    QX_SD_PTR_ARRAY = 22,
    /* Keeps the enumeration 32 bits wide on every compiler. */
    QX_DATA_TYPE_FORCE_32BIT = 0x7fffffff
} qx_data_type_t;

/* Number of defined data types (0..22). */
#define QX_NUMBER_OF_DATA_TYPES 23

typedef struct qx_binary_struct {
    qx_uint32_t length;  /* number of bytes in data */
    qx_uint8_t data[1];  /* allocated as header plus length bytes */
} qx_binary_t;
typedef qx_binary_t *qx_binary_ptr_t;

typedef struct qx_resource_id_struct {
    qx_uint32_t id1;
    qx_uint32_t id2;
    qx_uint32_t id3;
    qx_uint32_t id4;
} qx_resource_id_t;

typedef struct qx_resource_handle_struct {
    qx_uint32_t header;
    qx_resource_id_t id;
} qx_resource_handle_t;
typedef qx_resource_handle_t *qx_rsrc_handle_ptr_t;

typedef struct qx_sbs_field_struct {
    qx_int16_t field_length;
    qx_int8_t field_dtype;
    qx_int8_t field_sn;
    qx_uint8_t field_data[1];
} qx_sbs_field_t;

/* A structured byte string: `length` bytes that the registry carries as an
 * opaque blob (the length word counts the bytes after itself). */
typedef struct qx_sbs_struct {
    qx_int32_t length;
    qx_uint8_t fields[1];
} qx_sbs_t;
typedef qx_sbs_t *qx_sbs_ptr_t;

struct qx_array_struct;
struct qx_structured_data_struct;

/* 8 bytes and 8-aligned on every host, 32-bit ones included (where a
 * 64-bit integer alone would be 4-aligned inside records). */
typedef union __attribute__((aligned(8))) qx_value_union {
    qx_int32_t val_int32;
    qx_uint32_t val_uint32;
    qx_int64_t val_int64;
    qx_uint64_t val_uint64;
    qx_float32_t val_float32;
    qx_float64_t val_float64;
    qx_char_ptr_t ptr_char;
    qx_binary_t *ptr_binary;
    qx_resource_handle_t *ptr_rsrc_handle;
    struct qx_structured_data_struct *ptr_sd;
    qx_sbs_t *ptr_sbs;
    struct qx_array_struct *ptr_array;
} qx_value_t;

typedef struct qx_array_struct {
    qx_uint32_t element_count;
    qx_uint32_t pad;          /* keeps the elements 8-aligned */
    qx_value_t elements[1];   /* element_count values of the base type */
} qx_array_t;
typedef qx_array_t *qx_array_ptr_t;

typedef struct qx_structured_data_element_struct {
    qx_data_type_t data_type; /* each element carries its own type */
    qx_uint32_t pad;
    qx_value_t value;
} qx_structured_data_element_t;

typedef struct qx_structured_data_struct {
    qx_uint32_t element_count;
    qx_uint32_t pad;
    qx_structured_data_element_t elements[1];
} qx_structured_data_t;
typedef qx_structured_data_t *qx_sd_ptr_t;

/* Bytes an array or structured-data object of n elements occupies. */
#define QX_ARRAY_SIZE(n) (offsetof(qx_array_t, elements) + (size_t)(n) * sizeof(qx_value_t))
#define QX_SD_SIZE(n) \
    (offsetof(qx_structured_data_t, elements) + (size_t)(n) * sizeof(qx_structured_data_element_t))
#define QX_BINARY_SIZE(n) (offsetof(qx_binary_t, data) + (size_t)(n))

#ifdef __cplusplus
} /* extern "C" */
#define QX_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#define QX_ALIGNOF(t) alignof(t)
#else
#define QX_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#define QX_ALIGNOF(t) _Alignof(t)
#endif

QX_STATIC_ASSERT(sizeof(qx_data_type_t) == 4, "qx_data_type_t is 32 bits");
QX_STATIC_ASSERT(sizeof(qx_value_t) == 8, "qx_value_t is 8 bytes");
QX_STATIC_ASSERT(QX_ALIGNOF(qx_value_t) == 8, "qx_value_t is 8-aligned");
QX_STATIC_ASSERT(offsetof(qx_binary_t, data) == 4, "qx_binary_t data follows length");
QX_STATIC_ASSERT(sizeof(qx_resource_handle_t) == 20, "resource handle is 20 bytes");
QX_STATIC_ASSERT(offsetof(qx_resource_handle_t, id) == 4, "resource id follows header");
QX_STATIC_ASSERT(offsetof(qx_resource_handle_t, id) + offsetof(qx_resource_id_t, id4) == 16,
                 "fourth id word at byte 16");
QX_STATIC_ASSERT(offsetof(qx_array_t, elements) == 8, "array elements at 8");
QX_STATIC_ASSERT(offsetof(qx_structured_data_t, elements) == 8, "sd elements at 8");
QX_STATIC_ASSERT(sizeof(qx_structured_data_element_t) == 16, "sd element is 16 bytes");
QX_STATIC_ASSERT(offsetof(qx_structured_data_element_t, value) == 8, "sd element value at 8");
QX_STATIC_ASSERT(offsetof(qx_sbs_field_t, field_data) == 4, "sbs field data at 4");

#endif /* QX_TYPES_H */
