// The mask and the settings from the environment and the configuration keys; what a host fills in.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/host/messages.h"
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

const struct {
    std::string switches;
    std::uint32_t mask;
    std::string flags; // a letter a report flag that is set
} MASKS[] = {{"", 0, ""},
             {"mem_profile_all=on CHECK_LEAKS_FAST=1", 95, "flba"},
             {"PROFILE_PER_BIN=1 mem_profile_per_bin_detailed=ON", 3, "b"},
             {"mem_track_user_memory=on mem_profile_per_bin=off", 1, ""},
             {"CHECK_LEAKS=1 mem_profile_auxiliary_timeline=on", 80, "a"},
             {"mem_check_leaks=on CHECK_LEAKS_FAST=1", 16, ""}, // the full one wins
             {"MEM_LEAK_TRACKING_IN_ZV_MODE=1", 32, ""},
             // "0" and nothing are as good as unset, anything else is on; keys take only what says so.
             {"PROFILE_PER_LIBRARY=0 PROFILE_PER_FILELINE= mem_profile_per_bin=yes", 0, ""},
             {"PROFILE_PER_LIBRARY=0 mem_profile_per_library=on", 4, "l"},
             {"PROFILE_PER_LIBRARY=off PROFILE_PER_FILELINE=00", 12, "fl"},
             {"mem_only_profile_single_executable=tracker_tes PROFILE_ALL=1", 0, ""},
             {"mem_only_profile_single_executable=Tracker_test PROFILE_ALL=1", 0, ""},
             {"mem_only_profile_single_executable=tracker_test PROFILE_ALL=1", 95, "flba"}};

const std::string PERIOD = "PROFILE_LIBRARY_SNAPSHOT_PERIOD=";
const std::string PERIOD_KEY = "mem_profile_library_snapshot_period=";
const std::string THRESHOLD = " PROFILE_FILELINE_PEAK_SNAPSHOT_THRESHOLD=";
const std::string THRESHOLD_KEY = " mem_profile_fileline_peak_snapshot_threshold=";

const struct {
    std::string settings;
    std::uint64_t period;
    std::int64_t threshold;
    int lines; // on standard error
} SETTINGS[] = {{PERIOD + "0" + THRESHOLD + "many", 131072, 134217728, 0},
                {PERIOD + "100x" + THRESHOLD + "4096", 100, 4096, 0},
                {PERIOD + "100 " + PERIOD_KEY + "12abc" + THRESHOLD_KEY + "77", 12, 77, 0},
                {PERIOD_KEY + "0" + THRESHOLD_KEY + "0", 131072, 134217728, 2},
                {PERIOD + "99999999999999999999999" + THRESHOLD + "-1", UINT64_MAX, 134217728, 1},
                {THRESHOLD_KEY + "4611686018427387904", 131072, std::int64_t{1} << 62, 0},
                {THRESHOLD_KEY + "9223372036854775807", 131072, std::int64_t{1} << 62, 0},
                {THRESHOLD_KEY + "9223372036854775808", 131072, 134217728, 1}};

} // namespace

class SWITCHES_TEST : public TRACKER_TEST {};

TEST_F(SWITCHES_TEST, MakeTheMask) {
    for (const auto& [switches, mask, expected_flags] : MASKS) {
        SCOPED_TRACE(switches);
        clearenv();
        mem_clear_report_flags();
        set_all(switches);
        EXPECT_EQ(mem_get_tracking_granularity_from_env(), mask);
        std::string flags;
        flags += mem_report_flags.fileline ? "f" : "";
        flags += mem_report_flags.library ? "l" : "";
        flags += mem_report_flags.bin_tag ? "b" : "";
        flags += mem_report_flags.auxiliary ? "a" : "";
        EXPECT_EQ(flags, expected_flags);
        EXPECT_FALSE(mem_tracking_is_enabled(MEM_GRANULARITY_PER_BIN)); // worked out, not stored
    }
}

TEST_F(SWITCHES_TEST, SettingsAreReadOrReplacedByTheDefault) {
    for (const auto& [settings, period, threshold, lines] : SETTINGS) {
        SCOPED_TRACE(settings);
        clearenv();
        set_all(settings);
        testing::internal::CaptureStderr();
        mem_read_settings();
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_EQ(mem_snapshot_period, period);
        EXPECT_EQ(mem_fileline_peak_threshold, threshold);
        EXPECT_EQ(std::ranges::count(said, '\n'), lines) << said;
        EXPECT_EQ(said.starts_with("MEM: "), !said.empty()) << said;
    }
    // A key without a number is an exception.
    set_all(PERIOD_KEY + "99999999999999999999999");
    EXPECT_THROW(mem_read_settings(), std::out_of_range);
    set_all(PERIOD_KEY + "7" + THRESHOLD_KEY + "x");
    EXPECT_THROW(mem_read_settings(), std::invalid_argument);
}

// ---- what a host may answer in place of the environment

TEST_F(SWITCHES_TEST, AHostMayAnswerForTheEnvironment) {
    const auto configuration = [] {
        return std::to_string(mem_cfg_is_on("k", false)) + std::to_string(mem_cfg_is_on("k", true)) + " " +
               mem_cfg_get_value("k") + " " + std::to_string(mem_cfg_get_int_value("k", 7));
    };
    const auto paths = [] {
        return mem_gen_get_tarvane_path() + mem_gen_get_db_dir_path_string() + mem_gen_get_module_filename() +
               mem_gen_get_project_output_directory() + (mem_gen_get_is_ui_process() ? " ui" : "");
    };
    EXPECT_EQ(configuration(), "01  0");
    EXPECT_EQ(paths(), "");
    set_variable("k", "Off");
    EXPECT_EQ(configuration(), "00 Off 0");
    set_variable("k", "12abc");
    EXPECT_EQ(configuration(), "01 12abc 12");
    mem_set_cfg_is_on_callback([](const char*, bool default_value) { return !default_value; });
    mem_set_cfg_get_value_callback([](const char* name, std::string* value) { *value += name; });
    mem_set_cfg_get_int_value_callback([](const char*, int* value, int usual) { *value += 10 * usual; });
    EXPECT_EQ(configuration(), "10 k 70");
    mem_set_gen_get_tarvane_path_callback([] { return std::string("suite "); });
    mem_set_gen_get_db_dir_path_string_callback([] { return std::string("db "); });
    mem_set_gen_get_module_filename_callback([] { return std::string("module "); });
    mem_set_gen_get_project_output_directory_callback([]() -> const char* { return "out"; });
    mem_set_gen_get_is_ui_process_callback([] { return true; });
    EXPECT_EQ(paths(), "suite db module out ui");
}

TEST_F(SWITCHES_TEST, MessagesGoToTheirSlotOrToStandardOutput) {
    std::va_list none{}; // no text asks for any
    testing::internal::CaptureStdout();
    EXPECT_TRUE(mem_msg_local_vinfo("TAG", "info", none)); // the slot of the debug messages is filled
    mem_set_msg_local_vdebug_callback(nullptr);
    mem_set_msg_local_vinfo_callback([](const char*, const char*, std::va_list) { return false; });
    EXPECT_TRUE(mem_msg_debug("x %d", 1));
    EXPECT_FALSE(mem_msg_local_vinfo("TAG", "nobody sees this", none));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "TAG: info\nMEM: x 1\n");
}
