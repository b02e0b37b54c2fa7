// The double-free check: ends the process at the second free of a block.
//
//     free A           A -> freed
//     malloc gives A   A -> in use
//     free A           A -> freed
//     free A           "Double free detected"
//
// A mark for every address that was ever freed; none is removed. Marks count from the time when the check
// last began to see every event: what happens while the hook is off at the shutdown leaves none.
#pragma once

#include <cstdint>

// The event callback. Frees of threads that a host has blocked leave no mark, and allocations of such threads
// take none away.
void mem_double_free_handler(void* block, std::uint64_t requested_size, std::uint64_t allocated_size,
                             bool is_allocation);

// Begins to check, at start. Throws std::bad_alloc.
void mem_start_double_free_check();

// When the hook was off: forgets all marks, before it is on again.
void mem_void_free_marks();

// At the teardown. The first takes the handler off the table and leaves the hook to the callbacks that are on
// it; the second frees the marks, once no event is under way any more.
void mem_stop_double_free_check();
void mem_destroy_free_marks();

// For the child of a fork, which has no callbacks: nothing is checked there.
void mem_forget_double_free_check_after_fork();
