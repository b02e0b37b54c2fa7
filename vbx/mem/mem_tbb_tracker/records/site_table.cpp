#include "vbx/mem/mem_tbb_tracker/records/site_table.h"

#include "vbx/mem/base/fnv1a.h"

#include <algorithm>
#include <cstring>

std::size_t MEM_ADDRESS_HASH::operator()(std::uint64_t address) const {
    // Its bytes in memory, lowest first.
    return mem_fnv1a({reinterpret_cast<const char*>(&address), sizeof address});
}

MEM_SITE* MEM_SITE_TABLE::find(std::uint64_t address) {
    const auto found = m_sites.find(address);
    return found == m_sites.end() ? nullptr : &found->second;
}

MEM_SITE& MEM_SITE_TABLE::insert(const MEM_ADDRESS_TRACKER& record) {
    return m_sites.try_emplace(record.address, record).first->second;
}

MEM_SITE& MEM_SITE_TABLE::catch_all() {
    MEM_SITE* record = mem_known_catch_all.load(std::memory_order_relaxed);
    if (record == nullptr) {
        record = &m_sites[0];
        mem_known_catch_all.store(record, std::memory_order_release);
    }
    return *record;
}

void MEM_SITE_TABLE::clear() {
    mem_known_catch_all.store(nullptr, std::memory_order_relaxed);
    m_sites = decltype(m_sites)(); // an empty list would keep the buckets
}

void MEM_SITE_TABLE::lock_all() {
    for (auto& [address, site] : m_sites)
        site.acquire_unranked();
}

void MEM_SITE_TABLE::unlock_all() {
    for (auto& [address, site] : m_sites)
        site.release_unranked();
}

void mem_undo_charge(MEMORY_TRACKER_BASE& tracker, std::uint64_t size, std::uint64_t requested_size) {
    mem_credit(tracker, size);
    tracker.cumulative_blocks -= 1;
    tracker.cumulative_bytes -= static_cast<std::int64_t>(size);
    tracker.cumulative_requested_bytes -= static_cast<std::int64_t>(requested_size);
}

void mem_copy_site(MEM_ADDRESS_TRACKER& to, MEM_ADDRESS_TRACKER& from) {
    static_cast<MEMORY_TRACKER_BASE&>(to) = from;
    to.address = from.address;
    to.line = from.line;
    std::memcpy(to.module_name, from.module_name, sizeof to.module_name);
    std::memcpy(to.file_name, from.file_name, sizeof to.file_name);
    std::memcpy(to.function_name, from.function_name, sizeof to.function_name);
    to.module_tracker = mem_load_module_tracker(from);
    to.filtered = from.filtered;
}
