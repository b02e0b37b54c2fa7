#include "vbx/platform/os/critical_section.h"

#include "vbx/platform/os/clock.h"
#include "vbx/platform/os/thread.h"

#include <immintrin.h>

#include <cstdint>
#include <new>

namespace {
constexpr int SPIN_COUNT = 4000;
}

void OS_CRITICAL_SECTION::enter() {
    for (int spin = 0; spin < SPIN_COUNT; ++spin) {
        if (pthread_mutex_trylock(&m_mutex) == 0)
            return;
        _mm_pause();
    }
    pthread_mutex_lock(&m_mutex);
}

bool OS_CRITICAL_SECTION::enter_within(unsigned timeout_ms) {
    const std::int64_t deadline = os_clock() + timeout_ms;
    OS_PATIENCE patience;
    while (pthread_mutex_trylock(&m_mutex) != 0) {
        if (os_clock() > deadline)
            return false;
        patience.wait();
    }
    return true;
}

void OS_CRITICAL_SECTION::leave() {
    pthread_mutex_unlock(&m_mutex);
}

void OS_CRITICAL_SECTION::reset_after_fork() {
    new (this) OS_CRITICAL_SECTION;
}
