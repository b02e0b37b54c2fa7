// The attributed stretch of an event: from the stack to the site, the live-block map and the module record.
//
// The thread is inside the gate as a mouse for all of it, so the site that it holds a pointer to stays. When
// the tracker itself runs out of memory the block goes unrecorded: it is charged to the catch-all record,
// where its free, as that of an unknown block, is taken from again.
#pragma once

#include <cstdint>

// mask            the event's copy
// requested_size  bytes asked for, not 0
// size            bytes of the slot
void mem_attribute_new_block(std::uint32_t mask, void* block, std::uint64_t requested_size,
                             std::uint64_t size) noexcept;
void mem_credit_freed_block(std::uint32_t mask, void* block, std::uint64_t size) noexcept;
