#include "vbx/mem/base/tracker_gate.h"

#include "vbx/mem/base/check.h"
#include "vbx/mem/base/lock_rank.h"
#include "vbx/platform/os/clock.h"
#include "vbx/platform/os/thread.h"

#include <algorithm>

std::atomic<std::int32_t>& MEM_TRACKER_GATE::own_mice() {
    return m_mice[os_thread_id() % PLACES];
}

bool MEM_TRACKER_GATE::has_cats() const {
    return catsApproaching.load() != 0 || cats.load() != 0;
}

bool MEM_TRACKER_GATE::has_mice() const {
    return std::ranges::any_of(m_mice, [](const auto& mice) { return mice.load() != 0; });
}

void MEM_TRACKER_GATE::enter(MEM_GATE_ROLE role) {
    mem_rank_acquire(MEM_LOCK_RANK::gate);
    OS_PATIENCE patience;
    if (role == MEM_GATE_ROLE::cat) {
        catsApproaching.fetch_add(1);
        while (!try_enter_cat())
            patience.wait();
        end_announcement();
        return;
    }
    std::atomic<std::int32_t>& mice = own_mice();
    for (;;) {
        mice.fetch_add(1);
        if (!has_cats()) [[likely]]
            return;
        mice.fetch_sub(1);
        // All waits yield: with more threads than processors the one that is waited for has to get one.
        while (has_cats())
            patience.wait();
    }
}

void MEM_TRACKER_GATE::leave(MEM_GATE_ROLE role) {
    if (role == MEM_GATE_ROLE::mouse) {
        MEM_CHECK(cats == 0);
        const std::int32_t mice = own_mice().fetch_sub(1) - 1;
        MEM_CHECK(mice >= 0);
    } else {
        cats.fetch_sub(1);
        MEM_CHECK(cats == 0);
        m_cats_in_front.store(0);
    }
    mem_rank_release(MEM_LOCK_RANK::gate);
}

// One cat at a time looks for mice: what it does not see stays away for it alone.
bool MEM_TRACKER_GATE::try_enter_cat() {
    if (m_cats_in_front.exchange(1) != 0)
        return false;
    // Mice that come behind this look see the announcement, count themselves off again and stay outside.
    if (has_mice()) {
        m_cats_in_front.store(0);
        return false;
    }
    cats.store(1);
    return true;
}

void MEM_TRACKER_GATE::end_announcement() {
    catsApproaching.fetch_sub(1);
    MEM_CHECK(catsApproaching >= 0);
}

bool MEM_TRACKER_GATE::enter_as_cat_within(unsigned timeout_ms) MEM_NO_THREAD_SAFETY_ANALYSIS {
    const std::int64_t deadline = os_clock() + timeout_ms;
    mem_rank_acquire(MEM_LOCK_RANK::gate);
    catsApproaching.fetch_add(1);
    OS_PATIENCE patience;
    bool is_inside;
    while (!(is_inside = try_enter_cat()) && os_clock() < deadline)
        patience.wait();
    end_announcement();
    if (!is_inside)
        mem_rank_release(MEM_LOCK_RANK::gate);
    return is_inside;
}

void MEM_TRACKER_GATE::reset() MEM_NO_THREAD_SAFETY_ANALYSIS {
    for (auto& mice : m_mice)
        mice.store(0, std::memory_order_relaxed);
    catsApproaching.store(0, std::memory_order_relaxed);
    cats.store(0, std::memory_order_relaxed);
    m_cats_in_front.store(0, std::memory_order_relaxed);
}
