// A place for a debugger's breakpoint that every allocation and free comes by.
#pragma once

#include <atomic>
#include <cstdint>

// The block of the first event. Nothing reads it but a debugger.
inline constinit std::atomic<void*> mem_breakpoint_address{nullptr};

// The event callback. Exported and without a body that a compiler could move about, so that debuggers find it
// in a stripped library too: `break mem_breakpoint_handler if $rdi == ...` (the first argument is the block).
extern "C" [[gnu::visibility("default"), gnu::noinline]] void
mem_breakpoint_handler(void* block, std::uint64_t requested_size, std::uint64_t allocated_size,
                       bool is_allocation);
