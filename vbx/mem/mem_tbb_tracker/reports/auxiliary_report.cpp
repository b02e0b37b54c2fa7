// The log of the auxiliary timeline: one line a sample, in the order of taking.

#include "vbx/mem/mem_tbb_tracker/reports/report_files.h"
#include "vbx/mem/mem_tbb_tracker/reports/report_text.h"
#include "vbx/mem/mem_tbb_tracker/state/executable_tag.h"
#include "vbx/mem/mem_tbb_tracker/timelines/auxiliary_timeline.h"

namespace {

// Unsigned throughout. More frees than allocations, which is usual where the tracker frees what was allocated
// before, come out as very large numbers.
void write_row(MEM_REPORT_LINE& line, const MEM_AUXILIARY_SAMPLE& sample) {
    line.unsigned_number(sample.page_faults);
    for (const std::uint64_t figure :
         {sample.commit_charge, sample.resident, sample.num_allocs, sample.num_deallocs,
          sample.num_allocs - sample.num_deallocs, sample.requested_total, sample.requested_outstanding,
          sample.allocated_total, sample.allocated_outstanding})
        line.tab().unsigned_number(figure);
    line.end();
}

} // namespace

void MEM_AUXILIARY_TIMELINE::dump() {
    const std::string name = mem_report_file_name("mem_tbb_auxiliary_timeline.");
    const MEM_SPIN_GUARD guard(m_lock);
    MEM_REPORT_FILE stream = mem_open_report(name);
    if (!stream)
        return;
    // Opening the file doesn't count.
    const MEM_REPORT_TIMER timer;
    MEM_REPORT_LINE line(stream);
    line.text("MEM: TBB Auxiliary Timeline").end();
    line.end();
    line.text("page_faults\tcommit_charge\tresident\tprofiler_num_allocs\tprofiler_num_deallocs\t"
              "profiler_num_outstanding\tprofiler_requested_total\tprofiler_requested_outstanding\t"
              "profiler_allocated_total\tprofiler_allocated_outstanding")
        .end();
    for (const MEM_AUXILIARY_SAMPLE& sample : m_samples)
        write_row(line, sample);
    timer.write_timeline_footer({&stream});
}
