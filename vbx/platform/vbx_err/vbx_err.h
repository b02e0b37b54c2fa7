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

  protected:
    ~ERR_UNWINDER() = default;
};
