// The gate and the tables of bins under real threads, and the lock order check.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/base/spin_lock.h"
#include "vbx/mem/base/tracker_gate.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/pb_table.h"

#include <algorithm>
#include <atomic>

TEST(GATE_TEST, ACatIsInsideAlone) {
    MEM_TRACKER_GATE gate;
    std::atomic<bool> stop{false};
    std::atomic<int> mice_inside{0};
    long guarded_by_gate = 0; // written by cats, read by mice: a race if the gate leaks
    auto mice = run_on_threads(4, [&](std::uint64_t) {
        while (!stop) {
            const MEM_GATE_MOUSE inside(gate);
            ++mice_inside;
            EXPECT_GE(guarded_by_gate, 0);
            --mice_inside;
        }
    });
    run_on_threads(2, [&](std::uint64_t) {
        for (int visit = 0; visit < 300; ++visit) {
            const MEM_GATE_CAT inside(gate);
            EXPECT_EQ(mice_inside, 0);
            ++guarded_by_gate;
        }
    });
    stop = true;
    EXPECT_EQ(guarded_by_gate, 600);
}

TEST(GATE_TEST, AnApproachingCatKeepsNewMiceOut) {
    MEM_TRACKER_GATE gate;
    gate.enter(MEM_GATE_ROLE::mouse);
    std::atomic<int> order{0}, cat_place{0}, mouse_place{0};
    auto threads = run_on_threads(2, [&](std::uint64_t thread) {
        // The cat can't get in; it has time to announce itself before the mouse comes behind it.
        std::this_thread::sleep_for(std::chrono::milliseconds(100 * thread));
        const MEM_GATE_ROLE role = thread == 0 ? MEM_GATE_ROLE::cat : MEM_GATE_ROLE::mouse;
        gate.enter(role);
        (thread == 0 ? cat_place : mouse_place) = ++order;
        gate.leave(role);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(order, 0);
    gate.leave(MEM_GATE_ROLE::mouse);
    threads.clear();
    EXPECT_LT(cat_place, mouse_place);
}

TEST(GATE_TEST, GivesUpWaitingForAMouseThatStaysAndTellsOfBrokenUse) {
    MEM_TRACKER_GATE gate;
    EXPECT_DEATH(gate.leave(MEM_GATE_ROLE::mouse), "MEM: internal error: mice >= 0 ");
    run_on_threads(1, [&gate](std::uint64_t) { gate.enter(MEM_GATE_ROLE::mouse); });
    EXPECT_FALSE(gate.enter_as_cat_within(0));
    run_on_threads(1, [&gate](std::uint64_t) { gate.enter(MEM_GATE_ROLE::mouse); }); // no cat approaches now
}

TEST(PB_STATS_TABLE_TEST, StandsStillForAnExclusiveUser) {
    MEM_PB_STATS_TABLE table;
    std::atomic<bool> stop{false};
    auto threads = run_on_threads(3, [&](std::uint64_t thread) {
        for (auto id = static_cast<std::uint32_t>(thread); !stop; id = (id + 3) % 500) {
            table.add(id, 8);
            table.subtract(id, 8);
        }
    });
    for (int copy = 0; copy < 200; ++copy) {
        const MEM_PB_STATS_TABLE::STILL still(table);
        for (std::uint32_t id = 0; id < still.size(); ++id)
            ASSERT_EQ(still.current_bytes(id), still.current_bytes(id));
    }
    stop = true;
}

// The host walks round and round through known depths, an id each. A reader that notes how far the host has
// come before and after may have seen only what was current in between.
TEST(PB_TABLE_TEST, AReadIdWasCurrentDuringTheRead) {
    constexpr std::uint64_t ROUND = 2000; // deep enough that the stack takes and gives back memory
    const auto id_after = [](std::uint64_t steps) { return std::min(steps % ROUND, ROUND - steps % ROUND); };
    MEM_PB_TABLE table;
    std::atomic<std::uint64_t> begun{0}, done{0};
    std::atomic<int> reads_left{100'000};
    auto readers = run_on_threads(2, [&](std::uint64_t) {
        while (reads_left-- > 0) {
            const std::uint64_t earliest = done, seen = table.get_curr_id();
            const std::uint64_t latest = std::min<std::uint64_t>(begun, earliest + ROUND);
            std::uint64_t step = earliest;
            while (step <= latest && id_after(step) != seen)
                ++step;
            EXPECT_LE(step, latest) << seen << " since " << earliest;
            EXPECT_NE(table.name_of(static_cast<std::uint32_t>(seen)), "Other");
        }
    });
    for (std::uint64_t step = 0; reads_left > 0; done = ++step) {
        begun = step + 1;
        if (step % ROUND < ROUND / 2)
            table.open("bin " + std::to_string(step % ROUND));
        else
            table.pop();
    }
}

#if defined(VBX_RANK_CHECK)
TEST(LOCK_RANK_TEST, LocksAreTakenInRisingRank) {
    MEM_SPIN_LOCK leaf{MEM_LOCK_RANK::leaf}, other_leaf{MEM_LOCK_RANK::leaf};
    MEM_SPIN_LOCK mask{MEM_LOCK_RANK::granularity};
    MEM_TRACKER_GATE gate;
    {
        const MEM_GATE_CAT cat(gate);
        const MEM_SPIN_GUARD guard(mask); // the shutdown's step
    }
    const MEM_SPIN_GUARD guard(leaf);
    EXPECT_DEATH(const MEM_SPIN_GUARD two(other_leaf), "lock_order_is_kept");
    EXPECT_DEATH(const MEM_GATE_MOUSE mouse(gate), "lock_order_is_kept");
}
#endif
