// The table file reader on hand-made files: where the valid prefix ends,
// superseding and deletion records, the commit record and its application
// metadata, records at odd addresses, and the damaged files it must refuse
// with 14 without reading outside what it read.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "sr/table_test_util.h"

using qxtest::FileImage;
using qxtest::last_error;
using qxtest::PutHeader;
using qxtest::PutU32;
using qxtest::PutU64;
using qxtest::SlotValue;

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QX_TEST_CLANG_SANITIZED 1
#endif
#endif

namespace {

class TableFileTest : public qxtest::TableTest {
  protected:
    // Loads an image that must be refused with 14.
    void ExpectUnreadable(const FileImage &image, const char *what) {
        sr_i_table_t *p_table = nullptr;
        EXPECT_EQ(Load("bad", image, &p_table), 14) << what;
        EXPECT_EQ(p_table, nullptr) << what;
        EXPECT_EQ(last_error().message, "2605-014 The table is unreadable.\n") << what;
    }

    // The pool's records tile every buffer exactly, and every record on the
    // free chain is a free record inside a buffer.
    static void ExpectPoolIsSound(sr_i_table_t *p_table) {
        const sr_i_record_buffer_pool_t &pool = p_table->record_buffer_pool;
        qx_uint64_t free_data = 0;
        qx_uint64_t total = 0;
        for (sr_i_record_buffer_t *p = pool.p_first_record_buffer; p != nullptr; p = p->p_next) {
            char *p_record = sr_i_rb_buffer_data(p);
            char *p_end = sr_i_rb_buffer_end(p);
            total += p->total_bytes;
            while (p_record < p_end) {
                qx_uint32_t length = sr_i_record_length(p_record);
                ASSERT_GE(length, 12u);
                if (sr_i_record_type(p_record) == 0) free_data += length - 12;
                p_record += length;
            }
            ASSERT_EQ(p_record, p_end);
        }
        EXPECT_EQ(total, pool.total_bytes);
        EXPECT_EQ(pool.used_bytes, pool.total_bytes - free_data);
    }

    // Slot of a loaded row whose key (column 0) is `key`, or nullptr.
    static sr_i_index_entry_t *RowWithKey(sr_i_table_t *p_table, qx_int64_t key) {
        for (qx_uint32_t i = 0; i < p_table->maximum_rows; ++i) {
            sr_i_index_entry_t *p = &p_table->p_rows_fixed_index[i];
            if (p->p_committed != nullptr && SlotValue(p->p_committed, 0) == key) return p;
        }
        return nullptr;
    }
};

TEST_F(TableFileTest, TooShortOrWithoutCommitRecordIsUnreadable) {
    FileImage twelve;
    PutHeader(twelve.bytes, 12, SR_I_RECORD_TYPE_METADATA);
    ExpectUnreadable(twelve, "12 bytes");
    FileImage image = NewFile("t");
    ExpectUnreadable(image, "metadata record only");
    image.Row(0, {1, 2});
    ExpectUnreadable(image, "rows but no commit record");
    FileImage empty;
    ExpectUnreadable(empty, "empty");
}

// A sparse file of nearly 4 GB costs nothing on disk; reading its hole into
// memory would cost 4 GB, and a row index sized from its length more.  The
// reader may only spend memory on records the file shows to exist: what
// follows the commit record is never needed, and a hole where records must
// be is damage.  The load runs in a child whose address space is capped far
// below the file's length (not under the sanitizers, which reserve much
// more), so a large allocation shows as 12.
TEST_F(TableFileTest, SparseFileNearFourGigabytesCostsOnlyItsRecords) {
    FileImage committed = NewFile("t");
    committed.Row(0, {1, 10});
    committed.Row(0, {2, 20});
    committed.Commit(5);
    FileImage metadata_only = NewFile("u");
    FileImage free_over_hole = NewFile("v");
    PutHeader(free_over_hole.bytes, 0x80000000u, SR_I_RECORD_TYPE_FREE);
    const struct {
        const char *what;
        const FileImage *p_image;
        int expected;  // the load's code; 0 also wants both rows
    } cases[] = {
        {"rows, commit record, hole", &committed, 0},
        {"metadata record, hole", &metadata_only, 14},
        {"free record claiming the hole", &free_over_hole, 14},
    };
    for (const auto &c : cases) {
        qxtest::WriteBytes(File("sparse"), c.p_image->bytes);
        ASSERT_EQ(truncate(File("sparse").c_str(), UINT32_MAX - 4 * 4096), 0) << c.what;
        pid_t pid = fork();
        if (pid == 0) {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && \
    !defined(QX_TEST_CLANG_SANITIZED)
            const struct rlimit cap = {1u << 30, 1u << 30};
            if (setrlimit(RLIMIT_AS, &cap) != 0) _exit(99);
#endif
            sr_i_table_t *p_table = nullptr;
            const qx_int32_t rc = sr_i_open_persistent_table(static_cast<sr_i_tree_t *>(tree_),
                                                             nullptr, File("sparse").c_str(),
                                                             SR_MODE_READ, 512, nullptr, &p_table);
            if (rc != 0) _exit(rc);
            _exit(p_table->total_committed_rows == 2 ? 0 : 98);
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid) << c.what;
        ASSERT_TRUE(WIFEXITED(status)) << c.what;
        EXPECT_EQ(WEXITSTATUS(status), c.expected) << c.what;
    }
}

TEST_F(TableFileTest, ReaderStopsAtTheFirstCommitRecord) {
    FileImage image = NewFile("t");
    image.Row(0, {1, 10});
    image.Row(0, {2, 20});
    qx_uint32_t first_commit = image.Commit(5);
    // An apply that was never committed: a row and a second commit record.
    image.Row(0, {3, 30});
    image.Commit(6);
    sr_i_table_t *p_table = nullptr;
    ASSERT_EQ(Load("t", image, &p_table), 0);
    EXPECT_EQ(p_table->total_committed_rows, 2u);
    EXPECT_EQ(p_table->total_applied_rows, 2u);
    EXPECT_EQ(p_table->change_counter, 5u);
    EXPECT_EQ(p_table->commit_record_offset, first_commit);
    EXPECT_EQ(p_table->commit_record_length, 24u);
    EXPECT_EQ(p_table->file_length, image.bytes.size());
    EXPECT_EQ(RowWithKey(p_table, 3), nullptr);
    ExpectPoolIsSound(p_table);
    sr_i_close_table(p_table);

    // Commit turns the first commit record into free space: now the appended
    // row is part of the table.
    image.Retire(first_commit);
    ASSERT_EQ(Load("t", image, &p_table), 0);
    EXPECT_EQ(p_table->total_committed_rows, 3u);
    EXPECT_EQ(p_table->change_counter, 6u);
    ASSERT_NE(RowWithKey(p_table, 3), nullptr);
    EXPECT_EQ(SlotValue(RowWithKey(p_table, 3)->p_committed, 1), 30);
    ExpectPoolIsSound(p_table);
    sr_i_close_table(p_table);
}

// Commit overwrites the old commit record's type word (-1) with 0 in one
// 4-byte write that may straddle a sector; a power loss can leave it half
// done.  Such a word is the old commit record when nothing valid follows it,
// and free space when the new commit record does.
TEST_F(TableFileTest, ATornCommitSwitchIsReadAsOneSideOfTheSwitch) {
    const qx_uint32_t kTorn[] = {0xFFFF0000u, 0x0000FFFFu, 0xFF000000u, 0x00FFFF00u, 0xFF00FF00u};
    for (qx_uint32_t torn : kTorn) {
        SCOPED_TRACE(torn);
        const std::string name = "t" + std::to_string(torn);
        FileImage image = NewFile(name);
        image.Row(0, {1, 10});
        const qx_uint32_t first_commit = image.Commit(5);
        std::memcpy(image.bytes.data() + first_commit + 8, &torn, 4);
        image.Row(0, {2, 20});
        FileImage synced = image;
        synced.Commit(6);
        // The apply had synced its records and commit record: switched.
        sr_i_table_t *p_table = nullptr;
        ASSERT_EQ(Load(name, synced, &p_table), 0);
        EXPECT_EQ(p_table->total_committed_rows, 2u);
        EXPECT_EQ(p_table->change_counter, 6u);
        EXPECT_NE(p_table->commit_record_offset, first_commit);
        ExpectPoolIsSound(p_table);
        sr_i_close_table(p_table);
        // No valid commit record after it (none at all, one cut short, or
        // one whose length lies): still the old state.
        FileImage cut = synced;
        cut.bytes.resize(cut.bytes.size() - 1);
        FileImage lying = synced;
        const qx_uint32_t huge = 0x1000;
        std::memcpy(lying.bytes.data() + lying.bytes.size() - 24, &huge, 4);
        for (const FileImage *p_image : {&image, &cut, &lying}) {
            ASSERT_EQ(Load(name, *p_image, &p_table), 0);
            EXPECT_EQ(p_table->total_committed_rows, 1u);
            EXPECT_EQ(p_table->change_counter, 5u);
            EXPECT_EQ(p_table->commit_record_offset, first_commit);
            ExpectPoolIsSound(p_table);
            sr_i_close_table(p_table);
        }
    }
    // Other unknown type words are still damage.
    FileImage image = NewFile("other");
    const qx_uint32_t commit = image.Commit(5);
    const qx_uint32_t other = 0xFFFF0001u;
    std::memcpy(image.bytes.data() + commit + 8, &other, 4);
    ExpectUnreadable(image, "type word of other bytes");
}

TEST_F(TableFileTest, LoadedRowsAreCommittedInPlaceWithTheirFixedIndex) {
    FileImage image = NewFile("t", 3);
    qx_uint32_t r0 = image.Row(0, {7, 70, 700});
    qx_uint32_t r1 = image.Row(0, {8, 80, 800});
    image.Commit(1);
    sr_i_table_t *p_table = nullptr;
    ASSERT_EQ(Load("t", image, &p_table), 0);
    ASSERT_GE(p_table->maximum_rows, 2u);
    sr_i_index_entry_t *p0 = &p_table->p_rows_fixed_index[0];
    sr_i_index_entry_t *p1 = &p_table->p_rows_fixed_index[1];
    EXPECT_EQ(p0->p_applied, p0->p_committed);
    EXPECT_EQ(p0->file_offset, r0);
    EXPECT_EQ(p1->file_offset, r1);
    EXPECT_EQ(p0->applied_file_offset, 0u);
    EXPECT_EQ(p0->p_pending_change, nullptr);
    // The first word of each record now holds its row's fixed index.
    EXPECT_EQ(sr_i_load_u32(p1->p_committed), 1u);
    EXPECT_EQ(SlotValue(p1->p_committed, 2), 800);
    EXPECT_EQ(p_table->p_rows_packed_index[0], 0u);
    EXPECT_EQ(p_table->p_rows_packed_index[1], 1u);
    EXPECT_EQ(p1->packed_index, 1u);
    // The records lie in the file image itself, not in copies.
    EXPECT_EQ(p0->p_committed, p_table->p_metadata_record_data - 12 + r0 + 12);
    sr_i_close_table(p_table);
}

TEST_F(TableFileTest, SupersedingRecordKeepsTheRowsFixedIndex) {
    FileImage image = NewFile("t");
    qx_uint32_t r0 = image.Row(0, {1, 10});
    qx_uint32_t r1 = image.Row(0, {2, 20});
    qx_uint32_t c1 = image.Commit(1);
    qx_uint32_t r1b = image.Row(r1, {2, 21});
    qx_uint32_t c2 = image.Commit(2);
    image.Retire(c1);
    qx_uint32_t r1c = image.Row(r1b, {2, 22});
    image.Commit(3);
    image.Retire(c2);
    sr_i_table_t *p_table = nullptr;
    ASSERT_EQ(Load("t", image, &p_table), 0);
    EXPECT_EQ(p_table->total_committed_rows, 2u);
    sr_i_index_entry_t *p1 = &p_table->p_rows_fixed_index[1];
    EXPECT_EQ(p1->file_offset, r1c);
    EXPECT_EQ(SlotValue(p1->p_committed, 1), 22);
    EXPECT_EQ(p_table->p_rows_fixed_index[0].file_offset, r0);
    EXPECT_EQ(p_table->change_counter, 3u);
    ExpectPoolIsSound(p_table);
    sr_i_close_table(p_table);
}

TEST_F(TableFileTest, DeletionRecordFreesSlotsThatAreReusedLowestFirst) {
    FileImage image = NewFile("t");
    std::vector<qx_uint32_t> rows;
    for (int k = 0; k < 5; ++k) rows.push_back(image.Row(0, {qx_uint64_t(k), 0}));
    qx_uint32_t c1 = image.Commit(1);
    image.Deletion({rows[3], rows[1]});
    image.Commit(2);
    image.Retire(c1);
    sr_i_table_t *p_table = nullptr;
    ASSERT_EQ(Load("t", image, &p_table), 0);
    EXPECT_EQ(p_table->total_committed_rows, 3u);
    EXPECT_EQ(RowWithKey(p_table, 1), nullptr);
    EXPECT_EQ(RowWithKey(p_table, 3), nullptr);
    // Live rows are packed densely; freed slots come back lowest first.
    for (qx_uint32_t i = 0; i < 3; ++i) {
        EXPECT_NE(p_table->p_rows_fixed_index[p_table->p_rows_packed_index[i]].p_committed,
                  nullptr);
    }
    sr_i_index_entry_t *p_free = sr_i_rows_free_chain_remove(p_table);
    EXPECT_EQ(p_free - p_table->p_rows_fixed_index, 1);
    p_free = sr_i_rows_free_chain_remove(p_table);
    EXPECT_EQ(p_free - p_table->p_rows_fixed_index, 3);
    p_free = sr_i_rows_free_chain_remove(p_table);
    EXPECT_EQ(p_free - p_table->p_rows_fixed_index, 5);
    ExpectPoolIsSound(p_table);
    sr_i_close_table(p_table);

    // A row added after the deletion, in a later commit, takes the lowest
    // freed slot.
    FileImage later = NewFile("t2");
    rows.clear();
    for (int k = 0; k < 5; ++k) rows.push_back(later.Row(0, {qx_uint64_t(k), 0}));
    c1 = later.Commit(1);
    later.Deletion({rows[3], rows[1]});
    qx_uint32_t c2 = later.Commit(2);
    later.Retire(c1);
    later.Row(0, {9, 90});
    later.Commit(3);
    later.Retire(c2);
    ASSERT_EQ(Load("t2", later, &p_table), 0);
    ASSERT_NE(RowWithKey(p_table, 9), nullptr);
    EXPECT_EQ(RowWithKey(p_table, 9) - p_table->p_rows_fixed_index, 1);
    EXPECT_EQ(p_table->total_committed_rows, 4u);
    sr_i_close_table(p_table);
}

TEST_F(TableFileTest, FreeRecordsAndForeignLinkWordsNeverReachThePoolsChain) {
    FileImage image = NewFile("t");
    image.Free(12);
    image.Row(0, {1, 10});
    image.Free(40);
    image.Free(13);
    image.Row(0, {2, 20});
    image.Commit(1);
    image.Free(100);  // after the commit record: never walked
    sr_i_table_t *p_table = nullptr;
    ASSERT_EQ(Load("t", image, &p_table), 0);
    EXPECT_EQ(p_table->total_committed_rows, 2u);
    ExpectPoolIsSound(p_table);
    // Allocate and free through the chain the load built.
    std::vector<char *> records;
    for (int i = 0; i < 200; ++i) {
        char *p_data = nullptr;
        ASSERT_EQ(sr_i_reserve_record(&p_table->record_buffer_pool, 8 + (i % 40), 2, &p_data), 0);
        std::memset(p_data, 0xAB, 8 + (i % 40));
        records.push_back(p_data);
    }
    for (char *p_data : records) sr_i_rb_free_record(&p_table->record_buffer_pool, p_data);
    ExpectPoolIsSound(p_table);
    sr_i_close_table(p_table);
}

TEST_F(TableFileTest, CommitRecordCarriesTheApplicationMetadata) {
    sr_i_application_metadata_t *p_metadata = nullptr;
    ASSERT_EQ(sr_i_allocate_application_metadata_buffer(1, &p_metadata), 0);
    char odd[] = "abc";
    char more[] = "0123456789";
    ASSERT_EQ(sr_i_add_application_metadata_element(p_metadata, 4, 3, odd), 0);
    ASSERT_EQ(sr_i_add_application_metadata_element(p_metadata, 9, 10, more), 0);
    ASSERT_EQ(sr_i_add_application_metadata_element(p_metadata, 2, 0, more), 0);
    ASSERT_EQ(sr_i_commit_application_metadata_buffer_updates(p_metadata), 0);
    ASSERT_EQ(sr_i_delete_application_metadata_element(p_metadata, 9), 0);  // pending: skipped
    char *p_record = nullptr;
    qx_uint32_t length = 0;
    ASSERT_EQ(sr_i_create_commit_record(p_metadata, 77, &length, &p_record), 0);
    EXPECT_EQ(length, 28u + (8 + 0) + (8 + 3) + (8 + 10));
    std::string bytes(p_record, length);
    EXPECT_EQ(qxtest::U32At(bytes, 0), length);
    EXPECT_EQ(qxtest::U32At(bytes, 4), 0u);
    EXPECT_EQ(qxtest::U32At(bytes, 8), 0xFFFFFFFFu);
    EXPECT_EQ(qxtest::U32At(bytes, 12), length - 16);
    EXPECT_EQ(qxtest::U64At(bytes, 16), 77u);
    EXPECT_EQ(qxtest::U32At(bytes, 24), 3u);
    EXPECT_EQ(qxtest::U32At(bytes, 28), 2u);  // sorted by type
    EXPECT_EQ(qxtest::U32At(bytes, 36), 4u);
    EXPECT_EQ(bytes.substr(44, 3), "abc");
    EXPECT_EQ(qxtest::U32At(bytes, 47), 9u);  // unaligned, unpadded
    EXPECT_EQ(bytes.substr(55, 10), "0123456789");

    sr_i_application_metadata_t *p_read = nullptr;
    ASSERT_EQ(sr_i_allocate_application_metadata_buffer(1, &p_read), 0);
    qx_uint64_t counter = 0;
    ASSERT_EQ(sr_i_open_commit_record(p_record, p_read, &counter), 0);
    EXPECT_EQ(counter, 77u);
    ASSERT_EQ(p_read->total_elements, 3u);
    qx_uint32_t got_length = 0;
    char *p_got = nullptr;
    ASSERT_EQ(sr_i_get_application_metadata_element(p_read, 9, 0, &got_length, &p_got), 0);
    EXPECT_EQ(std::string(p_got, got_length), "0123456789");
    std::free(p_got);
    std::free(p_record);
    sr_i_free_application_metadata(p_read);

    ASSERT_EQ(sr_i_create_commit_record(nullptr, 1, &length, &p_record), 0);
    EXPECT_EQ(length, 24u);
    EXPECT_EQ(qxtest::U32At(std::string(p_record, length), 12), 8u);
    std::free(p_record);
    sr_i_free_application_metadata(p_metadata);
}

// Elements in any order in the record (not how commit writes them) are read
// into the same sorted store, and are written back sorted.
TEST_F(TableFileTest, MetadataElementsOutOfOrderAreReadSorted) {
    FileImage image = NewFile("t");
    image.Row(0, {1, 10});
    image.Commit(1, {{9, "nine"}, {0, "zero"}, {5, "five"}, {7, ""}});
    sr_i_table_t *p_table = nullptr;
    ASSERT_EQ(Load("t", image, &p_table), 0);
    const sr_i_application_metadata_t *p_store = p_table->p_application_metadata;
    ASSERT_EQ(p_store->total_elements, 4u);
    const char *expected[] = {"zero", "five", "", "nine"};
    const qx_uint32_t types[] = {0, 5, 7, 9};
    for (qx_uint32_t i = 0; i < 4; ++i) {
        EXPECT_EQ(p_store->p_index[i].type, types[i]);
        const qx_binary_t *p_block = p_store->p_index[i].p_committed;
        EXPECT_EQ(p_block, p_store->p_index[i].p_applied);
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(p_block->data), p_block->length),
                  expected[i]);
    }
    char *p_record = nullptr;
    qx_uint32_t length = 0;
    ASSERT_EQ(sr_i_create_commit_record(p_table->p_application_metadata, 2, &length, &p_record),
              0);
    std::string bytes(p_record, length);
    EXPECT_EQ(qxtest::U32At(bytes, 28), 0u);
    EXPECT_EQ(bytes.substr(36, 4), "zero");
    EXPECT_EQ(qxtest::U32At(bytes, 40), 5u);
    std::free(p_record);
    sr_i_close_table(p_table);
}

// Odd-length application metadata in a committed-over commit record puts
// every later record at an odd address; the reader and the index work there.
TEST_F(TableFileTest, RecordsAfterOddLengthMetadataAreReadAtOddAddresses) {
    FileImage image = NewFile("t");
    qx_uint32_t r0 = image.Row(0, {1, 10});
    qx_uint32_t c1 = image.Commit(1, {{0, "odd"}});
    qx_uint32_t r1 = image.Row(0, {2, 20});
    qx_uint32_t r0b = image.Row(r0, {1, 11});
    qx_uint32_t c2 = image.Commit(2, {{0, "odder"}, {5, std::string(6, 'x')}});
    image.Retire(c1);
    image.Deletion({r1});
    image.Row(0, {3, 30});
    image.Commit(3, {{0, "x"}});
    image.Retire(c2);
    (void)r0b;
    sr_i_table_t *p_table = nullptr;
    ASSERT_EQ(Load("t", image, &p_table), 0);
    EXPECT_EQ(p_table->total_committed_rows, 2u);
    EXPECT_EQ(SlotValue(RowWithKey(p_table, 1)->p_committed, 1), 11);
    EXPECT_EQ(RowWithKey(p_table, 2), nullptr);
    EXPECT_EQ(SlotValue(RowWithKey(p_table, 3)->p_committed, 1), 30);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(RowWithKey(p_table, 3)->p_committed) % 2, 1u);
    EXPECT_EQ(p_table->change_counter, 3u);
    qx_binary_t *p_binary = nullptr;
    ASSERT_EQ(sr_i_get_application_metadata_element_binary(p_table->p_application_metadata, 0, 0,
                                                           &p_binary),
              0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(p_binary->data), p_binary->length), "x");
    std::free(p_binary);
    ExpectPoolIsSound(p_table);
    sr_i_close_table(p_table);
}

TEST_F(TableFileTest, ResourceHandleKeyGetsAHashedIndexOnOpen) {
    std::vector<sr_column_t> columns = ScalarColumns(2);
    columns[0].type = QX_RSRC_HANDLE_PTR;
    columns[0].default_value.ptr_rsrc_handle = nullptr;
    sr_i_table_t *p_created = Create("/m/r", columns);
    ASSERT_NE(p_created, nullptr);
    ASSERT_EQ(sr_close_table_1(p_created), 0);
    FileImage image;
    image.bytes = qxtest::ReadBytes(File("r"));
    image.bytes.resize(image.bytes.size() - 24);
    // Rows: the key's slot anchors 20 handle bytes (24 with the form's
    // padding) in the record's indirect area.
    for (qx_uint32_t id4 : {0x12345u, 0x2u}) {
        qx_resource_handle_t handle{1, {2, 3, 4, id4}};
        PutHeader(image.bytes, 12 + 4 + 16 + 24, SR_I_RECORD_TYPE_ROW, 0xBADBAD);
        PutU32(image.bytes, 0);
        PutU32(image.bytes, 0);   // offset
        PutU32(image.bytes, 20);  // length
        PutU64(image.bytes, 5);
        image.bytes.append(reinterpret_cast<const char *>(&handle), sizeof handle);
        image.bytes.append(4, '\0');
    }
    image.Commit(1);
    sr_i_table_t *p_table = nullptr;
    ASSERT_EQ(Load("r", image, &p_table), 0);
    ASSERT_NE(p_table->p_rows_hash_table, nullptr);
    EXPECT_EQ(p_table->p_rows_hash_table->total_hash_buckets, 16384u);
    EXPECT_EQ(p_table->p_rows_fixed_index[0].hash_index, 0x2345u);
    qx_resource_handle_t wanted{1, {2, 3, 4, 0x2}};
    qx_uint32_t row = 99;
    char **p_p_key = nullptr;
    ASSERT_EQ(sr_i_hash_table_get_index(p_table->p_rows_hash_table, &wanted, &row, &p_p_key), 0);
    EXPECT_EQ(row, 1u);
    sr_i_close_table(p_table);

    // A key anchor outside its record is refused before any index reads it.
    qx_uint32_t meta = sr_i_load_u32(image.bytes.data());
    FileImage broken = image;
    qx_uint32_t big = 1000;
    std::memcpy(broken.bytes.data() + meta + 16, &big, 4);
    ExpectUnreadable(broken, "key outside its record");
}

TEST_F(TableFileTest, DamagedRecordsAreUnreadable) {
    const FileImage base = NewFile("t");
    const qx_uint32_t meta = base.End();
    {
        FileImage image = base;
        PutHeader(image.bytes, 0, SR_I_RECORD_TYPE_FREE);
        image.Commit(1);
        ExpectUnreadable(image, "zero-length free record");
    }
    {
        FileImage image = base;
        PutHeader(image.bytes, 5, SR_I_RECORD_TYPE_FREE);
        image.Commit(1);
        ExpectUnreadable(image, "free record shorter than its header");
    }
    {
        FileImage image = base;
        image.Row(0, {1, 2});
        image.bytes.resize(image.bytes.size() - 8);  // the row's length runs past the end
        ExpectUnreadable(image, "record past the end");
    }
    {
        FileImage image = base;
        PutHeader(image.bytes, 20, SR_I_RECORD_TYPE_ROW);  // shorter than a row's slots
        PutU64(image.bytes, 0);
        image.Commit(1);
        ExpectUnreadable(image, "short row");
    }
    {
        FileImage image = base;
        qx_uint32_t r = image.Row(0, {1, 2});
        image.Deletion({r, r});
        image.Commit(1);
        ExpectUnreadable(image, "deletion listing one row twice");
    }
    {
        FileImage image = base;
        qx_uint32_t r = image.Row(0, {1, 2});
        image.Deletion({r + 4});
        image.Commit(1);
        ExpectUnreadable(image, "deletion inside a row");
    }
    {
        FileImage image = base;
        image.Row(0, {1, 2});
        image.Deletion({0});
        image.Commit(1);
        ExpectUnreadable(image, "deletion of the metadata record");
    }
    {
        FileImage image = base;
        qx_uint32_t f = image.Free(24);
        image.Row(0, {0, 2});
        image.Deletion({f});
        image.Commit(1);
        ExpectUnreadable(image, "deletion of a free record");
    }
    {
        FileImage image = base;
        image.Row(0, {1, 2});
        PutHeader(image.bytes, 16, SR_I_RECORD_TYPE_DELETION);
        PutU32(image.bytes, 0x40000001);  // 4 * count overflows 32 bits
        image.Commit(1);
        ExpectUnreadable(image, "deletion count beyond its record");
    }
    {
        FileImage image = base;
        qx_uint32_t r = image.Row(0, {1, 2});
        image.Row(r, {1, 3});
        image.Row(r, {1, 4});
        image.Commit(1);
        ExpectUnreadable(image, "superseding a record twice");
    }
    {
        FileImage image = base;
        image.Row(0, {1, 2});
        image.Row(image.End() + 100, {1, 3});
        image.Commit(1);
        ExpectUnreadable(image, "superseding a record ahead");
    }
    {
        FileImage image = base;
        image.Row(0, {1, 2});
        image.Row(meta - 12, {1, 3});
        image.Commit(1);
        ExpectUnreadable(image, "superseding the metadata record");
    }
    {
        FileImage image = base;
        image.Row(0, {1, 2});
        image.Row(0xFFFFFFF0u, {1, 3});
        image.Commit(1);
        ExpectUnreadable(image, "superseding an offset near 4 GiB");
    }
    {
        FileImage image = base;
        PutHeader(image.bytes, 12 + 16, SR_I_RECORD_TYPE_METADATA);
        image.bytes.append(16, '\0');
        image.Commit(1);
        ExpectUnreadable(image, "second metadata record");
    }
    {
        FileImage image = base;
        PutHeader(image.bytes, 12, 7);
        image.Commit(1);
        ExpectUnreadable(image, "unknown record type");
    }
    {
        FileImage image = base;
        PutHeader(image.bytes, 24, SR_I_RECORD_TYPE_COMMIT);
        PutU32(image.bytes, 4);  // less than the change counter
        PutU64(image.bytes, 1);
        ExpectUnreadable(image, "commit record too short for its counter");
    }
    {
        FileImage image = base;
        PutHeader(image.bytes, 36, SR_I_RECORD_TYPE_COMMIT);
        PutU32(image.bytes, 20);
        PutU64(image.bytes, 1);
        PutU32(image.bytes, 1);
        PutU32(image.bytes, 0);
        PutU32(image.bytes, 0xFFFFFFFF);  // element length beyond the record
        ExpectUnreadable(image, "application metadata beyond the commit record");
    }
    {
        FileImage image = base;
        image.Commit(1, {{3, "a"}, {3, "b"}});
        ExpectUnreadable(image, "one metadata type twice");
    }
    {
        FileImage image = base;
        image.Commit(1, {{3, "a"}, {1, "x"}, {3, "b"}});
        ExpectUnreadable(image, "one metadata type twice, out of order");
    }
}

TEST_F(TableFileTest, DamagedMetadataRecordsAreUnreadable) {
    const FileImage base = NewFile("t", 2);
    const qx_uint32_t meta = base.End();
    const size_t array = 12 + 16;
    const size_t col = qxtest::kColumnEntry;
    auto with = [&](size_t offset, qx_uint64_t value, size_t size) {
        FileImage image = base;
        std::memcpy(image.bytes.data() + offset, &value, size);
        image.Commit(1);
        return image;
    };
    ExpectUnreadable(with(8, 2, 4), "metadata record of another type");
    ExpectUnreadable(with(0, meta + 1000, 4), "metadata record longer than the file");
    ExpectUnreadable(with(0, 20, 4), "metadata record shorter than its words");
    ExpectUnreadable(with(12 + 8, 0, 4), "no columns");
    ExpectUnreadable(with(12 + 8, 3, 4), "column array larger than the record");
    ExpectUnreadable(with(12 + 8, 0x80000000u, 4), "column count overflowing");
    ExpectUnreadable(with(12 + 12, 1, 4), "variable-length count that does not add up");
    ExpectUnreadable(with(array + col + 4, 0, 4), "no type");
    ExpectUnreadable(with(array + col + 4, 23, 4), "type 23");
    ExpectUnreadable(with(array + col + 4, 0x95959595u, 4), "type word no type has");
    ExpectUnreadable(with(array + 8, SR_STANDARD, 4), "column 0 not a key");
    ExpectUnreadable(with(array + col + 0, 1u << 20, 4), "name outside the record");
    ExpectUnreadable(with(array + col + 16, 1u << 20, 4), "definition outside the record");
    ExpectUnreadable(with(array + col + 16, 0xFFFFFFFEu, 4), "definition offset that wraps around");
    ExpectUnreadable(with(array + col + 0, 0xFFFFFFFFu, 4), "name offset that wraps around");
    // The last name without its NUL.
    FileImage image = base;
    image.bytes[meta - 1] = 'x';
    image.Commit(1);
    ExpectUnreadable(image, "name without its end");

    // Whatever create would refuse is refused here too.
    const qx_uint32_t names = qxtest::ColumnEntryAt(base.bytes, array).name;
    ExpectUnreadable(with(array + col + 0, names, 4), "two columns of one name");
    ExpectUnreadable(with(array + col + 8, 0xFFFFFFFEu, 4), "qualifier of no kind");
    ExpectUnreadable(with(array + col + 8, SR_SYSTEM, 4), "system qualifier");
    ExpectUnreadable(with(array + col + 8, SR_PRIMARY_KEY, 4), "a second key column");
    ExpectUnreadable(with(array + col + 16, names + 2, 4), "definition of a scalar column");
    image = base;
    image.bytes[array + 2 * col + 3] = '-';  // "k", then "c1" becomes "c-"
    image.Commit(1);
    ExpectUnreadable(image, "name create refuses");
}

// A file whose second column is a string named like the int32 key, with a
// qualifier of no kind, could not have come from create: a row added by the
// name would bind both columns.  The reader refuses it.
TEST_F(TableFileTest, TwinColumnsOfDifferentTypesAreUnreadable) {
    std::string area = "k";
    area += '\0';
    std::string data;
    PutU32(data, 0);
    PutU32(data, 0);
    PutU32(data, 2);  // columns
    PutU32(data, 1);  // of them variable-length
    const qx_uint32_t entry[2][6] = {{0, QX_INT32, SR_PRIMARY_KEY, 0, 0, 0},
                                     {0, QX_CHAR_PTR, 0xFFFFFFFEu, 0, 0, 0}};
    for (int c = 0; c < 2; ++c) {
        for (qx_uint32_t word : entry[c]) PutU32(data, word);
        // The default: an int32 0, and for the string "k" (the name's bytes).
        PutU32(data, 0);
        PutU32(data, c == 0 ? 0 : 2);
    }
    data += area;
    FileImage image;
    qxtest::PutHeader(image.bytes, static_cast<qx_uint32_t>(12 + data.size()), 1);
    image.bytes += data;
    image.Commit(1);
    ExpectUnreadable(image, "twin columns k");
}

TEST_F(TableFileTest, ReaderNeedsAFileName) {
    sr_i_table_t *p_table = nullptr;
    EXPECT_EQ(sr_i_open_persistent_table(static_cast<sr_i_tree_t *>(tree_), nullptr, nullptr, 1,
                                         512, nullptr, &p_table),
              101);
    EXPECT_EQ(sr_i_open_persistent_table(static_cast<sr_i_tree_t *>(tree_), nullptr,
                                         File("absent").c_str(), 1, 512, nullptr, &p_table),
              200);
}

TEST_F(TableFileTest, EveryAllocationFailureOfALoadIs12) {
    FileImage image = NewFile("t");
    image.Row(0, {1, 10});
    image.Commit(1, {{0, "meta"}});
    qxtest::WriteBytes(File("t"), image.bytes);
    bool loaded = false;
    for (qx_int64_t n = 0; n < 100 && !loaded; ++n) {
        sr_i_table_t *p_table = nullptr;
        sr_i_alloc_fail_after(n);
        qx_int32_t rc = sr_i_open_persistent_table(static_cast<sr_i_tree_t *>(tree_), "/m/t",
                                                   File("t").c_str(), 1, 512, nullptr, &p_table);
        sr_i_alloc_fail_after(-1);
        if (rc == 0) {
            loaded = true;
            EXPECT_EQ(p_table->total_committed_rows, 1u);
            sr_i_close_table(p_table);
        } else {
            EXPECT_EQ(rc, 12) << n;
        }
    }
    EXPECT_TRUE(loaded);
}

}  // namespace
