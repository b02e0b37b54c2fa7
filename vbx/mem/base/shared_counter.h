// Moving the public counters from inside an event, which keeps signal handlers off them.
#pragma once

#include "vbx/platform/os/one_thread.h"

#include <vbx/mem/stats.h>

// Adds and gives the sum, without a locked instruction while the process has one thread.
inline long long mem_add(KTL_RELAXED_ATOMIC<long long>& counter, long long delta) {
    if (!os_has_one_thread())
        return counter.add(delta);
    const long long sum = counter.load() + delta;
    counter.store(sum);
    return sum;
}
