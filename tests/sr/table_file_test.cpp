// The table file reader on hand-made files, and damaged files refused with 14.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "sr/table_test_util.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QX_TEST_CLANG_SANITIZED 1
#endif
#endif

namespace qxtest {
namespace {

class TableFileTest : public qxtest::TableTest {
  protected:
    void ExpectUnreadable(const FileImage &image, const char *what) {
        sr_i_table_t *p_table = nullptr;
        EXPECT_EQ(Load("bad", image, &p_table), 14) << what;
        EXPECT_EQ(p_table, nullptr) << what;
        EXPECT_EQ(last_error().message, "2605-014 The table is unreadable.\n") << what;
    }

    // Loads `image`: `rows` committed rows, `counter`.
    sr_i_table_t *Expect(const std::string &name, const FileImage &image, qx_uint32_t rows,
                         qx_uint64_t counter) {
        sr_i_table_t *p_table = nullptr;
        EXPECT_EQ(Load(name, image, &p_table), 0) << name;
        if (p_table == nullptr) return nullptr;
        EXPECT_EQ(p_table->total_committed_rows, rows) << name;
        EXPECT_EQ(p_table->change_counter, counter) << name;
        return p_table;
    }

    // The value of column 1 of the committed row of key `key`, or -1.
    static qx_int64_t ValueOf(sr_i_table_t *p_table, qx_int64_t key,
                              qx_uint32_t *p_fixed = nullptr) {
        for (qx_uint32_t i = 0; i < p_table->maximum_rows; ++i) {
            const char *p = p_table->p_rows_fixed_index[i].p_committed;
            if (p == nullptr || SlotValue(p, 0) != key) continue;
            if (p_fixed != nullptr) *p_fixed = i;
            return SlotValue(p, 1);
        }
        return -1;
    }
};

// A sparse file of nearly 4 GB costs only its records: loaded in a child with a capped space.
TEST_F(TableFileTest, SparseFileNearFourGigabytesCostsOnlyItsRecords) {
    FileImage committed = NewFile("t");
    committed.Row(0, {1, 10});
    committed.Row(0, {2, 20});
    committed.Commit(5);
    FileImage metadata_only = NewFile("u");
    FileImage free_over_hole = NewFile("v");
    PutHeader(free_over_hole.bytes, 0x80000000u, SR_I_RECORD_TYPE_FREE);
    // 0 also wants both rows.
    for (auto [p_image, expected] :
         {std::pair{&committed, 0}, {&metadata_only, 14}, {&free_over_hole, 14}}) {
        qxtest::WriteBytes(File("sparse"), p_image->bytes);
        ASSERT_EQ(truncate(File("sparse").c_str(), UINT32_MAX - 4 * 4096), 0);
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
            _exit(rc != 0 ? rc : p_table->total_committed_rows == 2 ? 0 : 98);
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), expected) << expected;
    }
}

// Free records (of foreign link words) never reach the pool's free chain.
TEST_F(TableFileTest, ReaderStopsAtTheFirstCommitRecordAndSkipsFreeRecords) {
    FileImage image = NewFile("t");
    image.Free(12);
    image.Row(0, {1, 10});
    image.Free(40);
    image.Free(13);
    image.Row(0, {2, 20});
    qx_uint32_t first_commit = image.Commit(5);
    image.Row(0, {3, 30});  // an apply never committed
    image.Commit(6);
    image.Free(100);  // after the commit record: never walked
    sr_i_table_t *p_table = Expect("t", image, 2, 5);
    EXPECT_EQ(p_table->commit_record_offset, first_commit);
    EXPECT_EQ(p_table->file_length, image.bytes.size());
    EXPECT_EQ(ValueOf(p_table, 3), -1);
    std::vector<char *> records;
    for (int i = 0; i < 200; ++i) {
        char *p_data = nullptr;
        ASSERT_EQ(sr_i_reserve_record(&p_table->record_buffer_pool, 8 + (i % 40), 2, &p_data), 0);
        std::memset(p_data, 0xAB, 8 + (i % 40));
        records.push_back(p_data);
    }
    for (char *p_data : records) sr_i_rb_free_record(&p_table->record_buffer_pool, p_data);
    sr_i_close_table(p_table);
    // Commit turns the first commit record into free space.
    image.Retire(first_commit);
    p_table = Expect("t", image, 3, 6);
    EXPECT_EQ(ValueOf(p_table, 3), 30);
    sr_i_close_table(p_table);
}

// A torn 4-byte commit switch is the old commit record unless a valid new one follows.
TEST_F(TableFileTest, ATornCommitSwitchIsReadAsOneSideOfTheSwitch) {
    for (qx_uint32_t torn : {0xFFFF0000u, 0x0000FFFFu, 0xFF000000u, 0x00FFFF00u, 0xFF00FF00u}) {
        SCOPED_TRACE(torn);
        const std::string name = "t" + std::to_string(torn);
        FileImage image = NewFile(name);
        image.Row(0, {1, 10});
        const qx_uint32_t first_commit = image.Commit(5);
        std::memcpy(image.bytes.data() + first_commit + 8, &torn, 4);
        image.Row(0, {2, 20});
        FileImage synced = image;
        synced.Commit(6);
        sr_i_close_table(Expect(name, synced, 2, 6));
        // None, one cut short, one whose length lies: still the old state.
        FileImage cut = synced;
        cut.bytes.resize(cut.bytes.size() - 1);
        FileImage lying = synced;
        const qx_uint32_t huge = 0x1000;
        std::memcpy(lying.bytes.data() + lying.bytes.size() - 24, &huge, 4);
        for (const FileImage *p_image : {&image, &cut, &lying}) {
            sr_i_table_t *p_table = Expect(name, *p_image, 1, 5);
            EXPECT_EQ(p_table->commit_record_offset, first_commit);
            sr_i_close_table(p_table);
        }
    }
    FileImage image = NewFile("other");
    const qx_uint32_t commit = image.Commit(5);
    const qx_uint32_t other = 0xFFFF0001u;
    std::memcpy(image.bytes.data() + commit + 8, &other, 4);
    ExpectUnreadable(image, "type word of other bytes");
}

// Odd-length metadata in the retired commit records puts later records at odd addresses.
TEST_F(TableFileTest, SupersedingAndDeletionRecordsKeepFixedIndexesAndFreeSlots) {
    FileImage image = NewFile("t");
    std::vector<qx_uint32_t> rows;
    for (int k = 0; k < 5; ++k) rows.push_back(image.Row(0, {qx_uint64_t(k), 0}));
    qx_uint32_t c1 = image.Commit(1, {{0, "odd"}});
    qx_uint32_t r1b = image.Row(rows[2], {2, 21});
    qx_uint32_t c2 = image.Commit(2, {{0, "odder"}, {5, std::string(6, 'x')}});
    image.Retire(c1);
    image.Row(r1b, {2, 22});
    image.Deletion({rows[3], rows[1]});
    c1 = image.Commit(3, {{0, "x"}});
    image.Retire(c2);
    sr_i_table_t *p_table = Expect("t", image, 3, 3);
    qx_uint32_t fixed = 0;
    EXPECT_EQ(ValueOf(p_table, 2, &fixed), 22);
    EXPECT_EQ(fixed, 2u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p_table->p_rows_fixed_index[fixed].p_committed) % 2, 1u);
    qx_binary_t *p_binary = nullptr;
    ASSERT_EQ(sr_get_application_metadata_1(p_table, &p_binary), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(p_binary->data), p_binary->length), "x");
    std::free(p_binary);
    EXPECT_EQ(ValueOf(p_table, 1), -1);
    EXPECT_EQ(ValueOf(p_table, 3), -1);
    for (qx_uint32_t expected : {1u, 3u, 5u}) {  // freed slots come back lowest first
        EXPECT_EQ(sr_i_rows_free_chain_remove(p_table) - p_table->p_rows_fixed_index, expected);
    }
    sr_i_close_table(p_table);
    // A row added in a later commit takes the lowest freed slot.
    image.Row(0, {9, 90});
    image.Commit(4);
    image.Retire(c1);
    p_table = Expect("t", image, 4, 4);
    EXPECT_EQ(ValueOf(p_table, 9, &fixed), 90);
    EXPECT_EQ(fixed, 1u);
    sr_i_close_table(p_table);
}

TEST_F(TableFileTest, ResourceHandleKeyGetsAHashedIndexOnOpen) {
    std::vector<sr_column_t> columns = ScalarColumns(2);
    columns[0].type = QX_RSRC_HANDLE_PTR;
    columns[0].default_value.ptr_rsrc_handle = nullptr;
    ASSERT_EQ(sr_close_table_1(Create("/m/r", columns)), 0);
    FileImage image;
    image.bytes = qxtest::ReadBytes(File("r"));
    image.bytes.resize(image.bytes.size() - 24);
    // The key's slot anchors 20 handle bytes (24 with padding) in the record.
    for (qx_uint32_t id4 : {0x12345u, 0x2u}) {
        qx_resource_handle_t handle{1, {2, 3, 4, id4}};
        PutHeader(image.bytes, 12 + 4 + 16 + 24, SR_I_RECORD_TYPE_ROW, 0xBADBAD);
        for (qx_uint32_t word : {0u, 0u, 20u}) PutU32(image.bytes, word);  // replaces, anchor
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
    const qx_uint32_t big = 1000;
    std::memcpy(image.bytes.data() + U32At(image.bytes, 0) + 16, &big, 4);
    ExpectUnreadable(image, "key outside its record");
}

TEST_F(TableFileTest, DamagedRecordsAndMetadataRecordsAreUnreadable) {
    const FileImage base = NewFile("t");
    const qx_uint32_t m = base.End();  // where the first record after the metadata goes
    const qx_uint32_t kCommit = static_cast<qx_uint32_t>(SR_I_RECORD_TYPE_COMMIT);
    // Row {32, link, 2, replaces, key, 0, value, 0}; deletion {length, link, 3, count, offsets}.
    const struct {
        const char *what;
        size_t keep;  // of the base's bytes
        bool row;     // a row {1, 2} at m first
        std::vector<qx_uint32_t> words;
        bool commit;  // then a commit record
    } cases[] = {
        {"empty", 0, false, {}, false},
        {"12 bytes", 0, false, {12, 0, 1}, false},
        {"metadata record only", m, false, {}, false},
        {"rows but no commit record", m, true, {}, false},
        {"record past the end", m, false, {32, 0, 2, 0, 1, 0}, false},
        {"zero-length free record", m, false, {0, 0, 0}, true},
        {"free record shorter than its header", m, false, {5, 0, 0}, true},
        {"short row", m, false, {20, 0, 2, 0, 0}, true},
        {"deletion listing one row twice", m, true, {24, 0, 3, 2, m, m}, true},
        {"deletion inside a row", m, true, {20, 0, 3, 1, m + 4}, true},
        {"deletion of the metadata record", m, true, {20, 0, 3, 1, 0}, true},
        {"deletion of a free record", m, true, {24, 0, 0, 0, 0, 0, 20, 0, 3, 1, m + 32}, true},
        {"deletion count overflowing", m, true, {16, 0, 3, 0x40000001}, true},
        {"superseded twice", m, true, {32, 0, 2, m, 1, 0, 3, 0, 32, 0, 2, m, 1, 0, 4, 0}, true},
        {"superseding a record ahead", m, true, {32, 0, 2, m + 132, 1, 0, 3, 0}, true},
        {"superseding the metadata record", m, true, {32, 0, 2, m - 12, 1, 0, 3, 0}, true},
        {"superseding an offset near 4 GiB", m, true, {32, 0, 2, 0xFFFFFFF0u, 1, 0, 3, 0}, true},
        {"second metadata record", m, false, {28, 0, 1, 0, 0, 0, 0}, true},
        {"unknown record type", m, false, {12, 0, 7}, true},
        {"commit record too short for its counter", m, false, {24, 0, kCommit, 4, 1, 0}, false},
        {"metadata beyond the commit", m, false, {36, 0, kCommit, 20, 1, 0, 1, 0, ~0u}, false},
    };
    for (const auto &c : cases) {
        FileImage image;
        image.bytes = base.bytes.substr(0, c.keep);
        if (c.row) image.Row(0, {1, 2});
        for (qx_uint32_t w : c.words) PutU32(image.bytes, w);
        if (c.commit) image.Commit(1);
        ExpectUnreadable(image, c.what);
    }
    FileImage twice = base;
    twice.Commit(1, {{3, "a"}, {3, "b"}});
    ExpectUnreadable(twice, "one metadata type twice");
    twice = base;
    twice.Commit(1, {{3, "a"}, {1, "x"}, {3, "b"}});
    ExpectUnreadable(twice, "one metadata type twice, out of order");
    const size_t array = 12 + 16;
    const size_t col = qxtest::kColumnEntry;
    const qx_uint32_t names = qxtest::ColumnEntryAt(base.bytes, array).name;
    const struct {
        size_t offset;
        qx_uint32_t value;
        const char *what;
    } metadata_cases[] = {
        {8, 2, "metadata record of another type"},
        {0, m + 1000, "metadata record longer than the file"},
        {0, 20, "metadata record shorter than its words"},
        {12 + 8, 0, "no columns"},
        {12 + 8, 3, "column array larger than the record"},
        {12 + 8, 0x80000000u, "column count overflowing"},
        {12 + 12, 1, "variable-length count that does not add up"},
        {array + col + 4, 0, "no type"},
        {array + col + 4, 23, "type 23"},
        {array + col + 4, 0x95959595u, "type word no type has"},
        {array + 8, SR_STANDARD, "column 0 not a key"},
        {array + col + 0, 1u << 20, "name outside the record"},
        {array + col + 16, 1u << 20, "definition outside the record"},
        {array + col + 16, 0xFFFFFFFEu, "definition offset that wraps around"},
        {array + col + 0, 0xFFFFFFFFu, "name offset that wraps around"},
        // Whatever create would refuse is refused here too.
        {array + col + 0, names, "two columns of one name"},
        {array + col + 8, 0xFFFFFFFEu, "qualifier of no kind"},
        {array + col + 8, SR_SYSTEM, "system qualifier"},
        {array + col + 8, SR_PRIMARY_KEY, "a second key column"},
        {array + col + 16, names + 2, "definition of a scalar column"},
    };
    for (const auto &c : metadata_cases) {
        FileImage image = base;
        std::memcpy(image.bytes.data() + c.offset, &c.value, 4);
        image.Commit(1);
        ExpectUnreadable(image, c.what);
    }
    for (size_t at : {size_t{m - 1}, array + 2 * col + 3}) {  // no NUL; "c1" becomes "c-"
        FileImage image = base;
        image.bytes[at] = at == m - 1 ? 'x' : '-';
        image.Commit(1);
        ExpectUnreadable(image, "bad name");
    }
}

TEST_F(TableFileTest, EveryAllocationFailureOfALoadIs12) {
    sr_i_table_t *p_table = nullptr;
    auto *p_tree = static_cast<sr_i_tree_t *>(tree_);
    EXPECT_EQ(sr_i_open_persistent_table(p_tree, nullptr, nullptr, 1, 512, nullptr, &p_table),
              SR_E_NULL_POINTER);
    EXPECT_EQ(sr_i_open_persistent_table(p_tree, nullptr, File("absent").c_str(), 1, 512, nullptr,
                                         &p_table),
              SR_E_NO_TABLE);
    FileImage image = NewFile("t");
    image.Row(0, {1, 10});
    image.Commit(1, {{0, "meta"}});
    qxtest::WriteBytes(File("t"), image.bytes);
    qxtest::EachAllocationFailure(
        [&] {
            return sr_i_open_persistent_table(p_tree, "/m/t", File("t").c_str(), 1, 512, nullptr,
                                              &p_table);
        },
        [] {});
    EXPECT_EQ(p_table->total_committed_rows, 1u);
    sr_i_close_table(p_table);
}

}  // namespace
}  // namespace qxtest
