// The library's ways to print.
#pragma once

// A message of the library, without a newline: to the debug slot with the tag "MEM", else "MEM: ", the text
// and a newline to standard output. Gives the slot's answer, else true.
[[gnu::format(printf, 1, 2)]] bool mem_msg_debug(const char* format, ...);

// A plain formatted write to standard output: no tag, no newline added, no host slot, no flush. In a
// preloaded program it goes where the preload library says.
[[gnu::format(printf, 1, 2)]] void mem_print_stdout(const char* format, ...);

// One line "MEM: ..." on standard error about something given from outside that can't be used. Uses neither
// the heap nor stdio. Lines of more than about 500 characters are cut.
[[gnu::format(printf, 1, 2)]] void mem_warn(const char* format, ...);
