// Costs on the common-utilities hot paths: clearing an absent error record
// (every successful registry call does it), and converting short text
// through one shared handle, from one thread and from several at once.
// The "LockedDescriptor" runs are the alternative design measured against
// the handle's pool of idle descriptors: one iconv_t behind a mutex held
// across the conversion.
#include <benchmark/benchmark.h>
#include <iconv.h>
#include <pthread.h>
#include <string.h>

#include "qx_cu.h"

namespace {

cu_locale_info_t latin1_info() {
    cu_locale_info_t info;
    info.cu_locale_name = const_cast<char *>("bench");
    info.cu_codeset = const_cast<char *>("ISO-8859-1");
    return info;
}

const char kText[] = "Nom de la colonne \xE9t\xE9 modifi\xE9";

void BM_ClearAbsentErrorRecord(benchmark::State &state) {
    cu_set_no_error_1();
    for (auto _ : state) benchmark::DoNotOptimize(cu_set_no_error_1());
}
BENCHMARK(BM_ClearAbsentErrorRecord);

void BM_RecordAndClearError(benchmark::State &state) {
    for (auto _ : state) {
        cu_set_error_1(102, nullptr, "qx_sr.cat", 1, 9, "%1$s is an invalid pathname.\n",
                       "/some/registry/path");
        cu_set_no_error_1();
    }
}
BENCHMARK(BM_RecordAndClearError);

cu_iconv_t *g_shared = nullptr;

void BM_SharedHandleBuf(benchmark::State &state) {
    if (state.thread_index() == 0) {
        cu_locale_info_t info = latin1_info();
        cu_iconv_open_1(&info, CU_ICONV_TO_TABLE, &g_shared);
    }
    char out[128];
    size_t needed = 0;
    for (auto _ : state) {
        cu_iconv_buf_1(g_shared, kText, sizeof(kText) - 1, out, sizeof(out), &needed);
        benchmark::DoNotOptimize(out);
    }
    if (state.thread_index() == 0) {
        cu_iconv_close_1(g_shared);
        g_shared = nullptr;
    }
}
BENCHMARK(BM_SharedHandleBuf)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
iconv_t g_locked_cd;

void BM_LockedDescriptorBuf(benchmark::State &state) {
    if (state.thread_index() == 0) g_locked_cd = iconv_open("UTF-8", "ISO-8859-1");
    char out[128];
    for (auto _ : state) {
        pthread_mutex_lock(&g_lock);
        iconv(g_locked_cd, nullptr, nullptr, nullptr, nullptr);
        char *in = const_cast<char *>(kText);
        size_t in_left = sizeof(kText) - 1;
        char *o = out;
        size_t o_left = sizeof(out);
        iconv(g_locked_cd, &in, &in_left, &o, &o_left);
        pthread_mutex_unlock(&g_lock);
        benchmark::DoNotOptimize(out);
    }
    if (state.thread_index() == 0) iconv_close(g_locked_cd);
}
BENCHMARK(BM_LockedDescriptorBuf)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

void BM_PassThroughBuf(benchmark::State &state) {
    cu_locale_info_t info = latin1_info();
    info.cu_codeset = const_cast<char *>("UTF-8");
    cu_iconv_t *h = nullptr;
    cu_iconv_open_1(&info, CU_ICONV_TO_TABLE | CU_ICONV_UTF8_UNMODIFIED, &h);
    char out[128];
    size_t needed = 0;
    for (auto _ : state) {
        cu_iconv_buf_1(h, kText, sizeof(kText) - 1, out, sizeof(out), &needed);
        benchmark::DoNotOptimize(out);
    }
    cu_iconv_close_1(h);
}
BENCHMARK(BM_PassThroughBuf);

}  // namespace
