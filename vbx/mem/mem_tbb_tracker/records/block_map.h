// What is kept of each live block, by its address.
//
//     address  | 3 x 11 bits: three directories |  14 bits: offset in its slab of 16 KB  |
//                                |
//                                +--> a record for each 2^shift bytes of the slab
//
//     shift 14   [            block            ]       one block in the slab
//     shift 7    [ ][b][b][ ][b][b][b][b][b][b]        ... as fine as the blocks lie
//
// The heap fills a slab with slots of one size, so once the records are as fine as the nearest two blocks,
// each block has its own: nothing is searched, and neighbours share cache lines as they do in the heap. The
// last directory has the shift too, so that one line of records is all that an event has to fetch. 64 locks
// are spread over the slabs: those of a thread's own mostly stay with its processor.
//
// The memory is that of the ordinary heap, asked for inside an event, where the tracker's own requests are
// turned away. That of the records is given back at a clear, that of the directories at the end only. A
// block costs 16 to 32 bytes with a record of 16 where its slab is full. (oneTBB's concurrent map, which was
// here before, took 250 instructions for an insert or an erase, five locked ones among them, and 70 bytes.)
#pragma once

#include "vbx/mem/base/spin_lock.h"

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

// RECORD  plain data with a `std::uint32_t mark` that is the map's own, 0 at first
template <class RECORD>
class MEM_BLOCK_MAP {
  public:
    MEM_BLOCK_MAP() = default;
    MEM_BLOCK_MAP(const MEM_BLOCK_MAP&) = delete;
    MEM_BLOCK_MAP& operator=(const MEM_BLOCK_MAP&) = delete;

    // Enters a block, or gives the one that is there this record. Throws std::bad_alloc, with nothing
    // changed; always so at an address that user space doesn't have.
    [[gnu::always_inline]] void insert_or_assign(const void* block, const RECORD& record) {
        SLAB& slab = slab_for(block);
        const MEM_SPIN_GUARD guard(lock_of(block));
        enter(slab.place_for(mark_of(block)), mark_of(block), record);
    }

    // Enters a block unless it is there. Throws like the above.
    [[gnu::always_inline]] void insert(const void* block, const RECORD& record) {
        SLAB& slab = slab_for(block);
        const MEM_SPIN_GUARD guard(lock_of(block));
        if (RECORD& place = slab.place_for(mark_of(block)); place.mark == NO_BLOCK)
            enter(place, mark_of(block), record);
    }

    // Takes a block out and gives its record. False when it isn't there.
    [[gnu::always_inline]] bool take(const void* block, RECORD& record) {
        return use(block, [&record](RECORD& place) {
            record = place;
            place.mark = NO_BLOCK;
        });
    }

    // Calls visit(const RECORD&); whoever wants to change or take the entry meanwhile waits. False when it
    // isn't there.
    template <class VISIT>
    bool visit(const void* block, VISIT visit) {
        return use(block, [&visit](const RECORD& place) { visit(place); });
    }

    // Has the processor fetch what the next call for this block will look at: its record, once the slab has
    // as many. Changes nothing, waits for nothing and may be called at any time.
    [[gnu::always_inline]] void prefetch(const void* block) const {
        if (const SLAB* const slab = find_slab(block))
            slab->prefetch(mark_of(block));
    }

    // Forgets all blocks and gives the memory of the records back; the directories, 16 KB for each 32 MB
    // of heap, stay. While nobody else uses the map, but for prefetch().
    void clear() {
        m_root.for_each([](REGIONS& regions) {
            regions.for_each([](SLABS& slabs) {
                for (SLAB& slab : slabs)
                    slab.clear();
            });
        });
    }

  private:
    static constexpr unsigned SLAB_BITS = 14;
    static constexpr unsigned DIRECTORY_BITS = 11;
    static constexpr unsigned ADDRESS_BITS = SLAB_BITS + 3 * DIRECTORY_BITS;
    static constexpr unsigned LOCK_BITS = 6;
    static constexpr std::uint32_t NO_BLOCK = 0;

    // The records of one slab; under its lock but for the making. One word.
    class SLAB {
      public:
        SLAB() = default;
        SLAB(const SLAB&) = delete;
        SLAB& operator=(const SLAB&) = delete;
        ~SLAB() { delete[] records(word()); }

        // Null while the slab has no records at all.
        RECORD* place_of(std::uint32_t mark) const { return place_in(word(), mark); }

        // Without the lock: the records may be gone by now, which a prefetch doesn't mind.
        void prefetch(std::uint32_t mark) const { __builtin_prefetch(place_in(word(), mark), 1); }

        void clear() { delete[] records(m_records_and_shift.exchange(0, std::memory_order_relaxed)); }

        // The place of the block, with no other block in it. Throws std::bad_alloc.
        RECORD& place_for(std::uint32_t mark) {
            RECORD* place = place_of(mark);
            while (place == nullptr || (place->mark != NO_BLOCK && place->mark != mark)) {
                refine(place == nullptr ? SLAB_BITS : finest_shared_bit(place->mark, mark));
                place = place_of(mark);
            }
            return *place;
        }

      private:
        static constexpr std::uintptr_t SHIFT_BITS = 15; // the memory of the heap leaves them free
        static_assert(sizeof(RECORD) > SHIFT_BITS,
                      "with them the word still points into the records, for whoever "
                      "looks for leaks");

        std::uintptr_t word() const { return m_records_and_shift.load(std::memory_order_relaxed); }
        static RECORD* records(std::uintptr_t word) { return reinterpret_cast<RECORD*>(word & ~SHIFT_BITS); }
        static unsigned shift(std::uintptr_t word) { return static_cast<unsigned>(word & SHIFT_BITS); }
        static RECORD* place_in(std::uintptr_t word, std::uint32_t mark) {
            RECORD* const first = records(word);
            return first != nullptr ? first + ((mark - 1) >> shift(word)) : nullptr;
        }

        // Records of so many bytes as two to this power part the two blocks.
        static unsigned finest_shared_bit(std::uint32_t one, std::uint32_t other) {
            return static_cast<unsigned>(std::bit_width((one - 1) ^ (other - 1))) - 1;
        }

        [[gnu::noinline]] void refine(unsigned finer) {
            RECORD* const old = records(word());
            const std::size_t old_count = old != nullptr ? std::size_t{1} << (SLAB_BITS - shift(word())) : 0;
            RECORD* const fresh = new RECORD[std::size_t{1} << (SLAB_BITS - finer)];
            for (std::size_t at = 0; at < old_count; ++at)
                if (old[at].mark != NO_BLOCK)
                    fresh[(old[at].mark - 1) >> finer] = old[at];
            m_records_and_shift.store(reinterpret_cast<std::uintptr_t>(fresh) | finer,
                                      std::memory_order_relaxed);
            delete[] old;
        }

        std::atomic<std::uintptr_t> m_records_and_shift{0};
    };

    // NODE  what the entries lead to, made when first asked for
    template <class NODE>
    class DIRECTORY {
      public:
        DIRECTORY() = default;
        DIRECTORY(const DIRECTORY&) = delete;
        DIRECTORY& operator=(const DIRECTORY&) = delete;
        ~DIRECTORY() {
            for (std::atomic<NODE*>& node : m_nodes)
                delete node.load(std::memory_order_relaxed);
        }

        NODE* find(std::uintptr_t index) const { return entry(index).load(std::memory_order_acquire); }

        // Throws std::bad_alloc.
        NODE& find_or_make(std::uintptr_t index) {
            NODE* const node = find(index);
            return node != nullptr ? *node : make(index);
        }

        // Calls visit(NODE&) for each.
        template <class VISIT>
        void for_each(VISIT visit) {
            for (std::atomic<NODE*>& entry : m_nodes)
                if (NODE* const node = entry.load(std::memory_order_relaxed))
                    visit(*node);
        }

      private:
        std::atomic<NODE*>& entry(std::uintptr_t index) { return m_nodes[index % m_nodes.size()]; }
        const std::atomic<NODE*>& entry(std::uintptr_t index) const {
            return m_nodes[index % m_nodes.size()];
        }

        // Of two threads that make one at the same time one wins, and both use its node.
        [[gnu::noinline]] NODE& make(std::uintptr_t index) {
            auto fresh = std::make_unique<NODE>();
            NODE* winner = nullptr;
            if (entry(index).compare_exchange_strong(winner, fresh.get(), std::memory_order_acq_rel,
                                                     std::memory_order_acquire))
                winner = fresh.release();
            return *winner;
        }

        std::array<std::atomic<NODE*>, std::size_t{1} << DIRECTORY_BITS> m_nodes{};
    };
    using SLABS = std::array<SLAB, std::size_t{1} << DIRECTORY_BITS>;
    using REGIONS = DIRECTORY<SLABS>;

    // Where the block begins in its slab, counted from 1.
    static std::uint32_t mark_of(const void* block) {
        constexpr std::uintptr_t LAST_OFFSET = (std::uintptr_t{1} << SLAB_BITS) - 1;
        return static_cast<std::uint32_t>((reinterpret_cast<std::uintptr_t>(block) & LAST_OFFSET) + 1);
    }

    // Calls change(RECORD&) with the slab locked. False when the block isn't there.
    template <class CHANGE>
    [[gnu::always_inline]] bool use(const void* block, CHANGE change) {
        const SLAB* const slab = find_slab(block);
        if (slab == nullptr)
            return false;
        const MEM_SPIN_GUARD guard(lock_of(block));
        RECORD* const place = slab->place_of(mark_of(block));
        if (place == nullptr || place->mark != mark_of(block))
            return false;
        change(*place);
        return true;
    }

    static void enter(RECORD& place, std::uint32_t mark, const RECORD& record) {
        place = record;
        place.mark = mark;
    }

    static std::uintptr_t number_of_slab(const void* block) {
        return reinterpret_cast<std::uintptr_t>(block) >> SLAB_BITS;
    }

    static bool is_in_user_space(std::uintptr_t slab) { return slab >> (ADDRESS_BITS - SLAB_BITS) == 0; }

    SLAB* find_slab(const void* block) const {
        const std::uintptr_t slab = number_of_slab(block);
        if (!is_in_user_space(slab)) [[unlikely]]
            return nullptr;
        const REGIONS* const regions = m_root.find(slab >> (2 * DIRECTORY_BITS));
        SLABS* const slabs = regions != nullptr ? regions->find(slab >> DIRECTORY_BITS) : nullptr;
        return slabs != nullptr ? &(*slabs)[slab % slabs->size()] : nullptr;
    }

    SLAB& slab_for(const void* block) {
        const std::uintptr_t slab = number_of_slab(block);
        if (!is_in_user_space(slab)) [[unlikely]]
            throw std::bad_alloc();
        SLABS& slabs = m_root.find_or_make(slab >> (2 * DIRECTORY_BITS)).find_or_make(slab >> DIRECTORY_BITS);
        return slabs[slab % slabs.size()];
    }

    MEM_SPIN_LOCK& lock_of(const void* block) { return m_locks[number_of_slab(block) % m_locks.size()]; }

    struct LOCK : MEM_BUSY_SPIN_LOCK {
        LOCK() : MEM_BUSY_SPIN_LOCK(MEM_LOCK_RANK::blocks) {}
    };
    std::array<LOCK, std::size_t{1} << LOCK_BITS> m_locks;
    DIRECTORY<REGIONS> m_root;
};
