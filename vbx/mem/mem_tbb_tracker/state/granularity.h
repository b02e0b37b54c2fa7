// The granularity mask of the process and whether the tracker has started.
#pragma once

#include "vbx/mem/base/spin_lock.h"

#include <vbx/mem/control.h>

#include <atomic>
#include <cstdint>

// Read without a lock, as one load a use: an event works with the copy that it took at its start.
inline constinit std::atomic<std::uint32_t> mem_tbb_granularity{0};

// Held over each change of the mask together with the adding or removing of the event handler.
inline constinit MEM_SPIN_LOCK mem_granularity_lock{MEM_LOCK_RANK::granularity};

// The features that need a stack, a site and an entry in the live-block map.
constexpr std::uint32_t MEM_ATTRIBUTED =
    MEM_GRANULARITY_PER_LIBRARY | MEM_GRANULARITY_PER_FILELINE | MEM_GRANULARITY_CHECK_LEAKS;
// The features that keep a record of each live block.
constexpr std::uint32_t MEM_KEEPS_BLOCKS = MEM_ATTRIBUTED | MEM_GRANULARITY_PER_BIN_DETAILED;
// The features that the total of tracked bytes and the threshold peak run for.
constexpr std::uint32_t MEM_FEATURES =
    MEM_GRANULARITY_PER_BIN_DETAILED | MEM_GRANULARITY_PER_LIBRARY | MEM_GRANULARITY_PER_FILELINE;
// The features whose counters stand in the site records.
constexpr std::uint32_t MEM_COUNTS_SITES = MEM_GRANULARITY_PER_FILELINE | MEM_GRANULARITY_CHECK_LEAKS;
// The features that the global statistics run for.
constexpr std::uint32_t MEM_COUNTS_GLOBALLY = MEM_GRANULARITY_PER_BIN | MEM_GRANULARITY_CHECK_LEAKS_FAST;

inline std::uint32_t mem_current_mask() {
    return mem_tbb_granularity.load(std::memory_order_relaxed);
}

// The started flag: set once, never cleared, also not by the teardown. Every attributed event looks at it, so
// it is one word that only changes once and not a lock for all threads to meet at.
bool mem_tbb_tracker_is_inited();
void mem_mark_tracker_started();

// Whether the objects of the tracker are there: from tracker start to teardown. An event that arrives outside
// does nothing. Teardown clears it while no event runs.
inline constinit std::atomic<bool> mem_tracker_objects_exist{false};

// For the child of a fork: the locks above may have been held by a thread that it doesn't have.
void mem_reset_state_locks();
