// Threads of the process, and looking up functions of other modules.
#pragma once

#include "vbx/platform/os/loaded_library.h"

#include <pthread.h>

#include <cstdint>

// A function around the body of a thread, or the body itself: two values handed on from wrapper to wrapper,
// and the thread's result.
using THR_THREAD_FUNCTION = std::uint64_t (*)(std::uint64_t start, std::uint64_t argument);

// Puts a wrapper around the body of each thread that starts from now on, outside of those that are there.
// wrapper  runs on the new thread and calls *next with its own two arguments. The thread may leave through
//          it by a forced unwind (pthread_exit, cancellation): it must let that through
// next     gets what the wrapper has to call, before the first thread can call the wrapper
// One call at a time.
void thr_thread_set_next_wrapper_func(THR_THREAD_FUNCTION wrapper, THR_THREAD_FUNCTION* next);

// What is called when there is no memory to start a thread with; null, as at first, lets the start fail with
// EAGAIN. It also fails so when the handler comes back.
void thr_set_new_handler(void (*handler)());

using THR_CREATE_FUNCTION = int (*)(pthread_t* thread, const pthread_attr_t* attributes,
                                    void* (*start)(void*), void* argument);

extern "C" {
// pthread_create with the wrappers around `start`; for those who stand in the place of pthread_create.
// create  the function to start the thread with, which may be such a one again: a thread is wrapped once
// Arguments, result and errors are those of pthread_create. Makes no allocation event.
[[gnu::visibility("default")]] int thr_create_thread(THR_CREATE_FUNCTION create, pthread_t* thread,
                                                     const pthread_attr_t* attributes, void* (*start)(void*),
                                                     void* argument) noexcept;
}

// Address of a function by its undecorated name in a module that is in the process, or null. A null module
// gives null.
void* thr_drl_find_function(const OS_LIBRARY* module, const char* function_name);
