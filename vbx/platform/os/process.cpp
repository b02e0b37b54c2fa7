#include "vbx/platform/os/process.h"

#include "vbx/platform/os/thread.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

namespace {

constinit bool before_other_initialisers = false;

// A library that the loader initialises before all others runs before libc has set `environ` up, so getenv
// would answer nothing. The loader hands the environment to every constructor; this one comes before all
// others of its library.
[[gnu::constructor(101)]] void adopt_environment(int, char**, char** environment) {
    if (environ == nullptr) {
        environ = environment;
        before_other_initialisers = true;
    }
}

} // namespace

std::string os_executable_path() {
    std::string path(256, '\0');
    for (;;) {
        const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
        if (length < 0)
            return {};
        if (static_cast<std::size_t>(length) < path.size()) {
            path.resize(static_cast<std::size_t>(length));
            return path;
        }
        path.resize(path.size() * 2);
    }
}

bool os_is_before_other_initialisers() {
    return before_other_initialisers;
}
void os_other_initialisers_begin() {
    before_other_initialisers = false;
}

namespace {

// Keeps a write to a broken pipe from raising SIGPIPE in a process that didn't ask for our write.
class NO_SIGPIPE {
  public:
    NO_SIGPIPE() {
        sigset_t pending;
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        sigpending(&pending);
        m_was_pending = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_saved);
    }
    ~NO_SIGPIPE() {
        const timespec no_time{};
        if (!m_was_pending)
            while (sigtimedwait(&m_pipe, nullptr, &no_time) < 0 && errno == EINTR) {
            }
        pthread_sigmask(SIG_SETMASK, &m_saved, nullptr);
    }
    NO_SIGPIPE(const NO_SIGPIPE&) = delete;
    NO_SIGPIPE& operator=(const NO_SIGPIPE&) = delete;

  private:
    sigset_t m_pipe;
    sigset_t m_saved;
    bool m_was_pending;
};

} // namespace

void os_write(int descriptor, const char* text, std::size_t length) {
    const int saved_errno = errno;
    {
        const OS_NO_CANCELLATION no_cancellation;
        const NO_SIGPIPE no_sigpipe;
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
