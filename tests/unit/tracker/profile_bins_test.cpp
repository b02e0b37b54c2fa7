// Opening and closing of profile bins: what is current, what a region measures, and the peaks.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/events/gate.h"
#include "vbx/mem/mem_tbb_tracker/events/threshold_peak.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker/state/settings.h"
#include "vbx/mem/mem_tbb_tracker/state/switches.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/profile_bins.h"
#include "vbx/mem/tracker.h"

namespace {

std::string current() {
    MEM_PROFILE_BINS& bins = MEM_PROFILE_BINS::get_instance();
    return bins.m_tags().get_curr_name() + " | " + bins.m_bins().get_curr_name();
}

} // namespace

class PROFILE_BINS_TEST : public TRACKER_TEST {};

TEST_F(PROFILE_BINS_TEST, TagsAndBinsCloseIndependently) {
    start(MEM_GRANULARITY_PER_BIN_DETAILED);
    mem_open_profile_bin("a", "");
    mem_open_profile_bin("a", "t");
    mem_open_profile_bin("b", "");
    EXPECT_EQ(current(), "t | t::b");
    close_bin("t"); // the tag goes with the first close that names it
    EXPECT_EQ(current(), "Root | t::a");
    close_bin();
    mem_open_profile_bin("", "T"); // another tag than t; a bin may have no name of its own
    EXPECT_EQ(current(), "T | T::");
    close_bin("T");
    EXPECT_EQ(current(), "Root | Root::a");
}

TEST_F(PROFILE_BINS_TEST, RegionsNest) {
    start(MEM_GRANULARITY_PER_BIN);
    allocate(0xA000, 500, {});
    release(0xA000, 500);
    allocate(0xB000, 100, {});
    mem_open_profile_bin("outer", "t");
    allocate(0xC000, 200, {});
    {
        MEM_PROFILE_BIN_SCOPE inner("inner"); // closed once only
        allocate(0xD000, 1000, {});
        release(0xD000, 1000);
        release(0xC000, 200);
        const auto [at_open, at_close, peak] = inner.close();
        EXPECT_EQ(at_open, 300U);
        EXPECT_EQ(at_close, 100U);
        EXPECT_EQ(peak, 1300U);
    }
    EXPECT_EQ(close_bin("t"), "100 100 1300"); // the inner peak is the outer one's too
    const MEM_BASE_STATS saved = mem_enter_local_region();
    EXPECT_EQ(saved.blocks.load(), 3);
    EXPECT_EQ(mem_exit_local_region(saved).bytes.load(), 100); // where it began
    EXPECT_EQ(mem_get_local_peak().bytes.load(), 1300);
}

TEST_F(PROFILE_BINS_TEST, EachMechanismHasItsSwitch) {
    mem_open_profile_bin("a", "t"); // before the start
    EXPECT_EQ(close_bin("t"), "0 0 0");
    start(MEM_GRANULARITY_PER_BIN);
    allocate(0xA000, 64, {});
    mem_open_profile_bin("a", "t");
    EXPECT_EQ(current(), "Root | Root");
    EXPECT_EQ(close_bin("t"), "64 64 64");
    EXPECT_DEATH(close_bin(), "!stack.empty\\(\\)");
    mem_set_tbb_memory_tracking_enabled(false);
    mem_bin_tag_tracking_flag = true;
    mem_open_profile_bin("a", "t");
    EXPECT_EQ(current(), "t | t::a");
    EXPECT_DEATH(close_bin("T"), "name == get_curr_name\\(\\)");
    EXPECT_EQ(close_bin("t"), "0 0 0");
    EXPECT_DEATH(close_bin(), "!m_pb_id_stack.empty\\(\\)");
    // The end clears the switches: bins that are still open then are closed for nothing.
    mem_set_tbb_memory_tracking_enabled(true);
    mem_enable_tracking(MEM_GRANULARITY_ALL);
    mem_open_profile_bin("a", "t");
    mem_shutdown_tbb_tracking();
    EXPECT_EQ(close_bin("t"), "0 0 0");
}

TEST_F(PROFILE_BINS_TEST, InAForkedChildEveryCallReturns) {
    start(MEM_GRANULARITY_ALL);
    mem_open_profile_bin("a", "tag");
    allocate(0xA000, 100, {PARSE});
    // Of the threads that the child doesn't have one holds the tables still, and others are inside the gates.
    for (MEM_TRACKER_GATE* const gate : {mem_tbb_gate, &mem_event_totals.gate})
        run_on_threads(1, [gate](std::uint64_t) { gate->enter(MEM_GATE_ROLE::mouse); });
    run_on_threads(1, [](std::uint64_t) { mem_pb_stats_gate.enter(MEM_GATE_ROLE::cat); });
    mem_abandon_tracker_after_fork();
    mem_open_profile_bin("b", "tag");
    close_bin("tag");
    mem_reset_tracking_entries();
    mem_tbb_tracking_flush_peak();
    pbin_stats->snapshot_peak();
    ptag_stats->snapshot_peak();
    EXPECT_EQ(pbin_stats->figures(1).peak_bytes, 100);
}

// ---- peaks

class PEAK_TEST : public TRACKER_TEST {
  protected:
    static std::string recorded(std::int64_t total, std::int64_t next) {
        return "MEM: Memory tracking: recording peak bytes at " + std::to_string(total) +
               " bytes, next peak at >= " + std::to_string(next) + " bytes\n";
    }
    // What is said by a free while so many bytes are live.
    static std::string free_at(std::int64_t total) {
        mem_event_totals.set_total(total);
        release(0xF000, 0);
        return take_messages();
    }
};

TEST_F(PEAK_TEST, IsRecordedAtDoublingsAndHigherSteps) {
    start(MEM_GRANULARITY_PER_BIN_DETAILED);
    for (const std::int64_t step : {1000, 1024}) { // a power of two is compared without a division
        mem_fileline_peak_threshold = step;
        mem_tbb_tracking_flush_peak();
        take_messages();
        EXPECT_EQ(free_at(step - 1), "");
        for (const std::int64_t level : {2, 3, 4, 7}) {
            EXPECT_EQ(free_at(level * step), recorded(level * step, level * step));
            EXPECT_EQ(free_at((level + 1) * step - 1), "");
            EXPECT_EQ(free_at(level * step), "");
        }
    }
}

// Below the first step only doubling counts.
TEST_F(PEAK_TEST, IsThatOfTheBetterStretch) {
    start(MEM_GRANULARITY_ALL);
    allocate(0xA000, 1023, {PARSE});
    EXPECT_EQ(free_at(1023), "");
    allocate(0xA100, 3977, {PARSE});
    release(0xF000, 0); // a free of nothing records the peak
    EXPECT_EQ(take_messages(), recorded(5000, 10000));
    release(0xA100, 3977);
    mem_tbb_tracking_flush_peak();
    EXPECT_EQ(take_messages(), "MEM: Memory tracking: memory threshold peak was reset from 5000\n");
    allocate(0xB000, 2000, {QUERY});
    release(0xF000, 0);
    mem_tbb_tracking_flush_peak(); // lower: can't replace the first
    mem_tbb_apply_final_peak();
    const auto expect_peaks = [](const char* of_parse, const char* of_query, std::int64_t of_root) {
        EXPECT_NE(rendered_sites().find(" peak " + std::string(of_parse) + " cum 5000/2"), std::string::npos);
        EXPECT_NE(rendered_sites().find(" peak " + std::string(of_query) + " cum "), std::string::npos);
        EXPECT_EQ(pbin_stats->figures(0).peak_bytes, of_root);
        EXPECT_EQ(ptag_stats->figures(0).peak_bytes, of_root);
    };
    expect_peaks("5000/2", "0/0", 5000);
    allocate(0xC000, 12000, {QUERY});
    release(0xF000, 0);
    mem_tbb_tracking_flush_peak(); // higher: replaces the first
    mem_tbb_apply_final_peak();
    expect_peaks("1023/1", "14000/2", 15023);
    allocate(0xD000, 30000, {QUERY});
    release(0xF000, 0);
    mem_tbb_apply_final_peak(); // the last one is higher: stands as it is
    expect_peaks("1023/1", "44000/3", 45023);
}

TEST_F(PEAK_TEST, AFlushWithTheFastLeakCheckAloneMovesTheGlobalPeak) {
    start(MEM_GRANULARITY_CHECK_LEAKS_FAST);
    allocate(0xA000, 5000, {PARSE});
    release(0xA000, 5000);
    mem_tbb_tracking_flush_peak();
    EXPECT_EQ(take_messages(), "MEM: Memory tracking: memory peak was reset from 5000\n");
    EXPECT_EQ(mem_get_global_peak().bytes.load(), 0);
    allocate(0xA000, 100, {PARSE});
    mem_tbb_apply_final_peak();
    EXPECT_EQ(mem_get_global_peak().bytes.load(), 5000);
}
