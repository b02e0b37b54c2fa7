// The two numeric settings of the tracker.
#pragma once

#include <atomic>
#include <cstdint>

constexpr std::uint64_t MEM_DEFAULT_SNAPSHOT_PERIOD = 131072;
constexpr std::int64_t MEM_DEFAULT_FILELINE_PEAK_THRESHOLD = 134217728;

// Events between two samples; never 0.
inline constinit std::atomic<std::uint64_t> mem_snapshot_period{MEM_DEFAULT_SNAPSHOT_PERIOD};
// Step in bytes of the grid of threshold peaks; from 1 to 2^62.
inline constinit std::atomic<std::int64_t> mem_fileline_peak_threshold{MEM_DEFAULT_FILELINE_PEAK_THRESHOLD};

// Reads both from the environment and the configuration; the key beats the variable. A key that holds no
// number throws std::invalid_argument, one out of range std::out_of_range. A number that can't be used as a
// divisor gives the default and one line on standard error.
void mem_read_settings();
