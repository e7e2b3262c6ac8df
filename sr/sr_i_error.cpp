// Error reporting for the whole registry: one helper records a failure in the
// calling thread's error record (with the substitution values its message
// needs), writes the error trace record when error tracing is on, and hands
// the code back so the caller can return it.  Also the errno capture file
// written when a sync fails, so a post-mortem can see what the disk said.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "sr_i_common.h"

SR_SOURCE_FILE("sr/sr_i_error", "1.1");

namespace {

// Result codes in message-table order (index 0 is reserved).
constexpr qx_int32_t kCodes[SR_NUMBER_OF_MESSAGES] = {
    0,   10,  11,  12,  13,  14,  15,  100, 101, 102, 103, 104, 105, 106, 107,
    108, 109, 200, 201, 202, 203, 204, 205, 206, 207, 208, 209, 210, 211, 212};

constexpr qx_uint32_t kInternalIndex = 6;  // "2605-015 ..."

}  // namespace

qx_uint32_t sr_i_message_index(qx_int32_t code) {
    for (qx_uint32_t i = 1; i < SR_NUMBER_OF_MESSAGES; ++i) {
        if (kCodes[i] == code) return i;
    }
    return 0;
}

qx_int32_t sr_i_set_error(const sr_i_source_t &source, const char *p_function, int line,
                          qx_int32_t code, const char *p_text, int value) {
    qx_uint32_t index = sr_i_message_index(code);
    const char *p_catalogue = SR_MESSAGE_CATALOGUE;
    if (index == 0) {
        // Not a result code: a caller bug.  Report it as an internal
        // inconsistency at the place it happened rather than with the
        // reserved message, but keep the code the caller returns.
        cu_set_error_1(code, nullptr, p_catalogue, SR_MESSAGE_SET, kInternalIndex,
                       cu_mesgtbl_qx_sr_set[kInternalIndex], p_function, line, source.file,
                       source.version);
    } else {
        const char *p_default = cu_mesgtbl_qx_sr_set[index];
        switch (code) {
            case 10:
            case 11:
                cu_set_error_1(code, nullptr, p_catalogue, SR_MESSAGE_SET, index, p_default,
                               p_text != nullptr ? p_text : "", value, p_function, line,
                               source.file, source.version);
                break;
            case 12:
            case 15:
                cu_set_error_1(code, nullptr, p_catalogue, SR_MESSAGE_SET, index, p_default,
                               p_function, line, source.file, source.version);
                break;
            case 102:
                cu_set_error_1(code, nullptr, p_catalogue, SR_MESSAGE_SET, index, p_default,
                               p_text != nullptr ? p_text : "<NULL POINTER>");
                break;
            case 109:
                cu_set_error_1(code, nullptr, p_catalogue, SR_MESSAGE_SET, index, p_default,
                               p_text != nullptr ? p_text : "");
                break;
            default:
                cu_set_error_1(code, nullptr, p_catalogue, SR_MESSAGE_SET, index, p_default);
                break;
        }
    }
    if (Sr_Trace_Level_Of_Detail[SR_TRACE_ERRORS] != 0) {
        tr_record_error_1(SR_TRACE_COMPONENT, 0, p_function, static_cast<qx_uint32_t>(line),
                          source.file, 0);
    }
    return code;
}

void sr_i_capture_errno(const char *p_function_name, int the_errno, int line_number,
                        const char *p_sccsid) {
    char name[32];
    std::snprintf(name, sizeof name, "reginfo_pid.%u", static_cast<unsigned>(getpid()));
    // The name is predictable, and the working directory may be shared: a
    // link planted under it is not followed, and only a file of this user
    // with no other name is emptied and rewritten (each capture replaces
    // the previous one of this process).
    int fd = open(name, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
    if (fd < 0) return;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid() || st.st_nlink != 1 ||
        ftruncate(fd, 0) != 0) {
        close(fd);
        return;
    }
    char text[256];
    int length = std::snprintf(text, sizeof text, "function(%s) errno(%d) line(%d) sccsid(%s)\n",
                               p_function_name, the_errno, line_number, p_sccsid);
    if (length > 0) {
        size_t total = static_cast<size_t>(length) < sizeof text ? static_cast<size_t>(length)
                                                                 : sizeof text - 1;
        ssize_t ignored = write(fd, text, total);
        (void)ignored;
    }
    close(fd);
}
