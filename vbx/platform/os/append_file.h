// A file to which threads append whole lines from inside anything that their program does.
//
//     closed --open--> open --stop--> stopped --close--> closed
#pragma once

#include "vbx/platform/os/kept_descriptor.h"

#include <atomic>
#include <cstddef>

class OS_APPEND_FILE {
  public:
    constexpr OS_APPEND_FILE() = default;
    OS_APPEND_FILE(const OS_APPEND_FILE&) = delete;
    OS_APPEND_FILE& operator=(const OS_APPEND_FILE&) = delete;

    // Opens the file for appending, emptied the first time that this object does so. An open file stays as it
    // is. Programs that are executed don't inherit it.
    // Returns 0 or an errno. Any thread.
    int open(const char* path);
    bool is_open() const { return m_file.is_kept(); }

    // One write, without stdio or heap; errors are dropped, errno is kept, no signal is raised, and it is no
    // cancellation point. Does nothing unless the file is open, and when the program has closed it. Any
    // thread.
    void append(const char* text, std::size_t length);

    // From here on appends do nothing; one that is under way may still write.
    void stop() { m_file.stop(); }
    // Closes a stopped file, once no append is under way any more.
    void close() { m_file.close_stopped(); }

  private:
    OS_KEPT_DESCRIPTOR m_file;
    std::atomic<bool> m_was_opened{false};
};
