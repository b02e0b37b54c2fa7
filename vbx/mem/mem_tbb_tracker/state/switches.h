// Which reports are asked for, and the two flags beside the mask, which are read anywhere.
#pragma once

#include <atomic>

struct MEM_REPORT_FLAGS {
    std::atomic<bool> fileline{false};
    std::atomic<bool> library{false};
    std::atomic<bool> bin_tag{false};
    std::atomic<bool> auxiliary{false};
};

// Set by mem_get_tracking_granularity_from_env alone, cleared by the shutdown: a feature that a host turns on
// later brings no report.
inline constinit MEM_REPORT_FLAGS mem_report_flags;
void mem_clear_report_flags();
bool mem_any_report_is_due();

// Region measuring at the opening and closing of profile bins.
inline constinit std::atomic<bool> mem_memory_tracking_flag{false};
// Charging of blocks to the bins and tags that hosts open.
inline constinit std::atomic<bool> mem_bin_tag_tracking_flag{false};

// A variable switch is on if it is set, not empty and not exactly "0"; also for the switch that stands
// outside the mask.
bool mem_environment_switch_is_on(const char* name);
