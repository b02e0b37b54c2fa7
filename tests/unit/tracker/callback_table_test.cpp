// The table of event callbacks: order, doubles, the hook that results, and changes under running events.

#include "tests/unit/tracker/tracker_fixture.h"

#include <atomic>
#include <thread>
#include <vector>

namespace {

std::vector<int> calls;
std::atomic<long> counted_calls{0};

template <int NUMBER>
void callback(void*, std::uint64_t, std::uint64_t, bool) {
    calls.push_back(NUMBER);
}

template <int NUMBER>
void counting_callback(void*, std::uint64_t, std::uint64_t, bool) {
    ++counted_calls;
}

std::vector<int> calls_of_one_event() {
    calls.clear();
    fake_allocate(0xA000, 16, 16);
    return calls;
}

template <int... NUMBERS>
void add_callbacks(std::integer_sequence<int, NUMBERS...>) {
    (mem_add_callback_function(callback<NUMBERS>), ...);
}

} // namespace

class CALLBACK_TABLE_TEST : public TRACKER_TEST {};

TEST_F(CALLBACK_TABLE_TEST, CallsInOrderOfAdding) {
    mem_add_callback_function(callback<1>);
    mem_add_callback_function(callback<1>);
    EXPECT_EQ(calls_of_one_event(), (std::vector{1}));
    mem_add_callback_function(callback<2>);
    mem_add_callback_function(callback<3>);
    EXPECT_EQ(calls_of_one_event(), (std::vector{1, 2, 3}));
    mem_remove_callback_function(callback<2>);
    mem_remove_callback_function(callback<4>);
    EXPECT_EQ(calls_of_one_event(), (std::vector{1, 3}));
    mem_remove_callback_function(callback<1>);
    EXPECT_EQ(calls_of_one_event(), (std::vector{3}));
    mem_remove_callback_function(callback<3>);
    EXPECT_FALSE(fake_hook_is_installed());
}

TEST_F(CALLBACK_TABLE_TEST, HoldsSixteen) {
    add_callbacks(std::make_integer_sequence<int, 16>());
    mem_add_callback_function(callback<3>);
    EXPECT_EQ(calls_of_one_event().size(), 16U);
    EXPECT_DEATH(mem_add_callback_function(callback<16>),
                 "MEM: internal error: Change the size of callback_fns to increase the number of allowed "
                 "callbacks");
}

TEST_F(CALLBACK_TABLE_TEST, HoldsTheEventHandlerWhileTheMaskIsNotZero) {
    start(0);
    mem_enable_tracking(MEM_GRANULARITY_NONE);
    EXPECT_FALSE(fake_hook_is_installed());
    mem_enable_tracking(MEM_GRANULARITY_PER_BIN);
    fake_allocate(0xA000, 16, 16);
    mem_add_callback_function(callback<1>);
    mem_disable_tracking(MEM_GRANULARITY_PER_BIN);
    EXPECT_EQ(calls_of_one_event(), (std::vector{1}));
    EXPECT_EQ(mem_get_current_bytes(), 16U);
    EXPECT_TRUE(mem_tracking_is_enabled(MEM_GRANULARITY_NONE));
    mem_enable_tracking(MEM_GRANULARITY_PER_LIBRARY);
    EXPECT_FALSE(mem_tracking_is_enabled(MEM_GRANULARITY_PER_LIBRARY | MEM_GRANULARITY_PER_FILELINE));
}

// A change of the table is one step for an event: it calls the old entries or the new ones, and no entry
// twice.
TEST_F(CALLBACK_TABLE_TEST, ChangesUnderRunningEvents) {
    mem_add_callback_function(counting_callback<0>);
    mem_add_callback_function(counting_callback<1>);
    std::atomic<bool> stop{false};
    std::atomic<long> events{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 2; ++thread)
        threads.emplace_back([&] {
            for (; !stop; ++events)
                fake_allocate(0xA000, 16, 16);
        });
    for (int change = 0; change < 2000; ++change) {
        mem_remove_callback_function(counting_callback<0>);
        mem_add_callback_function(counting_callback<0>);
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_GE(counted_calls, events);
    EXPECT_LE(counted_calls, 2 * events);
}
