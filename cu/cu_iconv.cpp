/*
 * cu_iconv.cpp - code-set conversion handles between the caller's locale
 * and the tables' UTF-8.
 *
 * An iconv_t carries conversion state and may not be used by two threads at
 * once, while one of our handles is shared by every thread of a tree.  A
 * handle therefore keeps a small stack of idle iconv_t descriptors: a
 * conversion borrows one, converts without holding any lock, and gives it
 * back.  The mutex guards only the push and pop, so threads convert side by
 * side; a thread that finds the stack empty opens one more descriptor, which
 * happens only the first time that many threads convert at once.  (One
 * descriptor under a mutex held across iconv() measured about the same for
 * one thread and serialised every other.)
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
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "cu_i.h"
#include "qx_cu.h"

namespace {

const iconv_t kNoDescriptor = reinterpret_cast<iconv_t>(-1);
constexpr size_t kMaxIdle = 16;
constexpr size_t kCodesetRoom = 64;
/* Text up to this size converts through the stack in cu_iconv_str_1. */
constexpr size_t kStackOutput = 512;

}  // namespace

struct cu_iconv_struct {
    qx_uint32_t flags;
    bool identity;
    pthread_mutex_t idle_lock; /* guards idle[] and idle_count only */
    size_t idle_count;
    iconv_t idle[kMaxIdle];
    char to_code[kCodesetRoom];
    char from_code[kCodesetRoom];
};

namespace {

class MutexGuard {
  public:
    explicit MutexGuard(pthread_mutex_t *m) : m_(m) { pthread_mutex_lock(m_); }
    ~MutexGuard() { pthread_mutex_unlock(m_); }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

  private:
    pthread_mutex_t *m_;
};

/* A descriptor borrowed from a handle for one conversion. */
class Lease {
  public:
    explicit Lease(cu_iconv_t *h) : h_(h) {
        {
            MutexGuard g(&h_->idle_lock);
            if (h_->idle_count > 0) cd_ = h_->idle[--h_->idle_count];
        }
        if (cd_ == kNoDescriptor) cd_ = iconv_open(h_->to_code, h_->from_code);
    }
    ~Lease() {
        if (cd_ == kNoDescriptor) return;
        {
            MutexGuard g(&h_->idle_lock);
            if (h_->idle_count < kMaxIdle) {
                h_->idle[h_->idle_count++] = cd_;
                return;
            }
        }
        iconv_close(cd_);
    }
    Lease(const Lease &) = delete;
    Lease &operator=(const Lease &) = delete;

    iconv_t get() const { return cd_; }

  private:
    cu_iconv_t *h_;
    iconv_t cd_ = kNoDescriptor;
};

/*
 * Converts in_length bytes into out (room bytes; out may be NULL when room
 * is 0) and counts the whole converted length in *p_needed even when it
 * does not fit: output past room goes to a scratch buffer and is dropped.
 * Returns CU_OK, CU_E_ROOM, CU_E_ILSEQ or CU_E_SYSTEM.
 */
int convert(iconv_t cd, const char *in, size_t in_length, char *out, size_t room,
            size_t *p_needed) {
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
            if (flushing) break;
            flushing = true; /* emit any closing shift sequence */
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
    cu_iconv_t *h = static_cast<cu_iconv_t *>(calloc(1, sizeof(cu_iconv_t)));
    if (h == nullptr) return CU_E_NOMEM;
    h->flags = flags;
    if ((flags & CU_ICONV_UTF8_UNMODIFIED) != 0 && cu_utf8_is_not_modified_1(p_info)) {
        h->identity = true;
        *pp_handle = h;
        return CU_OK;
    }
    bool to_table = (flags & CU_ICONV_FROM_TABLE) == 0;
    if (!copy_codeset(h->from_code, to_table ? p_info->cu_codeset : "UTF-8") ||
        !copy_codeset(h->to_code, to_table ? "UTF-8" : p_info->cu_codeset)) {
        free(h);
        return CU_E_INVAL;
    }
    /* Open the first descriptor now: an unknown code set is the caller's
     * error and is best reported here, not at the first conversion. */
    iconv_t cd = iconv_open(h->to_code, h->from_code);
    if (cd == kNoDescriptor) {
        int rc = errno == EINVAL ? CU_E_INVAL : errno == ENOMEM ? CU_E_NOMEM : CU_E_SYSTEM;
        free(h);
        return rc;
    }
    int err = pthread_mutex_init(&h->idle_lock, nullptr);
    if (err != 0) {
        iconv_close(cd);
        free(h);
        return err == ENOMEM ? CU_E_NOMEM : CU_E_SYSTEM;
    }
    h->idle[0] = cd;
    h->idle_count = 1;
    *pp_handle = h;
    return CU_OK;
}

/* The caller guarantees no conversion is still running on the handle. */
extern "C" int cu_iconv_close_1(cu_iconv_t *p_handle) {
    if (p_handle == nullptr) return CU_OK;
    if (!p_handle->identity) {
        for (size_t i = 0; i < p_handle->idle_count; ++i) iconv_close(p_handle->idle[i]);
        pthread_mutex_destroy(&p_handle->idle_lock);
    }
    free(p_handle);
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
    int rc = convert(lease.get(), p_in, in_length, stack, sizeof(stack), &needed);
    if (rc != CU_OK && rc != CU_E_ROOM) return rc;
    char *out = static_cast<char *>(malloc(needed + 1));
    if (out == nullptr) return CU_E_NOMEM;
    if (rc == CU_OK) {
        memcpy(out, stack, needed);
    } else {
        size_t again = 0;
        rc = convert(lease.get(), p_in, in_length, out, needed, &again);
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
    return convert(lease.get(), p_in, in_length, p_out, room, p_needed);
}
