#include "vbx/mem/mem_tbb_tracker/reports/timeline_files.h"

#include "vbx/mem/mem_tbb_tracker/reports/attempt_report.h"
#include "vbx/mem/mem_tbb_tracker/reports/pb_stats_report.h"
#include "vbx/mem/mem_tbb_tracker/reports/report_files.h"
#include "vbx/mem/mem_tbb_tracker/state/executable_tag.h"
#include "vbx/mem/mem_tbb_tracker/state/switches.h"
#include "vbx/mem/mem_tbb_tracker/timelines/auxiliary_timeline.h"
#include "vbx/mem/mem_tbb_tracker/timelines/bin_tag_timeline.h"
#include "vbx/mem/mem_tbb_tracker/timelines/label_timeline.h"
#include "vbx/mem/mem_tbb_tracker/timelines/module_timeline.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/profile_bins.h"

#include <boost/iostreams/device/null.hpp>
#include <boost/iostreams/stream.hpp>
#include <locale>

namespace {

using SERIES_BY_MODULE = MEM_MODULE_TIMELINE::SERIES_BY_MODULE;

MEM_REPORT_FILE open_log(const char* prefix) {
    return mem_open_report(mem_report_file_name(prefix));
}

// Both timelines' last rows get it.
void sample_last_label() {
    const MEM_SPIN_GUARD guard(mem_label_timeline->lock);
    mem_label_timeline->take_sample();
}

void write_auxiliary_timeline() {
    mem_auxiliary_timeline->take_sample();
    mem_auxiliary_timeline->dump();
}

void dump_module_timeline(const SERIES_BY_MODULE MEM_MODULE_TIMELINE::*selection, std::ostream& plain,
                          std::ostream& detailed) {
    MEM_MODULE_TIMELINE& timeline = *mem_module_timeline;
    const MEM_TIMELINE_GUARD section(timeline.section);
    const MEM_SPIN_GUARD labels(mem_label_timeline->lock);
    timeline.dump(timeline.*selection, *mem_label_timeline, plain, detailed);
}

void write_module_timelines() {
    mem_module_timeline->take_sample();
    MEM_REPORT_FILE plain = open_log("mem_tbb_timeline.");
    MEM_REPORT_FILE detailed = open_log("mem_tbb_timeline_detailed.");
    dump_module_timeline(&MEM_MODULE_TIMELINE::bytes_series, plain, detailed);
    MEM_REPORT_FILE plain_blocks = open_log("mem_tbb_cumulative_blocks_timeline.");
    MEM_REPORT_FILE detailed_blocks = open_log("mem_tbb_cumulative_blocks_timeline_detailed.");
    dump_module_timeline(&MEM_MODULE_TIMELINE::cumulative_blocks_series, plain_blocks, detailed_blocks);
}

void write_bin_tag_timeline_and_statistics() {
    mem_bin_tag_timeline->take_sample();
    // The plain form has no file: a handful of tags is all that a process has.
    boost::iostreams::stream<boost::iostreams::basic_null_sink<char>> discarded{
        boost::iostreams::basic_null_sink<char>()};
    // A host's own facets may be behind their end.
    discarded.imbue(std::locale::classic());
    MEM_REPORT_FILE detailed = open_log("mem_tbb_pbin_tag_timeline_detailed.");
    MEM_REPORT_FILE tag_stats = open_log("mem_tbb_pbin_tag_stats.");
    MEM_REPORT_FILE tag_stats_mib = open_log("mem_tbb_pbin_tag_stats_mb.");
    MEM_REPORT_FILE bin_stats = open_log("mem_tbb_pbin_stats.");
    MEM_REPORT_FILE bin_stats_mib = open_log("mem_tbb_pbin_stats_mb.");
    mem_bin_tag_timeline->dump(discarded, detailed);
    MEM_PROFILE_BINS& names = MEM_PROFILE_BINS::get_instance();
    mem_dump_pb_stats(*ptag_stats, tag_stats, "Memory Tracking - Profile Tag Stats", names.m_tags());
    mem_dump_pb_stats_mib(*ptag_stats, tag_stats_mib, "Memory Tracking - Profile Tag Stats (MiB)",
                          names.m_tags());
    mem_dump_pb_stats(*pbin_stats, bin_stats, "Memory Tracking - Profile Bin Stats", names.m_bins());
    mem_dump_pb_stats_mib(*pbin_stats, bin_stats_mib, "Memory Tracking - Profile Bin Stats (MiB)",
                          names.m_bins());
}

} // namespace

void mem_write_timeline_reports() {
    if (mem_report_flags.library || mem_report_flags.bin_tag)
        mem_attempt_report("the last timeline label is", sample_last_label);
    if (mem_report_flags.auxiliary)
        mem_attempt_report("the auxiliary timeline is", write_auxiliary_timeline);
    if (mem_report_flags.library)
        mem_attempt_report("the module timelines are", write_module_timelines);
    if (mem_report_flags.bin_tag)
        mem_attempt_report("the reports of bins and tags are", write_bin_tag_timeline_and_statistics);
}
