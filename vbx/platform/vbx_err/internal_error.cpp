#include "vbx/platform/os/write.h"
#include "vbx/platform/vbx_err/vbx_err.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

void err_report_internal_error(const char* condition, const char* subsystem, const char* file, int line) {
    char text[1024];
    const int length = std::snprintf(text, sizeof text, "%s: internal error: %s (%s:%d)\n", subsystem,
                                     condition, file, line);
    if (length > 0) {
        const std::size_t wanted = static_cast<std::size_t>(length);
        os_write(STDERR_FILENO, text, wanted < sizeof text ? wanted : sizeof text - 1);
    }
    std::abort();
}
