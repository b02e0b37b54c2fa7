#include "vbx/platform/os/append_file.h"

#include "vbx/platform/os/write.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

// Above the numbers that programs count on: a shell's own, those that a script names, the next free one.
constexpr int LOWEST_DESCRIPTOR = 512;

// As high as that, or as the limit of the process allows.
int moved_up(int descriptor) {
    for (int lowest = LOWEST_DESCRIPTOR; lowest > descriptor; lowest -= lowest / 4 + 1)
        if (const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, lowest); moved >= 0) {
            ::close(descriptor);
            return moved;
        }
    return descriptor;
}

} // namespace

int OS_APPEND_FILE::open(const char* path) {
    if (is_open())
        return 0;
    const int first_time = m_was_opened.load(std::memory_order_relaxed) ? 0 : O_TRUNC;
    int descriptor = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | first_time, 0666);
    if (descriptor < 0)
        return errno;
    m_was_opened.store(true, std::memory_order_relaxed);
    descriptor = moved_up(descriptor);
    struct stat file {};
    fstat(descriptor, &file);
    m_device.store(file.st_dev, std::memory_order_relaxed);
    m_inode.store(file.st_ino, std::memory_order_relaxed);
    // Without a lock, which a fork could copy: two threads that open at once open one and the same file.
    int none = NONE;
    if (!m_descriptor.compare_exchange_strong(none, descriptor))
        ::close(descriptor);
    return 0;
}

bool OS_APPEND_FILE::is_still_ours(int descriptor) const {
    struct stat now {};
    return fstat(descriptor, &now) == 0 && now.st_dev == m_device.load(std::memory_order_relaxed) &&
           now.st_ino == m_inode.load(std::memory_order_relaxed);
}

void OS_APPEND_FILE::append(const char* text, std::size_t length) {
    const int saved_errno = errno;
    const int descriptor = m_descriptor.load(std::memory_order_acquire);
    if (descriptor >= 0 && is_still_ours(descriptor))
        os_write(descriptor, text, length);
    errno = saved_errno;
}

void OS_APPEND_FILE::stop() {
    m_stopped_descriptor = m_descriptor.exchange(NONE);
}

void OS_APPEND_FILE::close() {
    if (m_stopped_descriptor >= 0 && is_still_ours(m_stopped_descriptor))
        ::close(m_stopped_descriptor);
    m_stopped_descriptor = NONE;
}
