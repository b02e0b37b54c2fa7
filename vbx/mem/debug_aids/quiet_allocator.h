// The ordinary heap, without events: for what is allocated with a lock of the check held. An event there
// would run the host's callbacks, which may wait for a thread that wants this very lock, and may allocate a
// block that the check then doesn't see and takes for freed when its owner frees it.
#pragma once

#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <cstddef>
#include <new>

template <class T>
struct MEM_QUIET_ALLOCATOR {
    using value_type = T;

    MEM_QUIET_ALLOCATOR() = default;
    template <class OTHER>
    MEM_QUIET_ALLOCATOR(const MEM_QUIET_ALLOCATOR<OTHER>&) {}

    T* allocate(std::size_t count) {
        if (void* const memory = tbbk_obtain_quietly(count * sizeof(T)))
            return static_cast<T*>(memory);
        throw std::bad_alloc();
    }
    void deallocate(T* memory, std::size_t) noexcept { tbbk_give_back_quietly(memory); }

    template <class OTHER>
    bool operator==(const MEM_QUIET_ALLOCATOR<OTHER>&) const {
        return true;
    }
};
