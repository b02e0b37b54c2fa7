// Numbers as text, without a sign.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

// Room for the largest double with all its digits: 309 in front of the point and 1074 behind it.
using FORMAT_NUMBER_BUFFER = std::array<char, 1400>;

struct FORMAT_RADIX {
    unsigned base;
    const char* digits;
};

// precision  least number of digits. 0 of precision 0 has none; more than 500 are cut to 500.
// Returns the text, in the buffer, with room for one more character in front of it.
std::string_view format_integer(FORMAT_NUMBER_BUFFER& buffer, std::uint64_t value, FORMAT_RADIX radix,
                                int precision);

// Plain decimal notation, with a point also behind a whole number; "inf" and "nan". Rounds as std::to_chars,
// the exact value, to the nearest, a tie to the even digit.
// magnitude  0 or more, or not a number
// precision  digits behind the point, 0 or more
// longest    where the text is cut off
std::string_view format_decimal(FORMAT_NUMBER_BUFFER& buffer, double magnitude, int precision,
                                std::size_t longest);
