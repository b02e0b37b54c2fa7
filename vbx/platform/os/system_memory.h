// What the kernel says of the machine's memory.
#pragma once

#include <cstdint>

// Bytes.
struct OS_SYSTEM_MEMORY {
    std::uint64_t physical_total = 0;
    std::uint64_t physical_available =
        0;                             // to programs, without swapping: free, or a cache that would give way
    std::uint64_t page_file_total = 0; // physical memory and swap together
    std::uint64_t page_file_available = 0;
};

// Reads all figures from one file.
// memory  untouched when the result is not 0
// Returns 0, or the errno that says why not (ENODATA: the file has no figures). Lock-free, neither heap nor
// stdio; usable inside an event.
int os_read_system_memory(OS_SYSTEM_MEMORY& memory);
