#include "vbx/mem/mem_tbb_tracker/timelines/module_timeline.h"

#include <algorithm>

namespace {
// Not the C library's tolower: it follows the host's locale, and with that the order of the map would change
// under its entries.
char lowered(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}
} // namespace

bool MEM_CASE_BLIND_LESS::operator()(std::string_view a, std::string_view b) const {
    return std::ranges::lexicographical_compare(a, b, {}, lowered, lowered);
}

// Finds the series, or makes it, and makes its room: all that can fail.
void MEM_MODULE_TIMELINE::collect(SERIES_BY_MODULE& map, const std::string& module, std::int64_t value) {
    auto found = map.find(module);
    if (found == map.end()) {
        MEM_SERIES series;
        series.append_zeros(sample_count);
        found = map.emplace(module, std::move(series)).first;
    }
    found->second.make_room();
    m_figures.push_back({&found->second, value});
}

void MEM_MODULE_TIMELINE::take_sample() {
    const MEM_TIMELINE_GUARD guard(section);
    m_figures.clear();
    {
        const MEM_SPIN_GUARD module_guard(mem_module_lock);
        // The section is held here, which the analysis can't see from inside the walk.
        m_modules.for_each([this](const std::string& name, const MEMORY_TRACKER_BASE& record)
                               MEM_NO_THREAD_SAFETY_ANALYSIS {
                                   collect(bytes_series, name, record.current_bytes);
                                   collect(cumulative_blocks_series, name, record.cumulative_blocks);
                               });
    }
    for (const FIGURE& figure : m_figures)
        figure.series->append(figure.value);
    ++sample_count;
}

std::optional<std::int64_t> MEM_MODULE_TIMELINE::highest_bytes(std::string_view module) const {
    const auto found = bytes_series.find(module);
    if (found == bytes_series.end() || found->second.runs.empty())
        return std::nullopt;
    return found->second.max();
}
