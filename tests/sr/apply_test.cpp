// Apply: what reaches the table file (append) or the rewrite file (rewrite),
// in which gather writes, with which commit record, and what it refuses.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "sr/transaction_test_util.h"

namespace qxtest::tx {
namespace {

// Every writev the file primitives make: the number of elements and bytes.
std::vector<std::pair<int, size_t>> Writes;

ssize_t CountingWritev(int fd, const struct iovec *p_vector, int count) {
    size_t bytes = 0;
    for (int i = 0; i < count; ++i) bytes += p_vector[i].iov_len;
    Writes.emplace_back(count, bytes);
    return writev(fd, p_vector, count);
}

class ApplyTest : public TransactionTest {
  protected:
    void SetUp() override {
        TransactionTest::SetUp();
        Writes.clear();
    }
};

TEST_F(ApplyTest, SecondApplyBeforeCommitIsRefusedAndChangesNothing) {
    sr_i_table_t *p_table = Make("t");
    RowKit(p_table).Add(R(1, {10}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    const std::string bytes = ReadBytes(File("t"));
    const qx_uint64_t counter = p_table->applied_change_counter;

    EXPECT_EQ(sr_apply_1(p_table, 9), SR_E_APPLIED_NOT_COMMITTED);
    EXPECT_EQ(last_error().code, SR_E_APPLIED_NOT_COMMITTED);
    EXPECT_EQ(p_table->ready_for_commit, 1u);
    EXPECT_EQ(p_table->applied_change_counter, counter);
    EXPECT_EQ(ReadBytes(File("t")), bytes);
    EXPECT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(Reopened("t"), (State{{1, R(1, {10})}}));
}

TEST_F(ApplyTest, ApplyWithoutChangesStillWritesAndSyncsACommitRecord) {
    sr_i_table_t *p_table = Make("t");
    const std::string before = ReadBytes(File("t"));
    const qx_uint32_t committed_end = p_table->commit_record_offset + p_table->commit_record_length;
    ASSERT_EQ(committed_end, before.size());

    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    const std::string after = ReadBytes(File("t"));
    ASSERT_EQ(after.size(), before.size() + SR_I_COMMIT_RECORD_LENGTH);
    EXPECT_EQ(after.substr(0, before.size()), before) << "the committed file is untouched";
    EXPECT_EQ(static_cast<qx_int32_t>(U32At(after, committed_end + 8)), SR_I_RECORD_TYPE_COMMIT);
    EXPECT_EQ(U64At(after, committed_end + 16), p_table->change_counter + 1);
    EXPECT_EQ(p_table->applied_commit_record_offset, committed_end);
    EXPECT_EQ(p_table->applied_commit_record_length, SR_I_COMMIT_RECORD_LENGTH);
    EXPECT_EQ(p_table->file_length, after.size());
    EXPECT_EQ(p_table->ready_for_commit, 1u);

    // A reader still stops at the committed commit record.
    qx_uint64_t counter = 0;
    Reopened("t", &counter);
    EXPECT_EQ(counter, p_table->change_counter);
}

TEST_F(ApplyTest, TransientTableIsAppliedWithoutAnyFile) {
    sr_opaque_handle_t handle = nullptr;
    std::vector<sr_column_t> columns = ScalarColumns(2);
    ASSERT_EQ(sr_create_table_1(tree_, Text("/mem/t"), columns.data(), 2, 6, &handle), 0);
    auto *p_table = static_cast<sr_i_table_t *>(handle);
    RowKit(p_table).Add(R(1, {2}));
    sr_i_file_ops.p_writev = CountingWritev;

    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    EXPECT_EQ(p_table->ready_for_commit, 1u);
    EXPECT_TRUE(Writes.empty());
    EXPECT_EQ(p_table->file_length, 0u);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(Snapshot(p_table, false), (State{{1, R(1, {2})}}));
    EXPECT_EQ(p_table->change_counter, 2u);
}

TEST_F(ApplyTest, AppendWritesRowsInChangeOrderThenTheCommitRecord) {
    sr_i_table_t *p_table = Make("t");
    RowKit rows(p_table);
    const qx_uint32_t start = p_table->commit_record_offset + p_table->commit_record_length;
    qx_uint32_t a = rows.Add(R(7, {70}));
    qx_uint32_t b = rows.Add(R(3, {30}));
    rows.Set(a, R(7, {71}));  // stays first: the list keeps the first change's place
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);

    const std::string bytes = ReadBytes(File("t"));
    const sr_i_index_entry_t &ea = p_table->p_rows_fixed_index[a];
    const sr_i_index_entry_t &eb = p_table->p_rows_fixed_index[b];
    EXPECT_EQ(ea.applied_file_offset, start);
    EXPECT_EQ(eb.applied_file_offset, start + U32At(bytes, start));
    EXPECT_EQ(U64At(bytes, ea.applied_file_offset + 16 + 8), 71u);
    EXPECT_EQ(U64At(bytes, eb.applied_file_offset + 16 + 8), 30u);
    // The records went out straight from the pool, header and all.
    EXPECT_EQ(bytes.compare(ea.applied_file_offset, 12 + 4 + 16, ea.p_applied - 12, 12 + 4 + 16),
              0);
    EXPECT_EQ(p_table->applied_commit_record_offset,
              eb.applied_file_offset + U32At(bytes, eb.applied_file_offset));
}

TEST_F(ApplyTest, SixteenRowsMakeOneWriteOfSixteenRecordsAndOneOfTheCommitRecordAlone) {
    sr_i_table_t *p_table = Make("t");
    RowKit rows(p_table);
    for (int i = 0; i < 16; ++i) rows.Add(R(i, {i}));
    sr_i_file_ops.p_writev = CountingWritev;
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(Writes.size(), 2u);
    EXPECT_EQ(Writes[0], std::make_pair(16, size_t{16 * 32}));
    EXPECT_EQ(Writes[1], std::make_pair(1, size_t{SR_I_COMMIT_RECORD_LENGTH}));
}

TEST_F(ApplyTest, FifteenRowsAndTheCommitRecordShareOneWrite) {
    sr_i_table_t *p_table = Make("t");
    RowKit rows(p_table);
    for (int i = 0; i < 15; ++i) rows.Add(R(i, {i}));
    sr_i_file_ops.p_writev = CountingWritev;
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(Writes.size(), 1u);
    EXPECT_EQ(Writes[0].first, 16);
}

TEST_F(ApplyTest, ExplicitChangeCounterLandsInTheCommitRecordEvenBelowTheCommittedOne) {
    sr_i_table_t *p_table = Make("t");
    for (int i = 0; i < 7; ++i) {
        ASSERT_EQ(sr_apply_1(p_table, 0), 0);
        ASSERT_EQ(sr_commit_1(p_table), 0);
    }
    ASSERT_EQ(p_table->change_counter, 8u);
    ASSERT_EQ(sr_apply_1(p_table, 5), 0);
    EXPECT_EQ(p_table->applied_change_counter, 5u);
    EXPECT_EQ(U64At(ReadBytes(File("t")), p_table->applied_commit_record_offset + 16), 5u);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(p_table->change_counter, 5u);
    qx_uint64_t counter = 0;
    Reopened("t", &counter);
    EXPECT_EQ(counter, 5u);
}

TEST_F(ApplyTest, ImplicitTableIgnoresTheCallersChangeCounter) {
    sr_i_table_t *p_table = Make("t", 2);
    ASSERT_EQ(p_table->implicitly_controlled, 1u);
    ASSERT_EQ(sr_apply_1(p_table, 5), 0);
    EXPECT_EQ(p_table->applied_change_counter, p_table->change_counter + 1);
}

TEST_F(ApplyTest, ChangeCounterCarriesIntoTheHighWord) {
    sr_i_table_t *p_table = Make("t");
    p_table->change_counter = 0xFFFFFFFFull;
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    EXPECT_EQ(p_table->applied_change_counter, 0x100000000ull);
    EXPECT_EQ(U64At(ReadBytes(File("t")), p_table->applied_commit_record_offset + 16),
              0x100000000ull);
}

TEST_F(ApplyTest, DeletingOnlyRowsAddedInTheSameTransactionWritesNoDeletionRecord) {
    sr_i_table_t *p_table = Make("t");
    RowKit rows(p_table);
    rows.Add(R(1, {1}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    const size_t committed = ReadBytes(File("t")).size();

    rows.Delete(rows.Add(R(2, {2})));
    rows.Delete(rows.Add(R(3, {3})));
    sr_i_file_ops.p_writev = CountingWritev;
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(Writes.size(), 1u);
    EXPECT_EQ(Writes[0], std::make_pair(1, size_t{SR_I_COMMIT_RECORD_LENGTH}));
    EXPECT_EQ(ReadBytes(File("t")).size(), committed + SR_I_COMMIT_RECORD_LENGTH);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(p_table->total_applied_rows, 1u);
    ExpectIndexesConsistent(p_table);
    EXPECT_EQ(Reopened("t"), (State{{1, R(1, {1})}}));
}

TEST_F(ApplyTest, DeletionRecordListsTheCommittedRecordOfEachDeletedRow) {
    sr_i_table_t *p_table = Make("t");
    RowKit rows(p_table);
    qx_uint32_t a = rows.Add(R(1, {1}));
    rows.Add(R(2, {2}));
    qx_uint32_t c = rows.Add(R(3, {3}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    const qx_uint32_t offset_a = p_table->p_rows_fixed_index[a].file_offset;
    const qx_uint32_t offset_c = p_table->p_rows_fixed_index[c].file_offset;
    const qx_uint32_t start = p_table->commit_record_offset + p_table->commit_record_length;

    rows.Delete(c);
    rows.Delete(rows.Add(R(4, {4})));  // never committed: not listed
    rows.Delete(a);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    const std::string bytes = ReadBytes(File("t"));
    ASSERT_EQ(static_cast<qx_int32_t>(U32At(bytes, start + 8)), SR_I_RECORD_TYPE_DELETION);
    EXPECT_EQ(U32At(bytes, start), 16u + 2 * 4);
    EXPECT_EQ(U32At(bytes, start + 4), 0u);
    EXPECT_EQ(U32At(bytes, start + 12), 2u);
    EXPECT_EQ(U32At(bytes, start + 16), offset_c);
    EXPECT_EQ(U32At(bytes, start + 20), offset_a);
    EXPECT_EQ(p_table->applied_commit_record_offset, start + 24);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(Reopened("t"), (State{{2, R(2, {2})}}));
}

TEST_F(ApplyTest, UpdatedRowNamesTheRecordItReplaces) {
    sr_i_table_t *p_table = Make("t");
    RowKit rows(p_table);
    qx_uint32_t a = rows.Add(R(1, {1}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    const qx_uint32_t old_offset = p_table->p_rows_fixed_index[a].file_offset;
    rows.Set(a, R(1, {2}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    const qx_uint32_t new_offset = p_table->p_rows_fixed_index[a].applied_file_offset;
    EXPECT_EQ(U32At(ReadBytes(File("t")), new_offset + 12), old_offset);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(p_table->p_rows_fixed_index[a].file_offset, new_offset);
    EXPECT_EQ(Reopened("t"), (State{{1, R(1, {2})}}));
}

TEST_F(ApplyTest, ApplicationMetadataTravelsInTheAppliedCommitRecord) {
    sr_i_table_t *p_table = Make("t");
    char data[] = "abc";
    ASSERT_EQ(sr_i_set_application_metadata(p_table->p_application_metadata, 7, 3, data), 0);
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    const std::string bytes = ReadBytes(File("t"));
    const qx_uint32_t at = p_table->applied_commit_record_offset;
    EXPECT_EQ(U32At(bytes, at), 28u + 8 + 3);
    EXPECT_EQ(U32At(bytes, at + 24), 1u);
    EXPECT_EQ(U32At(bytes, at + 28), 7u);
    EXPECT_EQ(bytes.substr(at + 36, 3), "abc");
    ASSERT_EQ(sr_commit_1(p_table), 0);
    ASSERT_EQ(sr_close_table_1(p_table), 0);

    sr_opaque_handle_t handle = nullptr;
    ASSERT_EQ(sr_open_table_1(tree_, Text("/m/t"), 1, &handle), 0);
    qx_uint32_t length = 0;
    qx_char_ptr_t p_data = nullptr;
    ASSERT_EQ(
        sr_i_get_application_metadata_element(
            static_cast<sr_i_table_t *>(handle)->p_application_metadata, 7, 0, &length, &p_data),
        0);
    EXPECT_EQ(std::string(p_data, length), "abc");
    free(p_data);
}

// --- rewrite ---------------------------------------------------------------

TEST_F(ApplyTest, RewriteFileHoldsOnlyMetadataLiveRowsInIndexOrderAndACommitRecord) {
    sr_i_table_t *p_table = Make("t");
    RowKit rows(p_table);
    for (int i = 0; i < 6; ++i) rows.Add(R(i, {i * 10}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    rows.Delete(1);
    rows.Set(4, R(4, {44}));
    rows.Delete(rows.Add(R(8, {8})));
    rows.Add(R(9, {90}));  // the lowest free slot: 7 (6 is still pending)
    const std::string data_file = ReadBytes(File("t"));
    const qx_uint32_t metadata_length = U32At(data_file, 0);

    ASSERT_EQ(sr_i_apply(p_table, 1, 0), 0);
    EXPECT_EQ(p_table->ready_for_commit, 2u);
    EXPECT_EQ(ReadBytes(File("t")), data_file) << "a rewrite leaves the data file alone";
    const std::string image = ReadBytes(File("t.rewrite"));
    EXPECT_EQ(image.size(), p_table->rewrite_file_length);
    EXPECT_EQ(image.substr(0, metadata_length), data_file.substr(0, metadata_length));
    std::vector<FileRecord> records = FileRecords(image, true);
    ASSERT_EQ(records.size(), 1u + 6 + 1);
    EXPECT_EQ(records[0].type, SR_I_RECORD_TYPE_METADATA);
    const qx_int64_t keys[] = {0, 2, 3, 4, 5, 9};
    const qx_int64_t values[] = {0, 20, 30, 44, 50, 90};
    for (int i = 0; i < 6; ++i) {
        const FileRecord &r = records[1 + i];
        EXPECT_EQ(r.type, SR_I_RECORD_TYPE_ROW);
        EXPECT_EQ(U32At(image, r.offset + 12), 0u) << "every row is new in the new file";
        EXPECT_EQ(static_cast<qx_int64_t>(U64At(image, r.offset + 16)), keys[i]);
        EXPECT_EQ(static_cast<qx_int64_t>(U64At(image, r.offset + 24)), values[i]);
    }
    EXPECT_EQ(records[7].type, SR_I_RECORD_TYPE_COMMIT);
    EXPECT_EQ(records[7].offset, p_table->applied_commit_record_offset);
    EXPECT_EQ(U64At(image, records[7].offset + 16), p_table->change_counter + 1);

    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_FALSE(Exists(File("t.rewrite")));
    const std::string renamed = ReadBytes(File("t"));
    EXPECT_EQ(renamed, image);
    EXPECT_EQ(p_table->file_length, image.size());
    EXPECT_EQ(p_table->commit_record_offset, records[7].offset);
    // Every live row knows where it now lies.
    for (qx_uint32_t k = 0; k < p_table->total_applied_rows; ++k) {
        const sr_i_index_entry_t &e = p_table->p_rows_fixed_index[p_table->p_rows_packed_index[k]];
        EXPECT_EQ(e.applied_file_offset, 0u);
        ASSERT_NE(e.file_offset, 0u);
        EXPECT_EQ(U64At(renamed, e.file_offset + 16), sr_i_load_u64(e.p_committed + 4));
        EXPECT_EQ(U64At(renamed, e.file_offset + 24), sr_i_load_u64(e.p_committed + 12));
    }
    ExpectIndexesConsistent(p_table);
    EXPECT_EQ(Reopened("t"), Snapshot(p_table, false));

    // Appending to the rewritten file replaces the right records.
    rows.Set(static_cast<qx_uint32_t>(rows.Find(9)), R(9, {91}));
    rows.Delete(static_cast<qx_uint32_t>(rows.Find(0)));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(Reopened("t"), Snapshot(p_table, false));
    EXPECT_EQ(Reopened("t").size(), 5u);
}

TEST_F(ApplyTest, RewriteOverALongerStaleRewriteFileReadsBackExactly) {
    sr_i_table_t *p_table = Make("t");
    RowKit(p_table).Add(R(1, {1}));
    std::string stale(5000, '\x7f');
    WriteBytes(File("t.rewrite"), stale);
    ASSERT_EQ(sr_i_apply(p_table, 1, 0), 0);
    EXPECT_EQ(ReadBytes(File("t.rewrite")).size(), stale.size()) << "not truncated";
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(Reopened("t"), (State{{1, R(1, {1})}}));
    // The next append lands right behind the new commit record.
    RowKit(p_table).Add(R(2, {2}));
    ASSERT_EQ(sr_apply_1(p_table, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(Reopened("t").size(), 2u);
}

TEST_F(ApplyTest, RewriteThatCannotOpenItsFileLeavesEverythingAsItWas) {
    sr_i_table_t *p_table = Make("t");
    RowKit(p_table).Add(R(1, {1}));
    ASSERT_EQ(mkdir(File("t.rewrite").c_str(), 0755), 0);
    const std::string bytes = ReadBytes(File("t"));
    EXPECT_EQ(sr_i_apply(p_table, 1, 0), SR_E_SYSTEM_CALL);
    LastError error = last_error();
    EXPECT_EQ(error.code, SR_E_SYSTEM_CALL);
    EXPECT_NE(error.message.find("open"), std::string::npos) << error.message;
    EXPECT_NE(error.message.find("to the sr_i_apply function"), std::string::npos) << error.message;
    EXPECT_EQ(p_table->ready_for_commit, 0u);
    EXPECT_EQ(p_table->rewrite_file_fd, -1);
    EXPECT_EQ(ReadBytes(File("t")), bytes);
    EXPECT_EQ(std::string(sr_i_load_column(p_table->p_columns).name), "k");
    ASSERT_EQ(rmdir(File("t.rewrite").c_str()), 0);
    // The same changes still append.
    ASSERT_EQ(sr_i_apply(p_table, 0, 0), 0);
    ASSERT_EQ(sr_commit_1(p_table), 0);
    EXPECT_EQ(Reopened("t"), (State{{1, R(1, {1})}}));
}

TEST_F(ApplyTest, RewriteDecisionNeedsMoreThan16KiBAndLessThanHalfLive) {
    sr_i_table_t table{};
    table.file_length = 16384;
    table.record_buffer_pool.used_bytes = 0;
    EXPECT_EQ(sr_i_rewrite_wanted(&table), 0u);
    table.file_length = 16385;
    EXPECT_EQ(sr_i_rewrite_wanted(&table), 1u);
    table.record_buffer_pool.used_bytes = 8192;  // 819200 / 16385 = 49
    EXPECT_EQ(sr_i_rewrite_wanted(&table), 1u);
    table.record_buffer_pool.used_bytes = 8193;  // 50
    EXPECT_EQ(sr_i_rewrite_wanted(&table), 0u);
    // The product wraps in 32 bits: 43,000,000 * 100 is 5,032,704 after the
    // wrap, under half of a 20 MB file although the pool is larger.
    table.file_length = 20000000;
    table.record_buffer_pool.used_bytes = 43000000;
    EXPECT_EQ(sr_i_rewrite_wanted(&table), 1u);
    table.record_buffer_pool.used_bytes = 15000000;
    EXPECT_EQ(sr_i_rewrite_wanted(&table), 0u);
}

TEST_F(ApplyTest, ImplicitUpdatesRewriteAFileThatHasBecomeMostlyDeadSpace) {
    sr_i_table_t *p_table = Make("t", 2);
    RowKit rows(p_table);
    qx_uint32_t a = rows.Add(R(1, {0}));
    ASSERT_EQ(sr_i_implicit_apply_commit(p_table), 0);
    qx_uint32_t largest = 0;
    bool rewritten = false;
    for (int i = 1; i < 1000 && !rewritten; ++i) {
        rows.Set(a, R(1, {i}));
        ASSERT_EQ(sr_i_implicit_apply_commit(p_table), 0);
        if (p_table->file_length < largest) rewritten = true;
        largest = std::max(largest, p_table->file_length);
    }
    ASSERT_TRUE(rewritten);
    EXPECT_GT(largest, 16384u);
    EXPECT_LE(largest, 16384u + 32 + 24);
    // Metadata record, the row, the commit record.
    EXPECT_EQ(FileRecords(ReadBytes(File("t")), true).size(), 3u);
    EXPECT_FALSE(Exists(File("t.rewrite")));
    EXPECT_EQ(Reopened("t"), Snapshot(p_table, false));
}

}  // namespace
}  // namespace qxtest::tx
