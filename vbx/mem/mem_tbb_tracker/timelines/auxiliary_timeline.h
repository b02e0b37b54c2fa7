// What the operating system sees, beside what the profiler itself costs: one row a sample.
//
//     sample   page faults   resident   commit charge   the profiler's own heap traffic
//          0           311       4 MB           12 MB        27 blocks,  73 kB
//          1          9120      40 MB           52 MB       412 blocks, 900 kB
//
// Rows are stored as they come, without limit. They bear no index that would connect them to the rows of
// other timelines, although one tick drives them all.
#pragma once

#include "vbx/mem/base/annotations.h"
#include "vbx/mem/base/spin_lock.h"

#include <cstdint>
#include <vector>

struct MEM_AUXILIARY_SAMPLE {
    // The fallback counters: heap traffic that is not attributed, above all the tracker's own.
    std::uint64_t num_allocs = 0;
    std::uint64_t num_deallocs = 0;
    std::uint64_t requested_total = 0;
    std::uint64_t requested_outstanding = 0;
    std::uint64_t allocated_total = 0;
    std::uint64_t allocated_outstanding = 0;
    // Of the process, as the operating system has them; all ones when it didn't answer.
    std::uint64_t page_faults = 0;
    std::uint64_t resident = 0;      // bytes
    std::uint64_t commit_charge = 0; // bytes
};

class MEM_AUXILIARY_TIMELINE {
  public:
    // Adds a row; drops it when there is no memory for it. Any thread, also inside an event; the caller's
    // block byte or in-tracker byte is set, which turns away the event of the row's own memory.
    void take_sample() noexcept MEM_EXCLUDES(m_lock);

    // Writes the log into the working directory, in place of an older one; a log that can't be opened is just
    // missing. The rows stay. Holds samples up until it is done. Needs the executable tag. Throws
    // std::bad_alloc.
    void dump() MEM_EXCLUDES(m_lock);

    // In a forked child: no other thread is left that could hold the lock.
    void reset_lock_after_fork() { m_lock.reset(); }

  private:
    MEM_SPIN_LOCK m_lock{MEM_LOCK_RANK::timeline};
    std::vector<MEM_AUXILIARY_SAMPLE> m_samples MEM_GUARDED_BY(m_lock);
};

// From tracker start to the end of the process: never freed, so a late sample finds it.
inline constinit MEM_AUXILIARY_TIMELINE* mem_auxiliary_timeline = nullptr;
