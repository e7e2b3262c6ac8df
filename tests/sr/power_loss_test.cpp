// Power loss: durable calls' file operations, cut anywhere and mixed, read as a whole call.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "sr/transaction_test_util.h"

namespace qxtest::tx {
namespace {

constexpr size_t kSector = 512;

enum class Kind { create, write, truncate, sync, directory_sync, rename, unlink, begin, end };

struct Op {
    Kind kind;
    int id = -1;  // the file, for data operations
    qx_uint64_t offset = 0;
    std::string bytes{};   // written bytes
    std::string a{}, b{};  // names
};

// Files are numbered as they come into being: a reused inode number is a new file.
struct Recorder {
    bool on = false;
    std::vector<Op> ops;
    std::map<ino_t, int> ids;
    int next_id = 0;
} Rec;

std::string BaseName(const char *p_path) {
    const char *p_slash = std::strrchr(p_path, '/');
    return p_slash == nullptr ? p_path : p_slash + 1;
}

int IdOf(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0) return -1;
    auto found = Rec.ids.find(st.st_ino);
    return found == Rec.ids.end() ? -1 : found->second;
}

void Record(Op op, bool when = true) {
    if (Rec.on && when && (op.id >= 0 || (op.kind != Kind::write && op.kind != Kind::truncate))) {
        Rec.ops.push_back(std::move(op));
    }
}

int RecOpen(const char *p_path, int flags, mode_t mode) {
    struct stat st;
    const bool existed = stat(p_path, &st) == 0;
    int fd = open(p_path, flags, mode);
    if (fd < 0 || !Rec.on || (flags & O_DIRECTORY) != 0 || fstat(fd, &st) != 0) return fd;
    if (!existed || Rec.ids.count(st.st_ino) == 0) {
        Rec.ids[st.st_ino] = Rec.next_id;
        Record(Op{Kind::create, Rec.next_id++, 0, "", BaseName(p_path), ""});
    }
    return fd;
}

ssize_t RecWritev(int fd, const struct iovec *p_vector, int count) {
    const off_t at = lseek(fd, 0, SEEK_CUR);
    ssize_t n = writev(fd, p_vector, count);
    std::string bytes;
    for (int i = 0; i < count; ++i) {
        bytes.append(static_cast<const char *>(p_vector[i].iov_base), p_vector[i].iov_len);
    }
    bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
    Record(Op{Kind::write, IdOf(fd), static_cast<qx_uint64_t>(at), bytes}, n > 0);
    return n;
}
ssize_t RecWrite(int fd, const void *p_buffer, size_t length) {
    struct iovec v = {const_cast<void *>(p_buffer), length};
    return RecWritev(fd, &v, 1);
}

template <int (*p_real)(int)>
int RecSync(int fd) {
    int rc = p_real(fd);
    struct stat st;
    if (rc == 0 && fstat(fd, &st) == 0) {  // a directory has no number
        Record(Op{S_ISDIR(st.st_mode) ? Kind::directory_sync : Kind::sync, IdOf(fd)});
    }
    return rc;
}

template <int (*p_real)(const char *, const char *)>
int RecRename(const char *p_from, const char *p_to) {
    int rc = p_real(p_from, p_to);
    Record(Op{Kind::rename, -1, 0, "", BaseName(p_from), BaseName(p_to)}, rc == 0);
    return rc;
}
int RenameNoreplace(const char *p_from, const char *p_to) {
    return sr_i_default_file_ops.p_rename_noreplace(p_from, p_to);
}
int RecUnlink(const char *p_path) {
    int rc = unlink(p_path);
    Record(Op{Kind::unlink, -1, 0, "", BaseName(p_path)}, rc == 0);
    return rc;
}
int RecFtruncate(int fd, off_t length) {
    int rc = ftruncate(fd, length);
    Record(Op{Kind::truncate, IdOf(fd), static_cast<qx_uint64_t>(length)}, rc == 0);
    return rc;
}

// A directory and its files, by number.
struct Fs {
    std::map<std::string, int> names;
    std::map<int, std::string> data;
};

void ApplyData(Fs &fs, const Op &op) {
    std::string &d = fs.data[op.id];
    if (op.kind == Kind::write) {
        if (d.size() < op.offset + op.bytes.size()) d.resize(op.offset + op.bytes.size(), '\0');
        d.replace(op.offset, op.bytes.size(), op.bytes);
    } else {
        d.resize(op.offset, '\0');
    }
}

void ApplyName(std::map<std::string, int> &names, const Op &op) {
    if (op.kind == Kind::create) {
        names[op.a] = op.id;
    } else if (op.kind == Kind::rename && names.count(op.a) != 0) {
        const int id = names[op.a];
        names.erase(op.a);
        names[op.b] = id;
    } else if (op.kind == Kind::unlink) {
        names.erase(op.a);
    }
}

// One file as a power loss may leave it: old was synced, now is what the cache held.
std::string Mix(const std::string &old, const std::string &now, std::mt19937 &rng) {
    const size_t length = rng() % 2 ? old.size() : now.size();
    std::string out(length, '\0');
    for (size_t s = 0; s < length; s += kSector) {
        const size_t end = std::min(length, s + kSector);
        std::string o = old.substr(std::min(s, old.size()), end - s);
        std::string n = now.substr(std::min(s, now.size()), end - s);
        o.resize(end - s, '\0');
        n.resize(end - s, '\0');
        std::string chosen;
        const unsigned pick = rng() % 10;
        if (o == n || pick < 4) {
            chosen = o;
        } else if (pick < 8) {
            chosen = n;
        } else {  // torn: the first bytes from one version, the rest from the other
            const size_t split = 1 + rng() % (end - s - 1 > 0 ? end - s - 1 : 1);
            const bool new_first = rng() % 2;
            chosen = (new_first ? n : o).substr(0, split) + (new_first ? o : n).substr(split);
        }
        out.replace(s, end - s, chosen);
    }
    return out;
}

class PowerLossTest : public TransactionTest {
  protected:
    void SetUp() override {
        TransactionTest::SetUp();
        Rec = Recorder{};
        ASSERT_EQ(mkdir(tmp_.file("x").c_str(), 0755), 0);
    }

    // One durable call of the workload, marked in the recording.
    template <typename F>
    void Durable(const char *p_what, F &&f) {
        Rec.ops.push_back(Op{Kind::begin});
        EXPECT_EQ(f(), 0) << p_what;
        Rec.ops.push_back(Op{Kind::end});
    }

    // What the tables of a directory read as: one line per table file.
    std::string Read(const std::map<std::string, int> &names,
                     const std::map<int, std::string> &contents) {
        std::string all;
        for (const auto &[name, id] : names) {
            if (name.find('.') != std::string::npos || name[0] == ',') continue;
            const std::string path = tmp_.file("x/" + name);
            auto it = contents.find(id);
            WriteBytes(path, it == contents.end() ? std::string() : it->second);
            sr_i_table_t *p_table = nullptr;
            qx_int32_t rc =
                sr_i_open_persistent_table(static_cast<sr_i_tree_t *>(tree_), nullptr, path.c_str(),
                                           SR_MODE_READ, 512, nullptr, &p_table);
            unlink(path.c_str());
            all += "\n" + name + ":";
            all += rc != 0 ? "unreadable " + std::to_string(rc)
                           : std::to_string(p_table->total_columns);
            if (rc != 0) continue;
            for (const auto &[key, row] : Snapshot(p_table, false)) {
                all += " (";
                for (const Field &f : row) all += std::to_string(std::get<qx_uint64_t>(f)) + ",";
                all += ")";
            }
            sr_i_close_table(p_table);
        }
        return all;
    }
};

TEST_F(PowerLossTest, EveryCrashStateReadsAsTheLastReturnedCallOrTheOneInFlight) {
    sr_i_file_ops.p_open = RecOpen;
    sr_i_file_ops.p_write = RecWrite;
    sr_i_file_ops.p_writev = RecWritev;
    sr_i_file_ops.p_fdatasync = RecSync<fdatasync>;
    sr_i_file_ops.p_fsync = RecSync<fsync>;
    sr_i_file_ops.p_rename = RecRename<rename>;
    sr_i_file_ops.p_rename_noreplace = RecRename<RenameNoreplace>;
    sr_i_file_ops.p_unlink = RecUnlink;
    sr_i_file_ops.p_ftruncate = RecFtruncate;
    Rec.on = true;
    sr_opaque_handle_t t = nullptr, e = nullptr;
    std::vector<sr_column_t> columns = ScalarColumns(2);
    Durable("create",
            [&] { return sr_create_table_1(tree_, Text("/m/t"), columns.data(), 2, 2, &t); });
    for (int k = 1; k <= 4; ++k) Durable("implicit add", [&] { return AddRow(t, k, k * 10); });
    Durable("implicit set", [&] {
        qx_value_t key{.val_int64 = 2}, v{.val_int64 = 77};
        return sr_set_field_by_key_1(t, key, Text("c1"), &v);
    });
    Durable("implicit delete", [&] { return sr_delete_row_by_index_1(t, 0); });
    Durable("add column", [&] {
        sr_column_t c{Text("c2"), QX_INT64, SR_STANDARD, 0, nullptr, {.val_int64 = 5}};
        return sr_add_columns_1(t, &c, 1);
    });
    Durable("implicit add", [&] { return AddRow(t, 5, 50); });
    Durable("create explicit",
            [&] { return sr_create_table_1(tree_, Text("/m/e"), columns.data(), 2, 6, &e); });
    EXPECT_EQ(AddRow(e, 1, 10), 0);
    EXPECT_EQ(AddRow(e, 2, 20), 0);
    Durable("apply", [&] { return sr_apply_1(e, 0); });
    Durable("commit", [&] { return sr_commit_1(e); });
    EXPECT_EQ(AddRow(e, 3, 30), 0);
    Durable("apply by rewrite", [&] { return sr_i_apply(static_cast<sr_i_table_t *>(e), 1, 0); });
    Durable("commit by rename", [&] { return sr_commit_1(e); });
    EXPECT_EQ(AddRow(e, 4, 40), 0);
    Durable("apply", [&] { return sr_apply_1(e, 0); });
    Durable("abort", [&] { return sr_abort_1(e); });
    Durable("copy", [&] { return sr_copy_table_by_name_1(tree_, Text("/m/t"), Text("/m/c"), 0); });
    Durable("implicit add", [&] { return AddRow(t, 6, 60); });
    Durable("copy over",
            [&] { return sr_copy_table_by_name_1(tree_, Text("/m/t"), Text("/m/c"), 1); });
    Durable("move", [&] { return sr_move_table_by_name_1(tree_, Text("/m/c"), Text("/m/d"), 0); });
    Durable("delete", [&] { return sr_delete_table_1(tree_, Text("/m/d")); });
    Rec.on = false;
    sr_i_file_ops = sr_i_default_file_ops;
    ASSERT_FALSE(HasFailure());

    // What each returned call left (cached); a crash keeps synced data, the rest old/new/torn.
    Fs now;
    std::vector<std::string> after{Read({}, {})};
    for (const Op &op : Rec.ops) {
        if (op.kind == Kind::write || op.kind == Kind::truncate) ApplyData(now, op);
        ApplyName(now.names, op);
        if (op.kind == Kind::end) after.push_back(Read(now.names, now.data));
    }

    std::mt19937 rng(20261124);
    Fs synced;
    now = Fs{};
    std::vector<Op> names_pending;
    int returned = 0;
    bool in_flight = false;
    int total = 0;
    int failures = 0;
    for (size_t cut = 0; cut <= Rec.ops.size(); ++cut) {
        for (int sample = 0; sample < 120; ++sample) {
            // Sample 0 keeps nothing unsynced, sample 1 everything.
            std::map<std::string, int> names = synced.names;
            for (const Op &op : names_pending) {
                if (sample == 1 || (sample > 1 && rng() % 2)) ApplyName(names, op);
            }
            std::map<int, std::string> contents;
            for (const auto &[name, id] : names) {
                const std::string &old = synced.data[id];
                const std::string &cached = now.data[id];
                contents[id] = sample == 0 ? old : sample == 1 ? cached : Mix(old, cached, rng);
            }
            const std::string state = Read(names, contents);
            ++total;
            if (state == after[returned] || (in_flight && state == after[returned + 1])) continue;
            if (failures++ == 0) {
                ADD_FAILURE() << "op " << cut << " sample " << sample << ":" << state
                              << "\nexpected:" << after[returned]
                              << (in_flight ? "\nor:" + after[returned + 1] : std::string());
            }
        }
        if (cut == Rec.ops.size()) break;
        const Op &op = Rec.ops[cut];
        switch (op.kind) {
            case Kind::write:
            case Kind::truncate:
                ApplyData(now, op);
                break;
            case Kind::sync:
                synced.data[op.id] = now.data[op.id];
                break;
            case Kind::create:  // a new file's first, empty contents are known to both
                synced.data[op.id] = "";
                now.data[op.id] = "";
                [[fallthrough]];
            case Kind::rename:
            case Kind::unlink:
                ApplyName(now.names, op);
                names_pending.push_back(op);
                break;
            case Kind::directory_sync:
                for (const Op &pending : names_pending) ApplyName(synced.names, pending);
                names_pending.clear();
                break;
            case Kind::begin:
                in_flight = true;
                break;
            case Kind::end:
                in_flight = false;
                ++returned;
                break;
        }
    }
    std::printf("power loss: %d crash states, %zu operations\n", total, Rec.ops.size());
    EXPECT_GE(total, 10000);
    EXPECT_EQ(failures, 0);
}

}  // namespace
}  // namespace qxtest::tx
