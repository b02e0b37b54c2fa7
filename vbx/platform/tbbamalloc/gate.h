// The gate before the shim's entry points, and the mark of a thread that is inside of one.
//
//   thread                                  raiser
//   own depth = 1                           gate word += raiser_unit
//   (compiler barrier only)                 membarrier: a full fence on every running thread
//   gate word non-zero? back out, wait      wait until each other slot's depth is 0
//   ... heap call, hook call ...
//   own depth = 0
//
// The entry needs no fence of its own, since the raiser's membarrier is one at whatever instruction the other
// thread stands: either the raiser sees its depth, or the thread sees the gate. Where membarrier can't be had
// the word keeps `fence_bit`, which sends every entry through the slow path and its fence.
#pragma once

#include "vbx/platform/tbbamalloc/thread_slot.h"

constexpr std::uint32_t tbbk_fence_bit = 1;
constexpr std::uint32_t tbbk_probe_bit = 2;
constexpr std::uint32_t tbbk_raiser_unit = 4;

extern std::atomic<std::uint32_t> tbbk_gate __attribute__((visibility("hidden")));

// While non-zero, threads wait at the gate for a limited time only.
extern std::atomic<std::uint32_t> tbbk_forks_under_way __attribute__((visibility("hidden")));

// Tries to register the process for membarrier; without it the entries keep their fences.
void tbbk_gate_register_fences() noexcept;

// Behind this call every other thread has either seen the raised gate or is visible in its slot.
void tbbk_gate_fence_all_threads() noexcept;

// The rest of an entry that found the gate word non-zero: waits while the gate is up, unless this is a nested
// entry or the thread holds the gate up itself. Keeps errno.
void tbbk_enter_slowly(TBBK_SLOT& slot, std::uint32_t outer_depth) noexcept;

// Marks the thread as inside. Gives the depth to go back to.
inline std::uint32_t tbbk_enter(TBBK_SLOT& slot) noexcept {
    const std::uint32_t outer_depth = slot.depth.load(std::memory_order_relaxed);
    slot.depth.store(outer_depth + 1, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    // Acquire: what the raiser changed in the quiet is visible to those that come in behind it.
    if (tbbk_gate.load(std::memory_order_acquire) != 0) [[unlikely]]
        tbbk_enter_slowly(slot, outer_depth);
    return outer_depth;
}

// Stands around the whole of an entry point, hook call included; nests. Nothing that may not come back, a
// new handler for instance, may run inside.
class TBBK_ENTRY {
  public:
    TBBK_ENTRY() noexcept : slot(tbbk_slot_own()), outer_depth(tbbk_enter(slot)) {}
    ~TBBK_ENTRY() { slot.depth.store(outer_depth, std::memory_order_release); }
    TBBK_ENTRY(const TBBK_ENTRY&) = delete;
    TBBK_ENTRY& operator=(const TBBK_ENTRY&) = delete;

  private:
    TBBK_SLOT& slot;
    const std::uint32_t outer_depth;
};

// Whether `action`, run on this thread, comes by an entry point of this library.
bool tbbk_action_enters(void (*action)()) noexcept;
