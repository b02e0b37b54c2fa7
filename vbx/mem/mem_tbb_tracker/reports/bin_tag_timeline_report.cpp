// The rows of the bin-tag timeline, named by the bin that was current.

#include "vbx/mem/base/long_operation.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/mem_tbb_tracker/reports/bin_row_labels.h"
#include "vbx/mem/mem_tbb_tracker/state/tracker_use.h"
#include "vbx/mem/mem_tbb_tracker/timelines/bin_tag_timeline.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/profile_bins.h"
#include "vbx/mem/out_of_memory/host_call.h"
#include "vbx/platform/os/write.h"

#include <vbx/mem/timelines.h>

#include <unistd.h>

#include <limits>

namespace {

// "Other" for the id that stands for all bins above it, as soon as there are such bins.
std::string name_of_stored(PB_ID id) {
    constexpr PB_ID LAST = std::numeric_limits<PB_ID>::max();
    const MEM_PB_TABLE& bins = MEM_PROFILE_BINS::get_instance().m_bins();
    return id == LAST && bins.size() > std::size_t{LAST} + 1 ? "Other" : bins.name_of(id);
}

} // namespace

MEM_BIN_ROW_LABELS::MEM_BIN_ROW_LABELS(const MEM_RUNS<PB_ID>& bins) : m_cursor(bins.runs) {
    look_up();
}

std::string_view MEM_BIN_ROW_LABELS::current() {
    return m_run != nullptr ? std::string_view(m_name) : "BinIterError";
}

void MEM_BIN_ROW_LABELS::advance() {
    if (m_run == nullptr) {
        // Not through the streams of the host, which may have closed or oriented them.
        constexpr std::string_view TEXT = "Mem tracking bin label iter past the end!";
        os_write(STDERR_FILENO, TEXT.data(), TEXT.size());
        return;
    }
    m_cursor.advance();
    if (m_cursor.run() != m_run)
        look_up();
}

void MEM_BIN_ROW_LABELS::look_up() {
    m_run = m_cursor.run();
    if (m_run != nullptr)
        m_name = name_of_stored(m_run->value);
}

bool MEM_BIN_TAG_TIMELINE::dump(std::ostream& plain, std::ostream& detailed) {
    const MEM_TIMELINE_GUARD guard(section);
    const MEM_PB_TABLE& tags = MEM_PROFILE_BINS::get_instance().m_tags();
    std::vector<MEM_TIMELINE_COLUMN> columns;
    columns.reserve(m_tag_series.size());
    for (const MEM_SERIES& series : m_tag_series)
        columns.push_back({tags.name_of(static_cast<std::uint32_t>(columns.size())), &series});
    MEM_BIN_ROW_LABELS row_labels(m_bins);
    return mem_write_timeline(plain, detailed, columns, m_sample_count, row_labels);
}

bool mem_dump_tbb_profile_bin_tag_timeline_tracking(std::ostream& plain, std::ostream& detailed) try {
    const MEM_LONG_OPERATION operation;
    const MEM_TRACKER_USE use;
    if (!use)
        return true;
    const MEM_BLOCK_SCOPE own_heap_use;
    mem_bin_tag_timeline->dump(plain, detailed);
    return true;
} catch (const std::bad_alloc&) {
    mem_fail_host_call();
}
