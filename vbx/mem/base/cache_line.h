// What every event of every thread writes lies on cache lines of its own: what they only read would be taken
// from the other threads with it.
#pragma once

#include <atomic>
#include <cstddef>

constexpr std::size_t MEM_CACHE_LINE = 64;

template <class T>
struct alignas(MEM_CACHE_LINE) MEM_ATOMIC_ON_OWN_LINE : std::atomic<T> {
    using std::atomic<T>::atomic;
};
