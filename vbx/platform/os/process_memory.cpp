#include "vbx/platform/os/process_memory.h"

#include "vbx/platform/os/kernel_file.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>

namespace {

// Not /proc/self: that is the first thread of the process, whose file has no figures once it has ended.
constexpr const char* STATUS_FILE = "/proc/thread-self/status";

std::uint32_t count_page_faults() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<std::uint32_t>(usage.ru_minflt + usage.ru_majflt);
}

} // namespace

int os_find_process_memory() {
    const int callers_errno = errno;
    const int error = access(STATUS_FILE, R_OK) == 0 ? 0 : errno;
    errno = callers_errno;
    return error;
}

int os_read_process_memory(OS_PROCESS_MEMORY& memory) {
    OS_PROCESS_MEMORY seen;
    std::uint64_t data = 0;
    std::uint64_t stack = 0;
    bool has_working_set = false;
    OS_KERNEL_FILE file(STATUS_FILE);
    std::string_view line;
    while (file.next_line(line)) {
        os_parse_kilobytes(line, "VmSize:", seen.virtual_size);
        // Not getrusage's maximum, which a program inherits from the one that started it.
        os_parse_kilobytes(line, "VmHWM:", seen.peak_working_set);
        has_working_set |= os_parse_kilobytes(line, "VmRSS:", seen.working_set);
        os_parse_kilobytes(line, "VmData:", data);
        // The last of the figures; behind it there is nothing but lists.
        if (os_parse_kilobytes(line, "VmStk:", stack))
            break;
    }
    if (file.error() != 0)
        return file.error();
    if (!has_working_set)
        return ENODATA;
    seen.page_faults = count_page_faults();
    seen.committed = data + stack;
    seen.peak_committed = seen.committed;
    memory = seen;
    return 0;
}
