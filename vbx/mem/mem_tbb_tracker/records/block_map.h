// What is kept of each live block, by its address: 64 tables with a lock each.
//
//     slab of 16 KB   -->  table         the lock and the lines of a thread's own blocks stay with its
//     processor 256 bytes       -->  16 places     in a row somewhere in the table, so neighbours share cache
//     lines block           -->  first free place from its own on
//
// A table is one array that doubles when it is five eighths full; there are no nodes, links or tombstones.
// What is taken out is closed up: each entry lies between its own place and the first empty one behind it.
// The memory is that of the ordinary heap, asked for inside an event, where the tracker's own requests are
// turned away; it is not given back before the end or a clear, since most heaps grow again.
//
// A block costs 24 to 51 bytes at a record of 16, and one event one lock and mostly one cache line. (oneTBB's
// concurrent map, which was here before, took 250 instructions, 5 locked ones among them, for each of insert
// and erase.)
#pragma once

#include "vbx/mem/base/cache_line.h"
#include "vbx/mem/base/spin_lock.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

// RECORD  plain data
template <class RECORD>
class MEM_BLOCK_MAP {
  public:
    // Enters a block, or gives the one that is there this record. Throws std::bad_alloc, with nothing
    // changed.
    void insert_or_assign(const void* block, const RECORD& record) {
        TABLE& table = table_of(block);
        const MEM_SPIN_GUARD guard(table.lock);
        table.entry_for(block).record = record;
    }

    // Enters a block unless it is there. Throws std::bad_alloc, with nothing changed.
    void insert(const void* block, const RECORD& record) {
        TABLE& table = table_of(block);
        const MEM_SPIN_GUARD guard(table.lock);
        const std::size_t count = table.count;
        if (ENTRY& entry = table.entry_for(block); table.count != count)
            entry.record = record;
    }

    // Takes a block out and gives its record. False when it isn't there.
    bool take(const void* block, RECORD& record) {
        TABLE& table = table_of(block);
        const MEM_SPIN_GUARD guard(table.lock);
        ENTRY* const entry = table.find(block);
        if (entry == nullptr)
            return false;
        record = entry->record;
        table.close_up(*entry);
        return true;
    }

    // Calls visit(const RECORD&); whoever wants to change or take the entry meanwhile waits. False when it
    // isn't there.
    template <class VISIT>
    bool visit(const void* block, VISIT visit) {
        TABLE& table = table_of(block);
        const MEM_SPIN_GUARD guard(table.lock);
        const ENTRY* const entry = table.find(block);
        if (entry == nullptr)
            return false;
        visit(entry->record);
        return true;
    }

    // Forgets all blocks and gives the memory back.
    void clear() {
        for (TABLE& table : m_tables) {
            const MEM_SPIN_GUARD guard(table.lock);
            table.entries.reset();
            table.count = table.limit = table.mask = 0;
        }
    }

  private:
    static constexpr unsigned TABLE_BITS = 6;
    static constexpr unsigned SLAB_BITS = 14;
    static constexpr unsigned ROW_BITS = 8;
    static constexpr unsigned SLOT_BITS = 4; // blocks lie at multiples of 16 bytes, some small ones of 8
    static constexpr std::size_t FIRST_CAPACITY = 64;
    static constexpr std::uint64_t SCRAMBLER = 0x9E3779B97F4A7C15;

    struct ENTRY {
        std::uintptr_t key = 0; // 0 where there is none
        RECORD record{};
    };

    struct alignas(MEM_CACHE_LINE) TABLE {
        MEM_SPIN_LOCK lock{MEM_LOCK_RANK::accessor};
        std::unique_ptr<ENTRY[]> entries MEM_GUARDED_BY(lock);
        std::size_t mask MEM_GUARDED_BY(lock) = 0; // one less than there are places
        std::size_t count MEM_GUARDED_BY(lock) = 0;
        std::size_t limit MEM_GUARDED_BY(lock) = 0; // grows before it holds more

        // The place of the key, or the empty one where it belongs. There is always an empty one.
        ENTRY& place_of(std::uintptr_t key) MEM_REQUIRES(lock) {
            std::size_t at = own_place(key) & mask;
            while (entries[at].key != key && entries[at].key != 0)
                at = (at + 1) & mask;
            return entries[at];
        }

        ENTRY* find(const void* block) MEM_REQUIRES(lock) {
            if (count == 0)
                return nullptr;
            ENTRY& entry = place_of(key_of(block));
            return entry.key != 0 ? &entry : nullptr;
        }

        // Made if need be.
        ENTRY& entry_for(const void* block) MEM_REQUIRES(lock) {
            if (count == limit) [[unlikely]]
                grow();
            const std::uintptr_t key = key_of(block);
            ENTRY& entry = place_of(key);
            if (entry.key == 0) {
                entry.key = key;
                ++count;
            }
            return entry;
        }

        [[gnu::noinline]] void grow() MEM_REQUIRES(lock) {
            const std::size_t old_capacity = entries != nullptr ? mask + 1 : 0;
            const std::size_t capacity = old_capacity != 0 ? 2 * old_capacity : FIRST_CAPACITY;
            auto old = std::make_unique<ENTRY[]>(capacity);
            entries.swap(old);
            mask = capacity - 1;
            limit = capacity / 8 * 5;
            for (std::size_t at = 0; at < old_capacity; ++at)
                if (old[at].key != 0)
                    place_of(old[at].key) = old[at];
        }

        // Entries behind the gap that would not be found any more move into it, and leave the next one.
        void close_up(ENTRY& taken) MEM_REQUIRES(lock) {
            auto gap = static_cast<std::size_t>(&taken - entries.get());
            for (std::size_t at = (gap + 1) & mask; entries[at].key != 0; at = (at + 1) & mask) {
                const std::size_t way_from_own_place = (at - own_place(entries[at].key)) & mask;
                if (way_from_own_place >= ((at - gap) & mask)) {
                    entries[gap] = entries[at];
                    gap = at;
                }
            }
            entries[gap].key = 0;
            --count;
        }
    };

    // No block is at the last address.
    static std::uintptr_t key_of(const void* block) { return ~reinterpret_cast<std::uintptr_t>(block); }

    // Counted on from the beginning of the table as often as need be.
    static std::size_t own_place(std::uintptr_t key) {
        constexpr std::size_t SLOTS_IN_ROW = std::size_t{1} << (ROW_BITS - SLOT_BITS);
        const std::size_t row = ((key >> ROW_BITS) * SCRAMBLER) >> 40;
        return row * SLOTS_IN_ROW + (key >> SLOT_BITS) % SLOTS_IN_ROW;
    }

    TABLE& table_of(const void* block) {
        return m_tables[((key_of(block) >> SLAB_BITS) * SCRAMBLER) >> (64 - TABLE_BITS)];
    }

    std::array<TABLE, std::size_t{1} << TABLE_BITS> m_tables;
};
