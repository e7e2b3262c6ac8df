// Transaction costs: implicit single-row updates on a persistent table (each
// one an apply and a commit, so bounded by two fdatasyncs), the same on a
// transient table (the in-memory cost alone), and one explicit transaction of
// 100,000 new rows (apply in gather writes of 16, one sync, commit).
//
// Rows are added through the exported call.  The explicit transactions time
// apply and commit alone; the rows are added with the clock stopped.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "sr_i.h"

namespace {

// A fresh directory mounted as "/m" in a tree of its own.
class Fixture {
  public:
    Fixture() {
        const char *base = getenv("TMPDIR");
        dir_ = std::string(base != nullptr ? base : "/tmp") + "/qxsr-bench-XXXXXX";
        if (mkdtemp(dir_.data()) == nullptr) std::abort();
        if (sr_open_tree_1(&tree_, 0, 0) != 0) std::abort();
        std::string mount = "/m";
        if (sr_mount_local_tree_1(tree_, mount.data(), dir_.data(), 1) != 0) std::abort();
    }
    ~Fixture() {
        sr_close_tree_1(tree_);
        std::string command = "rm -rf '" + dir_ + "'";
        if (system(command.c_str()) != 0) {
            // Left under TMPDIR.
        }
    }

    // A table of an INT64 key and three INT64 columns.
    sr_i_table_t *Create(const std::string &path, int mode) {
        char names[4][4] = {"k", "c1", "c2", "c3"};
        sr_column_t columns[4] = {};
        for (int i = 0; i < 4; ++i) {
            columns[i].name = names[i];
            columns[i].type = QX_INT64;
            columns[i].qualifier = i == 0 ? SR_PRIMARY_KEY_NOCHECK : SR_STANDARD;
        }
        std::string name = path;
        sr_opaque_handle_t table = nullptr;
        if (sr_create_table_1(tree_, name.data(), columns, 4, mode, &table) != 0) std::abort();
        return static_cast<sr_i_table_t *>(table);
    }

    sr_opaque_handle_t tree_ = nullptr;

  private:
    std::string dir_;
};

// Adds the row (key, key + 1, key + 2, key + 3) through the exported call,
// which on an implicitly controlled table also applies and commits it.
void AddRow(sr_i_table_t *p_table, qx_int64_t key) {
    static char names[4][4] = {"k", "c1", "c2", "c3"};
    qx_char_ptr_t p_names[4] = {names[0], names[1], names[2], names[3]};
    qx_value_t values[4];
    qx_value_t *p_values[4];
    for (int c = 0; c < 4; ++c) {
        values[c].val_int64 = key + c;
        p_values[c] = &values[c];
    }
    if (sr_add_row_1(p_table, p_names, p_values, 4) != 0) std::abort();
}

void BM_ImplicitSingleRowAddPersistent(benchmark::State &state) {
    Fixture fixture;
    sr_i_table_t *p_table = fixture.Create("/m/adds", SR_MODE_WRITE);
    qx_int64_t key = 0;
    for (auto _ : state) {
        AddRow(p_table, key++);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["file_bytes"] = p_table->file_length;
}
BENCHMARK(BM_ImplicitSingleRowAddPersistent)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_ImplicitSingleRowAddTransient(benchmark::State &state) {
    Fixture fixture;
    sr_i_table_t *p_table = fixture.Create("/mem/adds", SR_MODE_WRITE);
    qx_int64_t key = 0;
    for (auto _ : state) {
        AddRow(p_table, key++);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ImplicitSingleRowAddTransient);

// One explicit transaction of state.range(0) new rows, adds included.
void BM_ExplicitTransaction(benchmark::State &state) {
    Fixture fixture;
    int round = 0;
    for (auto _ : state) {
        state.PauseTiming();
        sr_i_table_t *p_table =
            fixture.Create("/m/big" + std::to_string(round++), SR_MODE_WRITE | 4);
        state.ResumeTiming();
        for (qx_int64_t k = 0; k < state.range(0); ++k) AddRow(p_table, k);
        if (sr_apply_1(p_table, 0) != 0 || sr_commit_1(p_table) != 0) std::abort();
        state.PauseTiming();
        state.counters["file_bytes"] = p_table->file_length;
        sr_close_table_1(p_table);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ExplicitTransaction)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();

// Apply and commit alone of state.range(0) pending new rows.
void BM_ApplyCommit(benchmark::State &state) {
    Fixture fixture;
    int round = 0;
    for (auto _ : state) {
        state.PauseTiming();
        sr_i_table_t *p_table =
            fixture.Create("/m/big" + std::to_string(round++), SR_MODE_WRITE | 4);
        for (qx_int64_t k = 0; k < state.range(0); ++k) AddRow(p_table, k);
        state.ResumeTiming();
        if (sr_i_apply(p_table, 0, 0) != 0 || sr_i_commit(p_table) != 0) std::abort();
        state.PauseTiming();
        sr_close_table_1(p_table);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ApplyCommit)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same transaction written as a complete new file instead.
void BM_ExplicitTransactionRewrite(benchmark::State &state) {
    Fixture fixture;
    int round = 0;
    for (auto _ : state) {
        state.PauseTiming();
        sr_i_table_t *p_table =
            fixture.Create("/m/big" + std::to_string(round++), SR_MODE_WRITE | 4);
        for (qx_int64_t k = 0; k < state.range(0); ++k) AddRow(p_table, k);
        state.ResumeTiming();
        if (sr_i_apply(p_table, 1, 0) != 0 || sr_i_commit(p_table) != 0) std::abort();
        state.PauseTiming();
        sr_close_table_1(p_table);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ExplicitTransactionRewrite)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
