// What the kernel says of this process's memory.
#pragma once

#include <cstdint>

struct OS_PROCESS_MEMORY {
    std::uint32_t page_faults = 0;      // a count, minor and major, cut to 32 bits
    std::uint64_t working_set = 0;      // bytes, as all that follow: resident
    std::uint64_t peak_working_set = 0; // never below working_set
    std::uint64_t committed = 0;        // private and writable, touched or not
    std::uint64_t peak_committed = 0;   // the kernel keeps none: the present figure, a floor for it
    std::uint64_t virtual_size = 0;     // all that is mapped
};

// Whether the figures can be had at all: 0, or the errno that says why not. Needs no descriptor, so a process
// that is out of them for a moment isn't taken for one without /proc.
int os_find_process_memory();

// Reads all figures, those of bytes from one file and so of one moment.
// memory  untouched when the result is not 0
// Returns 0, or the errno that says why not (ENODATA: the file has no figures). Lock-free, neither heap nor
// stdio; usable inside an event, before any constructor has run and when there is no memory left.
int os_read_process_memory(OS_PROCESS_MEMORY& memory);
