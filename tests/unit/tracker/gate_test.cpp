// The gate and the two shared modes under real threads, and the lock order check.

#include "vbx/mem/base/spin_lock.h"
#include "vbx/mem/base/tracker_gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

TEST(GATE_TEST, ACatIsInsideAlone) {
    MEM_TRACKER_GATE gate;
    std::atomic<bool> stop{false};
    std::atomic<int> mice_inside{0};
    long guarded_by_gate = 0; // written by cats, read by mice: a race if the gate leaks
    std::atomic<long> passes{0};
    std::vector<std::thread> threads;
    for (int mouse = 0; mouse < 4; ++mouse)
        threads.emplace_back([&] {
            while (!stop) {
                const MEM_GATE_MOUSE inside(gate);
                ++mice_inside;
                passes += guarded_by_gate >= 0;
                --mice_inside;
            }
        });
    for (int cat = 0; cat < 2; ++cat)
        threads.emplace_back([&] {
            for (int visit = 0; visit < 300; ++visit) {
                const MEM_GATE_CAT inside(gate);
                EXPECT_EQ(mice_inside, 0);
                ++guarded_by_gate;
            }
        });
    threads[4].join();
    threads[5].join();
    stop = true;
    for (int mouse = 0; mouse < 4; ++mouse)
        threads[static_cast<std::size_t>(mouse)].join();
    EXPECT_EQ(guarded_by_gate, 600);
    EXPECT_GT(passes, 0);
}

TEST(GATE_TEST, AnApproachingCatKeepsNewMiceOut) {
    MEM_TRACKER_GATE gate;
    gate.enter(MEM_GATE_ROLE::mouse);
    std::atomic<int> order{0};
    int cat_place = 0;
    int mouse_place = 0;
    std::thread cat([&] {
        const MEM_GATE_CAT inside(gate);
        cat_place = ++order;
    });
    // The cat can't get in; give it time to announce itself, then let a mouse come behind it.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::thread mouse([&] {
        const MEM_GATE_MOUSE inside(gate);
        mouse_place = ++order;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(order, 0);
    gate.leave(MEM_GATE_ROLE::mouse);
    cat.join();
    mouse.join();
    EXPECT_EQ(cat_place, 1);
    EXPECT_EQ(mouse_place, 2);
}

TEST(GATE_TEST, GivesUpWaitingForAMouseThatStays) {
    MEM_TRACKER_GATE gate;
    std::thread([&gate] { gate.enter(MEM_GATE_ROLE::mouse); }).join();
    EXPECT_FALSE(gate.enter_as_cat_within(0));
    std::thread([&gate] { gate.enter(MEM_GATE_ROLE::mouse); }).join(); // the announcement is taken back
}

TEST(GATE_TEST, BrokenUseEndsTheProcess) {
    MEM_TRACKER_GATE gate;
    EXPECT_DEATH(gate.leave(MEM_GATE_ROLE::mouse), "MEM: internal error: mice >= 0 ");
    EXPECT_DEATH(
        {
            gate.enter(MEM_GATE_ROLE::cat);
            gate.leave(MEM_GATE_ROLE::mouse);
        },
        "MEM: internal error: cats == 0 ");
}

TEST(SPIN_LOCK_TEST, GuardsAPlainNumber) {
    MEM_SPIN_LOCK lock{MEM_LOCK_RANK::leaf};
    long number = 0;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([&] {
            for (int step = 0; step < 20000; ++step) {
                const MEM_SPIN_GUARD guard(lock);
                ++number;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(number, 80000);
}

#if defined(VBX_RANK_CHECK)
TEST(LOCK_RANK_TEST, LocksAreTakenInRisingRank) {
    MEM_SPIN_LOCK leaf{MEM_LOCK_RANK::leaf};
    MEM_SPIN_LOCK other_leaf{MEM_LOCK_RANK::leaf};
    MEM_SPIN_LOCK mask{MEM_LOCK_RANK::granularity};
    MEM_TRACKER_GATE gate;
    {
        const MEM_GATE_CAT cat(gate);
        const MEM_SPIN_GUARD guard(mask); // the shutdown's step
    }
    EXPECT_DEATH(
        {
            const MEM_SPIN_GUARD one(leaf);
            const MEM_SPIN_GUARD two(other_leaf);
        },
        "lock_order_is_kept");
    EXPECT_DEATH(
        {
            const MEM_SPIN_GUARD one(leaf);
            const MEM_GATE_MOUSE mouse(gate);
        },
        "lock_order_is_kept");
}
#endif
