// The process-wide numbers that every event moves.
//
// They are constant-initialised and never destroyed: events before the library's start and after its end find
// them valid.
#pragma once

#include <vbx/mem/stats.h>

#include <atomic>
#include <cstdint>
#include <new>

// One tick for each event that passes the guard.
inline constinit std::atomic<std::uint64_t> mem_sample_counter{0};

// What the guard of the event handler turns away: the tracker's own heap use and blocked threads.
struct MEM_FALLBACK_COUNTERS {
    std::atomic<std::uint64_t> allocations{0};
    std::atomic<std::uint64_t> frees{0};
    std::atomic<std::uint64_t> requested_total{0};
    std::atomic<std::uint64_t> allocated_total{0};
    std::atomic<std::uint64_t> requested_outstanding{0};
    std::atomic<std::uint64_t> allocated_outstanding{0};
};
inline constinit MEM_FALLBACK_COUNTERS mem_fallback_counters;

// Room for an object whose type has a destructor that must never run. All-zero bytes stand for the object
// until it is constructed, which the types below (a number behind a virtual destructor) read correctly.
template <class T>
class MEM_IMMORTAL {
  public:
    void construct() { new (m_room) T; }
    T& get() { return *std::launder(reinterpret_cast<T*>(m_room)); }

  private:
    alignas(T) unsigned char m_room[sizeof(T)] = {};
};

struct MEM_EVENT_TOTALS {
    // Bytes allocated less bytes freed while the mask had one of MEM_FEATURES.
    KTL_RELAXED_ATOMIC<long long> tracked_total_bytes;
    // Index of the timeline line.
    KTL_RELAXED_ATOMIC<unsigned long long> timeline_index;
};

inline constinit MEM_IMMORTAL<MEM_STATS> mem_global_stats_room;
inline constinit MEM_IMMORTAL<MEM_EVENT_TOTALS> mem_event_totals_room;

inline MEM_STATS& mem_global_stats() {
    return mem_global_stats_room.get();
}
inline KTL_RELAXED_ATOMIC<long long>& mem_tracked_total_bytes() {
    return mem_event_totals_room.get().tracked_total_bytes;
}
inline KTL_RELAXED_ATOMIC<unsigned long long>& mem_timeline_index() {
    return mem_event_totals_room.get().timeline_index;
}
