#include "vbx/platform/os/thread.h"

#include <pthread.h>
#include <unistd.h>

namespace {
constinit __thread std::uint32_t cached_thread_id = 0;
}

std::uint32_t os_thread_id() {
    if (cached_thread_id == 0)
        cached_thread_id = static_cast<std::uint32_t>(gettid());
    return cached_thread_id;
}

void os_forget_thread_id() {
    cached_thread_id = 0;
}

OS_NO_CANCELLATION::OS_NO_CANCELLATION() {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_old_state);
}

OS_NO_CANCELLATION::~OS_NO_CANCELLATION() {
    int ignored;
    pthread_setcancelstate(m_old_state, &ignored);
}
