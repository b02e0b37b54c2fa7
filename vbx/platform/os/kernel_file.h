// A text file of the kernel's, read line by line: /proc/meminfo and its like.
//
// Meant for event threads: the buffer is part of the object, so neither the heap nor stdio is used; the
// descriptor lives as long as the object and is not handed on by exec; the calling thread can't be cancelled
// meanwhile, and errno is what it was before. No lock: an object belongs to one thread.
#pragma once

#include "vbx/platform/os/thread.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

class OS_KERNEL_FILE {
  public:
    explicit OS_KERNEL_FILE(const char* path);
    ~OS_KERNEL_FILE();
    OS_KERNEL_FILE(const OS_KERNEL_FILE&) = delete;
    OS_KERNEL_FILE& operator=(const OS_KERNEL_FILE&) = delete;

    // The next line, without its newline, valid until the next call; of a line that is longer than the buffer
    // only the beginning. False behind the last line and after an error.
    bool next_line(std::string_view& line);

    // The errno of the open or the read that failed, 0 when all went well.
    int error() const { return m_error; }

  private:
    bool read_more();
    std::size_t find_newline() const;

    // Longer than any line that holds a figure. Lists in between (groups, processors) have no limit.
    static constexpr std::size_t CAPACITY = 1024;

    int m_callers_errno;
    OS_NO_CANCELLATION m_no_cancellation;
    int m_descriptor;
    int m_error = 0;
    bool m_is_inside_cut_line = false;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    char m_buffer[CAPACITY];
};

// Reads a line like "VmRSS:      1692 kB".
// name   what stands in front of the number, with the colon
// bytes  gets the number times 1024; untouched when the result is false
// Returns false when the line is another one.
bool os_parse_kilobytes(std::string_view line, std::string_view name, std::uint64_t& bytes);
