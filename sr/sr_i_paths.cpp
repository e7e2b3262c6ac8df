// Registry paths: their syntax, their mapping through a tree's mount points
// onto table files, and creating a mount point's directories.
//
// A persistent table is one file directly in its mount point's directory:
// the part of the registry path below the mount point is flattened by turning
// each further "/" into ",".  That is why "," can never appear in a registry
// path, and why the syntax check refuses anything that could climb out of the
// directory ("/./", "/../") even though the character check already does.
#include <ctype.h>
#include <errno.h>
#include <search.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "sr_i_files.h"
#include "sr_i_pool.h"
#include "sr_i_read_write_lock.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_i_paths", "1.1");

namespace {

// The last "/"-component, taken from the last "/", is "/." or "/..".
bool sr_i_ends_in_dot_component(const char *p_path) {
    const char *p_last = strrchr(p_path, '/');
    if (p_last == nullptr) return false;
    return strcmp(p_last, "/.") == 0 || strcmp(p_last, "/..") == 0;
}

}  // namespace

qx_int32_t sr_i_check_path_syntax(qx_char_ptr_t p_path) {
    if (p_path == nullptr) return SR_ERROR_TEXT(SR_E_INVALID_PATH, nullptr);
    size_t length = strnlen(p_path, SR_I_MAX_PATH_LENGTH + 1);
    if (length == 0 || length > SR_I_MAX_PATH_LENGTH)
        return SR_ERROR_TEXT(SR_E_INVALID_PATH, p_path);
    for (size_t i = 0; i < length; ++i) {
        int c = static_cast<unsigned char>(p_path[i]);
        if (isspace(c)) return SR_ERROR_TEXT(SR_E_INVALID_PATH, p_path);
        if (!isalnum(c) && c != '_' && c != '/') return SR_ERROR_TEXT(SR_E_INVALID_PATH, p_path);
    }
    // Only "//" can still fail after the character check; the rest stay as a
    // second line of defence should the allowed characters ever widen.
    if (strchr(p_path, ',') != nullptr || strstr(p_path, "//") != nullptr ||
        strstr(p_path, "/./") != nullptr || strstr(p_path, "/../") != nullptr) {
        return SR_ERROR_TEXT(SR_E_INVALID_PATH, p_path);
    }
    if (sr_i_ends_in_dot_component(p_path)) return SR_ERROR_TEXT(SR_E_INVALID_PATH, p_path);
    return 0;
}

qx_int32_t sr_i_resolve_path(sr_i_tree_t *p_tree, qx_char_ptr_t p_registry_path,
                             qx_char_ptr_t *p_absolute_registry_path, qx_uint32_t *p_persistent) {
    qx_int32_t rc = sr_i_check_path_syntax(p_registry_path);
    if (rc != 0) return rc;
    // The prefix comparator stops at the first mount point whose name (which
    // ends in "/") starts the path.
    void *p_node =
        tfind(p_registry_path, &p_tree->p_mount_points, sr_i_string_to_mount_point_compare);
    if (p_node == nullptr) {
        *p_absolute_registry_path = p_registry_path;
        *p_persistent = 0;
        return 0;
    }
    const sr_i_mount_point_t *p_mount = *static_cast<sr_i_mount_point_t **>(p_node);
    // The tail starts at the "/" that ends the mount point name.
    const char *p_tail = p_registry_path + strlen(p_mount->p_name) - 1;
    size_t directory_length = strlen(p_mount->p_filesystem_path);
    size_t tail_length = strlen(p_tail);
    char *p_file =
        static_cast<char *>(sr_i_malloc(directory_length + tail_length + SR_I_PATH_SLACK));
    if (p_file == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    memcpy(p_file, p_mount->p_filesystem_path, directory_length);
    p_file[directory_length] = '/';
    for (size_t i = 1; i < tail_length; ++i) {
        p_file[directory_length + i] = p_tail[i] == '/' ? ',' : p_tail[i];
    }
    p_file[directory_length + tail_length] = '\0';
    *p_absolute_registry_path = p_file;
    *p_persistent = p_mount->block_size;
    return 0;
}

qx_int32_t sr_i_create_all_directories_in_path(qx_char_ptr_t p_path) {
    // Each parent in turn, from the top; an existing one is fine.
    for (char *p_slash = strchr(p_path + (p_path[0] != '\0' ? 1 : 0), '/'); p_slash != nullptr;
         p_slash = strchr(p_slash + 1, '/')) {
        *p_slash = '\0';
        int result = sr_i_sys_mkdir(p_path, 0755);
        int the_errno = errno;
        *p_slash = '/';
        if (result != 0 && the_errno == ENOSPC) return SR_ERROR(SR_E_FILESYSTEM_FULL);
        if (result != 0 && the_errno != EEXIST) return SR_ERROR_SYSCALL("mkdir", the_errno);
    }
    if (sr_i_sys_mkdir(p_path, 0755) != 0) {
        int the_errno = errno;
        if (the_errno == ENOSPC) return SR_ERROR(SR_E_FILESYSTEM_FULL);
        if (the_errno != EEXIST) return SR_ERROR_SYSCALL("mkdir", the_errno);
    }
    return 0;
}

namespace {

void sr_i_free_mount_point(sr_i_mount_point_t *p_mount) {
    free(p_mount->p_filesystem_path);
    free(p_mount->p_name);
    free(p_mount);
}

}  // namespace

qx_int32_t sr_i_mount_local_tree(sr_i_tree_t *p_tree, qx_char_ptr_t p_registry_path,
                                 const char *p_filesystem_path) {
    SR_I_ASSERT_WRITE_LOCKED(&p_tree->lock);
    qx_char_ptr_t p_resolved = nullptr;
    qx_uint32_t block_size = 0;
    qx_int32_t rc = sr_i_resolve_path(p_tree, p_registry_path, &p_resolved, &block_size);
    if (rc != 0) return rc;
    if (block_size != 0) {
        // The path already lies under a mount point.
        free(p_resolved);
        return SR_ERROR(SR_E_MOUNT_POINT_EXISTS);
    }
    if (tfind(p_registry_path, &p_tree->p_tables, sr_i_string_to_table_compare) != nullptr) {
        // A transient table of that very name is open: mounting would hide it.
        return SR_ERROR(SR_E_TABLE_EXISTS);
    }
    // The record takes the copy the directories were created from (the
    // creation restores every byte it cuts).
    size_t directory_length = strlen(p_filesystem_path);
    size_t name_length = strlen(p_registry_path);
    auto *p_mount = static_cast<sr_i_mount_point_t *>(sr_i_calloc(1, sizeof(sr_i_mount_point_t)));
    if (p_mount == nullptr) return SR_ERROR(SR_E_NO_MEMORY);
    p_mount->p_filesystem_path = static_cast<char *>(sr_i_malloc(directory_length + 1));
    if (p_mount->p_filesystem_path == nullptr) {
        sr_i_free_mount_point(p_mount);
        return SR_ERROR(SR_E_NO_MEMORY);
    }
    memcpy(p_mount->p_filesystem_path, p_filesystem_path, directory_length + 1);
    rc = sr_i_create_all_directories_in_path(p_mount->p_filesystem_path);
    if (rc != 0) {
        sr_i_free_mount_point(p_mount);
        return rc;
    }
    p_mount->p_name = static_cast<char *>(sr_i_malloc(name_length + 2));
    if (p_mount->p_name == nullptr) {
        sr_i_free_mount_point(p_mount);
        return SR_ERROR(SR_E_NO_MEMORY);
    }
    // The name ends in "/" so that a plain prefix test finds the mount point
    // of a path: /a/ starts /a/x but not /ab.
    memcpy(p_mount->p_name, p_registry_path, name_length);
    p_mount->p_name[name_length] = '/';
    p_mount->p_name[name_length + 1] = '\0';
    p_mount->block_size = SR_I_MOUNT_BLOCK_SIZE;
    void *p_node = tsearch(p_mount, &p_tree->p_mount_points, sr_i_mount_point_compare);
    if (p_node == nullptr) {
        sr_i_free_mount_point(p_mount);
        return SR_ERROR(SR_E_NO_MEMORY);
    }
    if (*static_cast<sr_i_mount_point_t **>(p_node) != p_mount) {
        sr_i_free_mount_point(p_mount);
        return SR_ERROR(SR_E_MOUNT_POINT_EXISTS);
    }
    return 0;
}

qx_int32_t sr_i_unmount_local_tree(sr_i_tree_t *p_tree, qx_char_ptr_t p_registry_path) {
    SR_I_ASSERT_WRITE_LOCKED(&p_tree->lock);
    if (p_tree->p_mount_points == nullptr) return SR_ERROR(SR_E_NO_MOUNT_POINT);
    qx_char_ptr_t p_resolved = nullptr;
    qx_uint32_t block_size = 0;
    qx_int32_t rc = sr_i_resolve_path(p_tree, p_registry_path, &p_resolved, &block_size);
    if (rc != 0) return rc;
    // The key is sized from the resolved path: a path under another mount
    // point resolves to a (possibly longer) file path, which then simply
    // names no mount point.
    size_t resolved_length = strlen(p_resolved);
    char *p_key = static_cast<char *>(sr_i_malloc(resolved_length + 2));
    if (p_key == nullptr) {
        rc = SR_ERROR(SR_E_NO_MEMORY);
    } else {
        memcpy(p_key, p_resolved, resolved_length);
        p_key[resolved_length] = '/';
        p_key[resolved_length + 1] = '\0';
        void *p_node =
            tfind(p_key, &p_tree->p_mount_points, sr_i_string_to_mount_point_delete_compare);
        if (p_node == nullptr) {
            rc = SR_ERROR(SR_E_NO_MOUNT_POINT);
        } else {
            // Open tables of the mount point keep their files; only new
            // resolutions stop mapping into the directory.
            auto *p_mount = *static_cast<sr_i_mount_point_t **>(p_node);
            tdelete(p_mount, &p_tree->p_mount_points, sr_i_mount_point_compare);
            sr_i_free_mount_point(p_mount);
        }
        free(p_key);
    }
    if (block_size != 0) free(p_resolved);
    return rc;
}
