// The timeline logs that the process leaves behind, also where it can't.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/state/counters.h"
#include "vbx/mem/tracker.h"

#include <algorithm>

namespace {

using NAMES = std::vector<std::string>;

NAMES files() {
    NAMES names;
    for (const auto& entry : std::filesystem::directory_iterator("."))
        names.push_back(entry.path().filename());
    std::ranges::sort(names);
    return names;
}

const NAMES MODULE_LOGS = {"mem_tbb_cumulative_blocks_timeline.abc.log",
                           "mem_tbb_cumulative_blocks_timeline_detailed.abc.log", "mem_tbb_timeline.abc.log",
                           "mem_tbb_timeline_detailed.abc.log"};
const NAMES TAG_LOGS = {"mem_tbb_pbin_stats.abc.log", "mem_tbb_pbin_stats_mb.abc.log",
                        "mem_tbb_pbin_tag_stats.abc.log", "mem_tbb_pbin_tag_stats_mb.abc.log",
                        "mem_tbb_pbin_tag_timeline_detailed.abc.log"};
const NAMES AUXILIARY_LOG = {"mem_tbb_auxiliary_timeline.abc.log"};

const std::string FOOTER = "Time spent dumping:\t0 clicks.\t0 seconds.\n";

} // namespace

class TIMELINE_FILES_TEST : public TRACKER_TEST {
  protected:
    const EMPTY_FOLDER m_folder;

    void start_with(std::initializer_list<const char*> variables) {
        for (const char* variable : variables)
            set_variable(variable, "1");
        start(mem_get_tracking_granularity_from_env());
        mem_set_tbb_exe_string("abc");
    }
};

TEST_F(TIMELINE_FILES_TEST, ModuleLogsEndWithTheStateOfTheEnd) {
    start_with({"TARVANE_MEM_PROFILE_PER_LIBRARY"});
    allocate(0xA000, 1000, {PARSE});
    allocate(0xB000, 20, {QUERY});
    allocate(0xB100, 30, {QUERY});
    mem_set_timeline_label("ending");
    mem_tbb_tracker_teardown();
    EXPECT_EQ(files(), MODULE_LOGS);
    const std::string title = "MEM: TBB Module Tracking Memory Timeline.\n\n\tMisc";
    const std::string detailed = "MEM: TBB Module Tracking Detailed Memory Timeline.\n\n";
    EXPECT_EQ(contents(MODULE_LOGS[2]), title +
                                            "\tOTHER\tengine\tparser\nOther\t0\t0\t0\t1000\n"
                                            "ending\t0\t0\t50\t1000\n" +
                                            FOOTER);
    EXPECT_EQ(contents(MODULE_LOGS[3]), detailed +
                                            "\tengine\tOTHER\tparser\nOther\t0\t0\t1000\n"
                                            "ending\t50\t0\t1000\n" +
                                            FOOTER);
    // Ranked on its own maxima.
    EXPECT_EQ(contents(MODULE_LOGS[0]), title +
                                            "\tOTHER\tparser\tengine\nOther\t0\t0\t1\t0\n"
                                            "ending\t0\t0\t1\t2\n" +
                                            FOOTER);
    EXPECT_EQ(contents(MODULE_LOGS[1]), detailed +
                                            "\tengine\tOTHER\tparser\nOther\t0\t0\t1\n"
                                            "ending\t2\t0\t1\n" +
                                            FOOTER);
}

TEST_F(TIMELINE_FILES_TEST, BinAndTagLogs) {
    start_with({"TARVANE_MEM_PROFILE_BIN_TAG_PLOT"});
    mem_open_profile_bin("lex", "loading");
    allocate(0xA000, 1536, {});
    mem_shutdown_tbb_tracking();
    EXPECT_EQ(files(), TAG_LOGS);
    EXPECT_EQ(contents(TAG_LOGS[4]), "MEM: TBB Module Tracking Detailed Memory Timeline.\n\n"
                                     "\tRoot\tloading\nloading::lex\t0\t1536\nloading::lex\t0\t1536\n" +
                                         FOOTER);
    EXPECT_EQ(contents(TAG_LOGS[0]), "Memory Tracking - Profile Bin Stats\n\n"
                                     "Name\tMax bytes\tPeak bytes\tCumulative bytes\tCurrent bytes\n"
                                     "Root\t0\t0\t0\t0\nloading::lex\t1536\t0\t1536\t1536\n");
    EXPECT_EQ(contents(TAG_LOGS[3]),
              "Memory Tracking - Profile Tag Stats (MiB)\n\n"
              "Name\tMax MiB\tPeak MiB\tCumulative MiB\tCurrent MiB\n"
              "Root\t0.000\t0.000\t0.000\t0.000\nloading\t0.001\t0.000\t0.001\t0.001\n");
    // The flags are spent.
    for (const std::string& name : TAG_LOGS)
        std::filesystem::remove(name);
    mem_shutdown_tbb_tracking();
    EXPECT_EQ(files(), NAMES());
}

TEST_F(TIMELINE_FILES_TEST, TheAuxiliaryLogHasTheSampleOfTheEnd) {
    start_with({"TARVANE_MEM_PROFILE_AUXILIARY_TIMELINE"});
    mem_shutdown_tbb_tracking();
    EXPECT_EQ(files(), AUXILIARY_LOG);
    const std::string text = contents(AUXILIARY_LOG[0]);
    EXPECT_EQ(std::ranges::count(text, '\n'), 5); // title, empty line, heading, one row, footer
}

// A feature that is turned on later brings no report, and a sample no file.
TEST_F(TIMELINE_FILES_TEST, OnlySwitchesBringLogs) {
    start_with({});
    mem_enable_tracking(MEM_GRANULARITY_ALL);
    allocate(0xA000, 1536, {PARSE});
    mem_user_snapshot_tracking_data();
    mem_disable_tracking(MEM_GRANULARITY_CHECK_LEAKS);
    mem_tbb_tracker_teardown();
    EXPECT_EQ(files(), NAMES());
}

TEST_F(TIMELINE_FILES_TEST, AllTogether) {
    start_with({"TARVANE_MEM_PROFILE_ALL"});
    allocate(0xA000, 1536, {PARSE});
    mem_tbb_tracker_teardown();
    NAMES expected = {"mem_tbb_fileline.abc.log", "mem_tbb_subsystem.abc.log",
                      "mem_tbb_leak_warning.abc.log"};
    for (const NAMES& names : {MODULE_LOGS, TAG_LOGS, AUXILIARY_LOG})
        expected.insert(expected.end(), names.begin(), names.end());
    std::ranges::sort(expected);
    EXPECT_EQ(files(), expected);
}

TEST_F(TIMELINE_FILES_TEST, WhatCannotBeWrittenIsMissing) {
    start_with({"TARVANE_MEM_PROFILE_PER_LIBRARY", "TARVANE_MEM_PROFILE_BIN_TAG_PLOT"});
    set_variable("mem_profile_library_snapshot_period", "1");
    for (std::uint64_t block = 0; block < 3000; ++block)
        allocate(0xA000 + 16 * block, block, {PARSE});
    // A full disk, a folder in the place of a file: neither is said, the other logs come.
    std::filesystem::create_symlink("/dev/full", MODULE_LOGS[2]);
    std::filesystem::create_symlink("/dev/full", TAG_LOGS[4]);
    std::filesystem::create_directory(MODULE_LOGS[0]);
    std::filesystem::create_directory(TAG_LOGS[0]);
    testing::internal::CaptureStderr();
    mem_tbb_tracker_teardown();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(contents(MODULE_LOGS[3]).ends_with(FOOTER));
    EXPECT_FALSE(std::filesystem::is_regular_file(MODULE_LOGS[0]));
    // One output of a pair alone is not written either, as for a host's streams.
    EXPECT_EQ(contents(MODULE_LOGS[1]), "");
    EXPECT_NE(contents(TAG_LOGS[2]).find("\nRoot\t"), std::string::npos);
}
