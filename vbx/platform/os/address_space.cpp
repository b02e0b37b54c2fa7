#include "vbx/platform/os/address_space.h"

#include "vbx/platform/os/kept_descriptor.h"
#include "vbx/platform/os/process_memory.h"
#include "vbx/platform/os/thread.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>

namespace {

constinit OS_KEPT_DESCRIPTOR kept_file;
// A child of vfork has our memory, but the file tells of its parent.
constinit std::atomic<pid_t> owner{0};

// 0 when nothing is kept, and once the first thread of the process, which the file tells of, has ended.
std::uint64_t read_kept_file() {
    const int descriptor = kept_file.usable();
    if (descriptor == OS_KEPT_DESCRIPTOR::NONE || owner.load(std::memory_order_relaxed) != getpid())
        return 0;
    char text[32];
    const ssize_t length = pread(descriptor, text, sizeof text, 0);
    std::uint64_t pages = 0;
    if (length > 0)
        std::from_chars(text, text + length, pages);
    return pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

void open_and_keep() {
    const int descriptor = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
        return;
    owner.store(getpid(), std::memory_order_relaxed);
    kept_file.keep(descriptor);
}

} // namespace

void os_keep_address_space_file() {
    const int callers_errno = errno;
    const OS_NO_CANCELLATION no_cancellation;
    if (kept_file.usable() == OS_KEPT_DESCRIPTOR::NONE)
        open_and_keep();
    errno = callers_errno;
}

void os_forget_address_space_file_after_fork() {
    kept_file.stop();
    kept_file.close_stopped();
}

int os_read_address_space(std::uint64_t& bytes) {
    const int callers_errno = errno;
    const OS_NO_CANCELLATION no_cancellation;
    const std::uint64_t kept = read_kept_file();
    errno = callers_errno;
    if (kept != 0) {
        bytes = kept;
        return 0;
    }
    OS_PROCESS_MEMORY memory;
    const int error = os_read_process_memory(memory);
    if (error == 0)
        bytes = memory.virtual_size;
    return error;
}
