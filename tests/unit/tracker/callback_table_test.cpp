// The table of event callbacks: order, doubles, the hook that results, and changes under running events.

#include "tests/unit/tracker/tracker_fixture.h"

#include <atomic>

namespace {

std::string calls;
std::atomic<long> counted_calls{0};

template <char NAME>
void callback(void*, std::uint64_t, std::uint64_t, bool) {
    calls += NAME;
}

template <int NUMBER>
void counting_callback(void*, std::uint64_t, std::uint64_t, bool) {
    ++counted_calls;
}

std::string calls_of_one_event() {
    calls.clear();
    fake_allocate(0xA000, 16, 16);
    return calls;
}

template <int... NUMBERS>
void add_counting_callbacks(std::integer_sequence<int, NUMBERS...>) {
    (mem_add_callback_function(counting_callback<NUMBERS>), ...);
}

} // namespace

class CALLBACK_TABLE_TEST : public TRACKER_TEST {};

TEST_F(CALLBACK_TABLE_TEST, HoldsSixteenInOrderOfAdding) {
    mem_add_callback_function(callback<'a'>);
    mem_add_callback_function(callback<'a'>);
    EXPECT_EQ(calls_of_one_event(), "a");
    mem_add_callback_function(callback<'b'>);
    mem_add_callback_function(callback<'c'>);
    EXPECT_EQ(calls_of_one_event(), "abc");
    mem_remove_callback_function(callback<'b'>);
    mem_remove_callback_function(callback<'d'>);
    EXPECT_EQ(calls_of_one_event(), "ac");
    mem_remove_callback_function(callback<'a'>);
    EXPECT_EQ(calls_of_one_event(), "c");
    mem_remove_callback_function(callback<'c'>);
    EXPECT_FALSE(fake_hook_is_installed());
    add_counting_callbacks(std::make_integer_sequence<int, 16>());
    calls_of_one_event();
    EXPECT_EQ(counted_calls, 16);
    EXPECT_DEATH(mem_add_callback_function(callback<'a'>),
                 "MEM: internal error: Change the size of callback_fns to increase the number of allowed "
                 "callbacks");
}

TEST_F(CALLBACK_TABLE_TEST, HoldsTheEventHandlerWhileTheMaskIsNotZero) {
    start(0);
    mem_enable_tracking(MEM_GRANULARITY_NONE);
    EXPECT_FALSE(fake_hook_is_installed());
    mem_enable_tracking(MEM_GRANULARITY_PER_BIN);
    fake_allocate(0xA000, 16, 16);
    mem_add_callback_function(callback<'a'>);
    mem_disable_tracking(MEM_GRANULARITY_PER_BIN);
    EXPECT_EQ(calls_of_one_event(), "a");
    EXPECT_EQ(mem_get_current_bytes(), 16U);
    EXPECT_TRUE(mem_tracking_is_enabled(MEM_GRANULARITY_NONE));
    mem_enable_tracking(MEM_GRANULARITY_PER_LIBRARY);
    EXPECT_FALSE(mem_tracking_is_enabled(MEM_GRANULARITY_PER_LIBRARY | MEM_GRANULARITY_PER_FILELINE));
}

// A change of the table is one step for an event: it calls the old entries or the new ones, none twice.
TEST_F(CALLBACK_TABLE_TEST, ChangesUnderRunningEvents) {
    add_counting_callbacks(std::make_integer_sequence<int, 2>());
    std::atomic<bool> stop{false};
    std::atomic<long> events{0};
    auto threads = run_on_threads(2, [&](std::uint64_t) {
        for (; !stop; ++events)
            fake_allocate(0xA000, 16, 16);
    });
    for (int change = 0; change < 2000; ++change) {
        mem_remove_callback_function(counting_callback<0>);
        mem_add_callback_function(counting_callback<0>);
    }
    stop = true;
    threads.clear();
    EXPECT_GE(counted_calls, events);
    EXPECT_LE(counted_calls, 2 * events);
}
