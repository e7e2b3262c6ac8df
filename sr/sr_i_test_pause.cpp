// Test-only pause points on the durable path of apply and commit.
//
// Crash tests need a writer to die at an exact step of the protocol: after
// apply's records reached the file but before they were synced, between apply
// and commit, between commit's 4-byte switch and its sync, just before and
// just after the rename of a rewritten file.  The writer names the step in
// QX_SR_TEST_PAUSE ("point" or "point@n" for its n-th passage) and stops
// there with SIGSTOP, for a parent that waits with WUNTRACED; the test then
// kills it and looks at what is on disk.
//
// The variable is read once per process.  When it is unset, a point is one
// acquire load and one branch.
//
// This file is compiled twice.  Only the static archive the tests link is
// built with QX_TEST_SEAMS and reads the variable; in the shared library,
// which is what gets installed, a point is an empty call: no setting of any
// environment can make a production process stop itself.
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>

#include <atomic>
#include <cstring>

#include "sr_i_test_pause.h"

SR_SOURCE_FILE("sr/sr_i_test_pause", "1.1");

#if defined(QX_TEST_SEAMS)

namespace {

// 0 not read yet, 1 no point armed, 2 a point armed.
std::atomic<int> Pause_State{0};
pthread_mutex_t Pause_Mutex = PTHREAD_MUTEX_INITIALIZER;

// The parsed setting.  Fixed buffers: a pause point must not allocate, it may
// be reached with the heap in any state a test provokes.
char Pause_Point[64];
unsigned long Pause_Occurrence = 1;
unsigned long Pause_Seen = 0;

// Caller holds Pause_Mutex.
void parse_setting() {
    Pause_Point[0] = '\0';
    Pause_Occurrence = 1;
    Pause_Seen = 0;
    const char *p_value = getenv("QX_SR_TEST_PAUSE");
    if (p_value == nullptr || *p_value == '\0') {
        Pause_State.store(1, std::memory_order_release);
        return;
    }
    const size_t point_length = strlen(p_value);
    const char *p_at = static_cast<const char *>(memchr(p_value, '@', point_length));
    size_t name_length = p_at != nullptr ? static_cast<size_t>(p_at - p_value) : point_length;
    if (name_length >= sizeof Pause_Point) name_length = sizeof Pause_Point - 1;
    memcpy(Pause_Point, p_value, name_length);
    Pause_Point[name_length] = '\0';
    if (p_at != nullptr) {
        unsigned long n = strtoul(p_at + 1, nullptr, 10);
        Pause_Occurrence = n == 0 ? 1 : n;
    }
    Pause_State.store(2, std::memory_order_release);
}

}  // namespace

void sr_i_test_pause_reload() {
    pthread_mutex_lock(&Pause_Mutex);
    parse_setting();
    pthread_mutex_unlock(&Pause_Mutex);
}

void sr_i_test_pause(const char *p_point) {
    int state = Pause_State.load(std::memory_order_acquire);
    if (state == 1) return;
    pthread_mutex_lock(&Pause_Mutex);
    if (Pause_State.load(std::memory_order_relaxed) == 0) parse_setting();
    bool stop = Pause_State.load(std::memory_order_relaxed) == 2 &&
                strcmp(Pause_Point, p_point) == 0 && ++Pause_Seen == Pause_Occurrence;
    pthread_mutex_unlock(&Pause_Mutex);
    if (stop) raise(SIGSTOP);
}

#else

void sr_i_test_pause(const char *) {}

#endif
