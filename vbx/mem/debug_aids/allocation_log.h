// mem_allocations.log: a line for every allocation and free of the process.
#pragma once

#include <cstdint>

// The event callback.
void mem_log_handler(void* block, std::uint64_t requested_size, std::uint64_t allocated_size,
                     bool is_allocation);

// From here on no line is written. Takes no lock.
void mem_stop_allocation_log();

// At the shutdown: takes the handler off the table and closes the file, if it is open.
// events_have_ended  waits for the events under way; when it gives false, one of them may still be writing,
//                    and the file stays open
void mem_close_allocation_log(bool (*events_have_ended)());
