#include "vbx/mem/mem_tbb_tracker/state/switches.h"

#include "vbx/platform/os/process.h"
#include "vbx/platform/vbx_err/vbx_err.h"

#include <vbx/mem/control.h>
#include <vbx/mem/host.h>

#include <algorithm>
#include <boost/filesystem/path.hpp>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// One feature: its variable, then its keys in the order in which they are asked.
struct SWITCH_ROW {
    const char* variable;
    const char* key;
    const char* second_key;
};

constexpr SWITCH_ROW ALL = {"TARVANE_MEM_PROFILE_ALL", "mem_profile_all", nullptr};
constexpr SWITCH_ROW CHECK_LEAKS = {"TARVANE_MEM_CHECK_LEAKS", "mem_check_leaks", nullptr};
constexpr SWITCH_ROW CHECK_LEAKS_FAST = {"TARVANE_MEM_CHECK_LEAKS_FAST", "mem_check_leaks_fast", nullptr};

struct FEATURE_ROW {
    MEM_TRACKING_GRANULARITY value;
    SWITCH_ROW row;
    std::atomic<bool> MEM_REPORT_FLAGS::*report_flag;
};

constexpr FEATURE_ROW BEFORE_LEAKS[] = {
    {MEM_GRANULARITY_PER_BIN,
     {"TARVANE_MEM_PROFILE_PER_BIN", "mem_profile_per_bin", "mem_track_user_memory"},
     nullptr},
    {MEM_GRANULARITY_PER_BIN_DETAILED,
     {"TARVANE_MEM_PROFILE_BIN_TAG_PLOT", "mem_profile_per_bin_detailed", nullptr},
     &MEM_REPORT_FLAGS::bin_tag},
    {MEM_GRANULARITY_PER_LIBRARY,
     {"TARVANE_MEM_PROFILE_PER_LIBRARY", "mem_profile_per_library", nullptr},
     &MEM_REPORT_FLAGS::library},
    {MEM_GRANULARITY_PER_FILELINE,
     {"TARVANE_MEM_PROFILE_PER_FILELINE", "mem_profile_per_fileline", nullptr},
     &MEM_REPORT_FLAGS::fileline},
};

constexpr FEATURE_ROW AUXILIARY = {
    MEM_GRANULARITY_AUXILIARY_TIMELINE,
    {"TARVANE_MEM_PROFILE_AUXILIARY_TIMELINE", "mem_profile_auxiliary_timeline", nullptr},
    &MEM_REPORT_FLAGS::auxiliary,
};

constexpr std::atomic<bool> MEM_REPORT_FLAGS::*REPORT_FLAGS[] = {
    &MEM_REPORT_FLAGS::fileline, &MEM_REPORT_FLAGS::library, &MEM_REPORT_FLAGS::bin_tag,
    &MEM_REPORT_FLAGS::auxiliary};

void set_all_report_flags(bool value) {
    for (const auto flag : REPORT_FLAGS)
        mem_report_flags.*flag = value;
}

// A variable set to "0" only counts as unset: the keys are still asked.
bool is_on(const SWITCH_ROW& row) {
    return mem_environment_switch_is_on(row.variable) || mem_cfg_is_on(row.key, false) ||
           (row.second_key != nullptr && mem_cfg_is_on(row.second_key, false));
}

std::uint32_t feature_if_on(const FEATURE_ROW& feature) {
    if (!is_on(feature.row))
        return 0;
    if (feature.report_flag != nullptr)
        mem_report_flags.*feature.report_flag = true;
    return feature.value;
}

// The full leak check makes the fast one pointless; its switches are not even read then.
std::uint32_t leak_check() {
    if (is_on(CHECK_LEAKS))
        return MEM_GRANULARITY_CHECK_LEAKS;
    if (is_on(CHECK_LEAKS_FAST) || mem_environment_switch_is_on("MEM_LEAK_TRACKING_IN_ZV_MODE"))
        return MEM_GRANULARITY_CHECK_LEAKS_FAST;
    return 0;
}

bool another_executable_is_meant() {
    const std::string wanted = mem_cfg_get_value("mem_only_profile_single_executable");
    if (wanted.empty())
        return false;
    const std::string path = os_executable_path();
    if (path.empty())
        err_report_internal_error("GetModuleFileName(NULL, szRawPath, MAX_PATH)", "MEM", __FILE__, __LINE__);
    return boost::filesystem::path(path).stem().native() != wanted;
}

} // namespace

bool mem_environment_switch_is_on(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr && *value != '\0' && std::strcmp(value, "0") != 0;
}

void mem_clear_report_flags() {
    set_all_report_flags(false);
}

bool mem_any_report_is_due() {
    return std::ranges::any_of(REPORT_FLAGS, [](auto flag) { return (mem_report_flags.*flag).load(); });
}

MEM_TRACKING_GRANULARITY mem_get_tracking_granularity_from_env() {
    if (another_executable_is_meant())
        return MEM_GRANULARITY_NONE;
    if (is_on(ALL)) {
        set_all_report_flags(true);
        return MEM_GRANULARITY_ALL;
    }
    std::uint32_t mask = 0;
    for (const FEATURE_ROW& feature : BEFORE_LEAKS)
        mask |= feature_if_on(feature);
    mask |= leak_check();
    mask |= feature_if_on(AUXILIARY);
    return static_cast<MEM_TRACKING_GRANULARITY>(mask);
}
