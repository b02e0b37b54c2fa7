// The walk from a captured stack to the site that is charged.
#pragma once

#include "vbx/mem/mem_tbb_tracker/records/site_table.h"

#include <cstdint>

class ERR_UNWINDER;

// Frames of the usual capture, and of the one made when none of those may be charged. Both count from the
// first frame behind the allocator; the second goes on where the first stopped.
constexpr std::int32_t MEM_CAPTURE_FRAMES = 11;
constexpr std::int32_t MEM_DEEP_CAPTURE_FRAMES = 50;

// Not owned; set at tracker start.
inline constinit ERR_UNWINDER* mem_tbb_unwinder = nullptr;

// Whether a frame without line information may be charged, under the file name "Unknown".
void mem_accept_incomplete_fileline_info();

// Frames of a stack, innermost first. Captured before any lock is taken.
struct MEM_CAPTURED_STACK {
    std::uint64_t frames[MEM_DEEP_CAPTURE_FRAMES];
    std::int32_t count;
    std::int32_t capacity;
};
MEM_CAPTURED_STACK mem_capture_stack();
MEM_CAPTURED_STACK mem_capture_deeper_stack();

// Whether more frames may lie behind these, and whether they would be looked at.
bool mem_stack_goes_on(const MEM_CAPTURED_STACK& stack);

// The record to charge: that of the first frame which the filter accepts, else the catch-all. Gives the site
// lock up while it describes an address that the table doesn't know, so that no event waits for the lock
// during a symbol query. frames are return addresses, innermost first; a count of 0 or less means none.
// Throws std::bad_alloc, with the lock held.
MEM_SITE& mem_attribute_stack(const std::uint64_t* frames, std::int32_t count) MEM_REQUIRES(mem_site_lock);
