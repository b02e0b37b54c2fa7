// Global high-water marks, local regions, and the search for the threshold peak with its stretches.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/events/threshold_peak.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker/state/counters.h"

#include <thread>
#include <vector>

namespace {
std::vector<std::string> messages;
}

class PEAK_TEST : public TRACKER_TEST {
  protected:
    PEAK_TEST() {
        mem_set_msg_local_vdebug_callback([](const char*, const char* format, std::va_list args) {
            char text[200];
            std::vsnprintf(text, sizeof text, format, args);
            messages.emplace_back(text);
            return true;
        });
    }
    // A free while `total` bytes are live, at 16 bytes more for itself.
    static void free_at(std::int64_t total) {
        mem_tracked_total_bytes().store(total);
        release(0xF000, 16);
        mem_tracked_total_bytes().store(total);
    }
};

TEST_F(PEAK_TEST, IsRecordedAtDoublingsAndHigherSteps) {
    set_variable("mem_profile_fileline_peak_snapshot_threshold", "1000");
    start(MEM_GRANULARITY_PER_BIN_DETAILED);
    const auto records = [](std::int64_t total) {
        messages.clear();
        free_at(total);
        return messages.empty() ? std::string("none") : messages.back();
    };
    EXPECT_EQ(records(999), "none");
    EXPECT_EQ(records(3000),
              "Memory tracking: recording peak bytes at 3000 bytes, next peak at >= 3000 bytes");
    EXPECT_EQ(records(3999), "none");
    EXPECT_EQ(records(500), "none");
    EXPECT_EQ(records(4000),
              "Memory tracking: recording peak bytes at 4000 bytes, next peak at >= 4000 bytes");
    EXPECT_EQ(records(4000), "none");
}

TEST_F(PEAK_TEST, BelowTheFirstStepOnlyDoublingCounts) {
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 1000, {PARSE});
    release(0xA000, 1000);
    EXPECT_TRUE(messages.empty());
    allocate(0xA000, 1500, {PARSE});
    allocate(0xB000, 1500, {QUERY});
    release(0xA000, 1500);
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages[0], "Memory tracking: recording peak bytes at 3000 bytes, next peak at >= 6000 bytes");
    EXPECT_EQ(rendered_sites(), "parse cur 0/0 max 1500/1 peak 1500/1 cum 2500/2 req 2500 mis 0\n"
                                "query cur 1500/1 max 1500/1 peak 1500/1 cum 1500/1 req 1500 mis 0\n");
}

TEST_F(PEAK_TEST, TheBetterOfTwoStretchesStands) {
    start(MEM_GRANULARITY_ALL);
    allocate(0xA000, 5000, {PARSE});
    release(0xF000, 0); // a free of nothing records the peak
    mem_tbb_tracking_flush_peak();
    EXPECT_EQ(messages.back(), "Memory tracking: memory threshold peak was reset from 5000");
    release(0xA000, 5000);
    allocate(0xB000, 3000, {QUERY});
    release(0xF000, 0);
    mem_tbb_tracking_flush_peak(); // lower: can't replace the first
    mem_tbb_apply_final_peak();
    EXPECT_EQ(rendered_sites(), "OTHER cur 0/-2 max 0/0 peak 0/0 cum 0/0 req 0 mis 0\n"
                                "parse cur 0/0 max 5000/1 peak 5000/1 cum 5000/1 req 5000 mis 0\n"
                                "query cur 3000/1 max 3000/1 peak 0/0 cum 3000/1 req 3000 mis 0\n");
    EXPECT_EQ(pbin_stats->entry(0).peak_bytes.load(), 5000);
}

TEST_F(PEAK_TEST, AHigherLastStretchKeepsItsOwnFigures) {
    start(MEM_GRANULARITY_ALL);
    allocate(0xA000, 5000, {PARSE});
    release(0xF000, 0);
    mem_tbb_tracking_flush_peak();
    release(0xA000, 5000);
    allocate(0xB000, 12000, {QUERY});
    release(0xF000, 0);
    mem_tbb_apply_final_peak();
    EXPECT_EQ(rendered_site(PARSE), "parse cur 0/0 max 5000/1 peak 0/0 cum 5000/1 req 5000 mis 0");
    EXPECT_EQ(rendered_site(QUERY), "query cur 12000/1 max 12000/1 peak 12000/1 cum 12000/1 req 12000 mis 0");
    EXPECT_EQ(ptag_stats->entry(0).peak_bytes.load(), 12000);
}

TEST_F(PEAK_TEST, AFlushWithTheFastLeakCheckAloneMovesTheGlobalPeak) {
    start(MEM_GRANULARITY_CHECK_LEAKS_FAST);
    allocate(0xA000, 5000, {PARSE});
    release(0xA000, 5000);
    mem_tbb_tracking_flush_peak();
    EXPECT_EQ(messages.back(), "Memory tracking: memory peak was reset from 5000");
    EXPECT_EQ(mem_get_global_peak().bytes.load(), 0);
    allocate(0xA000, 100, {PARSE});
    mem_tbb_apply_final_peak();
    EXPECT_EQ(mem_get_global_peak().bytes.load(), 5000);
}

TEST_F(PEAK_TEST, LocalRegionsNest) {
    start(MEM_GRANULARITY_PER_BIN);
    allocate(0xA000, 500, {});
    release(0xA000, 500);
    allocate(0xB000, 100, {});
    const MEM_BASE_STATS outer = mem_enter_local_region();
    EXPECT_EQ(outer.bytes.load(), 500);
    allocate(0xC000, 200, {});
    const MEM_BASE_STATS inner = mem_enter_local_region();
    EXPECT_EQ(inner.bytes.load(), 300);
    release(0xC000, 200);
    allocate(0xC000, 50, {});
    EXPECT_EQ(mem_exit_local_region(inner).bytes.load(), 300); // where it began
    EXPECT_EQ(mem_exit_local_region(outer).bytes.load(), 300);
    EXPECT_EQ(mem_get_local_peak().bytes.load(), 500);
    EXPECT_EQ(mem_get_local_peak().blocks.load(), 2);
    EXPECT_EQ(mem_get_global_peak().bytes.load(), 500);
}

TEST_F(PEAK_TEST, GlobalPeakIsExactUnderThreads) {
    start(MEM_GRANULARITY_PER_BIN);
    std::vector<std::thread> threads;
    for (std::uint64_t thread = 0; thread < 4; ++thread)
        threads.emplace_back([thread] {
            for (int round = 0; round < 2000; ++round) {
                allocate(0x100000 * (thread + 1), 10, {});
                release(0x100000 * (thread + 1), 10);
            }
            allocate(0x100000 * (thread + 1), 1000, {});
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(mem_get_current_bytes(), 4000U);
    // Reached at the very end, whatever the threads' order, and never exceeded.
    EXPECT_EQ(mem_get_global_peak().bytes.load(), 4000);
}
