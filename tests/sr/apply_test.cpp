// Apply: what reaches the table file or the rewrite file.
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "qx_sr.hpp"
#include "sr/rows_test_util.h"

namespace qxtest {
namespace {

constexpr qx_uint32_t kCommit = SR_I_COMMIT_RECORD_LENGTH;
using State = std::map<qx_int64_t, qx_int64_t>;

// Tables of k and c1 INT64: 32-byte row records (replaced offset +12, k +16, c1 +24).
class ApplyTest : public RowsTest {
  protected:
    sr_i_table_t *Make(const std::string &name, int mode = 6) {
        return Create("/m/" + name, ScalarColumns(2), mode);
    }
    qx_int32_t Put(sr_i_table_t *p_table, qx_int64_t key, qx_int64_t value) {
        char k[] = "k", c1[] = "c1", *names[] = {k, c1};
        qx_value_t kv = I64(key), cv = I64(value), *values[] = {&kv, &cv};
        if (FixedOf(p_table, key) == 0xFFFFFFFF) return sr_add_row_1(p_table, names, values, 2);
        return sr_set_field_by_key_1(p_table, kv, c1, &cv);
    }
    static qx_int32_t Delete(sr_i_table_t *p_table, qx_int64_t key) {
        return sr_delete_rows_1(p_table, ("k == " + std::to_string(key)).data());
    }
    // The committed rows of /m/<name> as another tree's fresh open reads them.
    State Reopened(const std::string &name, qx_uint64_t *p_counter = nullptr) {
        State rows;
        auto tree = qx::sr::Tree::open();
        EXPECT_TRUE(tree->mount("/m", tmp_.file("d")));
        auto table = tree->open_table("/m/" + name, qx::sr::Mode::read);
        EXPECT_TRUE(table) << table.message();
        if (!table) return rows;
        for (auto row : table->rows())
            rows[*row.get<std::int64_t>("k")] = *row.get<std::int64_t>("c1");
        sr_table_metadata_t *p_metadata = nullptr;
        EXPECT_EQ(0, sr_get_table_metadata_1(table->handle(), 0, &p_metadata));
        if (p_counter != nullptr) *p_counter = p_metadata->table_change_counter;
        sr_free_table_metadata_1(p_metadata);
        return rows;
    }
    static qx_uint32_t End(const sr_i_table_t *p_table) {
        return p_table->commit_record_offset + p_table->commit_record_length;
    }
};

TEST_F(ApplyTest, AppendWritesChangedRowsInChangeOrderThenTheCommitRecord) {
    sr_i_table_t *p_table = Make("t");
    const std::string before = ReadBytes(File("t"));
    // Without changes: a commit record all the same, behind the committed one.
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    std::string bytes = ReadBytes(File("t"));
    ASSERT_EQ(bytes.size(), before.size() + kCommit);
    EXPECT_EQ(bytes.substr(0, before.size()), before);
    EXPECT_EQ(static_cast<qx_int32_t>(U32At(bytes, before.size() + 8)), SR_I_RECORD_TYPE_COMMIT);
    EXPECT_EQ(U64At(bytes, before.size() + 16), 2u);
    qx_uint64_t counter = 0;
    EXPECT_TRUE(Reopened("t", &counter).empty());
    EXPECT_EQ(counter, 1u);  // a reader stops at the committed commit record
    // A second apply before commit changes nothing.
    EXPECT_EQ(sr_apply_1(p_table, 9), SR_E_APPLIED_NOT_COMMITTED);
    EXPECT_EQ(ReadBytes(File("t")), bytes);
    ASSERT_EQ(sr_commit_1(p_table), 0);

    qx_uint32_t start = End(p_table);
    ASSERT_EQ(Put(p_table, 7, 70), 0);
    ASSERT_EQ(Put(p_table, 3, 30), 0);
    ASSERT_EQ(Put(p_table, 1, 10), 0);
    ASSERT_EQ(Put(p_table, 7, 71), 0);  // keeps the first change's place
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    bytes = ReadBytes(File("t"));
    for (qx_uint64_t i = 0, order[][2] = {{7, 71}, {3, 30}, {1, 10}}; i < 3; ++i)
        EXPECT_EQ(bytes.substr(start + 32 * i + 16, 16),
                  std::string(reinterpret_cast<char *>(order[i]), 16));
    EXPECT_EQ(static_cast<qx_int32_t>(U32At(bytes, start + 96 + 8)), SR_I_RECORD_TYPE_COMMIT);
    ASSERT_EQ(sr_commit_1(p_table), 0);

    // A deletion record lists committed rows deleted, not rows added and deleted since.
    start = End(p_table);
    ASSERT_EQ(Delete(p_table, 1), 0);
    ASSERT_EQ(Put(p_table, 4, 40), 0);
    ASSERT_EQ(Delete(p_table, 4), 0);
    ASSERT_EQ(Delete(p_table, 3), 0);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    bytes = ReadBytes(File("t"));
    ASSERT_EQ(static_cast<qx_int32_t>(U32At(bytes, start + 8)), SR_I_RECORD_TYPE_DELETION);
    EXPECT_EQ(U32At(bytes, start + 12), 2u);
    EXPECT_EQ(U32At(bytes, start + 16), start - kCommit - 96 + 64);  // row 1
    ASSERT_EQ(sr_commit_1(p_table), 0);
    // Rows added and deleted alone: only a commit record.
    ASSERT_EQ(Put(p_table, 5, 50), 0);
    ASSERT_EQ(Delete(p_table, 5), 0);
    start = End(p_table);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    EXPECT_EQ(ReadBytes(File("t")).size(), start + kCommit);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(Reopened("t"), (State{{7, 71}}));
}

TEST_F(ApplyTest, ChangeCountersInTheCommitRecord) {
    sr_i_table_t *p_table = Make("t");
    for (int i = 0; i < 7; ++i) ASSERT_EQ(ApplyCommit(p_table), 0);
    // An explicit counter lands in the record, even below the committed one, all 64 bits of it.
    for (qx_uint64_t counter : {qx_uint64_t{5}, qx_uint64_t{0x100000005}}) {
        ASSERT_EQ(sr_apply_1(p_table, counter), 0);
        ASSERT_EQ(sr_commit_1(p_table), 0);
        qx_uint64_t read = 0;
        Reopened("t", &read);
        EXPECT_EQ(read, counter);
    }
    // An implicitly controlled table ignores the caller's counter.
    sr_i_table_t *p_implicit = Make("i", 2);
    ASSERT_EQ(sr_apply_1(p_implicit, 5), 0);
    EXPECT_EQ(p_implicit->applied_change_counter, 2u);
    ASSERT_EQ(sr_commit_1(p_implicit), 0);
}

TEST_F(ApplyTest, RewriteFileHoldsOnlyMetadataLiveRowsInIndexOrderAndACommitRecord) {
    sr_i_table_t *p_table = Make("t");
    for (int i = 0; i < 6; ++i) ASSERT_EQ(Put(p_table, i, i * 10), 0);
    ASSERT_EQ(ApplyCommit(p_table), 0);
    ASSERT_EQ(Delete(p_table, 1), 0);
    ASSERT_EQ(Put(p_table, 4, 44), 0);
    ASSERT_EQ(Put(p_table, 8, 8), 0);
    ASSERT_EQ(Delete(p_table, 8), 0);
    ASSERT_EQ(Put(p_table, 9, 90), 0);  // the lowest free slot: 7 (6 is still pending)
    const std::string data_file = ReadBytes(File("t"));
    const qx_uint32_t metadata_length = U32At(data_file, 0);
    WriteBytes(File("t.rewrite"), std::string(5000, '\x7f'));  // longer and stale

    ASSERT_EQ(sr_i_apply(p_table, 1, 0), 0);
    EXPECT_EQ(ReadBytes(File("t")), data_file) << "a rewrite leaves the data file alone";
    const std::string image = ReadBytes(File("t.rewrite")).substr(0, p_table->rewrite_file_length);
    EXPECT_EQ(image.substr(0, metadata_length), data_file.substr(0, metadata_length));
    // Every row is new in the new file: it replaces record 0.
    for (qx_uint64_t i = 0, rows[][2] = {{0, 0}, {2, 20}, {3, 30}, {4, 44}, {5, 50}, {9, 90}};
         i < 6; ++i)
        EXPECT_EQ(image.substr(metadata_length + 32 * i + 12, 20),
                  std::string(4, '\0') + std::string(reinterpret_cast<char *>(rows[i]), 16));
    const size_t commit = metadata_length + 6 * 32;
    EXPECT_EQ(static_cast<qx_int32_t>(U32At(image, commit + 8)), SR_I_RECORD_TYPE_COMMIT);
    EXPECT_EQ(image.size(), commit + kCommit);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_FALSE(Exists(File("t.rewrite")));
    EXPECT_TRUE(ReadBytes(File("t")).substr(0, image.size()) == image);
    EXPECT_EQ(Reopened("t"), (State{{0, 0}, {2, 20}, {3, 30}, {4, 44}, {5, 50}, {9, 90}}));
    // Appending to the rewritten file replaces the right records.
    ASSERT_EQ(Put(p_table, 9, 91), 0);
    ASSERT_EQ(Delete(p_table, 0), 0);
    ASSERT_EQ(ApplyCommit(p_table), 0);
    EXPECT_EQ(Reopened("t"), (State{{2, 20}, {3, 30}, {4, 44}, {5, 50}, {9, 91}}));
}

TEST_F(ApplyTest, RewriteThatCannotOpenItsFileLeavesEverythingAsItWas) {
    sr_i_table_t *p_table = Make("t");
    ASSERT_EQ(Put(p_table, 1, 1), 0);
    ASSERT_EQ(mkdir(File("t.rewrite").c_str(), 0755), 0);
    const std::string bytes = ReadBytes(File("t"));
    EXPECT_EQ(sr_i_apply(p_table, 1, 0), SR_E_SYSTEM_CALL);
    EXPECT_NE(last_error().message.find("open"), std::string::npos) << last_error().message;
    EXPECT_EQ(ReadBytes(File("t")), bytes);
    ASSERT_EQ(rmdir(File("t.rewrite").c_str()), 0);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);  // the same changes still append
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(Reopened("t"), (State{{1, 1}}));
}

TEST_F(ApplyTest, RewriteDecisionNeedsMoreThan16KiBAndLessThanHalfLive) {
    // 43,000,000 * 100 wraps in 32 bits to 5,032,704: under half of a 20 MB file.
    const struct {
        qx_uint32_t file, used, wanted;
    } cases[] = {{16384, 0, 0},    {16385, 0, 1},           {16385, 8192, 1},
                 {16385, 8193, 0}, {20000000, 43000000, 1}, {20000000, 15000000, 0}};
    for (const auto &c : cases) {
        sr_i_table_t table{};
        table.file_length = c.file;
        table.record_buffer_pool.used_bytes = c.used;
        EXPECT_EQ(sr_i_rewrite_wanted(&table), c.wanted) << c.file << " " << c.used;
    }
    // A record is read whole from one block when it ends in the block it starts in.
    sr_i_table_t table{};
    table.block_size = 512;
    qx_uint32_t block = 99;
    EXPECT_EQ(1u, sr_i_record_contained_in_block(&table, 500, 11, &block));
    EXPECT_EQ(0u, block);
    EXPECT_EQ(0u, sr_i_record_contained_in_block(&table, 500, 12, &block));
    EXPECT_EQ(1u, sr_i_record_contained_in_block(&table, 1024, 100, &block));
    EXPECT_EQ(2u, block);
    EXPECT_EQ(0u, sr_i_record_contained_in_block(&table, UINT32_MAX - 4, 100, &block));
    table.block_size = 0;  // a transient table has no blocks
    EXPECT_EQ(1u, sr_i_record_contained_in_block(&table, 500, 100, &block));
}

}  // namespace
}  // namespace qxtest
