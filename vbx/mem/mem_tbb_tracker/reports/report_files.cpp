#include "vbx/mem/mem_tbb_tracker/reports/report_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <locale>

namespace {

constexpr int FIRST_FREE_DESCRIPTOR = 3;
constexpr mode_t READABLE_AND_WRITABLE = 0666;

// In a host that has closed its standard output the next file that is opened takes its number, and what other
// threads still print would end up in the report.
int open_behind_standard_streams(const std::string& name, int flags) {
    const int descriptor = open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, READABLE_AND_WRITABLE);
    if (descriptor < 0 || descriptor >= FIRST_FREE_DESCRIPTOR)
        return descriptor;
    const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, FIRST_FREE_DESCRIPTOR);
    close(descriptor);
    return moved;
}

} // namespace

MEM_REPORT_FILE::MEM_REPORT_FILE(int descriptor)
    : std::ostream(nullptr), m_buffer(descriptor, std::ios_base::out) {
    imbue(std::locale::classic());
    if (m_buffer.is_open())
        rdbuf(&m_buffer);
    else
        setstate(std::ios_base::failbit);
}

MEM_REPORT_FILE mem_open_report(const std::string& name) {
    return MEM_REPORT_FILE(open_behind_standard_streams(name, O_TRUNC));
}

MEM_REPORT_FILE mem_open_report_for_append(const std::string& name) {
    return MEM_REPORT_FILE(open_behind_standard_streams(name, O_APPEND));
}
