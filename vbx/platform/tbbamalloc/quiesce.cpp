// Raising the gate: one thread at a time has the quiet, others that want it wait their turn.
#include "vbx/platform/tbbamalloc/quiesce.h"

#include "vbx/platform/tbbamalloc/gate.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"
#include "vbx/platform/tbbamalloc/waiting.h"

#include <errno.h>
#include <sched.h>

namespace {

// Thread id of the one that has the quiet, 0 for none.
constinit std::atomic<std::uint32_t> gate_owner = 0;

// A thread that stays inside for this long is looked at: it may no longer exist.
constexpr std::uint64_t suspicious_wait_ns = 10'000'000;

bool wait_for_slot(TBBK_SLOT& slot, std::uint64_t deadline) noexcept {
    const std::uint64_t start = tbbk_now_ns();
    for (unsigned round = 0;; ++round) {
        // A parked thread waits for the quiet itself, inside a hook perhaps, but in no call of the heap.
        // Waiting for it would be waiting for ourselves.
        if (slot.depth.load(std::memory_order_acquire) == 0 ||
            slot.parked.load(std::memory_order_acquire) != 0)
            return true;
        const std::uint64_t now = tbbk_now_ns();
        if (now - start > suspicious_wait_ns && tbbk_slot_collect_if_dead(slot))
            return true;
        if (now >= deadline)
            return false;
        if (round < 64)
            sched_yield();
        else
            tbbk_wait_a_moment(); // yielding alone starves a thread of lower priority
    }
}

bool wait_for_all_but(const TBBK_SLOT& own, std::uint64_t deadline) noexcept {
    bool is_quiet = true;
    for (TBBK_SLOT* slot = tbbk_slot_next(nullptr); slot != nullptr; slot = tbbk_slot_next(slot))
        is_quiet = (slot == &own || wait_for_slot(*slot, deadline)) && is_quiet;
    return is_quiet;
}

bool take_turn(TBBK_SLOT& own, std::uint64_t deadline) noexcept {
    const std::uint32_t tid = own.tid.load(std::memory_order_relaxed);
    bool is_owner = false;
    own.parked.store(1, std::memory_order_release);
    for (;;) {
        std::uint32_t seen = 0;
        is_owner = gate_owner.compare_exchange_strong(seen, tid);
        const std::uint64_t now = tbbk_now_ns();
        if (is_owner || now >= deadline)
            break;
        tbbk_futex_wait(gate_owner, seen, deadline - now);
    }
    own.parked.store(0, std::memory_order_release);
    return is_owner;
}

void lower_gate(std::uint32_t tid) noexcept {
    tbbk_gate.fetch_sub(tbbk_raiser_unit);
    tbbk_futex_wake_all(tbbk_gate);
    if (gate_owner.compare_exchange_strong(tid, 0))
        tbbk_futex_wake_all(gate_owner);
}

} // namespace

bool tbbk_quiesce_begin(unsigned timeout_ms) noexcept {
    const int saved_errno = errno;
    TBBK_SLOT& own = tbbk_slot_own();
    const std::uint64_t deadline = tbbk_now_ns() + std::uint64_t{timeout_ms} * 1'000'000;
    if (own.raises++ == 0) {
        // Without its turn the thread raises the gate as well, as promised: nobody new gets in.
        take_turn(own, deadline);
        tbbk_gate.fetch_add(tbbk_raiser_unit);
        tbbk_gate_fence_all_threads();
    }
    const bool is_alone = gate_owner.load() == own.tid.load(std::memory_order_relaxed);
    const bool is_quiet = wait_for_all_but(own, deadline) && is_alone;
    errno = saved_errno;
    return is_quiet;
}

void tbbk_quiesce_end() noexcept {
    const int saved_errno = errno;
    TBBK_SLOT& own = tbbk_slot_own();
    if (own.raises != 0 && --own.raises == 0)
        lower_gate(own.tid.load(std::memory_order_relaxed));
    errno = saved_errno;
}

void tbbk_quiesce_drop(TBBK_SLOT& slot, std::uint32_t tid) noexcept {
    if (slot.raises.exchange(0) != 0)
        lower_gate(tid);
}

bool tbbk_quiesce_keep_only(TBBK_SLOT& own) noexcept {
    const bool was_one_inside = tbbk_slots_keep_only(own);
    const bool is_up = own.raises != 0;
    gate_owner.store(is_up ? own.tid.load(std::memory_order_relaxed) : 0);
    tbbk_gate.store((tbbk_gate.load() & tbbk_fence_bit) + (is_up ? tbbk_raiser_unit : 0));
    return was_one_inside;
}
