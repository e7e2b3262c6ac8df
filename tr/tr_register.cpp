/*
 * tr_register.cpp - component registration and the trace sink.
 *
 * Registration is the only moment the library reads its configuration
 * (QX_TRACE_LEVELS and QX_TRACE_FILE), so the record calls never touch the
 * environment.  Registrations are serialised by one mutex; the record calls
 * take no lock at all: they read the "active" word, the append-only component
 * table and the sink descriptor with atomic loads.
 *
 * The trace file is opened once, with O_APPEND so that records of several
 * processes sharing it land whole at its end, and O_CLOEXEC so that programs
 * the caller executes do not inherit it.  When a later registration names a
 * different file, the new file is installed on the same descriptor number
 * with dup3, so a record being written concurrently goes to one file or the
 * other and never to a closed or reused descriptor.
 */
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "tr_i.h"

std::atomic<int> tr_i_active{0};
std::atomic<int> tr_i_sink_fd{-1};
tr_i_component_t tr_i_components[TR_I_MAX_COMPONENTS];
std::atomic<unsigned> tr_i_total_components{0};

namespace {

pthread_mutex_t tr_i_register_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_once_t tr_i_fork_handlers_once = PTHREAD_ONCE_INIT;

/* The descriptor this library opened for QX_TRACE_FILE (never standard error),
 * and the name it was opened with.  Guarded by tr_i_register_mutex. */
int tr_i_file_fd = -1;
char *p_tr_i_file_name = nullptr;

/* A fork while another thread registers must not leave the child with the
 * mutex locked forever. */
void tr_i_fork_prepare() {
    pthread_mutex_lock(&tr_i_register_mutex);
}
void tr_i_fork_parent() {
    pthread_mutex_unlock(&tr_i_register_mutex);
}
void tr_i_fork_child() {
    pthread_mutex_unlock(&tr_i_register_mutex);
    tr_i_note_fork_in_child();
}

void tr_i_install_fork_handlers() {
    pthread_atfork(tr_i_fork_prepare, tr_i_fork_parent, tr_i_fork_child);
}

/* Opens (or switches to) the named trace file; returns its descriptor or -1.
 * Caller holds tr_i_register_mutex. */
int tr_i_open_trace_file(const char *p_name) {
    if (tr_i_file_fd >= 0 && p_tr_i_file_name != nullptr && strcmp(p_tr_i_file_name, p_name) == 0) {
        return tr_i_file_fd;
    }
    int fd;
    do {
        fd = open(p_name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return -1;
    if (tr_i_file_fd >= 0) {
        if (dup3(fd, tr_i_file_fd, O_CLOEXEC) < 0) {
            close(fd);
            return -1;
        }
        close(fd);
    } else {
        tr_i_file_fd = fd;
    }
    free(p_tr_i_file_name);
    p_tr_i_file_name = strdup(p_name); /* NULL only means the next compare reopens */
    return tr_i_file_fd;
}

/* Finds the component's entry, adding it when new; NULL when the table is
 * full.  Caller holds tr_i_register_mutex. */
tr_i_component_t *tr_i_find_or_add_component(const char *p_component) {
    unsigned total = tr_i_total_components.load(std::memory_order_relaxed);
    for (unsigned i = 0; i < total; ++i) {
        if (strcmp(tr_i_components[i].name, p_component) == 0) return &tr_i_components[i];
    }
    if (total == TR_I_MAX_COMPONENTS) return nullptr;
    tr_i_component_t *p_entry = &tr_i_components[total];
    memcpy(p_entry->name, p_component, strlen(p_component) + 1);
    p_entry->traced.store(0, std::memory_order_relaxed);
    tr_i_total_components.store(total + 1, std::memory_order_release);
    return p_entry;
}

/* Recomputes the sink and the active word from the environment and the
 * component table.  Caller holds tr_i_register_mutex. */
void tr_i_configure_sink(const char *p_levels_spec) {
    int any_traced = 0;
    unsigned total = tr_i_total_components.load(std::memory_order_relaxed);
    for (unsigned i = 0; i < total; ++i) {
        if (tr_i_components[i].traced.load(std::memory_order_relaxed)) any_traced = 1;
    }
    const char *p_file = getenv("QX_TRACE_FILE");
    int fd = -1;
    if (p_file != nullptr && p_file[0] != '\0') {
        /* Nothing traced: do not create the file at all. */
        if (any_traced) fd = tr_i_open_trace_file(p_file);
    } else if (p_levels_spec != nullptr) {
        fd = STDERR_FILENO;
    }
    tr_i_sink_fd.store(fd, std::memory_order_release);
    tr_i_active.store(any_traced && fd >= 0, std::memory_order_release);
}

bool tr_i_valid_registration(const char *p_component, const qx_uint8_t *p_levels,
                             const tr_category_description_t *p_categories, qx_uint32_t count) {
    if (p_component == nullptr || p_component[0] == '\0') return false;
    if (strnlen(p_component, TR_I_MAX_COMPONENT_NAME + 1) > TR_I_MAX_COMPONENT_NAME) return false;
    if (count > 0 && (p_levels == nullptr || p_categories == nullptr)) return false;
    for (qx_uint32_t i = 0; i < count; ++i) {
        if (p_categories[i].category_name == nullptr) return false;
    }
    return true;
}

}  // namespace

int tr_i_component_traced(const char *p_component) {
    unsigned total = tr_i_total_components.load(std::memory_order_acquire);
    for (unsigned i = 0; i < total; ++i) {
        if (strcmp(tr_i_components[i].name, p_component) == 0) {
            return tr_i_components[i].traced.load(std::memory_order_relaxed);
        }
    }
    return 0;
}

extern "C" int tr_register_component_1(const char *p_component, qx_uint8_t *p_levels,
                                       const tr_category_description_t *p_categories,
                                       qx_uint32_t count) {
    if (!tr_i_valid_registration(p_component, p_levels, p_categories, count)) return EINVAL;
    pthread_once(&tr_i_fork_handlers_once, tr_i_install_fork_handlers);
    pthread_mutex_lock(&tr_i_register_mutex);
    int rc = 0;
    const char *p_spec = getenv("QX_TRACE_LEVELS");
    int traced = tr_i_compute_levels(p_spec, p_component, p_categories, count, p_levels);
    tr_i_component_t *p_entry = tr_i_find_or_add_component(p_component);
    if (p_entry == nullptr) {
        rc = ENOSPC;
    } else {
        p_entry->traced.store(traced, std::memory_order_relaxed);
        tr_i_configure_sink(p_spec);
    }
    pthread_mutex_unlock(&tr_i_register_mutex);
    return rc;
}

void tr_i_reset_for_testing(void) {
    pthread_mutex_lock(&tr_i_register_mutex);
    tr_i_active.store(0);
    tr_i_sink_fd.store(-1);
    tr_i_total_components.store(0);
    if (tr_i_file_fd >= 0) close(tr_i_file_fd);
    tr_i_file_fd = -1;
    free(p_tr_i_file_name);
    p_tr_i_file_name = nullptr;
    pthread_mutex_unlock(&tr_i_register_mutex);
}
