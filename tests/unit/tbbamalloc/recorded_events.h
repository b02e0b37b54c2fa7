// Records the events of the calling thread while it lives, without allocating.
#pragma once

#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <array>
#include <cerrno>
#include <cstring>

class RECORDED_EVENTS {
  public:
    struct EVENT {
        void* block;
        std::uint64_t requested;
        std::uint64_t allocated;
        bool is_allocation;
    };

    // What the callback does besides recording.
    using ACTION = void (*)(const EVENT& event);

    explicit RECORDED_EVENTS(ACTION then = nullptr) : action(then) {
        current = this;
        tbbk_set_mem_tracker_callback(record);
    }
    ~RECORDED_EVENTS() {
        tbbk_set_mem_tracker_callback(nullptr);
        current = nullptr;
    }
    RECORDED_EVENTS(const RECORDED_EVENTS&) = delete;
    RECORDED_EVENTS& operator=(const RECORDED_EVENTS&) = delete;

    // Fills the whole block, as a debugging aid would, and spoils errno.
    static void scribble(const EVENT& event) {
        std::memset(event.block, 0xAA, event.allocated);
        errno = EIO;
    }

    std::array<EVENT, 16> events = {};
    std::size_t count = 0;

  private:
    static void record(void* block, std::uint64_t requested, std::uint64_t allocated, bool is_allocation) {
        if (current == nullptr || current->count == current->events.size())
            return;
        const EVENT event = {block, requested, allocated, is_allocation};
        current->events[current->count++] = event;
        if (current->action != nullptr)
            current->action(event);
    }

    static inline thread_local RECORDED_EVENTS* current = nullptr;
    const ACTION action;
};
