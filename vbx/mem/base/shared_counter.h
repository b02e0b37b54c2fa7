// Moving the public counters from inside an event, which keeps signal handlers off them: without locked
// instructions while the process has one thread.
#pragma once

#include "vbx/platform/os/one_thread.h"

#include <vbx/mem/stats.h>

using MEM_COUNTER = KTL_RELAXED_ATOMIC<long long>;

// For a process of one thread.
struct MEM_PLAIN_STEPS {
    static long long add(MEM_COUNTER& counter, long long delta) {
        const long long sum = counter.load() + delta;
        counter.store(sum);
        return sum;
    }
    static void raise(MEM_COUNTER& counter, long long floor) {
        if (floor > counter.load())
            counter.store(floor);
    }
};

struct MEM_LOCKED_STEPS {
    static long long add(MEM_COUNTER& counter, long long delta) { return counter.add(delta); }
    static void raise(MEM_COUNTER& counter, long long floor) { counter.raise_to(floor); }
};

// Calls change(STEPS) with the steps of the two that will do. One look for all counters that it moves: the
// compiler would look again behind each.
template <class CHANGE>
[[gnu::always_inline]] inline void mem_move_counters(CHANGE change) {
    if (os_has_one_thread())
        change(MEM_PLAIN_STEPS());
    else
        change(MEM_LOCKED_STEPS());
}
