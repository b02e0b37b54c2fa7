// malloc, calloc, realloc, free and their relatives.
#include "vbx/platform/tbbamalloc/allocate.h"
#include "vbx/platform/tbbamalloc/foreign_block.h"
#include "vbx/platform/tbbamalloc/slot_size.h"
#include "vbx/platform/tbbamalloc/zero_block.h"

#include <errno.h>
#include <string.h>

namespace {

// A block of tbbmalloc's, behind a hook call: in which the process may have been forked.
void give_back_own(void* block) noexcept {
    if (!tbbk_heap.is_abandoned) [[likely]]
        scalable_free(block);
}

// The hook is told before the block goes back: afterwards another thread can be given the address, and its
// event would overtake this one. There is a hook only while the heap is tbbmalloc's, which is not asked again
// then whether the block is its own.
[[gnu::noinline]] void give_back_with_event(tbbk_mem_tracker_callback hook, const void* frame,
                                            void* block) noexcept {
    tbbk_give_notice_of_free(block);
    tbbk_show_to_free_check(frame, block);
    const std::size_t usable = tbbk_own_size(block);
    if (usable == 0)
        return __libc_free(block);
    tbbk_report_free(hook, frame, block, usable);
    give_back_own(block);
}

[[gnu::always_inline]] inline void free_block(const void* frame, void* block) noexcept {
    if (block == nullptr)
        return;
    // POSIX lets free() leave no trace in errno, and giving memory back to the system may fail.
    const int saved_errno = errno;
    {
        TBBK_ENTRY entry;
        if (const tbbk_mem_tracker_callback hook = tbbk_hook_now())
            give_back_with_event(hook, frame, block);
        else
            tbbk_heap.give_back(block);
    }
    errno = saved_errno;
}

// The block that holds the contents from now on, or null when there is no memory. The allocator's own
// realloc can't be used with a hook: whichever of the two events came first, a callback that writes into
// blocks would write into the contents.
[[gnu::always_inline]] inline void* move_with_events(tbbk_mem_tracker_callback hook, const void* frame,
                                                     void* block, std::size_t old_size,
                                                     std::size_t size) noexcept {
    if (size <= old_size && size > old_size / 2)
        return block;
    void* const moved = scalable_malloc(size);
    if (moved == nullptr)
        return nullptr;
    tbbk_report_allocation(hook, frame, moved, size);
    memcpy(moved, block, size < old_size ? size : old_size);
    const int saved_errno = errno;
    tbbk_report_free(hook, frame, block, old_size);
    give_back_own(block);
    errno = saved_errno;
    return moved;
}

[[gnu::always_inline]] inline void* reallocate_once(const void* frame, void* block,
                                                    std::size_t size) noexcept {
    if (size > tbbk_largest_request)
        return nullptr;
    TBBK_ENTRY entry;
    if (const tbbk_mem_tracker_callback hook = tbbk_hook_now()) {
        tbbk_show_to_free_check(frame, block);
        // A foreign block was never reported and stays foreign, so that its free isn't reported either.
        const std::size_t old_size = tbbk_own_size(block);
        return old_size == 0 ? __libc_realloc(block, size)
                             : move_with_events(hook, frame, block, old_size, size);
    }
    return tbbk_heap.resize(block, tbbk_size_for_resize(block, size));
}

[[gnu::always_inline]] inline void* reallocate(const void* frame, void* block, std::size_t size) noexcept {
    if (block == nullptr)
        return tbbk_allocate_plain(frame, size);
    if (size == 0) {
        free_block(frame, block);
        return nullptr;
    }
    do {
        if (void* const result = reallocate_once(frame, block, size))
            return result;
    } while (tbbk_should_retry(size));
    return nullptr;
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

void* malloc(std::size_t size) noexcept {
    return tbbk_allocate_plain(TBBK_FRAME, size);
}

void* tbbk_obtain_quietly(std::size_t size) noexcept {
    const TBBK_ENTRY entry;
    return tbbk_heap.obtain(size);
}

void tbbk_give_back_quietly(void* block) noexcept {
    if (block == nullptr)
        return;
    const TBBK_ENTRY entry;
    tbbk_heap.give_back(block);
}

void free(void* block) noexcept {
    free_block(TBBK_FRAME, block);
}

// A name of old C libraries that old programs still call.
void cfree(void* block) noexcept {
    free_block(TBBK_FRAME, block);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    std::size_t total = 0;
    if (__builtin_mul_overflow(count, size, &total)) {
        errno = ENOMEM;
        return nullptr;
    }
    // Zeroed behind the event: the caller's zeros are safe from a callback that fills blocks.
    return tbbk_allocate(
        TBBK_FRAME, total,
        [total] { return total <= tbbk_largest_request ? tbbk_heap.obtain(total) : nullptr; },
        [total](void* block) { tbbk_zero_block(block, total); });
}

void* realloc(void* block, std::size_t size) noexcept {
    return reallocate(TBBK_FRAME, block, size);
}

void* reallocarray(void* block, std::size_t count, std::size_t size) noexcept {
    std::size_t total = 0;
    if (__builtin_mul_overflow(count, size, &total)) {
        errno = ENOMEM;
        return nullptr;
    }
    return reallocate(TBBK_FRAME, block, total);
}
}
#pragma GCC visibility pop
