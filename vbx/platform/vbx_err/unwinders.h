// The two ways to walk a stack that stand behind ERR_UNWINDER.
#pragma once

#include "vbx/platform/vbx_err/vbx_err.h"

// Where captured frames go, and which are wanted.
struct ERR_CAPTURE {
    std::uint64_t* frames = nullptr;
    std::int32_t max_frames = 0;
    std::int32_t skip_frames = 0;
    std::int32_t count = 0;
    // Frames whose callee's CFA lies below belong to the allocator and to the tracker.
    std::uintptr_t floor = 0;
};

// libgcc's: slow, follows everything there is, and decides what is right. Null when the process has no
// libgcc. The first call takes the loader's lock.
ERR_UNWINDER* err_libgcc_unwinder();

// The same, for a capture that began elsewhere. Adds no frame where libgcc itself is the allocator's caller.
// Call it only when err_libgcc_unwinder has given one.
void err_capture_by_libgcc(ERR_CAPTURE& capture);

// How many captures of the process the fast unwinder has left to libgcc so far.
std::uint64_t err_count_of_libgcc_captures();
