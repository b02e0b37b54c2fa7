// The double-free check: ends the process at the second free of a block.
//
//     free A           A -> freed
//     malloc gives A   A -> in use
//     free A           A -> freed
//     free A           "Double free detected"
//
// A mark for every address that was ever freed; none is removed. Marks count from the time when the check
// last began to see every event. While the hook is off at the shutdown it does not: the check pauses then,
// and would otherwise take a block for freed that was allocated unseen, once a host has put the hook on
// again.
#pragma once

#include <cstdint>

// The event callback. Frees of threads that a host has blocked leave no mark, and allocations of such threads
// take none away.
void mem_double_free_handler(void* block, std::uint64_t requested_size, std::uint64_t allocated_size,
                             bool is_allocation);

// Begins to check, at start. Throws std::bad_alloc.
void mem_start_double_free_check();

// Around a stretch in which the hook is off. The second is for the one thread whose turn the shutdown is,
// once the hook may be on again; it forgets all marks, and the check stays off if the events under way don't
// end. Outside the gate, since they may wait for it.
void mem_pause_double_free_check();
void mem_resume_double_free_check(bool (*events_have_ended)());

// At the teardown. The first takes the handler off the table and leaves the hook to the callbacks that are on
// it; the second frees the marks, once no event is under way any more.
void mem_stop_double_free_check();
void mem_destroy_free_marks();

// For the child of a fork, which has no callbacks: nothing is checked there.
void mem_forget_double_free_check_after_fork();
