// Stands in the place of the process's pthread_create, in each library that is searched for one before the C
// library: libvbx_mem.so in a linked process, libvbx_mem_preload.so in a preloaded one.

#include "vbx/platform/vbx_thr/vbx_thr.h"

#include <dlfcn.h>

#include <atomic>
#include <cerrno>

namespace {

constinit std::atomic<THR_CREATE_FUNCTION> next_create{nullptr};

THR_CREATE_FUNCTION find_next_create() {
    auto* const found = reinterpret_cast<THR_CREATE_FUNCTION>(dlsym(RTLD_NEXT, "pthread_create"));
    next_create.store(found, std::memory_order_release);
    return found;
}

// At the first thread it could be too late: the search takes the loader's lock, which a thread that loads a
// library holds while it waits for that thread.
[[gnu::constructor(101)]] void find_early() {
    find_next_create();
}

} // namespace

extern "C" [[gnu::visibility("default")]] int pthread_create(pthread_t* thread,
                                                             const pthread_attr_t* attributes,
                                                             void* (*start)(void*), void* argument) noexcept {
    THR_CREATE_FUNCTION create = next_create.load(std::memory_order_acquire);
    if (create == nullptr) // a thread of a library that was initialised before this one
        create = find_next_create();
    return create != nullptr ? thr_create_thread(create, thread, attributes, start, argument) : EAGAIN;
}
