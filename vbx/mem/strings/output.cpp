// stl_output: the engine that walks a format and its arguments.
//
// The host has compiled its call for the C library's printf or for this engine; only the types that a format
// names say what is taken from the argument list. On this platform integers and pointers lie in other
// registers than doubles, so each conversion takes its argument with the type that it has.

#include "vbx/mem/strings/format_field.h"
#include "vbx/mem/strings/format_numbers.h"
#include "vbx/mem/strings/format_states.h"
#include "vbx/mem/strings/staged_text.h"

#include <vbx/mem/strings.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cuchar>
#include <type_traits>

namespace {

// A list that is handed on as an argument moves for its owner, too.
static_assert(std::is_array_v<std::va_list>);
using ARGUMENT_LIST = std::decay_t<std::va_list>;

static_assert(sizeof(long) == sizeof(std::int64_t), "the size `l` and the 64-bit size read the same");

// A text with its length and not with an end, as hosts hand it to the conversion 'Z'.
struct COUNTED_STRING {
    std::int16_t byte_length;
    alignas(8) const void* characters;
};
static_assert(offsetof(COUNTED_STRING, characters) == 8);

constexpr std::string_view NULL_TEXT = "(null)";
constexpr FORMAT_RADIX DECIMAL = {10, "0123456789"};
constexpr FORMAT_RADIX OCTAL = {8, "01234567"};
constexpr FORMAT_RADIX LOWER_HEXADECIMAL = {16, "0123456789abcdef"};
constexpr FORMAT_RADIX UPPER_HEXADECIMAL = {16, "0123456789ABCDEF"};
// Of a double with its sign.
constexpr std::size_t LONGEST_DECIMAL = 511;

// One wide character at a time, in the encoding of the C library's locale.
class MULTIBYTE_ENCODER {
  public:
    // The bytes of a character; none for the first half of a pair, whose second half brings them all.
    // Returns false when the locale has no such character, or when halves don't match.
    bool encode(char16_t character, std::string_view& bytes) {
        const std::size_t length = std::c16rtomb(m_bytes, character, &m_state);
        if (length == static_cast<std::size_t>(-1))
            return false;
        bytes = {m_bytes, length};
        return true;
    }

  private:
    std::mbstate_t m_state{};
    char m_bytes[MB_LEN_MAX];
};

template <class CHARACTER>
std::basic_string_view<CHARACTER> view_up_to(const CHARACTER* text, int precision) {
    const auto most = precision < 0 ? SIZE_MAX : static_cast<std::size_t>(precision);
    std::size_t length = 0;
    while (length < most && text[length] != 0)
        ++length;
    return {text, length};
}

class OUTPUT_ENGINE {
  public:
    OUTPUT_ENGINE(std::string& out, const char* format, ARGUMENT_LIST args)
        : m_text(out), m_next(format), m_args(args) {}

    int run() {
        while (*m_next != '\0' && m_text.count() <= INT_MAX)
            take(*m_next++);
        m_text.flush();
        // From a text of more than 2 GiB the count comes out negative.
        return static_cast<int>(static_cast<unsigned>(std::min<std::uint64_t>(m_text.count(), UINT_MAX)));
    }

  private:
    void take(char character) {
        m_state = format_next_state(m_state, character);
        switch (m_state) {
        case FORMAT_STATE::normal:
            return m_text.put(character);
        case FORMAT_STATE::percent:
            m_field = {};
            return;
        case FORMAT_STATE::flag:
            return take_flag(character);
        case FORMAT_STATE::width:
            return take_width(character);
        case FORMAT_STATE::dot:
            m_field.precision = 0;
            return;
        case FORMAT_STATE::precision:
            return take_precision(character);
        case FORMAT_STATE::size:
            return take_size(character);
        case FORMAT_STATE::type:
            return convert(character);
        }
    }

    void take_flag(char flag) {
        m_field.has_blank |= flag == ' ';
        m_field.has_plus |= flag == '+';
        m_field.is_left |= flag == '-';
        m_field.is_zero_padded |= flag == '0';
        m_field.is_alternate |= flag == '#';
    }

    void take_width(char character) {
        if (character != '*') {
            m_field.width = format_append_digit(m_field.width, character);
            return;
        }
        const int width = va_arg(m_args, int);
        m_field.is_left |= width < 0;
        // The smallest int has no positive counterpart.
        m_field.width = std::abs(std::max(width, -INT_MAX));
    }

    void take_precision(char character) {
        if (character != '*')
            m_field.precision = format_append_digit(m_field.precision, character);
        else
            m_field.precision = std::max(va_arg(m_args, int), FORMAT_FIELD::NO_PRECISION);
    }

    void take_size(char size) {
        switch (size) {
        case 'h':
            m_field.is_short = true;
            return;
        case 'w':
            m_field.is_wide = true;
            return;
        case 'l':
            (consume("l") ? m_field.is_64 : m_field.is_long) = true;
            return;
        case 'I':
            if (!consume("64"))
                return drop_conversion(size);
            m_field.is_64 = true;
            return;
        default: // known, and without a meaning
            return;
        }
    }

    bool consume(std::string_view expected) {
        if (std::strncmp(m_next, expected.data(), expected.size()) != 0)
            return false;
        m_next += expected.size();
        return true;
    }

    void drop_conversion(char character) {
        m_state = FORMAT_STATE::normal;
        m_text.put(character);
    }

    void convert(char type) {
        switch (type) {
        case 'd':
        case 'i':
            return convert_signed();
        case 'u':
            return convert_unsigned(DECIMAL, take_unsigned(), "");
        case 'o':
            return convert_unsigned(OCTAL, take_unsigned(), "");
        case 'x':
            return convert_unsigned(LOWER_HEXADECIMAL, take_unsigned(), "0x");
        case 'X':
            return convert_unsigned(UPPER_HEXADECIMAL, take_unsigned(), "0X");
        case 'p':
            return convert_pointer();
        case 'e':
        case 'E':
        case 'f':
            return convert_decimal(m_field.precision_or(6));
        case 'g':
        case 'G':
            return convert_decimal(std::max(m_field.precision_or(6), 1));
        case 'c':
            return is_sized_wide() ? convert_wide_character() : convert_character();
        case 'C':
            return is_sized_narrow() ? convert_character() : convert_wide_character();
        case 's':
            return is_sized_wide() ? convert_string<char16_t>() : convert_string<char>();
        case 'S':
            return is_sized_narrow() ? convert_string<char>() : convert_string<char16_t>();
        case 'Z':
            return convert_counted_string();
        case 'n':
            return store_count();
        default:
            // 'B' is read as a type with nothing behind it. It takes no argument either: whatever a host
            // means by it, the arguments of the conversions behind it stay where they are.
            return;
        }
    }

    // Of two sizes that contradict each other the larger holds.
    bool is_sized_64() const { return m_field.is_64 || m_field.is_long; }
    bool is_sized_wide() const { return m_field.is_wide || m_field.is_long; }
    bool is_sized_narrow() const { return m_field.is_short && !is_sized_wide(); }

    std::int64_t take_signed() {
        if (is_sized_64())
            return va_arg(m_args, long);
        const int value = va_arg(m_args, int);
        return m_field.is_short ? static_cast<short>(value) : value;
    }

    std::uint64_t take_unsigned() {
        if (is_sized_64())
            return va_arg(m_args, unsigned long);
        const unsigned value = va_arg(m_args, unsigned);
        return m_field.is_short ? static_cast<unsigned short>(value) : value;
    }

    void convert_signed() {
        const std::int64_t value = take_signed();
        // Negated without a sign: the smallest number has no positive counterpart.
        const auto bits = static_cast<std::uint64_t>(value);
        put({.prefix = sign_of(value < 0), .text = integer_text(DECIMAL, value < 0 ? 0 - bits : bits)});
    }

    void convert_unsigned(FORMAT_RADIX radix, std::uint64_t value, std::string_view alternate_prefix) {
        FORMAT_ITEM item{.text = integer_text(radix, value)};
        if (m_field.is_alternate && value != 0)
            item.prefix = alternate_prefix;
        if (m_field.is_alternate && radix.base == OCTAL.base && !item.text.starts_with('0')) {
            char* const begin = m_number.data() + m_number.size() - item.text.size() - 1;
            *begin = '0';
            item.text = {begin, item.text.size() + 1};
        }
        put(item);
    }

    void convert_pointer() {
        m_field.precision = 16;
        const auto value = reinterpret_cast<std::uintptr_t>(va_arg(m_args, void*));
        convert_unsigned(UPPER_HEXADECIMAL, value, "0X");
    }

    std::string_view integer_text(FORMAT_RADIX radix, std::uint64_t value) {
        // A number of digits that is asked for is not filled up with other zeros.
        m_field.is_zero_padded &= m_field.precision < 0;
        return format_integer(m_number, value, radix, m_field.precision_or(1));
    }

    void convert_decimal(int precision) {
        const double value = va_arg(m_args, double);
        const bool is_negative = std::signbit(value);
        put({.prefix = sign_of(is_negative),
             .text = format_decimal(m_number, std::fabs(value), precision, LONGEST_DECIMAL - is_negative)});
    }

    std::string_view sign_of(bool is_negative) const {
        if (is_negative)
            return "-";
        return m_field.has_plus ? "+" : m_field.has_blank ? " " : "";
    }

    void convert_character() {
        const auto character = static_cast<char>(va_arg(m_args, int));
        put({.text = {&character, 1}});
    }

    void convert_wide_character() {
        const auto character = static_cast<char16_t>(va_arg(m_args, int));
        std::string_view bytes;
        // Half of a pair is no character.
        if (MULTIBYTE_ENCODER().encode(character, bytes) && !bytes.empty())
            put({.wide_text = {&character, 1}});
    }

    template <class CHARACTER>
    void convert_string() {
        const CHARACTER* const text = va_arg(m_args, const CHARACTER*);
        if (text == nullptr)
            return put({.text = NULL_TEXT.substr(0, view_up_to(NULL_TEXT.data(), m_field.precision).size())});
        if constexpr (std::is_same_v<CHARACTER, char>)
            put({.text = view_up_to(text, m_field.precision)});
        else
            put({.wide_text = view_up_to(text, m_field.precision)});
    }

    void convert_counted_string() {
        const auto* const string = va_arg(m_args, const COUNTED_STRING*);
        if (string == nullptr || string->characters == nullptr)
            return put({.text = NULL_TEXT});
        const auto length = static_cast<std::size_t>(std::max<std::int16_t>(string->byte_length, 0));
        if (m_field.is_wide)
            put({.wide_text = {static_cast<const char16_t*>(string->characters), length / 2}});
        else
            put({.text = {static_cast<const char*>(string->characters), length}});
    }

    // Never more than an int, whatever the size: hosts that were written for a 32-bit `long` hand one over.
    void store_count() {
        void* const target = va_arg(m_args, void*);
        if (target == nullptr)
            return;
        const auto count = static_cast<int>(m_text.count());
        if (is_sized_narrow() && !m_field.is_64)
            *static_cast<short*>(target) = static_cast<short>(count);
        else
            *static_cast<int*>(target) = count;
    }

    void put(const FORMAT_ITEM& item) {
        const std::size_t length = item.prefix.size() + item.text.size() + item.wide_text.size();
        const auto width = static_cast<std::size_t>(m_field.width);
        const std::size_t padding = width > length ? width - length : 0;
        if (!m_field.is_left && !m_field.is_zero_padded)
            m_text.repeat(' ', padding);
        m_text.put(item.prefix);
        if (!m_field.is_left && m_field.is_zero_padded)
            m_text.repeat('0', padding);
        m_text.put(item.text);
        put_wide(item.wide_text);
        if (m_field.is_left)
            m_text.repeat(' ', padding);
    }

    // Up to the first character that has no multibyte form.
    void put_wide(std::u16string_view text) {
        MULTIBYTE_ENCODER encoder;
        std::string_view bytes;
        for (const char16_t character : text) {
            if (!encoder.encode(character, bytes))
                return;
            m_text.put(bytes);
        }
    }

    STAGED_TEXT m_text;
    const char* m_next;
    ARGUMENT_LIST m_args;
    FORMAT_STATE m_state = FORMAT_STATE::normal;
    FORMAT_FIELD m_field;
    FORMAT_NUMBER_BUFFER m_number;
};

} // namespace

int stl_output(std::string* out, const char* format, std::va_list args) {
    if (out == nullptr || format == nullptr)
        return 0;
    return OUTPUT_ENGINE(*out, format, args).run();
}
