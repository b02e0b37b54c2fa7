// What is kept of each live block, by its address.
//
//     address  | 3 x 11 bits: three directories |  14 bits: offset in its slab of 16 KB  |
//                                |
//                                +--> SLAB: lock, and a record for each 2^shift bytes
//
//     shift 14   [            block            ]       one block in the slab: the record in the SLAB itself
//     shift 7    [ ][b][b][ ][b][b][b][b][b][b]        ... as fine as the blocks lie
//
// The heap fills a slab with slots of one size, so once the records are as fine as the nearest two blocks,
// each block has its own: nothing is searched, and neighbours share cache lines as they do in the heap. Each
// slab has its lock: those of a thread's own slabs stay with its processor. The memory is that of the
// ordinary heap, asked for inside an event, where the tracker's own requests are turned away; it is given
// back at a clear and at the end only, since most heaps fill the same slabs again.
//
// One lock and mostly one cache line of records an event; 16 to 32 bytes a block with a record of 16 in slabs
// that are full. (oneTBB's concurrent map, which was here before, took 250 instructions for an insert or an
// erase, five locked ones among them, and 70 bytes.)
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
    ~MEM_BLOCK_MAP() { clear(); }
    MEM_BLOCK_MAP(const MEM_BLOCK_MAP&) = delete;
    MEM_BLOCK_MAP& operator=(const MEM_BLOCK_MAP&) = delete;

    // Enters a block, or gives the one that is there this record. Throws std::bad_alloc, with nothing
    // changed; always so at an address that user space doesn't have.
    void insert_or_assign(const void* block, const RECORD& record) {
        SLAB& slab = slab_for(block);
        const MEM_SPIN_GUARD guard(slab.lock);
        slab.enter(slab.place_for(mark_of(block)), mark_of(block), record);
    }

    // Enters a block unless it is there. Throws like the above.
    void insert(const void* block, const RECORD& record) {
        SLAB& slab = slab_for(block);
        const MEM_SPIN_GUARD guard(slab.lock);
        if (RECORD& place = slab.place_for(mark_of(block)); place.mark == NO_BLOCK)
            slab.enter(place, mark_of(block), record);
    }

    // Takes a block out and gives its record. False when it isn't there.
    bool take(const void* block, RECORD& record) {
        SLAB* const slab = find_slab(block);
        if (slab == nullptr)
            return false;
        const MEM_SPIN_GUARD guard(slab->lock);
        RECORD& place = slab->place_of(mark_of(block));
        if (place.mark != mark_of(block))
            return false;
        record = place;
        place.mark = NO_BLOCK;
        return true;
    }

    // Calls visit(const RECORD&); whoever wants to change or take the entry meanwhile waits. False when it
    // isn't there.
    template <class VISIT>
    bool visit(const void* block, VISIT visit) {
        SLAB* const slab = find_slab(block);
        if (slab == nullptr)
            return false;
        const MEM_SPIN_GUARD guard(slab->lock);
        const RECORD& place = slab->place_of(mark_of(block));
        if (place.mark != mark_of(block))
            return false;
        visit(place);
        return true;
    }

    // Forgets all blocks and gives the memory back. While nobody else uses the map.
    void clear() { m_root.clear(); }

  private:
    static constexpr unsigned SLAB_BITS = 14;
    static constexpr unsigned DIRECTORY_BITS = 11;
    static constexpr unsigned ADDRESS_BITS = SLAB_BITS + 3 * DIRECTORY_BITS;
    static constexpr std::uint32_t NO_BLOCK = 0;

    struct SLAB {
        MEM_SPIN_LOCK lock{MEM_LOCK_RANK::accessor};
        RECORD* records MEM_GUARDED_BY(lock) = &first;
        unsigned shift MEM_GUARDED_BY(lock) = SLAB_BITS; // 2^shift bytes of the heap to a record
        RECORD first{};

        SLAB() = default;
        SLAB(const SLAB&) = delete;
        SLAB& operator=(const SLAB&) = delete;
        ~SLAB() MEM_NO_THREAD_SAFETY_ANALYSIS { give_back(records); }

        void give_back(RECORD* old) {
            if (old != &first)
                delete[] old;
        }

        RECORD& place_of(std::uint32_t mark) MEM_REQUIRES(lock) { return records[(mark - 1) >> shift]; }

        // The place of the block, with no other block in it. Throws std::bad_alloc.
        RECORD& place_for(std::uint32_t mark) MEM_REQUIRES(lock) {
            RECORD* place = &place_of(mark);
            while (place->mark != NO_BLOCK && place->mark != mark) {
                refine_to_part(place->mark, mark);
                place = &place_of(mark);
            }
            return *place;
        }

        void enter(RECORD& place, std::uint32_t mark, const RECORD& record) MEM_REQUIRES(lock) {
            place = record;
            place.mark = mark;
        }

        // Makes the records so fine that the two blocks have one each.
        [[gnu::noinline]] void refine_to_part(std::uint32_t one, std::uint32_t other) MEM_REQUIRES(lock) {
            const auto finer = static_cast<unsigned>(std::bit_width((one - 1) ^ (other - 1))) - 1;
            RECORD* const fresh = new RECORD[std::size_t{1} << (SLAB_BITS - finer)];
            for (std::size_t at = 0; at < std::size_t{1} << (SLAB_BITS - shift); ++at)
                if (records[at].mark != NO_BLOCK)
                    fresh[(records[at].mark - 1) >> finer] = records[at];
            give_back(records);
            records = fresh;
            shift = finer;
        }
    };

    // NODE  what the entries lead to, made when first asked for
    template <class NODE>
    struct DIRECTORY {
        std::array<std::atomic<NODE*>, std::size_t{1} << DIRECTORY_BITS> nodes{};

        ~DIRECTORY() { clear(); }

        NODE* find(std::uintptr_t index) const {
            return nodes[index % nodes.size()].load(std::memory_order_acquire);
        }

        // Throws std::bad_alloc.
        NODE& find_or_make(std::uintptr_t index) {
            NODE* const node = find(index);
            return node != nullptr ? *node : make(index);
        }

        // Of two threads that make one at the same time one wins, and both use its node.
        [[gnu::noinline]] NODE& make(std::uintptr_t index) {
            auto fresh = std::make_unique<NODE>();
            NODE* winner = nullptr;
            if (nodes[index % nodes.size()].compare_exchange_strong(
                    winner, fresh.get(), std::memory_order_acq_rel, std::memory_order_acquire))
                winner = fresh.release();
            return *winner;
        }

        void clear() {
            for (std::atomic<NODE*>& node : nodes)
                if (NODE* const old = node.load(std::memory_order_relaxed)) {
                    node.store(nullptr, std::memory_order_relaxed);
                    delete old;
                }
        }
    };
    using SLABS = DIRECTORY<SLAB>;
    using REGIONS = DIRECTORY<SLABS>;

    // Where the block begins in its slab, counted from 1.
    static std::uint32_t mark_of(const void* block) {
        constexpr std::uintptr_t LAST_OFFSET = (std::uintptr_t{1} << SLAB_BITS) - 1;
        return static_cast<std::uint32_t>((reinterpret_cast<std::uintptr_t>(block) & LAST_OFFSET) + 1);
    }

    SLAB* find_slab(const void* block) const {
        const std::uintptr_t slab = reinterpret_cast<std::uintptr_t>(block) >> SLAB_BITS;
        if (slab >> (ADDRESS_BITS - SLAB_BITS) != 0) [[unlikely]]
            return nullptr;
        const REGIONS* const regions = m_root.find(slab >> (2 * DIRECTORY_BITS));
        const SLABS* const slabs = regions != nullptr ? regions->find(slab >> DIRECTORY_BITS) : nullptr;
        return slabs != nullptr ? slabs->find(slab) : nullptr;
    }

    SLAB& slab_for(const void* block) {
        const std::uintptr_t slab = reinterpret_cast<std::uintptr_t>(block) >> SLAB_BITS;
        if (slab >> (ADDRESS_BITS - SLAB_BITS) != 0) [[unlikely]]
            throw std::bad_alloc();
        return m_root.find_or_make(slab >> (2 * DIRECTORY_BITS))
            .find_or_make(slab >> DIRECTORY_BITS)
            .find_or_make(slab);
    }

    DIRECTORY<REGIONS> m_root;
};
