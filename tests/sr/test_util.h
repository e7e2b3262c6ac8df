// Helpers shared by the registry's tests.
#ifndef QX_TESTS_SR_TEST_UTIL_H
#define QX_TESTS_SR_TEST_UTIL_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "qx_cu.h"
#include "sr_i.h"

namespace qxtest {

// The calling thread's error record as (code, formatted message).
struct LastError {
    int code = 0;
    std::string message;
};

inline LastError last_error() {
    LastError result;
    cu_error_t *p_error = nullptr;
    char *p_message = nullptr;
    if (cu_get_error_1(&p_error) == 0 && p_error != nullptr) result.code = p_error->cu_error_id;
    if (result.code != 0 && cu_get_errmsg_1(p_error, &p_message) == 0 && p_message) {
        result.message = p_message;
    }
    cu_rel_errmsg_1(p_message);
    cu_rel_error_1(p_error);
    return result;
}

// A fresh directory under TMPDIR, removed with its contents at scope end.
class TempDir {
  public:
    TempDir() {
        const char *base = getenv("TMPDIR");
        std::string templ = std::string(base != nullptr ? base : "/tmp") + "/qxsr-test-XXXXXX";
        if (mkdtemp(templ.data()) != nullptr) path_ = templ;
    }
    ~TempDir() {
        if (!path_.empty() && system(("rm -rf '" + path_ + "'").c_str()) != 0) path_.clear();
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// Fails allocation n = 0, 1, ... of `attempt` (each: 12, then `on_failure`) until it succeeds;
// `tolerant`: the call may do without the failed allocation, so its first success ends the loop.
template <typename Attempt, typename OnFailure>
int EachAllocationFailure(Attempt attempt, OnFailure on_failure, bool tolerant = false) {
    for (qx_int64_t n = 0; n < 1000; ++n) {
        sr_i_alloc_fail_after(n);
        const qx_int32_t rc = attempt();
        const bool failed = sr_i_alloc_failure_pending() == 0;
        sr_i_alloc_fail_after(-1);
        if (!failed || (tolerant && rc == 0)) {
            EXPECT_EQ(rc, 0) << "with no failure injected";
            return static_cast<int>(n);
        }
        EXPECT_EQ(rc, SR_E_NO_MEMORY) << n;
        EXPECT_EQ(last_error().code, SR_E_NO_MEMORY) << n;
        on_failure();
    }
    ADD_FAILURE() << "never succeeded";
    return -1;
}

}  // namespace qxtest

#endif  // QX_TESTS_SR_TEST_UTIL_H
