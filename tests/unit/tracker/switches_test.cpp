// The mask and the settings from the environment and the configuration keys; the executable tag; the tag of
// preloaded programs.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/state/executable_tag.h"
#include "vbx/mem/mem_tbb_tracker/state/settings.h"
#include "vbx/mem/mem_tbb_tracker/state/switches.h"
#include "vbx/preload/expand_tag.h"

#include <algorithm>
#include <utility>

namespace {

using VARIABLES = std::vector<std::pair<const char*, const char*>>;

struct MASK {
    VARIABLES variables;
    std::uint32_t mask;
    std::string flags; // a letter a report flag that is set
};
struct SETTING {
    VARIABLES variables;
    std::uint64_t period;
    std::int64_t threshold;
    int lines; // on standard error
};

void set_all(const VARIABLES& variables) {
    for (const auto& [name, value] : variables)
        set_variable(name, value);
}

} // namespace

class MASK_TEST : public testing::TestWithParam<MASK> {};

TEST_P(MASK_TEST, IsWorkedOutFromTheSwitches) {
    set_all(GetParam().variables);
    EXPECT_EQ(mem_get_tracking_granularity_from_env(), GetParam().mask);
    std::string flags;
    flags += mem_report_flags.fileline ? "f" : "";
    flags += mem_report_flags.library ? "l" : "";
    flags += mem_report_flags.bin_tag ? "b" : "";
    flags += mem_report_flags.auxiliary ? "a" : "";
    EXPECT_EQ(flags, GetParam().flags);
    EXPECT_FALSE(mem_tracking_is_enabled(MEM_GRANULARITY_PER_BIN)); // worked out, not stored
}

INSTANTIATE_TEST_SUITE_P(
    Switches, MASK_TEST,
    testing::Values(
        MASK{{}, 0, ""}, MASK{{{"mem_profile_all", "on"}, {"TARVANE_MEM_CHECK_LEAKS_FAST", "1"}}, 95, "flba"},
        MASK{{{"TARVANE_MEM_PROFILE_PER_BIN", "1"}, {"mem_profile_per_bin_detailed", "ON"}}, 3, "b"},
        MASK{{{"mem_profile_per_bin", "on"}, {"TARVANE_MEM_PROFILE_BIN_TAG_PLOT", "1"}}, 3, "b"},
        MASK{{{"TARVANE_MEM_PROFILE_PER_LIBRARY", "1"}, {"mem_profile_per_fileline", "on"}}, 12, "fl"},
        MASK{{{"mem_profile_per_library", "1"}, {"TARVANE_MEM_PROFILE_PER_FILELINE", "1"}}, 12, "fl"},
        MASK{{{"TARVANE_MEM_CHECK_LEAKS", "1"}, {"mem_profile_auxiliary_timeline", "on"}}, 80, "a"},
        MASK{{{"mem_check_leaks_fast", "on"}, {"TARVANE_MEM_PROFILE_AUXILIARY_TIMELINE", "1"}}, 96, "a"},
        MASK{{{"mem_check_leaks", "on"}, {"TARVANE_MEM_CHECK_LEAKS_FAST", "1"}}, 16, ""}, // the full one wins
        MASK{{{"MEM_LEAK_TRACKING_IN_ZV_MODE", "1"}}, 32, ""},
        MASK{{{"mem_track_user_memory", "on"}, {"mem_profile_per_bin", "off"}}, 1, ""},
        // "0" and nothing are as good as unset, anything else is on; keys take only what says so.
        MASK{{{"TARVANE_MEM_PROFILE_PER_LIBRARY", "0"}, {"TARVANE_MEM_PROFILE_PER_FILELINE", ""}}, 0, ""},
        MASK{{{"TARVANE_MEM_PROFILE_PER_LIBRARY", "0"}, {"mem_profile_per_library", "on"}}, 4, "l"},
        MASK{{{"TARVANE_MEM_PROFILE_PER_LIBRARY", "off"}, {"TARVANE_MEM_PROFILE_PER_FILELINE", "00"}},
             12,
             "fl"},
        MASK{{{"mem_profile_per_library", "yes"}}, 0, ""},
        MASK{
            {{"mem_only_profile_single_executable", "tracker_tes"}, {"TARVANE_MEM_PROFILE_ALL", "1"}}, 0, ""},
        MASK{{{"mem_only_profile_single_executable", "Tracker_test"}, {"TARVANE_MEM_PROFILE_ALL", "1"}},
             0,
             ""},
        MASK{{{"mem_only_profile_single_executable", "tracker_test"}, {"TARVANE_MEM_PROFILE_ALL", "1"}},
             95,
             "flba"}));

class SETTING_TEST : public testing::TestWithParam<SETTING> {};

TEST_P(SETTING_TEST, IsReadOrReplacedByTheDefault) {
    set_all(GetParam().variables);
    testing::internal::CaptureStderr();
    mem_read_settings();
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(mem_snapshot_period, GetParam().period);
    EXPECT_EQ(mem_fileline_peak_threshold, GetParam().threshold);
    EXPECT_EQ(std::ranges::count(said, '\n'), GetParam().lines) << said;
    EXPECT_EQ(said.starts_with("MEM: "), !said.empty()) << said;
}

constexpr const char* PERIOD_VARIABLE = "TARVANE_MEM_PROFILE_LIBRARY_SNAPSHOT_PERIOD";
constexpr const char* PERIOD_KEY = "mem_profile_library_snapshot_period";
constexpr const char* THRESHOLD_VARIABLE = "TARVANE_MEM_PROFILE_FILELINE_PEAK_SNAPSHOT_THRESHOLD";
constexpr const char* THRESHOLD_KEY = "mem_profile_fileline_peak_snapshot_threshold";
constexpr std::uint64_t PERIOD = 131072;
constexpr std::int64_t THRESHOLD = 134217728;

INSTANTIATE_TEST_SUITE_P(
    Settings, SETTING_TEST,
    testing::Values(SETTING{{{PERIOD_VARIABLE, "0"}, {THRESHOLD_VARIABLE, "many"}}, PERIOD, THRESHOLD, 0},
                    SETTING{{{PERIOD_VARIABLE, "100x"}, {THRESHOLD_VARIABLE, "4096"}}, 100, 4096, 0},
                    SETTING{
                        {{PERIOD_VARIABLE, "100"}, {PERIOD_KEY, " 12abc"}, {THRESHOLD_KEY, "77"}}, 12, 77, 0},
                    SETTING{{{PERIOD_KEY, "0"}, {THRESHOLD_KEY, "0"}}, PERIOD, THRESHOLD, 2},
                    SETTING{{{PERIOD_VARIABLE, "99999999999999999999999"}, {THRESHOLD_VARIABLE, "-1"}},
                            UINT64_MAX,
                            THRESHOLD,
                            1},
                    SETTING{{{THRESHOLD_KEY, "4611686018427387904"}}, PERIOD, std::int64_t{1} << 62, 0},
                    SETTING{{{THRESHOLD_KEY, "4611686018427387905"}}, PERIOD, THRESHOLD, 1}));

TEST(SETTINGS_TEST, AMalformedKeyEndsTheStart) {
    set_variable(PERIOD_KEY, "abc");
    EXPECT_THROW(mem_read_settings(), std::invalid_argument);
    set_variable(PERIOD_KEY, "18446744073709551616");
    EXPECT_THROW(mem_read_settings(), std::out_of_range);
}

class TAG_TEST : public TRACKER_TEST {};

TEST_F(TAG_TEST, NamesTheReportFiles) {
    EXPECT_DEATH(mem_set_tbb_exe_string("x"), "mem_tbb_exe_string != nullptr");
    start(0);
    EXPECT_EQ(mem_report_file_name("mem_tbb_fileline."), "mem_tbb_fileline.tvx.log");
    EXPECT_DEATH(mem_set_tbb_exe_string(nullptr), "exe_string != nullptr");
    EXPECT_EQ(mem_expand_tag("%e.%p", "git", 42), "git.42");
    EXPECT_EQ(mem_expand_tag("100%%%x%", "git", 42), "100%%x%");
    EXPECT_EQ(mem_expand_tag("../%e", "a/b", 1), ".._a_b");
}
