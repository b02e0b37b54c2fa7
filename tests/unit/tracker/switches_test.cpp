// The mask and the settings from the environment and the configuration keys; the executable tag; the tag of
// preloaded programs.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/state/executable_tag.h"
#include "vbx/mem/mem_tbb_tracker/state/settings.h"
#include "vbx/mem/mem_tbb_tracker/state/switches.h"
#include "vbx/preload/expand_tag.h"

#include <map>

namespace {

using VARIABLES = std::map<std::string, std::string>;

void set_all(const VARIABLES& variables) {
    for (const auto& [name, value] : variables)
        set_variable(name.c_str(), value.c_str());
}

// One letter a flag that is set.
std::string flags() {
    std::string text;
    text += mem_report_flags.fileline ? "f" : "";
    text += mem_report_flags.library ? "l" : "";
    text += mem_report_flags.bin_tag ? "b" : "";
    text += mem_report_flags.auxiliary ? "a" : "";
    return text;
}

struct MASK_CASE {
    const char* name;
    VARIABLES variables;
    std::uint32_t mask;
    std::string flags;
};

} // namespace

class MASK_TEST : public testing::TestWithParam<MASK_CASE> {};

TEST_P(MASK_TEST, IsWorkedOutFromTheSwitches) {
    set_all(GetParam().variables);
    EXPECT_EQ(mem_get_tracking_granularity_from_env(), GetParam().mask);
    EXPECT_EQ(flags(), GetParam().flags);
    EXPECT_EQ(mem_tracking_is_enabled(MEM_GRANULARITY_PER_BIN), false); // worked out, not stored
}

INSTANTIATE_TEST_SUITE_P(
    Switches, MASK_TEST,
    testing::Values(
        MASK_CASE{"Nothing", {}, 0, ""}, MASK_CASE{"All", {{"TARVANE_MEM_PROFILE_ALL", "1"}}, 95, "flba"},
        MASK_CASE{"AllByKey", {{"mem_profile_all", "on"}, {"TARVANE_MEM_CHECK_LEAKS_FAST", "1"}}, 95, "flba"},
        MASK_CASE{"EachByVariable",
                  {{"TARVANE_MEM_PROFILE_PER_BIN", "1"},
                   {"TARVANE_MEM_PROFILE_BIN_TAG_PLOT", "1"},
                   {"TARVANE_MEM_PROFILE_PER_LIBRARY", "1"},
                   {"TARVANE_MEM_PROFILE_PER_FILELINE", "1"},
                   {"TARVANE_MEM_CHECK_LEAKS", "1"},
                   {"TARVANE_MEM_PROFILE_AUXILIARY_TIMELINE", "1"}},
                  95,
                  "flba"},
        MASK_CASE{"EachByKey",
                  {{"mem_profile_per_bin", "on"},
                   {"mem_profile_per_bin_detailed", "ON"},
                   {"mem_profile_per_library", "1"},
                   {"mem_profile_per_fileline", "on"},
                   {"mem_check_leaks_fast", "on"},
                   {"mem_profile_auxiliary_timeline", "on"}},
                  111,
                  "flba"},
        MASK_CASE{"SecondKey", {{"mem_track_user_memory", "on"}, {"mem_profile_per_bin", "off"}}, 1, ""},
        MASK_CASE{"ZeroIsUnset", {{"TARVANE_MEM_PROFILE_PER_LIBRARY", "0"}}, 0, ""},
        MASK_CASE{"EmptyIsUnset", {{"TARVANE_MEM_PROFILE_PER_LIBRARY", ""}}, 0, ""},
        MASK_CASE{"ZeroLetsTheKeySpeak",
                  {{"TARVANE_MEM_PROFILE_PER_LIBRARY", "0"}, {"mem_profile_per_library", "on"}},
                  4,
                  "l"},
        MASK_CASE{"AnythingElseIsOn",
                  {{"TARVANE_MEM_PROFILE_PER_LIBRARY", "off"}, {"TARVANE_MEM_PROFILE_PER_FILELINE", "00"}},
                  12,
                  "fl"},
        MASK_CASE{"KeysTakeOnlyOn", {{"mem_profile_per_library", "yes"}}, 0, ""},
        MASK_CASE{"FullLeakCheckWins",
                  {{"TARVANE_MEM_CHECK_LEAKS", "1"}, {"TARVANE_MEM_CHECK_LEAKS_FAST", "1"}},
                  16,
                  ""},
        MASK_CASE{"ZvMode", {{"MEM_LEAK_TRACKING_IN_ZV_MODE", "1"}}, 32, ""},
        MASK_CASE{"OtherExecutable",
                  {{"mem_only_profile_single_executable", "tracker_tes"}, {"TARVANE_MEM_PROFILE_ALL", "1"}},
                  0,
                  ""},
        MASK_CASE{"OtherCase",
                  {{"mem_only_profile_single_executable", "Tracker_test"}, {"TARVANE_MEM_PROFILE_ALL", "1"}},
                  0,
                  ""},
        MASK_CASE{"ThisExecutable",
                  {{"mem_only_profile_single_executable", "tracker_test"}, {"TARVANE_MEM_PROFILE_ALL", "1"}},
                  95,
                  "flba"}),
    [](const auto& test) { return test.param.name; });

struct SETTING_CASE {
    const char* name;
    VARIABLES variables;
    std::uint64_t period;
    std::int64_t threshold;
    int lines; // on standard error
};

class SETTING_TEST : public testing::TestWithParam<SETTING_CASE> {};

TEST_P(SETTING_TEST, IsReadOrReplacedByTheDefault) {
    set_all(GetParam().variables);
    testing::internal::CaptureStderr();
    mem_read_settings();
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(mem_snapshot_period, GetParam().period);
    EXPECT_EQ(mem_fileline_peak_threshold, GetParam().threshold);
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), GetParam().lines) << said;
    EXPECT_EQ(said.rfind("MEM: ", 0), said.empty() ? std::string::npos : 0) << said;
}

constexpr const char* PERIOD_VARIABLE = "TARVANE_MEM_PROFILE_LIBRARY_SNAPSHOT_PERIOD";
constexpr const char* PERIOD_KEY = "mem_profile_library_snapshot_period";
constexpr const char* THRESHOLD_VARIABLE = "TARVANE_MEM_PROFILE_FILELINE_PEAK_SNAPSHOT_THRESHOLD";
constexpr const char* THRESHOLD_KEY = "mem_profile_fileline_peak_snapshot_threshold";
constexpr std::int64_t DEFAULT_THRESHOLD = 134217728;

INSTANTIATE_TEST_SUITE_P(
    Settings, SETTING_TEST,
    testing::Values(
        SETTING_CASE{"Unset", {}, 131072, DEFAULT_THRESHOLD, 0},
        SETTING_CASE{"Variables", {{PERIOD_VARIABLE, "100x"}, {THRESHOLD_VARIABLE, "4096"}}, 100, 4096, 0},
        SETTING_CASE{"UselessVariables",
                     {{PERIOD_VARIABLE, "0"}, {THRESHOLD_VARIABLE, "many"}},
                     131072,
                     DEFAULT_THRESHOLD,
                     0},
        SETTING_CASE{"KeysBeatVariables",
                     {{PERIOD_VARIABLE, "100"}, {PERIOD_KEY, " 12abc"}, {THRESHOLD_KEY, "77"}},
                     12,
                     77,
                     0},
        SETTING_CASE{"ZeroKeys", {{PERIOD_KEY, "0"}, {THRESHOLD_KEY, "0"}}, 131072, DEFAULT_THRESHOLD, 2},
        SETTING_CASE{"OverflowingVariables",
                     {{PERIOD_VARIABLE, "99999999999999999999999"}, {THRESHOLD_VARIABLE, "-1"}},
                     UINT64_MAX,
                     DEFAULT_THRESHOLD,
                     1},
        SETTING_CASE{
            "LargestThreshold", {{THRESHOLD_KEY, "4611686018427387904"}}, 131072, std::int64_t{1} << 62, 0},
        SETTING_CASE{
            "TooLargeThreshold", {{THRESHOLD_KEY, "4611686018427387905"}}, 131072, DEFAULT_THRESHOLD, 1}),
    [](const auto& test) { return test.param.name; });

TEST(SETTINGS_TEST, AMalformedKeyEndsTheStart) {
    set_variable(PERIOD_KEY, "abc");
    EXPECT_THROW(
        try { mem_read_settings(); } catch (const std::invalid_argument& error) {
            EXPECT_STREQ(error.what(), "invalid stoull argument");
            throw;
        },
        std::invalid_argument);
    set_variable(PERIOD_KEY, "18446744073709551616");
    EXPECT_THROW(
        try { mem_read_settings(); } catch (const std::out_of_range& error) {
            EXPECT_STREQ(error.what(), "stoull argument out of range");
            throw;
        },
        std::out_of_range);
}

class EXECUTABLE_TAG_TEST : public TRACKER_TEST {};

TEST_F(EXECUTABLE_TAG_TEST, NamesTheReportFiles) {
    EXPECT_DEATH(mem_set_tbb_exe_string("x"), "mem_tbb_exe_string != nullptr");
    start(0);
    EXPECT_EQ(mem_report_file_name("mem_tbb_fileline."), "mem_tbb_fileline.tvx.log");
    mem_set_tbb_exe_string("abc");
    EXPECT_EQ(mem_report_file_name("mem_tbb_fileline."), "mem_tbb_fileline.abc.log");
    EXPECT_DEATH(mem_set_tbb_exe_string(nullptr), "exe_string != nullptr");
}

TEST_F(EXECUTABLE_TAG_TEST, OfAPreloadedProgramIsExpanded) {
    EXPECT_EQ(mem_expand_tag("%e.%p", "git", 42), "git.42");
    EXPECT_EQ(mem_expand_tag("100%%%x%", "git", 42), "100%%x%");
    EXPECT_EQ(mem_expand_tag("../%e", "a/b", 1), ".._a_b");
    EXPECT_EQ(mem_expand_tag("", "git", 42), "");
}
