// Helpers shared by the trace library's tests: a scratch directory, the
// environment the library reads at registration, and reading records back.
#ifndef TESTS_TR_TR_TEST_UTIL_H
#define TESTS_TR_TR_TEST_UTIL_H

#include <gtest/gtest.h>
#include <regex.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "qx_tr.h"
#include "tr_i.h"

namespace tr_test {

inline const tr_category_description_t kCategories[3] = {
    {0, "API", 0, 0}, {1, "Errors", 0, 0}, {2, "Wherever", 0, 0}};

// Each test starts from a process that has registered nothing, with a
// private directory and no trace configuration in its environment.
class TraceFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        tr_i_reset_for_testing();
        unsetenv("QX_TRACE_LEVELS");
        unsetenv("QX_TRACE_FILE");
        char tmpl[] = "/tmp/qx_tr_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        trace_file_ = dir_ + "/trace.log";
    }
    void TearDown() override {
        tr_i_reset_for_testing();
        unsetenv("QX_TRACE_LEVELS");
        unsetenv("QX_TRACE_FILE");
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }

    // Registers `component` with the three usual categories under the given
    // configuration (nullptr leaves a variable unset).
    int Register(const char *component, const char *levels, const char *file,
                 qx_uint8_t *p_levels) {
        for (auto [name, value] : {std::pair{"QX_TRACE_LEVELS", levels}, {"QX_TRACE_FILE", file}}) {
            if (value != nullptr) {
                setenv(name, value, 1);
            } else {
                unsetenv(name);
            }
        }
        return tr_register_component_1(component, p_levels, kCategories, 3);
    }

    std::string dir_;
    std::string trace_file_;
};

inline std::string ReadAll(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The file's lines; a final fragment without a newline is marked so that
// tests can see it.
inline std::vector<std::string> ReadLines(const std::string &path) {
    std::string all = ReadAll(path);
    std::vector<std::string> lines;
    std::istringstream in(all);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    if (!all.empty() && all.back() != '\n') lines.back() += "<no newline>";
    return lines;
}

// time pid tid component content.  Matched with the C library's regular
// expressions: the standard regex templates trip GCC's maybe-uninitialized
// analysis in sanitized builds.
struct Record {
    long pid = 0;
    long tid = 0;
    std::string component;
    std::string content;
};

inline bool ParseRecord(const std::string &line, Record *p_record) {
    regex_t re;
    if (regcomp(&re,
                "^[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z "
                "([0-9]+) ([0-9]+) ([^ ]+) (.*)$",
                REG_EXTENDED) != 0)
        return false;
    regmatch_t m[5];
    bool ok = regexec(&re, line.c_str(), 5, m, 0) == 0;
    regfree(&re);
    if (!ok) return false;
    auto group = [&](int i) { return line.substr(m[i].rm_so, m[i].rm_eo - m[i].rm_so); };
    p_record->pid = std::stol(group(1));
    p_record->tid = std::stol(group(2));
    p_record->component = group(3);
    p_record->content = group(4);
    return true;
}

}  // namespace tr_test

#endif  // TESTS_TR_TR_TEST_UTIL_H
