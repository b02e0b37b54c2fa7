#include "vbx/platform/os/kept_descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Above the numbers that programs count on: a shell's own, those that a script names, the next free one.
constexpr int LOWEST_DESCRIPTOR = 512;

// As high as that, or as the limit of the process allows.
int moved_up(int descriptor) {
    for (int lowest = LOWEST_DESCRIPTOR; lowest > descriptor; lowest -= lowest / 4 + 1)
        if (const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, lowest); moved >= 0) {
            close(descriptor);
            return moved;
        }
    return descriptor;
}

} // namespace

void OS_KEPT_DESCRIPTOR::keep(int descriptor) {
    int before = m_descriptor.load(std::memory_order_acquire);
    if (is_ours(before)) {
        close(descriptor);
        return;
    }
    descriptor = moved_up(descriptor);
    struct stat file {};
    fstat(descriptor, &file);
    m_device.store(file.st_dev, std::memory_order_relaxed);
    m_inode.store(file.st_ino, std::memory_order_relaxed);
    // Without a lock, which a fork could copy: two threads that come at once have opened one and the same
    // file.
    if (!m_descriptor.compare_exchange_strong(before, descriptor))
        close(descriptor);
}

bool OS_KEPT_DESCRIPTOR::is_ours(int descriptor) const {
    struct stat now {};
    return descriptor != NONE && fstat(descriptor, &now) == 0 &&
           now.st_dev == m_device.load(std::memory_order_relaxed) &&
           now.st_ino == m_inode.load(std::memory_order_relaxed);
}

int OS_KEPT_DESCRIPTOR::usable() const {
    const int descriptor = m_descriptor.load(std::memory_order_acquire);
    return is_ours(descriptor) ? descriptor : NONE;
}

void OS_KEPT_DESCRIPTOR::stop() {
    m_stopped = m_descriptor.exchange(NONE);
}

void OS_KEPT_DESCRIPTOR::close_stopped() {
    if (is_ours(m_stopped))
        close(m_stopped);
    m_stopped = NONE;
}
