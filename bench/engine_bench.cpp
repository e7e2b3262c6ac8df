// Costs of the table engine's hot paths: taking and giving back row records
// in the record buffer pool, and adding and looking up keys in the hashed key
// index.  Lookups are measured over indexes of growing size to show that they
// stay constant per call while the keys spread over the buckets.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "sr_i.h"

namespace {

// Row-sized records taken one after another, as adding rows does.
void BM_PoolReserve(benchmark::State &state) {
    const qx_uint32_t length = static_cast<qx_uint32_t>(state.range(0));
    sr_i_record_buffer_pool_t pool{};
    std::vector<char *> taken;
    taken.reserve(1 << 20);
    for (auto _ : state) {
        char *p_data = nullptr;
        if (sr_i_reserve_record(&pool, length, SR_I_RECORD_TYPE_ROW, &p_data) != 0) {
            state.SkipWithError("reserve failed");
            break;
        }
        taken.push_back(p_data);
        if (taken.size() == taken.capacity()) {
            state.PauseTiming();
            sr_i_rb_uninitialize_record_buffer_pool(&pool);
            taken.clear();
            state.ResumeTiming();
        }
    }
    state.counters["buffers"] = static_cast<double>(pool.total_bytes) / (length * 100.0 + 20);
    sr_i_rb_uninitialize_record_buffer_pool(&pool);
}
BENCHMARK(BM_PoolReserve)->Arg(64)->Arg(300);

// A steady state of updates: a row's new record is taken, its old one freed,
// with the table holding `rows` records.
void BM_PoolReplaceRecord(benchmark::State &state) {
    const qx_uint32_t rows = static_cast<qx_uint32_t>(state.range(0));
    sr_i_record_buffer_pool_t pool{};
    std::vector<char *> live(rows);
    for (auto &p : live) sr_i_reserve_record(&pool, 100, SR_I_RECORD_TYPE_ROW, &p);
    std::mt19937 random(1);
    for (auto _ : state) {
        qx_uint32_t i = random() % rows;
        char *p_new = nullptr;
        sr_i_reserve_record(&pool, 96 + random() % 9, SR_I_RECORD_TYPE_ROW, &p_new);
        sr_i_rb_free_record(&pool, live[i]);
        live[i] = p_new;
    }
    state.counters["used%"] = 100.0 * pool.used_bytes / pool.total_bytes;
    sr_i_rb_uninitialize_record_buffer_pool(&pool);
}
BENCHMARK(BM_PoolReplaceRecord)->Arg(1000)->Arg(100000);

// Opening a table file: the image is one record, and the loader frees its
// dead records (one old commit record per earlier commit) in file order.
void BM_PoolImageDeadRecords(benchmark::State &state) {
    const qx_uint32_t records = static_cast<qx_uint32_t>(state.range(0));
    constexpr qx_uint32_t kLength = 40;
    for (auto _ : state) {
        state.PauseTiming();
        sr_i_record_buffer_pool_t pool{};
        char *p_image = nullptr;
        sr_i_reserve_record(&pool, records * kLength + 4096, SR_I_RECORD_TYPE_METADATA, &p_image);
        char *p_first = p_image - SR_I_RECORD_HEADER_LENGTH;
        for (qx_uint32_t i = 0; i < records; ++i) {
            char *p = p_first + i * kLength;
            sr_i_set_record_length(p, kLength);
            sr_i_set_record_type(p, i % 2 ? SR_I_RECORD_TYPE_FREE : SR_I_RECORD_TYPE_ROW);
        }
        char *p_tail = p_first + records * kLength;
        sr_i_set_record_length(p_tail, 4096 + SR_I_RECORD_HEADER_LENGTH);
        sr_i_set_record_type(p_tail, SR_I_RECORD_TYPE_ROW);
        sr_i_rb_free_record(&pool, p_tail + SR_I_RECORD_HEADER_LENGTH);
        state.ResumeTiming();
        for (qx_uint32_t i = 1; i < records; i += 2) {
            sr_i_rb_free_record(&pool, p_first + i * kLength + SR_I_RECORD_HEADER_LENGTH);
        }
        state.PauseTiming();
        sr_i_rb_uninitialize_record_buffer_pool(&pool);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * (records / 2));
}
BENCHMARK(BM_PoolImageDeadRecords)->Arg(20000)->Arg(200000)->Unit(benchmark::kMillisecond);

qx_uint32_t hash_u64(const void *p_key) {
    qx_uint64_t v;
    memcpy(&v, p_key, sizeof v);
    v *= 0x9E3779B97F4A7C15ull;
    return static_cast<qx_uint32_t>(v >> 44);  // 20 bits: 1,048,576 buckets
}
qx_int32_t compare_u64(const void *p1, const void *p2) {
    return memcmp(p1, p2, sizeof(qx_uint64_t)) == 0 ? 0 : 1;
}

struct KeyedIndex {
    std::vector<qx_uint64_t> keys;
    sr_hash_table_t *p_table = nullptr;
    explicit KeyedIndex(size_t n) : keys(n) {
        sr_i_hash_table_open(1u << 20, hash_u64, compare_u64, &p_table);
        std::mt19937_64 random(7);
        for (size_t i = 0; i < n; ++i) {
            keys[i] = random();
            qx_uint32_t bucket;
            sr_hash_table_element_t *p_element;
            sr_i_hash_table_add(p_table, reinterpret_cast<char *>(&keys[i]),
                                static_cast<qx_uint32_t>(i), &bucket, &p_element, SR_PRIMARY_KEY);
        }
    }
    ~KeyedIndex() { sr_i_hash_table_close(p_table); }
};

void BM_HashLookup(benchmark::State &state) {
    KeyedIndex index(static_cast<size_t>(state.range(0)));
    std::mt19937 random(3);
    for (auto _ : state) {
        const qx_uint64_t &key = index.keys[random() % index.keys.size()];
        qx_uint32_t row = 0;
        benchmark::DoNotOptimize(sr_i_hash_table_get_index(index.p_table, &key, &row, nullptr));
        benchmark::DoNotOptimize(row);
    }
    // Elements compared per successful lookup, on average over all keys:
    // stays near 1 whatever the number of keys.
    qx_uint64_t probes = 0;
    for (qx_uint32_t b = 0; b < index.p_table->total_hash_buckets; ++b) {
        qx_uint64_t depth = 0;
        for (auto *p = index.p_table->p_elements[b]; p != nullptr; p = p->p_next) probes += ++depth;
    }
    state.counters["probes"] = static_cast<double>(probes) / index.keys.size();
}
BENCHMARK(BM_HashLookup)->Arg(1000)->Arg(100000)->Arg(1000000);

void BM_HashAddRemove(benchmark::State &state) {
    KeyedIndex index(static_cast<size_t>(state.range(0)));
    qx_uint64_t key = 0x123456789ull;
    for (auto _ : state) {
        qx_uint32_t bucket;
        sr_hash_table_element_t *p_element;
        sr_i_hash_table_add(index.p_table, reinterpret_cast<char *>(&key), 0, &bucket, &p_element,
                            SR_PRIMARY_KEY);
        sr_i_hash_table_remove_element(index.p_table, bucket, p_element);
        ++key;
    }
}
BENCHMARK(BM_HashAddRemove)->Arg(1000)->Arg(1000000);

// The default index over resource handles whose fourth word counts up.
void BM_DefaultHashLookup(benchmark::State &state) {
    const qx_uint32_t n = static_cast<qx_uint32_t>(state.range(0));
    std::vector<qx_resource_handle_t> handles(n);
    sr_hash_table_t *p_table = nullptr;
    sr_i_hash_table_open(0, nullptr, nullptr, &p_table);
    for (qx_uint32_t i = 0; i < n; ++i) {
        handles[i] = qx_resource_handle_t{1, {2, 3, 4, i}};
        qx_uint32_t bucket;
        sr_hash_table_element_t *p_element;
        sr_i_hash_table_add(p_table, reinterpret_cast<char *>(&handles[i]), i, &bucket, &p_element,
                            SR_PRIMARY_KEY);
    }
    std::mt19937 random(5);
    for (auto _ : state) {
        qx_resource_handle_t probe = handles[random() % n];
        qx_uint32_t row = 0;
        benchmark::DoNotOptimize(sr_i_hash_table_get_index(p_table, &probe, &row, nullptr));
    }
    sr_i_hash_table_close(p_table);
}
BENCHMARK(BM_DefaultHashLookup)->Arg(10000)->Arg(16384);

}  // namespace
