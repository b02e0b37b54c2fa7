// What a reset forgets, what it leaves, and what becomes of blocks that were live.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/events/threshold_peak.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker/state/counters.h"
#include "vbx/mem/tracker.h"

namespace {
const void* at(std::uint64_t address) {
    return reinterpret_cast<const void*>(address);
}
bool is_known(std::uint64_t block) {
    MEM_ADDRESS_TRACKER site;
    return mem_get_address_tracker(at(block), site);
}
bool has_module(const char* name) {
    MEMORY_TRACKER_BASE record;
    return mem_get_module_tracker(name, record);
}
} // namespace

class RESET_TEST : public TRACKER_TEST {};

TEST_F(RESET_TEST, NeedsAStartedTracker) {
    EXPECT_DEATH(mem_reset_tracking_entries(), "mem_tbb_tracker_is_inited\\(\\)");
    start(0);
    mem_reset_tracking_entries();
    MEM_ADDRESS_TRACKER site;
    EXPECT_TRUE(mem_get_address_tracker(nullptr, site)); // made again on demand
}

TEST_F(RESET_TEST, ForgetsWhatWasAttributed) {
    start(MEM_GRANULARITY_ALL);
    mem_open_profile_bin("phase", "tag");
    allocate(0xA000, 5000, {PARSE});
    allocate(0xB000, 700, {FILTERED});
    release(0xF000, 0); // records a peak
    ASSERT_EQ(mem_threshold_peak_bytes, 5700);
    mem_reset_tracking_entries();
    EXPECT_EQ(rendered_sites(), "");
    EXPECT_EQ(rendered_site(0), "none");
    EXPECT_FALSE(is_known(0xA000));
    EXPECT_FALSE(has_module("parser"));
    EXPECT_FALSE(has_module("OTHER"));
    EXPECT_EQ(ptag_stats->size(), 0U);
    EXPECT_EQ(mem_tracked_total_bytes().load(), 0);
    EXPECT_EQ(mem_threshold_peak_bytes, 0);
    EXPECT_EQ(mem_next_peak_bytes, 1024);
    // These stay.
    EXPECT_EQ(pbin_stats->figures(1).current_bytes, 5700);
    EXPECT_EQ(pbin_stats->figures(1).peak_bytes, 5700);
    EXPECT_EQ(mem_get_current_bytes(), 5700U);
    EXPECT_EQ(mem_get_global_peak().bytes.load(), 5700);

    // Tracking goes on, in the bin and tag that are open.
    allocate(0xC000, 64, {PARSE});
    EXPECT_EQ(rendered_sites(), "parse cur 64/1 max 64/1 peak 0/0 cum 64/1 req 64 mis 0\n");
    EXPECT_EQ(module_record("parser").current_bytes, 64);
    EXPECT_FALSE(has_module("OTHER"));
    EXPECT_EQ(ptag_stats->figures(1).cumulative_bytes, 64);
}

TEST_F(RESET_TEST, LateFreesGoToTheCatchAll) {
    start(MEM_GRANULARITY_ALL);
    allocate(0xA000, 100, {PARSE});
    mem_open_profile_bin("phase", "tag");
    allocate(0xB000, 2000, {QUERY});
    allocate(0xC000, 30000, {QUERY});
    mem_reset_tracking_entries();
    release(0xB000, 2000); // its tag is not in the table any more
    EXPECT_EQ(ptag_stats->size(), 0U);
    EXPECT_EQ(rendered_sites(), "OTHER cur -2000/-1 max 0/0 peak 0/0 cum 0/0 req 0 mis 0\n");
    EXPECT_EQ(module_record("OTHER").current_bytes, -2000);
    EXPECT_EQ(mem_tracked_total_bytes().load(), -2000);
    EXPECT_EQ(pbin_stats->figures(1).current_bytes, 30000);
    // Once the table holds the tag again, older blocks are subtracted from it.
    allocate(0xD000, 500, {PARSE});
    release(0xC000, 30000);
    release(0xA000, 100);
    EXPECT_EQ(ptag_stats->figures(0).current_bytes, -100);
    EXPECT_EQ(ptag_stats->figures(1).current_bytes, -29500);
    EXPECT_EQ(pbin_stats->figures(0).current_bytes, 0);
    EXPECT_EQ(pbin_stats->figures(1).current_bytes, 500);
    EXPECT_EQ(catch_all().current_blocks, -3);
}

TEST_F(RESET_TEST, BehindTheTeardownNothingHappens) {
    start(MEM_GRANULARITY_ALL);
    allocate(0xA000, 100, {PARSE});
    mem_shutdown_tbb_tracking();
    mem_reset_tracking_entries();
    EXPECT_EQ(pbin_stats->figures(0).current_bytes, 100);
    mem_tbb_tracker_teardown();
    mem_reset_tracking_entries();
}
