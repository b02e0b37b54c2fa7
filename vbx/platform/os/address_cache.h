// What was found out about code addresses, for all threads, without a lock.
//
// An entry is two words that are written one after the other. A reader may see the halves of two different
// writes: the first word is the address masked with a scrambled form of the second, so halves that don't
// belong together give an address that nobody asks for. Who finds a value also sees what its writer did
// before. A lost write is found out again later. So a signal handler may interrupt a write, and a forked
// child may find one unfinished.
//
// 1 MB of zeroed memory that never grows: 65536 entries, of which a process pays for the pages it touches.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

class OS_ADDRESS_CACHE {
  public:
    constexpr OS_ADDRESS_CACHE() = default;
    OS_ADDRESS_CACHE(const OS_ADDRESS_CACHE&) = delete;
    OS_ADDRESS_CACHE& operator=(const OS_ADDRESS_CACHE&) = delete;

    // What was stored for an address other than 0; false when it isn't there (any more).
    bool find(std::uint64_t address, std::uint64_t& value) const {
        const SET& set = m_sets[set_of(address)];
        for (const ENTRY& entry : set.entries) {
            value = entry.value.load(std::memory_order_acquire);
            if ((entry.masked_address.load(std::memory_order_relaxed) ^ scrambled(value)) == address)
                return true;
        }
        return false;
    }

    // May push another address out.
    void store(std::uint64_t address, std::uint64_t value) {
        ENTRY& entry = entry_for(address);
        entry.masked_address.store(address ^ scrambled(value), std::memory_order_relaxed);
        entry.value.store(value, std::memory_order_release);
    }

    // Forgets everything. While no thread stores; those that look at the same time find or don't.
    void clear() {
        for (SET& set : m_sets)
            for (ENTRY& entry : set.entries)
                if (entry.masked_address.load(std::memory_order_relaxed) != 0) {
                    entry.masked_address.store(0, std::memory_order_relaxed);
                    entry.value.store(0, std::memory_order_relaxed);
                }
    }

  private:
    struct ENTRY {
        std::atomic<std::uint64_t> masked_address = 0;
        std::atomic<std::uint64_t> value = 0;

        std::uint64_t address() const {
            return masked_address.load(std::memory_order_relaxed) ^
                   scrambled(value.load(std::memory_order_relaxed));
        }
    };

    // One cache line.
    struct alignas(64) SET {
        std::array<ENTRY, 4> entries;
    };

    static constexpr std::uint64_t SCRAMBLER = 0x9E3779B97F4A7C15;
    static constexpr unsigned SET_BITS = 6; // one page of memory
    static constexpr unsigned PAGE_BITS = 8;

    static constexpr std::uint64_t scrambled(std::uint64_t value) { return value * SCRAMBLER; }

    // Call sites of one page of code share one page of this table: a small program touches few of its 256.
    // No multiplication: each frame of a walk waits for this one's.
    static std::size_t set_of(std::uint64_t address) {
        const std::uint64_t page = (address >> 12) ^ (address >> (12 + PAGE_BITS));
        const std::uint64_t set = address ^ (address >> SET_BITS);
        return ((page & ((1U << PAGE_BITS) - 1)) << SET_BITS) | (set & ((1U << SET_BITS) - 1));
    }

    ENTRY& entry_for(std::uint64_t address) {
        SET& set = m_sets[set_of(address)];
        for (ENTRY& entry : set.entries) {
            const std::uint64_t stored = entry.address();
            if (stored == 0 || stored == address)
                return entry;
        }
        // Which one goes depends on the newcomer alone: every address of an overfull set has one place to
        // win back, and those that are used most win most often.
        return set.entries[(scrambled(address) >> 32) % set.entries.size()];
    }

    alignas(4096) std::array<SET, std::size_t{1} << (SET_BITS + PAGE_BITS)> m_sets;
};
