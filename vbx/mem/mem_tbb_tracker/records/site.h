// The record of an allocation site, with a lock of its own: threads that allocate at different sites don't
// meet.
#pragma once

#include "vbx/mem/base/annotations.h"
#include "vbx/mem/base/lock_rank.h"
#include "vbx/platform/os/one_thread.h"
#include "vbx/platform/os/thread.h"

#include <vbx/mem/trackers.h>

#include <algorithm>
#include <atomic>
#include <cstdint>

// In front of the counters: it comes with the cache line that a free needs of them.
class MEM_SITE_LOCK {
  protected:
    void lock() {
        OS_PATIENCE patience;
        while (os_exchange(m_word, std::uint32_t{1}, std::memory_order_acquire) != 0)
            patience.wait();
    }
    void unlock() { m_word.store(0, std::memory_order_release); }

  private:
    std::atomic<std::uint32_t> m_word{0};
};

// The lock guards the counters. What a record says of its place never changes, and module_tracker is written
// under the module lock.
struct MEM_CAPABILITY("site") MEM_SITE : MEM_SITE_LOCK, MEM_ADDRESS_TRACKER {
    explicit MEM_SITE(const MEM_ADDRESS_TRACKER& record) : MEM_ADDRESS_TRACKER(record) {}
    MEM_SITE() = default;
    MEM_SITE(const MEM_SITE&) = delete;
    MEM_SITE& operator=(const MEM_SITE&) = delete;

    void acquire() MEM_ACQUIRE() {
        mem_rank_acquire(MEM_LOCK_RANK::leaf);
        lock();
    }
    void release() MEM_RELEASE() {
        unlock();
        mem_rank_release(MEM_LOCK_RANK::leaf);
    }

  private:
    friend class MEM_SITE_TABLE;
};

class MEM_SCOPED_CAPABILITY MEM_SITE_GUARD {
  public:
    explicit MEM_SITE_GUARD(MEM_SITE& site) MEM_ACQUIRE(site) : m_site(site) { m_site.acquire(); }
    ~MEM_SITE_GUARD() MEM_RELEASE() { m_site.release(); }
    MEM_SITE_GUARD(const MEM_SITE_GUARD&) = delete;
    MEM_SITE_GUARD& operator=(const MEM_SITE_GUARD&) = delete;

  private:
    MEM_SITE& m_site;
};

// The four counters and three maxima that one block moves, the same for sites and modules. Under the record's
// lock, like the two below.
inline void mem_charge(MEMORY_TRACKER_BASE& tracker, std::uint64_t size, std::uint64_t requested_size) {
    const auto bytes = static_cast<std::int64_t>(size);
    tracker.current_blocks += 1;
    tracker.cumulative_blocks += 1;
    tracker.max_blocks = std::max(tracker.max_blocks, tracker.current_blocks);
    tracker.current_bytes += bytes;
    tracker.cumulative_bytes += bytes;
    tracker.cumulative_requested_bytes += static_cast<std::int64_t>(requested_size);
    tracker.max_bytes = std::max(tracker.max_bytes, tracker.current_bytes);
}

inline void mem_credit(MEMORY_TRACKER_BASE& tracker, std::uint64_t size) {
    tracker.current_blocks -= 1;
    tracker.current_bytes -= static_cast<std::int64_t>(size);
}

// Takes back a charge of a moment ago; the maxima stay.
void mem_undo_charge(MEMORY_TRACKER_BASE& tracker, std::uint64_t size, std::uint64_t requested_size);

// Copies a record out, with its lock held: all fields are of one moment, but for module_tracker, which other
// threads set under another lock.
void mem_copy_site(MEM_ADDRESS_TRACKER& to, MEM_ADDRESS_TRACKER& from);

// module_tracker is one machine word, null or a valid record.
MEMORY_TRACKER_BASE* mem_load_module_tracker(MEM_ADDRESS_TRACKER& site);
void mem_store_module_tracker(MEM_ADDRESS_TRACKER& site, MEMORY_TRACKER_BASE* module_record);
