#include "vbx/mem/base/tracker_gate.h"

#include "vbx/platform/os/clock.h"
#include "vbx/platform/os/thread.h"

void MEM_TRACKER_GATE::give_way_to_cats(TBBK_THREAD_WORDS* words) {
    OS_PATIENCE patience;
    do {
        m_mice.count_out(words);
        // All waits yield before long: with more threads than processors the one that is waited for has to
        // get one.
        while (has_cats())
            patience.wait();
        m_mice.count_in(words);
    } while (has_cats());
}

void MEM_TRACKER_GATE::wait_as_cat() {
    mem_rank_acquire(m_rank);
    OS_PATIENCE patience;
    approach();
    while (!try_enter_cat())
        patience.wait();
    end_announcement();
}

// (That no mouse is inside can't be checked: one that gives way counts itself for a moment.)
void MEM_TRACKER_GATE::end_cat() {
    cats.fetch_sub(1);
    MEM_CHECK(cats == 0);
    m_cats_in_front.store(0);
    mem_rank_release(m_rank);
}

void MEM_TRACKER_GATE::approach() {
    catsApproaching.fetch_add(1);
    m_mice.fence();
}

// One cat at a time looks for mice: what it does not see stays away for it alone.
bool MEM_TRACKER_GATE::try_enter_cat() {
    if (m_cats_in_front.exchange(1) != 0)
        return false;
    // Mice that come behind this look see the announcement, count themselves off again and stay outside.
    if (m_mice.any()) {
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
    mem_rank_acquire(m_rank);
    OS_PATIENCE patience;
    approach();
    bool is_inside;
    while (!(is_inside = try_enter_cat()) && os_clock() < deadline)
        patience.wait();
    end_announcement();
    if (!is_inside)
        mem_rank_release(m_rank);
    return is_inside;
}

void MEM_TRACKER_GATE::reset() MEM_NO_THREAD_SAFETY_ANALYSIS {
    m_mice.forget_others();
    catsApproaching.store(0, std::memory_order_relaxed);
    cats.store(0, std::memory_order_relaxed);
    m_cats_in_front.store(0, std::memory_order_relaxed);
}
