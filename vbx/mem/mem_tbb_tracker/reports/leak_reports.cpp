#include "vbx/mem/mem_tbb_tracker/reports/leak_reports.h"

#include "vbx/mem/mem_tbb_tracker/records/site_table.h"
#include "vbx/mem/mem_tbb_tracker/reports/report_files.h"
#include "vbx/mem/mem_tbb_tracker/reports/report_text.h"
#include "vbx/mem/mem_tbb_tracker/state/executable_tag.h"
#include "vbx/mem/mem_tbb_tracker/state/switches.h"

#include <vbx/mem/host.h>
#include <vbx/mem/stats.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace {

// Sends either report to the file of a sibling tool. Asked of the environment alone: no configuration has a
// say.
bool zv_mode_is_on() {
    return mem_environment_switch_is_on("MEM_LEAK_TRACKING_IN_ZV_MODE");
}

constexpr const char* ZV_FILE = "tarvane_zv_leak_warning.txt";

// A site that holds no bytes is no leak, even when it has live blocks.
std::vector<MEM_ADDRESS_TRACKER> leaking_sites() {
    std::vector<MEM_ADDRESS_TRACKER> sites;
    const MEM_STILL_SITES still;
    mem_tbb_site_table->for_each([&sites](MEM_ADDRESS_TRACKER& site) MEM_REQUIRES(mem_site_lock) {
        if (site.current_bytes >= 1)
            mem_copy_site(sites.emplace_back(), site);
    });
    std::ranges::sort(sites, [](const auto& a, const auto& b) {
        return a.current_bytes != b.current_bytes ? a.current_bytes > b.current_bytes : a.address < b.address;
    });
    return sites;
}

constexpr const char* FAST_REPORT_RULE = "===============================";

// Stands once at the head of the file, however many processes add to it. False when there can be no file.
bool write_head_of_new_fast_report(const std::string& name) {
    // Not opened: it may be a pipe.
    if (faccessat(AT_FDCWD, name.c_str(), R_OK, AT_EACCESS) == 0)
        return true;
    MEM_REPORT_FILE stream = mem_open_report(name);
    stream << "For more detail, use INI mem_check_leaks=on\n\n";
    return stream.good();
}

} // namespace

void mem_write_full_leak_report() {
    const std::vector<MEM_ADDRESS_TRACKER> sites = leaking_sites();
    MEM_REPORT_FILE stream =
        mem_open_report(zv_mode_is_on() ? ZV_FILE : mem_report_file_name("mem_tbb_leak_warning."));
    if (!stream)
        return;
    MEM_REPORT_LINE line(stream);
    line.text("MEM: TBB Leak Checking Summary.").end();
    line.end();
    std::int64_t total = 0;
    for (const MEM_ADDRESS_TRACKER& site : sites) {
        // What could not be attributed points nowhere and doesn't count here.
        if (site.address == 0)
            continue;
        line.text(site.module_name).text(" leaked ").number(site.current_bytes).text(" bytes in ");
        line.number(site.current_blocks).text(" object(s) allocated at ").text(site.file_name);
        line.text(":").number(site.line).text(" ").text(site.function_name).end();
        total += site.current_bytes;
    }
    line.end();
    line.text("Total leaked bytes: ").number(total).end();
}

void mem_write_fast_leak_report() {
    const std::string name = zv_mode_is_on() ? ZV_FILE : "mem_tbb_fast_leak_warning.log";
    if (!write_head_of_new_fast_report(name))
        return;
    MEM_REPORT_FILE stream = mem_open_report_for_append(name);
    if (!stream)
        return;
    // The block leaves in one piece, so those of several processes don't mix.
    MEM_REPORT_LINE line(stream);
    line.text(mem_gen_get_module_filename()).text(" memory leak summary\n").text(FAST_REPORT_RULE);
    line.text("\nLeaked bytes:      ").number_in_field(mem_get_global_current().bytes.load(), 12);
    line.text("\nPeak bytes on heap:").number_in_field(mem_get_global_peak().bytes.load(), 12);
    line.text("\n").text(FAST_REPORT_RULE).text("\n").end();
}
