// Costs of packed table buffers: packing a table of N rows and unpacking it
// into a read-only table (every row record and value checked on the way in).
// Rows per second are reported; both should grow linearly with the rows.
// The tables are keyed by text through a hashed key index on both sides: an
// unhashed unique key is checked by a linear walk per row, which is what a
// caller of large tables avoids.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "../tests/cross/cross_tables.h"
#include "sr_i.h"

namespace {

constexpr qx_uint32_t kBuckets = 1u << 16;

qx_uint32_t hash_text(const void *p_key) {
    qx_uint32_t h = 2166136261u;
    for (const char *p = static_cast<const char *>(p_key); *p != '\0'; ++p) {
        h = (h ^ static_cast<unsigned char>(*p)) * 16777619u;
    }
    return h % kBuckets;
}

qx_int32_t compare_text(const void *a, const void *b) {
    return std::strcmp(static_cast<const char *>(a), static_cast<const char *>(b));
}

// A tree with one table of `rows` rows of the text-keyed shape (text key,
// 64-bit number, array of texts), committed.
struct Fixture {
    sr_opaque_handle_t tree = nullptr;
    sr_opaque_handle_t table = nullptr;
    qxcross::Arena arena;

    explicit Fixture(qx_uint32_t rows) {
        sr_open_tree_1(&tree, 0, 0);
        const qxcross::TableLayout layout = qxcross::table_layouts()[1];
        std::vector<sr_column_t> columns = qxcross::column_definitions(arena, layout);
        sr_create_hashed_key_table_1(
            tree, arena.text("/bench/t"), columns.data(), static_cast<qx_uint32_t>(columns.size()),
            SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL, kBuckets, hash_text, compare_text, &table);
        for (qx_uint32_t seed = 0; seed < rows; ++seed)
            qxcross::add_row(table, arena, layout, seed);
        sr_apply_1(table, 0);
        sr_commit_1(table);
    }
    ~Fixture() { sr_close_tree_1(tree); }
    void *pack() {
        qx_uint32_t view = 0;
        void *p = nullptr;
        sr_pack_tables_1(1, &table, &view, nullptr, nullptr, &p);
        return p;
    }
};

void BM_PackTable(benchmark::State &state) {
    Fixture fixture(static_cast<qx_uint32_t>(state.range(0)));
    qx_uint64_t bytes = 0;
    for (auto _ : state) {
        void *p = fixture.pack();
        if (p == nullptr) {
            state.SkipWithError("pack failed");
            break;
        }
        bytes += sr_i_load_u32(p);
        std::free(p);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK(BM_PackTable)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_UnpackTable(benchmark::State &state) {
    Fixture fixture(static_cast<qx_uint32_t>(state.range(0)));
    void *p = fixture.pack();
    sr_opaque_handle_t receiver = nullptr;
    sr_open_tree_1(&receiver, 0, 0);
    for (auto _ : state) {
        sr_opaque_handle_t unpacked = nullptr;
        if (sr_unpack_table_1(p, kBuckets, hash_text, compare_text, receiver, 0, &unpacked) != 0) {
            state.SkipWithError("unpack failed");
            break;
        }
        sr_close_table_1(unpacked);
    }
    sr_close_tree_1(receiver);
    std::free(p);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_UnpackTable)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
