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

#include "vbx/mem/base/cache_line.h"
#include "vbx/mem/base/spin_lock.h"

#include <vbx/mem/trackers.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <unordered_map>

// Guards the table and every field of every record but module_tracker.
inline constinit MEM_BUSY_SPIN_LOCK mem_site_lock{MEM_LOCK_RANK::leaf};

// 64-bit FNV-1a over the bytes of the address, lowest first.
struct MEM_ADDRESS_HASH {
    std::size_t operator()(std::uint64_t address) const;
};

// The record under key 0 while there is one, for looking without the lock: null from a reset on until the
// record is made again.
inline constinit std::atomic<MEM_ADDRESS_TRACKER*> mem_known_catch_all{nullptr};

class MEM_SITE_TABLE {
  public:
    // Null when the address was never looked at.
    MEM_ADDRESS_TRACKER* find(std::uint64_t address) MEM_REQUIRES(mem_site_lock);
    // Gives the record that then stands in the table: `record`, or the one that another thread had inserted
    // before. Throws std::bad_alloc.
    MEM_ADDRESS_TRACKER& insert(const MEM_ADDRESS_TRACKER& record) MEM_REQUIRES(mem_site_lock);
    // The record under key 0, made if it is missing. Throws std::bad_alloc.
    MEM_ADDRESS_TRACKER& catch_all() MEM_REQUIRES(mem_site_lock);
    // Forgets all records, the catch-all too, and gives the buckets back. Only for a cat of the gate.
    void clear() MEM_REQUIRES(mem_site_lock);
    std::size_t size() const MEM_REQUIRES(mem_site_lock) { return m_records.size(); }

    // Calls visit(MEM_ADDRESS_TRACKER&) for every entry, in no order.
    template <class VISIT>
    void for_each(VISIT visit) MEM_REQUIRES(mem_site_lock) {
        for (auto& [address, site] : m_records)
            visit(site.record);
    }

  private:
    // The counters that an event moves are one cache line.
    struct alignas(MEM_CACHE_LINE) SITE {
        MEM_ADDRESS_TRACKER record;
    };
    std::unordered_map<std::uint64_t, SITE, MEM_ADDRESS_HASH> m_records;
};

// From tracker start to teardown.
inline constinit MEM_SITE_TABLE* mem_tbb_site_table MEM_PT_GUARDED_BY(mem_site_lock) = nullptr;

// The four counters and three maxima that one block moves, the same for sites and modules.
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

// Copies a record out. All fields are of one moment, but for module_tracker, which other threads set under
// another lock.
void mem_copy_site(MEM_ADDRESS_TRACKER& to, MEM_ADDRESS_TRACKER& from) MEM_REQUIRES(mem_site_lock);

// module_tracker is written under the module lock and read under the site lock: one machine word, null or a
// valid record.
MEMORY_TRACKER_BASE* mem_load_module_tracker(MEM_ADDRESS_TRACKER& site);
void mem_store_module_tracker(MEM_ADDRESS_TRACKER& site, MEMORY_TRACKER_BASE* module_record);
