// The size of the slot that a block lies in, which is what events tell as its allocated size.
//
//     slab of 16384 bytes   | header |  ...  |   slot   |   slot   |   slot   |   counted from the end
//     malloc(3000)                           [----4032----------]            begins its slot
//     memalign(1024, 2500)                        [--3072-------]            begins anywhere in its slot
//
// What the heap calls the usable size of an aligned block is only the rest of its slot. A callback that works
// out from a size where the slot begins would be led into the neighbour by it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

// The largest slot of a slab. Larger blocks have pages of their own, where no arithmetic on slots applies.
constexpr std::size_t tbbk_largest_slot = 8128;

// Up to here a block that no alignment was asked for always begins its slot.
constexpr std::size_t tbbk_largest_plain_slot = 1024;

// Alignments up to this one every slot has; above it the heap makes room for the block to move in.
constexpr std::size_t tbbk_natural_alignment = 64;

extern std::atomic<bool> tbbk_blocks_lie_anywhere __attribute__((visibility("hidden")));

std::size_t tbbk_find_slot_size(void* block, std::size_t usable) noexcept;

// block   a live block of tbbmalloc's
// usable  its usable size in bytes
// Gives the size of its slot: at least `usable`. Where the block doesn't lie where a slot of a slab would
// (tbbmalloc has some such blocks from its own first moments) no more than 1024, a size that nobody looks for
// a slot with.
inline std::size_t tbbk_slot_size(void* block, std::size_t usable) noexcept {
    if (usable <= tbbk_largest_plain_slot && !tbbk_blocks_lie_anywhere.load(std::memory_order_relaxed))
        [[likely]]
        return usable;
    return tbbk_find_slot_size(block, usable);
}

// The slots of new blocks that the heap was asked for without an alignment hang on the requested bytes alone:
// each is asked for once. In steps of 8 bytes, as all slots are; 0: not asked yet.
constexpr std::size_t tbbk_slot_step = 8;
extern std::atomic<std::uint16_t> tbbk_known_slots[tbbk_largest_slot / tbbk_slot_step + 1]
    __attribute__((visibility("hidden")));

inline std::atomic<std::uint16_t>& tbbk_known_slot(std::size_t requested) noexcept {
    return tbbk_known_slots[(requested + tbbk_slot_step - 1) / tbbk_slot_step];
}

// Asks the heap, and remembers.
std::size_t tbbk_ask_slot_of_request(void* block, std::size_t requested) noexcept;

// The size of the slot of such a block.
inline std::size_t tbbk_slot_of_request(void* block, std::size_t requested) noexcept {
    if (requested <= tbbk_largest_slot) [[likely]]
        if (const std::size_t slot = tbbk_known_slot(requested).load(std::memory_order_relaxed)) [[likely]]
            return slot;
    return tbbk_ask_slot_of_request(block, requested);
}

// To be told before the heap is asked for a block at this alignment. Until the first one above
// tbbk_natural_alignment every block begins its slot, and the heap needn't be asked where. (A program that
// gets blocks from tbbmalloc itself at such alignments gives them back to it as well.)
inline void tbbk_note_alignment(std::size_t alignment) noexcept {
    if (alignment > tbbk_natural_alignment && !tbbk_blocks_lie_anywhere.load(std::memory_order_relaxed))
        tbbk_blocks_lie_anywhere.store(true, std::memory_order_relaxed);
}

// The size to ask the heap for so that a block which gets pages of its own never has a usable size that a
// slot could have: tbbmalloc keeps the size that was asked for.

// For a new block of `size` bytes at an alignment.
std::size_t tbbk_size_for_alignment(std::size_t size, std::size_t alignment) noexcept;
// For a block that is to have `size` bytes from now on and may stay where it is.
std::size_t tbbk_size_for_resize(void* block, std::size_t size) noexcept;
