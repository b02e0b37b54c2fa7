// Byte patterns in blocks that nobody has written yet, and in those that nobody may read any more.
#pragma once

#include <vbx/mem/debug_aids.h>

#include <cstdint>

// The event callback. Writes into the block of the event and nowhere else.
void mem_fill_handler(void* block, std::uint64_t requested_size, std::uint64_t allocated_size,
                      bool is_allocation);
