#include "vbx/mem/debug_aids/breakpoint.h"

void mem_breakpoint_handler(void* block, std::uint64_t, std::uint64_t, bool) {
    void* none = nullptr;
    if (mem_breakpoint_address.load(std::memory_order_relaxed) == none)
        mem_breakpoint_address.compare_exchange_strong(none, block, std::memory_order_relaxed);
}
