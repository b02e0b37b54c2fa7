#include "vbx/platform/os/clock.h"

#include <ctime>

std::int64_t os_clock() {
    timespec now;
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0)
        return -1;
    return std::int64_t{now.tv_sec} * OS_CLICKS_PER_SECOND + now.tv_nsec / 1'000'000;
}
