// What the chunk allocator does when the heap is exhausted.
#pragma once

// Ends the process by exit(1), with one line on standard error that tells how much memory it used. Static
// destructors run, and so the reports are written.
[[noreturn]] void mem_utils_out_of_memory();
