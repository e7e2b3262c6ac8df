/*
 * tr_record.cpp - the record calls.
 *
 * A record is one line:
 *   <UTC time to the microsecond> <pid> <thread id> <component> <content>
 * for example "2026-11-22T00:29:12.123456Z 4711 4713 _SRA VALUES 82 0".
 * The line is assembled in a stack buffer and handed to the kernel in one
 * write(2), so lines of concurrent threads and processes never interleave and
 * no lock is needed.  Nothing is buffered in the library, which is why
 * tr_flush_1 has nothing to do.
 *
 * Every call first tests tr_i_active: when nothing is traced that load and its
 * branch are the whole cost.  The time is converted by hand rather than with
 * gmtime_r, which takes the C library's time-zone lock; a record must not
 * block on, or deadlock a forked child through, a lock held elsewhere.
 *
 * Failures are swallowed: a record that cannot be written is lost, and the
 * caller always gets 0.
 */
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "tr_i.h"

namespace {

/* Process id, cached; 0 until first needed.  Reset in a forked child. */
std::atomic<int> tr_i_pid{0};
/* Bumped in every forked child so that cached thread ids are refreshed. */
std::atomic<unsigned> tr_i_fork_generation{1};
thread_local unsigned tr_i_thread_generation = 0;
thread_local int tr_i_thread_id = 0;

int tr_i_current_pid() {
    int pid = tr_i_pid.load(std::memory_order_relaxed);
    if (pid == 0) {
        pid = (int)getpid();
        tr_i_pid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

int tr_i_current_thread_id() {
    unsigned generation = tr_i_fork_generation.load(std::memory_order_relaxed);
    if (tr_i_thread_generation != generation) {
        tr_i_thread_id = (int)syscall(SYS_gettid);
        tr_i_thread_generation = generation;
    }
    return tr_i_thread_id;
}

/* Days since 1970-01-01 to a proleptic Gregorian date. */
void tr_i_civil_from_days(long long days, long long *p_year, unsigned *p_month, unsigned *p_day) {
    days += 719468;
    long long era = (days >= 0 ? days : days - 146096) / 146097;
    unsigned day_of_era = (unsigned)(days - era * 146097);
    unsigned year_of_era =
        (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    unsigned day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    unsigned shifted_month = (5 * day_of_year + 2) / 153;
    *p_day = day_of_year - (153 * shifted_month + 2) / 5 + 1;
    *p_month = shifted_month < 10 ? shifted_month + 3 : shifted_month - 9;
    *p_year = (long long)year_of_era + era * 400 + (*p_month <= 2 ? 1 : 0);
}

/* One record being assembled; text[length] is where content continues. */
struct tr_i_line_t {
    char text[TR_I_MAX_RECORD + 1];
    size_t length;
    size_t content_start;
};

void tr_i_vappend(tr_i_line_t *p_line, const char *p_format, va_list args) {
    /* One byte stays free for the newline. */
    size_t room = TR_I_MAX_RECORD - 1 - p_line->length;
    if (room == 0) return;
    int n = vsnprintf(p_line->text + p_line->length, room + 1, p_format, args);
    if (n < 0) return;
    p_line->length += (size_t)n < room ? (size_t)n : room;
}

__attribute__((format(printf, 2, 3))) void tr_i_append(tr_i_line_t *p_line, const char *p_format,
                                                       ...) {
    va_list args;
    va_start(args, p_format);
    tr_i_vappend(p_line, p_format, args);
    va_end(args);
}

void tr_i_begin(tr_i_line_t *p_line, const char *p_component) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    long long seconds = (long long)now.tv_sec;
    long long days = seconds >= 0 ? seconds / 86400 : (seconds - 86399) / 86400;
    long long second_of_day = seconds - days * 86400;
    long long year;
    unsigned month, day;
    tr_i_civil_from_days(days, &year, &month, &day);
    p_line->length = 0;
    tr_i_append(p_line, "%04lld-%02u-%02uT%02lld:%02lld:%02lld.%06ldZ %d %d %.*s ", year, month,
                day, second_of_day / 3600, second_of_day / 60 % 60, second_of_day % 60,
                (long)(now.tv_nsec / 1000), tr_i_current_pid(), tr_i_current_thread_id(),
                TR_I_MAX_COMPONENT_NAME, p_component);
    p_line->content_start = p_line->length;
}

/* Ends the line and writes it.  Line breaks inside the content would split
 * one record into two lines, so they become blanks (trailing ones go). */
void tr_i_write(tr_i_line_t *p_line) {
    while (p_line->length > p_line->content_start &&
           (p_line->text[p_line->length - 1] == '\n' || p_line->text[p_line->length - 1] == '\r')) {
        --p_line->length;
    }
    for (size_t i = p_line->content_start; i < p_line->length; ++i) {
        if (p_line->text[i] == '\n' || p_line->text[i] == '\r') p_line->text[i] = ' ';
    }
    p_line->text[p_line->length++] = '\n';
    int fd = tr_i_sink_fd.load(std::memory_order_acquire);
    if (fd < 0) return;
    const char *p = p_line->text;
    size_t left = p_line->length;
    int saved_errno = errno; /* the caller may be about to report its own errno */
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            break;
        }
        p += n;
        left -= (size_t)n;
    }
    errno = saved_errno;
}

inline bool tr_i_traced(const char *p_component) {
    return p_component != nullptr && tr_i_component_traced(p_component);
}

/* The slow paths live apart from the exported calls so that an exported call
 * with tracing off needs no stack frame for the line buffer. */
__attribute__((noinline)) void tr_i_record_id(const char *p_component, qx_uint32_t id) {
    if (!tr_i_traced(p_component)) return;
    tr_i_line_t line;
    tr_i_begin(&line, p_component);
    tr_i_append(&line, "ID %u", id);
    tr_i_write(&line);
}

__attribute__((noinline)) void tr_i_record_values(const char *p_component, qx_uint32_t id,
                                                  qx_uint32_t count, va_list args) {
    if (!tr_i_traced(p_component)) return;
    tr_i_line_t line;
    tr_i_begin(&line, p_component);
    tr_i_append(&line, "VALUES %u", id);
    qx_uint32_t shown = count < TR_I_MAX_VALUES ? count : TR_I_MAX_VALUES;
    for (qx_uint32_t i = 0; i < shown; ++i) tr_i_append(&line, " %u", va_arg(args, unsigned));
    tr_i_write(&line);
}

__attribute__((noinline)) void tr_i_record_error(const char *p_component, qx_uint32_t error_id,
                                                 const char *p_function, qx_uint32_t line_number,
                                                 const char *p_file) {
    if (!tr_i_traced(p_component)) return;
    tr_i_line_t line;
    tr_i_begin(&line, p_component);
    tr_i_append(&line, "ERROR %u %s %s:%u", error_id, p_function != nullptr ? p_function : "?",
                p_file != nullptr ? p_file : "?", line_number);
    tr_i_write(&line);
}

__attribute__((noinline)) void tr_i_record_fmt_string(const char *p_component, const char *p_format,
                                                      va_list args) {
    if (!tr_i_traced(p_component) || p_format == nullptr) return;
    tr_i_line_t line;
    tr_i_begin(&line, p_component);
    tr_i_vappend(&line, p_format, args);
    tr_i_write(&line);
}

inline bool tr_i_off() {
    return __builtin_expect(tr_i_active.load(std::memory_order_relaxed) == 0, 1);
}

}  // namespace

void tr_i_note_fork_in_child(void) {
    tr_i_pid.store((int)getpid(), std::memory_order_relaxed);
    tr_i_fork_generation.fetch_add(1, std::memory_order_relaxed);
}

extern "C" int tr_record_id_1(const char *p_component, qx_uint32_t id) {
    if (tr_i_off()) return 0;
    tr_i_record_id(p_component, id);
    return 0;
}

extern "C" int tr_record_values_32_1(const char *p_component, qx_uint32_t id, qx_uint32_t count,
                                     ...) {
    if (tr_i_off()) return 0;
    va_list args;
    va_start(args, count);
    tr_i_record_values(p_component, id, count, args);
    va_end(args);
    return 0;
}

extern "C" int tr_record_error_1(const char *p_component, qx_uint32_t error_id,
                                 const char *p_function, qx_uint32_t line_number,
                                 const char *p_file, qx_uint32_t flags) {
    (void)flags;
    if (tr_i_off()) return 0;
    tr_i_record_error(p_component, error_id, p_function, line_number, p_file);
    return 0;
}

/* The category is not consulted: a formatted record is written whenever its
 * component is traced at all. */
extern "C" int tr_record_fmt_string_1(const char *p_component, qx_int32_t category,
                                      const char *p_format, ...) {
    (void)category;
    if (tr_i_off()) return 0;
    va_list args;
    va_start(args, p_format);
    tr_i_record_fmt_string(p_component, p_format, args);
    va_end(args);
    return 0;
}

extern "C" int tr_flush_1(void) {
    return 0;
}
