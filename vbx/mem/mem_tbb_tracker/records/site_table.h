// The allocation sites: code address -> record, with the catch-all record under key 0.
//
//     0x0            catch-all              charged with what nothing else explains
//     0x55..4f21     parser, token.cpp:40   charged
//     0x7f..9a07     stdc++, no line        filtered: looked at once, never charged
//
// One entry for every frame address that attribution ever looked at. Entries never move and are never removed
// one by one: a pointer to a record holds until the whole table is cleared, which only a cat of the gate
// does.
#pragma once

#include "vbx/mem/base/spin_lock.h"
#include "vbx/mem/mem_tbb_tracker/records/site.h"

#include <atomic>
#include <cstdint>
#include <unordered_map>

// Guards the table; the counters of a record have its own lock. Never held together with one of those but by
// MEM_STILL_SITES.
inline constinit MEM_BUSY_SPIN_LOCK mem_site_lock{MEM_LOCK_RANK::leaf};

// 64-bit FNV-1a over the bytes of the address, lowest first.
struct MEM_ADDRESS_HASH {
    std::size_t operator()(std::uint64_t address) const;
};

// The record under key 0 while there is one, for looking without the lock: null from a reset on until the
// record is made again.
inline constinit std::atomic<MEM_SITE*> mem_known_catch_all{nullptr};

class MEM_SITE_TABLE {
  public:
    // Null when the address was never looked at.
    MEM_SITE* find(std::uint64_t address) MEM_REQUIRES(mem_site_lock);
    // Gives the record that then stands in the table: `record`, or the one that another thread had inserted
    // before. Throws std::bad_alloc.
    MEM_SITE& insert(const MEM_ADDRESS_TRACKER& record) MEM_REQUIRES(mem_site_lock);
    // The record under key 0, made if it is missing. Throws std::bad_alloc.
    MEM_SITE& catch_all() MEM_REQUIRES(mem_site_lock);
    // Forgets all records, the catch-all too, and gives the buckets back. Only for a cat of the gate.
    void clear() MEM_REQUIRES(mem_site_lock);
    std::size_t size() const MEM_REQUIRES(mem_site_lock) { return m_sites.size(); }

    // Calls visit(MEM_ADDRESS_TRACKER&) for every entry, in no order. Counters move meanwhile unless the
    // caller is a cat of the gate or has MEM_STILL_SITES.
    template <class VISIT>
    void for_each(VISIT visit) MEM_REQUIRES(mem_site_lock) {
        for (auto& [address, site] : m_sites)
            visit(static_cast<MEM_ADDRESS_TRACKER&>(site));
    }

    // Every record's counters at once. Nobody who holds one of these locks waits for anything.
    void lock_all() MEM_REQUIRES(mem_site_lock);
    void unlock_all() MEM_REQUIRES(mem_site_lock);

  private:
    std::unordered_map<std::uint64_t, MEM_SITE, MEM_ADDRESS_HASH> m_sites;
};

// From tracker start to teardown.
inline constinit MEM_SITE_TABLE* mem_tbb_site_table MEM_PT_GUARDED_BY(mem_site_lock) = nullptr;

// The table and all counters held still, so that the figures of a report are of one moment. Events that
// charge a site wait.
class MEM_SCOPED_CAPABILITY MEM_STILL_SITES {
  public:
    MEM_STILL_SITES() MEM_ACQUIRE(mem_site_lock) {
        mem_site_lock.acquire();
        mem_tbb_site_table->lock_all();
    }
    ~MEM_STILL_SITES() MEM_RELEASE() MEM_NO_THREAD_SAFETY_ANALYSIS {
        mem_tbb_site_table->unlock_all();
        mem_site_lock.release();
    }
    MEM_STILL_SITES(const MEM_STILL_SITES&) = delete;
    MEM_STILL_SITES& operator=(const MEM_STILL_SITES&) = delete;
};
