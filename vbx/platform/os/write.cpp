#include "vbx/platform/os/write.h"

#include "vbx/platform/os/thread.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <initializer_list>

OS_NO_WRITE_SIGNALS::OS_NO_WRITE_SIGNALS() {
    sigset_t pending;
    sigpending(&pending);
    sigemptyset(&m_ours);
    for (const int number : {SIGPIPE, SIGXFSZ})
        if (sigismember(&pending, number) == 0)
            sigaddset(&m_ours, number);
    pthread_sigmask(SIG_BLOCK, &m_ours, &m_saved_mask);
}

OS_NO_WRITE_SIGNALS::~OS_NO_WRITE_SIGNALS() {
    const int saved_errno = errno;
    const timespec no_time{};
    for (;;)
        if (sigtimedwait(&m_ours, nullptr, &no_time) < 0 && errno != EINTR)
            break;
    pthread_sigmask(SIG_SETMASK, &m_saved_mask, nullptr);
    errno = saved_errno;
}

void os_write(int descriptor, const char* text, std::size_t length) {
    const int saved_errno = errno;
    const OS_NO_CANCELLATION no_cancellation;
    {
        const OS_NO_WRITE_SIGNALS no_signals;
        while (length > 0) {
            const ssize_t written = write(descriptor, text, length);
            if (written < 0) {
                if (errno == EINTR)
                    continue;
                break;
            }
            text += written;
            length -= static_cast<std::size_t>(written);
        }
    }
    errno = saved_errno;
}
