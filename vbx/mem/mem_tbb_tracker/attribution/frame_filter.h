// Which frames of a stack are passed over: the allocator's, this library's, the standard library's and those
// of the suite's shared layers.
#pragma once

#include <vbx/mem/trackers.h>

// True if a frame with these names is never charged. Looks at function_name, file_name and module_name alone;
// a frame that lacks one of them is always passed over.
bool mem_frame_is_filtered(const MEM_ADDRESS_TRACKER& frame);
