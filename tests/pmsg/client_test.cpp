// Client values: placement, ownership, untrusted bytes, other byte order, threads and fork().
#include <gtest/gtest.h>
#include <malloc.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include "pmsg_i.h"
#include "pmsg_test_util.h"

namespace {

using pmsg_test::Arena;
using pmsg_test::Built;
using pmsg_test::read;
using pmsg_test::ValueMaker;

class PmsgClientValueTest : public ::testing::Test {
  protected:
    void TearDown() override { qx_pmsg_release_client_values_1(nullptr, SIZE_MAX); }
    Arena arena;
};

// In place when the layout allows, else cached; deep copies outlive the bytes (ASan watches).
TEST_F(PmsgClientValueTest, RandomValuesComeBackInEachOwnershipModeAndFromTheOtherByteOrder) {
    for (uint32_t seed = 1; seed <= 40; seed++) {
        ValueMaker maker(arena, seed);
        for (int type = QX_INT32; type <= QX_SD_PTR_ARRAY; type++) {
            SCOPED_TRACE("seed " + std::to_string(seed) + " type " + std::to_string(type));
            const bool scalar = pmsg_test::is_scalar_type(type);
            const bool in_place = type < QX_CHAR_PTR_ARRAY;
            const uintptr_t alignment = type == QX_CHAR_PTR ? 1 : type <= QX_SBS_PTR ? 4 : 8;
            qx_value_t value = maker.make(type);
            qx_value_t back, deep[2];
            for (size_t shift : {0, 3}) {
                Built built;
                ASSERT_EQ(0, pmsg_test::build_value(nullptr, type, value, &built, shift));
                EXPECT_EQ(built.room, built.used) << "the size call disagrees with the build";
                std::vector<uint64_t> moved = built.storage;  // forms are relocatable
                std::fill(built.storage.begin(), built.storage.end(), ~0ull);
                built.p_area = reinterpret_cast<uint8_t *>(moved.data()) + shift;
                const char *p_form =
                    reinterpret_cast<char *>(built.p_area) + built.slot.anchor.offset;
                for (qx_uint32_t flags :
                     {0u, QX_PMSG_CLIENT_MALLOC, QX_PMSG_CLIENT_MALLOC | QX_PMSG_CLIENT_DEEP}) {
                    qx_value_t &out =
                        flags == 0 || flags == QX_PMSG_CLIENT_MALLOC ? back : deep[shift != 0];
                    ASSERT_EQ(0, read(type, &out, &built.slot, built.p_area, built.used, flags));
                    EXPECT_EQ(pmsg_test::form(type, value), pmsg_test::form(type, out));
                    if (scalar) continue;
                    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(out.ptr_char) % alignment);
                    // Texts need no alignment; structured data is in place when all scalars.
                    const bool here = flags == 0 && in_place && (shift == 0 || alignment == 1);
                    if (type != QX_SD_PTR) {
                        EXPECT_EQ(here, p_form == out.ptr_char);
                        EXPECT_TRUE(!here || pmsg_i::cache_entry_count() == 0);
                    }
                    if (flags == QX_PMSG_CLIENT_MALLOC) free(out.ptr_char);
                }
            }
            for (qx_value_t &copy : deep) {
                EXPECT_EQ(pmsg_test::form(type, value), pmsg_test::form(type, copy));
                if (!scalar) free(copy.ptr_char);
            }
            qx_pmsg_release_client_values_1(nullptr, SIZE_MAX);
            Built built;
            ASSERT_EQ(0, pmsg_test::build_value(nullptr, type, value, &built));
            const std::vector<uint64_t> original = built.storage;
            const qx_pmsg_value_t original_slot = built.slot;
            pmsg_test::value_to_other_order(type, reinterpret_cast<uint8_t *>(&built.slot),
                                            built.p_area);
            const auto t = static_cast<qx_data_type_t>(type);
            ASSERT_EQ(0, seed % 2 ? qx_pmsg_convert_pmsg_value_bounded_1(&built.slot, t,
                                                                         built.p_area, built.used)
                                  : qx_pmsg_convert_pmsg_value_1(&built.slot, t, built.p_area));
            EXPECT_EQ(0, memcmp(&original_slot, &built.slot, 8));
            EXPECT_TRUE(original == built.storage);
        }
    }
    // Structured data of scalars is read in place; with a text, built, the text still in place.
    qx_structured_data_t *sd =
        arena.sd({{QX_INT64, 0, {.val_int64 = 42}}, {QX_FLOAT32, 0, {.val_float32 = 0.25f}}});
    qx_value_t value{.ptr_sd = sd};
    Built built;
    ASSERT_EQ(0, pmsg_test::build_value(nullptr, QX_SD_PTR, value, &built));
    qx_value_t back;
    ASSERT_EQ(0, read(QX_SD_PTR, &back, &built.slot, built.p_area, built.used));
    EXPECT_EQ(reinterpret_cast<qx_structured_data_t *>(built.p_area), back.ptr_sd);
    sd->elements[1] = {QX_CHAR_PTR, 0, {.ptr_char = arena.text("in place")}};
    ASSERT_EQ(0, pmsg_test::build_value(nullptr, QX_SD_PTR, value, &built));
    ASSERT_EQ(0, read(QX_SD_PTR, &back, &built.slot, built.p_area, built.used));
    EXPECT_NE(reinterpret_cast<qx_structured_data_t *>(built.p_area), back.ptr_sd);
    EXPECT_EQ(built.p_area + 40,
              reinterpret_cast<uint8_t *>(back.ptr_sd->elements[1].value.ptr_char));
    // Packed rows: a caller-owned array of binaries pointing at the rows in the buffer.
    value.ptr_array = arena.array(
        {{.ptr_binary = arena.binary("row zero")}, {.ptr_binary = arena.binary("row one!")}});
    ASSERT_EQ(0, pmsg_test::build_value(nullptr, QX_BINARY_PTR_ARRAY, value, &built));
    ASSERT_EQ(0, read(QX_BINARY_PTR_ARRAY, &back, &built.slot, built.p_area, built.used,
                      QX_PMSG_CLIENT_MALLOC));
    uint8_t *p_form = built.p_area + built.slot.anchor.offset;
    EXPECT_EQ(p_form + pmsg_test::rd32(p_form + 8),
              reinterpret_cast<uint8_t *>(back.ptr_array->elements[0].ptr_binary));
    free(back.ptr_array);
}

TEST_F(PmsgClientValueTest, RereadsOfASlotAllocateNothingAndARewrittenSlotIsNeverStale) {
    ValueMaker maker(arena, 5, false);
    std::vector<Built> row(QX_NUMBER_OF_DATA_TYPES);
    std::vector<qx_value_t> first(QX_NUMBER_OF_DATA_TYPES);
    for (int type = QX_INT32; type <= QX_SD_PTR_ARRAY; type++) {
        ASSERT_EQ(0, pmsg_test::build_value(nullptr, type, maker.make(type), &row[type], 5));
        ASSERT_EQ(0, read(type, &first[type], &row[type].slot, row[type].p_area, -1));
    }
    size_t entries = pmsg_i::cache_entry_count();
    EXPECT_GT(entries, 0u);
    struct mallinfo2 before = mallinfo2();
    for (int round = 0; round < 1000000 / (QX_SD_PTR_ARRAY - 1); round++) {
        for (int type = QX_INT32; type <= QX_SD_PTR_ARRAY; type++) {
            qx_value_t again;
            ASSERT_EQ(0, read(type, &again, &row[type].slot, row[type].p_area, -1));
            ASSERT_EQ(first[type].val_uint64, again.val_uint64);
        }
    }
    EXPECT_EQ(entries, pmsg_i::cache_entry_count());
    EXPECT_EQ(before.uordblks, mallinfo2().uordblks) << "a million reads allocate nothing";
    qx_pmsg_release_client_values_1(nullptr, SIZE_MAX);
    // A rewritten slot never yields the stale value; a release drops a range.
    qx_array_t *texts = arena.array(std::vector<qx_value_t>(1));
    qx_value_t value;
    value.ptr_array = texts;
    std::vector<uint64_t> area(16);
    qx_pmsg_value_t slot;
    qx_value_t back;
    // Same slot, same anchor shape, different bytes: a record reused in place.
    for (const char *text : {"first", "other"}) {
        texts->elements[0].ptr_char = arena.text(text);
        qx_uint32_t running = 0;
        ASSERT_EQ(0, qx_pmsg_build_conv_protocol_value_1(nullptr, 0, QX_CHAR_PTR_ARRAY, &value,
                                                         &slot, area.data(), 128, &running));
        ASSERT_EQ(0, read(QX_CHAR_PTR_ARRAY, &back, &slot, area.data(), 128));
        EXPECT_STREQ(text, back.ptr_array->elements[0].ptr_char);
    }
    EXPECT_EQ(1u, pmsg_i::cache_entry_count()) << "the stale value was dropped, not kept";

    // Four copies of a slot, 8 bytes apart, at an odd place in a record.
    Built built;
    ASSERT_EQ(0, pmsg_test::build_value(nullptr, QX_SD_PTR_ARRAY,
                                        ValueMaker(arena, 21).make(QX_SD_PTR_ARRAY), &built));
    qx_pmsg_release_client_values_1(nullptr, SIZE_MAX);
    std::vector<uint8_t> record(1000);
    for (int i = 0; i < 4; i++) {
        memcpy(record.data() + 301 + 8 * i, &built.slot, 8);
        ASSERT_EQ(
            0, read(QX_SD_PTR_ARRAY, &back, record.data() + 301 + 8 * i, built.p_area, built.used));
    }
    ASSERT_EQ(4u, pmsg_i::cache_entry_count());
    qx_pmsg_release_client_values_1(record.data() + 309, 16); /* the second and third */
    EXPECT_EQ(2u, pmsg_i::cache_entry_count());
    qx_pmsg_release_client_values_1(record.data(), 0);
    EXPECT_EQ(2u, pmsg_i::cache_entry_count());
    qx_pmsg_release_client_values_1(record.data(), record.size());
    EXPECT_EQ(0u, pmsg_i::cache_entry_count());
}

// `depth` structured data values, each holding the next; returns the top-level length.
uint32_t sd_chain(std::vector<uint64_t> &area, int depth) {
    area.assign(3 * static_cast<size_t>(depth) + 1, 0);
    auto *p = reinterpret_cast<uint8_t *>(area.data());
    for (int level = 0; level < depth; level++) {
        const uint32_t words[] = {1, 0,  QX_SD_PTR,
                                  0, 24, static_cast<uint32_t>(24 * (depth - level - 1) + 8)};
        memcpy(p + 24 * level, words, sizeof words);
    }
    return static_cast<uint32_t>(24 * depth + 8);
}

TEST_F(PmsgClientValueTest, BadArgumentsStrayAnchorsOverlapsAndDeepNestingAreRefused) {
    uint64_t area[8] = {};
    qx_pmsg_value_t slot{};
    qx_value_t result;
    result.val_uint64 = 0x1234;
    EXPECT_EQ(QX_PMSG_E_INVAL, read(QX_CHAR_PTR, nullptr, &slot, area, 16));
    EXPECT_EQ(QX_PMSG_E_INVAL, read(QX_CHAR_PTR, &result, nullptr, area, 16));
    EXPECT_EQ(QX_PMSG_E_INVAL, read(QX_CHAR_PTR, &result, &slot, nullptr, 16));
    EXPECT_EQ(QX_PMSG_E_INVAL, read(QX_CHAR_PTR, &result, &slot, area, -2));
    EXPECT_EQ(QX_PMSG_E_INVAL, read(QX_CHAR_PTR, &result, &slot, area, 16, 4));
    EXPECT_EQ(QX_PMSG_E_INVAL, read(QX_CHAR_PTR, &result, &slot, area, 16, QX_PMSG_CLIENT_DEEP));
    for (int type : {0, 1, 23, -5}) EXPECT_EQ(QX_PMSG_E_TYPE, read(type, &result, &slot, area, 16));
    EXPECT_EQ(0x1234u, result.val_uint64);

    slot.anchor = {60, 8};
    EXPECT_EQ(QX_PMSG_E_BOUNDS, read(QX_CHAR_PTR, &result, &slot, area, 64));
    slot.anchor = {0xFFFFFFFF, 0xFFFFFFFF};
    EXPECT_EQ(QX_PMSG_E_BOUNDS, read(QX_BINARY_PTR, &result, &slot, area, 64));
    // An array of one text whose nested anchor reaches past the array.
    const uint32_t form[] = {1, 0, 16, 9};
    memcpy(area, form, sizeof form);
    memcpy(reinterpret_cast<uint8_t *>(area) + 16, "abcdefgh", 9);
    slot.anchor = {0, 24};
    EXPECT_EQ(QX_PMSG_E_BOUNDS, read(QX_CHAR_PTR_ARRAY, &result, &slot, area, 64));
    slot.anchor.length = 25;
    ASSERT_EQ(0, read(QX_CHAR_PTR_ARRAY, &result, &slot, area, 64, QX_PMSG_CLIENT_MALLOC));
    EXPECT_STREQ("abcdefgh", result.ptr_array->elements[0].ptr_char);
    free(result.ptr_array);
    // Overlapping anchors would let a small area describe a huge value: built forms never overlap.
    const struct {
        int type;
        std::vector<uint32_t> words;
        uint32_t length;
        const char *what;
        bool overlap = false;
    } cases[] = {
        {QX_CHAR_PTR, {0x61616161}, 4, "text without its NUL"},
        {QX_CHAR_PTR, {0}, 0, "text of no bytes"},
        {QX_BINARY_PTR, {5, 0}, 8, "binary length disagrees with the anchor"},
        {QX_BINARY_PTR, {0}, 3, "binary shorter than its length word"},
        {QX_SBS_PTR, {0xFFFFFFFF}, 4, "negative sbs length"},
        {QX_RSRC_HANDLE_PTR, {1, 2, 3, 4}, 16, "resource handle of 16 bytes"},
        {QX_INT64_ARRAY, {2, 0, 1, 2}, 16, "array count beyond its bytes"},
        {QX_INT64_ARRAY, {0x20000000, 0}, 8, "array count that overflows 32 bits"},
        {QX_CHAR_PTR_ARRAY, {3, 0, 0, 0}, 16, "anchors beyond the form"},
        {QX_SD_PTR, {1, 0, 0, 0, 0, 0}, 24, "element of type 0"},
        {QX_SD_PTR, {1, 0, 99, 0, 0, 0}, 24, "element of type 99"},
        {QX_SD_PTR, {2, 0, 2, 0, 0, 0}, 24, "elements beyond the form"},
        {QX_CHAR_PTR_ARRAY, {2, 0, 24, 4, 24, 4, 0x00636261}, 28, "one text twice", true},
        {QX_CHAR_PTR_ARRAY, {1, 0, 4, 4}, 16, "a text over the anchors", true},
        {QX_CHAR_PTR_ARRAY, {2, 0, 32, 4, 24, 4, 0x636261, 0, 0x666564}, 36, "unordered", true}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        memset(area, 0, sizeof area);
        memcpy(area, c.words.data(), c.words.size() * 4);
        slot.anchor = {0, c.length};
        int rc = read(c.type, &result, &slot, area, sizeof area);
        EXPECT_TRUE(c.overlap ? rc == QX_PMSG_E_CORRUPT : rc != 0) << rc;
        EXPECT_NE(0, read(c.type, &result, &slot, area, sizeof area, QX_PMSG_CLIENT_MALLOC));
    }
    EXPECT_EQ(0u, pmsg_i::cache_entry_count());
    // Nesting deeper than the limit is corrupt, not a stack overflow.
    std::vector<uint64_t> chain;
    slot.anchor = {0, sd_chain(chain, 32)};
    ASSERT_EQ(0, read(QX_SD_PTR, &result, &slot, chain.data(), slot.anchor.length));
    EXPECT_EQ(1u, result.ptr_sd->elements[0].value.ptr_sd->element_count);
    slot.anchor = {0, sd_chain(chain, 33)};
    EXPECT_EQ(QX_PMSG_E_CORRUPT, read(QX_SD_PTR, &result, &slot, chain.data(), slot.anchor.length));
    // The same chain written on a machine of the other byte order.
    for (size_t i = 0; i < chain.size() * 2; i++)
        pmsg_test::swap32_at(reinterpret_cast<uint8_t *>(chain.data()) + 4 * i);
    pmsg_test::swap32_at(&slot.anchor.length);
    std::vector<uint64_t> before = chain;
    EXPECT_EQ(QX_PMSG_E_CORRUPT,
              qx_pmsg_convert_pmsg_value_bounded_1(&slot, QX_SD_PTR, chain.data(), -1));
    EXPECT_TRUE(before == chain) << "nothing is converted on failure";
    // And a caller's value nested deeper is refused when built.
    qx_value_t value{.ptr_sd = arena.sd({})};
    for (uint32_t depth = 1; depth <= 33; depth++) {
        value.ptr_sd = arena.sd({{QX_SD_PTR, 0, {.ptr_sd = value.ptr_sd}}});
        qx_uint32_t size = 0;
        const int rc = qx_pmsg_size_conv_protocol_value_1(nullptr, 0, QX_SD_PTR, &value, &size);
        EXPECT_EQ(depth <= 32 ? QX_PMSG_OK : QX_PMSG_E_INVAL, rc) << depth;
        EXPECT_TRUE(rc != 0 || size == 24 * depth + 8) << depth;
    }
}

// The mark at offset 16 is 1 in the writer's byte order; asking changes nothing.
TEST(PmsgByteOrderTest, TheMarkTellsWhetherToConvertAndABadFormIsLeftAsItWas) {
    uint8_t buffer[40] = {};
    qx_uint32_t required = 7;
    for (uint32_t mark : {1u, 0x01000000u, 0x00020000u}) {
        memcpy(buffer + 16, &mark, 4);
        const int rc = qx_pmsg_cnv_required_1(buffer, &required);
        EXPECT_EQ(mark == 0x00020000u ? QX_PMSG_E_CORRUPT : QX_PMSG_OK, rc);
        EXPECT_TRUE(rc != 0 || required == (mark == 1u ? 0u : 1u)) << mark;
        EXPECT_EQ(mark, pmsg_test::rd32(buffer + 16));
    }
    EXPECT_EQ(QX_PMSG_E_INVAL, qx_pmsg_cnv_required_1(nullptr, &required));
    EXPECT_EQ(QX_PMSG_E_INVAL, qx_pmsg_cnv_required_1(buffer, nullptr));
    // A form that does not check out is left exactly as it was.
    Arena arena;
    qx_value_t value{.ptr_array = arena.array({{.ptr_char = arena.text("one")},
                                               {.ptr_char = arena.text("two")},
                                               {.ptr_char = arena.text("three")}})};
    Built built;
    ASSERT_EQ(0, pmsg_test::build_value(nullptr, QX_CHAR_PTR_ARRAY, value, &built));
    pmsg_test::value_to_other_order(QX_CHAR_PTR_ARRAY, reinterpret_cast<uint8_t *>(&built.slot),
                                    built.p_area);
    // Break the last nested anchor (its length, in the other order).
    uint32_t huge = 0x00FFFFFF;
    memcpy(built.p_area + 8 + 2 * 8 + 4, &huge, 4);
    std::vector<uint64_t> before = built.storage;
    qx_pmsg_value_t slot_before = built.slot;
    EXPECT_EQ(QX_PMSG_E_BOUNDS, qx_pmsg_convert_pmsg_value_bounded_1(&built.slot, QX_CHAR_PTR_ARRAY,
                                                                     built.p_area, built.used));
    EXPECT_TRUE(before == built.storage) << "the first two texts' anchors were not converted";
    EXPECT_EQ(0, memcmp(&slot_before, &built.slot, 8));
    // The top-level anchor beyond the limit.
    EXPECT_EQ(QX_PMSG_E_BOUNDS, qx_pmsg_convert_pmsg_value_bounded_1(&built.slot, QX_CHAR_PTR_ARRAY,
                                                                     built.p_area, 8));

    uint64_t slot = 0;
    uint64_t area[2] = {};
    EXPECT_EQ(QX_PMSG_E_INVAL, qx_pmsg_convert_pmsg_value_1(nullptr, QX_INT32, area));
    EXPECT_EQ(QX_PMSG_E_INVAL, qx_pmsg_convert_pmsg_value_1(&slot, QX_CHAR_PTR, nullptr));
    EXPECT_EQ(QX_PMSG_E_TYPE,
              qx_pmsg_convert_pmsg_value_1(&slot, static_cast<qx_data_type_t>(23), area));
    EXPECT_EQ(QX_PMSG_E_INVAL, qx_pmsg_convert_pmsg_value_bounded_1(&slot, QX_CHAR_PTR, area, -3));
    // A scalar needs no area; a 32-bit value is its first 4 bytes.
    slot = 0x0102030405060708ull;
    ASSERT_EQ(0, qx_pmsg_convert_pmsg_value_1(&slot, QX_UINT64, nullptr));
    EXPECT_EQ(0x0807060504030201ull, slot);
    slot = 0x0000000001020304ull;
    ASSERT_EQ(0, qx_pmsg_convert_pmsg_value_1(&slot, QX_INT32, nullptr));
    EXPECT_EQ(0x04030201u, static_cast<uint32_t>(slot));
}

// A "table": rows of one composite column each, in one area per row.
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

// Two readers per table (buckets grow) get one value per slot, beside another table's releases.
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
                    if (pmsg_test::form(QX_SD_PTR_ARRAY, rows.values[i]) !=
                        pmsg_test::form(QX_SD_PTR_ARRAY, rows.read(i)))
                        ADD_FAILURE() << "row " << i;
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

// A caller's fork lock, installed after the library's (as the registry does at its first open).
pthread_mutex_t g_caller_fork_lock = PTHREAD_MUTEX_INITIALIZER;

// A child forked mid-read/release can read; a held shard or lock-order deadlock hangs (alarm).
TEST(PmsgCacheConcurrencyTest, AChildForkedWhileThreadsReadAndReleaseCanRead) {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] {
        void (*unlock)() = [] { pthread_mutex_unlock(&g_caller_fork_lock); };
        pthread_atfork([] { pthread_mutex_lock(&g_caller_fork_lock); }, unlock, unlock);
    });
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
            for (int i = 0; i < 32; i++)
                if (rows.read(i).ptr_array == nullptr) _exit(1);
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
