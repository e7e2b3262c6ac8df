// Build-time helper: prints the registry's message table as a message
// catalogue source for gencat (set 1, one message per number, escapes for
// the characters gencat would otherwise interpret).
#include <cstdio>

#include "qx_sr.h"

int main() {
    std::fputs("$ Messages of the registry library (generated; do not edit)\n$quote \"\n$set 1\n",
               stdout);
    for (int i = 1; i < SR_NUMBER_OF_MESSAGES; ++i) {
        std::printf("%d \"", i);
        for (const char *p = cu_mesgtbl_qx_sr_set[i]; *p != '\0'; ++p) {
            switch (*p) {
                case '\n':
                    std::fputs("\\n", stdout);
                    break;
                case '\\':
                    std::fputs("\\\\", stdout);
                    break;
                case '"':
                    std::fputs("\\\"", stdout);
                    break;
                default:
                    std::putchar(*p);
            }
        }
        std::puts("\"");
    }
    return 0;
}
