// The library's ways to print.
#pragma once

// A message of the library, without a newline: to the debug slot with the tag "MEM", else "MEM: ", the text
// and a newline to standard output. Gives the slot's answer, else true.
[[gnu::format(printf, 1, 2)]] bool mem_msg_debug(const char* format, ...);

// A plain formatted write to standard output: no tag, no newline added, no host slot, no flush. In a
// preloaded program it goes where the preload library says.
[[gnu::format(printf, 1, 2)]] void mem_print_stdout(const char* format, ...);

// Holds standard output for what is printed as the process ends, when another thread may have it for ever;
// the C library's own exit doesn't wait for that either. Waits for some 20 ms at most. In a preloaded program
// there is nothing to wait for.
class MEM_STDOUT_AT_END {
  public:
    MEM_STDOUT_AT_END();
    ~MEM_STDOUT_AT_END();
    MEM_STDOUT_AT_END(const MEM_STDOUT_AT_END&) = delete;
    MEM_STDOUT_AT_END& operator=(const MEM_STDOUT_AT_END&) = delete;

    // False when nothing can be printed in this scope.
    bool can_be_used() const { return m_can_be_used; }

  private:
    bool m_can_be_used;
};

// One line "MEM: ..." on standard error about something given from outside that can't be used. Uses neither
// the heap nor stdio. Lines of more than about 500 characters are cut.
[[gnu::format(printf, 1, 2)]] void mem_warn(const char* format, ...);
