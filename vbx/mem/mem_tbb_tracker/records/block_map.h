// What is kept of each live block, by its address: 64 tables with a lock each.
//
//     slab of 16 KB   -->  table         the lock and the lines of a thread's own blocks stay with its
//     processor 256 bytes       -->  16 places     in a row somewhere in the table, so neighbours share cache
//     lines block           -->  the first free place from its own on
//
// A table is one array without nodes or links. A heap gives the same addresses out again and again, so what
// is taken out is only marked: the next block of that address finds its place at once, and nothing is moved.
// Half full, a table is made anew without the marked ones, and twice as large unless most were. The memory is
// that of the ordinary heap, asked for inside an event, where the tracker's own requests are turned away; it
// is not given back before the end or a clear, since most heaps grow again.
//
// One lock and mostly one cache line an event; 38 to 77 bytes a block with a record of 16 where few are
// marked. (oneTBB's concurrent map, which was here before, took 250 instructions for an insert or an erase,
// five locked ones among them.)
#pragma once

#include "vbx/mem/base/cache_line.h"
#include "vbx/mem/base/spin_lock.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

// RECORD  plain data
template <class RECORD>
class MEM_BLOCK_MAP {
  public:
    // Enters a block, or gives the one that is there this record. Throws std::bad_alloc, with nothing
    // changed.
    void insert_or_assign(const void* block, const RECORD& record) {
        TABLE& table = table_of(block);
        const MEM_SPIN_GUARD guard(table.lock);
        ENTRY& entry = table.entry_for(name_of(block));
        if (entry.is_live())
            entry.record = record;
        else
            table.enter(entry, name_of(block), record);
    }

    // Enters a block unless it is there. Throws std::bad_alloc, with nothing changed.
    void insert(const void* block, const RECORD& record) {
        TABLE& table = table_of(block);
        const MEM_SPIN_GUARD guard(table.lock);
        ENTRY& entry = table.entry_for(name_of(block));
        if (!entry.is_live())
            table.enter(entry, name_of(block), record);
    }

    // Takes a block out and gives its record. False when it isn't there.
    bool take(const void* block, RECORD& record) {
        TABLE& table = table_of(block);
        const MEM_SPIN_GUARD guard(table.lock);
        ENTRY* const entry = table.find(name_of(block));
        if (entry == nullptr)
            return false;
        record = entry->record;
        table.take_out(*entry);
        return true;
    }

    // Calls visit(const RECORD&); whoever wants to change or take the entry meanwhile waits. False when it
    // isn't there.
    template <class VISIT>
    bool visit(const void* block, VISIT visit) {
        TABLE& table = table_of(block);
        const MEM_SPIN_GUARD guard(table.lock);
        const ENTRY* const entry = table.find(name_of(block));
        if (entry == nullptr)
            return false;
        visit(entry->record);
        return true;
    }

    // Forgets all blocks and gives the memory back.
    void clear() {
        for (TABLE& table : m_tables) {
            const MEM_SPIN_GUARD guard(table.lock);
            delete[] table.entries.exchange(nullptr, std::memory_order_relaxed);
            table.mask.store(0, std::memory_order_relaxed);
            table.used = table.live = table.limit = 0;
        }
    }

    // Has the cache line of a block fetched, for an event that gets to it a little later.
    void prefetch(const void* block) const {
        const TABLE& table = m_tables[number_of_table(block)];
        const ENTRY* const entries = table.entries.load(std::memory_order_relaxed);
        // The two may be of different arrays, and the array may be gone: a prefetch of anything does no harm.
        __builtin_prefetch(entries + (own_place(name_of(block)) & table.mask.load(std::memory_order_relaxed)),
                           1);
    }

  private:
    static constexpr unsigned TABLE_BITS = 6;
    static constexpr unsigned SLAB_BITS = 14;
    static constexpr unsigned ROW_BITS = 8;
    static constexpr unsigned SLOT_BITS = 4; // blocks lie at multiples of 16 bytes, some small ones of 8
    static constexpr std::size_t FIRST_CAPACITY = 64;
    static constexpr std::uint64_t SCRAMBLER = 0x9E3779B97F4A7C15;

    // An address without its highest bit, which no block has, and a bit for the mark.
    using NAME = std::uint64_t;
    static constexpr NAME LIVE = 1;

    struct ENTRY {
        NAME name = 0; // 0 where there was never one
        RECORD record{};

        bool is_of(NAME block) const { return (name | LIVE) == block; }
        bool is_live() const { return (name & LIVE) != 0; }
    };

    struct alignas(MEM_CACHE_LINE) TABLE {
        MEM_SPIN_LOCK lock{MEM_LOCK_RANK::accessor};
        // Changed under the lock, like all the others.
        std::atomic<ENTRY*> entries{nullptr};
        std::atomic<std::size_t> mask{0};          // one less than there are places
        std::size_t used MEM_GUARDED_BY(lock) = 0; // marked ones too
        std::size_t live MEM_GUARDED_BY(lock) = 0;
        std::size_t limit MEM_GUARDED_BY(lock) = 0; // of used

        ~TABLE() { delete[] entries.load(std::memory_order_relaxed); }

        // The place of the block, or the empty one where it belongs: there is always one.
        ENTRY& place_of(NAME block) MEM_REQUIRES(lock) {
            ENTRY* const all = entries.load(std::memory_order_relaxed);
            const std::size_t last = mask.load(std::memory_order_relaxed);
            std::size_t at = own_place(block) & last;
            while (!all[at].is_of(block) && all[at].name != 0)
                at = (at + 1) & last;
            return all[at];
        }

        // The entry of a live block, or null.
        ENTRY* find(NAME block) MEM_REQUIRES(lock) {
            if (live == 0)
                return nullptr;
            ENTRY& entry = place_of(block);
            return entry.is_live() ? &entry : nullptr;
        }

        // The entry that the block has or is to have.
        ENTRY& entry_for(NAME block) MEM_REQUIRES(lock) {
            if (used == limit) [[unlikely]]
                make_room();
            return place_of(block);
        }

        void enter(ENTRY& entry, NAME block, const RECORD& record) MEM_REQUIRES(lock) {
            used += entry.name == 0 ? 1 : 0;
            ++live;
            entry = {block, record};
        }

        void take_out(ENTRY& entry) MEM_REQUIRES(lock) {
            entry.name &= ~LIVE;
            --live;
        }

        [[gnu::noinline]] void make_room() MEM_REQUIRES(lock) {
            const std::size_t old_capacity = limit != 0 ? mask.load(std::memory_order_relaxed) + 1 : 0;
            const bool are_many_marked = live <= old_capacity / 16 * 7;
            const std::size_t capacity = old_capacity == 0 ? FIRST_CAPACITY
                                         : are_many_marked ? old_capacity
                                                           : 2 * old_capacity;
            ENTRY* const fresh = new ENTRY[capacity];
            const std::unique_ptr<ENTRY[]> old(entries.exchange(fresh, std::memory_order_relaxed));
            mask.store(capacity - 1, std::memory_order_relaxed);
            limit = capacity / 8 * 5;
            used = live;
            for (std::size_t at = 0; at < old_capacity; ++at)
                if (old[at].is_live())
                    place_of(old[at].name) = old[at];
        }
    };

    static NAME name_of(const void* block) { return reinterpret_cast<std::uintptr_t>(block) << 1 | LIVE; }

    // Counted on from the beginning of the table as often as need be.
    static std::size_t own_place(NAME block) {
        constexpr std::size_t SLOTS_IN_ROW = std::size_t{1} << (ROW_BITS - SLOT_BITS);
        const std::uint64_t address = block >> 1;
        const std::size_t row = ((address >> ROW_BITS) * SCRAMBLER) >> 40;
        return row * SLOTS_IN_ROW + (address >> SLOT_BITS) % SLOTS_IN_ROW;
    }

    static std::size_t number_of_table(const void* block) {
        return ((reinterpret_cast<std::uintptr_t>(block) >> SLAB_BITS) * SCRAMBLER) >> (64 - TABLE_BITS);
    }
    TABLE& table_of(const void* block) { return m_tables[number_of_table(block)]; }

    std::array<TABLE, std::size_t{1} << TABLE_BITS> m_tables;
};
