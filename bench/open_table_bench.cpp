// Opening a table file: one read of the whole file and one pass over its
// records in place.  The time per open should grow linearly with the rows
// (the reported complexity), at a steady rate per byte.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
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

// A table file of `rows` rows: a text key and two 64-bit columns, written
// as a created table followed by the row records and a commit record.
std::string make_file(qx_int64_t rows) {
    BenchTree &t = bench_tree();
    std::string name = "t" + std::to_string(rows);
    std::string path = t.dir + "/" + name;
    sr_column_t columns[3] = {};
    columns[0] = {const_cast<char *>("key"), QX_CHAR_PTR, SR_PRIMARY_KEY, 0, nullptr, {}};
    columns[1] = {const_cast<char *>("a"), QX_INT64, SR_STANDARD, 0, nullptr, {}};
    columns[2] = {const_cast<char *>("b"), QX_INT64, SR_STANDARD, 0, nullptr, {}};
    std::string registry = "/b/" + name;
    sr_opaque_handle_t table = nullptr;
    sr_delete_table_1(t.tree, registry.data());
    if (sr_create_table_1(t.tree, registry.data(), columns, 3, 2, &table) != 0) abort();
    sr_close_table_1(table);
    std::ifstream in(path, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    bytes.resize(bytes.size() - SR_I_COMMIT_RECORD_LENGTH);
    char key[32];
    for (qx_int64_t i = 0; i < rows; ++i) {
        std::memset(key, 0, sizeof key);
        snprintf(key, sizeof key, "row%09lld", static_cast<long long>(i));
        put32(bytes, 12 + 4 + 24 + 16);
        put32(bytes, 0);
        put32(bytes, SR_I_RECORD_TYPE_ROW);
        put32(bytes, 0);
        put32(bytes, 0);   // key: offset 0 in the indirect area
        put32(bytes, 13);  // 12 characters and the NUL
        put64(bytes, static_cast<qx_uint64_t>(i));
        put64(bytes, static_cast<qx_uint64_t>(i) * 3);
        bytes.append(key, 16);  // 13 bytes of text form, padded to 16
    }
    put32(bytes, SR_I_COMMIT_RECORD_LENGTH);
    put32(bytes, 0);
    put32(bytes, static_cast<qx_uint32_t>(SR_I_RECORD_TYPE_COMMIT));
    put32(bytes, 8);
    put64(bytes, 2);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return path;
}

void BM_OpenPersistentTable(benchmark::State &state) {
    const qx_int64_t rows = state.range(0);
    std::string path = make_file(rows);
    auto *p_tree = static_cast<sr_i_tree_t *>(bench_tree().tree);
    size_t bytes = 0;
    for (auto _ : state) {
        sr_i_table_t *p_table = nullptr;
        if (sr_i_open_persistent_table(p_tree, nullptr, path.c_str(), SR_MODE_READ, 512, nullptr,
                                       &p_table) != 0 ||
            p_table->total_committed_rows != static_cast<qx_uint32_t>(rows)) {
            state.SkipWithError("open failed");
            break;
        }
        bytes = p_table->file_length;
        benchmark::DoNotOptimize(p_table->p_rows_packed_index);
        sr_i_close_table(p_table);
    }
    state.SetComplexityN(rows);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
    state.counters["rows/s"] = benchmark::Counter(static_cast<double>(rows),
                                                  benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_OpenPersistentTable)
    ->RangeMultiplier(10)
    ->Range(1000, 100000)
    ->Arg(200000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oN);

}  // namespace
