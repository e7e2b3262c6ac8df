// The record buffer pool: buffer sizing, the split/whole rule, merging on
// free, the address-ordered free chain across buffers, duplication, the file
// image case, and what every allocation failure leaves behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "sr/test_util.h"
#include "sr_i.h"

using qxtest::last_error;

namespace {

constexpr qx_uint32_t kHeader = SR_I_RECORD_HEADER_LENGTH;

uintptr_t addr(const void *p) {
    return reinterpret_cast<uintptr_t>(p);
}

char *record_at(sr_i_record_buffer_t *p_buffer, qx_uint32_t block_offset) {
    return sr_i_rb_buffer_data(p_buffer) + block_offset - SR_I_RECORD_BUFFER_HEADER_LENGTH;
}

// The free chain as the pool walks it: buffer by buffer in address order,
// each buffer's own part by its links.
std::vector<char *> free_chain(const sr_i_record_buffer_pool_t &pool) {
    std::vector<char *> chain;
    sr_i_record_buffer_t *p_owner = pool.p_first_record_buffer;
    if (p_owner == nullptr) return chain;
    for (qx_uint32_t i = 0; i < p_owner->total_directory; ++i) {
        sr_i_record_buffer_t *p_buffer = p_owner->p_directory[i].p_buffer;
        for (qx_uint32_t offset = p_buffer->first_free; offset != 0;) {
            char *p_record = record_at(p_buffer, offset);
            chain.push_back(p_record);
            offset = offset == p_buffer->last_free ? 0 : sr_i_record_link(p_record);
        }
    }
    return chain;
}

std::vector<sr_i_record_buffer_t *> buffers(const sr_i_record_buffer_pool_t &pool) {
    std::vector<sr_i_record_buffer_t *> result;
    for (sr_i_record_buffer_t *p = pool.p_first_record_buffer; p != nullptr; p = p->p_next) {
        result.push_back(p);
    }
    return result;
}

// Everything the pool promises about itself.  adjacent_free_allowed: a
// duplicated pool may hold free records that touch across a former border.
::testing::AssertionResult pool_is_consistent(const sr_i_record_buffer_pool_t &pool,
                                              bool adjacent_free_allowed = false) {
    std::vector<sr_i_record_buffer_t *> all = buffers(pool);
    if (all.empty()) {
        if (pool.total_bytes != 0 || pool.used_bytes != 0 || pool.p_free_chain != nullptr ||
            pool.p_last_record_buffer != nullptr) {
            return ::testing::AssertionFailure() << "an empty pool with non-zero fields";
        }
        return ::testing::AssertionSuccess();
    }
    if (pool.p_last_record_buffer != all.back()) {
        return ::testing::AssertionFailure() << "last buffer is not the end of the chain";
    }
    sr_i_record_buffer_t *p_owner = all.front();
    if (p_owner->total_directory != all.size()) {
        return ::testing::AssertionFailure() << "directory holds " << p_owner->total_directory
                                             << " of " << all.size() << " buffers";
    }
    std::set<sr_i_record_buffer_t *> in_chain(all.begin(), all.end());
    for (qx_uint32_t i = 0; i < p_owner->total_directory; ++i) {
        const sr_i_record_buffer_slot_t &slot = p_owner->p_directory[i];
        if (in_chain.count(slot.p_buffer) == 0) {
            return ::testing::AssertionFailure() << "directory entry " << i << " is no buffer";
        }
        if (i > 0 && addr(p_owner->p_directory[i - 1].p_buffer) >= addr(slot.p_buffer)) {
            return ::testing::AssertionFailure() << "directory out of address order at " << i;
        }
        const sr_i_record_buffer_slot_t &group =
            p_owner->p_directory[i - i % SR_I_RECORD_BUFFER_GROUP];
        if (slot.max_free > group.group_max_free) {
            return ::testing::AssertionFailure() << "group bound below slot " << i;
        }
        // First fit passes over a buffer on its bound: it must not lie low.
        for (char *p = sr_i_rb_buffer_data(slot.p_buffer); p < sr_i_rb_buffer_end(slot.p_buffer);
             p += std::max<qx_uint32_t>(sr_i_record_length(p), kHeader)) {
            if (sr_i_record_type(p) == SR_I_RECORD_TYPE_FREE &&
                sr_i_record_length(p) > slot.max_free) {
                return ::testing::AssertionFailure()
                       << "buffer " << i << " bound " << slot.max_free << " below a free record of "
                       << sr_i_record_length(p);
            }
        }
    }
    qx_uint64_t total = 0;
    std::set<char *> free_by_type;
    for (sr_i_record_buffer_t *p_buffer : all) {
        total += p_buffer->total_bytes;
        char *p = sr_i_rb_buffer_data(p_buffer);
        char *p_end = sr_i_rb_buffer_end(p_buffer);
        while (p < p_end) {
            qx_uint32_t length = sr_i_record_length(p);
            if (length < kHeader) return ::testing::AssertionFailure() << "record shorter than 12";
            if (sr_i_record_type(p) == SR_I_RECORD_TYPE_FREE) free_by_type.insert(p);
            p += length;
        }
        if (p != p_end) return ::testing::AssertionFailure() << "records overrun their buffer";
    }
    if (total != pool.total_bytes) {
        return ::testing::AssertionFailure()
               << "total_bytes " << pool.total_bytes << " but buffers hold " << total;
    }
    std::vector<char *> chain = free_chain(pool);
    qx_uint64_t free_data = 0;
    for (size_t i = 0; i < chain.size(); ++i) {
        if (i > 0 && addr(chain[i - 1]) >= addr(chain[i])) {
            return ::testing::AssertionFailure() << "chain out of address order at " << i;
        }
        if (sr_i_record_type(chain[i]) != SR_I_RECORD_TYPE_FREE) {
            return ::testing::AssertionFailure() << "allocated record on the chain";
        }
        if (!adjacent_free_allowed && i > 0 &&
            chain[i - 1] + sr_i_record_length(chain[i - 1]) == chain[i]) {
            return ::testing::AssertionFailure() << "two adjacent free records at " << i;
        }
        free_data += sr_i_record_length(chain[i]) - kHeader;
    }
    if (std::set<char *>(chain.begin(), chain.end()) != free_by_type) {
        return ::testing::AssertionFailure() << "free records and chain differ";
    }
    char *p_head = chain.empty() ? nullptr : chain.front();
    if (pool.p_free_chain != p_head) return ::testing::AssertionFailure() << "wrong chain head";
    if (pool.used_bytes != pool.total_bytes - free_data) {
        return ::testing::AssertionFailure()
               << "used_bytes " << pool.used_bytes << " expected " << pool.total_bytes - free_data;
    }
    return ::testing::AssertionSuccess();
}

// Everything observable about a pool, to compare before and after a failure.
struct PoolSnapshot {
    qx_uint32_t total_bytes, used_bytes;
    char *p_free_chain;
    std::vector<sr_i_record_buffer_t *> buffers;
    std::vector<std::pair<char *, qx_uint32_t>> chain;
    bool operator==(const PoolSnapshot &) const = default;
};

PoolSnapshot snapshot(const sr_i_record_buffer_pool_t &pool) {
    PoolSnapshot s{pool.total_bytes, pool.used_bytes, pool.p_free_chain, buffers(pool), {}};
    for (char *p : free_chain(pool)) s.chain.emplace_back(p, sr_i_record_length(p));
    return s;
}

class PoolTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(0, sr_i_rb_initialize_record_buffer_pool(0, &pool_)); }
    void TearDown() override {
        sr_i_alloc_fail_after(-1);
        sr_i_rb_uninitialize_record_buffer_pool(&pool_);
    }
    char *reserve(qx_uint32_t length, qx_int32_t type = SR_I_RECORD_TYPE_ROW) {
        char *p_data = nullptr;
        EXPECT_EQ(0, sr_i_reserve_record(&pool_, length, type, &p_data));
        return p_data;
    }
    sr_i_record_buffer_pool_t pool_{};
};

TEST_F(PoolTest, InitialisedPoolIsEmptyOrOneFreeRecordOverAllPages) {
    EXPECT_TRUE(pool_is_consistent(pool_));  // 0 pages: all fields zero
    EXPECT_EQ(nullptr, pool_.p_first_record_buffer);
    ASSERT_EQ(0, sr_i_rb_initialize_record_buffer_pool(2, &pool_));
    qx_uint32_t size = 2 * static_cast<qx_uint32_t>(sysconf(_SC_PAGESIZE));
    EXPECT_EQ(size, pool_.total_bytes);
    EXPECT_EQ(20u, pool_.used_bytes);
    ASSERT_NE(nullptr, pool_.p_free_chain);
    EXPECT_EQ(size - 8, sr_i_record_length(pool_.p_free_chain));
    EXPECT_EQ(0u, sr_i_record_link(pool_.p_free_chain));
    EXPECT_EQ(0, sr_i_record_type(pool_.p_free_chain));
    EXPECT_EQ(size, pool_.p_first_record_buffer->total_bytes);
    EXPECT_TRUE(pool_is_consistent(pool_));
}

TEST_F(PoolTest, FirstRequestMakesBufferHundredTimesLarger) {
    char *p_data = nullptr;
    char *p_previous = nullptr;
    qx_uint32_t actual = 0;
    ASSERT_EQ(0, sr_i_rb_find_suitable_record(&pool_, 100, &p_data, &p_previous, &actual));
    EXPECT_EQ(10000u, actual);
    EXPECT_EQ(nullptr, p_previous);
    EXPECT_EQ(10020u, pool_.total_bytes);
    EXPECT_EQ(20u, pool_.used_bytes);
    // Finding does not take: a second look finds the same room.
    char *p_again = nullptr;
    ASSERT_EQ(0, sr_i_rb_find_suitable_record(&pool_, 100, &p_again, &p_previous, &actual));
    EXPECT_EQ(p_data, p_again);
    EXPECT_EQ(10020u, pool_.total_bytes);

    ASSERT_EQ(0, sr_i_rb_allocate_record(&pool_, p_data, p_previous, 100, SR_I_RECORD_TYPE_ROW));
    EXPECT_EQ(132u, pool_.used_bytes);
    char *p_header = p_data - kHeader;
    EXPECT_EQ(112u, sr_i_record_length(p_header));
    EXPECT_EQ(SR_I_RECORD_TYPE_ROW, sr_i_record_type(p_header));
    // The rest of the buffer is the one free record, right behind it.
    EXPECT_EQ(p_header + 112, pool_.p_free_chain);
    EXPECT_EQ(10012u - 112u, sr_i_record_length(pool_.p_free_chain));
    EXPECT_TRUE(pool_is_consistent(pool_));
}

TEST_F(PoolTest, RequestsAbove65535BytesGetAnExactBlock) {
    char *p_big = reserve(65536);
    EXPECT_EQ(65556u, pool_.total_bytes);
    EXPECT_EQ(65548u, sr_i_record_length(p_big - kHeader));
    EXPECT_EQ(nullptr, pool_.p_free_chain);  // taken whole, nothing left over
    EXPECT_EQ(65556u, pool_.used_bytes);

    reserve(65535);  // the largest request that is still multiplied
    EXPECT_EQ(65556u + 65535u * 100u + 20u, pool_.total_bytes);
    EXPECT_TRUE(pool_is_consistent(pool_));
}

// Makes free records of the given lengths, in ascending address order, each
// fenced by an allocated record behind it so that none can merge; returns
// their headers.  All are reserved before any is freed, so that no fence
// lands in an earlier free record.
std::vector<char *> fenced_free_records(sr_i_record_buffer_pool_t *p_pool,
                                        std::vector<qx_uint32_t> lengths) {
    std::vector<char *> records;
    for (qx_uint32_t length : lengths) {
        char *p_data = nullptr;
        EXPECT_EQ(0, sr_i_reserve_record(p_pool, length - kHeader, SR_I_RECORD_TYPE_ROW, &p_data));
        char *p_fence = nullptr;
        EXPECT_EQ(0, sr_i_reserve_record(p_pool, 40, SR_I_RECORD_TYPE_ROW, &p_fence));
        records.push_back(p_data - kHeader);
    }
    for (char *p_record : records) EXPECT_EQ(0, sr_i_rb_free_record(p_pool, p_record + kHeader));
    return records;
}

char *fenced_free_record(sr_i_record_buffer_pool_t *p_pool, qx_uint32_t length) {
    return fenced_free_records(p_pool, {length})[0];
}

TEST_F(PoolTest, LeftoverOfThirteenBytesIsTakenAsSlack) {
    char *p_free = fenced_free_record(&pool_, 125);
    ASSERT_EQ(p_free, pool_.p_free_chain);
    qx_uint32_t used = pool_.used_bytes;
    char *p_data = reserve(100);
    EXPECT_EQ(p_free + kHeader, p_data);
    EXPECT_EQ(125u, sr_i_record_length(p_free));  // keeps its 13 bytes of slack
    EXPECT_EQ(used + 113u, pool_.used_bytes);
    EXPECT_NE(p_free, pool_.p_free_chain);
    EXPECT_TRUE(pool_is_consistent(pool_));
}

TEST_F(PoolTest, LeftoverOfFourteenBytesIsSplitOff) {
    char *p_free = fenced_free_record(&pool_, 126);
    qx_uint32_t used = pool_.used_bytes;
    char *p_data = reserve(100);
    EXPECT_EQ(p_free + kHeader, p_data);
    EXPECT_EQ(112u, sr_i_record_length(p_free));
    char *p_split = p_free + 112;
    EXPECT_EQ(p_split, pool_.p_free_chain);
    EXPECT_EQ(14u, sr_i_record_length(p_split));
    EXPECT_EQ(0, sr_i_record_type(p_split));
    EXPECT_EQ(used + 112u, pool_.used_bytes);
    EXPECT_TRUE(pool_is_consistent(pool_));
}

TEST_F(PoolTest, FreeingFirstThirdSecondMergesThreeRecordsIntoOne) {
    char *p_a = reserve(100);
    char *p_b = reserve(200);
    char *p_c = reserve(300);
    reserve(50);  // keeps the three away from the buffer's free tail
    ASSERT_EQ(p_a + 112, p_b);
    ASSERT_EQ(p_b + 212, p_c);
    qx_uint32_t used = pool_.used_bytes;

    ASSERT_EQ(0, sr_i_rb_free_record(&pool_, p_a));
    ASSERT_EQ(0, sr_i_rb_free_record(&pool_, p_c));
    EXPECT_EQ(used - 400u, pool_.used_bytes);
    EXPECT_TRUE(pool_is_consistent(pool_));
    ASSERT_EQ(0, sr_i_rb_free_record(&pool_, p_b));

    EXPECT_EQ(used - (100u + 200u + 300u + 24u), pool_.used_bytes);
    char *p_merged = p_a - kHeader;
    EXPECT_EQ(p_merged, pool_.p_free_chain);
    EXPECT_EQ(112u + 212u + 312u, sr_i_record_length(p_merged));
    EXPECT_EQ(2u, free_chain(pool_).size());  // the merged record and the tail
    EXPECT_TRUE(pool_is_consistent(pool_));
}

TEST_F(PoolTest, FirstFitTakesTheLowestRecordThatIsLargeEnough) {
    std::vector<char *> records = fenced_free_records(&pool_, {60, 300, 400});
    char *p_small = records[0];
    char *p_large = records[1];
    char *p_larger = records[2];
    ASSERT_LT(addr(p_small), addr(p_large));
    ASSERT_LT(addr(p_large), addr(p_larger));
    char *p_data = nullptr;
    char *p_previous = nullptr;
    qx_uint32_t actual = 0;
    ASSERT_EQ(0, sr_i_rb_find_suitable_record(&pool_, 200, &p_data, &p_previous, &actual));
    EXPECT_EQ(p_large + kHeader, p_data);
    EXPECT_EQ(p_small, p_previous);
    EXPECT_EQ(288u, actual);
}

TEST_F(PoolTest, MisuseIsRefusedAndChangesNothing) {
    char *p_data = nullptr;
    char *p_previous = nullptr;
    qx_uint32_t actual = 0;
    char *p_taken = reserve(50);
    char *p_freed = reserve(50);
    reserve(50);
    ASSERT_EQ(0, sr_i_rb_free_record(&pool_, p_freed));
    ASSERT_EQ(0, sr_i_rb_find_suitable_record(&pool_, 100, &p_data, &p_previous, &actual));
    PoolSnapshot before = snapshot(pool_);

    // More than the free record holds: an internal inconsistency, reported.
    EXPECT_EQ(15, sr_i_rb_allocate_record(&pool_, p_data, p_previous, actual + 1, 2));
    EXPECT_EQ(15, last_error().code);
    EXPECT_NE(std::string::npos, last_error().message.find("sr_i_rb_allocate_record"));
    // A record that is not free, an address outside the pool.
    EXPECT_EQ(15, sr_i_rb_allocate_record(&pool_, p_taken, nullptr, 10, 2));
    char outside[64] = {};
    EXPECT_EQ(15, sr_i_rb_allocate_record(&pool_, outside + kHeader, nullptr, 4, 2));
    EXPECT_EQ(15, sr_i_rb_free_record(&pool_, outside + kHeader));
    // Freeing a free record again frees nothing.
    EXPECT_EQ(0, sr_i_rb_free_record(&pool_, p_freed));
    EXPECT_EQ(before, snapshot(pool_));
    EXPECT_TRUE(pool_is_consistent(pool_));
}

TEST_F(PoolTest, StaleCallerPredecessorIsNotTrusted) {
    std::vector<char *> records = fenced_free_records(&pool_, {200, 200});
    char *p_a = records[0];
    char *p_b = records[1];
    char *p_data = nullptr;
    char *p_previous = nullptr;
    qx_uint32_t actual = 0;
    ASSERT_EQ(0, sr_i_rb_find_suitable_record(&pool_, 150, &p_data, &p_previous, &actual));
    ASSERT_EQ(p_a + kHeader, p_data);
    // Take p_b, passing a predecessor that is no longer right (p_a's own
    // predecessor, NULL): the pool finds the real one.
    ASSERT_EQ(0, sr_i_rb_allocate_record(&pool_, p_b + kHeader, nullptr, 188, 2));
    EXPECT_TRUE(pool_is_consistent(pool_));
    EXPECT_EQ(p_a, pool_.p_free_chain);
}

TEST_F(PoolTest, ZeroLengthRecordsAreRecords) {
    char *p_empty = reserve(0);
    EXPECT_EQ(100u * 0u + 20u, pool_.total_bytes);  // a buffer with no capacity
    EXPECT_EQ(12u, sr_i_record_length(p_empty - kHeader));
    char *p_also = reserve(0);
    EXPECT_NE(p_empty, p_also);
    ASSERT_EQ(0, sr_i_rb_free_record(&pool_, p_empty));
    EXPECT_TRUE(pool_is_consistent(pool_));
}

// A table's file is read straight into room found in an empty pool, over the
// room's own header, and that room is then taken as one record.  The link
// word the file brings along must never become part of the chain.
TEST_F(PoolTest, LinkWordFromAFileImageNeverReachesTheChain) {
    constexpr qx_uint32_t kImage = 300;  // bytes "read"
    char *p_data = nullptr;
    char *p_previous = nullptr;
    qx_uint32_t actual = 0;
    ASSERT_EQ(0, sr_i_rb_find_suitable_record(&pool_, kImage + 500 - kHeader, &p_data, &p_previous,
                                              &actual));
    char *p_room = p_data - kHeader;
    qx_uint32_t room_length = sr_i_record_length(p_room);
    // The image: a metadata record of 100 bytes whose link word points (as a
    // block offset of this very buffer) at a free record of the image, then
    // that free record of 100 bytes, then a row record of 100 bytes.
    std::vector<char> image(kImage);
    char *p_image = image.data();
    sr_i_set_record_length(p_image, 100);
    sr_i_set_record_link(p_image, 8 + 100);
    sr_i_set_record_type(p_image, SR_I_RECORD_TYPE_METADATA);
    sr_i_set_record_length(p_image + 100, 100);
    sr_i_set_record_link(p_image + 100, 8 + 200);
    sr_i_set_record_type(p_image + 100, SR_I_RECORD_TYPE_FREE);
    sr_i_set_record_length(p_image + 200, 100);
    sr_i_set_record_link(p_image + 200, 12345);
    sr_i_set_record_type(p_image + 200, SR_I_RECORD_TYPE_ROW);
    memcpy(p_room, p_image, kImage);

    qx_uint32_t saved_length = sr_i_record_length(p_room);
    sr_i_set_record_length(p_room, room_length);
    ASSERT_EQ(0, sr_i_rb_allocate_record(&pool_, p_data, p_previous, kImage - kHeader,
                                         SR_I_RECORD_TYPE_METADATA));
    sr_i_set_record_length(p_room, saved_length);

    // Only the unused tail is free; the image's free record is not yet.
    std::vector<char *> chain = free_chain(pool_);
    ASSERT_EQ(1u, chain.size());
    EXPECT_EQ(p_room + kImage, chain[0]);
    // Freeing the image's free record, as the loader does, chains it properly.
    ASSERT_EQ(0, sr_i_rb_free_record(&pool_, p_room + 100 + kHeader));
    chain = free_chain(pool_);
    ASSERT_EQ(2u, chain.size());
    EXPECT_EQ(p_room + 100, chain[0]);
    EXPECT_EQ(p_room + kImage, chain[1]);
    EXPECT_TRUE(pool_is_consistent(pool_));
}

// Loading a file walks its records in order, freeing the dead ones (old
// commit records, free space) as it meets them and, now and then, an earlier
// row that a later record supersedes; the image's unused tail is already the
// last free record.
TEST_F(PoolTest, DeadRecordsOfAnImageFreedInFileOrderAreChainedInOrder) {
    constexpr qx_uint32_t kRecords = 4000;
    constexpr qx_uint32_t kLength = 40;
    char *p_image = reserve(kRecords * kLength - kHeader, SR_I_RECORD_TYPE_METADATA);
    char *p_first = p_image - kHeader;
    for (qx_uint32_t i = 0; i < kRecords; ++i) {
        char *p = p_first + i * kLength;
        sr_i_set_record_length(p, kLength);
        sr_i_set_record_link(p, 0xDEAD0000u + i);  // what a file brings along
        sr_i_set_record_type(p, i % 3 == 1 ? SR_I_RECORD_TYPE_FREE : SR_I_RECORD_TYPE_ROW);
    }
    std::mt19937 random(4);
    std::set<qx_uint32_t> superseded;
    for (qx_uint32_t i = 0; i < kRecords; ++i) {
        if (i % 3 == 1) {
            ASSERT_EQ(0, sr_i_rb_free_record(&pool_, p_first + i * kLength + kHeader));
        } else if (i > 10 && random() % 4 == 0) {
            qx_uint32_t earlier = (random() % (i / 3)) * 3;  // a row record before this one
            if (superseded.insert(earlier).second) {
                ASSERT_EQ(0, sr_i_rb_free_record(&pool_, p_first + earlier * kLength + kHeader));
            }
        }
    }
    ASSERT_TRUE(pool_is_consistent(pool_));
    // Each superseded row lies just before a dead record and merges with it.
    qx_uint32_t dead = kRecords / 3 + static_cast<qx_uint32_t>(superseded.size());
    qx_uint32_t free_records = static_cast<qx_uint32_t>(free_chain(pool_).size());
    EXPECT_EQ(kRecords / 3, free_records);
    EXPECT_EQ(pool_.total_bytes - (dead * kLength - free_records * kHeader), pool_.used_bytes);
}

TEST_F(PoolTest, DuplicatingThreeBuffersYieldsOneBufferSixteenBytesSmaller) {
    char *p_row = reserve(100);
    memcpy(p_row, "first buffer", 13);
    char *p_big = reserve(70000);
    memcpy(p_big, "second buffer", 14);
    char *p_bigger = reserve(80000);
    memcpy(p_bigger, "third buffer", 13);
    char *p_gap = reserve(50);
    reserve(50);
    ASSERT_EQ(0, sr_i_rb_free_record(&pool_, p_gap));
    ASSERT_EQ(3u, buffers(pool_).size());

    sr_i_record_buffer_pool_t copy{};
    sr_i_record_buffer_pool_duplication_map_t *p_map = nullptr;
    ASSERT_EQ(0, sr_i_rb_duplicate_record_buffer_pool(&pool_, &copy, &p_map));
    EXPECT_EQ(pool_.total_bytes - 16, copy.total_bytes);
    EXPECT_EQ(pool_.used_bytes - 16, copy.used_bytes);
    ASSERT_EQ(1u, buffers(copy).size());
    EXPECT_EQ(copy.total_bytes, copy.p_first_record_buffer->total_bytes);
    EXPECT_EQ(3u, p_map->total);

    EXPECT_STREQ("first buffer", sr_i_rb_map_duplicated_address(p_map, p_row));
    EXPECT_STREQ("second buffer", sr_i_rb_map_duplicated_address(p_map, p_big));
    EXPECT_STREQ("third buffer", sr_i_rb_map_duplicated_address(p_map, p_bigger));
    EXPECT_EQ(nullptr, sr_i_rb_map_duplicated_address(p_map, nullptr));
    char outside = 0;
    EXPECT_EQ(nullptr, sr_i_rb_map_duplicated_address(p_map, &outside));

    // Every free record of the source is free in the copy, in the same order.
    std::vector<char *> source_chain = free_chain(pool_);
    std::vector<char *> copy_chain = free_chain(copy);
    ASSERT_EQ(source_chain.size(), copy_chain.size());
    std::set<char *> mapped;
    for (char *p : source_chain) mapped.insert(sr_i_rb_map_duplicated_address(p_map, p));
    EXPECT_EQ(mapped, std::set<char *>(copy_chain.begin(), copy_chain.end()));
    EXPECT_TRUE(pool_is_consistent(copy, true));

    // The copy is a working pool of its own.
    char *p_new = nullptr;
    ASSERT_EQ(0, sr_i_reserve_record(&copy, 30, 2, &p_new));
    ASSERT_EQ(0, sr_i_rb_free_record(&copy, sr_i_rb_map_duplicated_address(p_map, p_row)));
    EXPECT_TRUE(pool_is_consistent(copy, true));
    EXPECT_TRUE(pool_is_consistent(pool_));

    sr_i_rb_free_duplication_map(p_map);
    sr_i_rb_uninitialize_record_buffer_pool(&copy);
}

TEST_F(PoolTest, DuplicatingAnEmptyPoolYieldsAnEmptyPool) {
    sr_i_record_buffer_pool_t copy{};
    sr_i_record_buffer_pool_duplication_map_t *p_map = nullptr;
    ASSERT_EQ(0, sr_i_rb_duplicate_record_buffer_pool(&pool_, &copy, &p_map));
    EXPECT_EQ(0u, p_map->total);
    EXPECT_TRUE(pool_is_consistent(copy));
    EXPECT_EQ(nullptr, copy.p_first_record_buffer);
    sr_i_rb_free_duplication_map(p_map);
}

// The lowest free record of at least `length` data bytes, by the chain.
char *expected_first_fit(const sr_i_record_buffer_pool_t &pool, qx_uint32_t length) {
    for (char *p : free_chain(pool)) {
        if (sr_i_record_length(p) - kHeader >= length) return p + kHeader;
    }
    return nullptr;
}

TEST_F(PoolTest, FirstFitAmongHundredsOfBuffersIsStillTheLowestRecord) {
    // 300 buffers of exactly one record each, in whatever address order
    // malloc gives; then holes of different sizes at random places.
    std::vector<char *> records;
    for (int i = 0; i < 300; ++i) records.push_back(reserve(66000 + (i % 7) * 100));
    ASSERT_EQ(300u, buffers(pool_).size());
    ASSERT_EQ(nullptr, pool_.p_free_chain);
    std::mt19937 random(99);
    int fits = 0;
    for (int round = 0; round < 400; ++round) {
        size_t i = random() % records.size();
        if (records[i] != nullptr) {
            ASSERT_EQ(0, sr_i_rb_free_record(&pool_, records[i]));
            records[i] = nullptr;
        }
        qx_uint32_t length = 60000 + random() % 7000;
        char *p_expected = expected_first_fit(pool_, length);
        if (p_expected == nullptr) continue;  // finding would add a buffer
        ++fits;
        char *p_data = nullptr;
        char *p_previous = nullptr;
        qx_uint32_t actual = 0;
        ASSERT_EQ(0, sr_i_rb_find_suitable_record(&pool_, length, &p_data, &p_previous, &actual));
        ASSERT_EQ(p_expected, p_data) << "round " << round;
        if (random() % 2 == 0) {
            ASSERT_EQ(0, sr_i_rb_allocate_record(&pool_, p_data, p_previous, length, 2));
            for (auto &p : records) {
                if (p == nullptr) {
                    p = p_data;
                    break;
                }
            }
        }
        ASSERT_TRUE(pool_is_consistent(pool_));
    }
    EXPECT_GT(fits, 200);
    EXPECT_EQ(300u, buffers(pool_).size());
}

// Random reserve/free against a model of what each record holds.
TEST_F(PoolTest, RandomReservesAndFreesKeepEveryPromise) {
    std::mt19937 random(12345);
    std::vector<std::pair<char *, std::string>> live;
    for (int step = 0; step < 6000; ++step) {
        bool do_free = !live.empty() && random() % 100 < 45;
        if (do_free) {
            size_t i = random() % live.size();
            ASSERT_EQ(0, memcmp(live[i].first, live[i].second.data(), live[i].second.size()));
            ASSERT_EQ(0, sr_i_rb_free_record(&pool_, live[i].first));
            live[i] = live.back();
            live.pop_back();
        } else {
            qx_uint32_t length = random() % 3 == 0 ? random() % 2000 : random() % 120;
            if (random() % 200 == 0) length = 66000 + random() % 5000;
            // First fit: the lowest free record that is large enough, and
            // its predecessor on the chain.
            std::vector<char *> chain = free_chain(pool_);
            auto fit = std::find_if(chain.begin(), chain.end(), [&](char *p) {
                return sr_i_record_length(p) - kHeader >= length;
            });
            char *p_found = nullptr;
            char *p_previous = nullptr;
            qx_uint32_t actual = 0;
            ASSERT_EQ(0,
                      sr_i_rb_find_suitable_record(&pool_, length, &p_found, &p_previous, &actual));
            if (fit != chain.end()) {
                ASSERT_EQ(*fit + kHeader, p_found) << "step " << step;
                ASSERT_EQ(fit == chain.begin() ? nullptr : *(fit - 1), p_previous);
            }
            char *p_data = reserve(length);
            ASSERT_EQ(p_found, p_data);
            ASSERT_NE(nullptr, p_data);
            std::string content(length, static_cast<char>('a' + step % 26));
            memcpy(p_data, content.data(), length);
            live.emplace_back(p_data, content);
        }
        if (step % 97 == 0) {
            ASSERT_TRUE(pool_is_consistent(pool_)) << "step " << step;
        }
    }
    for (auto &[p_data, content] : live) {
        ASSERT_EQ(0, memcmp(p_data, content.data(), content.size()));
        ASSERT_EQ(0, sr_i_rb_free_record(&pool_, p_data));
    }
    ASSERT_TRUE(pool_is_consistent(pool_));
    // Everything freed: each buffer is one free record again.
    EXPECT_EQ(buffers(pool_).size(), free_chain(pool_).size());
    EXPECT_EQ(20u * buffers(pool_).size(), pool_.used_bytes);
}

// Thousands of records of one large buffer freed in a scrambled order, with
// first-fit reserves in between (the old versions of rows a commit replaces):
// the chain stays the address-ordered, merged list of free records.
TEST_F(PoolTest, ScrambledFreesInOneLargeBufferKeepTheChainOrdered) {
    std::mt19937 random(777);
    std::vector<char *> live;
    ASSERT_NE(nullptr, reserve(3000));  // buffers of 300,000 data bytes
    for (int i = 0; i < 8000; ++i) {
        char *p = reserve(10 + random() % 40);
        ASSERT_NE(nullptr, p);
        live.push_back(p);
    }
    std::shuffle(live.begin(), live.end(), random);
    for (size_t i = 0; i < live.size(); ++i) {
        ASSERT_EQ(0, sr_i_rb_free_record(&pool_, live[i]));
        if (i % 5 == 0) {
            qx_uint32_t length = 5 + random() % 60;
            std::vector<char *> chain = free_chain(pool_);
            auto fit = std::find_if(chain.begin(), chain.end(), [&](char *p) {
                return sr_i_record_length(p) - kHeader >= length;
            });
            char *p_data = reserve(length);
            if (fit != chain.end()) {
                ASSERT_EQ(*fit + kHeader, p_data) << "step " << i;
            }
            live.push_back(p_data);
        }
        if (i % 499 == 0) {
            ASSERT_TRUE(pool_is_consistent(pool_)) << "step " << i;
        }
    }
    ASSERT_TRUE(pool_is_consistent(pool_));
}

// Runs `attempt` with the n-th allocation failing, n = 0, 1, ... until it
// runs without meeting the failure; `on_failure` checks each failed run.
template <typename Attempt, typename OnFailure>
int fail_each_allocation(Attempt attempt, OnFailure on_failure) {
    int failures = 0;
    for (qx_int64_t n = 0; n < 1000; ++n) {
        sr_i_alloc_fail_after(n);
        qx_int32_t rc = attempt();
        bool failed = !sr_i_alloc_failure_pending();
        sr_i_alloc_fail_after(-1);
        if (!failed) {
            EXPECT_EQ(0, rc) << "with no failure injected";
            return failures;
        }
        ++failures;
        on_failure(rc);
    }
    ADD_FAILURE() << "never succeeded";
    return failures;
}

TEST_F(PoolTest, EveryAllocationFailureReturns12AndLeavesThePoolAsItWas) {
    // A new buffer in an empty pool (buffer and directory), then in a pool
    // whose directory must grow.
    for (int round = 0; round < 12; ++round) {
        PoolSnapshot before = snapshot(pool_);
        char *p_data = nullptr;
        int failures = fail_each_allocation(
            [&] { return sr_i_reserve_record(&pool_, 70000 + round, 2, &p_data); },
            [&](qx_int32_t rc) {
                EXPECT_EQ(12, rc);
                EXPECT_EQ(12, last_error().code);
                EXPECT_EQ(before, snapshot(pool_));
                EXPECT_TRUE(pool_is_consistent(pool_));
            });
        EXPECT_GE(failures, 1);
    }
    EXPECT_EQ(12u, buffers(pool_).size());
    EXPECT_TRUE(pool_is_consistent(pool_));
}

TEST_F(PoolTest, InitialisationFailureLeavesAnEmptyPool) {
    sr_i_rb_uninitialize_record_buffer_pool(&pool_);
    int failures =
        fail_each_allocation([&] { return sr_i_rb_initialize_record_buffer_pool(1, &pool_); },
                             [&](qx_int32_t rc) {
                                 EXPECT_EQ(12, rc);
                                 EXPECT_TRUE(pool_is_consistent(pool_));
                                 EXPECT_EQ(nullptr, pool_.p_first_record_buffer);
                             });
    EXPECT_EQ(2, failures);
}

TEST_F(PoolTest, DuplicationFailureFreesEverythingItMade) {
    reserve(100);
    reserve(70000);
    PoolSnapshot before = snapshot(pool_);
    sr_i_record_buffer_pool_t copy{};
    sr_i_record_buffer_pool_duplication_map_t *p_map = nullptr;
    int failures = fail_each_allocation(
        [&] {
            memset(&copy, 0, sizeof copy);
            p_map = nullptr;
            return sr_i_rb_duplicate_record_buffer_pool(&pool_, &copy, &p_map);
        },
        [&](qx_int32_t rc) {
            EXPECT_EQ(12, rc);
            EXPECT_EQ(nullptr, p_map);
            EXPECT_EQ(nullptr, copy.p_first_record_buffer);
            EXPECT_EQ(before, snapshot(pool_));
        });
    EXPECT_EQ(6, failures);  // map, three arrays, buffer, directory
    sr_i_rb_free_duplication_map(p_map);
    sr_i_rb_uninitialize_record_buffer_pool(&copy);
}

// Tables are locked one by one, so different tables' pools and indexes are
// worked on at the same time; all of them share the allocation seam.
TEST(EngineConcurrencyTest, SeparateTablesWorkSideBySide) {
    constexpr int kThreads = 4;
    std::vector<std::thread> threads;
    std::vector<int> failures(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &failures] {
            sr_i_record_buffer_pool_t pool{};
            sr_hash_table_t *p_index = nullptr;
            if (sr_i_hash_table_open(0, nullptr, nullptr, &p_index) != 0) ++failures[t];
            std::vector<char *> rows;
            std::mt19937 random(t);
            for (qx_uint32_t i = 0; i < 3000; ++i) {
                char *p_row = nullptr;
                if (sr_i_reserve_record(&pool, 20 + random() % 200, 2, &p_row) != 0) {
                    ++failures[t];
                    continue;
                }
                qx_resource_handle_t key{1, {2, 3, static_cast<qx_uint32_t>(t), i}};
                memcpy(p_row, &key, sizeof key);
                qx_uint32_t bucket;
                sr_hash_table_element_t *p_element;
                if (sr_i_hash_table_add(p_index, p_row, i, &bucket, &p_element, SR_PRIMARY_KEY)) {
                    ++failures[t];
                }
                rows.push_back(p_row);
                if (random() % 3 == 0) {
                    size_t j = random() % rows.size();
                    if (sr_i_hash_table_remove(p_index, rows[j]) != 0) ++failures[t];
                    sr_i_rb_free_record(&pool, rows[j]);
                    rows[j] = rows.back();
                    rows.pop_back();
                }
            }
            for (char *p_row : rows) {
                qx_uint32_t row = 0;
                if (sr_i_hash_table_get_index(p_index, p_row, &row, nullptr) != 0) ++failures[t];
            }
            if (!pool_is_consistent(pool)) ++failures[t];
            sr_i_hash_table_close(p_index);
            sr_i_rb_uninitialize_record_buffer_pool(&pool);
        });
    }
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(std::vector<int>(kThreads, 0), failures);
}

TEST_F(PoolTest, PoolsBeyondFourGigabytesAreRefused) {
    char *p_data = nullptr;
    EXPECT_EQ(12, sr_i_reserve_record(&pool_, UINT32_MAX - 10, 2, &p_data));
    EXPECT_TRUE(pool_is_consistent(pool_));
    EXPECT_EQ(nullptr, pool_.p_first_record_buffer);
}

}  // namespace
