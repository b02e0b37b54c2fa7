// Records the events of the calling thread while it lives, without allocating.
#pragma once

#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <array>

class RECORDED_EVENTS {
  public:
    struct EVENT {
        void* block;
        std::uint64_t requested;
        std::uint64_t allocated;
        bool is_allocation;
    };

    // `then` is what the callback does besides recording.
    explicit RECORDED_EVENTS(void (*then)(const EVENT& event) = [](const EVENT&) {}) : action(then) {
        current = this;
        tbbk_set_mem_tracker_callback(record);
    }
    ~RECORDED_EVENTS() {
        tbbk_set_mem_tracker_callback(nullptr);
        current = nullptr;
    }

    std::array<EVENT, 16> events = {};
    std::size_t count = 0;

  private:
    static void record(void* block, std::uint64_t requested, std::uint64_t allocated, bool is_allocation) {
        if (current == nullptr || current->count == current->events.size())
            return;
        current->events[current->count] = {block, requested, allocated, is_allocation};
        current->action(current->events[current->count++]);
    }

    static inline thread_local RECORDED_EVENTS* current = nullptr;
    void (*const action)(const EVENT& event);
};
