// A preload library beside the shim: at every allocation of a program it captures the stack by remembered
// rules and by libgcc, and ends the process where they differ.
#include "vbx/platform/tbbamalloc/tbbamalloc.h"
#include "vbx/platform/vbx_err/unwinders.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>

static constinit std::atomic<unsigned long> captures = 0;
static constinit __thread bool is_capturing = false;

// Answers at the frame that a capture has found behind so many others; the walk may begin anew.
static constinit __thread std::uint64_t wanted_frame = 0;
static std::uint64_t is_wanted(std::uint64_t address) {
    return address == wanted_frame ? address : 0;
}

static void compare_captures(void*, std::uint64_t, std::uint64_t, bool is_allocation) {
    if (!is_allocation || is_capturing)
        return;
    is_capturing = true;
    std::array<std::uint64_t, 61> rules{}, libgcc{};
    ERR_UNWINDER::get_default_unwinder()->capture_stack(rules.data(), 61, 0, 0);
    const std::int32_t count = err_libgcc_unwinder()->capture_stack(libgcc.data(), 61, 0, 0);
    captures.fetch_add(1, std::memory_order_relaxed);
    // Out of libgcc itself only the rules lead: libgcc must not be entered a second time.
    if (count != 0 && rules != libgcc) {
        for (std::size_t index = 0; index < rules.size(); ++index)
            dprintf(2, "%16lx by rules, %16lx by libgcc\n", rules[index], libgcc[index]);
        std::abort();
    }
    ERR_UNWINDER& unwinder = *ERR_UNWINDER::get_default_unwinder();
    for (const std::size_t index : {0U, 2U, 60U}) {
        wanted_frame = rules[index];
        const std::uint64_t answer = unwinder.ask_frames(is_wanted, 61);
        if (answer != wanted_frame && answer != ERR_NO_ANSWER) {
            dprintf(2, "%16lx captured, %16lx asked for\n", wanted_frame, answer);
            std::abort();
        }
    }
    is_capturing = false;
}

[[gnu::destructor]] static void end() {
    tbbk_set_mem_tracker_callback(nullptr);
    dprintf(2, "%lu captures, %lu by libgcc\n", captures.load(), err_count_of_libgcc_captures());
}

[[gnu::constructor]] static void begin() {
    ERR_UNWINDER::get_default_unwinder();
    tbbk_set_mem_tracker_callback(compare_captures);
}
