// Helpers shared by the common-utilities tests: the calling thread's error,
// a thread-local locale for the length of a scope, and a scratch directory.
#ifndef TESTS_CU_CU_TEST_UTIL_H
#define TESTS_CU_CU_TEST_UTIL_H

#include <gtest/gtest.h>
#include <locale.h>
#include <stdlib.h>

#include <filesystem>
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

// A locale for the calling thread only (uselocale): threads never disturb
// one another's locale.
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

// A directory removed with everything in it at the end of the scope.
class ScratchDir {
  public:
    ScratchDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "qx_cu_test_XXXXXX").string();
        char *made = mkdtemp(pattern.data());
        if (made != nullptr) path_ = made;
    }
    ~ScratchDir() {
        if (path_.empty()) return;
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    ScratchDir(const ScratchDir &) = delete;
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

}  // namespace cu_test

#endif  // TESTS_CU_CU_TEST_UTIL_H
