// When the timelines are sampled, what a sample of modules, bins and tags holds, and the labels of its rows.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/events/event_totals.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker/timelines/module_timeline.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/profile_bins.h"
#include "vbx/mem/tracker.h"

#include <sstream>

namespace {

std::string module_rows() {
    return rows_of(mem_dump_tbb_module_tracking);
}
std::string tag_rows() {
    return rows_of(mem_dump_tbb_profile_bin_tag_timeline_tracking);
}
// The label of a sample that is taken now.
std::string label() {
    mem_user_snapshot_tracking_data();
    const std::string rows = module_rows();
    const std::size_t last = rows.rfind('\n', rows.size() - 2) + 1;
    return rows.substr(last, rows.find('\t', last) - last);
}

} // namespace

class TIMELINES_TEST : public TRACKER_TEST {};

TEST_F(TIMELINES_TEST, EventsThatAreOnlyCountedAreTicks) {
    start(MEM_GRANULARITY_CHECK_LEAKS_FAST, "8");
    for (std::uint64_t tick = 0; tick < 6; ++tick)
        allocate(0xA000 + 16 * tick, 1, {PARSE});
    release(0xA000, 1);
    mem_enable_tracking(MEM_GRANULARITY_PER_LIBRARY);
    allocate(0xB000, 1, {PARSE}); // tick 7
    allocate(0xC000, 1, {PARSE});
    EXPECT_EQ(module_rows(), "\tOTHER\tparser\nOther\t0\t2\n");
}

TEST_F(TIMELINES_TEST, AHostsSampleCountsWhateverIsOn) {
    EXPECT_DEATH(mem_user_snapshot_tracking_data(), "mem_tbb_tracker_is_inited\\(\\)");
    std::ostringstream plain, detailed;
    EXPECT_FALSE(mem_dump_tbb_module_tracking(plain, detailed));
    EXPECT_TRUE(mem_dump_tbb_profile_bin_tag_timeline_tracking(plain, detailed));
    EXPECT_EQ(detailed.str(), "");
    start(0);
    mem_set_timeline_label("idle");
    mem_user_snapshot_tracking_data();
    mem_tbb_tracking_flush_peak(); // ends with one more
    EXPECT_EQ(module_rows(), "\tOTHER\nidle\t0\nidle\t0\n");
    EXPECT_EQ(mem_module_timeline->bytes_series.at("OTHER").runs.size(),
              1U); // what stands still costs nothing
    EXPECT_EQ(mem_event_totals.ticks(), 2U);
    mem_tbb_tracker_teardown();
    EXPECT_FALSE(mem_dump_tbb_module_tracking(plain, detailed));
    EXPECT_TRUE(mem_dump_tbb_profile_bin_stats_tracking(plain));
}

TEST_F(TIMELINES_TEST, AModuleIsLateBehindAReset) {
    start(MEM_GRANULARITY_PER_LIBRARY, "1000");
    allocate(0xA000, 10, {PARSE}); // sample 0
    mem_reset_tracking_entries();
    mem_user_snapshot_tracking_data(); // nothing to sample
    allocate(0xB000, 3, {PARSE});
    allocate(0xC000, 4, {QUERY});
    mem_user_snapshot_tracking_data();
    EXPECT_EQ(module_rows(), "\tengine\tOTHER\tparser\nOther\t0\t0\t10\n"
                             "Other\t0\t0\t3\n" // shifted: the series went on where it stopped
                             "Other\t4\t0\t0\n");
}

TEST_F(TIMELINES_TEST, RowsBehindAResetBearTheFirstBins) {
    start(MEM_GRANULARITY_PER_BIN_DETAILED, "1");
    for (const std::uint64_t block : {1, 2}) {
        mem_open_profile_bin("bin" + std::to_string(block), "");
        allocate(block, block, {});
    }
    mem_reset_tracking_entries();
    EXPECT_EQ(tag_rows(), "\n");
    release(1, 1); // its tag is gone
    allocate(3, 4, {});
    EXPECT_EQ(tag_rows(), "\tRoot\nRoot::bin1\t0\nRoot::bin2\t4\n");
}

// They share one name in the timeline, and are charged each for itself.
TEST_F(TIMELINES_TEST, ThereMayBeMoreBinsThanSixteenBitsHold) {
    start(MEM_GRANULARITY_PER_BIN_DETAILED, "1000000");
    for (int bin = 1; bin < 65535; ++bin)
        MEM_PROFILE_BINS::get_instance().m_bins().find_or_add("b" + std::to_string(bin));
    mem_open_profile_bin("the last that fits", ""); // id 65535
    allocate(0xA000, 1, {});
    EXPECT_EQ(tag_rows(), "\tRoot\nRoot::the last that fits\t1\n");
    mem_open_profile_bin("one too many", "");
    allocate(0xB000, 7, {});
    mem_user_snapshot_tracking_data();
    EXPECT_EQ(tag_rows(), "\tRoot\nOther\t1\nOther\t8\n");
    EXPECT_EQ(pbin_stats->size(), 65537U);
    EXPECT_EQ(pbin_stats->figures(65536).current_bytes, 7);
    release(0xB000, 7);
    EXPECT_EQ(pbin_stats->figures(65536).current_bytes, 0);
}

TEST_F(TIMELINES_TEST, TheInnermostOpenTagIsTheLabel) {
    start(MEM_GRANULARITY_PER_BIN);
    EXPECT_EQ(label(), "Other");
    mem_open_profile_bin("a", "tag"); // moves no label without the modules
    close_bin("tag");
    EXPECT_EQ(label(), "Other");
    mem_enable_tracking(MEM_GRANULARITY_PER_LIBRARY);
    mem_open_profile_bin("a", "outer");
    mem_open_profile_bin("b", "inner");
    EXPECT_EQ(label(), "inner");
    mem_open_profile_bin("c", ""); // a bin without a tag moves no label
    mem_set_timeline_label("by hand");
    close_bin();
    EXPECT_EQ(label(), "by hand");
    close_bin("unknown"); // drops nothing, but the newest tag is the label again
    EXPECT_EQ(label(), "inner");
    mem_open_profile_bin("b", "inner");
    close_bin("inner");
    EXPECT_EQ(label(), "inner");
    mem_disable_profile_bin_tag_timeline_labels(); // from here on they are the host's alone
    close_bin("inner");
    mem_open_profile_bin("c", "other");
    EXPECT_EQ(label(), "inner");
}
