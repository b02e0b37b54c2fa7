// One conversion of a format: what it asks for, and what it has made of its argument.
#pragma once

#include <climits>
#include <string_view>

struct FORMAT_FIELD {
    static constexpr int NO_PRECISION = -1;

    bool has_blank = false;
    bool has_plus = false;
    bool is_left = false;
    bool is_zero_padded = false;
    bool is_alternate = false;
    bool is_short = false;
    bool is_long = false;
    bool is_64 = false;
    bool is_wide = false;
    int width = 0;
    int precision = NO_PRECISION;

    int precision_or(int missing) const { return precision < 0 ? missing : precision; }
};

// A number with one digit more. One that no int can hold stays at the largest; a precision that a negative
// argument has taken away stays away.
constexpr int format_append_digit(int number, char digit) {
    if (number < 0)
        return number;
    return number > (INT_MAX - 9) / 10 ? INT_MAX : number * 10 + (digit - '0');
}

struct FORMAT_ITEM {
    std::string_view prefix = {};
    std::string_view text = {}; // one of the two
    std::u16string_view wide_text = {};
};
