#include "vbx/mem/mem_tbb_tracker/reports/report_files.h"

#include <locale>

namespace {

std::ofstream open(const std::string& name, std::ios_base::openmode mode) {
    std::ofstream stream;
    stream.imbue(std::locale::classic());
    stream.open(name, mode);
    return stream;
}

} // namespace

std::ofstream mem_open_report(const std::string& name) {
    return open(name, std::ios_base::out);
}

std::ofstream mem_open_report_for_append(const std::string& name) {
    return open(name, std::ios_base::out | std::ios_base::app);
}
