// The process-wide numbers that every event moves.
//
// They are constant-initialised and never destroyed: events before the library's start and after its end find
// them valid.
#pragma once

#include "vbx/mem/base/cache_line.h"
#include "vbx/mem/base/shared_counter.h"

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

extern constinit MEM_IMMORTAL<MEM_STATS> mem_immortal_global_stats;
// Index of the timeline line.
extern constinit MEM_IMMORTAL<KTL_RELAXED_ATOMIC<unsigned long long>> mem_immortal_timeline_index;

inline MEM_STATS& mem_global_stats() {
    return mem_immortal_global_stats.object;
}
inline KTL_RELAXED_ATOMIC<unsigned long long>& mem_timeline_index() {
    return mem_immortal_timeline_index.object;
}

// The peaks are raised to what this block's own addition gave. A second read of `current` could already miss
// the block, if another thread has freed something in between, and the peak would be short of a level that
// was really reached.
[[gnu::always_inline]] inline void MEM_STATS::add_block(std::uint64_t size) {
    mem_move_counters([this, size](auto steps) {
        const long long bytes = steps.add(current.bytes, static_cast<long long>(size));
        const long long blocks = steps.add(current.blocks, 1);
        steps.raise(peak.bytes, bytes);
        steps.raise(peak.blocks, blocks);
        steps.raise(local_peak.bytes, bytes);
        steps.raise(local_peak.blocks, blocks);
    });
}

[[gnu::always_inline]] inline void MEM_STATS::remove_block(std::uint64_t size) {
    mem_move_counters([this, size](auto steps) {
        steps.add(current.bytes, -static_cast<long long>(size));
        steps.add(current.blocks, -1);
    });
}
