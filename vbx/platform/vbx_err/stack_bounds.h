// Which part of the calling thread's stack may be read.
//
// A rule that is right never leads outside a stack; this is for one that is wrong (broken unwind
// information), so that it costs frames and not the process. What is mapped below a stack without a guard
// page counts as part of it, up to 64 MB.
#pragma once

#include <cstdint>

// Takes note of the main thread, which is the calling one or none: call it once, at start.
void err_note_main_thread();

// The end of the thread's own stack when everything from `stack_pointer` up to there can be read; 0 when
// `stack_pointer` is elsewhere: on a coroutine's stack, on one for signals. Takes no lock and doesn't
// allocate; a few system calls when a thread's stack is deeper than it ever was here. Keeps errno.
std::uintptr_t err_readable_stack_end(std::uintptr_t stack_pointer);
