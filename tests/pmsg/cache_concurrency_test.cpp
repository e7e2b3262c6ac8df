/*
 * cache_concurrency_test.cpp - library-owned client values under concurrent
 * readers, releases and fork().
 */
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "pmsg_i.h"
#include "pmsg_test_util.h"

namespace {

using pmsg_test::Arena;
using pmsg_test::Built;
using pmsg_test::ValueMaker;

/* A "table": rows of one composite column each, in one area per row. */
struct Rows {
    explicit Rows(int count)
        : built(static_cast<size_t>(count)), values(static_cast<size_t>(count)) {
        ValueMaker maker(arena, 1234, false);
        for (int i = 0; i < count; i++) {
            values[i] = maker.make(QX_SD_PTR_ARRAY);
            EXPECT_EQ(0, pmsg_test::build_value(nullptr, QX_SD_PTR_ARRAY, values[i], &built[i]));
        }
    }
    qx_value_t read(int i) const {
        qx_value_t back;
        back.ptr_array = nullptr;
        EXPECT_EQ(0, qx_pmsg_build_conv_packed_client_value_1(nullptr, 0, QX_SD_PTR_ARRAY, &back,
                                                              &built[i].slot, built[i].p_area,
                                                              built[i].used));
        return back;
    }
    Arena arena;
    std::vector<Built> built;
    std::vector<qx_value_t> values;
};

TEST(PmsgCacheConcurrencyTest, ReadersOfOneSlotAllGetTheSameValueBuiltOnce) {
    Rows rows(1);
    std::vector<qx_array_t *> seen(8);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; i++) {
                qx_array_t *p = rows.read(0).ptr_array;
                if (i == 0) seen[t] = p;
                if (p != seen[t]) ADD_FAILURE() << "value changed under a reader";
            }
        });
    }
    for (auto &t : threads) t.join();
    for (int t = 1; t < 8; t++) EXPECT_EQ(seen[0], seen[t]);
    std::string why;
    qx_value_t value;
    value.ptr_array = seen[0];
    EXPECT_TRUE(pmsg_test::values_equal(QX_SD_PTR_ARRAY, rows.values[0], value, &why)) << why;
    EXPECT_EQ(1u, pmsg_i::cache_entry_count());
    qx_pmsg_release_client_values_1(nullptr, SIZE_MAX);
}

TEST(PmsgCacheConcurrencyTest, ReadersOfManyRowsEachGetTheirOwnRowsValue) {
    constexpr int kTables = 4;
    constexpr int kRows = 256;
    std::vector<std::unique_ptr<Rows>> tables;
    for (int i = 0; i < kTables; i++) tables.push_back(std::make_unique<Rows>(kRows));
    std::vector<std::thread> threads;
    /* Two readers per table, so buckets grow while others look up. */
    for (int t = 0; t < 2 * kTables; t++) {
        threads.emplace_back([&, t] {
            const Rows &rows = *tables[t % kTables];
            for (int round = 0; round < 10; round++) {
                for (int i = 0; i < kRows; i++) {
                    qx_value_t v = rows.read(i);
                    std::string why;
                    if (!pmsg_test::values_equal(QX_SD_PTR_ARRAY, rows.values[i], v, &why))
                        ADD_FAILURE() << why;
                }
            }
        });
    }
    for (auto &t : threads) t.join();
    EXPECT_EQ(static_cast<size_t>(kTables * kRows), pmsg_i::cache_entry_count());
    for (int i = 0; i < kTables; i++) {
        for (const Built &b : tables[i]->built) qx_pmsg_release_client_values_1(&b.slot, 8);
    }
    EXPECT_EQ(0u, pmsg_i::cache_entry_count());
}

TEST(PmsgCacheConcurrencyTest, ReleaseOfOneTableRunsBesideReadersOfAnother) {
    Rows reading(64);
    Rows released(64);
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop.load()) {
            for (int i = 0; i < 64; i++) {
                qx_value_t v = reading.read(i);
                if (v.ptr_array->element_count != reading.values[i].ptr_array->element_count)
                    ADD_FAILURE() << "wrong value";
            }
        }
    });
    for (int round = 0; round < 200; round++) {
        for (int i = 0; i < 64; i++) released.read(i);
        for (const Built &b : released.built) qx_pmsg_release_client_values_1(&b.slot, 8);
    }
    stop = true;
    reader.join();
    qx_pmsg_release_client_values_1(nullptr, SIZE_MAX);
    EXPECT_EQ(0u, pmsg_i::cache_entry_count());
}

TEST(PmsgCacheConcurrencyTest, AChildForkedWhileThreadsReadCanReadToo) {
    Rows rows(32);
    std::atomic<bool> stop{false};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; t++) {
        readers.emplace_back([&] {
            while (!stop.load())
                for (int i = 0; i < 32; i++) rows.read(i);
        });
    }
    for (int f = 0; f < 20; f++) {
        pid_t pid = fork();
        ASSERT_NE(-1, pid);
        if (pid == 0) {
            /* A shard lock inherited locked would hang here. */
            for (int i = 0; i < 32; i++) {
                qx_value_t back;
                if (qx_pmsg_build_conv_packed_client_value_1(
                        nullptr, 0, QX_SD_PTR_ARRAY, &back, &rows.built[i].slot,
                        rows.built[i].p_area, rows.built[i].used) != 0)
                    _exit(1);
            }
            qx_pmsg_release_client_values_1(nullptr, SIZE_MAX);
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    stop = true;
    for (auto &t : readers) t.join();
    qx_pmsg_release_client_values_1(nullptr, SIZE_MAX);
}

/* A caller's own fork lock, installed after the library was loaded, as the
 * registry installs its ForkMutex handlers at its first tree open. */
pthread_mutex_t g_caller_fork_lock = PTHREAD_MUTEX_INITIALIZER;
void lock_caller() {
    pthread_mutex_lock(&g_caller_fork_lock);
}
void unlock_caller() {
    pthread_mutex_unlock(&g_caller_fork_lock);
}

TEST(PmsgCacheConcurrencyTest, ForkWaitsForACallerThatReleasesValuesUnderItsOwnForkLock) {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] { pthread_atfork(lock_caller, unlock_caller, unlock_caller); });
    alarm(60); /* a lock-order deadlock ends the test instead of hanging it */
    Rows rows(16);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        while (!stop.load()) {
            pthread_mutex_lock(&g_caller_fork_lock);
            for (int i = 0; i < 16; i++) rows.read(i);
            for (const Built &b : rows.built) qx_pmsg_release_client_values_1(&b.slot, 8);
            pthread_mutex_unlock(&g_caller_fork_lock);
        }
    });
    for (int f = 0; f < 50; f++) {
        pid_t pid = fork();
        ASSERT_NE(-1, pid);
        if (pid == 0) {
            qx_value_t back;
            int rc = qx_pmsg_build_conv_packed_client_value_1(
                nullptr, 0, QX_SD_PTR_ARRAY, &back, &rows.built[0].slot, rows.built[0].p_area, -1);
            _exit(rc == 0 ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    stop = true;
    writer.join();
    alarm(0);
    qx_pmsg_release_client_values_1(nullptr, SIZE_MAX);
}

}  // namespace
