#include "vbx/mem/debug_aids/fill_patterns.h"

#include "vbx/mem/mem_tbb_tracker/events/callback_table.h"
#include "vbx/mem/out_of_memory/host_call.h"

#include <atomic>
#include <cstring>

namespace {

struct PATTERN {
    std::atomic<int> value{0};
    std::atomic<bool> is_on{false};

    void set(int pattern) {
        value.store(pattern, std::memory_order_relaxed);
        is_on.store(true, std::memory_order_release);
        mem_table_add(mem_fill_handler);
    }
};

constinit PATTERN alloc_pattern;
constinit PATTERN free_pattern;

// The allocator keeps blocks of these sizes in slabs, in slots of the size that its events tell; the slots
// are counted from the end of the slab.
constexpr std::uint64_t SMALLEST_SLOT_OF_SLAB = 1025;
constexpr std::uint64_t LARGEST_SLOT_OF_SLAB = 8128;
constexpr std::uint64_t SLAB_BYTES = 16384;

// Where the slot of the block begins. An aligned block may stand further up, and what lies below it belongs
// to it as well.
void* start_of_slot(void* block, std::uint64_t slot) {
    if (slot < SMALLEST_SLOT_OF_SLAB || slot > LARGEST_SLOT_OF_SLAB)
        return block;
    const std::uint64_t distance = SLAB_BYTES - reinterpret_cast<std::uintptr_t>(block) % SLAB_BYTES;
    const std::uint64_t rest = distance % slot;
    return rest == 0 ? block : static_cast<char*>(block) - (slot - rest);
}

} // namespace

void mem_fill_handler(void* block, std::uint64_t requested_size, std::uint64_t allocated_size,
                      bool is_allocation) {
    const PATTERN& pattern = is_allocation ? alloc_pattern : free_pattern;
    if (!pattern.is_on.load(std::memory_order_acquire))
        return;
    const std::uint64_t length = requested_size != 0 ? requested_size : allocated_size;
    const int byte = pattern.value.load(std::memory_order_relaxed) & 0xFF;
    std::memset(start_of_slot(block, allocated_size), byte, length);
}

void mem_set_alloc_pattern(int pattern) try { alloc_pattern.set(pattern); } catch (const std::bad_alloc&) {
    mem_fail_host_call();
}

void mem_set_free_pattern(int pattern) try { free_pattern.set(pattern); } catch (const std::bad_alloc&) {
    mem_fail_host_call();
}

void mem_disable_alloc_patterns() try {
    alloc_pattern.is_on.store(false, std::memory_order_relaxed);
    free_pattern.is_on.store(false, std::memory_order_relaxed);
    mem_table_remove(mem_fill_handler);
} catch (const std::bad_alloc&) {
    mem_fail_host_call();
}
