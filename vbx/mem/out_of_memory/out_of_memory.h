// What the library itself does about exhausted memory.
#pragma once

#include "vbx/mem/base/library_lock.h"

#include <vbx/mem/out_of_memory.h>

#include <cstdint>

// Whether mem_out_of_memory has begun to end the process. Never back to false.
bool mem_memory_is_exhausted();

// In a forked child: a thread that it doesn't have takes no last steps and never calls exit(). That memory is
// exhausted stays true.
void mem_leave_last_steps_to_the_parent();

// Makes the reserves of the calling thread, unless the process is at its end. Without memory for them a
// linked process ends here; a preloaded one lives on without.
void mem_provide_reserves() MEM_EXCLUDES(mem_library_lock);

// Around the body of each thread that pthread_create starts: reserves, and in a linked process, or once
// somebody has asked for a handler, the set-up of mem_set_out_of_memory_handler. start and argument are
// handed on unchanged to what mem_install_thread_wrapper found; gives its result.
std::uint64_t mem_thread_wrapper(std::uint64_t start, std::uint64_t argument);

// Once, at start.
void mem_install_thread_wrapper();
