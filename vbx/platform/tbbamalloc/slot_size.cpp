#include "vbx/platform/tbbamalloc/slot_size.h"

#include "vbx/platform/tbbamalloc/foreign_block.h"

#include <stdint.h>

namespace {

constexpr std::size_t slab = 16384;

// tbbmalloc takes an address that is off this boundary for the beginning of a slot, and one on it for a block
// that may begin anywhere in its own.
constexpr std::size_t suspicious_alignment = 128;

std::size_t no_slot(void*) noexcept {
    return 0;
}

bool lies_in_slot(std::uintptr_t address, std::size_t usable, std::size_t slot) noexcept {
    const std::size_t to_end = slab - address % slab;
    return usable <= slot && slot <= tbbk_largest_slot && usable <= to_end && (to_end - usable) % slot == 0;
}

} // namespace

constinit std::atomic<bool> tbbk_blocks_lie_anywhere = false;
constinit std::atomic<std::uint16_t> tbbk_known_slots[tbbk_largest_slot / tbbk_slot_step + 1] = {};

std::size_t tbbk_find_slot_size(void* block, std::size_t usable) noexcept {
    if (usable > tbbk_largest_slot)
        return usable;
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(block);
    std::size_t slot = usable;
    // Off the boundary the heap believes to stand at the beginning of a slot and says how large the slots of
    // the slab are. The answer is read from the slab's header alone, whatever lies at the address.
    if (address % suspicious_alignment == 0 && tbbk_blocks_lie_anywhere.load(std::memory_order_relaxed))
        slot = __TBB_malloc_safer_msize(static_cast<char*>(block) + suspicious_alignment / 8, no_slot);
    if (usable <= tbbk_largest_plain_slot && slot <= tbbk_largest_plain_slot)
        return usable;
    if (lies_in_slot(address, usable, slot))
        return slot;
    return usable < tbbk_largest_plain_slot ? usable : tbbk_largest_plain_slot;
}

std::size_t tbbk_ask_slot_of_request(void* block, std::size_t requested) noexcept {
    const std::size_t slot = tbbk_slot_size(block, scalable_msize(block));
    if (requested <= tbbk_largest_slot)
        tbbk_known_slot(requested).store(static_cast<std::uint16_t>(slot), std::memory_order_relaxed);
    return slot;
}

std::size_t tbbk_size_for_alignment(std::size_t size, std::size_t alignment) noexcept {
    const bool fits_plain_slot = size <= tbbk_largest_plain_slot && alignment <= tbbk_largest_plain_slot;
    const bool fits_slot = alignment <= tbbk_natural_alignment || size + alignment <= tbbk_largest_slot;
    return size > tbbk_largest_slot || fits_plain_slot || fits_slot ? size : tbbk_largest_slot + 1;
}

std::size_t tbbk_size_for_resize(void* block, std::size_t size) noexcept {
    if (size > tbbk_largest_slot || tbbk_own_size(block) <= tbbk_largest_slot)
        return size;
    return tbbk_largest_slot + 1;
}
