#include <vbx/mem/strings.h>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace {

// Texts up to this length are formatted on the stack.
constexpr std::size_t SHORT_TEXT = 8192;

// A pass of the formatter reads a copy of the list, so that there can be another pass.
[[gnu::format(printf, 3, 0)]] int format_once(char* buffer, std::size_t size, const char* format,
                                              std::va_list args) {
    std::va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(buffer, size, format, copy);
    va_end(copy);
    return length;
}

void shift_case(std::string& text, char first, char last, int distance) {
    for (char& character : text)
        if (first <= character && character <= last)
            character = static_cast<char>(character + distance);
}

} // namespace

void stl_vsprintf(std::string* out, const char* format, std::va_list args) {
    if (out == nullptr || format == nullptr)
        return;
    char buffer[SHORT_TEXT + 1];
    const int length = format_once(buffer, sizeof buffer, format, args);
    if (length < 0)
        return;
    const auto size = static_cast<std::size_t>(length);
    if (size <= SHORT_TEXT) {
        out->assign(buffer, size);
        return;
    }
    // Not into `out` itself: it may be one of the arguments, and it keeps its text if the second pass fails.
    std::string text(size, '\0');
    const int second_length = format_once(text.data(), size + 1, format, args);
    if (second_length < 0)
        return;
    // Another thread may have changed what an argument points to.
    text.resize(std::min(size, static_cast<std::size_t>(second_length)));
    *out = std::move(text);
}

void stl_sprintf(std::string* out, const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    stl_vsprintf(out, format, args);
    va_end(args);
}

std::string& stl_tolower(std::string& text) {
    shift_case(text, 'A', 'Z', 'a' - 'A');
    return text;
}

std::string& stl_toupper(std::string& text) {
    shift_case(text, 'a', 'z', 'A' - 'a');
    return text;
}
