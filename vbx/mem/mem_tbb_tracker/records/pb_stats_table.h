// The byte figures of every profile bin or tag, indexed by id.
//
// Events charge the tables in shared mode, many at once; a peak copy needs one still and takes the exclusive
// mode. That is a gate with mice and cats, one for both tables: an event charges both in one visit.
#pragma once

#include "vbx/mem/base/cache_line.h"
#include "vbx/mem/base/shared_counter.h"
#include "vbx/mem/base/spin_lock.h"
#include "vbx/mem/base/stable_array.h"
#include "vbx/mem/base/tracker_gate.h"

#include <vbx/mem/stats.h>

#include <atomic>
#include <cstdint>

// What a charge moves lies on one cache line, which is no other entry's.
struct alignas(MEM_CACHE_LINE) MEM_PB_STATS {
    KTL_RELAXED_ATOMIC<long long> current_bytes;    // charged and still live
    KTL_RELAXED_ATOMIC<long long> max_bytes;        // highest current_bytes at a charge
    KTL_RELAXED_ATOMIC<long long> cumulative_bytes; // ever charged
    KTL_RELAXED_ATOMIC<long long> peak_bytes;       // current_bytes at the last recorded threshold peak
    std::int64_t saved_peak_bytes = 0;              // peak_bytes at the last flush that found a new peak
};

// A copy for reports.
struct MEM_PB_FIGURES {
    std::int64_t max_bytes = 0;
    std::int64_t peak_bytes = 0;
    std::int64_t cumulative_bytes = 0;
    std::int64_t current_bytes = 0;
};

inline constinit MEM_TRACKER_GATE mem_pb_stats_gate{MEM_VISITED::bin_and_tag_tables, MEM_LOCK_RANK::leaf};

class MEM_PB_STATS_TABLE {
  public:
    // Has room for id 0 from the start. Throws std::bad_alloc.
    MEM_PB_STATS_TABLE();
    MEM_PB_STATS_TABLE(const MEM_PB_STATS_TABLE&) = delete;
    MEM_PB_STATS_TABLE& operator=(const MEM_PB_STATS_TABLE&) = delete;

    bool has_room_for(std::uint32_t id) const { return m_entries.has_room_for(id); }
    // Room for an id, which the size does not tell yet: from here on charging it never fails. The memory is
    // the tracker's own, on whatever thread. Throws std::bad_alloc.
    void make_room_for(std::uint32_t id);
    // Charges an id; the table grows to hold it. Throws std::bad_alloc, with nothing charged, when there is
    // no room yet and can't be made.
    void add(std::uint32_t id, std::uint64_t size) MEM_REQUIRES_SHARED(mem_pb_stats_gate);
    // Credits an id. One that the table doesn't hold was taken out by a reset while blocks of it were live;
    // there is nothing left to subtract from then, and nothing happens.
    void subtract(std::uint32_t id, std::uint64_t size) MEM_REQUIRES_SHARED(mem_pb_stats_gate);

    // In exclusive mode, as is the clearing.
    void snapshot_peak(); // peak = current
    void save_peak();     // saved peak = peak
    void restore_peak();  // peak = saved peak

    // Empties the table; the room stays. A charge in flight on another thread is wholly before it or wholly
    // behind it.
    void clear();

    std::size_t size() const;
    // The four figures that reports show, as they stand; all 0 for an id that the table doesn't hold. Takes
    // no mode and holds up no event: each figure is read by itself, while others may be charging, growing or
    // emptying the table.
    MEM_PB_FIGURES figures(std::uint32_t id) const;

    // In a forked child: nobody holds it, whoever did.
    void reset_lock() { grow_lock.reset(); }

    // The table held still for as long as it lives: charges wait, none is half done.
    class STILL;

  private:
    // Of an id that the table holds.
    MEM_PB_STATS& at(std::uint32_t id) const { return m_entries[id]; }
    // Null when it doesn't.
    MEM_PB_STATS* find(std::uint32_t id) const {
        return id < m_size.load(std::memory_order_acquire) ? &at(id) : nullptr;
    }
    void grow_to_hold(std::uint32_t id);
    template <class CHANGE>
    void for_each(CHANGE change);

    // Entries never move, so that shared users can index while another one grows the table.
    MEM_STABLE_ARRAY<MEM_PB_STATS> m_entries;
    // Highest id charged since the last clear, plus one.
    std::atomic<std::size_t> m_size{0};
    MEM_SPIN_LOCK grow_lock{MEM_LOCK_RANK::innermost};
};

[[gnu::always_inline]] inline void MEM_PB_STATS_TABLE::add(std::uint32_t id, std::uint64_t size) {
    MEM_PB_STATS* stats = find(id);
    if (stats == nullptr) [[unlikely]] {
        grow_to_hold(id);
        stats = &at(id);
    }
    const auto bytes = static_cast<long long>(size);
    mem_move_counters([stats, bytes](auto steps) {
        steps.raise(stats->max_bytes, steps.add(stats->current_bytes, bytes));
        steps.add(stats->cumulative_bytes, bytes);
    });
}

[[gnu::always_inline]] inline void MEM_PB_STATS_TABLE::subtract(std::uint32_t id, std::uint64_t size) {
    if (MEM_PB_STATS* const stats = find(id))
        mem_move_counters(
            [stats, size](auto steps) { steps.add(stats->current_bytes, -static_cast<long long>(size)); });
}

class MEM_SCOPED_CAPABILITY MEM_PB_STATS_TABLE::STILL {
  public:
    explicit STILL(MEM_PB_STATS_TABLE& table) MEM_ACQUIRE(mem_pb_stats_gate) : m_table(table) {
        mem_pb_stats_gate.enter(MEM_GATE_ROLE::cat);
    }
    ~STILL() MEM_RELEASE() { mem_pb_stats_gate.leave(MEM_GATE_ROLE::cat); }
    STILL(const STILL&) = delete;
    STILL& operator=(const STILL&) = delete;

    // Highest id charged plus one.
    std::size_t size() const { return m_table.m_size.load(std::memory_order_relaxed); }
    // Of an id below that.
    std::int64_t current_bytes(std::uint32_t id) const { return m_table.at(id).current_bytes.load(); }

  private:
    MEM_PB_STATS_TABLE& m_table;
};

// From tracker start to teardown.
inline constinit MEM_PB_STATS_TABLE* pbin_stats = nullptr;
inline constinit MEM_PB_STATS_TABLE* ptag_stats = nullptr;
