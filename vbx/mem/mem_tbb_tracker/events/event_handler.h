// The hot path: what every allocation and free does to the tracker.
#pragma once

#include <cstdint>

// An event callback of the table. Works out from the mask what the event has to touch and touches it in a
// fixed order. Lets no exception out. Events that the tracker causes itself, and those of blocked threads,
// only move the fallback counters; events before the tracker's start and after its teardown do nothing.
void mem_tbb_event_handler(void* block, std::uint64_t requested_size, std::uint64_t allocated_size,
                           bool is_allocation);

// The shim's notice of a free, some hundred instructions before its event. Safe whenever events are: what
// prefetches a record looks for it in memory that lives as long as the tracker's objects.
void mem_tbb_on_free_notice(const void* block) noexcept;
