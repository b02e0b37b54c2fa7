// One line a module, highest peak first: the site records added up by the name of their module.

#include "vbx/mem/base/long_operation.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/mem_tbb_tracker/records/module_map.h"
#include "vbx/mem/mem_tbb_tracker/records/site_table.h"
#include "vbx/mem/mem_tbb_tracker/reports/report_text.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"
#include "vbx/mem/mem_tbb_tracker/state/switches.h"
#include "vbx/mem/mem_tbb_tracker/timelines/module_timeline.h"
#include "vbx/mem/out_of_memory/host_call.h"

#include <vbx/mem/reports.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

using SUBSYSTEM = std::pair<std::string, MEMORY_TRACKER_BASE>;

// Maxima are not added up: those of two sites need not have been reached at the same time.
void add_site(MEMORY_TRACKER_BASE& sum, const MEMORY_TRACKER_BASE& site) {
    sum.current_blocks += site.current_blocks;
    sum.peak_blocks += site.peak_blocks;
    sum.cumulative_blocks += site.cumulative_blocks;
    sum.current_bytes += site.current_bytes;
    sum.peak_bytes += site.peak_bytes;
    sum.cumulative_bytes += site.cumulative_bytes;
    sum.cumulative_requested_bytes += site.cumulative_requested_bytes;
    sum.cumulative_mismatched_bytes += site.cumulative_mismatched_bytes;
}

// The lock is held for the sums alone; what follows works on this private copy.
std::vector<SUBSYSTEM> add_up_subsystems() {
    std::map<std::string, MEMORY_TRACKER_BASE> sums;
    const MEM_STILL_SITES still;
    mem_tbb_site_table->for_each(
        [&sums](const MEM_ADDRESS_TRACKER& site) { add_site(sums[site.module_name], site); });
    return {sums.begin(), sums.end()};
}

// The highest figure that is known of the module: that of its timeline, or its peak if no sample was as high.
// In the timeline's section, because hosts ask for this report while events take samples.
void fill_max_bytes(std::vector<SUBSYSTEM>& subsystems) {
    const MEM_TIMELINE_GUARD section(mem_module_timeline->section);
    for (auto& [name, sum] : subsystems)
        sum.max_bytes =
            std::max(sum.peak_bytes, mem_module_timeline->highest_bytes(name).value_or(sum.peak_bytes));
}

bool is_reported(const SUBSYSTEM& subsystem) {
    return subsystem.second.cumulative_bytes != 0 || subsystem.first == MEM_OTHER_MODULE;
}

void write_row(MEM_REPORT_LINE& line, const SUBSYSTEM& subsystem, bool with_max_bytes) {
    const auto& [name, sum] = subsystem;
    line.text(name.empty() ? MEM_OTHER_MODULE : name).tab().number(sum.current_bytes);
    if (with_max_bytes)
        line.tab().number(sum.max_bytes);
    for (const std::int64_t figure : {sum.peak_bytes, sum.cumulative_bytes, sum.cumulative_requested_bytes,
                                      sum.cumulative_mismatched_bytes, std::int64_t{sum.current_blocks},
                                      std::int64_t{sum.peak_blocks}, sum.cumulative_blocks})
        line.tab().number(figure);
    line.end();
}

} // namespace

bool mem_dump_tbb_subsystem_tracking(std::ostream& stream) try {
    const MEM_LONG_OPERATION operation;
    if (!mem_tracker_objects_exist.load(std::memory_order_acquire))
        return true;
    const MEM_BLOCK_SCOPE own_heap_use;
    const MEM_REPORT_TIMER timer;
    const bool with_max_bytes = mem_report_flags.library;
    std::vector<SUBSYSTEM> subsystems = add_up_subsystems();
    if (with_max_bytes)
        fill_max_bytes(subsystems);
    std::ranges::stable_sort(subsystems, std::ranges::greater{},
                             [](const SUBSYSTEM& subsystem) { return subsystem.second.peak_bytes; });

    MEM_REPORT_LINE line(stream);
    line.text("MEM: TBB Subsystem Tracking Memory Snapshot.").end();
    line.end();
    line.text("Subsystem\tCurrent bytes\t").text(with_max_bytes ? "Max bytes\t" : "");
    line.text("Peak bytes\tCumulative bytes\tCumulative requested bytes\tCumulative mismatched bytes\t"
              "Current blocks\tPeak blocks\tCumulative blocks")
        .end();
    for (const SUBSYSTEM& subsystem : subsystems)
        if (is_reported(subsystem))
            write_row(line, subsystem, with_max_bytes);
    timer.write_footer(stream);
    return true;
} catch (const std::bad_alloc&) {
    mem_fail_host_call();
}
