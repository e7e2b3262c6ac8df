// Packed-buffer and dump commands: pack tables into a file, show the tables a
// buffer file holds, unpack them into the session to browse them with the
// row commands, convert a file from the other byte order, and dump a table's
// in-memory records with chosen detail bits.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qx_pmsg.h"
#include "qxsr_shell.h"

namespace qxsr {

namespace {

int usage(Shell &shell, const char *text) {
    std::fprintf(shell.err, "usage: %s\n", text);
    return 2;
}

// Buffers whose tables were unpacked into the session: the tables read their
// rows in place, so the buffers live until the program ends.
std::vector<void *> &kept_buffers() {
    static struct Kept {
        std::vector<void *> buffers;
        ~Kept() {
            for (void *p : buffers) std::free(p);
        }
    } kept;
    return kept.buffers;
}

// Reads a buffer file into one malloc'd block; checks that the file is as
// long as its length word says (in either byte order).
void *read_buffer(Shell &shell, const char *path, size_t *p_size) {
    FILE *p_file = std::fopen(path, "rb");
    if (p_file == nullptr) {
        std::fprintf(shell.err, "qxsr: %s: %s\n", path, std::strerror(errno));
        return nullptr;
    }
    std::string bytes;
    char chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, p_file)) > 0) bytes.append(chunk, n);
    std::fclose(p_file);
    qx_uint32_t length = 0;
    if (bytes.size() >= 40) std::memcpy(&length, bytes.data(), 4);
    if (bytes.size() < 40 ||
        (length != bytes.size() && __builtin_bswap32(length) != bytes.size())) {
        std::fprintf(shell.err, "qxsr: %s: not a packed table buffer (%zu bytes)\n", path,
                     bytes.size());
        return nullptr;
    }
    void *p = std::malloc(bytes.size());
    if (p == nullptr) {
        std::fprintf(shell.err, "qxsr: %s: out of memory\n", path);
        return nullptr;
    }
    std::memcpy(p, bytes.data(), bytes.size());
    *p_size = bytes.size();
    return p;
}

bool write_buffer(Shell &shell, const char *path, const void *p, size_t size) {
    FILE *p_file = std::fopen(path, "wb");
    bool ok = p_file != nullptr && std::fwrite(p, 1, size, p_file) == size;
    if (p_file != nullptr && std::fclose(p_file) != 0) ok = false;
    if (!ok) std::fprintf(shell.err, "qxsr: %s: %s\n", path, std::strerror(errno));
    return ok;
}

// Converts a buffer of the other byte order in place; reports what it did.
int convert_in_memory(Shell &shell, void *p, bool *p_converted) {
    qx_uint32_t required = 0;
    int rc = qx_pmsg_cnv_required_1(p, &required);
    if (rc != 0) {
        std::fprintf(shell.err, "qxsr: not a packed table buffer (byte-order mark)\n");
        return 1;
    }
    *p_converted = required != 0;
    if (required == 0) return 0;
    rc = sr_convert_packed_table_buffer_1(p, 0, 0);
    return rc == 0 ? 0 : report_failure(shell, "convert", rc);
}

// "pack FILE [--uncommitted] PATH...": the tables, in the order given.
int run_pack(Shell &shell, int argc, char **argv) {
    const char *kUsage = "pack FILE [--uncommitted] PATH...";
    if (argc < 3) return usage(shell, kUsage);
    qx_uint32_t view = 0;
    std::vector<sr_opaque_handle_t> handles;
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--uncommitted") == 0) {
            view = 1;
            continue;
        }
        sr_opaque_handle_t handle = table_for(shell, argv[i], SR_MODE_READ);
        if (handle == nullptr) return 1;
        handles.push_back(handle);
    }
    if (handles.empty()) return usage(shell, kUsage);
    std::vector<qx_uint32_t> views(handles.size(), view);
    void *p_buffer = nullptr;
    int rc = sr_pack_tables_1(static_cast<qx_uint32_t>(handles.size()), handles.data(),
                              views.data(), nullptr, nullptr, &p_buffer);
    if (rc != 0) return report_failure(shell, "pack", rc);
    qx_uint32_t length = 0;
    std::memcpy(&length, p_buffer, 4);
    const bool ok = write_buffer(shell, argv[1], p_buffer, length);
    std::free(p_buffer);
    if (!ok) return 1;
    std::fprintf(shell.out, "packed %zu table%s (%s view) into %s: %u bytes\n", handles.size(),
                 handles.size() == 1 ? "" : "s", view ? "uncommitted" : "committed", argv[1],
                 length);
    return 0;
}

// "packed FILE": the buffer's tables with their sizes, read through a
// scratch tree so that nothing of the session is touched.
int run_packed(Shell &shell, int argc, char **argv) {
    if (argc != 2) return usage(shell, "packed FILE");
    size_t size = 0;
    void *p = read_buffer(shell, argv[1], &size);
    if (p == nullptr) return 1;
    bool converted = false;
    int rc = convert_in_memory(shell, p, &converted);
    qx_uint32_t total = 0;
    if (rc == 0) {
        rc = sr_get_total_packed_tables_1(p, &total);
        if (rc != 0) rc = report_failure(shell, "packed", rc);
    }
    sr_opaque_handle_t scratch = nullptr;
    if (rc == 0 && (rc = sr_open_tree_1(&scratch, 0, 0)) != 0) {
        rc = report_failure(shell, "sr_open_tree_1", rc);
    }
    if (rc == 0) {
        std::fprintf(shell.out, "%s: %zu bytes, %u table%s%s\n", argv[1], size, total,
                     total == 1 ? "" : "s", converted ? ", other byte order" : "");
        std::vector<std::vector<std::string>> rows;
        for (qx_uint32_t i = 0; i < total && rc == 0; ++i) {
            qx_char_ptr_t name = nullptr;
            rc = sr_get_packed_table_name_1(p, i, &name);
            if (rc != 0) {
                rc = report_failure(shell, "packed", rc);
                break;
            }
            sr_opaque_handle_t table = nullptr;
            rc = sr_unpack_table_1(p, 0, nullptr, nullptr, scratch, i, &table);
            if (rc != 0) {
                rc = report_failure(shell, name, rc);
                break;
            }
            sr_table_metadata_t *p_metadata = nullptr;
            rc = sr_get_table_metadata_1(table, 0, &p_metadata);
            if (rc == 0) {
                rows.push_back({std::to_string(i), *name != '\0' ? name : "(unnamed)",
                                p_metadata->name, std::to_string(p_metadata->number_of_rows),
                                std::to_string(p_metadata->number_of_columns),
                                std::to_string(p_metadata->table_change_counter)});
                sr_free_table_metadata_1(p_metadata);
            } else {
                rc = report_failure(shell, name, rc);
            }
            sr_close_table_1(table);
        }
        if (rc == 0) {
            print_table(shell, {"index", "name", "registry path", "rows", "columns", "changes"},
                        rows);
        }
    }
    if (scratch != nullptr) sr_close_tree_1(scratch);
    std::free(p);
    return rc;
}

// "unpack FILE [INDEX]": the tables become read-only tables of the session,
// known by their registry paths, for show, get and describe.
int run_unpack(Shell &shell, int argc, char **argv) {
    if (argc < 2 || argc > 3) return usage(shell, "unpack FILE [INDEX]");
    size_t size = 0;
    void *p = read_buffer(shell, argv[1], &size);
    if (p == nullptr) return 1;
    bool converted = false;
    int rc = convert_in_memory(shell, p, &converted);
    qx_uint32_t total = 0;
    if (rc == 0 && (rc = sr_get_total_packed_tables_1(p, &total)) != 0) {
        rc = report_failure(shell, "unpack", rc);
    }
    qx_uint32_t first = 0;
    qx_uint32_t last = total;
    if (rc == 0 && argc == 3) {
        char *end = nullptr;
        unsigned long index = std::strtoul(argv[2], &end, 0);
        if (*end != '\0') {
            std::free(p);
            return usage(shell, "unpack FILE [INDEX]");
        }
        first = static_cast<qx_uint32_t>(index);
        last = first + 1;
    }
    int unpacked = 0;
    for (qx_uint32_t i = first; i < last && rc == 0; ++i) {
        sr_opaque_handle_t table = nullptr;
        rc = sr_unpack_table_1(p, 0, nullptr, nullptr, shell.tree, i, &table);
        if (rc != 0) {
            rc = report_failure(shell, "unpack", rc);
            break;
        }
        sr_table_metadata_t *p_metadata = nullptr;
        std::string path;
        if (sr_get_table_metadata_1(table, 0, &p_metadata) == 0) {
            path = p_metadata->name != nullptr ? p_metadata->name : "";
            std::fprintf(shell.out, "unpacked %s: %s, %s (read-only)\n", path.c_str(),
                         counted(p_metadata->number_of_rows, "row").c_str(),
                         counted(p_metadata->number_of_columns, "column").c_str());
            sr_free_table_metadata_1(p_metadata);
        }
        shell.tables.push_back({path, table, SR_MODE_READ});
        ++unpacked;
    }
    // Tables unpacked before a failure still read from the buffer.
    if (unpacked > 0) {
        kept_buffers().push_back(p);
    } else {
        std::free(p);
    }
    return rc;
}

// "convert FILE [OUT]": rewrites a buffer of the other byte order in this
// machine's order.
int run_convert(Shell &shell, int argc, char **argv) {
    if (argc < 2 || argc > 3) return usage(shell, "convert FILE [OUT]");
    size_t size = 0;
    void *p = read_buffer(shell, argv[1], &size);
    if (p == nullptr) return 1;
    bool converted = false;
    int rc = convert_in_memory(shell, p, &converted);
    const char *p_out = argc == 3 ? argv[2] : argv[1];
    if (rc == 0 && converted) {
        // The library leaves the head's marker slots as the packer wrote
        // them; a file rewritten in this machine's order gets this machine's
        // marks too, so that it reads as a buffer packed here.
        const qx_uint32_t one = 1;
        const auto length = static_cast<qx_uint32_t>(size);
        std::memset(static_cast<char *>(p) + 8, 0, 24);
        std::memcpy(static_cast<char *>(p) + 16, &one, 4);
        std::memcpy(static_cast<char *>(p) + 24, &length, 4);
    }
    if (rc == 0 && (converted || argc == 3)) {
        if (!write_buffer(shell, p_out, p, size)) rc = 1;
    }
    if (rc == 0) {
        std::fprintf(shell.out, "%s: %s\n", argv[1],
                     converted ? "converted to this machine's byte order"
                               : "already in this machine's byte order");
    }
    std::free(p);
    return rc;
}

// "dump PATH [BITS]": the table's records; BITS as a number (0x... for hex),
// every detail when omitted.
int run_dump(Shell &shell, int argc, char **argv) {
    if (argc < 2 || argc > 3) return usage(shell, "dump PATH [BITS]");
    qx_uint64_t bits = ~0ull;
    if (argc == 3) {
        char *end = nullptr;
        bits = std::strtoull(argv[2], &end, 0);
        if (*end != '\0') return usage(shell, "dump PATH [BITS]");
    }
    sr_opaque_handle_t handle = table_for(shell, argv[1], SR_MODE_READ);
    if (handle == nullptr) return 1;
    std::fflush(shell.out);
    sr_i_dump_table(static_cast<struct sr_i_table_struct *>(handle), shell.out, bits);
    return 0;
}

// "dump-tree": the session's tree, its tables and mount points.
int run_dump_tree(Shell &shell, int argc, char **) {
    if (argc != 1) return usage(shell, "dump-tree");
    std::fflush(shell.out);
    sr_i_dump_tree(static_cast<struct sr_i_tree_struct *>(shell.tree));
    std::fflush(stdout);
    return 0;
}

constexpr Command kCommands[] = {
    {"pack", "pack FILE [--uncommitted] PATH...", "pack tables into a buffer file", run_pack},
    {"packed", "packed FILE", "list the tables of a buffer file", run_packed},
    {"unpack", "unpack FILE [INDEX]", "make a buffer's tables read-only session tables",
     run_unpack},
    {"convert", "convert FILE [OUT]", "convert a buffer file to this byte order", run_convert},
    {"dump", "dump PATH [BITS]", "print a table's in-memory records (detail bits)", run_dump},
    {"dump-tree", "dump-tree", "print the tree, its tables and mount points", run_dump_tree},
};

}  // namespace

const Command *pack_commands(int *p_count) {
    *p_count = static_cast<int>(sizeof kCommands / sizeof kCommands[0]);
    return kCommands;
}

}  // namespace qxsr
