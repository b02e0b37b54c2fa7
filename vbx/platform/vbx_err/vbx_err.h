// Broken invariants, and the stack of the calling thread.
#pragma once

#include <vbx/err.h>

#include <cstdint>

// Reports a broken internal invariant on standard error and ends the process by abort().
// condition  text of the condition that failed
// subsystem  word of the subsystem, "MEM"
// file, line source position
// Uses neither the heap nor stdio, so it may be called anywhere.
[[noreturn]] void err_report_internal_error(const char* condition, const char* subsystem, const char* file,
                                            int line);

// Asked of a frame by its return address: 0 means "go on to the next frame". Locks and allocates nothing, and
// gives the same answer when it is asked again.
using ERR_FRAME_QUESTION = std::uint64_t (*)(std::uint64_t address);

// The stack is not one whose frames can be asked.
constexpr std::uint64_t ERR_NO_ANSWER = ~std::uint64_t{0};

// The innermost address that capture_stack would write inside the allocator's hook, without any walk: where
// the call of malloc (or its like) under way returns to. 0 when none is. Lock-free, on any thread and any
// stack.
std::uint64_t err_caller_of_allocator();

class ERR_UNWINDER {
  public:
    // The unwinder of the process, not owned by the caller; null when the process has none. The first call
    // prepares it and takes the loader's lock: make it at start, never inside an event.
    static ERR_UNWINDER* get_default_unwinder();

    // Name of the method, for messages.
    virtual const char* describe() const = 0;

    // Writes the return addresses of the calling thread's stack, innermost first.
    // frames       room for max_frames addresses
    // max_frames   largest number of addresses to write
    // skip_frames  innermost addresses to pass over
    // reserved     0
    // Returns how many were written. Inside the allocator's hook the innermost address is the one in the
    // caller of malloc (or its like); elsewhere it is the one in the caller of capture_stack. Safe on any
    // thread with no lock held; doesn't allocate.
    virtual std::int32_t capture_stack(std::uint64_t* frames, std::int32_t max_frames,
                                       std::int32_t skip_frames, std::uint64_t reserved) = 0;

    // Asks the frames that capture_stack would write, innermost first, and walks no further than to the first
    // one that answers: a walk costs by the frame.
    // max_frames  largest number of frames to ask
    // Returns the first answer that is not 0; 0 when no frame gave one; ERR_NO_ANSWER when only capture_stack
    // can tell. Where and how it may be called is the same.
    virtual std::uint64_t ask_frames(ERR_FRAME_QUESTION question, std::int32_t max_frames) {
        static_cast<void>(question);
        static_cast<void>(max_frames);
        return ERR_NO_ANSWER;
    }

  protected:
    ~ERR_UNWINDER() = default;
};
