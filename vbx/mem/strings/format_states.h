// The grammar of a format, as a state machine over its characters.
//
//     "%-8.3ld"   %: percent   -: flag   8: width   .: dot   3: precision   l: size   d: type
//
// A character that fits nowhere leads back to `normal`, where it is plain text; what was read of the
// conversion is forgotten.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

enum class FORMAT_STATE : std::uint8_t { normal, percent, flag, width, dot, precision, size, type };

namespace format_grammar {

struct CHARACTER_CLASS {
    std::string_view characters;
    std::string_view next_states; // one for each state in front of the character
};

// The states by their letters, in the order of the enumeration. The first class is that of all characters
// that no other class has.
inline constexpr std::string_view LETTERS = "N%FWDPST";
inline constexpr CHARACTER_CLASS CLASSES[] = {
    {"", /*                   */ "NNNNNNNN"}, //
    {"%", /*                  */ "%NNNNNN%"}, //
    {".", /*                  */ "NDDDNNNN"}, //
    {"*", /*                  */ "NWWNPNNN"}, //
    {"0", /*                  */ "NFFWPPNN"}, //
    {"123456789", /*          */ "NWWWPPNN"}, //
    {" #+-", /*               */ "NFFNNNNN"}, //
    {"FILNhlw", /*            */ "NSSSSSSN"}, //
    {"BCEGSXZcdefginopsux", /**/ "NTTTTTTN"},
};

using ROW = std::array<FORMAT_STATE, LETTERS.size()>;

constexpr std::array<ROW, 256> make_rows() {
    std::array<ROW, 256> rows{};
    for (const CHARACTER_CLASS& character_class : CLASSES)
        for (const char character : character_class.characters)
            for (std::size_t before = 0; before < LETTERS.size(); ++before)
                rows[static_cast<unsigned char>(character)][before] =
                    static_cast<FORMAT_STATE>(LETTERS.find(character_class.next_states[before]));
    return rows;
}

inline constexpr std::array<ROW, 256> ROWS = make_rows();

} // namespace format_grammar

// The state behind a character, from the one in front of it.
constexpr FORMAT_STATE format_next_state(FORMAT_STATE before, char character) {
    return format_grammar::ROWS[static_cast<unsigned char>(character)][static_cast<std::size_t>(before)];
}
