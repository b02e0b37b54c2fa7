// The exact text of the first three reports.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/reports/leak_reports.h"

#include <algorithm>
#include <locale>
#include <sstream>

namespace {

constexpr const char* FILELINE_HEAD =
    "MEM: TBB Fileline Tracking Memory Snapshot.\n\n"
    "Address\tCurrent bytes\tMax bytes\tPeak bytes\tCumulative bytes\tCumulative requested bytes\t"
    "Cumulative mismatched bytes\tCurrent blocks\tMax blocks\tPeak blocks\tCumulative blocks\tModule\tFile\t"
    "Line\tFunction\n";
constexpr const char* NO_OTHER = "OTHER\t0\t0\t0\t0\t0\t0\t0\t0\t0\t0\t\t\t0\t\n";

struct THOUSANDS : std::numpunct<char> {
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
};

} // namespace

class REPORT_TEST : public TRACKER_TEST {
  protected:
    const EMPTY_FOLDER m_folder;
};

TEST_F(REPORT_TEST, FilelineWithoutAChargedSite) {
    fake_set_clock({100, 1350});
    start(MEM_GRANULARITY_PER_FILELINE);
    std::ostringstream stream;
    EXPECT_TRUE(mem_dump_tbb_fileline_tracking(stream));
    EXPECT_EQ(stream.str(),
              std::string(FILELINE_HEAD) + NO_OTHER + "Time spent dumping:\t1250 clicks.\t1.25 seconds.\n");
}

TEST_F(REPORT_TEST, FilelineOrdersByPeakWhateverTheStream) {
    fake_set_clock({-1, 7});
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 1024, {FILTERED, PARSE}, 1000);
    allocate(0xB000, 1234567, {QUERY}, 1234567);
    release(0xC000, 1792);
    allocate(0xD000, 64, {EXPAND});
    std::ostringstream stream;
    stream.imbue(std::locale(std::locale::classic(), new THOUSANDS));
    stream << std::hex << std::showbase;
    EXPECT_TRUE(mem_dump_tbb_fileline_tracking(stream));
    EXPECT_EQ(stream.str(),
              std::string(FILELINE_HEAD) +
                  "0000000000002000\t1234567\t1234567\t1234567\t1234567\t1234567\t0\t1\t1\t1\t1\tengine\t"
                  "/src/query.cpp\t30\tquery\n"
                  "0000000000001000\t1024\t1024\t1024\t1024\t1000\t0\t1\t1\t1\t1\tparser\t/src/"
                  "parse.cpp\t10\tparse\n"
                  "OTHER\t-1792\t0\t0\t0\t0\t0\t-1\t0\t0\t0\t\t\t0\t\n"
                  "0000000000001100\t64\t64\t0\t64\t64\t0\t1\t1\t0\t1\tparser\t/src/parse.cpp\t20\texpand\n"
                  "Error timing this dump.\n");
}

TEST_F(REPORT_TEST, SubsystemsAddTheirSitesUp) {
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 1024, {FILTERED, PARSE}, 1000);
    allocate(0xA800, 512, {EXPAND}, 500);
    allocate(0xB000, 128, {QUERY});
    release(0xB000, 128);
    allocate(0xC000, 256, {FILTERED});
    std::ostringstream stream;
    EXPECT_TRUE(mem_dump_tbb_subsystem_tracking(stream));
    EXPECT_EQ(stream.str(),
              "MEM: TBB Subsystem Tracking Memory Snapshot.\n\n"
              "Subsystem\tCurrent bytes\tPeak bytes\tCumulative bytes\tCumulative requested bytes\t"
              "Cumulative mismatched bytes\tCurrent blocks\tPeak blocks\tCumulative blocks\n"
              "parser\t1536\t1536\t1536\t1500\t0\t2\t2\t2\n"
              "engine\t0\t128\t128\t128\t0\t0\t1\t1\n"
              "OTHER\t256\t0\t256\t256\t0\t1\t0\t1\n"
              "Time spent dumping:\t0 clicks.\t0 seconds.\n");
}

TEST_F(REPORT_TEST, SubsystemsHaveAMaximumWithTheLibraryReport) {
    set_variable("TARVANE_MEM_PROFILE_PER_LIBRARY", "1");
    start(mem_get_tracking_granularity_from_env() | MEM_GRANULARITY_PER_FILELINE);
    std::ostringstream stream;
    EXPECT_TRUE(mem_dump_tbb_subsystem_tracking(stream));
    EXPECT_EQ(stream.str(),
              "MEM: TBB Subsystem Tracking Memory Snapshot.\n\n"
              "Subsystem\tCurrent bytes\tMax bytes\tPeak bytes\tCumulative bytes\t"
              "Cumulative requested bytes\tCumulative mismatched bytes\tCurrent blocks\tPeak blocks\t"
              "Cumulative blocks\n"
              "Time spent dumping:\t0 clicks.\t0 seconds.\n");
}

TEST_F(REPORT_TEST, FullLeakReportListsWhatIsHeld) {
    start(MEM_GRANULARITY_CHECK_LEAKS);
    mem_write_full_leak_report();
    EXPECT_EQ(contents("mem_tbb_leak_warning.tvx.log"),
              "MEM: TBB Leak Checking Summary.\n\n\nTotal leaked bytes: 0\n");
    allocate(0xA000, 100, {PARSE});
    allocate(0xB000, 4000, {QUERY});
    allocate(0xC000, 16, {}); // can't be attributed
    allocate(0xD000, 0, {EXPAND});
    mem_write_full_leak_report();
    const std::string expected =
        "MEM: TBB Leak Checking Summary.\n\n"
        "engine leaked 4000 bytes in 1 object(s) allocated at /src/query.cpp:30 query\n"
        "parser leaked 100 bytes in 1 object(s) allocated at /src/parse.cpp:10 parse\n"
        "\nTotal leaked bytes: 4100\n";
    EXPECT_EQ(contents("mem_tbb_leak_warning.tvx.log"), expected);
    set_variable("MEM_LEAK_TRACKING_IN_ZV_MODE", "00");
    mem_write_full_leak_report();
    mem_write_full_leak_report();
    EXPECT_EQ(contents("tarvane_zv_leak_warning.txt"), expected);
}

TEST_F(REPORT_TEST, FastLeakReportCollectsABlockAProcess) {
    start(MEM_GRANULARITY_CHECK_LEAKS_FAST);
    allocate(0xA000, 1234, {});
    mem_write_fast_leak_report();
    const std::string head = "For more detail, use INI mem_check_leaks=on\n\n";
    const auto block = [](const std::string& name, const char* leaked, const char* peak) {
        return name + " memory leak summary\n===============================\nLeaked bytes:      " + leaked +
               "\nPeak bytes on heap:" + peak + "\n===============================\n\n";
    };
    EXPECT_EQ(contents("mem_tbb_fast_leak_warning.log"), head + block("", "        1234", "        1234"));
    mem_set_gen_get_module_filename_callback([] { return std::string("indexer"); });
    allocate(0xB000, 123456789012345, {});
    release(0xA000, 1234);
    mem_write_fast_leak_report();
    EXPECT_EQ(contents("mem_tbb_fast_leak_warning.log"),
              head + block("", "        1234", "        1234") +
                  block("indexer", "123456789012345", "123456789013579"));
}

struct SHUTDOWN_CASE {
    const char* name;
    std::vector<const char*> variables;
    std::vector<std::string> files;
    std::uint32_t mask_after;
};

class SHUTDOWN_TEST : public REPORT_TEST, public testing::WithParamInterface<SHUTDOWN_CASE> {};

TEST_P(SHUTDOWN_TEST, WritesWhatIsAskedFor) {
    mem_shutdown_tbb_tracking(); // before the start: nothing
    for (const char* variable : GetParam().variables)
        set_variable(variable, "1");
    start(mem_get_tracking_granularity_from_env());
    mem_shutdown_tbb_tracking();
    const auto files = [] {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator("."))
            names.push_back(entry.path().filename());
        std::ranges::sort(names);
        return names;
    };
    EXPECT_EQ(files(), GetParam().files);
    EXPECT_FALSE(fake_hook_is_installed());
    EXPECT_TRUE(mem_tracking_is_enabled(static_cast<MEM_TRACKING_GRANULARITY>(GetParam().mask_after)));
    EXPECT_FALSE(mem_get_tbb_memory_tracking_enabled());
    // The flags are spent: only what follows the mask is written again.
    for (const std::string& file : GetParam().files)
        std::filesystem::remove(file);
    mem_shutdown_tbb_tracking();
    EXPECT_EQ(files().size(), GetParam().mask_after != 0 ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(
    Switches, SHUTDOWN_TEST,
    testing::Values(SHUTDOWN_CASE{"Nothing", {}, {}, 0},
                    SHUTDOWN_CASE{"Fileline",
                                  {"TARVANE_MEM_PROFILE_PER_FILELINE"},
                                  {"mem_tbb_fileline.tvx.log", "mem_tbb_subsystem.tvx.log"},
                                  0},
                    SHUTDOWN_CASE{"Leaks",
                                  {"TARVANE_MEM_CHECK_LEAKS", "TARVANE_MEM_CHECK_LEAKS_FAST"},
                                  {"mem_tbb_leak_warning.tvx.log"},
                                  0},
                    SHUTDOWN_CASE{"FastLeaks",
                                  {"TARVANE_MEM_CHECK_LEAKS_FAST", "TARVANE_MEM_PROFILE_PER_BIN"},
                                  {"mem_tbb_fast_leak_warning.log"},
                                  32},
                    SHUTDOWN_CASE{
                        "ZvMode", {"MEM_LEAK_TRACKING_IN_ZV_MODE"}, {"tarvane_zv_leak_warning.txt"}, 32}),
    [](const auto& test) { return test.param.name; });
