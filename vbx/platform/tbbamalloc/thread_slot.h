// One slot a thread: where a thread says that it is inside an entry point of the shim.
//
//   thread A --TLS--> [ tid 71, depth 1 ]  |
//   thread B --TLS--> [ tid 72, depth 0 ]  | static slots, then chunks from mmap, never given back
//                     [ tid 0,  ...     ]  |
//
// Slots live outside the threads' own memory, because a thread that waits for all others reads every slot and
// must not care whether its thread has just ended. A slot with tid 0 is free. Invariant: only the owner
// writes `depth` and `raises` as long as it lives; a forked child is without the owners of the other slots.
#pragma once

#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <atomic>
#include <cstdint>

struct alignas(64) TBBK_SLOT {
    std::atomic<std::uint32_t> tid;
    std::atomic<std::uint32_t> depth;        // entry points that the thread is inside of
    std::atomic<std::uint32_t> parked;       // non-zero while the thread waits for its turn to raise the gate
    std::atomic<std::uint32_t> slow_entries; // entries that found the gate word non-zero
    std::atomic<std::uint32_t> raises;       // gates that this thread keeps up
    TBBK_THREAD_WORDS words;
};
static_assert(sizeof(TBBK_SLOT) == 64, "one cache line");

// The calling thread's slot, null before its first entry and after its last key destructor.
extern __thread TBBK_SLOT* tbbk_own_slot __attribute__((tls_model("initial-exec"), visibility("hidden")));

// Finds a slot for the calling thread and arms the thread's end, which gives it back. Without memory for
// slots it gives a shared one which no one waits for: that thread goes unprotected from then on. Makes no
// allocation through malloc, keeps errno, may be interrupted by a signal handler that allocates.
TBBK_SLOT& tbbk_slot_acquire() noexcept;

// The calling thread's slot, acquired if need be.
inline TBBK_SLOT& tbbk_slot_own() noexcept {
    TBBK_SLOT* const slot = tbbk_own_slot;
    return slot != nullptr ? *slot : tbbk_slot_acquire();
}

// Gives the calling thread's slot back, behind the last key destructor that may allocate.
void tbbk_slot_leave(TBBK_SLOT& own) noexcept;

// Gives a slot back, and lowers what is still raised in it. Caller is its owner, or knows that the owner is
// gone.
void tbbk_slot_release(TBBK_SLOT& slot) noexcept;

// Gives the slot back if the thread that owned it no longer exists; false when it does. May set errno.
bool tbbk_slot_collect_if_dead(TBBK_SLOT& slot) noexcept;

// Walks all slots in use: the first after `slot`, or the first of all for null; null behind the last.
TBBK_SLOT* tbbk_slot_next(TBBK_SLOT* slot) noexcept;

// In a forked child: frees the slots of the threads that the fork left behind. Gives whether one of them was
// inside an entry point, so that the heap may have been copied in the middle of a change.
bool tbbk_slots_keep_only(TBBK_SLOT& own) noexcept;
