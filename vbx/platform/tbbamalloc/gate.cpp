#include "vbx/platform/tbbamalloc/gate.h"

#include "vbx/platform/tbbamalloc/waiting.h"

#include <errno.h>
#include <linux/membarrier.h>

// Starts with the fence: what runs before the registration is then right with either kind of raiser.
constinit std::atomic<std::uint32_t> tbbk_gate = tbbk_fence_bit;
constinit std::atomic<std::uint32_t> tbbk_forks_under_way = 0;
constinit std::atomic<bool> tbbk_threads_need_fences = true;

namespace {

// A thread that waits at the gate may hold a lock which the forking thread needs before it comes to the fork
// itself: that of a stream inside fflush(nullptr), or that of the C library's name service. Such a
// deadlock ends here. The child then finds this thread inside and keeps off the copied heap.
constexpr std::uint64_t longest_fork_wait_ns = 1'000'000'000;

bool is_gate_up() noexcept {
    return tbbk_gate.load(std::memory_order_acquire) >= tbbk_raiser_unit;
}

// Every read-modify-write is a full fence on this processor, and ThreadSanitizer understands it.
void full_fence() noexcept {
    static constinit std::atomic<std::uint32_t> word = 0;
    word.fetch_add(1, std::memory_order_seq_cst);
}

// False for a moment behind a fence bit that was set late.
constinit std::atomic<bool> is_fence_bit_settled = true;

enum class WAIT_END { gate_open, cut_short };

WAIT_END wait_for_open_gate() noexcept {
    const std::uint64_t start = tbbk_now_ns();
    for (;;) {
        const std::uint32_t word = tbbk_gate.load(std::memory_order_acquire);
        if (word < tbbk_raiser_unit)
            return WAIT_END::gate_open;
        if (tbbk_forks_under_way.load(std::memory_order_relaxed) != 0 &&
            tbbk_now_ns() - start > longest_fork_wait_ns)
            return WAIT_END::cut_short;
        tbbk_futex_wait(tbbk_gate, word, longest_fork_wait_ns / 10);
    }
}

} // namespace

void tbbk_gate_register_fences() noexcept {
    if (syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) != 0)
        return;
    tbbk_gate.fetch_and(~tbbk_fence_bit);
    tbbk_threads_need_fences.store(false);
}

void tbbk_gate_fence_all_threads() noexcept {
    full_fence();
    if ((tbbk_gate.load() & tbbk_fence_bit) != 0) {
        if (!is_fence_bit_settled.load())
            tbbk_wait_a_moment();
        return;
    }
    if (syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) == 0)
        return;
    // Forbidden since the registration, by a sandbox perhaps. From now on both sides use fences; the pause
    // lets those that are under way without one become visible, to each raiser that comes meanwhile, too.
    is_fence_bit_settled.store(false);
    tbbk_threads_need_fences.store(true);
    tbbk_gate.fetch_or(tbbk_fence_bit);
    tbbk_wait_a_moment();
    is_fence_bit_settled.store(true);
}

void tbbk_fence_all_threads() noexcept {
    const int saved_errno = errno;
    tbbk_gate_fence_all_threads();
    errno = saved_errno;
}

void tbbk_enter_slowly(TBBK_SLOT& slot, std::uint32_t outer_depth) noexcept {
    slot.slow_entries.fetch_add(1, std::memory_order_relaxed);
    full_fence();
    // A nested entry must go on: the raiser waits for the outer one, which waits for this.
    if (outer_depth != 0 || slot.raises != 0)
        return;
    const int saved_errno = errno;
    WAIT_END end = WAIT_END::gate_open;
    while (end == WAIT_END::gate_open && is_gate_up()) {
        slot.depth.store(0, std::memory_order_release);
        end = wait_for_open_gate();
        slot.depth.store(1, std::memory_order_relaxed);
        full_fence();
    }
    errno = saved_errno;
}

bool tbbk_action_enters(void (*action)()) noexcept {
    TBBK_SLOT& own = tbbk_slot_own();
    const std::uint32_t before = own.slow_entries.load(std::memory_order_relaxed);
    tbbk_gate.fetch_or(tbbk_probe_bit);
    action();
    tbbk_gate.fetch_and(~tbbk_probe_bit);
    return own.slow_entries.load(std::memory_order_relaxed) != before;
}
