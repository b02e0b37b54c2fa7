#include "vbx/platform/os/thread.h"

#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>

namespace {
// Most waits are for a few updates on another processor, which are over before a system call would be.
constexpr unsigned PAUSES_BEFORE_YIELDS = 6;
constexpr unsigned WAITS_BEFORE_SLEEP = 64;
constexpr long SLEEP_NS = 50'000;
} // namespace

void OS_PATIENCE::wait() {
    if (m_rounds < WAITS_BEFORE_SLEEP) {
        if (++m_rounds <= PAUSES_BEFORE_YIELDS)
            __builtin_ia32_pause();
        else
            sched_yield();
        return;
    }
    // The C library's sleep is a cancellation point; the bare call is none.
    const timespec moment{0, SLEEP_NS};
    syscall(SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, &moment, nullptr);
}

std::uint32_t os_ask_thread_id() {
    os_kept_thread_id = static_cast<std::uint32_t>(gettid());
    return os_kept_thread_id;
}

void os_forget_thread_id() {
    os_kept_thread_id = 0;
}

OS_NO_CANCELLATION::OS_NO_CANCELLATION() {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_old_state);
}

OS_NO_CANCELLATION::~OS_NO_CANCELLATION() {
    int ignored;
    pthread_setcancelstate(m_old_state, &ignored);
}
