// Cost of a development record: with tracing off the registry pays it on
// every apply and commit, so it must stay a load and a branch; with tracing
// on it is the cost of formatting one line and one write(2).
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "qx_tr.h"
#include "tr_i.h"

namespace {

const tr_category_description_t kCategories[3] = {
    {0, "API", 0, 0}, {1, "Errors", 0, 0}, {2, "Wherever", 0, 0}};

void BM_FmtStringTracingOff(benchmark::State &state) {
    tr_i_reset_for_testing();
    unsetenv("QX_TRACE_LEVELS");
    unsetenv("QX_TRACE_FILE");
    qx_uint8_t levels[3];
    tr_register_component_1("_SRA", levels, kCategories, 3);
    unsigned n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            tr_record_fmt_string_1("_SRA", TR_CATEGORY_ALWAYS, "DV|RET|%.3d|%u|%d", 123, n++, 100));
    }
}
BENCHMARK(BM_FmtStringTracingOff);

void BM_FmtStringTracingOn(benchmark::State &state) {
    tr_i_reset_for_testing();
    char dir[] = "/tmp/qx_tr_bench.XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        state.SkipWithError("mkdtemp failed");
        return;
    }
    std::string file = std::string(dir) + "/trace.log";
    setenv("QX_TRACE_LEVELS", "_SRA:*=1", 1);
    setenv("QX_TRACE_FILE", file.c_str(), 1);
    qx_uint8_t levels[3];
    tr_register_component_1("_SRA", levels, kCategories, 3);
    unsigned n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            tr_record_fmt_string_1("_SRA", TR_CATEGORY_ALWAYS, "DV|RET|%.3d|%u|%d", 123, n++, 100));
    }
    tr_i_reset_for_testing();
    unsetenv("QX_TRACE_LEVELS");
    unsetenv("QX_TRACE_FILE");
    unlink(file.c_str());
    rmdir(dir);
}
BENCHMARK(BM_FmtStringTracingOn);

}  // namespace
