// Ticks and total while threads borrow of them: exact whenever it matters.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/events/event_totals.h"

#include <random>

class EVENT_TOTALS_TEST : public TRACKER_TEST {};

TEST_F(EVENT_TOTALS_TEST, APeakIsFoundToTheByte) {
    constexpr std::int64_t MIB = 1 << 20;
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA0000000, 20 * MIB, {PARSE});
    // Keeps the process at two threads, and what it has borrowed.
    std::atomic<bool> has_borrowed{false}, stop{false};
    auto other = run_on_threads(1, [&](std::uint64_t) {
        for (std::uint64_t size : {1000, 3000, 500})
            allocate(0xB0000000 + size, size, {PARSE});
        release(0xB0000000 + 1000, 1000);
        has_borrowed = true;
        while (!stop)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    while (!has_borrowed)
        std::this_thread::yield();
    constexpr std::int64_t PEAK = 20 * MIB + 4500; // of the other thread, before its free
    EXPECT_NE(take_messages().find("recording peak bytes at 20976020 bytes"), std::string::npos);
    auto up_to = [total = 20 * MIB + 3500, block = 0xC0000000](std::int64_t wanted) mutable {
        allocate(block += 16, static_cast<std::uint64_t>(wanted - total), {PARSE});
        total = wanted;
    };
    // Far below the next peak everybody borrows again.
    for (std::int64_t total = 21 * MIB; total < 30 * MIB; total += 5000)
        up_to(total);
    EXPECT_GT(mem_event_totals.highest_possible_total(), 30 * MIB);
    for (const std::int64_t below : {3 * MIB, MIB / 2, std::int64_t{70'000}, std::int64_t{1}}) {
        up_to(2 * PEAK - below);
        release(0xF000, 0);
        EXPECT_EQ(take_messages(), "") << below;
    }
    up_to(2 * PEAK);
    release(0xF000, 0);
    EXPECT_NE(take_messages().find("recording peak bytes at 41952040 bytes"), std::string::npos);
    EXPECT_EQ(mem_event_totals.total(), 2 * PEAK);
    stop = true;
}

// With periods that leave room for borrowing, and one that doesn't; a power of two is compared without a
// division. One thread has no words to borrow into; all have ended when the figures are asked for.
class SAMPLE_COUNT_TEST : public TRACKER_TEST, public testing::WithParamInterface<std::uint64_t> {};

TEST_P(SAMPLE_COUNT_TEST, TicksAndBytesAreExact) {
    constexpr std::uint64_t EVENTS = 60'013, THREADS = 4;
    mem_snapshot_period = GetParam();
    std::atomic<std::uint64_t> samples{0};
    std::atomic<std::int64_t> total{0};
    std::atomic<int> call_backs{0};
    run_on_threads(THREADS, [&](std::uint64_t thread) {
        if (thread == 0)
            fake_live_without_words();
        std::mt19937_64 random(thread);
        for (std::uint64_t event = 0; event < EVENTS; ++event) {
            const auto bytes = static_cast<std::int64_t>(random() % 40'000) - 19'000;
            samples += mem_event_totals.pass(tbbk_thread_words(), bytes);
            total += bytes;
            if (random() % 5000 == 0) {
                mem_event_totals.total();
                ++call_backs;
            }
        }
    });
    // A sample is no reason to call back again and again.
    EXPECT_LE(fake_fences - call_backs, static_cast<int>(THREADS * samples));
    EXPECT_EQ(mem_event_totals.total(), total);
    EXPECT_EQ(mem_event_totals.ticks(), EVENTS * THREADS);
    EXPECT_EQ(samples, (EVENTS * THREADS - 1) / GetParam() + 1);
}
INSTANTIATE_TEST_SUITE_P(, SAMPLE_COUNT_TEST, testing::Values(4096, 5000, 700, 3));
