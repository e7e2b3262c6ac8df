// Process-wide state of the exported call frame: the API mutex that
// serialises state-changing calls (and is held across fork), the trace
// component's detail bytes, and the entry/exit trace records.
#include <pthread.h>

#include "sr_i_frame.h"
#include "sr_i_tree.h"

SR_SOURCE_FILE("sr/sr_i_frame", "1.1");

pthread_mutex_t ForkMutex = PTHREAD_MUTEX_INITIALIZER;

qx_uint8_t Sr_Trace_Level_Of_Detail[3] = {0, 0, 0};
qx_uint32_t Sr_Library_Registered_For_Trace = 0;
const tr_category_description_t Sr_Trace_Categories[3] = {
    {0, "API", 0, 0},
    {1, "Errors", 0, 0},
    {2, "Wherever", 0, 0},
};

// Thread cancellation is held off for the whole of an exported call: a call
// cancelled inside lockf, fdatasync or writev would leave ForkMutex or a
// tree's or table's lock held, and the process would deadlock on it.  The
// cancellation takes effect at the caller's next cancellation point after
// the call.  Entry and exit frame every exported call, also a call made
// from inside another one, so only the outermost frame switches.
namespace {
thread_local int Frame_Depth = 0;
thread_local int Frame_Cancel_State = PTHREAD_CANCEL_ENABLE;
}  // namespace

void sr_i_trace_entry(qx_uint32_t entry_id) {
    if (Frame_Depth++ == 0)
        (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &Frame_Cancel_State);
    if (Sr_Trace_Level_Of_Detail[SR_TRACE_API] != 0) {
        tr_record_id_1(SR_TRACE_COMPONENT, entry_id);
    }
}

qx_int32_t sr_i_trace_exit(qx_uint32_t entry_id, qx_int32_t result) {
    if (Sr_Trace_Level_Of_Detail[SR_TRACE_API] != 0) {
        tr_record_values_32_1(SR_TRACE_COMPONENT, entry_id + 1, 1, static_cast<unsigned>(result));
    }
    if (Frame_Depth > 0 && --Frame_Depth == 0) {
        int ignored = 0;
        (void)pthread_setcancelstate(Frame_Cancel_State, &ignored);
    }
    return result;
}

// The lock result is deliberately not checked: a default mutex cannot fail
// here short of memory corruption, and a caller could do nothing about it.
void sr_i_fork_mutex_lock() {
    (void)pthread_mutex_lock(&ForkMutex);
}
void sr_i_fork_mutex_unlock() {
    (void)pthread_mutex_unlock(&ForkMutex);
}
