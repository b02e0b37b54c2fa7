// In a sanitizer build the events come from the sanitizer's malloc: balanced, with equal sizes, on all
// threads.
#include "tests/process/hangs/busy.h"
#include "tests/unit/tbbamalloc/recorded_events.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

TEST(SanitizerFlavour, ReportsBothEventsOfABlock) {
    ASSERT_TRUE(tbbk_process_malloc_is_shim());
    for (const std::size_t size : {1UL, 100UL, 100'000UL}) {
        RECORDED_EVENTS recorded([](const RECORDED_EVENTS::EVENT& event) {
            EXPECT_NE(tbbk_entry_frame(), nullptr);
            EXPECT_NE(tbbk_entry_depth(), 0U);
            EXPECT_TRUE(!event.is_allocation || event.allocated == _msize(event.block));
        });
        void* volatile block = std::malloc(size);
        std::free(block);
        tbbk_set_mem_tracker_callback(nullptr);
        ASSERT_GE(recorded.count, 2U);
        EXPECT_EQ(recorded.events[0].requested, size);
        EXPECT_EQ(recorded.events[1].block, recorded.events[0].block);
        EXPECT_EQ(recorded.events[1].allocated, recorded.events[0].allocated);
        EXPECT_FALSE(recorded.events[1].is_allocation);
    }
}

std::atomic<std::int64_t> live_bytes = 0;
std::int64_t bytes_outside_quiet = 0; // plain: the gate alone orders the accesses

void sum_up(void*, std::uint64_t, std::uint64_t allocated, bool is_allocation) {
    // The C library keeps small blocks of ended threads for the next ones.
    const auto bytes = allocated < 4096 ? 0 : static_cast<std::int64_t>(allocated);
    live_bytes.fetch_add(is_allocation ? bytes : -bytes);
    [[maybe_unused]] const volatile std::int64_t seen = bytes_outside_quiet;
}

TEST(SanitizerFlavour, SizesOfManyThreadsAddUpToZero) {
    tbbk_set_mem_tracker_callback(sum_up);
    const std::int64_t before = live_bytes;
    {
        const BUSY_THREADS busy(3);
        for (int i = 0; i != 20; ++i) {
            ASSERT_TRUE(tbbk_quiesce_begin(20'000));
            bytes_outside_quiet = live_bytes;
            usleep(1000);
            EXPECT_EQ(bytes_outside_quiet, live_bytes);
            tbbk_quiesce_end();
        }
    }
    EXPECT_EQ(live_bytes, before);
    tbbk_set_mem_tracker_callback(nullptr);
}

} // namespace
