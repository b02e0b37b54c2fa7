#include "vbx/platform/os/append_file.h"

#include "vbx/platform/os/write.h"

#include <fcntl.h>

#include <cerrno>

int OS_APPEND_FILE::open(const char* path) {
    if (is_open())
        return 0;
    const int first_time = m_was_opened.load(std::memory_order_relaxed) ? 0 : O_TRUNC;
    const int descriptor = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | first_time, 0666);
    if (descriptor < 0)
        return errno;
    m_was_opened.store(true, std::memory_order_relaxed);
    m_file.keep(descriptor);
    return 0;
}

void OS_APPEND_FILE::append(const char* text, std::size_t length) {
    const int saved_errno = errno;
    if (const int descriptor = m_file.usable(); descriptor != OS_KEPT_DESCRIPTOR::NONE)
        os_write(descriptor, text, length);
    errno = saved_errno;
}
