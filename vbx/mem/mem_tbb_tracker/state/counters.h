// The process-wide numbers that every event moves.
//
// They are constant-initialised and never destroyed: events before the library's start and after its end find
// them valid.
#pragma once

#include "vbx/mem/base/cache_line.h"

#include <vbx/mem/stats.h>

#include <atomic>
#include <cstdint>

// What the guard of the event handler turns away: the tracker's own heap use and blocked threads.
struct alignas(MEM_CACHE_LINE) MEM_FALLBACK_COUNTERS {
    std::atomic<std::uint64_t> allocations{0};
    std::atomic<std::uint64_t> frees{0};
    std::atomic<std::uint64_t> requested_total{0};
    std::atomic<std::uint64_t> allocated_total{0};
    std::atomic<std::uint64_t> requested_outstanding{0};
    std::atomic<std::uint64_t> allocated_outstanding{0};
};
inline constinit MEM_FALLBACK_COUNTERS mem_fallback_counters;

// Keeps an object whose type has a destructor from being destroyed: events come behind all destructors of the
// process, and the destructor that the exit runs here does nothing. The object is constant-initialised: it is
// there before any code of the library has run.
template <class T>
union alignas(MEM_CACHE_LINE) MEM_IMMORTAL {
    T object;
    constexpr MEM_IMMORTAL() : object() {}
    ~MEM_IMMORTAL() {}
};

// On one cache line: a free moves the first two right one after the other, and has to get the line from the
// other threads once.
struct MEM_EVENT_TOTALS {
    // One tick for each event that passes the guard.
    std::atomic<std::uint64_t> sample_counter{0};
    // Bytes allocated less bytes freed while the mask had one of MEM_FEATURES.
    KTL_RELAXED_ATOMIC<long long> tracked_total_bytes;
    // Index of the timeline line.
    KTL_RELAXED_ATOMIC<unsigned long long> timeline_index;
};

extern constinit MEM_IMMORTAL<MEM_STATS> mem_immortal_global_stats;
extern constinit MEM_IMMORTAL<MEM_EVENT_TOTALS> mem_immortal_event_totals;

inline MEM_STATS& mem_global_stats() {
    return mem_immortal_global_stats.object;
}
inline std::atomic<std::uint64_t>& mem_sample_counter() {
    return mem_immortal_event_totals.object.sample_counter;
}
inline KTL_RELAXED_ATOMIC<long long>& mem_tracked_total_bytes() {
    return mem_immortal_event_totals.object.tracked_total_bytes;
}
inline KTL_RELAXED_ATOMIC<unsigned long long>& mem_timeline_index() {
    return mem_immortal_event_totals.object.timeline_index;
}
