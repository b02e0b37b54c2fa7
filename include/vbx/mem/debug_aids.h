// Aids for debugging a host's use of its heap: event callbacks of the library's own, each of which costs
// nothing until it is switched on. The configuration keys of the same names switch them on at load;
// docs/debug-aids.md tells of them, and of the double-free check and the breakpoint, which have keys alone.
//
// All functions may be called from any thread, and throw std::bad_alloc when there is no memory for a change
// of the callbacks. The child of a fork starts without aids.
#pragma once

#include <vbx/mem/export.h>

// From now on fills each new block with a byte, but not what calloc and realloc promise of its contents.
// pattern  its low 8 bits are the byte
VBX_MEM_API void mem_set_alloc_pattern(int pattern);

// From now on fills each block with a byte before it goes back to the heap.
// pattern  its low 8 bits are the byte
VBX_MEM_API void mem_set_free_pattern(int pattern);

// Ends both. The patterns are kept, but nothing uses them before one is set again.
VBX_MEM_API void mem_disable_alloc_patterns();

// Writes a line to mem_allocations.log in the current working directory for each allocation and free from now
// on, or stops. The file is emptied when the process first opens it; later calls go on in it, also after the
// shutdown of the tracker has closed it. A file that can't be opened is told of in a line "MEM: ..." on
// standard error.
// on  whether lines are written
VBX_MEM_API void mem_set_print_allocations_callback_enabled(bool on);
