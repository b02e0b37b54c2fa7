// Allocates where stacks are hard to walk. Without arguments: in coroutines and signal handlers. With two
// libraries: in the loader, in forked children, behind calls that don't return and throws, in libraries that
// take turns at one place. They are built of this source, too: frames of two sizes, one layout of code.
// Blocks of one thread are freed by another.
#include <dlfcn.h>
#include <link.h>
#include <signal.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>
#include <thread>

extern "C" [[gnu::visibility("default")]] int nest(int depth) {
    volatile char room[FRAME_SIZE];
    room[0] = 1;
    void* volatile block = std::malloc(10);
    const int sum = (depth > 0 ? nest(depth - 1) : 0) + room[0];
    std::free(block);
    return sum;
}

[[noreturn, gnu::noinline]] static void leave() {
    _exit(nest(20) - 21);
}
static std::atomic<int> faults = 0, rounds = 500;
static std::atomic<void*> handed_over = nullptr;
static ucontext_t outside, inside;
static char coroutine_stack[1 << 18], signal_stack[1 << 18];

static void use_foreign_stacks() {
    getcontext(&inside);
    inside.uc_stack = {coroutine_stack, 0, sizeof coroutine_stack};
    const auto run = [] {
        for (;; swapcontext(&inside, &outside))
            nest(20);
    };
    makecontext(&inside, run, 0);
    const stack_t own_stack = {signal_stack, 0, sizeof signal_stack};
    sigaltstack(&own_stack, nullptr);
    for (int round = 0; round < 200; ++round) {
        swapcontext(&outside, &inside);
        struct sigaction action = {};
        action.sa_handler = [](int) { nest(5); };
        action.sa_flags = round % 2 * SA_ONSTACK;
        sigaction(SIGUSR1, &action, nullptr);
        raise(SIGUSR1);
    }
}

int main(int count, char** arguments) {
    if (count < 3) {
        use_foreign_stacks();
        std::thread(use_foreign_stacks).join();
        return 0;
    }
    std::thread forker([] {
        for (int status = 0; rounds > 0; faults += wait(&status) < 0 || status != 0)
            if (fork() == 0)
                leave();
    });
    std::jthread lister([] {
        for (; rounds > 0; std::free(handed_over.exchange(nullptr)))
            dl_iterate_phdr([](dl_phdr_info*, std::size_t, void*) { return nest(2) - 3; }, nullptr);
    });
    void* last = nullptr;
    for (int same = 0; rounds > 0; faults += --rounds == 0 && same < 100) {
        void* const library = dlopen(arguments[1 + rounds % 2], RTLD_NOW);
        void* const function = dlsym(library, "nest");
        faults += reinterpret_cast<int (*)(int)>(function)(10) != 11;
        same += function == last;
        last = function;
        dlclose(library);
        std::free(handed_over.exchange(std::realloc(std::calloc(1, 50), 5000)));
        try {
            throw std::runtime_error("a message that is too long for a small string");
        } catch (const std::exception& thrown) {
            faults += thrown.what()[0] != 'a';
        }
    }
    forker.join();
    return faults != 0;
}
