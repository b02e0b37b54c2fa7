#include "vbx/platform/os/system_memory.h"

#include "vbx/platform/os/kernel_file.h"

#include <cerrno>

int os_read_system_memory(OS_SYSTEM_MEMORY& memory) {
    OS_SYSTEM_MEMORY seen;
    std::uint64_t swap_total = 0;
    std::uint64_t swap_free = 0;
    bool has_total = false;
    bool has_available = false;
    OS_KERNEL_FILE file("/proc/meminfo");
    std::string_view line;
    while (file.next_line(line)) {
        has_total |= os_parse_kilobytes(line, "MemTotal:", seen.physical_total);
        has_available |= os_parse_kilobytes(line, "MemAvailable:", seen.physical_available);
        os_parse_kilobytes(line, "SwapTotal:", swap_total);
        if (os_parse_kilobytes(line, "SwapFree:", swap_free))
            break;
    }
    if (file.error() != 0)
        return file.error();
    if (!has_total || !has_available)
        return ENODATA;
    seen.page_file_total = seen.physical_total + swap_total;
    seen.page_file_available = seen.physical_available + swap_free;
    memory = seen;
    return 0;
}
