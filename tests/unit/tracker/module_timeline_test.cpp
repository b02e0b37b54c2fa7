// When the module timeline is sampled, what a sample holds, and the labels of its rows.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/state/counters.h"
#include "vbx/mem/tracker.h"

#include <sstream>

namespace {

// The rows behind the titles, without the footer: "<tab>name...", then one line a sample.
std::string rows_of(const std::string& text) {
    const std::size_t begin = text.find("\n\n") + 2;
    return text.substr(begin, text.find("Time spent") - begin);
}

std::string module_rows() {
    std::ostringstream plain, detailed;
    EXPECT_TRUE(mem_dump_tbb_module_tracking(plain, detailed));
    return rows_of(detailed.str());
}

} // namespace

class MODULE_TIMELINE_TEST : public TRACKER_TEST {
  protected:
    void start_with_period(const char* period, std::uint32_t mask = MEM_GRANULARITY_PER_LIBRARY) {
        set_variable("mem_profile_library_snapshot_period", period);
        start(mask);
    }
};

TEST_F(MODULE_TIMELINE_TEST, TheFirstEventAndEveryPeriodthAreSamples) {
    start_with_period("3");
    for (std::uint64_t block = 0; block < 5; ++block)
        allocate(0xA000 + 16 * block, 10, {PARSE}); // ticks 0 to 4: samples at 0 and 3
    allocate(0xB000, 7, {QUERY});
    release(0xA000, 10); // tick 6, behind its own credit
    EXPECT_EQ(module_rows(), "\tengine\tOTHER\tparser\n"
                             "Other\t0\t0\t10\n"
                             "Other\t0\t0\t40\n"
                             "Other\t7\t0\t40\n");
}

TEST_F(MODULE_TIMELINE_TEST, AFreeThatRecordsAPeakIsASampleToo) {
    start_with_period("1000");
    allocate(0xA000, 2000, {PARSE});
    release(0xA000, 2000); // a peak: the row shows the module without the block already
    allocate(0xB000, 10, {PARSE});
    release(0xB000, 10); // none
    EXPECT_EQ(module_rows(), "\tOTHER\tparser\nOther\t0\t2000\nOther\t0\t0\n");
    EXPECT_EQ(mem_sample_counter.load(), 4U);
}

TEST_F(MODULE_TIMELINE_TEST, NamesThatDifferInCaseShareASeries) {
    fake_define_symbol(0x3000, {"f", "/src/f.cpp", 1, "Parser"});
    fake_define_symbol(0x3100, {"f", "/src/f.cpp", 1, "\xC4pfel"});
    start_with_period("1000");
    allocate(0xA000, 10, {PARSE}); // the first sample: "parser" names the series
    allocate(0xB000, 3, {0x3000});
    allocate(0xC000, 1, {0x3100});
    mem_user_snapshot_tracking_data();
    mem_user_snapshot_tracking_data();
    // Byte order of the map samples "Parser" first; the series runs ahead of the rows. High bytes come first.
    EXPECT_EQ(module_rows(), "\t\xC4pfel\tOTHER\tparser\n"
                             "Other\t0\t0\t10\n"
                             "Other\t1\t0\t3\n"
                             "Other\t1\t0\t10\n");
}

TEST_F(MODULE_TIMELINE_TEST, RowsBearTheLabelThatWasSetLast) {
    mem_set_timeline_label("too early"); // nothing to set yet
    start_with_period("1");
    allocate(0xA000, 1, {PARSE});
    mem_set_timeline_label("never seen");
    mem_set_timeline_label("parsing");
    allocate(0xA010, 1, {PARSE});
    allocate(0xA020, 1, {PARSE});
    mem_set_timeline_label("");
    allocate(0xA030, 1, {PARSE});
    std::ostringstream plain, detailed;
    EXPECT_TRUE(mem_dump_tbb_module_tracking(plain, detailed));
    const std::string rows = "Other\t0\t0\t1\nparsing\t0\t0\t2\nparsing\t0\t0\t3\nOther\t0\t0\t4\n";
    EXPECT_EQ(rows_of(plain.str()), "\tMisc\tOTHER\tparser\n" + rows);
    EXPECT_EQ(mem_fallback_counters.allocations.load(), 0U);
}

// Label rows are kept with 2 in the mask alone as well, and then run ahead of the module rows.
TEST_F(MODULE_TIMELINE_TEST, AHostsSampleCountsWhateverIsOn) {
    EXPECT_DEATH(mem_user_snapshot_tracking_data(), "mem_tbb_tracker_is_inited\\(\\)");
    std::ostringstream plain, detailed;
    EXPECT_FALSE(mem_dump_tbb_module_tracking(plain, detailed));
    EXPECT_EQ(detailed.str(), "");
    start(0);
    mem_set_timeline_label("idle");
    mem_user_snapshot_tracking_data();
    mem_tbb_tracking_flush_peak(); // ends with one more
    EXPECT_EQ(module_rows(), "\tOTHER\nidle\t0\nidle\t0\n");
    EXPECT_EQ(mem_sample_counter.load(), 2U);
    mem_shutdown_tbb_tracking();
    mem_tbb_tracker_teardown();
    mem_user_snapshot_tracking_data();
    mem_set_timeline_label("late");
    EXPECT_FALSE(mem_dump_tbb_module_tracking(plain, detailed));
}

TEST_F(MODULE_TIMELINE_TEST, AModuleIsLateBehindAReset) {
    start_with_period("1000");
    allocate(0xA000, 10, {PARSE}); // sample 0
    mem_reset_tracking_entries();
    mem_user_snapshot_tracking_data(); // nothing to sample
    allocate(0xB000, 3, {PARSE});
    allocate(0xC000, 4, {QUERY});
    mem_user_snapshot_tracking_data();
    EXPECT_EQ(module_rows(), "\tengine\tOTHER\tparser\n"
                             "Other\t0\t0\t10\n"
                             "Other\t0\t0\t3\n" // shifted: the series went on where it stopped
                             "Other\t4\t0\t0\n");
}

TEST_F(MODULE_TIMELINE_TEST, TheSubsystemReportKnowsTheHighestSample) {
    set_variable("TARVANE_MEM_PROFILE_PER_LIBRARY", "1");
    fake_define_symbol(0x3000, {"f", "/src/f.cpp", 1, "PARSER"});
    start_with_period("1", mem_get_tracking_granularity_from_env() | MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 500, {PARSE});
    release(0xA000, 500);
    allocate(0xB000, 2000, {QUERY});
    release(0xB000, 2000); // peak
    allocate(0xC000, 8, {0x3000});
    std::ostringstream stream;
    EXPECT_TRUE(mem_dump_tbb_subsystem_tracking(stream));
    const std::string text = stream.str();
    EXPECT_NE(text.find("\nengine\t0\t2000\t2000\t2000\t"), std::string::npos) << text;
    EXPECT_NE(text.find("\nparser\t0\t500\t0\t500\t"), std::string::npos) << text;
    EXPECT_NE(text.find("\nPARSER\t8\t500\t0\t8\t"), std::string::npos) << text;
}
