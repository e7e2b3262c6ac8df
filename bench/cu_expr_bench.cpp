// Evaluation cost of compiled selection expressions over a million rows
// held the way the registry holds them (slots and an indirect area per
// row): a simple integer comparison, a LIKE on text, a regular expression
// on text, and the compile step itself.
#include <benchmark/benchmark.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "qx_cu.h"

namespace {

constexpr uint32_t kRows = 1000000;
constexpr uint32_t kColumns = 3;  // key (INT64), name (CHAR_PTR), weight (FLOAT64)
constexpr uint32_t kAreaBytes = 24;

// All rows in one buffer: each row's slots, then its indirect area.
struct Table {
    std::vector<uint8_t> bytes;
    Table() : bytes(static_cast<size_t>(kRows) * (kColumns * 8 + kAreaBytes)) {
        for (uint32_t r = 0; r < kRows; ++r) {
            uint8_t *row = bytes.data() + static_cast<size_t>(r) * (kColumns * 8 + kAreaBytes);
            int64_t key = r;
            memcpy(row, &key, 8);
            char name[kAreaBytes];
            snprintf(name, sizeof(name), "item-%07u-%s", r, r % 3 == 0 ? "red" : "blue");
            uint32_t anchor[2] = {0, static_cast<uint32_t>(strlen(name) + 1)};
            memcpy(row + 8, anchor, 8);
            double weight = r * 0.5;
            memcpy(row + 16, &weight, 8);
            memcpy(row + kColumns * 8, name, anchor[1]);
        }
    }
};

const Table &table() {
    static const Table t;
    return t;
}

qx_int32_t validate(void *, qx_char_t *p_name, qx_uint32_t, qx_uint32_t parent_id,
                    cu_validate_data_t *p_out) {
    static const char *const names[kColumns] = {"key", "name", "weight"};
    static const qx_data_type_t types[kColumns] = {QX_INT64, QX_CHAR_PTR, QX_FLOAT64};
    if (parent_id != CU_EXPR_TOP_LEVEL) return -1;
    for (uint32_t i = 0; i < kColumns; ++i) {
        if (strcmp(names[i], p_name) == 0) {
            p_out->id = i;
            p_out->type = types[i];
            return 0;
        }
    }
    return -1;
}

void scan(benchmark::State &state, const char *text) {
    const Table &t = table();
    cu_expr_t *p = nullptr;
    if (cu_comp_expr_1(text, 0, validate, nullptr, &p) != CU_OK) {
        state.SkipWithError("does not compile");
        return;
    }
    const size_t stride = kColumns * 8 + kAreaBytes;
    int64_t matched = 0;
    for (auto _ : state) {
        matched = 0;
        for (uint32_t r = 0; r < kRows; ++r) {
            const uint8_t *row = t.bytes.data() + r * stride;
            qx_int32_t m = 0;
            cu_exec_expr_bounded_1(p, CU_EXPR_PROTOCOL_ROW, row, kColumns, &m, row + kColumns * 8,
                                   kAreaBytes);
            matched += m;
        }
        benchmark::DoNotOptimize(matched);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kRows);
    state.counters["matched"] = static_cast<double>(matched);
    cu_free_expr_1(p);
}

void BM_SimpleComparison(benchmark::State &state) {
    scan(state, "key > 500000");
}
BENCHMARK(BM_SimpleComparison)->Unit(benchmark::kMillisecond);

void BM_TwoComparisons(benchmark::State &state) {
    scan(state, "key > 500000 AND weight < 400000.0");
}
BENCHMARK(BM_TwoComparisons)->Unit(benchmark::kMillisecond);

void BM_Like(benchmark::State &state) {
    scan(state, "name LIKE 'item-%-red'");
}
BENCHMARK(BM_Like)->Unit(benchmark::kMillisecond);

void BM_Regex(benchmark::State &state) {
    scan(state, "name =~ '^item-[0-9]+5-(red|green)$'");
}
BENCHMARK(BM_Regex)->Unit(benchmark::kMillisecond);

void BM_Compile(benchmark::State &state) {
    for (auto _ : state) {
        cu_expr_t *p = nullptr;
        cu_comp_expr_1("key > 500000 AND name LIKE 'item-%' AND weight IN (1.5, 2.5, 3.5)", 0,
                       validate, nullptr, &p);
        cu_free_expr_1(p);
    }
}
BENCHMARK(BM_Compile);

}  // namespace
