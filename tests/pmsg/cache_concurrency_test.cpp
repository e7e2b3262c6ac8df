/*
 * cache_concurrency_test.cpp - library-owned client values under concurrent
 * readers, releases and fork().
 */
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include "pmsg_i.h"
#include "pmsg_test_util.h"

namespace {

using pmsg_test::Built;

/* A "table": rows of one composite column each, in one area per row. */
struct Rows {
    explicit Rows(int count) : built(count), values(count) {
        pmsg_test::ValueMaker maker(arena, 1234, false);
        for (int i = 0; i < count; i++) {
            values[i] = maker.make(QX_SD_PTR_ARRAY);
            EXPECT_EQ(0, pmsg_test::build_value(nullptr, QX_SD_PTR_ARRAY, values[i], &built[i]));
        }
    }
    qx_value_t read(int i) const {
        qx_value_t back;
        back.ptr_array = nullptr;
        if (pmsg_test::read(QX_SD_PTR_ARRAY, &back, &built[i].slot, built[i].p_area,
                            built[i].used) != 0) {
            ADD_FAILURE() << "read failed";
        }
        return back;
    }
    void release() const {
        for (const Built &b : built) qx_pmsg_release_client_values_1(&b.slot, 8);
    }
    pmsg_test::Arena arena;
    std::vector<Built> built;
    std::vector<qx_value_t> values;
};

/* Two readers per table, so buckets grow while others look up; every reader
 * of a slot gets the one value built for it; a release of another table
 * runs beside them. */
TEST(PmsgCacheConcurrencyTest, ReadersGetTheirRowsValueBuiltOnceBesideReleases) {
    constexpr int kTables = 4, kRows = 256;
    std::vector<std::unique_ptr<Rows>> tables;
    for (int i = 0; i < kTables; i++) tables.push_back(std::make_unique<Rows>(kRows));
    Rows released(64);
    std::vector<qx_array_t *> first_of_table0(2 * kTables);
    std::vector<std::thread> threads;
    for (int t = 0; t < 2 * kTables; t++) {
        threads.emplace_back([&, t] {
            first_of_table0[t] = tables[0]->read(0).ptr_array;
            const Rows &rows = *tables[t % kTables];
            for (int round = 0; round < 10; round++) {
                for (int i = 0; i < kRows; i++) {
                    std::string why;
                    if (!pmsg_test::values_equal(QX_SD_PTR_ARRAY, rows.values[i], rows.read(i),
                                                 &why))
                        ADD_FAILURE() << why;
                }
                if (tables[0]->read(0).ptr_array != first_of_table0[t]) ADD_FAILURE() << "changed";
            }
        });
    }
    for (int round = 0; round < 200; round++) {
        for (int i = 0; i < 64; i++) released.read(i);
        released.release();
    }
    for (auto &t : threads) t.join();
    for (int t = 1; t < 2 * kTables; t++) EXPECT_EQ(first_of_table0[0], first_of_table0[t]);
    EXPECT_EQ(static_cast<size_t>(kTables * kRows), pmsg_i::cache_entry_count());
    for (const auto &table : tables) table->release();
    EXPECT_EQ(0u, pmsg_i::cache_entry_count());
}

/* A caller's own fork lock, installed after the library was loaded, as the
 * registry installs its handlers at its first tree open. */
pthread_mutex_t g_caller_fork_lock = PTHREAD_MUTEX_INITIALIZER;
void lock_caller() {
    pthread_mutex_lock(&g_caller_fork_lock);
}
void unlock_caller() {
    pthread_mutex_unlock(&g_caller_fork_lock);
}

/* A child forked while threads read (one of them releasing under the
 * caller's fork lock) can read too: a shard lock inherited locked would hang
 * it, a lock-order deadlock would hang the fork (the alarm ends the test). */
TEST(PmsgCacheConcurrencyTest, AChildForkedWhileThreadsReadAndReleaseCanRead) {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] { pthread_atfork(lock_caller, unlock_caller, unlock_caller); });
    alarm(60);
    Rows rows(32);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; t++) {
        threads.emplace_back([&, t] {
            while (!stop.load()) {
                if (t == 0) pthread_mutex_lock(&g_caller_fork_lock);
                for (int i = 0; i < 32; i++) rows.read(i);
                if (t == 0) rows.release();
                if (t == 0) pthread_mutex_unlock(&g_caller_fork_lock);
            }
        });
    }
    for (int f = 0; f < 50; f++) {
        pid_t pid = fork();
        ASSERT_NE(-1, pid);
        if (pid == 0) {
            for (int i = 0; i < 32; i++) {
                qx_value_t back;
                if (pmsg_test::read(QX_SD_PTR_ARRAY, &back, &rows.built[i].slot,
                                    rows.built[i].p_area, -1))
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
    for (auto &t : threads) t.join();
    alarm(0);
    qx_pmsg_release_client_values_1(nullptr, SIZE_MAX);
}

}  // namespace
