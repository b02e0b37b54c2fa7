// The steps that the allocating entry points share.
#pragma once

#include "vbx/platform/tbbamalloc/gate.h"
#include "vbx/platform/tbbamalloc/heap.h"
#include "vbx/platform/tbbamalloc/hook.h"
#include "vbx/platform/tbbamalloc/new_handler.h"

#include <stdint.h>

// No object may be larger, and the heap's own arithmetic stays far from overflow.
constexpr std::size_t tbbk_largest_request = PTRDIFF_MAX;

// Obtains a block from `obtain` (a function of the heap that gives null on failure), tells the hook of it by
// REPORT, hands it to `finish` within the same entry and retries as the new handler tells.
// requested  bytes as the caller asked for, for the event and the new handler
template <TBBK_REPORT REPORT = tbbk_report_allocation, class OBTAIN, class FINISH>
[[gnu::always_inline]] inline void* tbbk_allocate(const void* frame, std::size_t requested, OBTAIN obtain,
                                                  FINISH finish) noexcept {
    do {
        TBBK_ENTRY entry;
        if (void* const block = obtain()) {
            if (const tbbk_mem_tracker_callback hook = tbbk_hook_now())
                REPORT(hook, frame, block, requested);
            finish(block);
            return block;
        }
    } while (tbbk_should_retry(requested));
    return nullptr;
}

// malloc for the entry points.
[[gnu::always_inline]] inline void* tbbk_allocate_plain(const void* frame, std::size_t size) noexcept {
    return tbbk_allocate(
        frame, size, [size] { return size <= tbbk_largest_request ? tbbk_heap.obtain(size) : nullptr; },
        [](void*) {});
}
