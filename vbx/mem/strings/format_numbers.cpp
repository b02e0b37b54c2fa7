#include "vbx/mem/strings/format_numbers.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace {
constexpr int LARGEST_PRECISION = 500;
// A double has no more digits behind its point.
constexpr int LARGEST_FRACTION = 1074;
} // namespace

std::string_view format_integer(FORMAT_NUMBER_BUFFER& buffer, std::uint64_t value, FORMAT_RADIX radix,
                                int precision) {
    char* const end = buffer.data() + buffer.size();
    const char* const least = end - std::min(precision, LARGEST_PRECISION);
    char* begin = end;
    for (; value != 0 || begin > least; value /= radix.base)
        *--begin = radix.digits[value % radix.base];
    return {begin, end};
}

std::string_view format_decimal(FORMAT_NUMBER_BUFFER& buffer, double magnitude, int precision,
                                std::size_t longest) {
    char* const begin = buffer.data();
    char* end = std::to_chars(begin, begin + buffer.size(), magnitude, std::chars_format::fixed,
                              std::min(precision, LARGEST_FRACTION))
                    .ptr;
    if (precision == 0 && std::isfinite(magnitude))
        *end++ = '.';
    return std::string_view(begin, end).substr(0, longest);
}
