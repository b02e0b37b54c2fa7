// The mask and the settings from the environment and the configuration keys.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/state/settings.h"
#include "vbx/mem/mem_tbb_tracker/state/switches.h"

#include <algorithm>
#include <sstream>

namespace {

// "name=value name=value"; what doesn't begin in lower case is short for a variable.
void set_all(const std::string& settings) {
    std::istringstream words(settings);
    for (std::string word; words >> word;) {
        const std::size_t end = word.find('=');
        const std::string prefix = word[0] >= 'a' || word.starts_with("MEM_") ? "" : "TARVANE_MEM_";
        set_variable((prefix + word.substr(0, end)).c_str(), word.c_str() + end + 1);
    }
}

struct MASK {
    std::string switches;
    std::uint32_t mask;
    std::string flags; // a letter a report flag that is set
};
struct SETTING {
    std::string settings;
    std::uint64_t period;
    std::int64_t threshold;
    int lines; // on standard error
};

} // namespace

class MASK_TEST : public testing::TestWithParam<MASK> {};

TEST_P(MASK_TEST, IsWorkedOutFromTheSwitches) {
    set_all(GetParam().switches);
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
    testing::Values(MASK{"", 0, ""}, MASK{"mem_profile_all=on CHECK_LEAKS_FAST=1", 95, "flba"},
                    MASK{"PROFILE_PER_BIN=1 mem_profile_per_bin_detailed=ON", 3, "b"},
                    MASK{"mem_profile_per_bin=on PROFILE_BIN_TAG_PLOT=1", 3, "b"},
                    MASK{"mem_track_user_memory=on mem_profile_per_bin=off", 1, ""},
                    MASK{"PROFILE_PER_LIBRARY=1 mem_profile_per_fileline=on", 12, "fl"},
                    MASK{"mem_profile_per_library=1 PROFILE_PER_FILELINE=1", 12, "fl"},
                    MASK{"CHECK_LEAKS=1 mem_profile_auxiliary_timeline=on", 80, "a"},
                    MASK{"mem_check_leaks_fast=on PROFILE_AUXILIARY_TIMELINE=1", 96, "a"},
                    MASK{"mem_check_leaks=on CHECK_LEAKS_FAST=1", 16, ""}, // the full one wins
                    MASK{"MEM_LEAK_TRACKING_IN_ZV_MODE=1", 32, ""},
                    // "0" and nothing are as good as unset, anything else is on; keys take only what says so.
                    MASK{"PROFILE_PER_LIBRARY=0 PROFILE_PER_FILELINE= mem_profile_per_bin=yes", 0, ""},
                    MASK{"PROFILE_PER_LIBRARY=0 mem_profile_per_library=on", 4, "l"},
                    MASK{"PROFILE_PER_LIBRARY=off PROFILE_PER_FILELINE=00", 12, "fl"},
                    MASK{"mem_only_profile_single_executable=tracker_tes PROFILE_ALL=1", 0, ""},
                    MASK{"mem_only_profile_single_executable=Tracker_test PROFILE_ALL=1", 0, ""},
                    MASK{"mem_only_profile_single_executable=tracker_test PROFILE_ALL=1", 95, "flba"}));

class SETTING_TEST : public testing::TestWithParam<SETTING> {};

TEST_P(SETTING_TEST, IsReadOrReplacedByTheDefault) {
    set_all(GetParam().settings);
    testing::internal::CaptureStderr();
    mem_read_settings();
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(mem_snapshot_period, GetParam().period);
    EXPECT_EQ(mem_fileline_peak_threshold, GetParam().threshold);
    EXPECT_EQ(std::ranges::count(said, '\n'), GetParam().lines) << said;
    EXPECT_EQ(said.starts_with("MEM: "), !said.empty()) << said;
}

const std::string PERIOD = "PROFILE_LIBRARY_SNAPSHOT_PERIOD=";
const std::string PERIOD_KEY = "mem_profile_library_snapshot_period=";
const std::string THRESHOLD = " PROFILE_FILELINE_PEAK_SNAPSHOT_THRESHOLD=";
const std::string THRESHOLD_KEY = " mem_profile_fileline_peak_snapshot_threshold=";

INSTANTIATE_TEST_SUITE_P(
    Settings, SETTING_TEST,
    testing::Values(SETTING{PERIOD + "0" + THRESHOLD + "many", 131072, 134217728, 0},
                    SETTING{PERIOD + "100x" + THRESHOLD + "4096", 100, 4096, 0},
                    SETTING{PERIOD + "100 " + PERIOD_KEY + "12abc" + THRESHOLD_KEY + "77", 12, 77, 0},
                    SETTING{PERIOD_KEY + "0" + THRESHOLD_KEY + "0", 131072, 134217728, 2},
                    SETTING{PERIOD + "99999999999999999999999" + THRESHOLD + "-1", UINT64_MAX, 134217728, 1},
                    SETTING{THRESHOLD_KEY + "4611686018427387904", 131072, std::int64_t{1} << 62, 0},
                    SETTING{THRESHOLD_KEY + "4611686018427387905", 131072, 134217728, 1}));

// ---- what a host may answer in place of the environment

TEST(HOST_SLOT_TEST, ConfigurationIsThatOfTheHostOrOfTheEnvironment) {
    const auto answers = [] {
        return std::to_string(mem_cfg_is_on("k", false)) + std::to_string(mem_cfg_is_on("k", true)) + " " +
               mem_cfg_get_value("k") + " " + std::to_string(mem_cfg_get_int_value("k", 7));
    };
    EXPECT_EQ(answers(), "01  0");
    for (const auto& [value, expected] :
         {std::pair{"ON", "11 ON 0"}, {"Off", "00 Off 0"}, {"0", "00 0 0"}, {"12abc", "01 12abc 12"}}) {
        set_variable("k", value);
        EXPECT_EQ(answers(), expected);
    }
    EXPECT_TRUE(mem_cfg_is_on(nullptr, true));
    EXPECT_EQ(mem_cfg_get_value(nullptr), "");
    mem_set_cfg_is_on_callback([](const char*, bool default_value) { return !default_value; });
    mem_set_cfg_get_value_callback([](const char* name, std::string* value) { *value += name; });
    mem_set_cfg_get_int_value_callback([](const char*, int* value, int usual) { *value += 10 * usual; });
    EXPECT_EQ(answers(), "10 k 70");
}
