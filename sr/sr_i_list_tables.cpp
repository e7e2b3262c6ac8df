// Listing the tables under a registry path.  A path under a mount point is
// listed from the mount point's directory, where every persistent table is
// one file whose name is its registry path below the mount point with "/"
// written as ","; any other path is listed from the tree's open transient
// tables.  The result is built in the tree's work fields, because the tree
// walk's action has no argument of its own to carry it.
#include <dirent.h>
#include <errno.h>
#include <search.h>

#include <cstdlib>
#include <cstring>

#include "sr_i_files.h"
#include "sr_i_management.h"
#include "sr_i_pool.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_table.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_i_list_tables", "1.1");

namespace {

constexpr char kLockFile[] = ",Lock";
constexpr char kRewriteSuffix[] = ".rewrite";
constexpr size_t kRewriteSuffixLength = sizeof kRewriteSuffix - 1;

// The tree whose transient tables the calling thread is walking.  twalk
// passes its action nothing but the node; several trees may be listed by
// several threads at once, each under its own tree's write lock.
thread_local sr_i_tree_t *P_Listing_Tree = nullptr;

// Appends a name (already the caller's copy) to the tree's list, growing the
// list by SR_I_LIST_STEP names when it is full.  The array always keeps one
// spare slot beyond max_list_entries.  -1 in list_rc when the array cannot
// grow (reported once the walk is over).
void append_name(sr_i_tree_t *p_tree, char *p_name) {
    if (p_tree->total_list_entries == p_tree->max_list_entries) {
        const size_t new_max = static_cast<size_t>(p_tree->max_list_entries) + SR_I_LIST_STEP;
        auto *p_grown = static_cast<qx_char_ptr_t *>(
            sr_i_realloc(p_tree->p_list, (new_max + 1) * sizeof(qx_char_ptr_t)));
        if (p_grown == nullptr) {
            std::free(p_name);
            p_tree->list_rc = -1;
            return;
        }
        p_tree->p_list = p_grown;
        p_tree->max_list_entries = static_cast<qx_uint32_t>(new_max);
    }
    p_tree->p_list[p_tree->total_list_entries++] = p_name;
}

void release_list(sr_i_tree_t *p_tree) {
    for (qx_uint32_t i = 0; i < p_tree->total_list_entries; ++i) std::free(p_tree->p_list[i]);
    std::free(p_tree->p_list);
    p_tree->p_list = nullptr;
    p_tree->total_list_entries = 0;
    p_tree->max_list_entries = 0;
}

bool ends_with_rewrite_suffix(const char *p_name) {
    const size_t length = std::strlen(p_name);
    return length >= kRewriteSuffixLength && std::memcmp(p_name + length - kRewriteSuffixLength,
                                                         kRewriteSuffix, kRewriteSuffixLength) == 0;
}

// Lists the files of the mount point that p_file_path lies under.  The file
// name prefix is what follows the path's last "/" (empty for the mount point
// itself); the match is a plain string prefix, so /a/y also finds /a/yy.
void list_directory(sr_i_tree_t *p_tree, const char *p_listing_path, char *p_file_path) {
    void *p_node =
        tfind(p_listing_path, &p_tree->p_mount_points, sr_i_string_to_mount_point_compare);
    if (p_node == nullptr) {
        p_tree->list_rc = SR_ERROR(SR_E_INTERNAL);
        return;
    }
    const sr_i_mount_point_t *p_mount = *static_cast<sr_i_mount_point_t **>(p_node);
    char *p_last_slash = std::strrchr(p_file_path, '/');
    if (p_last_slash == nullptr) {
        p_tree->list_rc = SR_ERROR(SR_E_INTERNAL);
        return;
    }
    // The directory part is cut off in place and the "/" put back after.
    const char *p_prefix = p_last_slash + 1;
    const size_t prefix_length = std::strlen(p_prefix);
    *p_last_slash = '\0';
    DIR *p_directory = opendir(p_last_slash == p_file_path ? "/" : p_file_path);
    const int open_errno = errno;
    *p_last_slash = '/';
    if (p_directory == nullptr) {
        p_tree->list_rc =
            open_errno == EACCES ? SR_ERROR(SR_E_ACCESS) : SR_ERROR_SYSCALL("opendir", open_errno);
        return;
    }
    const size_t mount_length = std::strlen(p_mount->p_name);
    for (struct dirent *p_entry = readdir(p_directory); p_entry != nullptr && p_tree->list_rc == 0;
         p_entry = readdir(p_directory)) {
        const char *p_name = p_entry->d_name;
        // Hidden files (and "." and ".."), the directory's lock file and the
        // companions of interrupted rewrites are no tables.
        if (p_name[0] == '.' || std::strcmp(p_name, kLockFile) == 0 ||
            ends_with_rewrite_suffix(p_name)) {
            continue;
        }
        if (std::strncmp(p_name, p_prefix, prefix_length) != 0) continue;
        const size_t name_length = std::strlen(p_name);
        char *p_registry_name = static_cast<char *>(sr_i_malloc(mount_length + name_length + 1));
        if (p_registry_name == nullptr) {
            p_tree->list_rc = SR_ERROR(SR_E_NO_MEMORY);
            break;
        }
        std::memcpy(p_registry_name, p_mount->p_name, mount_length);
        std::memcpy(p_registry_name + mount_length, p_name, name_length + 1);
        for (char *p = p_registry_name + mount_length; *p != '\0'; ++p) {
            if (*p == ',') *p = '/';
        }
        append_name(p_tree, p_registry_name);
    }
    closedir(p_directory);
}

}  // namespace

// Visits every table of the tree's named set once (on its last visit) and
// appends the names of transient tables that begin with the listed prefix.
void sr_i_list_tables_action(const void *p_node, VISIT visit, int /*level*/) {
    if (visit != postorder && visit != leaf) return;
    sr_i_tree_t *p_tree = P_Listing_Tree;
    if (p_tree == nullptr || p_tree->list_rc != 0) return;
    const sr_i_table_t *p_table = *static_cast<sr_i_table_t *const *>(p_node);
    // Files of persistent tables are listed from their directory only.
    if (p_table->p_file_path != nullptr || p_table->p_name == nullptr) return;
    const char *p_prefix = p_tree->p_list_prefix;
    if (std::strncmp(p_table->p_name, p_prefix, std::strlen(p_prefix)) != 0) return;
    char *p_copy = sr_i_strdup(p_table->p_name);
    if (p_copy == nullptr) {
        p_tree->list_rc = SR_ERROR(SR_E_NO_MEMORY);
        return;
    }
    append_name(p_tree, p_copy);
}

qx_int32_t sr_i_list_tables(sr_i_tree_t *p_tree, qx_char_ptr_t p_registry_path,
                            qx_char_ptr_t **p_p_table_list, qx_uint32_t *p_count) {
    SR_I_ASSERT_WRITE_LOCKED(&p_tree->lock);
    if (p_registry_path == nullptr) return SR_ERROR_TEXT(SR_E_INVALID_PATH, nullptr);
    if (p_p_table_list == nullptr || p_count == nullptr) return SR_ERROR(SR_E_NULL_POINTER);

    // A mount point is named with or without its trailing "/"; only its
    // "/"-ended form lies under it.
    const size_t length = std::strlen(p_registry_path);
    char *p_directory_form = nullptr;
    qx_char_ptr_t p_listing_path = p_registry_path;
    if (length == 0 || p_registry_path[length - 1] != '/') {
        p_directory_form = static_cast<char *>(sr_i_malloc(length + 2));
        if (p_directory_form == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
        std::memcpy(p_directory_form, p_registry_path, length);
        p_directory_form[length] = '/';
        p_directory_form[length + 1] = '\0';
        if (tfind(p_directory_form, &p_tree->p_mount_points,
                  sr_i_string_to_mount_point_delete_compare) != nullptr) {
            p_listing_path = p_directory_form;
        }
    }

    p_tree->p_list = static_cast<qx_char_ptr_t *>(
        sr_i_malloc((static_cast<size_t>(SR_I_LIST_STEP) + 1) * sizeof(qx_char_ptr_t)));
    if (p_tree->p_list == nullptr) {
        std::free(p_directory_form);
        return SR_ERROR(SR_E_NO_MEMORY);
    }
    p_tree->max_list_entries = SR_I_LIST_STEP;
    p_tree->total_list_entries = 0;
    p_tree->list_rc = 0;

    qx_char_ptr_t p_resolved = nullptr;
    qx_uint32_t block_size = 0;
    qx_int32_t rc = sr_i_resolve_path(p_tree, p_listing_path, &p_resolved, &block_size);
    if (rc != 0) {
        release_list(p_tree);
        std::free(p_directory_form);
        return rc;
    }
    p_tree->p_list_prefix = p_resolved;
    if (block_size == 0) {
        P_Listing_Tree = p_tree;
        twalk(p_tree->p_tables, sr_i_list_tables_action);
        P_Listing_Tree = nullptr;
    } else {
        list_directory(p_tree, p_listing_path, p_resolved);
    }

    if (p_tree->list_rc == 0) {
        *p_p_table_list = p_tree->p_list;
        *p_count = p_tree->total_list_entries;
        p_tree->p_list = nullptr;
        p_tree->total_list_entries = 0;
        p_tree->max_list_entries = 0;
    } else {
        rc = p_tree->list_rc == -1 ? SR_ERROR(SR_E_NO_MEMORY) : p_tree->list_rc;
        release_list(p_tree);
    }
    p_tree->p_list_prefix = nullptr;
    if (block_size != 0) std::free(p_resolved);
    std::free(p_directory_form);
    return rc;
}
