// Opening a table whose commit record carries many application metadata
// elements.  The store is kept sorted by type, so elements in the order
// commit writes them (ascending) are appended, and a record in any other
// order is sorted once: both should grow as n log n at worst, never n².
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>

#include "bench_util.h"
#include "sr_i.h"

namespace {

using qxbench::bench_tree;
using qxbench::BenchTree;
using qxbench::put32;
using qxbench::put64;

// A created table whose commit record is replaced by one of `elements`
// four-byte elements, their types ascending or descending.
std::string make_file(qx_int64_t elements, bool ascending) {
    BenchTree &t = bench_tree();
    std::string name = std::string(ascending ? "up" : "down") + std::to_string(elements);
    std::string path = t.dir + "/" + name;
    sr_column_t columns[1] = {};
    columns[0] = {const_cast<char *>("key"), QX_INT32, SR_PRIMARY_KEY, 0, nullptr, {}};
    std::string registry = "/b/" + name;
    sr_opaque_handle_t table = nullptr;
    sr_delete_table_1(t.tree, registry.data());
    if (sr_create_table_1(t.tree, registry.data(), columns, 1, 2, &table) != 0) abort();
    sr_close_table_1(table);
    std::ifstream in(path, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    bytes.resize(bytes.size() - SR_I_COMMIT_RECORD_LENGTH);
    const auto n = static_cast<qx_uint32_t>(elements);
    put32(bytes, SR_I_COMMIT_RECORD_LENGTH + 4 + 12 * n);
    put32(bytes, 0);
    put32(bytes, static_cast<qx_uint32_t>(SR_I_RECORD_TYPE_COMMIT));
    put32(bytes, 8 + 4 + 12 * n);
    put64(bytes, 2);
    put32(bytes, n);
    for (qx_uint32_t i = 0; i < n; ++i) {
        put32(bytes, ascending ? i : n - 1 - i);
        put32(bytes, 4);
        put32(bytes, i);
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return path;
}

void BM_OpenWithApplicationMetadata(benchmark::State &state) {
    const qx_int64_t elements = state.range(0);
    std::string path = make_file(elements, state.range(1) != 0);
    auto *p_tree = static_cast<sr_i_tree_t *>(bench_tree().tree);
    for (auto _ : state) {
        sr_i_table_t *p_table = nullptr;
        if (sr_i_open_persistent_table(p_tree, nullptr, path.c_str(), SR_MODE_READ, 512, nullptr,
                                       &p_table) != 0 ||
            p_table->p_application_metadata->total_elements != static_cast<qx_uint32_t>(elements)) {
            state.SkipWithError("open failed");
            break;
        }
        benchmark::DoNotOptimize(p_table->p_application_metadata->p_index);
        sr_i_close_table(p_table);
    }
    state.SetComplexityN(elements);
    state.counters["elements/s"] = benchmark::Counter(
        static_cast<double>(elements), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_OpenWithApplicationMetadata)
    ->ArgsProduct({{1000, 10000, 100000, 1000000}, {1, 0}})
    ->ArgNames({"elements", "ascending"})
    ->Unit(benchmark::kMillisecond);

}  // namespace
