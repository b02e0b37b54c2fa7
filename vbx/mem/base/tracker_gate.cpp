#include "vbx/mem/base/tracker_gate.h"

#include "vbx/mem/base/check.h"
#include "vbx/platform/os/clock.h"

void MEM_TRACKER_GATE::enter(MEM_GATE_ROLE role) {
    mem_rank_acquire(MEM_LOCK_RANK::gate);
    if (role == MEM_GATE_ROLE::mouse) {
        enter_mouse();
        return;
    }
    announce_cat();
    OS_PATIENCE patience;
    while (!try_enter_cat())
        patience.wait();
    end_announcement();
}

void MEM_TRACKER_GATE::leave(MEM_GATE_ROLE role) {
    {
        MEM_SPIN_GUARD guard(m_gate_lock);
        if (role == MEM_GATE_ROLE::mouse) {
            --mice;
            MEM_CHECK(cats == 0);
            MEM_CHECK(mice >= 0);
        } else {
            --cats;
            MEM_CHECK(mice == 0);
            MEM_CHECK(cats == 0);
        }
    }
    mem_rank_release(MEM_LOCK_RANK::gate);
}

// All waits yield: with more threads than processors the one that is waited for has to get one.
void MEM_TRACKER_GATE::enter_mouse() {
    OS_PATIENCE patience;
    while (cat_approaches() || !try_enter_mouse())
        patience.wait();
}

void MEM_TRACKER_GATE::announce_cat() {
    MEM_SPIN_GUARD guard(m_approach_lock);
    ++catsApproaching;
}

void MEM_TRACKER_GATE::end_announcement() {
    MEM_SPIN_GUARD guard(m_approach_lock);
    --catsApproaching;
    MEM_CHECK(catsApproaching >= 0);
}

bool MEM_TRACKER_GATE::enter_as_cat_within(unsigned timeout_ms) MEM_NO_THREAD_SAFETY_ANALYSIS {
    const std::int64_t deadline = os_clock() + timeout_ms;
    mem_rank_acquire(MEM_LOCK_RANK::gate);
    announce_cat();
    OS_PATIENCE patience;
    bool is_inside;
    while (!(is_inside = try_enter_cat()) && os_clock() < deadline)
        patience.wait();
    end_announcement();
    if (!is_inside)
        mem_rank_release(MEM_LOCK_RANK::gate);
    return is_inside;
}

bool MEM_TRACKER_GATE::cat_approaches() {
    MEM_SPIN_GUARD guard(m_approach_lock);
    return catsApproaching != 0;
}

bool MEM_TRACKER_GATE::try_enter_mouse() {
    MEM_SPIN_GUARD guard(m_gate_lock);
    if (cats != 0)
        return false;
    ++mice;
    return true;
}

bool MEM_TRACKER_GATE::try_enter_cat() {
    MEM_SPIN_GUARD guard(m_gate_lock);
    if (mice != 0 || cats != 0)
        return false;
    cats = 1;
    return true;
}

void MEM_TRACKER_GATE::reset() MEM_NO_THREAD_SAFETY_ANALYSIS {
    cats = 0;
    mice = 0;
    catsApproaching = 0;
    m_gate_lock.reset();
    m_approach_lock.reset();
}
