#include "vbx/platform/debug_symbols/interval_index.h"

#include <algorithm>

void SYM_INTERVAL_INDEX::add(std::uint64_t start, std::uint64_t end, std::uint32_t payload) {
    if (start < end) {
        m_intervals.push_back({start, end, payload, none});
    }
}

void SYM_INTERVAL_INDEX::seal() {
    // Of two ranges with one start the longer comes first, so that it encloses the other.
    std::stable_sort(m_intervals.begin(), m_intervals.end(), [](const INTERVAL& left, const INTERVAL& right) {
        return left.start != right.start ? left.start < right.start : left.end > right.end;
    });
    std::uint32_t top = none;
    for (std::uint32_t index = 0; index < m_intervals.size(); ++index) {
        while (top != none && m_intervals[top].end <= m_intervals[index].start) {
            top = m_intervals[top].outer;
        }
        m_intervals[index].outer = top;
        top = index;
    }
    m_intervals.shrink_to_fit();
}

const SYM_INTERVAL_INDEX::INTERVAL* SYM_INTERVAL_INDEX::find(std::uint64_t address) const {
    const auto after = std::upper_bound(
        m_intervals.begin(), m_intervals.end(), address,
        [](std::uint64_t value, const INTERVAL& interval) { return value < interval.start; });
    if (after == m_intervals.begin()) {
        return nullptr;
    }
    const INTERVAL* interval = &*(after - 1);
    while (interval->end <= address) {
        if (interval->outer == none) {
            return nullptr;
        }
        interval = &m_intervals[interval->outer];
    }
    return interval;
}
