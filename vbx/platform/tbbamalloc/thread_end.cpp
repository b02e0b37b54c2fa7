#include "vbx/platform/tbbamalloc/thread_end.h"

#include "vbx/platform/tbbamalloc/gate.h"
#include "vbx/platform/tbbamalloc/heap_functions.h"
#include "vbx/platform/tbbamalloc/thread_slot.h"

#include <pthread.h>

namespace {

constinit pthread_key_t key_before = 0;
constinit pthread_key_t key_behind = 0;
constinit std::atomic<bool> are_keys_there = false;

void enter_clean_up(void* value) {
    tbbk_enter(*static_cast<TBBK_SLOT*>(value));
}

void leave_clean_up(void* value) {
    tbbk_slot_leave(*static_cast<TBBK_SLOT*>(value));
}

} // namespace

void tbbk_thread_end_start() noexcept {
    // Numbers are given out from the lowest free one on, so this early the three are neighbours.
    if (pthread_key_create(&key_before, enter_clean_up) != 0)
        return;
    // The first block makes tbbmalloc create its key.
    scalable_free(scalable_malloc(1));
    if (pthread_key_create(&key_behind, leave_clean_up) != 0) {
        pthread_key_delete(key_before);
        return;
    }
    are_keys_there.store(true, std::memory_order_release);
}

void tbbk_thread_end_arm(TBBK_SLOT& slot) noexcept {
    if (!are_keys_there.load(std::memory_order_acquire))
        return;
    // Behind first: a thread must never enter without being sure to leave.
    if (pthread_setspecific(key_behind, &slot) == 0)
        pthread_setspecific(key_before, &slot);
}

void tbbk_thread_end_forget_heap() noexcept {
    if (!are_keys_there.load(std::memory_order_acquire))
        return;
    // Only between neighbours is it sure that the key is tbbmalloc's and not the host's.
    if (key_behind == key_before + 2)
        pthread_setspecific(key_before + 1, nullptr);
}
