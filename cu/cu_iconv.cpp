/*
 * cu_iconv.cpp - code-set conversion handles between the caller's locale
 * and the tables' UTF-8.
 *
 * An iconv_t carries conversion state and may not be used by two threads at
 * once, while one of our handles is shared by every thread of a tree.  A
 * handle therefore owns a few descriptor slots, each with a busy flag: a
 * conversion claims the first idle slot with one atomic exchange, converts
 * without any lock, and frees the slot with one store.  A slot opens its
 * descriptor on first use, so a handle costs one descriptor until threads
 * actually convert side by side; a thread that finds every slot busy opens a
 * descriptor of its own for that one call.  Measured on short text
 * (bench/cu_iconv_bench, two cores) against one descriptor behind a mutex
 * held across iconv(): one thread ~120 ns against ~190 ns per call, two
 * threads together ~110 ns against ~290 ns, as the mutex serialises them.
 *
 * A pass-through handle (UTF-8 locale, CU_ICONV_UTF8_UNMODIFIED) owns no
 * descriptor at all: callers that see cu_iconv_is_identity_1 use their text
 * as it is, and the conversion calls just copy.
 *
 * Failures are never papered over: no //TRANSLIT or //IGNORE is requested,
 * and both an invalid and an incomplete input sequence are CU_E_ILSEQ.
 */
#include <errno.h>
#include <iconv.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <new>

#include "cu_i.h"
#include "qx_cu.h"

namespace {

const iconv_t kNoDescriptor = reinterpret_cast<iconv_t>(-1);
constexpr size_t kSlots = 8;
constexpr size_t kCodesetRoom = 64;
/* Text up to this size converts through the stack in cu_iconv_str_1. */
constexpr size_t kStackOutput = 512;

}  // namespace

struct cu_iconv_struct {
    qx_uint32_t flags;
    bool identity;
    bool stateful_target; /* the output may need a closing shift sequence */
    /* Slot i's descriptor is touched only by the thread that set busy[i]. */
    std::atomic<bool> busy[kSlots];
    iconv_t cd[kSlots];
    char to_code[kCodesetRoom];
    char from_code[kCodesetRoom];
};

namespace {

/* A descriptor borrowed from a handle for one conversion: the first idle
 * slot (opened on its first use), or, when every slot is busy, a descriptor
 * of its own that is closed again afterwards. */
class Lease {
  public:
    explicit Lease(cu_iconv_t *h) : h_(h) {
        for (size_t i = 0; i < kSlots; ++i) {
            if (h_->busy[i].load(std::memory_order_relaxed) ||
                h_->busy[i].exchange(true, std::memory_order_acquire)) {
                continue;
            }
            slot_ = i;
            if (h_->cd[i] == kNoDescriptor) h_->cd[i] = iconv_open(h_->to_code, h_->from_code);
            cd_ = h_->cd[i];
            return;
        }
        cd_ = iconv_open(h_->to_code, h_->from_code);
    }
    ~Lease() {
        if (slot_ != kSlots) {
            h_->busy[slot_].store(false, std::memory_order_release);
        } else if (cd_ != kNoDescriptor) {
            iconv_close(cd_);
        }
    }
    Lease(const Lease &) = delete;
    Lease &operator=(const Lease &) = delete;

    iconv_t get() const { return cd_; }

  private:
    cu_iconv_t *h_;
    size_t slot_ = kSlots;
    iconv_t cd_ = kNoDescriptor;
};

/*
 * Converts in_length bytes into out (room bytes; out may be NULL when room
 * is 0) and counts the whole converted length in *p_needed even when it
 * does not fit: output past room goes to a scratch buffer and is dropped.
 * Returns CU_OK, CU_E_ROOM, CU_E_ILSEQ or CU_E_SYSTEM.
 */
int convert(iconv_t cd, bool stateful_target, const char *in, size_t in_length, char *out,
            size_t room, size_t *p_needed) {
    /* Start from the initial shift state whatever the last user left. */
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    static const char kNothing[1] = {0};
    char *in_ptr = const_cast<char *>(in != nullptr ? in : kNothing);
    size_t in_left = in_length;
    char *out_ptr = out;
    size_t out_left = room;
    bool overflow = out == nullptr || room == 0; /* iconv needs a real buffer */
    bool flushing = false;
    size_t total = 0;
    char scratch[256];
    for (;;) {
        char *target = overflow ? scratch : out_ptr;
        size_t target_room = overflow ? sizeof(scratch) : out_left;
        char *t = target;
        size_t t_left = target_room;
        size_t r = flushing ? iconv(cd, nullptr, nullptr, &t, &t_left)
                            : iconv(cd, &in_ptr, &in_left, &t, &t_left);
        total += target_room - t_left;
        if (!overflow) {
            out_ptr = t;
            out_left = t_left;
        }
        if (r != static_cast<size_t>(-1)) {
            if (flushing || !stateful_target) break;
            flushing = true; /* emit the closing shift sequence */
            continue;
        }
        if (errno == E2BIG) {
            overflow = true;
            continue;
        }
        *p_needed = 0;
        return (errno == EILSEQ || errno == EINVAL) ? CU_E_ILSEQ : CU_E_SYSTEM;
    }
    *p_needed = total;
    return total > room ? CU_E_ROOM : CU_OK;
}

bool copy_codeset(char *dest, const char *src) {
    size_t n = strlen(src);
    if (n == 0 || n >= kCodesetRoom) return false;
    memcpy(dest, src, n + 1);
    return true;
}

}  // namespace

extern "C" int cu_iconv_open_1(const cu_locale_info_t *p_info, qx_uint32_t flags,
                               cu_iconv_t **pp_handle) {
    if (pp_handle == nullptr) return CU_E_INVAL;
    *pp_handle = nullptr;
    if (p_info == nullptr || p_info->cu_codeset == nullptr) return CU_E_INVAL;
    if ((flags & ~static_cast<qx_uint32_t>(CU_ICONV_FROM_TABLE | CU_ICONV_UTF8_UNMODIFIED)) != 0) {
        return CU_E_INVAL;
    }
    cu_iconv_t *h = new (std::nothrow) cu_iconv_t();
    if (h == nullptr) return CU_E_NOMEM;
    h->flags = flags;
    for (size_t i = 0; i < kSlots; ++i) h->cd[i] = kNoDescriptor;
    if ((flags & CU_ICONV_UTF8_UNMODIFIED) != 0 && cu_utf8_is_not_modified_1(p_info)) {
        h->identity = true;
        *pp_handle = h;
        return CU_OK;
    }
    bool to_table = (flags & CU_ICONV_FROM_TABLE) == 0;
    /* UTF-8 has no shift states; a locale's code set (ISO-2022-JP, say) may. */
    h->stateful_target = !to_table;
    if (!copy_codeset(h->from_code, to_table ? p_info->cu_codeset : "UTF-8") ||
        !copy_codeset(h->to_code, to_table ? "UTF-8" : p_info->cu_codeset)) {
        delete h;
        return CU_E_INVAL;
    }
    /* Open the first descriptor now: an unknown code set is the caller's
     * error and is best reported here, not at the first conversion. */
    h->cd[0] = iconv_open(h->to_code, h->from_code);
    if (h->cd[0] == kNoDescriptor) {
        int rc = errno == EINVAL ? CU_E_INVAL : errno == ENOMEM ? CU_E_NOMEM : CU_E_SYSTEM;
        delete h;
        return rc;
    }
    *pp_handle = h;
    return CU_OK;
}

/* The caller guarantees no conversion is still running on the handle. */
extern "C" int cu_iconv_close_1(cu_iconv_t *p_handle) {
    if (p_handle == nullptr) return CU_OK;
    for (size_t i = 0; i < kSlots; ++i) {
        if (p_handle->cd[i] != kNoDescriptor) iconv_close(p_handle->cd[i]);
    }
    delete p_handle;
    return CU_OK;
}

extern "C" int cu_iconv_is_identity_1(const cu_iconv_t *p_handle) {
    return p_handle == nullptr || p_handle->identity ? 1 : 0;
}

extern "C" int cu_iconv_str_1(cu_iconv_t *p_handle, qx_uint32_t flags, const char *p_in,
                              char **pp_out) {
    if (pp_out == nullptr) return CU_E_INVAL;
    *pp_out = nullptr;
    if (p_in == nullptr || flags != 0) return CU_E_INVAL;
    size_t in_length = strlen(p_in);
    if (cu_iconv_is_identity_1(p_handle)) {
        char *copy = static_cast<char *>(malloc(in_length + 1));
        if (copy == nullptr) return CU_E_NOMEM;
        memcpy(copy, p_in, in_length + 1);
        *pp_out = copy;
        return CU_OK;
    }
    Lease lease(p_handle);
    if (lease.get() == kNoDescriptor) return errno == ENOMEM ? CU_E_NOMEM : CU_E_SYSTEM;
    /* Short text converts once, on the stack, and is copied out at its
     * exact size; longer text is measured there and converted again. */
    char stack[kStackOutput];
    size_t needed = 0;
    int rc = convert(lease.get(), p_handle->stateful_target, p_in, in_length, stack, sizeof(stack),
                     &needed);
    if (rc != CU_OK && rc != CU_E_ROOM) return rc;
    char *out = static_cast<char *>(malloc(needed + 1));
    if (out == nullptr) return CU_E_NOMEM;
    if (rc == CU_OK) {
        memcpy(out, stack, needed);
    } else {
        size_t again = 0;
        rc = convert(lease.get(), p_handle->stateful_target, p_in, in_length, out, needed, &again);
        if (rc != CU_OK) {
            free(out);
            return rc;
        }
    }
    out[needed] = '\0';
    *pp_out = out;
    return CU_OK;
}

extern "C" int cu_iconv_buf_1(cu_iconv_t *p_handle, const char *p_in, size_t in_length, char *p_out,
                              size_t room, size_t *p_needed) {
    if (p_needed == nullptr) return CU_E_INVAL;
    *p_needed = 0;
    if ((p_in == nullptr && in_length != 0) || (p_out == nullptr && room != 0)) return CU_E_INVAL;
    if (cu_iconv_is_identity_1(p_handle)) {
        *p_needed = in_length;
        if (in_length > room) return CU_E_ROOM;
        if (in_length != 0) memcpy(p_out, p_in, in_length);
        return CU_OK;
    }
    Lease lease(p_handle);
    if (lease.get() == kNoDescriptor) return errno == ENOMEM ? CU_E_NOMEM : CU_E_SYSTEM;
    return convert(lease.get(), p_handle->stateful_target, p_in, in_length, p_out, room, p_needed);
}
