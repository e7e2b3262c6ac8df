// Scaling: each step of a table's life timed at 10k, 100k and 1M rows and
// printed as a cost per row, so that a step whose cost grows with the table
// (a walk hidden in a per-row operation) shows as a rising column.  A plain
// timed program, not a test.
//
//   scaling [directory] [largest rows]
//
// Steps, on a persistent table with a hashed key index (explicit control):
// adds, apply + commit of the adds, updates by key of a tenth of the rows and
// their commit, close, open, a selection over every row, deletions of every
// row in a random order and their commit.  Then adds to a transient table,
// with and without a checked key (SR_PRIMARY_KEY) and no hashed index.
#include <errno.h>
#include <stdarg.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "qx_sr.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The process's processor time, beside the wall time: on a machine shared
// with other work it is the steadier of the two.
double cpu_seconds() {
    timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}
double Cpu_Start = 0;

Clock::time_point start_step() {
    Cpu_Start = cpu_seconds();
    return Clock::now();
}

void check(long rc, const char *what) {
    if (rc != 0) {
        fprintf(stderr, "scaling: %s failed (%ld)\n", what, rc);
        exit(1);
    }
}

template <unsigned Bits>
qx_uint32_t int_hash(const void *p_key) {
    qx_uint32_t k;
    memcpy(&k, p_key, sizeof k);
    return (k * 2654435761u) >> (32 - Bits);
}

qx_int32_t int_compare(const void *a, const void *b) {
    return memcmp(a, b, sizeof(qx_int32_t));
}

char kKey[] = "k";
char kVal[] = "val";
char kName[] = "name";

void add(sr_opaque_handle_t table, std::uint32_t key, std::int32_t val, const char *name) {
    qx_char_ptr_t names[3] = {kKey, kVal, kName};
    qx_value_t v[3];
    v[0].val_int32 = static_cast<qx_int32_t>(key);
    v[1].val_int32 = val;
    v[2].ptr_char = const_cast<char *>(name);
    qx_value_t *p[3] = {&v[0], &v[1], &v[2]};
    check(sr_add_row_1(table, names, p, 3), "sr_add_row_1");
}

sr_opaque_handle_t create(sr_opaque_handle_t tree, const std::string &path, int mode, bool hashed,
                          sr_qualifier_t key_qualifier, std::uint32_t rows) {
    sr_column_t columns[3] = {};
    columns[0].name = kKey;
    columns[0].type = QX_INT32;
    columns[0].qualifier = key_qualifier;
    columns[1].name = kVal;
    columns[1].type = QX_INT32;
    columns[1].qualifier = SR_STANDARD;
    columns[2].name = kName;
    columns[2].type = QX_CHAR_PTR;
    columns[2].qualifier = SR_STANDARD;
    sr_opaque_handle_t table = nullptr;
    std::string p = path;
    if (!hashed) {
        check(sr_create_table_1(tree, p.data(), columns, 3, mode, &table), "sr_create_table_1");
    } else if (rows > 200000) {
        check(sr_create_hashed_key_table_1(tree, p.data(), columns, 3, mode, 1u << 20, int_hash<20>,
                                           int_compare, &table),
              "sr_create_hashed_key_table_1");
    } else {
        check(sr_create_hashed_key_table_1(tree, p.data(), columns, 3, mode, 1u << 17, int_hash<17>,
                                           int_compare, &table),
              "sr_create_hashed_key_table_1");
    }
    return table;
}

std::uint32_t selected(sr_opaque_handle_t table, const char *criteria, ...) {
    va_list ap;
    va_start(ap, criteria);
    qx_uint32_t count = 0;
    qx_uint32_t *p_rows = nullptr;
    qx_int32_t rc =
        sr_get_selected_rows_v_1(table, const_cast<char *>(criteria), ap, 0, &count, &p_rows);
    va_end(ap);
    check(rc, "sr_get_selected_rows_v_1");
    free(p_rows);
    return count;
}

void print(const char *step, std::uint32_t rows, double seconds, std::uint32_t units) {
    const double cpu = cpu_seconds() - Cpu_Start;
    printf("%-34s %8u rows %10.3f ms %9.3f us/row  (cpu %9.3f us/row)\n", step, rows, seconds * 1e3,
           seconds / units * 1e6, cpu / units * 1e6);
    fflush(stdout);
}

}  // namespace

int main(int argc, char **argv) {
    std::string base = argc > 1 ? argv[1] : "/var/tmp";
    std::uint32_t largest = argc > 2 ? static_cast<std::uint32_t>(atoi(argv[2])) : 1000000;
    std::string dir = base + "/qx-scaling-XXXXXX";
    if (mkdtemp(dir.data()) == nullptr) return 1;
    sr_opaque_handle_t tree = nullptr;
    check(sr_open_tree_1(&tree, 0, 0), "sr_open_tree_1");
    std::string mount = "/s";
    check(sr_mount_local_tree_1(tree, mount.data(), dir.data(), 1), "sr_mount_local_tree_1");

    for (std::uint32_t n = 10000; n <= largest; n *= 10) {
        std::mt19937 rng(n);
        std::vector<std::uint32_t> keys(n);
        for (std::uint32_t i = 0; i < n; ++i) keys[i] = i;
        std::shuffle(keys.begin(), keys.end(), rng);
        std::vector<std::string> names(n);
        for (std::uint32_t i = 0; i < n; ++i) {
            names[i] = "name-" + std::to_string(keys[i]) + "-abcdefghijklmnopqrst";
        }
        const int mode = SR_MODE_WRITE | SR_MODE_EXPLICIT_CONTROL;
        std::string path = "/s/t" + std::to_string(n);
        sr_opaque_handle_t t = create(tree, path, mode, true, SR_PRIMARY_KEY, n);

        auto s = start_step();
        for (std::uint32_t i = 0; i < n; ++i)
            add(t, keys[i], static_cast<std::int32_t>(i), names[i].c_str());
        print("adds (hashed key)", n, seconds_since(s), n);
        s = start_step();
        check(sr_apply_1(t, 0), "sr_apply_1");
        check(sr_commit_1(t), "sr_commit_1");
        print("apply + commit of the adds", n, seconds_since(s), n);

        std::uint32_t updates = n / 10;
        s = start_step();
        for (std::uint32_t i = 0; i < updates; ++i) {
            qx_value_t key;
            key.val_int32 = static_cast<qx_int32_t>(rng() % n);
            qx_value_t v;
            v.val_int32 = static_cast<qx_int32_t>(i);
            check(sr_set_field_by_key_1(t, key, kVal, &v), "sr_set_field_by_key_1");
        }
        double set_time = seconds_since(s);
        print("updates by key (n/10)", n, set_time, updates);
        s = start_step();
        check(sr_apply_1(t, 0), "sr_apply_1");
        check(sr_commit_1(t), "sr_commit_1");
        print("apply + commit of the updates", n, seconds_since(s), updates);

        s = start_step();
        check(sr_close_table_1(t), "sr_close_table_1");
        print("close", n, seconds_since(s), n);
        s = start_step();
        if (n > 200000) {
            check(sr_open_hashed_key_table_1(tree, path.data(), mode, 1u << 20, int_hash<20>,
                                             int_compare, &t),
                  "sr_open_hashed_key_table_1");
        } else {
            check(sr_open_hashed_key_table_1(tree, path.data(), mode, 1u << 17, int_hash<17>,
                                             int_compare, &t),
                  "sr_open_hashed_key_table_1");
        }
        print("open (hashed key index)", n, seconds_since(s), n);

        s = start_step();
        std::uint32_t c = selected(t, "val > 100");
        print("selection over every row", n, seconds_since(s), n);
        if (c == 0) return 1;

        // Every row, in a random order of packed positions; positions stay
        // put until the commit.
        std::vector<std::uint32_t> order(n);
        for (std::uint32_t i = 0; i < n; ++i) order[i] = i;
        std::shuffle(order.begin(), order.end(), rng);
        s = start_step();
        for (std::uint32_t p : order)
            check(sr_delete_row_by_index_1(t, p), "sr_delete_row_by_index_1");
        print("deletions (every row, random)", n, seconds_since(s), n);
        s = start_step();
        check(sr_apply_1(t, 0), "sr_apply_1");
        check(sr_commit_1(t), "sr_commit_1");
        print("apply + commit of the deletions", n, seconds_since(s), n);
        check(sr_close_table_1(t), "sr_close_table_1");

        // Transient tables, no hashed index.
        for (sr_qualifier_t q : {SR_PRIMARY_KEY_NOCHECK, SR_PRIMARY_KEY}) {
            const char *step = q == SR_PRIMARY_KEY ? "transient adds, checked key"
                                                   : "transient adds, unchecked key";
            std::string tpath = "/mem/scaling" + std::to_string(n) + "_" + std::to_string(q);
            sr_opaque_handle_t m = create(tree, tpath, mode, false, q, n);
            s = start_step();
            for (std::uint32_t i = 0; i < n; ++i)
                add(m, keys[i], static_cast<std::int32_t>(i), names[i].c_str());
            print(step, n, seconds_since(s), n);
            check(sr_close_table_1(m), "sr_close_table_1");
        }
    }
    sr_close_tree_1(tree);
    std::string cmd = "rm -rf '" + dir + "'";
    return system(cmd.c_str()) == 0 ? 0 : 1;
}
