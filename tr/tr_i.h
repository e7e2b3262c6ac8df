/*
 * tr_i.h - the trace library's internal state and routines.
 *
 * The library keeps three pieces of process-wide state: the table of
 * registered components (append-only, read without locks), the sink the
 * records go to (one file descriptor), and one "active" word that is non-zero
 * only when some registered component is traced and there is a sink.  Every
 * record call tests that word first, so a process that traces nothing pays a
 * load and a branch per call.
 *
 * Nothing here is exported from libqx_tr.so; the unit tests reach it through
 * the static archive.
 */
#ifndef TR_I_H
#define TR_I_H

#include <atomic>

#include "qx_tr.h"

/* Longest component name kept (longer names are refused at registration). */
#define TR_I_MAX_COMPONENT_NAME 15
/* Components one process can register; the table never shrinks. */
#define TR_I_MAX_COMPONENTS 64
/* A record is at most this many bytes, newline included, so that one write
 * to a pipe stays atomic (PIPE_BUF) as well as one O_APPEND write to a file. */
#define TR_I_MAX_RECORD 4096
/* Values of one VALUES record beyond this many are not read. */
#define TR_I_MAX_VALUES 256

struct tr_i_component_t {
    char name[TR_I_MAX_COMPONENT_NAME + 1]; /* written once, before publication */
    std::atomic<int> traced;                /* any category at a non-zero level */
};

/* Non-zero when records can be written at all.  Hidden, so that the test on
 * the fast path is one PC-relative load rather than a load through the GOT. */
extern std::atomic<int> tr_i_active __attribute__((visibility("hidden")));
/* The file descriptor records are written to, or -1. */
extern std::atomic<int> tr_i_sink_fd;
extern tr_i_component_t tr_i_components[TR_I_MAX_COMPONENTS];
/* Entries [0, total) are published; acquire-load before reading them. */
extern std::atomic<unsigned> tr_i_total_components;

/*
 * Fills p_levels[i] for each of `count` categories from the level
 * text p_spec (the text of QX_TRACE_LEVELS, or NULL when unset):
 * start from the category's default, apply every matching "component:
 * category=level" item in the order written, and never go below the
 * category's minimum.  Malformed items are skipped.  Returns non-zero when any
 * level is non-zero.
 */
int tr_i_compute_levels(const char *p_spec, const char *p_component,
                        const tr_category_description_t *p_categories, qx_uint32_t count,
                        qx_uint8_t *p_levels);

/* Non-zero when p_component is registered with some category traced. */
int tr_i_component_traced(const char *p_component);

/* Called in the child of a fork: the cached process and thread ids are stale. */
void tr_i_note_fork_in_child(void);

/* Forgets every component and closes the trace file, as if the process had
 * just started.  For tests only: no record call may run concurrently. */
void tr_i_reset_for_testing(void);

#endif /* TR_I_H */
