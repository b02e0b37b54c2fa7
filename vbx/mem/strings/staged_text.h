// Text on its way into a string: characters are collected on the stack and appended in steps, so that a long
// text costs the string few reallocations.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

class STAGED_TEXT {
  public:
    explicit STAGED_TEXT(std::string& out) : m_out(out) {}
    STAGED_TEXT(const STAGED_TEXT&) = delete;
    STAGED_TEXT& operator=(const STAGED_TEXT&) = delete;

    // Bytes put here so far.
    std::uint64_t count() const { return m_count; }

    void put(char character) {
        m_stage[m_used++] = character;
        ++m_count;
        if (m_used == m_stage.size())
            flush();
    }
    void put(std::string_view text) {
        for (const char character : text)
            put(character);
    }
    void repeat(char character, std::uint64_t times) {
        for (; times > 0; --times)
            put(character);
    }
    // What is left on the stage when the text is complete.
    void flush() {
        m_out.append(m_stage.data(), m_used);
        m_used = 0;
    }

  private:
    std::string& m_out;
    std::uint64_t m_count = 0;
    std::size_t m_used = 0;
    std::array<char, 512> m_stage;
};
