// Words that threads share, without locked instructions while there is one thread.
//
// A locked instruction costs some ten times a plain one, and an event has about ten of them. The C library
// knows whether a second thread can exist: it says so before it makes one. So what is done plainly here is
// done before that thread begins. A signal handler on the one thread finds a word before or behind a change,
// as with a locked one; changes that must not be lost to a handler belong under a guard that turns its events
// away.
//
// A thread made by a bare clone() is not known to the C library. Its own heap would go wrong with it as well.
#pragma once

#include <sys/single_threaded.h>

#include <atomic>

inline bool os_has_one_thread() {
    return __libc_single_threaded != 0;
}

// Adds and gives the sum.
template <class T>
T os_add(std::atomic<T>& word, T delta) {
    if (!os_has_one_thread())
        return static_cast<T>(word.fetch_add(delta, std::memory_order_relaxed) + delta);
    const T sum = static_cast<T>(word.load(std::memory_order_relaxed) + delta);
    word.store(sum, std::memory_order_relaxed);
    return sum;
}

// Replaces the value and gives the old one.
template <class T>
T os_exchange(std::atomic<T>& word, T value, std::memory_order order) {
    if (!os_has_one_thread())
        return word.exchange(value, order);
    const T old = word.load(std::memory_order_relaxed);
    word.store(value, std::memory_order_relaxed);
    return old;
}
