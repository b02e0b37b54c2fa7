// Event callbacks: functions called on every allocation and free of the process, on the thread that makes it.
//
// A callback runs inside malloc and free. It sees the library's own heap use as well, and may be called while
// the library holds locks: it must not call the library's queries and reports, must not throw, and guards
// itself against the events that its own allocations make. The child of a fork has no callbacks.
#pragma once

#include <vbx/mem/export.h>

#include <cstdint>

// block           start of the block; still the caller's during a free event
// requested_size  bytes asked for; 0 in a free event and where the allocator does not say
// allocated_size  bytes of the slot
// is_allocation   true behind an allocation, false before a free
using MEM_EVENT_CALLBACK = void (*)(void* block, std::uint64_t requested_size, std::uint64_t allocated_size,
                                    bool is_allocation);

// Adds a callback behind those already in the table; one that is already there is not added twice. The table
// holds 16 callbacks, of which the library uses at most 5; one more ends the process with an internal error.
// callback  must not be null, and its code has to stay in the process
// Throws std::bad_alloc, with the table as it was.
VBX_MEM_API void mem_add_callback_function(MEM_EVENT_CALLBACK callback);

// Removes a callback; the order of the others stays. Events already under way on other threads may still call
// it.
// callback  one that is not in the table is passed over
// Throws std::bad_alloc, with the table as it was.
VBX_MEM_API void mem_remove_callback_function(MEM_EVENT_CALLBACK callback);
