#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"

#include "vbx/mem/base/thread_state.h"

MEM_PB_STATS_TABLE::MEM_PB_STATS_TABLE() {
    make_room_for(0);
}

void MEM_PB_STATS_TABLE::make_room_for(std::uint32_t id) {
    if (m_entries.has_room_for(id))
        return;
    // On a host's thread nothing else keeps the event of this allocation off the table, under this very lock.
    const MEM_BLOCK_SCOPE own_heap_use;
    const MEM_SPIN_GUARD guard(grow_lock);
    m_entries.make_room_for(id);
}

void MEM_PB_STATS_TABLE::grow_to_hold(std::uint32_t id) {
    make_room_for(id);
    const MEM_SPIN_GUARD guard(grow_lock);
    if (m_size.load(std::memory_order_relaxed) <= id)
        m_size.store(std::size_t{id} + 1, std::memory_order_release);
}

template <class CHANGE>
void MEM_PB_STATS_TABLE::for_each(CHANGE change) {
    const std::size_t size = m_size.load(std::memory_order_acquire);
    for (std::size_t id = 0; id < size; ++id)
        change(at(static_cast<std::uint32_t>(id)));
}

void MEM_PB_STATS_TABLE::snapshot_peak() {
    const STILL still(*this);
    for_each([](MEM_PB_STATS& stats) { stats.peak_bytes.store(stats.current_bytes.load()); });
}

void MEM_PB_STATS_TABLE::save_peak() {
    const STILL still(*this);
    for_each([](MEM_PB_STATS& stats) { stats.saved_peak_bytes = stats.peak_bytes.load(); });
}

void MEM_PB_STATS_TABLE::restore_peak() {
    const STILL still(*this);
    for_each([](MEM_PB_STATS& stats) { stats.peak_bytes.store(stats.saved_peak_bytes); });
}

void MEM_PB_STATS_TABLE::clear() {
    const STILL still(*this);
    for_each([](MEM_PB_STATS& stats) { stats = MEM_PB_STATS{}; });
    m_size.store(0, std::memory_order_release);
}

std::size_t MEM_PB_STATS_TABLE::size() const {
    return m_size.load(std::memory_order_acquire);
}

// Whatever others do meanwhile, the entry stays where it is until the teardown, and its figures are atomic.
MEM_PB_FIGURES MEM_PB_STATS_TABLE::figures(std::uint32_t id) const {
    const MEM_PB_STATS* const stats = find(id);
    if (stats == nullptr)
        return {};
    return {stats->max_bytes.load(), stats->peak_bytes.load(), stats->cumulative_bytes.load(),
            stats->current_bytes.load()};
}
