// Common-utilities test helpers: the thread's error and a scoped thread locale.
#ifndef TESTS_CU_CU_TEST_UTIL_H
#define TESTS_CU_CU_TEST_UTIL_H

#include <gtest/gtest.h>
#include <locale.h>
#include <stdlib.h>

#include <string>

#include "qx_cu.h"

namespace cu_test {

// Generated with localedef in CI (glibc also knows it as en_US.iso88591).
inline constexpr const char *kLatin1Locale = "en_US.ISO-8859-1";

inline std::string current_message() {
    cu_error_t *rec = nullptr;
    if (cu_get_error_1(&rec) != CU_OK) return "<get failed>";
    char *msg = nullptr;
    int rc = cu_get_errmsg_1(rec, &msg);
    std::string out = rc == CU_OK ? std::string(msg) : "<format failed>";
    cu_rel_errmsg_1(msg);
    cu_rel_error_1(rec);
    return out;
}

inline qx_int32_t current_error_id() {
    cu_error_t *rec = nullptr;
    if (cu_get_error_1(&rec) != CU_OK) return -1;
    qx_int32_t id = rec->cu_error_id;
    cu_rel_error_1(rec);
    return id;
}

// A locale for the calling thread only (uselocale).
class ThreadLocale {
  public:
    explicit ThreadLocale(const char *name) {
        loc_ = newlocale(LC_ALL_MASK, name, static_cast<locale_t>(0));
        if (loc_ != static_cast<locale_t>(0)) previous_ = uselocale(loc_);
    }
    ~ThreadLocale() {
        if (loc_ == static_cast<locale_t>(0)) return;
        uselocale(previous_);
        freelocale(loc_);
    }
    ThreadLocale(const ThreadLocale &) = delete;
    bool loaded() const { return loc_ != static_cast<locale_t>(0); }

  private:
    locale_t loc_ = static_cast<locale_t>(0);
    locale_t previous_ = static_cast<locale_t>(0);
};

}  // namespace cu_test

#endif  // TESTS_CU_CU_TEST_UTIL_H
