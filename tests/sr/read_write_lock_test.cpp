// The reader/writer lock with real threads: readers share, a writer waits
// for the last reader, a writer's release wakes every waiting reader, and a
// cancelled waiter leaves the lock usable.
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

    // Reads a counter under the lock's mutex (the counters are guarded by it).
    int counter(qx_int32_t sr_i_read_write_lock_t::*field) {
        pthread_mutex_lock(&lock_.lock);
        int value = lock_.*field;
        pthread_mutex_unlock(&lock_.lock);
        return value;
    }

    // Waits until a counter reaches a value (bounded).
    bool wait_for(qx_int32_t sr_i_read_write_lock_t::*field, int value) {
        for (int i = 0; i < 2000; ++i) {
            if (counter(field) == value) return true;
            std::this_thread::sleep_for(1ms);
        }
        return false;
    }

    sr_i_read_write_lock_t lock_;
};

TEST_F(RwLockConcurrencyTest, TwoReadersHoldItTogether) {
    ASSERT_EQ(0, sr_i_rw_lock_read(&lock_));
    std::atomic<bool> second_in{false};
    std::thread reader([&] {
        EXPECT_EQ(0, sr_i_rw_lock_read(&lock_));
        second_in = true;
        EXPECT_EQ(0, sr_i_rw_unlock_read(&lock_));
    });
    reader.join();
    EXPECT_TRUE(second_in.load());
    EXPECT_EQ(1, sr_i_rw_state(&lock_));
    EXPECT_EQ(0, sr_i_rw_unlock_read(&lock_));
}

TEST_F(RwLockConcurrencyTest, WriterWaitsForTheLastReader) {
    ASSERT_EQ(0, sr_i_rw_lock_read(&lock_));
    ASSERT_EQ(0, sr_i_rw_lock_read(&lock_));
    std::atomic<bool> writing{false};
    std::thread writer([&] {
        EXPECT_EQ(0, sr_i_rw_lock_write(&lock_));
        writing = true;
        EXPECT_EQ(0, sr_i_rw_unlock_write(&lock_));
    });
    ASSERT_TRUE(wait_for(&sr_i_read_write_lock_t::waiting_writers, 1));
    EXPECT_EQ(0, sr_i_rw_unlock_read(&lock_));
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(writing.load()) << "writer entered while a reader still held the lock";
    EXPECT_EQ(0, sr_i_rw_unlock_read(&lock_));  // the second release wakes it
    writer.join();
    EXPECT_TRUE(writing.load());
    EXPECT_EQ(0, sr_i_rw_state(&lock_));
    // The writer count only records that a writer came.
    EXPECT_EQ(1, counter(&sr_i_read_write_lock_t::waiting_writers));
}

TEST_F(RwLockConcurrencyTest, WriterReleaseWakesAllWaitingReaders) {
    ASSERT_EQ(0, sr_i_rw_lock_write(&lock_));
    std::atomic<int> inside{0};
    std::atomic<bool> release{false};
    std::thread readers[3];
    for (auto &reader : readers) {
        reader = std::thread([&] {
            EXPECT_EQ(0, sr_i_rw_lock_read(&lock_));
            ++inside;
            while (!release.load()) std::this_thread::sleep_for(1ms);
            EXPECT_EQ(0, sr_i_rw_unlock_read(&lock_));
        });
    }
    ASSERT_TRUE(wait_for(&sr_i_read_write_lock_t::waiting_readers, 3));
    EXPECT_EQ(0, inside.load());
    EXPECT_EQ(0, sr_i_rw_unlock_write(&lock_));
    for (int i = 0; i < 2000 && inside.load() < 3; ++i) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(3, inside.load()) << "all readers hold the lock together after the writer";
    EXPECT_EQ(3, sr_i_rw_state(&lock_));
    release = true;
    for (auto &reader : readers) reader.join();
    EXPECT_EQ(0, sr_i_rw_state(&lock_));
    EXPECT_EQ(0, counter(&sr_i_read_write_lock_t::waiting_readers));
}

TEST_F(RwLockConcurrencyTest, WriterReleaseWithNoReaderWakesOneWriter) {
    ASSERT_EQ(0, sr_i_rw_lock_write(&lock_));
    std::atomic<bool> second{false};
    std::thread writer([&] {
        EXPECT_EQ(0, sr_i_rw_lock_write(&lock_));
        second = true;
        EXPECT_EQ(0, sr_i_rw_unlock_write(&lock_));
    });
    ASSERT_TRUE(wait_for(&sr_i_read_write_lock_t::waiting_writers, 2));
    EXPECT_FALSE(second.load());
    EXPECT_EQ(0, sr_i_rw_unlock_write(&lock_));
    writer.join();
    EXPECT_TRUE(second.load());
}

struct CancelArg {
    sr_i_read_write_lock_t *lock;
    bool write;
};

void *wait_then_be_cancelled(void *p) {
    auto *arg = static_cast<CancelArg *>(p);
    if (arg->write) {
        sr_i_rw_lock_write(arg->lock);
    } else {
        sr_i_rw_lock_read(arg->lock);
    }
    return nullptr;  // not reached: cancelled while waiting
}

TEST_F(RwLockConcurrencyTest, CancelledWaitingReaderLeavesTheLockClean) {
    ASSERT_EQ(0, sr_i_rw_lock_write(&lock_));
    CancelArg arg{&lock_, false};
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(&thread, nullptr, wait_then_be_cancelled, &arg));
    ASSERT_TRUE(wait_for(&sr_i_read_write_lock_t::waiting_readers, 1));
    ASSERT_EQ(0, pthread_cancel(thread));
    void *result = nullptr;
    ASSERT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    EXPECT_EQ(0, counter(&sr_i_read_write_lock_t::waiting_readers));
    EXPECT_EQ(0, sr_i_rw_unlock_write(&lock_));
    // Still usable both ways.
    EXPECT_EQ(0, sr_i_rw_lock_read(&lock_));
    EXPECT_EQ(0, sr_i_rw_unlock_read(&lock_));
    EXPECT_EQ(0, sr_i_rw_lock_write(&lock_));
    EXPECT_EQ(0, sr_i_rw_unlock_write(&lock_));
}

TEST_F(RwLockConcurrencyTest, CancelledWaitingWriterLeavesTheLockClean) {
    ASSERT_EQ(0, sr_i_rw_lock_read(&lock_));
    CancelArg arg{&lock_, true};
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(&thread, nullptr, wait_then_be_cancelled, &arg));
    ASSERT_TRUE(wait_for(&sr_i_read_write_lock_t::waiting_writers, 1));
    ASSERT_EQ(0, pthread_cancel(thread));
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    EXPECT_EQ(0, counter(&sr_i_read_write_lock_t::waiting_writers));
    EXPECT_EQ(0, sr_i_rw_unlock_read(&lock_));
    EXPECT_EQ(0, sr_i_rw_lock_write(&lock_));
    EXPECT_EQ(0, sr_i_rw_unlock_write(&lock_));
}

// Readers on their fast path and writers racing: a writer is always alone,
// readers never see a writer, and some releases land on another thread than
// their acquire (the lock has no owner).
TEST_F(RwLockConcurrencyTest, ReadersAndWritersRacingKeepExclusion) {
    std::atomic<int> readers_inside{0};
    std::atomic<int> writers_inside{0};
    std::atomic<int> violations{0};
    std::atomic<int> handed_over{0};  // reads acquired here, released by the writers' thread
    std::atomic<bool> writers_done{false};
    auto reader = [&] {
        for (int i = 0; !writers_done.load(); ++i) {
            ASSERT_EQ(0, sr_i_rw_lock_read(&lock_));
            ++readers_inside;
            for (int spin = 0; spin < 20; ++spin)
                if (writers_inside.load() != 0) ++violations;
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
            if (++writers_inside != 1) ++violations;
            for (int spin = 0; spin < 4; ++spin) {
                std::this_thread::yield();  // give a wrongly admitted reader time to show
                if (readers_inside.load() != 0) ++violations;
            }
            --writers_inside;
            ASSERT_EQ(0, sr_i_rw_unlock_write(&lock_));
        }
    };
    std::atomic<bool> done{false};
    std::thread releaser([&] {
        // Releases the handed-over reads from a thread that acquired none.
        while (!done.load() || handed_over.load() != 0) {
            if (handed_over.load() != 0) {
                --handed_over;
                ASSERT_EQ(0, sr_i_rw_unlock_read(&lock_));
            } else {
                std::this_thread::yield();
            }
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
    EXPECT_EQ(0, sr_i_rw_state(&lock_));
    EXPECT_EQ(0, sr_i_rw_lock_write(&lock_));
    EXPECT_EQ(0, sr_i_rw_unlock_write(&lock_));
}

}  // namespace
