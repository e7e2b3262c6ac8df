// Costs of row access through the exported calls: reading a field by packed
// index and by key (hashed, and the linear walk of a table without an index),
// reading several fields at once, setting a field, and a long run of reads
// and updates that must leave the heap no larger than it found it.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "sr_i.h"

namespace {

qx_uint32_t HashKey(const void *p_key) {
    qx_int64_t v;
    std::memcpy(&v, p_key, sizeof v);
    return static_cast<qx_uint32_t>(static_cast<qx_uint64_t>(v) % 65536);
}
qx_int32_t CompareKeys(const void *p_a, const void *p_b) {
    qx_int64_t a, b;
    std::memcpy(&a, p_a, sizeof a);
    std::memcpy(&b, p_b, sizeof b);
    return a < b ? -1 : (a > b ? 1 : 0);
}

qx_value_t I64(qx_int64_t v) {
    qx_value_t x{};
    x.val_int64 = v;
    return x;
}

// A transient table "k" INT64 key, "s" CHAR_PTR, "n" INT32 with `rows`
// committed rows; with a hashed key index or without one.
struct Fixture {
    sr_opaque_handle_t tree = nullptr;
    sr_opaque_handle_t table = nullptr;

    Fixture(qx_uint32_t rows, bool hashed, int mode = 6) {
        sr_open_tree_1(&tree, 0, 0);
        sr_column_t columns[3] = {};
        columns[0].name = const_cast<char *>("k");
        columns[0].type = QX_INT64;
        // Without an index a unique key is checked by a walk over every row
        // at each add; filling the table that way would take longer than
        // the measurements, so the unindexed table does not check.
        columns[0].qualifier = hashed ? SR_PRIMARY_KEY : SR_PRIMARY_KEY_NOCHECK;
        columns[1].name = const_cast<char *>("s");
        columns[1].type = QX_CHAR_PTR;
        columns[1].qualifier = SR_STANDARD;
        columns[2].name = const_cast<char *>("n");
        columns[2].type = QX_INT32;
        columns[2].qualifier = SR_STANDARD;
        char *path = const_cast<char *>("/bench/rows");
        if (hashed) {
            sr_create_hashed_key_table_1(tree, path, columns, 3, mode, 65536, HashKey, CompareKeys,
                                         &table);
        } else {
            sr_create_table_1(tree, path, columns, 3, mode, &table);
        }
        char *names[] = {const_cast<char *>("k"), const_cast<char *>("s"), const_cast<char *>("n")};
        for (qx_uint32_t r = 0; r < rows; ++r) {
            std::string text = "row number " + std::to_string(r);
            qx_value_t k = I64(r), s{}, n{};
            s.ptr_char = text.data();
            n.val_int32 = static_cast<qx_int32_t>(r);
            qx_value_t *values[] = {&k, &s, &n};
            sr_add_row_1(table, names, values, 3);
        }
        sr_apply_1(table, 0);
        sr_commit_1(table);
    }
    ~Fixture() {
        sr_close_table_1(table);
        sr_delete_table_1(tree, const_cast<char *>("/bench/rows"));
        sr_close_tree_1(tree);
    }
};

// One text field by packed index, rows visited in a stride over the table.
void BM_ReadTextByPackedIndex(benchmark::State &state) {
    const qx_uint32_t rows = static_cast<qx_uint32_t>(state.range(0));
    Fixture f(rows, false);
    qx_uint32_t r = 0;
    for (auto _ : state) {
        qx_value_t value;
        if (sr_get_field_by_index_1(f.table, static_cast<qx_int32_t>(r), const_cast<char *>("s"),
                                    &value) != 0) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(value.ptr_char);
        r = (r + 7919) % rows;
    }
}
BENCHMARK(BM_ReadTextByPackedIndex)->Arg(1000)->Arg(100000);

// An integer field by hashed key: constant per call while keys spread.
void BM_ReadByHashedKey(benchmark::State &state) {
    const qx_uint32_t rows = static_cast<qx_uint32_t>(state.range(0));
    Fixture f(rows, true);
    qx_int64_t k = 0;
    for (auto _ : state) {
        qx_value_t value;
        if (sr_get_field_by_key_1(f.table, I64(k), const_cast<char *>("n"), &value) != 0) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(value.val_int32);
        k = (k + 7919) % rows;
    }
}
BENCHMARK(BM_ReadByHashedKey)->Arg(1000)->Arg(100000);

// The same lookup without an index walks the packed rows: linear in rows.
void BM_ReadByLinearKey(benchmark::State &state) {
    const qx_uint32_t rows = static_cast<qx_uint32_t>(state.range(0));
    Fixture f(rows, false);
    qx_int64_t k = 0;
    for (auto _ : state) {
        qx_value_t value;
        if (sr_get_field_by_key_1(f.table, I64(k), const_cast<char *>("n"), &value) != 0) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(value.val_int32);
        k = (k + 7919) % rows;
    }
}
BENCHMARK(BM_ReadByLinearKey)->Arg(100)->Arg(1000)->Arg(10000);

// All three fields of a row by hashed key in one call.
void BM_ReadFieldsByHashedKey(benchmark::State &state) {
    const qx_uint32_t rows = 100000;
    Fixture f(rows, true);
    char *names[] = {const_cast<char *>("k"), const_cast<char *>("s"), const_cast<char *>("n")};
    qx_int64_t k = 0;
    for (auto _ : state) {
        qx_value_t a, b, c;
        qx_value_t *values[] = {&a, &b, &c};
        if (sr_get_fields_by_key_1(f.table, I64(k), names, values, 3) != 0) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(b.ptr_char);
        k = (k + 7919) % rows;
    }
}
BENCHMARK(BM_ReadFieldsByHashedKey);

// A text field set by hashed key in an explicit transaction (a new working
// version replaces the previous pending one), committed every 1000 sets.
void BM_SetTextByHashedKey(benchmark::State &state) {
    const qx_uint32_t rows = 100000;
    Fixture f(rows, true);
    std::string text(40, 'u');
    qx_value_t s{};
    s.ptr_char = text.data();
    qx_int64_t k = 0;
    qx_uint64_t sets = 0;
    for (auto _ : state) {
        text[static_cast<size_t>(sets % 40)] = static_cast<char>('a' + sets % 26);
        if (sr_set_field_by_key_1(f.table, I64(k), const_cast<char *>("s"), &s) != 0) {
            state.SkipWithError("set failed");
            break;
        }
        if (++sets % 1000 == 0) {
            sr_apply_1(f.table, 0);
            sr_commit_1(f.table);
        }
        k = (k + 7919) % rows;
    }
}
BENCHMARK(BM_SetTextByHashedKey);

// A million reads and a million updates (texts of changing length, committed
// in batches) on a table of 1000 rows: the heap in use afterwards is what it
// was after the first round.  Reports the growth in bytes; fails above 64 KiB.
void BM_MillionReadsAndUpdatesKeepTheHeap(benchmark::State &state) {
    const qx_uint32_t rows = 1000;
    const qx_uint32_t total = 1000000;
    Fixture f(rows, true);
    std::string text;
    qx_value_t s{};
    char *names[] = {const_cast<char *>("s"), const_cast<char *>("n")};
    auto round = [&](qx_uint32_t from, qx_uint32_t to) {
        for (qx_uint32_t i = from; i < to; ++i) {
            const qx_int64_t k = (static_cast<qx_int64_t>(i) * 7919) % rows;
            qx_value_t a, b;
            qx_value_t *values[] = {&a, &b};
            if (sr_get_fields_by_index_1(f.table, static_cast<qx_int32_t>(k), names, values, 2) !=
                0) {
                return false;
            }
            benchmark::DoNotOptimize(a.ptr_char);
            text.assign(10 + i % 90, static_cast<char>('a' + i % 26));
            s.ptr_char = text.data();
            if (sr_set_field_by_key_1(f.table, I64(k), const_cast<char *>("s"), &s) != 0) {
                return false;
            }
            if ((i + 1) % 500 == 0 && (sr_apply_1(f.table, 0) != 0 || sr_commit_1(f.table) != 0)) {
                return false;
            }
        }
        return true;
    };
    for (auto _ : state) {
        // Warm-up: every slot read and replaced a few times.
        if (!round(0, 20000)) {
            state.SkipWithError("warm-up failed");
            break;
        }
        const size_t before = mallinfo2().uordblks;
        if (!round(20000, total)) {
            state.SkipWithError("round failed");
            break;
        }
        const size_t after = mallinfo2().uordblks;
        const double growth = static_cast<double>(after) - static_cast<double>(before);
        state.counters["heap_growth_bytes"] = growth;
        if (growth > 64 * 1024) state.SkipWithError("heap grew over a million reads and updates");
    }
}
BENCHMARK(BM_MillionReadsAndUpdatesKeepTheHeap)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
