// The hook and the two ways to call it.
#pragma once

#include "vbx/platform/tbbamalloc/heap_functions.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <errno.h>

#include <atomic>

extern std::atomic<tbbk_mem_tracker_callback> tbbk_hook __attribute__((visibility("hidden")));

// See tbbk_entry_frame.
extern __thread const void* tbbk_frame __attribute__((tls_model("initial-exec"), visibility("hidden")));

// The canonical frame address of the function that this is expanded in. An entry point hands it to inlined
// helpers only, so that the value is that of the exported function at every optimisation level.
#define TBBK_FRAME __builtin_dwarf_cfa()

// To be read inside a TBBK_ENTRY, once a call: what was read must not be called behind a quiesce.
inline tbbk_mem_tracker_callback tbbk_hook_now() noexcept {
    return tbbk_hook.load(std::memory_order_acquire);
}

// Calls the hook for one event. Keeps errno, which belongs to the caller of malloc or free.
[[gnu::always_inline]] inline void tbbk_report(tbbk_mem_tracker_callback hook, const void* frame, void* block,
                                               std::size_t requested, std::size_t allocated,
                                               bool is_allocation) noexcept {
    const int saved_errno = errno;
    const void* const outer_frame = tbbk_frame;
    tbbk_frame = frame;
    hook(block, requested, allocated, is_allocation);
    tbbk_frame = outer_frame;
    errno = saved_errno;
}

// Reports a block that has just been obtained.
[[gnu::always_inline]] inline void tbbk_report_new(tbbk_mem_tracker_callback hook, const void* frame,
                                                   void* block, std::size_t requested) noexcept {
    tbbk_report(hook, frame, block, requested, scalable_msize(block), true);
}
