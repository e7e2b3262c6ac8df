// Protocol-message test helpers: random values, forms, an independent byte-order converter.
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

// Owns the memory of the client values a test builds.
class Arena {
  public:
    Arena() = default;
    Arena(const Arena &) = delete;
    Arena &operator=(const Arena &) = delete;
    ~Arena() {
        for (void *p : blocks_) free(p);
    }
    template <typename T = void>
    T *alloc(size_t n) {
        blocks_.push_back(calloc(1, n + 8));
        return static_cast<T *>(blocks_.back());
    }
    char *text(const std::string &s) {
        return static_cast<char *>(memcpy(alloc(s.size()), s.c_str(), s.size() + 1));
    }
    // A binary and an SBS are both a 32-bit length and the bytes.
    template <typename T = qx_binary_t>
    T *binary(const std::string &bytes) {
        auto *p = alloc<uint8_t>(4 + bytes.size());
        uint32_t n = static_cast<uint32_t>(bytes.size());
        memcpy(p, &n, 4);
        memcpy(p + 4, bytes.data(), bytes.size());
        return reinterpret_cast<T *>(p);
    }
    qx_sbs_t *sbs(const std::string &bytes) { return binary<qx_sbs_t>(bytes); }
    qx_resource_handle_t *rsrc(uint32_t header, uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
        auto *p = alloc<qx_resource_handle_t>(sizeof(qx_resource_handle_t));
        *p = qx_resource_handle_t{header, {a, b, c, d}};
        return p;
    }
    // An array or a structured data value of copies of `elements`.
    template <typename T, typename E>
    T *container(const std::vector<E> &elements) {
        auto *p = alloc<T>(sizeof(T) + elements.size() * sizeof(E));
        p->element_count = static_cast<uint32_t>(elements.size());
        if (!elements.empty()) memcpy(p->elements, elements.data(), elements.size() * sizeof(E));
        return p;
    }
    qx_array_t *array(const std::vector<qx_value_t> &elements) {
        return container<qx_array_t>(elements);
    }
    qx_structured_data_t *sd(const std::vector<qx_structured_data_element_t> &elements) {
        return container<qx_structured_data_t>(elements);
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
inline int base_type(int array_type) {
    return array_type - (QX_INT32_ARRAY - QX_INT32);
}

// Random client values; `long_values` allows texts and blobs of up to 64 KiB.
class ValueMaker {
  public:
    ValueMaker(Arena &arena, uint32_t seed, bool long_values = true)
        : arena_(arena), rng_(seed), long_values_(long_values) {}

    uint32_t below(uint32_t n) { return static_cast<uint32_t>(rng_() % n); }

    std::string bytes(bool no_nul) {
        std::string s(long_values_ && below(10) == 0 ? below(70000) : below(40), '\0');
        for (auto &c : s) c = static_cast<char>(no_nul ? 1 + below(255) : below(256));
        return s;
    }

    qx_value_t make(int type, int depth = 0) {
        qx_value_t v;
        v.val_uint64 = 0;
        if (is_scalar_type(type)) {
            v.val_uint64 = (static_cast<uint64_t>(rng_()) << 32) | rng_();
            if (is_32bit_type(type)) v.val_uint64 &= 0xffffffffu;
            return v;
        }
        if (type == QX_CHAR_PTR) v.ptr_char = arena_.text(bytes(true));
        if (type == QX_BINARY_PTR) v.ptr_binary = arena_.binary(bytes(false));
        if (type == QX_SBS_PTR) v.ptr_sbs = arena_.sbs(bytes(false));
        if (type == QX_RSRC_HANDLE_PTR) {
            v.ptr_rsrc_handle = arena_.rsrc(rng_(), rng_(), rng_(), rng_(), rng_());
        }
        if (type == QX_SD_PTR) {
            std::vector<qx_structured_data_element_t> elements(below(6));
            for (auto &e : elements) {
                // Deeper levels hold no more composites, so values stay small.
                int t = depth >= 3 ? kLeaves[below(10)]
                                   : QX_INT32 + static_cast<int>(below(QX_SD_PTR_ARRAY - 1));
                e = {static_cast<qx_data_type_t>(t), 0, make(t, depth + 1)};
            }
            v.ptr_sd = arena_.sd(elements);
        }
        if (type >= QX_INT32_ARRAY) {
            std::vector<qx_value_t> elements(below(7));
            for (auto &e : elements) e = make(base_type(type), depth + 1);
            v.ptr_array = arena_.array(elements);
        }
        return v;
    }

  private:
    static constexpr int kLeaves[] = {QX_INT32,           QX_UINT32,  QX_INT64,    QX_UINT64,
                                      QX_FLOAT32,         QX_FLOAT64, QX_CHAR_PTR, QX_BINARY_PTR,
                                      QX_RSRC_HANDLE_PTR, QX_SBS_PTR};
    Arena &arena_;
    std::mt19937 rng_;
    bool long_values_;
};

inline uint32_t rd32(const void *p) {
    uint32_t v;
    memcpy(&v, p, 4);
    return v;
}
inline void swap32_at(void *p) {
    uint32_t v = __builtin_bswap32(rd32(p));
    memcpy(p, &v, 4);
}
inline void swap_scalar_slot(int type, uint8_t *p) {
    if (is_32bit_type(type)) return swap32_at(p);
    uint64_t v;
    memcpy(&v, p, 8);
    v = __builtin_bswap64(v);
    memcpy(p, &v, 8);
}

// A value as the other byte order writes it, from the documented layout alone.
inline void value_to_other_order(int type, uint8_t *p_anchor, uint8_t *p_area) {
    if (is_scalar_type(type)) return swap_scalar_slot(type, p_anchor);
    uint8_t *p = p_area + rd32(p_anchor);
    swap32_at(p_anchor);
    swap32_at(p_anchor + 4);
    if (type == QX_CHAR_PTR) return;
    if (type == QX_RSRC_HANDLE_PTR) {
        for (int i = 0; i < 5; i++) swap32_at(p + 4 * i);
        return;
    }
    uint32_t count = rd32(p);
    swap32_at(p);
    if (type == QX_BINARY_PTR || type == QX_SBS_PTR) return;
    for (uint32_t i = 0; i < count; i++) {
        if (type == QX_SD_PTR) {
            uint8_t *p_element = p + 8 + 16 * i;
            int t = static_cast<int>(rd32(p_element));
            swap32_at(p_element);
            value_to_other_order(t, p_element + 8, p);
        } else {
            value_to_other_order(base_type(type), p + 8 + 8 * i, p);
        }
    }
}

// The library's calls with the type as an int and the handle last.
inline int size_of(int type, const qx_value_t &value, qx_uint32_t *p_size,
                   cu_iconv_t *p_handle = nullptr) {
    return qx_pmsg_size_conv_protocol_value_1(p_handle, 0, static_cast<qx_data_type_t>(type),
                                              &value, p_size);
}
inline int build(int type, const qx_value_t *p_value, void *p_slot, void *p_area, qx_uint32_t room,
                 qx_uint32_t *p_running, cu_iconv_t *p_handle = nullptr, qx_uint32_t flags = 0) {
    return qx_pmsg_build_conv_protocol_value_1(p_handle, flags, static_cast<qx_data_type_t>(type),
                                               p_value, p_slot, p_area, room, p_running);
}
inline int read(int type, qx_value_t *p_result, const void *p_slot, const void *p_area,
                qx_int64_t limit, qx_uint32_t flags = 0, cu_iconv_t *p_handle = nullptr) {
    return qx_pmsg_build_conv_packed_client_value_1(
        p_handle, flags, static_cast<qx_data_type_t>(type), p_result, p_slot, p_area, limit);
}

// One value built into an area (plus a slot); `shift` moves the area off 8-alignment.
struct Built {
    std::vector<uint64_t> storage;
    uint8_t *p_area = nullptr;
    uint32_t room = 0;
    uint32_t used = 0;
    qx_pmsg_value_t slot{};
};

// A value's form (slot, then area) as the library builds it: equal forms, equal values.
inline std::string form(int type, const qx_value_t &value) {
    qx_uint32_t size = 0, used = 0;
    if (size_of(type, value, &size) != 0) return "unsized";
    std::string out(8 + size, '\0');
    qx_pmsg_value_t slot{};
    if (build(type, &value, &slot, out.data() + 8, size, &used) != 0) return "unbuilt";
    memcpy(out.data(), &slot, 8);
    return out;
}

inline int build_value(cu_iconv_t *p_handle, int type, const qx_value_t &value, Built *p_out,
                       size_t shift = 0) {
    qx_uint32_t size = 0;
    int rc = size_of(type, value, &size, p_handle);
    if (rc != 0) return rc;
    p_out->storage.assign((size + shift) / 8 + 2, 0);
    p_out->p_area = reinterpret_cast<uint8_t *>(p_out->storage.data()) + shift;
    p_out->room = size;
    p_out->used = 0;
    return build(type, &value, &p_out->slot, p_out->p_area, p_out->room, &p_out->used, p_handle);
}

}  // namespace pmsg_test

#endif /* PMSG_TEST_UTIL_H */
