// Writing in a process that didn't ask for it.
#pragma once

#include <csignal>
#include <cstddef>

// Keeps writes of the calling thread from ending the process for a scope: one to a pipe that nobody reads
// raises SIGPIPE, one past the size that a file may have SIGXFSZ. They only fail then.
class OS_NO_WRITE_SIGNALS {
  public:
    OS_NO_WRITE_SIGNALS();
    ~OS_NO_WRITE_SIGNALS();
    OS_NO_WRITE_SIGNALS(const OS_NO_WRITE_SIGNALS&) = delete;
    OS_NO_WRITE_SIGNALS& operator=(const OS_NO_WRITE_SIGNALS&) = delete;

  private:
    sigset_t m_ours; // those that were not pending before
    sigset_t m_saved_mask;
};

// Writes a whole text to a descriptor, without stdio, whatever it takes; errors are dropped, errno is kept.
void os_write(int descriptor, const char* text, std::size_t length);
