// How large the address space of the process is.
#pragma once

#include <cstdint>

// Opens the file that tells it and keeps it, so that later reads take no descriptor: the one that a thread is
// about to get would be another one, and a program may forbid itself to open files. Does nothing when one is
// kept. Any thread; errno stays.
void os_keep_address_space_file();

// In a forked child: what is kept tells of the parent.
void os_forget_address_space_file_after_fork();

// bytes  gets all that is mapped; untouched when the result is not 0
// Returns 0, or the errno that says why not. Lock-free, neither heap nor stdio; usable inside an event and
// when there is no memory left. errno stays.
int os_read_address_space(std::uint64_t& bytes);
