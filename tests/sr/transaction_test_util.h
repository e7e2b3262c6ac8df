// Rows through the exported calls, snapshots, reopens and file walks for transaction tests.
#ifndef QX_TESTS_SR_TRANSACTION_TEST_UTIL_H
#define QX_TESTS_SR_TRANSACTION_TEST_UTIL_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include "sr/rows_test_util.h"
#include "sr_i.h"

namespace qxtest {

// A child's exit status, or 100 + the signal that ended it.
inline int WaitChild(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}
inline void Kill(pid_t pid) {
    kill(pid, SIGKILL);
    WaitChild(pid);
}

// A child that runs `work` with the pause point armed (inherited), returned once stopped there.
inline pid_t StopChildAt(const std::string &point, const std::function<int()> &work) {
    setenv("QX_SR_TEST_PAUSE", point.c_str(), 1);
    sr_i_test_pause_reload();
    pid_t pid = fork();
    if (pid == 0) {
        alarm(60);  // never outlive a broken test
        _exit(work());
    }
    unsetenv("QX_SR_TEST_PAUSE");
    sr_i_test_pause_reload();
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, WUNTRACED), pid);
    EXPECT_TRUE(WIFSTOPPED(status)) << "ended with " << status << " before " << point;
    return pid;
}

}  // namespace qxtest

namespace qxtest::tx {

// One field: the 8 slot bytes of a scalar, or the text of a QX_CHAR_PTR.
using Field = std::variant<qx_uint64_t, std::string>;
using Row = std::vector<Field>;
using State = std::map<qx_int64_t, Row>;  // rows by key (column 0, an INT64)

// A row of INT64 columns: the key, then the given values.
inline Row R(qx_int64_t key, std::initializer_list<qx_int64_t> rest) {
    Row row{static_cast<qx_uint64_t>(key)};
    for (qx_int64_t v : rest) row.emplace_back(static_cast<qx_uint64_t>(v));
    return row;
}

// The committed (or working) rows of a table, by key.
inline State Snapshot(const sr_i_table_t *p_table, bool applied) {
    State state;
    const size_t columns = p_table->total_columns;
    for (qx_uint32_t f = 0; f < p_table->maximum_rows; ++f) {
        const sr_i_index_entry_t &entry = p_table->p_rows_fixed_index[f];
        const char *p_data = applied ? entry.p_applied : entry.p_committed;
        if (p_data == nullptr) continue;
        Row row;
        for (qx_uint32_t c = 0; c < columns; ++c) {
            const char *p_slot = p_data + 4 + 8 * c;
            if (sr_i_load_column(&p_table->p_columns[c]).type == QX_CHAR_PTR) {
                qx_uint32_t length = sr_i_load_u32(p_slot + 4);
                row.emplace_back(std::string(p_data + 4 + 8 * columns + sr_i_load_u32(p_slot),
                                             length > 0 ? length - 1 : 0));
            } else {
                row.emplace_back(sr_i_load_u64(p_slot));
            }
        }
        state[static_cast<qx_int64_t>(std::get<qx_uint64_t>(row[0]))] = row;
    }
    return state;
}

struct FileRecord {
    qx_uint32_t offset, length;
    qx_int32_t type;
};

// The records of a file image up to and including the first commit record.
inline std::vector<FileRecord> FileRecords(const std::string &bytes) {
    std::vector<FileRecord> records;
    for (size_t at = 0; at + 12 <= bytes.size() && U32At(bytes, at) >= 12;) {
        records.push_back({static_cast<qx_uint32_t>(at), U32At(bytes, at),
                           static_cast<qx_int32_t>(U32At(bytes, at + 8))});
        if (records.back().type == SR_I_RECORD_TYPE_COMMIT) break;
        at += records.back().length;
    }
    return records;
}

class TransactionTest : public TableTest {
  protected:
    // A tree of its own with the same "/m" mount.
    sr_opaque_handle_t OtherTree() {
        sr_opaque_handle_t tree = nullptr;
        EXPECT_FALSE(sr_open_tree_1(&tree, 0, 0) ||
                     sr_mount_local_tree_1(tree, Text("/m"), Text(tmp_.file("d")), 1));
        return tree;
    }
    // /m/t of `tree` (this one by default) opened in `mode`.
    sr_i_table_t *OpenT(int mode, sr_opaque_handle_t tree = nullptr) {
        sr_opaque_handle_t table = nullptr;
        EXPECT_EQ(sr_open_table_1(tree ? tree : tree_, Text("/m/t"), mode, &table), 0);
        return static_cast<sr_i_table_t *>(table);
    }
    // /m/<name>: k INT64 key, then c1.. INT64.
    sr_i_table_t *Make(const std::string &name, int mode = 6, int columns = 2) {
        return Create("/m/" + name, ScalarColumns(columns), mode);
    }
    // Adds `row` (columns k, c1, c2, ...) through the exported call, or sets its key's fields.
    qx_int32_t Put(sr_opaque_handle_t table, const Row &row, bool add = true) {
        std::vector<char *> names;
        std::vector<qx_value_t> values(row.size());
        std::vector<qx_value_t *> p_values;
        for (size_t c = 0; c < row.size(); ++c) {
            names.push_back(Text(c == 0 ? "k" : "c" + std::to_string(c)));
            if (const auto *p_text = std::get_if<std::string>(&row[c])) {
                values[c].ptr_char = Text(*p_text);
            } else {
                std::memcpy(&values[c], &std::get<qx_uint64_t>(row[c]), 8);
            }
            p_values.push_back(&values[c]);
        }
        const auto n = static_cast<qx_uint32_t>(row.size());
        return add ? sr_add_row_1(table, names.data(), p_values.data(), n)
                   : sr_set_fields_by_key_1(table, values[0], names.data() + 1, p_values.data() + 1,
                                            n - 1);
    }
    qx_int32_t AddRow(sr_opaque_handle_t table, qx_int64_t key, qx_int64_t value) {
        return Put(table, R(key, {value}));
    }
    static qx_int32_t ApplyCommit(sr_opaque_handle_t table) {
        const qx_int32_t rc = sr_apply_1(table, 0);
        return rc != 0 ? rc : sr_commit_1(table);
    }
    qx_int32_t Delete(sr_opaque_handle_t table, qx_int64_t key) {
        return sr_delete_rows_1(table, Text("k == $L"), key);
    }

    // The committed state of /m/<name> as a fresh open of its file reads it.
    State Reopened(const std::string &name, qx_uint64_t *p_change_counter = nullptr) {
        sr_i_table_t *p_table = nullptr;
        qx_int32_t rc =
            sr_i_open_persistent_table(static_cast<sr_i_tree_t *>(tree_), nullptr,
                                       File(name).c_str(), SR_MODE_READ, 512, nullptr, &p_table);
        EXPECT_EQ(rc, 0) << "the file no longer reads";
        if (rc != 0) return {};
        State state = Snapshot(p_table, false);
        EXPECT_EQ(Snapshot(p_table, true), state);
        if (p_change_counter != nullptr) *p_change_counter = p_table->change_counter;
        sr_i_close_table(p_table);
        return state;
    }
};

}  // namespace qxtest::tx

#endif  // QX_TESTS_SR_TRANSACTION_TEST_UTIL_H
