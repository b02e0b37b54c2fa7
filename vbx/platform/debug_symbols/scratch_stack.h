// A stack of the service's own.
//
// Queries come from inside malloc, on whatever stack the host's code runs: that of a thread with 16 KB, of a
// fibre, of a signal handler. The demangler alone takes 64 bytes a character and then recurses with the depth
// of the name; beyond a small stack it would step over the guard page into memory of the host's.
//
//   thread's stack            scratch stack
//   | ... malloc, query |     | guard page | ... demangler, libdw | work |
//   |   signals blocked | --> |            <--------- grows              |
//
// Signals wait meanwhile: a handler may look where the thread's stack stands, a garbage collector's for one,
// and scan from there to the end of the stack that it knows. Those that report a fault go through.
#pragma once

#include <cstddef>

constexpr std::size_t SYM_SCRATCH_STACK_BYTES = 4u << 20; // only what is touched takes memory

// Runs work(argument) on the scratch stack, which is mapped at the first call and kept; gives back what the
// work throws. Throws std::bad_alloc when it can't be mapped. Neither thread-safe nor reentrant: the lock
// around the queries guards it. The caller has switched cancellation off, since a thread can't be unwound
// from there to its end.
void sym_run_on_scratch_stack(void (*work)(void*), void* argument);

// The same for a callable; gives its result.
template <class WORK>
auto sym_with_room(WORK work) {
    struct CALL {
        WORK& work;
        decltype(work()) result;
    };
    CALL call{work, {}};
    sym_run_on_scratch_stack(
        [](void* opaque) {
            auto& state = *static_cast<CALL*>(opaque);
            state.result = state.work();
        },
        &call);
    return call.result;
}
