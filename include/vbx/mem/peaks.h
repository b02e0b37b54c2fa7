// Local regions, and the end of a stretch of the search for the peak of the run.
#pragma once

#include <vbx/mem/export.h>
#include <vbx/mem/stats.h>

// Begins a region: the local peak starts anew from the present level. Regions nest; there is one set of local
// figures for the process, not one a thread.
// Returns the local peak before the call, which the caller keeps for the matching exit.
VBX_MEM_API MEM_BASE_STATS mem_enter_local_region();

// Ends a region and gives the enclosing one its own high mark back, unless this one went higher.
// saved  what the matching mem_enter_local_region gave
// Returns the local peak of the region that ends.
VBX_MEM_API MEM_BASE_STATS mem_exit_local_region(const MEM_BASE_STATS& saved);

// Keeps the figures of the best threshold peak so far, if the stretch that ends here has beaten all before
// it, and starts the search anew. Says so through the debug message slot. Samples every timeline. Needs a
// started tracker; takes time in proportion to the number of sites, and holds up events that charge one for
// as long. Throws std::bad_alloc, with the search as it was.
VBX_MEM_API void mem_tbb_tracking_flush_peak();
