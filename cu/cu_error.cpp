/*
 * cu_error.cpp - the per-thread error record.
 *
 * Every suite library reports a failure by storing a record here and every
 * successful call clears it, so clearing sits on the hot path of every call
 * the registry makes: with nothing recorded it is one thread-local load and a
 * test.  The record is one malloc'd block (header, values, then every string
 * it owns), which makes copying it for a caller a single allocation and
 * releasing it a single free().  The block is kept across errors and reused
 * when the next one fits; a pthread key frees it when the thread exits.
 */
#include <pthread.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include "cu_i.h"
#include "qx_cu.h"

namespace {

/* Blocks larger than this are given back when the record is cleared, so a
 * thread that once reported a huge value does not hold it for its life. */
constexpr size_t kKeepBytes = 4096;

struct ThreadSlot {
    cu_error_t *p_record = nullptr; /* the block, valid or not */
    size_t capacity = 0;            /* bytes of the block */
    bool active = false;            /* the block holds the current error */
    bool registered = false;        /* the exit destructor knows this slot */
};

/* Constant-initialised and trivially destructible: access needs no guard. */
thread_local ThreadSlot t_slot;

pthread_once_t g_key_once = PTHREAD_ONCE_INIT;
pthread_key_t g_key;
bool g_key_ok = false;

/* Runs at thread exit with the slot of the exiting thread.  A destructor of
 * another library that reports an error after this ran registers the slot
 * again, and the C library then calls us once more. */
void release_slot(void *p) {
    ThreadSlot *slot = static_cast<ThreadSlot *>(p);
    free(slot->p_record);
    slot->p_record = nullptr;
    slot->capacity = 0;
    slot->active = false;
    slot->registered = false;
}

void make_key() {
    g_key_ok = pthread_key_create(&g_key, release_slot) == 0;
}

void register_slot(ThreadSlot *slot) {
    if (slot->registered) return;
    pthread_once(&g_key_once, make_key);
    if (g_key_ok && pthread_setspecific(g_key, slot) == 0) slot->registered = true;
}

constexpr size_t align8(size_t n) {
    return (n + 7u) & ~static_cast<size_t>(7u);
}

size_t string_bytes(const char *s) {
    return s != nullptr ? strlen(s) + 1 : 0;
}

/* Bytes of the single block holding a record with these parts. */
size_t record_bytes(const char *ffdc, const char *cat, const char *text, const cu_error_arg_t *args,
                    uint32_t count) {
    size_t n = align8(sizeof(cu_error_t)) + count * sizeof(cu_error_arg_t);
    n += string_bytes(ffdc) + string_bytes(cat) + string_bytes(text);
    for (uint32_t i = 0; i < count; ++i) {
        if (args[i].cu_arg_type == CU_ERROR_ARG_CHAR_STR) {
            n += string_bytes(args[i].cu_arg_value.cu_arg_char_str);
        }
    }
    return n;
}

char *place_string(char **pp_cursor, const char *s) {
    if (s == nullptr) return nullptr;
    size_t n = strlen(s) + 1;
    char *dest = *pp_cursor;
    memcpy(dest, s, n);
    *pp_cursor += n;
    return dest;
}

/*
 * Lays a record out in block (at least record_bytes() long).  The sources
 * may be anywhere except inside block itself; the strings of args are
 * copied, so they may be the caller's.
 */
cu_error_t *fill_record(void *block, qx_int32_t error_id, const char *ffdc, const char *cat,
                        qx_int32_t set, qx_int32_t number, const char *text,
                        const cu_error_arg_t *args, uint32_t count) {
    cu_error_t *rec = static_cast<cu_error_t *>(block);
    memset(rec, 0, sizeof(*rec));
    char *cursor = static_cast<char *>(block) + align8(sizeof(cu_error_t));
    if (count > 0) {
        rec->cu_args = reinterpret_cast<cu_error_arg_t *>(cursor);
        cursor += count * sizeof(cu_error_arg_t);
    }
    rec->cu_error_id = error_id;
    rec->cu_msg_set = set;
    rec->cu_msg_num = number;
    rec->cu_arg_cnt = count;
    rec->cu_ffdc_id = place_string(&cursor, ffdc);
    rec->cu_msg_cat = place_string(&cursor, cat);
    rec->cu_msg_default = place_string(&cursor, text);
    for (uint32_t i = 0; i < count; ++i) {
        cu_error_arg_t arg = args[i];
        arg.cu_arg_pad = 0;
        if (arg.cu_arg_type == CU_ERROR_ARG_CHAR_STR) {
            arg.cu_arg_value.cu_arg_char_str =
                place_string(&cursor, arg.cu_arg_value.cu_arg_char_str);
        }
        rec->cu_args[i] = arg;
    }
    return rec;
}

/*
 * The type of each value a text takes, value n at index n-1.  Returns the
 * number of values that can be pulled off a va_list: the run of positions
 * from 1 that the text gives a type.  A text that skips a position ("%2$s"
 * alone) leaves the type of the skipped value unknown, and nothing after it
 * can be read safely, so the count stops there; the conversions beyond print
 * "?".  When one position is converted twice with different types the first
 * conversion decides.
 */
uint32_t value_types(const char *text, cu_error_arg_type_t types[CU_ERROR_MAX_ARGS]) {
    for (int i = 0; i < CU_ERROR_MAX_ARGS; ++i) types[i] = CU_ERROR_ARG_NONE;
    /* A '*' width or precision takes an int. */
    auto note = [types](uint32_t position, cu_error_arg_type_t type) {
        if (position != 0 && types[position - 1] == CU_ERROR_ARG_NONE) types[position - 1] = type;
    };
    cu_i::walk_text(
        text, [](const char *, size_t) {},
        [&note](const cu_i::Conversion &conversion) {
            note(conversion.position, cu_i::arg_type_for(conversion));
            note(conversion.width_position, CU_ERROR_ARG_INT32);
            note(conversion.prec_position, CU_ERROR_ARG_INT32);
        });
    uint32_t count = 0;
    while (count < CU_ERROR_MAX_ARGS && types[count] != CU_ERROR_ARG_NONE) ++count;
    return count;
}

}  // namespace

extern "C" int cu_set_error_1(qx_int32_t error_id, const char *ffdc_id, const char *msg_cat,
                              qx_int32_t msg_set, qx_int32_t msg_num, const char *msg_default,
                              ...) {
    cu_error_arg_type_t types[CU_ERROR_MAX_ARGS];
    uint32_t count = value_types(msg_default, types);

    cu_error_arg_t args[CU_ERROR_MAX_ARGS];
    va_list ap;
    va_start(ap, msg_default);
    for (uint32_t i = 0; i < count; ++i) {
        args[i].cu_arg_type = types[i];
        args[i].cu_arg_pad = 0;
        switch (types[i]) {
            case CU_ERROR_ARG_CHAR_STR: {
                const char *s = va_arg(ap, const char *);
                args[i].cu_arg_value.cu_arg_char_str =
                    const_cast<char *>(s != nullptr ? s : "(null)");
                break;
            }
            case CU_ERROR_ARG_INT32:
                args[i].cu_arg_value.cu_arg_int32 = va_arg(ap, int);
                break;
            case CU_ERROR_ARG_UINT32:
                args[i].cu_arg_value.cu_arg_uint32 = va_arg(ap, unsigned int);
                break;
            case CU_ERROR_ARG_INT64:
                args[i].cu_arg_value.cu_arg_int64 = va_arg(ap, long long);
                break;
            case CU_ERROR_ARG_UINT64:
                args[i].cu_arg_value.cu_arg_uint64 = va_arg(ap, unsigned long long);
                break;
            default:
                args[i].cu_arg_value.cu_arg_float64 = va_arg(ap, double);
                break;
        }
    }
    va_end(ap);

    ThreadSlot &slot = t_slot;
    size_t need = record_bytes(ffdc_id, msg_cat, msg_default, args, count);
    if (need > slot.capacity) {
        void *block = malloc(need);
        if (block == nullptr) {
            /* Leaving the old record would report a failure that is not the
             * one that just happened. */
            slot.active = false;
            return CU_E_NOMEM;
        }
        free(slot.p_record);
        slot.p_record = static_cast<cu_error_t *>(block);
        slot.capacity = need;
    }
    fill_record(slot.p_record, error_id, ffdc_id, msg_cat, msg_set, msg_num, msg_default, args,
                count);
    slot.active = true;
    register_slot(&slot);
    return CU_OK;
}

extern "C" int cu_set_no_error_1(void) {
    ThreadSlot &slot = t_slot;
    if (!slot.active) return CU_OK;
    slot.active = false;
    if (slot.capacity > kKeepBytes) {
        free(slot.p_record);
        slot.p_record = nullptr;
        slot.capacity = 0;
    }
    return CU_OK;
}

extern "C" int cu_get_error_1(cu_error_t **pp_error) {
    if (pp_error == nullptr) return CU_E_INVAL;
    *pp_error = nullptr;
    const ThreadSlot &slot = t_slot;
    if (!slot.active) {
        void *none = calloc(1, sizeof(cu_error_t));
        if (none == nullptr) return CU_E_NOMEM;
        *pp_error = static_cast<cu_error_t *>(none);
        return CU_OK;
    }
    const cu_error_t *rec = slot.p_record;
    size_t need = record_bytes(rec->cu_ffdc_id, rec->cu_msg_cat, rec->cu_msg_default, rec->cu_args,
                               rec->cu_arg_cnt);
    void *block = malloc(need);
    if (block == nullptr) return CU_E_NOMEM;
    *pp_error =
        fill_record(block, rec->cu_error_id, rec->cu_ffdc_id, rec->cu_msg_cat, rec->cu_msg_set,
                    rec->cu_msg_num, rec->cu_msg_default, rec->cu_args, rec->cu_arg_cnt);
    return CU_OK;
}

/* Records come from cu_get_error_1 as one block; NULL is accepted like
 * free(NULL). */
extern "C" int cu_rel_error_1(cu_error_t *p_error) {
    free(p_error);
    return CU_OK;
}
