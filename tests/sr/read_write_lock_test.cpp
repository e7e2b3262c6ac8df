// The reader/writer lock with real threads, and the lock contracts debug builds check.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "sr_i.h"

namespace {

using namespace std::chrono_literals;

class RwLockConcurrencyTest : public ::testing::Test {
  protected:
    void SetUp() override { sr_i_rw_open(&lock_); }
    void TearDown() override { sr_i_rw_close(&lock_); }

    // A counter, read under the lock's mutex that guards it.
    int Counter(qx_int32_t sr_i_read_write_lock_t::*field) {
        pthread_mutex_lock(&lock_.lock);
        const int value = lock_.*field;
        pthread_mutex_unlock(&lock_.lock);
        return value;
    }
    // Waits (bounded) until a counter reaches a value.
    bool WaitFor(qx_int32_t sr_i_read_write_lock_t::*field, int value) {
        for (int i = 0; i < 2000 && Counter(field) != value; ++i) std::this_thread::sleep_for(1ms);
        return Counter(field) == value;
    }
    // Free, and takes a read and a write again (the queries debug checks use tell them apart).
    void ExpectUsable() {
        EXPECT_EQ(0, sr_i_rw_state(&lock_));
        EXPECT_FALSE(sr_i_rw_held(&lock_));
        EXPECT_EQ(0, sr_i_rw_lock_read(&lock_));
        EXPECT_TRUE(sr_i_rw_held(&lock_) && !sr_i_rw_held_for_write(&lock_));
        EXPECT_EQ(0, sr_i_rw_unlock_read(&lock_));
        EXPECT_EQ(0, sr_i_rw_lock_write(&lock_));
        EXPECT_TRUE(sr_i_rw_held_for_write(&lock_));
        EXPECT_EQ(0, sr_i_rw_unlock_write(&lock_));
    }

    sr_i_read_write_lock_t lock_;
};

// Readers share; a writer waits for the last reader, and its release wakes every waiting reader.
TEST_F(RwLockConcurrencyTest, ReadersShareAndAWriterWaitsForTheLastReader) {
    ASSERT_EQ(0, sr_i_rw_lock_read(&lock_));
    std::thread([&] { EXPECT_EQ(0, sr_i_rw_lock_read(&lock_)); }).join();
    EXPECT_EQ(2, sr_i_rw_state(&lock_));
    std::atomic<bool> writing{false}, release{false};
    std::atomic<int> inside{0};
    std::thread writer([&] {
        EXPECT_EQ(0, sr_i_rw_lock_write(&lock_));
        writing = true;
        EXPECT_TRUE(WaitFor(&sr_i_read_write_lock_t::waiting_readers, 3));
        EXPECT_EQ(0, inside.load());
        EXPECT_EQ(0, sr_i_rw_unlock_write(&lock_));
    });
    ASSERT_TRUE(WaitFor(&sr_i_read_write_lock_t::waiting_writers, 1));
    EXPECT_EQ(0, sr_i_rw_unlock_read(&lock_));
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(writing.load()) << "writer entered while a reader still held the lock";
    EXPECT_EQ(0, sr_i_rw_unlock_read(&lock_));  // the last release wakes it
    while (!writing.load()) std::this_thread::sleep_for(1ms);
    std::thread readers[3];
    for (auto &reader : readers) {
        reader = std::thread([&] {
            EXPECT_EQ(0, sr_i_rw_lock_read(&lock_));
            ++inside;
            while (!release.load()) std::this_thread::sleep_for(1ms);
            EXPECT_EQ(0, sr_i_rw_unlock_read(&lock_));
        });
    }
    writer.join();
    for (int i = 0; i < 2000 && inside.load() < 3; ++i) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(3, inside.load()) << "all readers hold the lock together after the writer";
    EXPECT_EQ(3, sr_i_rw_state(&lock_));
    release = true;
    for (auto &reader : readers) reader.join();
    ExpectUsable();
}

TEST_F(RwLockConcurrencyTest, CancelledWaiterLeavesTheLockClean) {
    for (bool write_held : {true, false}) {
        auto field = write_held ? &sr_i_read_write_lock_t::waiting_readers
                                : &sr_i_read_write_lock_t::waiting_writers;
        ASSERT_EQ(0, write_held ? sr_i_rw_lock_write(&lock_) : sr_i_rw_lock_read(&lock_));
        const int before = Counter(field);
        pthread_t thread;
        // A reader waits for the writer holding the lock, a writer for the reader: cancelled there.
        auto wait = [](void *p) -> void * {
            auto *p_lock = static_cast<sr_i_read_write_lock_t *>(p);
            (sr_i_rw_state(p_lock) < 0 ? sr_i_rw_lock_read : sr_i_rw_lock_write)(p_lock);
            return nullptr;
        };
        ASSERT_EQ(0, pthread_create(&thread, nullptr, wait, &lock_));
        ASSERT_TRUE(WaitFor(field, before + 1));
        ASSERT_EQ(0, pthread_cancel(thread));
        void *result = nullptr;
        ASSERT_EQ(0, pthread_join(thread, &result));
        EXPECT_EQ(PTHREAD_CANCELED, result);
        EXPECT_EQ(Counter(field), before);
        EXPECT_EQ(0, write_held ? sr_i_rw_unlock_write(&lock_) : sr_i_rw_unlock_read(&lock_));
        ExpectUsable();
    }
}

// Racing readers and writers keep exclusion; some reads are released by another thread.
TEST_F(RwLockConcurrencyTest, ReadersAndWritersRacingKeepExclusion) {
    std::atomic<int> readers_inside{0}, writers_inside{0}, violations{0};
    std::atomic<int> handed_over{0};  // reads acquired by readers, released by the releaser
    std::atomic<bool> writers_done{false}, done{false};
    auto reader = [&] {
        for (int i = 0; !writers_done.load(); ++i) {
            ASSERT_EQ(0, sr_i_rw_lock_read(&lock_));
            ++readers_inside;
            for (int spin = 0; spin < 20; ++spin) violations += writers_inside.load() != 0;
            --readers_inside;
            if (i % 64 == 0) {
                ++handed_over;
            } else {
                ASSERT_EQ(0, sr_i_rw_unlock_read(&lock_));
            }
        }
    };
    auto writer = [&] {
        for (int i = 0; i < 500; ++i) {
            ASSERT_EQ(0, sr_i_rw_lock_write(&lock_));
            violations += ++writers_inside != 1;
            for (int spin = 0; spin < 4; ++spin) {
                std::this_thread::yield();  // give a wrongly admitted reader time to show
                violations += readers_inside.load() != 0;
            }
            --writers_inside;
            ASSERT_EQ(0, sr_i_rw_unlock_write(&lock_));
        }
    };
    std::thread releaser([&] {
        while (!done.load() || handed_over.load() != 0) {
            if (handed_over.load() == 0) {
                std::this_thread::yield();
                continue;
            }
            --handed_over;
            ASSERT_EQ(0, sr_i_rw_unlock_read(&lock_));
        }
    });
    std::thread readers[] = {std::thread(reader), std::thread(reader)};
    std::thread writers[] = {std::thread(writer), std::thread(writer)};
    for (auto &thread : writers) thread.join();
    writers_done = true;
    for (auto &thread : readers) thread.join();
    done = true;
    releaser.join();
    EXPECT_EQ(0, violations.load());
    ExpectUsable();
}

// A routine called without the lock its contract names stops a debug build.
TEST(LockContractTest, ARoutineCalledWithoutItsLockStopsADebugBuild) {
#ifdef NDEBUG
    GTEST_SKIP() << "the checks are compiled into debug builds only";
#else
    sr_opaque_handle_t tree = nullptr;
    ASSERT_EQ(sr_open_tree_1(&tree, 0, 0), 0);
    auto *p_tree = static_cast<sr_i_tree_t *>(tree);
    char path[] = "/";
    qx_char_ptr_t *p_list = nullptr;
    qx_uint32_t count = 0;
    EXPECT_DEATH(sr_i_list_tables(p_tree, path, &p_list, &count), "sr_i_rw_held_for_write");
    ASSERT_EQ(sr_i_rw_lock_write(&p_tree->lock), 0);
    EXPECT_EQ(sr_i_list_tables(p_tree, path, &p_list, &count), 0);
    ASSERT_EQ(sr_i_rw_unlock_write(&p_tree->lock), 0);
    EXPECT_EQ(sr_free_table_list_1(p_list, count), 0);
    EXPECT_EQ(sr_close_tree_1(tree), 0);
#endif
}

}  // namespace
