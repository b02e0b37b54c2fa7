#include "vbx/platform/tbbamalloc/hook.h"

#include "vbx/platform/tbbamalloc/gate.h"
#include "vbx/platform/tbbamalloc/heap.h"
#include "vbx/platform/tbbamalloc/slot_size.h"

#include <errno.h>

constinit std::atomic<tbbk_mem_tracker_callback> tbbk_hook = nullptr;
constinit std::atomic<tbbk_free_check> tbbk_check_of_frees = nullptr;
constinit std::atomic<tbbk_free_notice> tbbk_notice_of_frees = nullptr;
__thread const void* tbbk_frame = nullptr;

void tbbk_report_event(tbbk_mem_tracker_callback hook, const void* frame, const TBBK_EVENT& event) noexcept {
    const int saved_errno = errno;
    tbbk_call_hook(hook, frame, event);
    errno = saved_errno;
}

void tbbk_report_allocation(tbbk_mem_tracker_callback hook, const void* frame, void* block,
                            std::size_t requested) noexcept {
    tbbk_report_event(hook, frame, {block, requested, tbbk_slot_of_request(block, requested), true});
}

void tbbk_report_aligned_allocation(tbbk_mem_tracker_callback hook, const void* frame, void* block,
                                    std::size_t requested) noexcept {
    tbbk_report_event(hook, frame, {block, requested, tbbk_slot_size(block, scalable_msize(block)), true});
}

void tbbk_run_free_check(tbbk_free_check check, const void* frame, const void* block) noexcept {
    const int saved_errno = errno;
    {
        const TBBK_FRAME_SCOPE scope(frame);
        check(block);
    }
    errno = saved_errno;
}

void tbbk_set_mem_tracker_callback(tbbk_mem_tracker_callback callback) noexcept {
    // With a hook the entry points ask tbbmalloc for the sizes of blocks, which would then be the C
    // library's.
    tbbk_hook.exchange(tbbk_heap.is_abandoned ? nullptr : callback);
}

void tbbk_set_free_check(tbbk_free_check check) noexcept {
    tbbk_check_of_frees.store(check, std::memory_order_release);
}

void tbbk_set_free_notice(tbbk_free_notice notice) noexcept {
    tbbk_notice_of_frees.store(notice, std::memory_order_release);
}

const void* tbbk_entry_frame() noexcept {
    return tbbk_frame;
}

unsigned tbbk_entry_depth() noexcept {
    const TBBK_SLOT* const slot = tbbk_own_slot;
    return slot == nullptr ? 0 : slot->depth.load(std::memory_order_relaxed);
}
