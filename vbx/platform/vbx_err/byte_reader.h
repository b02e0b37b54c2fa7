// Reads the numbers of unwind information, never behind the end of what it was given.
#pragma once

#include <cstdint>
#include <cstring>

class ERR_BYTE_READER {
  public:
    ERR_BYTE_READER(std::uintptr_t begin, std::uintptr_t end) : m_at(begin), m_end(end) {}

    std::uintptr_t at() const { return m_at; }
    bool at_end() const { return m_at >= m_end; }
    // True once something was asked for that wasn't there. Everything reads as 0 from then on, so a caller
    // may look only once, behind its last read.
    bool has_failed() const { return m_has_failed; }

    template <class NUMBER>
    NUMBER fixed() {
        NUMBER value{};
        if (m_end - m_at < sizeof value) {
            fail();
            return value;
        }
        std::memcpy(&value, reinterpret_cast<const void*>(m_at), sizeof value);
        m_at += sizeof value;
        return value;
    }

    std::uint8_t byte() { return fixed<std::uint8_t>(); }

    std::uint64_t uleb() {
        unsigned ignored_shift = 0;
        bool ignored_sign = false;
        return leb(ignored_shift, ignored_sign);
    }

    std::int64_t sleb() {
        unsigned shift = 0;
        bool is_negative = false;
        std::uint64_t value = leb(shift, is_negative);
        if (is_negative && shift < 64)
            value |= ~std::uint64_t{0} << shift;
        return static_cast<std::int64_t>(value);
    }

    void skip(std::uint64_t bytes) {
        if (m_end - m_at < bytes)
            fail();
        else
            m_at += bytes;
    }

  private:
    std::uint64_t leb(unsigned& shift, bool& is_negative) {
        std::uint64_t value = 0;
        for (;;) {
            const std::uint8_t group = byte();
            if (shift < 64)
                value |= std::uint64_t{group & 0x7FU} << shift;
            shift += 7;
            if ((group & 0x80) == 0) {
                is_negative = (group & 0x40) != 0;
                return value;
            }
        }
    }

    void fail() {
        m_at = m_end;
        m_has_failed = true;
    }

    std::uintptr_t m_at;
    std::uintptr_t m_end;
    bool m_has_failed = false;
};
