#include "vbx/mem/mem_tbb_tracker/timelines/bin_tag_timeline.h"

#include "vbx/mem/base/check.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/profile_bins.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace {
PB_ID stored_id(std::uint32_t id) {
    return static_cast<PB_ID>(std::min<std::uint32_t>(id, std::numeric_limits<PB_ID>::max()));
}
} // namespace

void MEM_BIN_TAG_TIMELINE::take_sample() {
    const MEM_TIMELINE_GUARD guard(section);
    const MEM_PB_STATS_TABLE::STILL tags(m_tags);
    const PB_ID current_bin = stored_id(MEM_PROFILE_BINS::get_instance().m_bins().get_curr_id());
    const std::size_t old_num_tags = m_tag_series.size();
    const std::size_t new_num_tags = tags.size();
    MEM_CHECK(new_num_tags >= old_num_tags);

    // All that can fail comes first. A series that is made here and then not sampled is as good as any.
    for (std::size_t id = old_num_tags; id < new_num_tags; ++id) {
        MEM_SERIES series;
        series.append_zeros(m_sample_count);
        m_tag_series.push_back(std::move(series));
    }
    for (MEM_SERIES& series : m_tag_series)
        series.make_room();
    m_bins.append(current_bin);

    for (std::size_t id = 0; id < new_num_tags; ++id)
        m_tag_series[id].append(tags.current_bytes(static_cast<std::uint32_t>(id)));
    ++m_sample_count;
}

void MEM_BIN_TAG_TIMELINE::clear_tags() {
    const MEM_TIMELINE_GUARD guard(section);
    m_tags.clear();
    m_tag_series.clear();
    m_sample_count = 0;
}
