// The end of a thread: keeps tbbmalloc's own clean-up behind the gate and gives the thread's slot back.
//
// tbbmalloc returns a dying thread's caches in the destructor of a thread-specific key, under its global
// locks and outside any entry point of ours. A fork at that moment would copy those locks. Key destructors
// run in the order of the key numbers, so two keys of ours are created around tbbmalloc's: the destructor of
// the first enters, the one of the second leaves.
#pragma once

struct TBBK_SLOT;

// Creates the keys; has to come before the process's first use of tbbmalloc. Once, from one thread.
void tbbk_thread_end_start() noexcept;

// Makes sure that the destructors run for the calling thread. Each pass over a thread's keys takes the
// arming with it; a thread that allocates after that acquires a slot anew and is armed again.
void tbbk_thread_end_arm(TBBK_SLOT& slot) noexcept;

// Keeps tbbmalloc from cleaning up behind the calling thread, which would take its locks: at the thread's end
// and at that of the process.
void tbbk_thread_end_forget_heap() noexcept;
