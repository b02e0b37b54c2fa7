// One line an allocation site, highest peak first.

#include "vbx/mem/base/long_operation.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/mem_tbb_tracker/records/site_table.h"
#include "vbx/mem/mem_tbb_tracker/reports/report_text.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"
#include "vbx/mem/out_of_memory/host_call.h"

#include <vbx/mem/reports.h>

#include <algorithm>
#include <vector>

namespace {

std::vector<const MEM_ADDRESS_TRACKER*> sites_by_peak() MEM_REQUIRES(mem_site_lock) {
    std::vector<const MEM_ADDRESS_TRACKER*> sites;
    sites.reserve(mem_tbb_site_table->size());
    mem_tbb_site_table->for_each([&sites](const MEM_ADDRESS_TRACKER& site) { sites.push_back(&site); });
    // Sites of equal peak stand in the order of their addresses, so that one run's report is like the next's.
    std::ranges::sort(sites, [](const auto* a, const auto* b) {
        return a->peak_bytes != b->peak_bytes ? a->peak_bytes > b->peak_bytes : a->address < b->address;
    });
    return sites;
}

// Sites that were never charged are left out, filtered frames first of all; the catch-all stands once it has
// been made.
bool is_reported(const MEM_ADDRESS_TRACKER& site) {
    return site.cumulative_bytes != 0 || site.address == 0;
}

void write_row(MEM_REPORT_LINE& line, const MEM_ADDRESS_TRACKER& site) {
    if (site.address == 0)
        line.text("OTHER");
    else
        line.address(site.address);
    for (const std::int64_t figure :
         {site.current_bytes, site.max_bytes, site.peak_bytes, site.cumulative_bytes,
          site.cumulative_requested_bytes, site.cumulative_mismatched_bytes,
          std::int64_t{site.current_blocks}, std::int64_t{site.max_blocks}, std::int64_t{site.peak_blocks},
          site.cumulative_blocks})
        line.tab().number(figure);
    line.tab().text(site.module_name).tab().text(site.file_name).tab().number(site.line);
    line.tab().text(site.function_name).end();
}

} // namespace

bool mem_dump_tbb_fileline_tracking(std::ostream& stream) try {
    const MEM_LONG_OPERATION operation;
    if (!mem_tracker_objects_exist.load(std::memory_order_acquire))
        return true;
    const MEM_BLOCK_SCOPE own_heap_use;
    const MEM_REPORT_TIMER timer;
    MEM_REPORT_LINE line(stream);
    line.text("MEM: TBB Fileline Tracking Memory Snapshot.").end();
    line.end();
    line.text("Address\tCurrent bytes\tMax bytes\tPeak bytes\tCumulative bytes\tCumulative requested bytes\t"
              "Cumulative mismatched bytes\tCurrent blocks\tMax blocks\tPeak blocks\tCumulative blocks\t"
              "Module\tFile\tLine\tFunction")
        .end();
    {
        const MEM_STILL_SITES still;
        for (const MEM_ADDRESS_TRACKER* site : sites_by_peak())
            if (is_reported(*site))
                write_row(line, *site);
    }
    timer.write_footer(stream);
    return true;
} catch (const std::bad_alloc&) {
    mem_fail_host_call();
}
