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

void MEM_PB_STATS_TABLE::wait_for_shared() {
    // Like the gate's, this wait yields: nobody can see it, and who is waited for may need the processor.
    OS_PATIENCE patience;
    do {
        patience.wait();
    } while (!try_enter_shared());
}

void MEM_PB_STATS_TABLE::enter_exclusive() MEM_NO_THREAD_SAFETY_ANALYSIS {
    mem_rank_acquire(MEM_LOCK_RANK::leaf);
    // Up for the whole wait: threads that charge without pause would leave no moment in which nobody is
    // inside.
    waiters.fetch_add(1, std::memory_order_relaxed);
    OS_PATIENCE patience;
    while (users.fetch_add(ONE_HOLDER, std::memory_order_acquire) != 0) {
        users.fetch_sub(ONE_HOLDER, std::memory_order_relaxed);
        patience.wait();
    }
    waiters.fetch_sub(1, std::memory_order_relaxed);
}

void MEM_PB_STATS_TABLE::leave_exclusive() MEM_NO_THREAD_SAFETY_ANALYSIS {
    users.fetch_sub(ONE_HOLDER, std::memory_order_release);
    mem_rank_release(MEM_LOCK_RANK::leaf);
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

// The scope holds the table, which the analysis can't see from in here.
std::int64_t MEM_PB_STATS_TABLE::STILL::current_bytes(std::uint32_t id) const MEM_NO_THREAD_SAFETY_ANALYSIS {
    return m_table.at(id).current_bytes.load();
}

// Whatever others do meanwhile, the entry stays where it is until the teardown, and its figures are atomic.
MEM_PB_FIGURES MEM_PB_STATS_TABLE::figures(std::uint32_t id) const MEM_NO_THREAD_SAFETY_ANALYSIS {
    const MEM_PB_STATS* const stats = find(id);
    if (stats == nullptr)
        return {};
    return {stats->max_bytes.load(), stats->peak_bytes.load(), stats->cumulative_bytes.load(),
            stats->current_bytes.load()};
}

void MEM_PB_STATS_TABLE::reset_modes() {
    users.store(0, std::memory_order_relaxed);
    waiters.store(0, std::memory_order_relaxed);
    grow_lock.reset();
}
