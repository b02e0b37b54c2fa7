#include "vbx/platform/tbbamalloc/tbbamalloc.h"
#include "vbx/platform/vbx_thr/vbx_thr.h"

#include <atomic>
#include <cerrno>
#include <new>

namespace {

// What a new thread is to run, on its way there.
struct START {
    void* (*start)(void*);
    void* argument;
};

std::uint64_t run_body(std::uint64_t start, std::uint64_t argument) {
    void* const result = reinterpret_cast<void* (*)(void*)>(start)(reinterpret_cast<void*>(argument));
    return reinterpret_cast<std::uint64_t>(result);
}

constinit std::atomic<THR_THREAD_FUNCTION> outermost{run_body};
constinit std::atomic<void (*)()> new_handler{nullptr};

void* run_thread(void* opaque) {
    const START start = *static_cast<START*>(opaque);
    tbbk_give_back_quietly(opaque);
    const std::uint64_t result = outermost.load(std::memory_order_acquire)(
        reinterpret_cast<std::uint64_t>(start.start), reinterpret_cast<std::uint64_t>(start.argument));
    return reinterpret_cast<void*>(result);
}

void* obtain_start() {
    void* const memory = tbbk_obtain_quietly(sizeof(START));
    if (memory == nullptr)
        if (void (*const handler)() = new_handler.load(std::memory_order_acquire))
            handler();
    return memory;
}

} // namespace

void thr_thread_set_next_wrapper_func(THR_THREAD_FUNCTION wrapper, THR_THREAD_FUNCTION* next) {
    *next = outermost.load(std::memory_order_relaxed);
    outermost.store(wrapper, std::memory_order_release);
}

void thr_set_new_handler(void (*handler)()) {
    new_handler.store(handler, std::memory_order_release);
}

int thr_create_thread(THR_CREATE_FUNCTION create, pthread_t* thread, const pthread_attr_t* attributes,
                      void* (*start)(void*), void* argument) noexcept {
    if (start == run_thread)
        return create(thread, attributes, start, argument);
    void* const memory = obtain_start();
    if (memory == nullptr)
        return EAGAIN;
    const int error = create(thread, attributes, run_thread, new (memory) START{start, argument});
    if (error != 0)
        tbbk_give_back_quietly(memory);
    return error;
}
