// Ways to wait that use neither a lock nor the heap: clock, futex, short sleep. All of them may set errno.
//
// The kernel is called directly where the C library's function is a cancellation point: a host's thread that
// is cancelled in here would leave its slot marked, or the gate up for good.
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdint>

// Monotonic time in nanoseconds.
inline std::uint64_t tbbk_now_ns() noexcept {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

// Sleeps long enough for another thread to get on, about 0.1 ms.
inline void tbbk_wait_a_moment() noexcept {
    const timespec moment = {0, 100'000};
    syscall(SYS_nanosleep, &moment, nullptr);
}

// Sleeps while the word holds `expected`, until a wake-up, a signal or the time limit, whichever is first.
inline void tbbk_futex_wait(std::atomic<std::uint32_t>& word, std::uint32_t expected,
                            std::uint64_t limit_ns) noexcept {
    const timespec limit = {static_cast<time_t>(limit_ns / 1'000'000'000),
                            static_cast<long>(limit_ns % 1'000'000'000)};
    syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, expected, &limit, nullptr, 0);
}

inline void tbbk_futex_wake_all(std::atomic<std::uint32_t>& word) noexcept {
    syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}
