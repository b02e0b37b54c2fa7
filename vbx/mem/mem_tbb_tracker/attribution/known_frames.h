// What the site table says of the frames that it knows, for looking without the site lock.
//
//     0x7f..9a07   filtered     the next frame is asked
//     0x55..4f21   its record   charged
//
// The usual event finds its site here, and walks its stack no further than to the frame that is charged. A
// frame that isn't known ends the search: attribution then captures the stack and looks it up in the table.
// Entries of the table never change their verdict, so nothing here grows old before the table is emptied.
#pragma once

#include "vbx/mem/mem_tbb_tracker/records/site_table.h"
#include "vbx/platform/os/address_cache.h"
#include "vbx/platform/vbx_err/vbx_err.h"

#include <atomic>
#include <cstdint>

struct MEM_KNOWN_SITE {
    MEM_SITE* site = nullptr; // null: unknown
    std::uint64_t table_generation = 0;
};

// Of a filtered frame 0, of any other the place of its record. For this file and its source alone.
inline constinit OS_ADDRESS_CACHE mem_frame_verdicts;
inline constinit std::atomic<std::uint64_t> mem_table_generation{0};
MEM_KNOWN_SITE mem_find_known_site_by_walk(MEM_SITE& catch_all, std::uint64_t generation);

// The record that attribution would charge for the calling thread's stack, the catch-all included. Before the
// gate, with nothing held: the walk can wait for a thread that is in the middle of an event (see the
// unwinder).
[[gnu::always_inline]] inline MEM_KNOWN_SITE mem_find_known_site() {
    // In front of all that is looked up: what is found then belongs to this generation or to an older one.
    const std::uint64_t generation = mem_table_generation.load(std::memory_order_acquire);
    // Where the catch-all is missing, behind a reset, the length of a stack decides whether it is made, and
    // its row in a report shows that: each stack is captured until it is there again.
    MEM_SITE* const catch_all = mem_known_catch_all.load(std::memory_order_acquire);
    if (catch_all == nullptr) [[unlikely]]
        return {};
    // Most often it is the caller of malloc itself that is charged, and there is nothing to walk. (Outside of
    // the allocator there is no caller: for 0 the memory has nothing or 0.)
    std::uint64_t verdict = 0;
    if (mem_frame_verdicts.find(err_caller_of_allocator(), verdict) && verdict != 0) [[likely]]
        return {reinterpret_cast<MEM_SITE*>(verdict), generation};
    return mem_find_known_site_by_walk(*catch_all, generation);
}

// Whether the record is still there. Inside the gate.
inline bool mem_is_still_known(const MEM_KNOWN_SITE& known) {
    return known.table_generation == mem_table_generation.load(std::memory_order_relaxed);
}

// Takes a verdict over from the table. Inside the gate.
void mem_remember_frame(MEM_SITE& frame) MEM_REQUIRES(mem_site_lock);

// When the table has been emptied: only for a cat of the gate.
void mem_forget_known_frames();
