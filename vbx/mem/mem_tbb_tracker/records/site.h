// The record of an allocation site, with a lock of its own: threads that allocate at different sites don't
// meet.
#pragma once

#include "vbx/mem/base/spin_lock.h"

#include <vbx/mem/trackers.h>

#include <algorithm>
#include <atomic>
#include <cstdint>

// The lock guards the counters, and comes with the cache line that a free needs of them. What a record says
// of its place never changes, and module_tracker is written under the module lock.
struct MEM_CAPABILITY("site") MEM_SITE : MEM_SPIN_LOCK, MEM_ADDRESS_TRACKER {
    MEM_SITE() : MEM_SPIN_LOCK(MEM_LOCK_RANK::leaf) {}
    explicit MEM_SITE(const MEM_ADDRESS_TRACKER& record)
        : MEM_SPIN_LOCK(MEM_LOCK_RANK::leaf), MEM_ADDRESS_TRACKER(record) {}
};

// The four counters and three maxima that one block moves, the same for sites and modules. Under the record's
// lock, like the two below.
inline void mem_charge(MEMORY_TRACKER_BASE& tracker, std::uint64_t size, std::uint64_t requested_size) {
    const auto bytes = static_cast<std::int64_t>(size);
    tracker.current_blocks += 1;
    tracker.cumulative_blocks += 1;
    tracker.max_blocks = std::max(tracker.max_blocks, tracker.current_blocks);
    tracker.current_bytes += bytes;
    tracker.cumulative_bytes += bytes;
    tracker.cumulative_requested_bytes += static_cast<std::int64_t>(requested_size);
    tracker.max_bytes = std::max(tracker.max_bytes, tracker.current_bytes);
}

inline void mem_credit(MEMORY_TRACKER_BASE& tracker, std::uint64_t size) {
    tracker.current_blocks -= 1;
    tracker.current_bytes -= static_cast<std::int64_t>(size);
}

// Takes back a charge of a moment ago; the maxima stay.
void mem_undo_charge(MEMORY_TRACKER_BASE& tracker, std::uint64_t size, std::uint64_t requested_size);

// Copies a record out, with its lock held: all fields are of one moment, but for module_tracker, which other
// threads set under another lock.
void mem_copy_site(MEM_ADDRESS_TRACKER& to, MEM_ADDRESS_TRACKER& from);

// module_tracker is one machine word, null or a valid record.
inline MEMORY_TRACKER_BASE* mem_load_module_tracker(MEM_ADDRESS_TRACKER& site) {
    return std::atomic_ref(site.module_tracker).load(std::memory_order_acquire);
}
inline void mem_store_module_tracker(MEM_ADDRESS_TRACKER& site, MEMORY_TRACKER_BASE* module_record) {
    std::atomic_ref(site.module_tracker).store(module_record, std::memory_order_release);
}
