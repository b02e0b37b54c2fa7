#include "vbx/mem/mem_tbb_tracker/reports/report_text.h"

#include "vbx/platform/os/clock.h"

#include <charconv>
#include <ostream>

MEM_REPORT_LINE& MEM_REPORT_LINE::text(std::string_view text) {
    m_line += text;
    return *this;
}

MEM_REPORT_LINE& MEM_REPORT_LINE::number(std::int64_t number) {
    return number_in_field(number, 0);
}

MEM_REPORT_LINE& MEM_REPORT_LINE::unsigned_number(std::uint64_t number) {
    char digits[24];
    const char* const end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    m_line.append(digits, static_cast<std::size_t>(end - digits));
    return *this;
}

MEM_REPORT_LINE& MEM_REPORT_LINE::number_in_field(std::int64_t number, std::size_t width) {
    char digits[24];
    const char* const end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    const auto length = static_cast<std::size_t>(end - digits);
    if (length < width)
        m_line.append(width - length, ' ');
    m_line.append(digits, length);
    return *this;
}

MEM_REPORT_LINE& MEM_REPORT_LINE::address(std::uint64_t address) {
    for (int shift = 60; shift >= 0; shift -= 4)
        m_line += "0123456789ABCDEF"[(address >> shift) & 0xF];
    return *this;
}

MEM_REPORT_LINE& MEM_REPORT_LINE::real(float number) {
    char digits[32];
    const char* const end =
        std::to_chars(digits, digits + sizeof digits, number, std::chars_format::general, 6).ptr;
    m_line.append(digits, static_cast<std::size_t>(end - digits));
    return *this;
}

void MEM_REPORT_LINE::end() {
    m_line += '\n';
    m_stream.write(m_line.data(), static_cast<std::streamsize>(m_line.size()));
    m_stream.flush();
    m_line.clear();
}

MEM_REPORT_TIMER::MEM_REPORT_TIMER() : m_start(os_clock()) {}

void MEM_REPORT_TIMER::write_footer(std::ostream& stream) const {
    write({&stream},
          [](MEM_REPORT_LINE& line, std::int32_t clicks) { line.real(static_cast<float>(clicks)); });
}

void MEM_REPORT_TIMER::write_timeline_footer(std::initializer_list<std::ostream*> streams) const {
    write(streams, [](MEM_REPORT_LINE& line, std::int32_t clicks) { line.number(clicks); });
}

void MEM_REPORT_TIMER::write(std::initializer_list<std::ostream*> streams, WRITE_CLICKS write_clicks) const {
    if (m_start == -1) {
        for (std::ostream* stream : streams)
            MEM_REPORT_LINE(*stream).text("Error timing this dump.").end();
        return;
    }
    const auto clicks = static_cast<std::int32_t>(os_clock() - m_start);
    for (std::ostream* stream : streams) {
        MEM_REPORT_LINE line(*stream);
        line.text("Time spent dumping:\t");
        write_clicks(line, clicks);
        line.text(" clicks.\t").real(static_cast<float>(clicks) / static_cast<float>(OS_CLICKS_PER_SECOND));
        line.text(" seconds.").end();
    }
}
