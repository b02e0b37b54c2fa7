// pthread_getattr_np would give the bounds, but not here: it holds a lock of the thread while it allocates,
// so the event of that allocation would wait for its own thread. What is known without it is the end: a
// thread's descriptor stands at the end of its stack, and the kernel's first words at the end of the main
// one. From there downwards the pages are tried one by one, each once in the life of the thread.

#include "vbx/platform/vbx_err/stack_bounds.h"

#include "vbx/platform/os/thread.h"

#include <pthread.h>
#include <sys/auxv.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace {

constexpr std::uintptr_t PAGE = 4096;

// More lies between two stacks than within one. Deeper stacks are left to libgcc.
constexpr std::uintptr_t FARTHEST = std::uintptr_t{64} << 20;

struct STACK {
    std::uintptr_t end = 0;
    std::uintptr_t readable = 0;   // from here to the end
    std::uintptr_t unreadable = 0; // something below the stack, to be tried once only
};

constinit __thread STACK stack{};
// Asking the kernel would not do: in a forked child any thread can be the first.
constinit pthread_t main_thread = 0;

// The kernel reads the new mask before it looks at what to do with it, which is nothing.
bool is_readable(std::uintptr_t address) {
    constexpr int NO_SUCH_OPERATION = -1;
    constexpr std::size_t MASK_SIZE = 8;
    return syscall(SYS_rt_sigprocmask, NO_SUCH_OPERATION, address, nullptr, MASK_SIZE) != 0 &&
           errno == EINVAL;
}

void find_end() {
    const std::uintptr_t end = pthread_self() == main_thread ? getauxval(AT_RANDOM) : pthread_self();
    stack.readable = end & ~(PAGE - 1);
    // Last, for the compiler too: a handler that comes in between begins again.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    stack.end = end & ~std::uintptr_t{7};
}

// Tries the pages between what is known to be readable and the one at `page`.
bool extend_to(std::uintptr_t page) {
    while (stack.readable > page) {
        const std::uintptr_t next = stack.readable - PAGE;
        if (!is_readable(next)) {
            stack.unreadable = next;
            return false;
        }
        stack.readable = next;
    }
    return true;
}

} // namespace

void err_note_main_thread() {
    if (os_thread_id() == static_cast<std::uint32_t>(getpid()))
        main_thread = pthread_self();
}

std::uintptr_t err_readable_stack_end(std::uintptr_t stack_pointer) {
    if (stack_pointer >= stack.readable && stack_pointer < stack.end)
        return stack.end;
    const int saved_errno = errno;
    if (stack.end == 0)
        find_end();
    const bool is_near = stack_pointer < stack.end && stack.end - stack_pointer <= FARTHEST;
    const bool is_stack =
        is_near && stack_pointer >= stack.unreadable + PAGE && extend_to(stack_pointer & ~(PAGE - 1));
    errno = saved_errno;
    return is_stack ? stack.end : 0;
}
