// The attributed stretch of an event: from the stack to the site, the live-block map and the module record.
//
// The thread is inside the gate as a mouse for all of it, so the site that it holds a pointer to stays. When
// the tracker itself runs out of memory the block goes unrecorded: it is charged to the catch-all record,
// where its free, as that of an unknown block, is taken from again.
#pragma once

#include <cstdint>

struct MEM_EVENT {
    std::uint32_t mask; // the event's copy
    bool is_sample;     // whether it samples the timelines
    void* block;
    std::uint64_t requested_size; // bytes asked for, not 0; unused in a free
    std::uint64_t size;           // bytes of the slot
};

void mem_attribute_new_block(const MEM_EVENT& event) noexcept;
void mem_credit_freed_block(const MEM_EVENT& event) noexcept;
