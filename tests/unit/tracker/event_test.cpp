// What allocations and frees move that a random run doesn't bring about.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/mem_tbb_tracker/records/block_shards.h"
#include "vbx/mem/mem_tbb_tracker/state/counters.h"

namespace {
const void* at(std::uint64_t address) {
    return reinterpret_cast<const void*>(address);
}
} // namespace

class EVENT_TEST : public TRACKER_TEST {};

TEST_F(EVENT_TEST, QueriesTellWhereABlockWasAllocated) {
    MEM_ADDRESS_TRACKER site;
    site.line = 99;
    EXPECT_DEATH(mem_get_address_tracker(at(0xA000), site), "mem_tbb_tracker_is_inited\\(\\)");
    start(MEM_GRANULARITY_ALL);
    allocate(0xA000, 64, {FILTERED, PARSE}, 50);
    EXPECT_FALSE(mem_get_address_tracker(at(0xA008), site));
    EXPECT_EQ(site.line, 99U);
    ASSERT_TRUE(mem_get_address_tracker(at(0xA000), site));
    EXPECT_EQ(site.address, PARSE);
    EXPECT_STREQ(site.function_name, "parse");
    EXPECT_STREQ(site.file_name, "/src/parse.cpp");
    EXPECT_STREQ(site.module_name, "parser");
    EXPECT_EQ(site.line, 10U);
    EXPECT_FALSE(site.filtered);
    EXPECT_EQ(site.module_tracker->cumulative_requested_bytes, 50);
    MEMORY_TRACKER_BASE record;
    EXPECT_FALSE(mem_get_module_tracker("Parser", record));
}

// Its free was never seen. The sites keep the second allocation, the bins the first.
TEST_F(EVENT_TEST, ABlockAllocatedTwiceHasOneOwner) {
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 64, {PARSE});
    allocate(0xA000, 64, {QUERY});
    release(0xA000, 64);
    EXPECT_EQ(rendered_sites(), "parse cur 64/1 max 64/1 peak 0/0 cum 64/1 req 64 mis 0\n"
                                "query cur 0/0 max 64/1 peak 0/0 cum 64/1 req 64 mis 0\n");
    MEM_BLOCK_SHARDS shards;
    shards.insert(at(0x1010), {1, 2});
    shards.insert(at(0x1010), {3, 4});
    EXPECT_EQ(shards.take(at(0x1010)).tag_id, 2U);
    EXPECT_EQ(shards.take(at(0x1010)).tag_id, 0U);
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
        allocate(0xB000, 8, {PARSE});
        release(0xA040, 64);
    }
    EXPECT_EQ(rendered_sites(), "");
    EXPECT_EQ(mem_sample_counter.load(), 0U);
    const MEM_FALLBACK_COUNTERS& counters = mem_fallback_counters;
    EXPECT_EQ(counters.allocations.load(), 3U);
    EXPECT_EQ(counters.frees.load(), 2U);
    EXPECT_EQ(counters.requested_total.load(), 50U);
    EXPECT_EQ(counters.allocated_total.load(), 136U);
    EXPECT_EQ(counters.requested_outstanding.load(), 50U);
    EXPECT_EQ(counters.allocated_outstanding.load(), 8U);
}

TEST_F(EVENT_TEST, PrintsTheTimelineIndexOnEveryEighthSample) {
    start(MEM_GRANULARITY_PER_FILELINE, "2");
    testing::internal::CaptureStdout();
    for (std::uint64_t block = 0; block < 18; ++block)
        allocate(0xA000 + 16 * block, 16, {PARSE});
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Debug: MEM: Memory tracking: at timeline index 0 with total memory 16\n"
              "Debug: MEM: Memory tracking: at timeline index 8 with total memory 272\n");
}

TEST_F(EVENT_TEST, ScopeGuardStopsTheGlobalStatisticsAlone) {
    start(MEM_GRANULARITY_PER_BIN | MEM_GRANULARITY_PER_FILELINE);
    for (const bool was_on : {true, false}) {
        mem_set_tbb_track_alloc_dealloc(was_on);
        {
            const MEM_TBB_NO_TRACK_ALLOC_DEALLOC_UNTIL_SCOPE_EXIT guard;
            allocate(0xA000 + was_on, 16, {PARSE});
            mem_set_tbb_track_alloc_dealloc(!was_on);
        }
        EXPECT_EQ(mem_get_tbb_track_alloc_dealloc(), was_on);
    }
    EXPECT_EQ(mem_get_current_bytes(), 0U);
    EXPECT_EQ(rendered_sites(), "parse cur 32/2 max 32/2 peak 0/0 cum 32/2 req 32 mis 0\n");
}
