// The text of the reports: lines of tab-separated columns, and the footer that tells how long they took.
//
// Columns in, bytes out. The numbers of a line are formatted here and not by the stream, so neither the
// host's locale nor the flags of its stream show in them. (Cells of timelines and the figures of bins and
// tags are the stream's.)
#pragma once

#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <string_view>

class MEM_REPORT_LINE {
  public:
    explicit MEM_REPORT_LINE(std::ostream& stream) : m_stream(stream) {}

    // Texts stand as they are, without quoting.
    MEM_REPORT_LINE& text(std::string_view text);
    MEM_REPORT_LINE& number(std::int64_t number);
    MEM_REPORT_LINE& unsigned_number(std::uint64_t number);
    // Right-aligned in a field of `width` blanks, which grows when the number is longer.
    MEM_REPORT_LINE& number_in_field(std::int64_t number, std::size_t width);
    // 16 upper-case hexadecimal digits.
    MEM_REPORT_LINE& address(std::uint64_t address);
    // Six significant digits, as short as they go.
    MEM_REPORT_LINE& real(float number);
    MEM_REPORT_LINE& tab() { return text("\t"); }

    // Writes the line and a newline, flushes the stream, and begins an empty line.
    void end();

  private:
    std::ostream& m_stream;
    std::string m_line;
};

// Measures a report from its beginning to its footer.
class MEM_REPORT_TIMER {
  public:
    MEM_REPORT_TIMER();
    // "Time spent dumping:", clicks and seconds; "Error timing this dump." when the clock failed at the
    // start.
    void write_footer(std::ostream& stream) const;
    // The same of a timeline, which gives the clicks as a whole number however many they are. All its outputs
    // tell the same time.
    void write_timeline_footer(std::initializer_list<std::ostream*> streams) const;

  private:
    using WRITE_CLICKS = void (*)(MEM_REPORT_LINE& line, std::int32_t clicks);
    void write(std::initializer_list<std::ostream*> streams, WRITE_CLICKS write_clicks) const;

    std::int64_t m_start;
};
