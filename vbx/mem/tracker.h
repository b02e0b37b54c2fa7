// The life of the tracker: started once in a process, shut down, torn down.
//
//     not started --mem_tbb_tracker_start--> started --mem_shutdown_tbb_tracking--> silent
//                                                                                     |
//                                               torn down <--mem_tbb_tracker_teardown-+
//
// "Started" never ends: a start after the teardown does nothing. The global statistics go on answering.
#pragma once

#include <vbx/mem/control.h>

// Builds the tracker's objects and, unless the mask is 0, begins to track. Does nothing in a process whose
// tracker has started before. Throws what a malformed numeric setting throws, and std::bad_alloc.
void mem_tbb_tracker_start(MEM_TRACKING_GRANULARITY mask);

// Writes the reports and frees the objects, unless a thread may still be using them.
void mem_tbb_tracker_teardown();

// In the child of a fork: tracking is over, nothing is held, nothing will be written.
void mem_abandon_tracker_after_fork();
