// What the unwinder keeps for all threads and for each: remembered rules, and the extent of stacks.

#include "vbx/platform/vbx_err/rule_cache.h"
#include "vbx/platform/vbx_err/stack_bounds.h"
#include "vbx/platform/vbx_err/unwinders.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>

#include <cerrno>
#include <thread>
#include <vector>

namespace {

constinit ERR_RULE_CACHE cache;

// Three times as many addresses as there is room for, so that threads overwrite each other's entries all the
// time: what is found is always what belongs to the address.
TEST(RuleCache, NeverMixesTwoEntries) {
    const auto value_of = [](std::uint64_t address) { return address * 3 + 1; };
    const auto work = [&value_of](std::uint64_t random) {
        std::uint64_t hits = 0;
        for (int turn = 0; turn < 400000; ++turn) {
            random = random * 6364136223846793005 + 1442695040888963407;
            const std::uint64_t address = 0x7F0000000000 + (random >> 33) % 200000;
            std::uint64_t value = 0;
            if (cache.find(address, value)) {
                ++hits;
                ASSERT_EQ(value, value_of(address));
            } else {
                cache.store(address, value_of(address));
            }
        }
        EXPECT_GT(hits, 1000U);
    };
    std::vector<std::thread> threads;
    for (const std::uint64_t seed : {7U, 7U, 11U})
        threads.emplace_back(work, seed);
    for (std::thread& thread : threads)
        thread.join();
}

std::uintptr_t here() {
    return reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
}

[[gnu::noinline]] std::uintptr_t end_from_below(int depth) {
    volatile char room[20000];
    room[0] = 1;
    const std::uintptr_t end = depth > 0 ? end_from_below(depth - 1) : err_readable_stack_end(here());
    return end + static_cast<std::uintptr_t>(room[0]) - 1;
}

TEST(StackBounds, EndWhereTheThreadsStackEnds) {
    const auto check = [] {
        pthread_attr_t attributes;
        void* lowest = nullptr;
        std::size_t size = 0;
        ASSERT_EQ(pthread_getattr_np(pthread_self(), &attributes), 0);
        pthread_attr_getstack(&attributes, &lowest, &size);
        pthread_attr_destroy(&attributes);
        errno = 99;
        const std::uintptr_t end = err_readable_stack_end(here());
        EXPECT_GT(end, here());
        static_cast<void>(*reinterpret_cast<volatile const char*>(end - 1)); // a crash if it is too high
        EXPECT_EQ(end_from_below(50), end);
        // Not this thread's: below the guard page, far away, above.
        for (int again = 0; again < 2; ++again) {
            EXPECT_EQ(err_readable_stack_end(reinterpret_cast<std::uintptr_t>(lowest) - 100000), 0U);
            EXPECT_EQ(err_readable_stack_end(0x10000), 0U);
            EXPECT_EQ(err_readable_stack_end(end), 0U);
        }
        EXPECT_EQ(end_from_below(50), end);
        EXPECT_EQ(errno, 99);
    };
    std::thread(check).join();
    check();
}

TEST(Unwinder, GivesTheCallersFrameFirstAndKeepsToItsRoom) {
    std::uint64_t rules[64] = {};
    std::uint64_t libgcc[64] = {};
    ERR_UNWINDER* const unwinders[] = {ERR_UNWINDER::get_default_unwinder(), err_libgcc_unwinder()};
    ASSERT_NE(unwinders[0], nullptr);
    std::int32_t counts[2] = {};
    std::uint64_t* const frames[] = {rules, libgcc};
    // One call instruction for both, so that even the first frames are equal: volatile keeps the loop a loop.
    const volatile int end = 2;
    for (int which = 0; which < end; ++which)
        counts[which] = unwinders[which]->capture_stack(frames[which], 64, 0, 0);
    EXPECT_GT(counts[0], 3);
    EXPECT_EQ(std::vector<std::uint64_t>(rules, rules + counts[0]),
              std::vector<std::uint64_t>(libgcc, libgcc + counts[1]));

    std::uint64_t some[3] = {1, 2, 3};
    EXPECT_EQ(unwinders[0]->capture_stack(some, 2, 1, 0), 2);
    EXPECT_EQ(some[0], rules[1]);
    EXPECT_EQ(some[1], rules[2]);
    EXPECT_EQ(some[2], 3U);
    EXPECT_EQ(unwinders[0]->capture_stack(some, 3, 10000, 0), 0);
    EXPECT_EQ(unwinders[0]->capture_stack(some, 0, 0, 0), 0);
}

} // namespace
