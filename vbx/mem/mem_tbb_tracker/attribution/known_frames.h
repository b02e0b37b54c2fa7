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

#include <cstdint>

struct MEM_KNOWN_SITE {
    MEM_SITE* site = nullptr; // null: unknown
    std::uint64_t table_generation = 0;
};

// The record that attribution would charge for the calling thread's stack, the catch-all included. Before the
// gate, with nothing held: the walk can wait for a thread that is in the middle of an event (see the
// unwinder).
MEM_KNOWN_SITE mem_find_known_site();

// Whether the record is still there. Inside the gate.
bool mem_is_still_known(const MEM_KNOWN_SITE& known);

// Takes a verdict over from the table. Inside the gate.
void mem_remember_frame(MEM_SITE& frame) MEM_REQUIRES(mem_site_lock);

// When the table has been emptied: only for a cat of the gate.
void mem_forget_known_frames();
