// The two lines that name the allocators, behind the reports at process end, when "debug_msg" is on.
#pragma once

// Reads the key, once in the life of the process. The lines come with the destruction of a static object that
// is made here; being made inside the construction of the library's own initialiser, it goes after that.
void mem_keep_allocator_information();

// What the key said then. In a forked child the lines of the process end are the parent's to print: off.
bool mem_debug_messages_are_on();
void mem_silence_debug_lines_after_fork();

// Prints the lines if their static object has gone before the reports could be written. That is so in a
// preloaded program, where the last initialiser outlives all static objects.
void mem_print_kept_allocator_information();
