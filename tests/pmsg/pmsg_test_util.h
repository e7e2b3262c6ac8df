/*
 * pmsg_test_util.h - helpers shared by the protocol-message value tests:
 * random client values of every type, deep comparison of client values, and
 * an independent converter of protocol forms to the other byte order.
 */
#ifndef PMSG_TEST_UTIL_H
#define PMSG_TEST_UTIL_H

#include <stdlib.h>
#include <string.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "qx_pmsg.h"

namespace pmsg_test {

/* Owns the memory of the client values a test builds. */
class Arena {
  public:
    Arena() = default;
    Arena(const Arena &) = delete;
    Arena &operator=(const Arena &) = delete;
    ~Arena() {
        for (void *p : blocks_) free(p);
    }
    void *alloc(size_t n) {
        void *p = calloc(1, n == 0 ? 1 : n);
        blocks_.push_back(p);
        return p;
    }
    char *text(const std::string &s) {
        char *p = static_cast<char *>(alloc(s.size() + 1));
        memcpy(p, s.c_str(), s.size() + 1);
        return p;
    }
    qx_binary_t *binary(const std::string &bytes) {
        auto *p = static_cast<qx_binary_t *>(alloc(QX_BINARY_SIZE(bytes.size()) + 4));
        p->length = static_cast<qx_uint32_t>(bytes.size());
        memcpy(p->data, bytes.data(), bytes.size());
        return p;
    }
    qx_sbs_t *sbs(const std::string &bytes) {
        auto *p = static_cast<qx_sbs_t *>(alloc(4 + bytes.size() + 4));
        p->length = static_cast<qx_int32_t>(bytes.size());
        memcpy(p->fields, bytes.data(), bytes.size());
        return p;
    }
    qx_resource_handle_t *rsrc(uint32_t header, uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
        auto *p = static_cast<qx_resource_handle_t *>(alloc(sizeof(qx_resource_handle_t)));
        *p = qx_resource_handle_t{header, {a, b, c, d}};
        return p;
    }
    qx_array_t *array(uint32_t count) {
        auto *p = static_cast<qx_array_t *>(alloc(QX_ARRAY_SIZE(count)));
        p->element_count = count;
        return p;
    }
    qx_structured_data_t *sd(uint32_t count) {
        auto *p = static_cast<qx_structured_data_t *>(alloc(QX_SD_SIZE(count)));
        p->element_count = count;
        return p;
    }

  private:
    std::vector<void *> blocks_;
};

inline bool is_scalar_type(int type) {
    return type >= QX_INT32 && type <= QX_FLOAT64;
}
inline bool is_32bit_type(int type) {
    return type == QX_INT32 || type == QX_UINT32 || type == QX_FLOAT32;
}
inline bool is_array_type(int type) {
    return type >= QX_INT32_ARRAY && type <= QX_SD_PTR_ARRAY;
}

/* Random client values; `long_values` allows texts and blobs of up to 64 KiB. */
class ValueMaker {
  public:
    ValueMaker(Arena &arena, uint32_t seed, bool long_values = true)
        : arena_(arena), rng_(seed), long_values_(long_values) {}

    uint32_t below(uint32_t n) { return static_cast<uint32_t>(rng_() % n); }

    std::string bytes(bool no_nul) {
        uint32_t n = long_values_ && below(10) == 0 ? below(70000) : below(40);
        std::string s(n, '\0');
        for (auto &c : s) c = static_cast<char>(no_nul ? 1 + below(255) : below(256));
        return s;
    }

    qx_value_t scalar(int type) {
        qx_value_t v;
        v.val_uint64 = (static_cast<uint64_t>(rng_()) << 32) | rng_();
        if (is_32bit_type(type)) v.val_uint64 &= 0xffffffffu;
        return v;
    }

    qx_value_t make(int type, int depth = 0) {
        qx_value_t v;
        v.val_uint64 = 0;
        if (is_scalar_type(type)) return scalar(type);
        switch (type) {
            case QX_CHAR_PTR:
                v.ptr_char = arena_.text(bytes(true));
                return v;
            case QX_BINARY_PTR:
                v.ptr_binary = arena_.binary(bytes(false));
                return v;
            case QX_RSRC_HANDLE_PTR:
                v.ptr_rsrc_handle = arena_.rsrc(rng_(), rng_(), rng_(), rng_(), rng_());
                return v;
            case QX_SBS_PTR:
                v.ptr_sbs = arena_.sbs(bytes(false));
                return v;
            case QX_SD_PTR: {
                uint32_t n = below(6);
                qx_structured_data_t *p = arena_.sd(n);
                for (uint32_t i = 0; i < n; i++) {
                    int t = element_type(depth);
                    p->elements[i].data_type = static_cast<qx_data_type_t>(t);
                    p->elements[i].value = make(t, depth + 1);
                }
                v.ptr_sd = p;
                return v;
            }
            default: {
                uint32_t n = below(7);
                qx_array_t *p = arena_.array(n);
                int base = type - (QX_INT32_ARRAY - QX_INT32);
                for (uint32_t i = 0; i < n; i++) p->elements[i] = make(base, depth + 1);
                v.ptr_array = p;
                return v;
            }
        }
    }

  private:
    /* Deeper levels hold no more composites, so values stay small. */
    int element_type(int depth) {
        static const int kLeaves[] = {QX_INT32,           QX_UINT32,  QX_INT64,    QX_UINT64,
                                      QX_FLOAT32,         QX_FLOAT64, QX_CHAR_PTR, QX_BINARY_PTR,
                                      QX_RSRC_HANDLE_PTR, QX_SBS_PTR};
        if (depth >= 3) return kLeaves[below(10)];
        return QX_INT32 + static_cast<int>(below(QX_SD_PTR_ARRAY - QX_INT32 + 1));
    }

    Arena &arena_;
    std::mt19937 rng_;
    bool long_values_;
};

/* Deep equality of two client values of `type`; *p_why says where they differ. */
inline bool values_equal(int type, const qx_value_t &a, const qx_value_t &b, std::string *p_why) {
    auto fail = [&](const std::string &what) {
        if (p_why != nullptr) *p_why = what + " (type " + std::to_string(type) + ")";
        return false;
    };
    if (is_scalar_type(type)) {
        size_t n = is_32bit_type(type) ? 4 : 8;
        return memcmp(&a, &b, n) == 0 || fail("scalar differs");
    }
    switch (type) {
        case QX_CHAR_PTR:
            return strcmp(a.ptr_char, b.ptr_char) == 0 || fail("text differs");
        case QX_BINARY_PTR:
            if (a.ptr_binary->length != b.ptr_binary->length) return fail("binary length");
            return memcmp(a.ptr_binary->data, b.ptr_binary->data, a.ptr_binary->length) == 0 ||
                   fail("binary bytes");
        case QX_RSRC_HANDLE_PTR:
            return memcmp(a.ptr_rsrc_handle, b.ptr_rsrc_handle, 20) == 0 || fail("handle");
        case QX_SBS_PTR:
            if (a.ptr_sbs->length != b.ptr_sbs->length) return fail("sbs length");
            return memcmp(a.ptr_sbs->fields, b.ptr_sbs->fields,
                          static_cast<size_t>(a.ptr_sbs->length)) == 0 ||
                   fail("sbs bytes");
        case QX_SD_PTR: {
            if (a.ptr_sd->element_count != b.ptr_sd->element_count) return fail("sd count");
            for (uint32_t i = 0; i < a.ptr_sd->element_count; i++) {
                int t = a.ptr_sd->elements[i].data_type;
                if (t != b.ptr_sd->elements[i].data_type) return fail("sd element type");
                if (!values_equal(t, a.ptr_sd->elements[i].value, b.ptr_sd->elements[i].value,
                                  p_why))
                    return false;
            }
            return true;
        }
        default: {
            if (a.ptr_array->element_count != b.ptr_array->element_count)
                return fail("array count");
            int base = type - (QX_INT32_ARRAY - QX_INT32);
            for (uint32_t i = 0; i < a.ptr_array->element_count; i++) {
                if (!values_equal(base, a.ptr_array->elements[i], b.ptr_array->elements[i], p_why))
                    return false;
            }
            return true;
        }
    }
}

inline uint32_t rd32(const void *p) {
    uint32_t v;
    memcpy(&v, p, 4);
    return v;
}
inline void swap32_at(void *p) {
    uint32_t v = __builtin_bswap32(rd32(p));
    memcpy(p, &v, 4);
}
inline void swap64_at(void *p) {
    uint64_t v;
    memcpy(&v, p, 8);
    v = __builtin_bswap64(v);
    memcpy(p, &v, 8);
}

inline void swap_scalar_slot(int type, uint8_t *p) {
    if (is_32bit_type(type)) {
        swap32_at(p);
    } else {
        swap64_at(p);
    }
}

/*
 * Rewrites a form written in this machine's byte order as a machine of the
 * other order would have written it, following the documented layout (and
 * none of the library's code): every word is read before it is swapped.
 */
inline void form_to_other_order(int type, uint8_t *p);

inline void anchor_to_other_order(int type, uint8_t *p_container, uint8_t *p_anchor) {
    uint32_t offset = rd32(p_anchor);
    swap32_at(p_anchor);
    swap32_at(p_anchor + 4);
    form_to_other_order(type, p_container + offset);
}

inline void form_to_other_order(int type, uint8_t *p) {
    switch (type) {
        case QX_CHAR_PTR:
            return;
        case QX_BINARY_PTR:
        case QX_SBS_PTR:
            swap32_at(p);
            return;
        case QX_RSRC_HANDLE_PTR:
            for (int i = 0; i < 5; i++) swap32_at(p + 4 * i);
            return;
        case QX_SD_PTR: {
            uint32_t count = rd32(p);
            swap32_at(p);
            for (uint32_t i = 0; i < count; i++) {
                uint8_t *p_element = p + 8 + 16 * i;
                int t = static_cast<int>(rd32(p_element));
                swap32_at(p_element);
                if (is_scalar_type(t)) {
                    swap_scalar_slot(t, p_element + 8);
                } else {
                    anchor_to_other_order(t, p, p_element + 8);
                }
            }
            return;
        }
        default: {
            uint32_t count = rd32(p);
            swap32_at(p);
            int base = type - (QX_INT32_ARRAY - QX_INT32);
            for (uint32_t i = 0; i < count; i++) {
                if (is_scalar_type(base)) {
                    swap_scalar_slot(base, p + 8 + 8 * i);
                } else {
                    anchor_to_other_order(base, p, p + 8 + 8 * i);
                }
            }
            return;
        }
    }
}

inline void value_to_other_order(int type, uint8_t *p_slot, uint8_t *p_area) {
    if (is_scalar_type(type)) {
        swap_scalar_slot(type, p_slot);
        return;
    }
    anchor_to_other_order(type, p_area, p_slot);
}

/* An 8-aligned indirect area (plus a slot) for one value, built with the
 * library; `shift` moves the area off 8-alignment. */
struct Built {
    std::vector<uint64_t> storage;
    uint8_t *p_area = nullptr;
    uint32_t room = 0;
    uint32_t used = 0;
    qx_pmsg_value_t slot{};
};

inline int build_value(cu_iconv_t *p_handle, int type, const qx_value_t &value, Built *p_out,
                       size_t shift = 0) {
    qx_uint32_t size = 0;
    int rc = qx_pmsg_size_conv_protocol_value_1(p_handle, 0, static_cast<qx_data_type_t>(type),
                                                &value, &size);
    if (rc != 0) return rc;
    p_out->storage.assign((size + shift) / 8 + 2, 0);
    p_out->p_area = reinterpret_cast<uint8_t *>(p_out->storage.data()) + shift;
    p_out->room = size;
    p_out->used = 0;
    return qx_pmsg_build_conv_protocol_value_1(p_handle, 0, static_cast<qx_data_type_t>(type),
                                               &value, &p_out->slot, p_out->p_area, p_out->room,
                                               &p_out->used);
}

}  // namespace pmsg_test

#endif /* PMSG_TEST_UTIL_H */
