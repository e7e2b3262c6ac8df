// Selection through the registry over a transient table of a million rows
// (an INT64 key and a text column): choosing rows with a simple comparison
// and with a regular expression (sr_get_selected_rows_v_1), and building a
// result table of a tenth of them (sr_select_1).
#include <benchmark/benchmark.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include "sr_i.h"

namespace {

constexpr qx_int64_t kRows = 1000000;

struct Fixture {
    sr_opaque_handle_t tree = nullptr;
    sr_opaque_handle_t table = nullptr;
    Fixture() {
        sr_open_tree_1(&tree, 0, 0);
        sr_column_t columns[2] = {};
        columns[0].name = const_cast<char *>("key");
        columns[0].type = QX_INT64;
        columns[0].qualifier = SR_PRIMARY_KEY_NOCHECK;  // no per-add key scan
        columns[1].name = const_cast<char *>("name");
        columns[1].type = QX_CHAR_PTR;
        columns[1].qualifier = SR_STANDARD;
        // Explicit control: the rows are added, then committed once.
        sr_create_table_1(tree, const_cast<char *>("/bench/select"), columns, 2, 7, &table);
        char text[32];
        qx_value_t key{};
        qx_value_t name{};
        name.ptr_char = text;
        qx_value_t *values[2] = {&key, &name};
        char *names[2] = {columns[0].name, columns[1].name};
        for (qx_int64_t r = 0; r < kRows; ++r) {
            key.val_int64 = r;
            snprintf(text, sizeof text, "item-%07lld-%s", static_cast<long long>(r),
                     r % 3 == 0 ? "red" : "blue");
            sr_add_row_1(table, names, values, 2);
        }
        sr_apply_1(table, 0);
        sr_commit_1(table);
    }
};

Fixture &fixture() {
    static Fixture f;
    return f;
}

qx_int32_t selected(sr_opaque_handle_t table, const char *criteria, qx_uint32_t *p_count, ...) {
    va_list ap;
    va_start(ap, p_count);
    qx_uint32_t *p_rows = nullptr;
    qx_int32_t rc =
        sr_get_selected_rows_v_1(table, const_cast<char *>(criteria), ap, 0, p_count, &p_rows);
    va_end(ap);
    free(p_rows);
    return rc;
}

void scan(benchmark::State &state, const char *criteria) {
    Fixture &f = fixture();
    qx_uint32_t count = 0;
    for (auto _ : state) {
        if (selected(f.table, criteria, &count) != 0) {
            state.SkipWithError("selection failed");
            return;
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kRows);
    state.counters["selected"] = count;
}

void BM_SelectedRowsSimpleComparison(benchmark::State &state) {
    scan(state, "key > 500000");
}
BENCHMARK(BM_SelectedRowsSimpleComparison)->Unit(benchmark::kMillisecond);

void BM_SelectedRowsRegex(benchmark::State &state) {
    scan(state, "name =~ '^item-[0-9]+5-(red|green)$'");
}
BENCHMARK(BM_SelectedRowsRegex)->Unit(benchmark::kMillisecond);

void BM_SelectTenthIntoNewTable(benchmark::State &state) {
    Fixture &f = fixture();
    for (auto _ : state) {
        sr_opaque_handle_t result = nullptr;
        if (sr_select_1(f.table, nullptr, 0, &result, const_cast<char *>("key % 10 == $I"), 3) !=
            0) {
            state.SkipWithError("select failed");
            return;
        }
        sr_close_table_1(result);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kRows);
}
BENCHMARK(BM_SelectTenthIntoNewTable)->Unit(benchmark::kMillisecond);

}  // namespace
