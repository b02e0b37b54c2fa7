// What is tracked: the granularity mask and the smaller switches.
#pragma once

#include <vbx/mem/export.h>

#include <cstdint>

// A bit mask of tracking features.
enum MEM_TRACKING_GRANULARITY : std::uint32_t {
    MEM_GRANULARITY_NONE = 0,
    MEM_GRANULARITY_PER_BIN = 1,             // global statistics, region measuring
    MEM_GRANULARITY_PER_BIN_DETAILED = 2,    // charging of blocks to bins and tags
    MEM_GRANULARITY_PER_LIBRARY = 4,         // one record a module
    MEM_GRANULARITY_PER_FILELINE = 8,        // one record an allocation site, thread ids of blocks
    MEM_GRANULARITY_CHECK_LEAKS = 16,        // sites and live blocks for the full leak report
    MEM_GRANULARITY_CHECK_LEAKS_FAST = 32,   // global statistics for the fast leak report
    MEM_GRANULARITY_AUXILIARY_TIMELINE = 64, // figures of the operating system beside the profiler's own
    MEM_GRANULARITY_ALL = 95,                // all but MEM_GRANULARITY_CHECK_LEAKS_FAST
};

// a, b  masks
// Returns the features of both
constexpr MEM_TRACKING_GRANULARITY operator|(MEM_TRACKING_GRANULARITY a, MEM_TRACKING_GRANULARITY b) {
    return static_cast<MEM_TRACKING_GRANULARITY>(static_cast<std::uint32_t>(a) |
                                                 static_cast<std::uint32_t>(b));
}

// Turns features on or off for the whole process, from each event's next start. Blocks already live are not
// known to a feature that comes on late, and no report is written for it, but for the leak reports.
// bits  the features; the others stay as they are
// Throws std::bad_alloc, with nothing changed.
VBX_MEM_API void mem_enable_tracking(MEM_TRACKING_GRANULARITY bits);
VBX_MEM_API void mem_disable_tracking(MEM_TRACKING_GRANULARITY bits);
// bits  features
// Returns whether all of them are on; true for none. Lock-free
VBX_MEM_API bool mem_tracking_is_enabled(MEM_TRACKING_GRANULARITY bits);

// Forgets what has been attributed so far: sites, modules, live blocks, the figures of tags with their
// timeline, and the threshold peak. The figures of bins, the global statistics and the other timelines stay.
// The free of a block that was live goes to the catch-all record from then on, which may drive that below 0;
// its tag is left alone while the table doesn't hold it, and may go below 0 once it does. Stops all
// attributed events while it runs. Needs a started tracker.
VBX_MEM_API void mem_reset_tracking_entries();

// Works the mask out from the environment and the configuration, and sets the flags that say which reports
// are written at the end. Does not store the mask. The library calls it once, at load. Throws what the host's
// configuration callbacks throw, and std::bad_alloc.
// Returns the mask
VBX_MEM_API MEM_TRACKING_GRANULARITY mem_get_tracking_granularity_from_env();

// Turns MEM_GRANULARITY_PER_BIN alone on or off, as mem_enable_tracking and mem_disable_tracking do.
// on  whether the global statistics run from now on
VBX_MEM_API void mem_set_tbb_track_alloc_dealloc(bool on);
// Returns whether they run. Lock-free
VBX_MEM_API bool mem_get_tbb_track_alloc_dealloc();

// Region measuring at the opening and closing of profile bins. Starts the tracker if it has not started; the
// mask of a started tracker is not changed.
// on  whether regions are measured from now on; not to be changed while a bin is open
VBX_MEM_API void mem_set_tbb_memory_tracking_enabled(bool on);
// Returns whether they are measured. Lock-free
VBX_MEM_API bool mem_get_tbb_memory_tracking_enabled();

// Stops the global statistics, process-wide, until the end of a scope. Two guards on different threads can
// interleave; the last destructor decides.
class VBX_MEM_API MEM_TBB_NO_TRACK_ALLOC_DEALLOC_UNTIL_SCOPE_EXIT {
  public:
    MEM_TBB_NO_TRACK_ALLOC_DEALLOC_UNTIL_SCOPE_EXIT();
    ~MEM_TBB_NO_TRACK_ALLOC_DEALLOC_UNTIL_SCOPE_EXIT();
    MEM_TBB_NO_TRACK_ALLOC_DEALLOC_UNTIL_SCOPE_EXIT(const MEM_TBB_NO_TRACK_ALLOC_DEALLOC_UNTIL_SCOPE_EXIT&) =
        delete;
    // Takes over what the other guard restores at its end.
    MEM_TBB_NO_TRACK_ALLOC_DEALLOC_UNTIL_SCOPE_EXIT&
    operator=(const MEM_TBB_NO_TRACK_ALLOC_DEALLOC_UNTIL_SCOPE_EXIT&) = default;

  private:
    bool m_was_on;
};

extern "C" {
// Turns the calling thread's events away from the tracker, and back. There is no count: one unblock ends any
// number of blocks.
// Returns the state before: 1 when the thread was blocked by the host, 0 otherwise
VBX_MEM_API int mem_block_thread_tracking();
VBX_MEM_API int mem_unblock_thread_tracking();
}
