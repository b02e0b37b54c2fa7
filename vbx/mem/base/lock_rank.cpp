#include "vbx/mem/base/lock_rank.h"

#if defined(VBX_RANK_CHECK)

#include "vbx/mem/base/check.h"

namespace {
// One bit a rank that the thread holds.
constinit __thread std::uint32_t held_ranks = 0;

std::uint32_t bit_of(MEM_LOCK_RANK rank) {
    return 1U << static_cast<unsigned>(rank);
}
} // namespace

void mem_rank_acquire(MEM_LOCK_RANK rank) {
    const std::uint32_t bit = bit_of(rank);
    const bool lock_order_is_kept = held_ranks < bit;
    // The one allowed step down, see the table.
    const bool is_shutdown_step = (rank == MEM_LOCK_RANK::granularity || rank == MEM_LOCK_RANK::callbacks) &&
                                  (held_ranks & (bit | ~(bit_of(MEM_LOCK_RANK::gate) | (bit - 1)))) == 0;
    MEM_CHECK(lock_order_is_kept || is_shutdown_step);
    held_ranks |= bit;
}

void mem_rank_release(MEM_LOCK_RANK rank) {
    const bool lock_is_held = (held_ranks & bit_of(rank)) != 0;
    MEM_CHECK(lock_is_held);
    held_ranks &= ~bit_of(rank);
}

void mem_rank_forget_all() {
    held_ranks = 0;
}

#endif
