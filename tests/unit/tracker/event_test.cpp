// What one allocation and one free move, feature by feature, and what blocks do that the tracker doesn't
// know.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker/state/counters.h"

#include <thread>

class EVENT_TEST : public TRACKER_TEST {};

TEST_F(EVENT_TEST, ChargesAndCreditsTheSite) {
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 64, {PARSE, QUERY}, 50);
    allocate(0xA040, 32, {PARSE, QUERY});
    allocate(0xA080, 128, {QUERY}, 100);
    release(0xA000, 64);
    EXPECT_EQ(rendered_sites(), "parse cur 32/1 max 96/2 peak 0/0 cum 96/2 req 82 mis 0\n"
                                "query cur 128/1 max 128/1 peak 0/0 cum 128/1 req 100 mis 0\n");
    EXPECT_EQ(mem_tracked_total_bytes().load(), 160);
    EXPECT_EQ(mem_get_stats().current.bytes.load(), 0);
    MEMORY_TRACKER_BASE record;
    EXPECT_FALSE(mem_get_module_tracker("parser", record));
}

struct FEATURE_CASE {
    std::uint32_t mask;
    bool counts_sites;
    bool counts_modules;
    bool counts_globally;
    bool counts_total;
    bool counts_bins;
    bool knows_block;
};

class FEATURE_TEST : public EVENT_TEST, public testing::WithParamInterface<FEATURE_CASE> {};

TEST_P(FEATURE_TEST, MovesWhatItsBitsAskFor) {
    const FEATURE_CASE& expected = GetParam();
    start(expected.mask);
    EXPECT_EQ(fake_hook_is_installed(), expected.mask != 0);
    allocate(0xA000, 64, {PARSE});

    MEM_ADDRESS_TRACKER site;
    EXPECT_EQ(mem_get_address_tracker(reinterpret_cast<void*>(0xA000), site), expected.knows_block);
    EXPECT_EQ(site.current_bytes, expected.counts_sites ? 64 : 0);
    EXPECT_EQ(site.module_tracker != nullptr, expected.counts_modules);
    MEMORY_TRACKER_BASE record;
    EXPECT_EQ(mem_get_module_tracker("parser", record), expected.counts_modules);
    EXPECT_EQ(mem_get_current_bytes(), expected.counts_globally ? 64U : 0U);
    EXPECT_EQ(mem_tracked_total_bytes().load(), expected.counts_total ? 64 : 0);
    EXPECT_EQ(pbin_stats->entry(0).current_bytes.load(), expected.counts_bins ? 64 : 0);
    EXPECT_EQ(ptag_stats->entry(0).cumulative_bytes.load(), expected.counts_bins ? 64 : 0);
    EXPECT_EQ(fake_captures().size(), expected.knows_block ? 1U : 0U);

    release(0xA000, 64);
    EXPECT_EQ(mem_get_current_bytes(), 0U);
    EXPECT_EQ(mem_tracked_total_bytes().load(), 0);
    EXPECT_EQ(pbin_stats->entry(0).current_bytes.load(), 0);
    EXPECT_EQ(mem_sample_counter.load(), expected.mask != 0 ? 2U : 0U);
}

INSTANTIATE_TEST_SUITE_P(Masks, FEATURE_TEST,
                         testing::Values(FEATURE_CASE{0, false, false, false, false, false, false},
                                         FEATURE_CASE{1, false, false, true, false, false, false},
                                         FEATURE_CASE{2, false, false, false, true, true, false},
                                         FEATURE_CASE{4, false, true, false, true, false, true},
                                         FEATURE_CASE{8, true, false, false, true, false, true},
                                         FEATURE_CASE{16, true, false, false, false, false, true},
                                         FEATURE_CASE{32, false, false, true, false, false, false},
                                         FEATURE_CASE{64, false, false, false, false, false, false},
                                         FEATURE_CASE{95, true, true, true, true, true, true}),
                         [](const auto& test) { return "Mask" + std::to_string(test.param.mask); });

TEST_F(EVENT_TEST, RollsSitesUpIntoModules) {
    start(MEM_GRANULARITY_PER_LIBRARY);
    allocate(0xA000, 64, {PARSE}, 60);
    allocate(0xA040, 32, {EXPAND}, 30);
    release(0xA000, 64);
    const MEMORY_TRACKER_BASE parser = module_record("parser");
    EXPECT_EQ(parser.current_blocks, 1);
    EXPECT_EQ(parser.max_blocks, 2);
    EXPECT_EQ(parser.cumulative_blocks, 2);
    EXPECT_EQ(parser.current_bytes, 32);
    EXPECT_EQ(parser.max_bytes, 96);
    EXPECT_EQ(parser.cumulative_bytes, 96);
    EXPECT_EQ(parser.cumulative_requested_bytes, 90);
    EXPECT_EQ(parser.peak_bytes, 0);
    MEMORY_TRACKER_BASE none;
    EXPECT_FALSE(mem_get_module_tracker("", none));
    EXPECT_FALSE(mem_get_module_tracker("Parser", none));
}

TEST_F(EVENT_TEST, TakesUnknownBlocksFromTheCatchAll) {
    start(MEM_GRANULARITY_ALL);
    EXPECT_EQ(module_record("OTHER").current_blocks, 0);
    release(0xB000, 48);
    EXPECT_EQ(catch_all().current_blocks, -1);
    EXPECT_EQ(catch_all().current_bytes, -48);
    EXPECT_EQ(module_record("OTHER").current_bytes, -48);
    EXPECT_EQ(mem_tracked_total_bytes().load(), -48);
    EXPECT_EQ(mem_get_current_bytes(), static_cast<std::uint64_t>(-48));
}

TEST_F(EVENT_TEST, KeepsTheSecondSiteOfABlockAllocatedTwice) {
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 64, {PARSE});
    allocate(0xA000, 64, {QUERY});
    release(0xA000, 64);
    EXPECT_EQ(rendered_sites(), "parse cur 64/1 max 64/1 peak 0/0 cum 64/1 req 64 mis 0\n"
                                "query cur 0/0 max 64/1 peak 0/0 cum 64/1 req 64 mis 0\n");
}

TEST_F(EVENT_TEST, CountsSmallBlocksFreedOnAnotherThread) {
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 8128, {PARSE});
    allocate(0xC000, 8129, {PARSE});
    allocate(0xE000, 16, {PARSE});
    std::thread([] {
        release(0xA000, 8128);
        release(0xC000, 8129);
        release(0xBBBB0, 16); // unknown: never mismatched
    }).join();
    release(0xE000, 16);
    EXPECT_EQ(rendered_site(PARSE), "parse cur 0/0 max 16273/3 peak 16273/3 cum 16273/3 req 16273 mis 8128");
    EXPECT_EQ(catch_all().cumulative_mismatched_bytes, 0);
}

TEST_F(EVENT_TEST, TellsMismatchedBlocksByTheMaskOfBothEvents) {
    start(MEM_GRANULARITY_CHECK_LEAKS);
    allocate(0xA000, 16, {PARSE});
    allocate(0xB000, 16, {QUERY});
    mem_enable_tracking(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xC000, 16, {EXPAND});
    release(0xA000, 16); // allocated while no thread was kept
    mem_disable_tracking(MEM_GRANULARITY_PER_FILELINE);
    std::thread([] {
        release(0xB000, 16);
        release(0xC000, 16);
    }).join();
    EXPECT_EQ(rendered_sites(), "parse cur 0/0 max 16/1 peak 0/0 cum 16/1 req 16 mis 16\n"
                                "expand cur 0/0 max 16/1 peak 0/0 cum 16/1 req 16 mis 0\n"
                                "query cur 0/0 max 16/1 peak 0/0 cum 16/1 req 16 mis 0\n");
}

TEST_F(EVENT_TEST, FindsTheModuleByNameWhenTheSiteHasNone) {
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 16, {PARSE});
    mem_enable_tracking(MEM_GRANULARITY_PER_LIBRARY);
    release(0xA000, 16);
    EXPECT_EQ(module_record("parser").current_blocks, -1);
    EXPECT_EQ(module_record("parser").cumulative_blocks, 0);
}

TEST_F(EVENT_TEST, CountsBlockedThreadsAndItsOwnEventsApart) {
    start(MEM_GRANULARITY_ALL);
    EXPECT_EQ(mem_block_thread_tracking(), 0);
    EXPECT_EQ(mem_block_thread_tracking(), 1);
    allocate(0xA000, 64, {PARSE});
    allocate(0xA040, 64, {PARSE}, 50);
    release(0xA000, 64);
    EXPECT_EQ(mem_unblock_thread_tracking(), 1);
    EXPECT_EQ(mem_unblock_thread_tracking(), 0);
    {
        const MEM_IN_TRACKER_SCOPE own_event;
        release(0xA040, 64);
    }
    EXPECT_EQ(rendered_sites(), "");
    EXPECT_EQ(mem_sample_counter.load(), 0U);
    const MEM_FALLBACK_COUNTERS& counters = mem_fallback_counters;
    EXPECT_EQ(counters.allocations.load(), 2U);
    EXPECT_EQ(counters.frees.load(), 2U);
    EXPECT_EQ(counters.requested_total.load(), 50U);
    EXPECT_EQ(counters.allocated_total.load(), 128U);
    EXPECT_EQ(counters.requested_outstanding.load(), 50U);
    EXPECT_EQ(counters.allocated_outstanding.load(), 0U);
}

TEST_F(EVENT_TEST, PrintsTheTimelineIndexOnEveryEighthSample) {
    set_variable("mem_profile_library_snapshot_period", "2");
    start(MEM_GRANULARITY_PER_FILELINE);
    testing::internal::CaptureStdout();
    for (std::uint64_t block = 0; block < 18; ++block)
        allocate(0xA000 + 16 * block, 16, {PARSE});
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Debug: MEM: Memory tracking: at timeline index 0 with total memory 16\n"
              "Debug: MEM: Memory tracking: at timeline index 8 with total memory 272\n");
}

TEST_F(EVENT_TEST, ScopeGuardStopsTheGlobalStatisticsAlone) {
    start(MEM_GRANULARITY_PER_BIN | MEM_GRANULARITY_PER_FILELINE);
    {
        const MEM_TBB_NO_TRACK_ALLOC_DEALLOC_UNTIL_SCOPE_EXIT guard;
        allocate(0xA000, 16, {PARSE});
    }
    allocate(0xA010, 16, {PARSE});
    EXPECT_EQ(mem_get_current_bytes(), 16U);
    EXPECT_EQ(catch_all().current_blocks, 0);
    EXPECT_EQ(rendered_site(PARSE), "parse cur 32/2 max 32/2 peak 0/0 cum 32/2 req 32 mis 0");
    mem_set_tbb_track_alloc_dealloc(false);
    {
        const MEM_TBB_NO_TRACK_ALLOC_DEALLOC_UNTIL_SCOPE_EXIT guard;
        mem_set_tbb_track_alloc_dealloc(true);
    }
    EXPECT_FALSE(mem_get_tbb_track_alloc_dealloc());
}
