// Packed table buffers (their bytes are proven by the golden file test).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "cross/cross_tables.h"
#include "sr/test_util.h"
#include "sr_i.h"

namespace {

using qxcross::Arena;
using qxtest::last_error;
using Handles = std::vector<sr_opaque_handle_t>;

qx_uint32_t U32(const void *p) {
    qx_uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

// A packed buffer, or a malloc'd copy of exactly the given bytes.
struct Buffer {
    void *p = nullptr;
    explicit Buffer(const std::string &bytes = {}) {
        if (!bytes.empty()) p = std::memcpy(std::malloc(bytes.size()), bytes.data(), bytes.size());
    }
    ~Buffer() { std::free(p); }
    char *bytes() const { return static_cast<char *>(p); }
    qx_uint32_t length() const { return U32(p); }
    std::string str() const { return std::string(bytes(), length()); }
    // The rows packed for table t of `tables`.
    qx_uint32_t Rows(int tables, int t) const {
        return U32(bytes() + 40 + 32 * tables + U32(bytes() + 64 + 32 * t));
    }
};

class PackTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(sr_open_tree_1(&tree_, 0, 0), 0);
        ASSERT_EQ(sr_open_tree_1(&receiver_, 0, 0), 0);
    }
    void TearDown() override {
        sr_close_tree_1(receiver_);
        sr_close_tree_1(tree_);
    }
    Handles Tables(const std::string &prefix = "/src") {
        Handles handles;
        EXPECT_EQ(qxcross::build_tables(tree_, prefix, arena_, &handles), 0);
        return handles;
    }
    int Pack(Handles tables, std::vector<qx_uint32_t> views, Buffer *p_out,
             std::vector<qx_uint32_t> totals = {}, std::vector<qx_uint32_t> indices = {}) {
        return sr_pack_tables_1(static_cast<qx_uint32_t>(tables.size()), tables.data(),
                                views.data(), totals.empty() ? nullptr : totals.data(),
                                indices.empty() ? nullptr : indices.data(), &p_out->p);
    }
    int Unpack(void *p, qx_uint32_t index, sr_opaque_handle_t *p_table, qx_uint32_t buckets = 0,
               sr_hash_function_t *hash = nullptr,
               sr_hash_keys_compare_function_t *compare = nullptr) {
        *p_table = nullptr;
        return sr_unpack_table_1(p, buckets, hash, compare, receiver_, index, p_table);
    }
    std::string Received(void *p, qx_uint32_t index) {
        sr_opaque_handle_t unpacked = nullptr;
        int rc = Unpack(p, index, &unpacked);
        if (rc != 0) return "<" + std::to_string(rc) + "> " + last_error().message;
        std::string text = qxcross::render_table(unpacked, 0);
        EXPECT_EQ(text, qxcross::render_table(unpacked, 1));
        EXPECT_EQ(sr_close_table_1(unpacked), 0);
        return text;
    }

    sr_opaque_handle_t tree_ = nullptr, receiver_ = nullptr;
    Arena arena_;
};

TEST_F(PackTest, BadIndicesHandlesAndChosenRows) {
    Handles tables = Tables();
    Buffer buffer;
    qx_uint32_t views[] = {0}, totals[] = {2};
    EXPECT_EQ(sr_pack_tables_1(1, tables.data(), views, totals, nullptr, &buffer.p), 101);
    sr_opaque_handle_t none[] = {nullptr};
    EXPECT_EQ(sr_pack_tables_1(1, none, views, nullptr, nullptr, &buffer.p), 100);
    EXPECT_EQ(Pack(tables, {1, 0, 0}, &buffer, {2, 0, 0}, {0, 3}), 204);
    EXPECT_EQ(last_error().code, 204);
    EXPECT_EQ(Pack(tables, {0, 0, 0}, &buffer, {1, 0, 0}, {5}), 204);
    EXPECT_EQ(Pack(tables, {0, 0, 0}, &buffer, {1, 0, 0}, {100}), 203);
    EXPECT_EQ(buffer.p, nullptr);
    for (sr_opaque_handle_t table : tables) EXPECT_EQ(sr_abort_1(table), 0);
    // Chosen fixed indices are consumed table after table, in their order.
    ASSERT_EQ(Pack(tables, {0, 0, 0}, &buffer, {2, 0, 1}, {4, 0, 2}), 0);
    EXPECT_EQ((std::vector<qx_uint32_t>{buffer.Rows(3, 0), buffer.Rows(3, 1), buffer.Rows(3, 2)}),
              (std::vector<qx_uint32_t>{2, 5, 1}));
    qx_char_ptr_t name = nullptr;
    sr_opaque_handle_t unpacked = nullptr;
    for (qx_uint32_t index : {3u, UINT32_MAX}) {
        EXPECT_EQ(sr_get_packed_table_name_1(buffer.p, index, &name), 203);
        EXPECT_EQ(Unpack(buffer.p, index, &unpacked), 203);
    }
    EXPECT_EQ(unpacked, nullptr);
    EXPECT_EQ(sr_unpack_table_1(buffer.p, 0, nullptr, nullptr, nullptr, 0, &unpacked), 100);
}

// An unpacked table is read-only, on the caller's buffer.
TEST_F(PackTest, UnpackedTableIsReadOnlyUsesTheBufferAndIndexesKeysByHash) {
    Handles tables = Tables();
    Buffer buffer, all;
    ASSERT_EQ(Pack({tables[1]}, {0}, &buffer), 0);
    sr_opaque_handle_t unpacked = nullptr;
    ASSERT_EQ(Unpack(buffer.p, 0, &unpacked), 0);
    auto *p_table = static_cast<sr_i_table_t *>(unpacked);
    const char *p_record = p_table->p_rows_fixed_index[4].p_committed;  // the buffer's own record
    EXPECT_TRUE(p_record > buffer.bytes() && p_record < buffer.bytes() + buffer.length());
    qx_value_t key;
    key.ptr_char = arena_.text("text-200");
    qx_uint32_t fixed = 99;
    ASSERT_EQ(sr_get_fixed_row_index_for_key_1(unpacked, key, &fixed), 0);
    EXPECT_EQ(fixed, 2u);
    EXPECT_EQ(qxcross::add_row(unpacked, arena_, qxcross::table_layouts()[1], 40), 206);
    sr_opaque_handle_t again = nullptr;
    EXPECT_EQ(sr_open_table_1(receiver_, p_table->p_name, SR_MODE_WRITE, &again), 206);
    EXPECT_EQ(qxcross::add_row(unpacked, arena_, qxcross::table_layouts()[1], 41), 206);
    EXPECT_EQ(sr_close_table_1(unpacked), 0);

    // A caller's hash indexes any key; without one only a resource-handle key.
    ASSERT_EQ(Pack(tables, {1, 1, 1}, &all), 0);
    auto hash = [](const void *p_key) -> qx_uint32_t { return U32(p_key) % 64; };
    auto compare = [](const void *a, const void *b) -> qx_int32_t { return std::memcmp(a, b, 4); };
    for (qx_uint32_t i : {0u, 1u}) {
        EXPECT_EQ(Unpack(all.p, i, &unpacked, 64), 101);
        EXPECT_EQ(Unpack(all.p, i, &unpacked, 64, nullptr, compare), 101);
        EXPECT_EQ(unpacked, nullptr);
    }
    struct {
        qx_uint32_t table;
        sr_hash_function_t *hash;
        qx_data_type_t type;
        qx_uint32_t seed, fixed;  // working view: rows 0, 1, 2, 4, 5, 6
    } cases[] = {{0, hash, QX_INT32, 600, 5}, {2, nullptr, QX_RSRC_HANDLE_PTR, 100, 1}};
    for (const auto &c : cases) {
        ASSERT_EQ(Unpack(all.p, c.table, &unpacked, 64, c.hash, c.hash ? +compare : nullptr), 0);
        qx_uint32_t fixed = 99;
        EXPECT_EQ(sr_get_fixed_row_index_for_key_1(
                      unpacked, qxcross::make_value(arena_, c.type, c.seed), &fixed),
                  0);
        EXPECT_EQ(fixed, c.fixed);
        sr_close_table_1(unpacked);
    }
}

// Big-endian buffers of every type convert once to exactly this host's packing (marker aside).
TEST_F(PackTest, EveryTypeRoundTripsAndBigEndianBuffersConvertOnce) {
    Handles tables = Tables("/cross");
    for (qx_uint32_t view : {0u, 1u}) {
        const std::string name = std::string("s390x_") + qxcross::kViews[view];
        const std::string data = std::string(QX_TEST_SOURCE_DIR) + "/tests/cross/data/" + name;
        std::string original, report;
        ASSERT_TRUE(qxcross::read_file(data + ".buf", &original));
        ASSERT_TRUE(qxcross::read_file(data + ".txt", &report));
        Buffer p(original);
        ASSERT_EQ(qxcross::described_rows(report), view ? 18 : 15);
        qx_uint32_t required = 0;
        ASSERT_EQ(qx_pmsg_cnv_required_1(p.p, &required), 0);
        EXPECT_EQ(required, 1u);
        ASSERT_EQ(sr_convert_packed_table_buffer_1(p.p, 0, 0), 0) << last_error().message;
        EXPECT_EQ(p.length(), original.size());
        const std::string once = p.str();
        ASSERT_EQ(qx_pmsg_cnv_required_1(p.p, &required), 0);
        EXPECT_EQ(required, 0u);
        EXPECT_EQ(sr_convert_packed_table_buffer_1(p.p, 0, 0), 0);
        EXPECT_EQ(p.str(), once);
        std::string received, sent;
        qx_uint32_t total = 0;
        ASSERT_EQ(sr_get_total_packed_tables_1(p.p, &total), 0);
        EXPECT_EQ(total, 3u);
        for (qx_uint32_t i = 0; i < 3; ++i) {
            qx_char_ptr_t name = nullptr;
            ASSERT_EQ(sr_get_packed_table_name_1(p.p, i, &name), 0);
            EXPECT_TRUE(name > p.bytes() && name < p.bytes() + p.length());
            received += std::string("table ") + name + "\n" + Received(p.p, i);
            sent += std::string("table /cross/") + qxcross::table_layouts()[i].leaf + "\n" +
                    qxcross::render_table(tables[i], view);
        }
        EXPECT_EQ(received, report);
        EXPECT_EQ(sent, report);
        Buffer local;
        ASSERT_EQ(Pack(tables, {view, view, view}, &local), 0);
        ASSERT_EQ(local.length(), p.length());
        std::memcpy(p.bytes() + 16, local.bytes() + 16, 16);
        EXPECT_EQ(p.str(), local.str());
        // Fixed metadata counts the working view's rows without its deletion.
        qx_value_t fixed;
        ASSERT_EQ(qx_pmsg_build_conv_packed_client_value_1(
                      nullptr, QX_PMSG_CLIENT_MALLOC, QX_SD_PTR, &fixed, local.bytes() + 48,
                      local.bytes() + 136, local.length() - 136),
                  0);
        EXPECT_EQ(fixed.ptr_sd->elements[1].value.val_uint32, view ? 7u : 5u);
        std::free(fixed.ptr_sd);
        // Structured defaults travel as a 32-bit 0, never followed even if damaged.
        char *columns_form = local.bytes() + 136 + U32(local.bytes() + 56);
        char *sd_default = columns_form + U32(columns_form + 8 + 8 * 10) + 8 + 16 * 4;  // "sd"
        ASSERT_EQ(U32(sd_default), static_cast<qx_uint32_t>(QX_UINT32));
        std::memset(sd_default + 8, 0xDE, 4);
        sr_opaque_handle_t unpacked = nullptr;
        ASSERT_EQ(Unpack(local.p, 0, &unpacked), 0);
        sr_table_metadata_t *p_received = nullptr;
        ASSERT_EQ(sr_get_table_metadata_1(unpacked, -1, &p_received), 0);
        EXPECT_EQ(p_received->column_definitions[10].default_value.ptr_sd->element_count, 0u);
        EXPECT_EQ(p_received->column_definitions[21].default_value.ptr_array->element_count, 0u);
        sr_free_table_metadata_1(p_received);
        sr_close_table_1(unpacked);
    }
    // A selection's table has no name.
    sr_opaque_handle_t unnamed = nullptr;
    ASSERT_EQ(sr_select_1(tables[1], nullptr, 0, &unnamed, nullptr), 0);
    Buffer one;
    ASSERT_EQ(Pack({unnamed}, {0}, &one), 0);
    qx_char_ptr_t name = nullptr;
    ASSERT_EQ(sr_get_packed_table_name_1(one.p, 0, &name), 0);
    EXPECT_STREQ(name, "");
    sr_close_table_1(unnamed);
    Buffer buffer;
    ASSERT_EQ(Pack(tables, {0, 1, 0}, &buffer), 0);
    const std::string before = buffer.str();
    EXPECT_EQ(sr_convert_packed_table_buffer_1(buffer.p, 0, 1), 0);
    EXPECT_EQ(sr_convert_packed_table_buffer_1(buffer.p, 1, 0), 0);
    EXPECT_EQ(buffer.str(), before);
    std::memset(buffer.bytes() + 16, 0x77, 4);
    EXPECT_EQ(sr_convert_packed_table_buffer_1(buffer.p, 0, 0), 11);
    EXPECT_NE(last_error().message.find("qx_pmsg_cnv_required"), std::string::npos);
}

// Any failed allocation of pack or unpack: 12, nothing left, tables unlocked.
TEST_F(PackTest, EveryAllocationFailureGives12AndLeavesNothingBehind) {
    Handles tables = Tables();
    Buffer whole;
    ASSERT_EQ(Pack(tables, {1, 0, 1}, &whole), 0);
    const std::string sent = qxcross::render_table(tables[0], 1);
    for (int unpack = 0; unpack < 2; ++unpack) {
        Buffer buffer;
        sr_opaque_handle_t unpacked = nullptr;
        EXPECT_GT(qxtest::EachAllocationFailure(
                      [&] {
                          return unpack ? Unpack(whole.p, 0, &unpacked)
                                        : Pack(tables, {1, 0, 1}, &buffer);
                      },
                      [&] {
                          EXPECT_EQ(buffer.p, nullptr);
                          EXPECT_EQ(unpacked, nullptr);
                      }),
                  5);
        EXPECT_EQ(unpack ? sent : whole.str(),
                  unpack ? qxcross::render_table(unpacked, 0) : buffer.str());
        sr_close_table_1(unpacked);
        for (sr_opaque_handle_t table : tables) EXPECT_EQ(sr_abort_1(table), 0);
    }
}

// Every reading call on a copy of exactly its length (ASan catches overreads).
void ExerciseUntrusted(sr_opaque_handle_t tree, const std::string &bytes, bool convert) {
    Buffer p(bytes);
    qx_uint32_t total = 0;
    if (sr_get_total_packed_tables_1(p.p, &total) != 0) return;
    if (convert) (void)sr_convert_packed_table_buffer_1(p.p, 1, 1);
    for (qx_uint32_t i = 0; i < total && i < 4; ++i) {
        qx_char_ptr_t name = nullptr;
        (void)sr_get_packed_table_name_1(p.p, i, &name);
        sr_opaque_handle_t unpacked = nullptr;
        if (sr_unpack_table_1(p.p, 0, nullptr, nullptr, tree, i, &unpacked) != 0) continue;
        (void)qxcross::render_table(unpacked, 0);
        sr_close_table_1(unpacked);
    }
}

TEST_F(PackTest, TruncatedOrDamagedBuffersAreRefusedWithoutReadingPastThem) {
    Handles tables = Tables();
    Buffer buffer;
    ASSERT_EQ(Pack(tables, {1, 0, 1}, &buffer), 0);
    const std::string whole = buffer.str();
    int refused = 0;
    for (qx_uint32_t length = 4; length < whole.size(); length += (length < 200 ? 1 : 37)) {
        std::string cut = whole.substr(0, length);
        std::memcpy(cut.data(), &length, 4);
        Buffer p(cut);
        sr_opaque_handle_t unpacked = nullptr;
        int rc = Unpack(p.p, 2, &unpacked);
        if (rc == 0) sr_close_table_1(unpacked);
        refused += rc != 0;
        EXPECT_TRUE(rc == 0 || rc == 11 || rc == 14 || rc == 203) << length << ": " << rc;
        ExerciseUntrusted(receiver_, cut, false);
        ExerciseUntrusted(receiver_, cut, true);
    }
    EXPECT_GT(refused, 0);
    std::string head = whole.substr(0, 40);
    const qx_uint32_t small = 39;
    std::memcpy(head.data(), &small, 4);
    qx_uint32_t total = 0;
    EXPECT_EQ(sr_get_total_packed_tables_1(head.data(), &total), 14);
    std::mt19937 random(20261122);
    for (int round = 0; round < 300; ++round) {
        std::string damaged = whole;
        for (int i = 0, flips = 1 + static_cast<int>(random() % 4); i < flips; ++i) {
            damaged[4 + random() % (damaged.size() - 4)] = static_cast<char>(random());
        }
        ExerciseUntrusted(receiver_, damaged, round % 2 == 1);
    }
    // A row record too short for its table's columns.
    Buffer one;
    ASSERT_EQ(Pack({tables[2]}, {0}, &one), 0);
    char *form = one.bytes() + 72 + U32(one.bytes() + 64);
    char *binary = form + U32(form + 8);
    ASSERT_GT(U32(binary), 20u);
    const qx_uint32_t short_length = 20, anchor_length = 24;
    std::memcpy(binary, &short_length, 4);
    std::memcpy(form + 12, &anchor_length, 4);
    sr_opaque_handle_t unpacked = nullptr;
    EXPECT_EQ(Unpack(one.p, 0, &unpacked), 14);
    EXPECT_EQ(last_error().code, 14);
}

// Packing holds every read lock at once: tables written in turn differ by at most one row.
class PackConcurrencyTest : public PackTest {};

TEST_F(PackConcurrencyTest, PacksSeveralTablesWhileAnotherThreadWritesThem) {
    const qxcross::TableLayout layout = qxcross::table_layouts()[1];
    Handles tables(3);
    for (int t = 0; t < 3; ++t) {
        std::vector<sr_column_t> columns = qxcross::column_definitions(arena_, layout);
        ASSERT_EQ(
            sr_create_table_1(tree_, arena_.text("/busy/" + std::to_string(t)), columns.data(),
                              static_cast<qx_uint32_t>(columns.size()), SR_MODE_WRITE, &tables[t]),
            0);
    }
    std::atomic<bool> stop{false};
    std::atomic<int> written{0};
    std::thread writer([&] {
        Arena values;
        for (qx_uint32_t seed = 0; seed < 400 && !stop; ++seed, ++written) {
            for (int t = 0; t < 3; ++t)
                EXPECT_EQ(qxcross::add_row(tables[t], values, layout, seed), 0);
        }
    });
    auto pack_rounds = [&] {
        qx_uint32_t previous = 0;
        for (int round = 0; round < 40; ++round) {
            Buffer p;
            ASSERT_EQ(Pack(tables, {0, 0, 0}, &p), 0);
            const qx_uint32_t rows[3] = {p.Rows(3, 0), p.Rows(3, 1), p.Rows(3, 2)};
            EXPECT_TRUE(rows[0] >= rows[1] && rows[1] >= rows[2] && rows[0] <= rows[2] + 1)
                << rows[0] << " " << rows[1] << " " << rows[2];
            EXPECT_GE(rows[0], previous);
            previous = rows[0];
            for (qx_uint32_t t = 0; t < 3; ++t) {
                EXPECT_EQ(qxcross::described_rows(Received(p.p, t)), static_cast<int>(rows[t]));
            }
        }
    };
    for (int i = 0; i < 5000 && written.load() == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    pack_rounds();
    stop = true;
    writer.join();
}

}  // namespace
