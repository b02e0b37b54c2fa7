// The files that a process leaves behind: their exact text, which switch brings which, and what becomes of
// those that can't be written.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/host/memory_source.h"
#include "vbx/mem/mem_tbb_tracker/reports/leak_reports.h"
#include "vbx/mem/tracker.h"

#include <cerrno>
#include <map>
#include <sstream>

namespace {

const std::string FOOTER = "Time spent dumping:\t0 clicks.\t0 seconds.\n";
const std::string PLAIN = "MEM: TBB Module Tracking Memory Timeline.\n\n\tMisc\t";
const std::string DETAILED = "MEM: TBB Module Tracking Detailed Memory Timeline.\n\n\t";
const std::string BYTES = "\n\nName\tMax bytes\tPeak bytes\tCumulative bytes\tCurrent bytes\nRoot\t";
const std::string MIB = " (MiB)\n\nName\tMax MiB\tPeak MiB\tCumulative MiB\tCurrent MiB\nRoot\t";

// Answers once.
constexpr MEM_MEMORY_SOURCE SCRIPTED{[] { return 0; },
                                     [](OS_PROCESS_MEMORY& memory) {
                                         static int queries = 0;
                                         memory = {0xFFFFFFFF, 2000, 2000, 3000, 3000, 0};
                                         return queries++ == 0 ? 0 : EIO;
                                     },
                                     nullptr};

using FILES = std::map<std::string, std::string>;

// Names, without what all have, and contents.
FILES files() {
    FILES files;
    for (const auto& entry : std::filesystem::directory_iterator(".")) {
        const std::string name = entry.path().filename();
        files[name.substr(8, name.find('.') - 8)] = contents(name);
    }
    return files;
}
std::string names_of_files() {
    std::string names;
    for (const auto& [name, text] : files())
        names += name + " ";
    return names;
}

} // namespace

class REPORT_FILES_TEST : public TRACKER_TEST {
  protected:
    const EMPTY_FOLDER m_folder;

    static void start_with(const std::vector<const char*>& variables, const char* sample_period = nullptr) {
        for (const char* variable : variables)
            set_variable(("TARVANE_MEM_" + std::string(variable)).c_str(), "1");
        start(mem_get_tracking_granularity_from_env(), sample_period);
    }
};

TEST_F(REPORT_FILES_TEST, TellOfOneProcessInExactWords) {
    mem_memory_source = &SCRIPTED;
    fake_define_symbol(0x3000, {"query", "/src/query.cpp", 40, "ENGINE"});
    start_with({"PROFILE_ALL"}, "1000");
    allocate(0xA000, 1024, {FILTERED, PARSE}, 1000); // a sample
    mem_open_profile_bin("lex", "loading");
    allocate(0xB000, 123456, {QUERY});
    release(0xC000, 1792);    // unknown, and a sample, because it records a peak
    allocate(0xD000, 16, {}); // can't be attributed
    allocate(0xD010, 0, {EXPAND});
    mem_set_timeline_label("ending");
    release(0xB000, 123456); // no peak: nothing has grown
    allocate(0xB000, 2000, {0x3000});
    mem_block_thread_tracking();
    release(0xF000, 64);
    mem_unblock_thread_tracking();
    mem_tbb_tracker_teardown();

    const std::string no_figures = "18446744073709551615\t18446744073709551615\t18446744073709551615\t";
    const FILES expected = {
        {"auxiliary_timeline",
         "MEM: TBB Auxiliary Timeline\n\npage_faults\tcommit_charge\tresident\tprofiler_num_allocs\t"
         "profiler_num_deallocs\tprofiler_num_outstanding\tprofiler_requested_total\t"
         "profiler_requested_outstanding\tprofiler_allocated_total\tprofiler_allocated_outstanding\n"
         "4294967295\t3000\t2000\t0\t0\t0\t0\t0\t0\t0\n" +
             no_figures + "0\t0\t0\t0\t0\t0\t0\n" + no_figures +
             "0\t1\t18446744073709551615\t0\t0\t0\t18446744073709551552\n" + FOOTER},
        {"cumulative_blocks_timeline", // ranked on its own maxima
         PLAIN + "engine\tOTHER\tparser\nOther\t0\t0\t0\t1\nloading\t0\t1\t0\t1\nending\t0\t1\t1\t2\n" +
             FOOTER},
        {"cumulative_blocks_timeline_detailed",
         DETAILED + "engine\tOTHER\tparser\nOther\t0\t0\t1\nloading\t1\t0\t1\nending\t1\t1\t2\n" + FOOTER},
        {"fileline",
         "MEM: TBB Fileline Tracking Memory Snapshot.\n\nAddress\tCurrent bytes\tMax bytes\tPeak bytes\t"
         "Cumulative bytes\tCumulative requested bytes\tCumulative mismatched bytes\tCurrent blocks\t"
         "Max blocks\tPeak blocks\tCumulative blocks\tModule\tFile\tLine\tFunction\n"
         "0000000000002000\t0\t123456\t123456\t123456\t123456\t0\t0\t1\t1\t1\tengine\t/src/"
         "query.cpp\t30\tquery\n"
         "0000000000001000\t1024\t1024\t1024\t1024\t1000\t0\t1\t1\t1\t1\tparser\t/src/parse.cpp\t10\tparse\n"
         "OTHER\t-1776\t0\t0\t16\t16\t0\t0\t0\t0\t1\t\t\t0\t\n"
         "0000000000003000\t2000\t2000\t0\t2000\t2000\t0\t1\t1\t0\t1\tENGINE\t/src/query.cpp\t40\tquery\n" +
             FOOTER},
        {"leak_warning", "MEM: TBB Leak Checking Summary.\n\n"
                         "ENGINE leaked 2000 bytes in 1 object(s) allocated at /src/query.cpp:40 query\n"
                         "parser leaked 1024 bytes in 1 object(s) allocated at /src/parse.cpp:10 parse\n\n"
                         "Total leaked bytes: 3024\n"},
        {"pbin_stats", "Memory Tracking - Profile Bin Stats" + BYTES +
                           "1024\t1024\t1024\t-768\nloading::lex\t123472\t123456\t125472\t2016\n"},
        {"pbin_stats_mb", "Memory Tracking - Profile Bin Stats" + MIB +
                              "0.001\t0.001\t0.001\t-0.001\nloading::lex\t0.118\t0.118\t0.120\t0.002\n"},
        {"pbin_tag_stats", "Memory Tracking - Profile Tag Stats" + BYTES +
                               "1024\t1024\t1024\t-768\nloading\t123472\t123456\t125472\t2016\n"},
        {"pbin_tag_stats_mb", "Memory Tracking - Profile Tag Stats" + MIB +
                                  "0.001\t0.001\t0.001\t-0.001\nloading\t0.118\t0.118\t0.120\t0.002\n"},
        {"pbin_tag_timeline_detailed",
         DETAILED + "Root\tloading\nRoot\t1024\t0\nloading::lex\t1024\t123456\nloading::lex\t-768\t2016\n" +
             FOOTER},
        {"subsystem", // a maximum is that of the series, which the names share that differ in case
         "MEM: TBB Subsystem Tracking Memory Snapshot.\n\nSubsystem\tCurrent bytes\tMax bytes\tPeak bytes\t"
         "Cumulative bytes\tCumulative requested bytes\tCumulative mismatched bytes\tCurrent blocks\t"
         "Peak blocks\tCumulative blocks\n"
         "engine\t0\t123456\t123456\t123456\t123456\t0\t0\t1\t1\n"
         "parser\t1024\t1024\t1024\t1024\t1000\t0\t2\t1\t2\nOTHER\t-1776\t0\t0\t16\t16\t0\t0\t0\t1\n"
         "ENGINE\t2000\t123456\t0\t2000\t2000\t0\t1\t0\t1\n" +
             FOOTER},
        {"timeline", PLAIN +
                         "OTHER\tparser\tengine\nOther\t0\t0\t1024\t0\nloading\t0\t-1792\t1024\t123456\n"
                         "ending\t0\t-1776\t1024\t2000\n" +
                         FOOTER},
        {"timeline_detailed", DETAILED +
                                  "engine\tOTHER\tparser\nOther\t0\t0\t1024\nloading\t123456\t-1792\t1024\n"
                                  "ending\t2000\t-1776\t1024\n" +
                                  FOOTER},
    };
    for (const auto& [name, text] : files())
        EXPECT_EQ(text, expected.contains(name) ? expected.at(name) : "none") << name;
    EXPECT_EQ(files().size(), expected.size());
}

TEST_F(REPORT_FILES_TEST, CollectAFastLeakBlockAProcess) {
    start(MEM_GRANULARITY_CHECK_LEAKS_FAST);
    allocate(0xA000, 1234, {});
    mem_write_fast_leak_report();
    mem_set_gen_get_module_filename_callback([] { return std::string("indexer"); });
    allocate(0xB000, 123456789012345, {});
    release(0xA000, 1234);
    mem_write_fast_leak_report();
    const std::string rule = "===============================\n";
    EXPECT_EQ(files()["fast_leak_warning"],
              "For more detail, use INI mem_check_leaks=on\n\n memory leak summary\n" + rule +
                  "Leaked bytes:              1234\nPeak bytes on heap:        1234\n" + rule +
                  "\nindexer memory leak summary\n" + rule +
                  "Leaked bytes:      123456789012345\nPeak bytes on heap:123456789013579\n" + rule + "\n");
}

struct SWITCHES {
    std::vector<const char*> variables;
    std::string files, files_of_second_shutdown;
};

class SWITCHES_TEST : public REPORT_FILES_TEST, public testing::WithParamInterface<SWITCHES> {};

TEST_P(SWITCHES_TEST, BringTheirFilesOnce) {
    mem_shutdown_tbb_tracking(); // before the start: nothing
    start_with(GetParam().variables);
    // A feature that is turned on later brings no report, and a sample no file.
    mem_enable_tracking(MEM_GRANULARITY_PER_LIBRARY | MEM_GRANULARITY_PER_FILELINE |
                        MEM_GRANULARITY_PER_BIN_DETAILED);
    mem_user_snapshot_tracking_data();
    mem_shutdown_tbb_tracking();
    EXPECT_EQ(names_of_files(), GetParam().files);
    EXPECT_FALSE(fake_hook_is_installed());
    EXPECT_FALSE(mem_get_tbb_memory_tracking_enabled());
    // The flags are spent: only what follows the mask is written again.
    for (const auto& entry : std::filesystem::directory_iterator("."))
        std::filesystem::remove(entry.path());
    mem_shutdown_tbb_tracking();
    EXPECT_EQ(names_of_files(), GetParam().files_of_second_shutdown);
}

INSTANTIATE_TEST_SUITE_P(
    Of, SWITCHES_TEST,
    testing::Values(
        SWITCHES{{}, "", ""}, SWITCHES{{"PROFILE_PER_FILELINE"}, "fileline subsystem ", ""},
        SWITCHES{{"PROFILE_PER_LIBRARY"},
                 "cumulative_blocks_timeline cumulative_blocks_timeline_detailed timeline "
                 "timeline_detailed ",
                 ""},
        SWITCHES{{"PROFILE_BIN_TAG_PLOT"},
                 "pbin_stats pbin_stats_mb pbin_tag_stats pbin_tag_stats_mb "
                 "pbin_tag_timeline_detailed ",
                 ""},
        SWITCHES{{"PROFILE_AUXILIARY_TIMELINE"}, "auxiliary_timeline ", ""},
        SWITCHES{{"CHECK_LEAKS", "CHECK_LEAKS_FAST"}, "leak_warning ", ""},
        SWITCHES{{"CHECK_LEAKS_FAST", "PROFILE_PER_BIN"}, "fast_leak_warning ", "fast_leak_warning "}));

// A full disk, a folder in the place of a file: neither is said, the other logs come.
TEST_F(REPORT_FILES_TEST, AreMissingWhenTheyCannotBeWritten) {
    start_with({"PROFILE_ALL"}, "1");
    testing::internal::CaptureStdout();
    for (std::uint64_t block = 0; block < 3000; ++block)
        allocate(0xA000 + 16 * block, block, {PARSE});
    testing::internal::GetCapturedStdout();
    for (const char* full : {"mem_tbb_timeline.tvx.log", "mem_tbb_pbin_tag_timeline_detailed.tvx.log"})
        std::filesystem::create_symlink("/dev/full", full);
    for (const char* folder : {"mem_tbb_cumulative_blocks_timeline.tvx.log", "mem_tbb_pbin_stats.tvx.log",
                               "mem_tbb_auxiliary_timeline.tvx.log"})
        std::filesystem::create_directory(folder);
    testing::internal::CaptureStderr();
    mem_tbb_tracker_teardown();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(contents("mem_tbb_timeline_detailed.tvx.log").ends_with(FOOTER));
    // One output of a pair alone is not written either, as for a host's streams.
    EXPECT_EQ(contents("mem_tbb_cumulative_blocks_timeline_detailed.tvx.log"), "");
    EXPECT_NE(contents("mem_tbb_pbin_tag_stats.tvx.log").find("\nRoot\t"), std::string::npos);
}
