// Room for the reports of a process that has run out of memory: they are wanted most then.
//
// Held from the tracker's start. When the reports are written, each failing allocation of theirs gets a piece
// and tries again. Given back at once, all of it would go to the threads that are still busy running out.
#pragma once

#include <cstddef>

void mem_hold_report_room();

// From here on the room is given back: by pieces where failing allocations lead to mem_out_of_memory, all of
// it at once where they are the program's own affair.
void mem_open_report_room();

// Whether there was a piece for an allocation that failed inside the library.
bool mem_give_report_room(std::size_t failed_bytes);
