#include "vbx/platform/os/kernel_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

OS_KERNEL_FILE::OS_KERNEL_FILE(const char* path)
    : m_callers_errno(errno), m_descriptor(open(path, O_RDONLY | O_CLOEXEC)) {
    if (m_descriptor < 0)
        m_error = errno;
}

OS_KERNEL_FILE::~OS_KERNEL_FILE() {
    if (m_descriptor >= 0)
        close(m_descriptor);
    errno = m_callers_errno;
}

std::size_t OS_KERNEL_FILE::find_newline() const {
    return std::string_view(m_buffer + m_begin, m_end - m_begin).find('\n');
}

// False at the end of the file, after an error, and when the buffer is full.
bool OS_KERNEL_FILE::read_more() {
    if (m_error != 0)
        return false;
    std::memmove(m_buffer, m_buffer + m_begin, m_end - m_begin);
    m_end -= m_begin;
    m_begin = 0;
    ssize_t length;
    do {
        length = read(m_descriptor, m_buffer + m_end, CAPACITY - m_end);
    } while (length < 0 && errno == EINTR);
    if (length < 0) {
        m_error = errno;
        return false;
    }
    m_end += static_cast<std::size_t>(length);
    return length > 0;
}

bool OS_KERNEL_FILE::next_line(std::string_view& line) {
    for (;;) {
        const std::size_t newline = find_newline();
        const bool is_whole = newline != std::string_view::npos;
        if (!is_whole && m_end - m_begin < CAPACITY && read_more())
            continue;
        if (m_error != 0 || m_begin == m_end)
            return false;
        const std::size_t length = is_whole ? newline : m_end - m_begin;
        line = std::string_view(m_buffer + m_begin, length);
        m_begin += length + (is_whole ? 1 : 0);
        const bool is_rest_of_cut_line = m_is_inside_cut_line;
        m_is_inside_cut_line = !is_whole;
        if (!is_rest_of_cut_line)
            return true;
    }
}

bool os_parse_kilobytes(std::string_view line, std::string_view name, std::uint64_t& bytes) {
    if (!line.starts_with(name))
        return false;
    line.remove_prefix(name.size());
    const std::size_t digits = line.find_first_not_of(" \t");
    if (digits == std::string_view::npos)
        return false;
    std::uint64_t kilobytes;
    if (std::from_chars(line.data() + digits, line.data() + line.size(), kilobytes).ec != std::errc{})
        return false;
    bytes = kilobytes * 1024;
    return true;
}
