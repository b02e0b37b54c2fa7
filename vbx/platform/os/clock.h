// The clock of the reports.
#pragma once

#include <cstdint>

constexpr int OS_CLICKS_PER_SECOND = 1000;

// Milliseconds of real time since an arbitrary moment before; -1 when the clock can't be read.
std::int64_t os_clock();
