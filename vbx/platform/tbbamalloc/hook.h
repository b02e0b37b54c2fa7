// The hook and the two events that it is told.
#pragma once

#include "vbx/platform/tbbamalloc/slot_size.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <atomic>

extern std::atomic<tbbk_mem_tracker_callback> tbbk_hook __attribute__((visibility("hidden")));

extern std::atomic<tbbk_free_check> tbbk_check_of_frees __attribute__((visibility("hidden")));
extern std::atomic<tbbk_free_notice> tbbk_notice_of_frees __attribute__((visibility("hidden")));

// See tbbk_entry_frame.
extern __thread const void* tbbk_frame __attribute__((tls_model("initial-exec"), visibility("hidden")));

// The canonical frame address of the function that this is expanded in. An entry point hands it to inlined
// helpers only, so that the value is that of the exported function at every optimisation level.
#define TBBK_FRAME __builtin_dwarf_cfa()

// To be read inside a TBBK_ENTRY, once a call: what was read must not be called behind a quiesce.
inline tbbk_mem_tracker_callback tbbk_hook_now() noexcept {
    return tbbk_hook.load(std::memory_order_acquire);
}

struct TBBK_EVENT {
    void* block;
    std::size_t requested; // bytes
    std::size_t allocated; // bytes
    bool is_allocation;
};

// What is called by the shim sees `frame` as the entry frame; then that of an entry further out comes back.
class TBBK_FRAME_SCOPE {
  public:
    explicit TBBK_FRAME_SCOPE(const void* frame) noexcept { tbbk_frame = frame; }
    ~TBBK_FRAME_SCOPE() { tbbk_frame = m_outer; }
    TBBK_FRAME_SCOPE(const TBBK_FRAME_SCOPE&) = delete;
    TBBK_FRAME_SCOPE& operator=(const TBBK_FRAME_SCOPE&) = delete;

  private:
    const void* const m_outer = tbbk_frame;
};

inline void tbbk_call_hook(tbbk_mem_tracker_callback hook, const void* frame,
                           const TBBK_EVENT& event) noexcept {
    const TBBK_FRAME_SCOPE scope(frame);
    hook(event.block, event.requested, event.allocated, event.is_allocation);
}

// Calls the hook for an event with `frame` as the entry frame. Keeps errno, which belongs to the caller of
// malloc or free.
void tbbk_report_event(tbbk_mem_tracker_callback hook, const void* frame, const TBBK_EVENT& event) noexcept;

// A block of tbbmalloc's that was just obtained, at its heap's choice or at an alignment. Sizes in bytes; the
// event tells the size of the slot. Out of line, so that a call without a hook keeps few registers.
using TBBK_REPORT = void(tbbk_mem_tracker_callback hook, const void* frame, void* block,
                         std::size_t requested) noexcept;
TBBK_REPORT tbbk_report_allocation;
TBBK_REPORT tbbk_report_aligned_allocation;

// One that is about to go back, for callers that are out of line themselves. Leaves errno to them.
[[gnu::always_inline]] inline void tbbk_report_free(tbbk_mem_tracker_callback hook, const void* frame,
                                                    void* block, std::size_t usable) noexcept {
    tbbk_call_hook(hook, frame, {block, 0, tbbk_slot_size(block, usable), false});
}

// Inside a TBBK_ENTRY, so that who removes the notice can wait for its end.
inline void tbbk_give_notice_of_free(const void* block) noexcept {
    if (const tbbk_free_notice notice = tbbk_notice_of_frees.load(std::memory_order_acquire))
        notice(block);
}

void tbbk_run_free_check(tbbk_free_check check, const void* frame, const void* block) noexcept;

// Shows a block that was given back by the caller to the check of frees, if there is one, before anything of
// it is read. Inside a TBBK_ENTRY and with a hook only: without one the check would not have seen the blocks.
inline void tbbk_show_to_free_check(const void* frame, const void* block) noexcept {
    if (const tbbk_free_check check = tbbk_check_of_frees.load(std::memory_order_acquire)) [[unlikely]]
        tbbk_run_free_check(check, frame, block);
}
