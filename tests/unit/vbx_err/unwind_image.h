// Unwind tables of an invented object, in memory that ends at a page nobody may read.
#pragma once

#include "vbx/platform/vbx_err/eh_frame.h"

#include <sys/mman.h>

#include <cstring>
#include <stdexcept>
#include <vector>

using BYTES = std::vector<std::uint8_t>;

// What tools write: rsp + 8 is the CFA, the return address below it.
inline const BYTES USUAL_COMMON_ENTRY = {0,  0, 0,    0,    1, 'z', 'R',  0, 1, 0x78,
                                         16, 1, 0x1B, 0x0C, 7, 8,   0x90, 1, 0, 0};

class UNWIND_IMAGE {
  public:
    static constexpr std::int32_t CODE_SIZE = 100;

    // Functions of CODE_SIZE bytes that follow each other, with these call frame programs. The image begins
    // with the header; the code is thought to come 4096 bytes behind the header.
    explicit UNWIND_IMAGE(const std::vector<BYTES>& programs, const BYTES& common = USUAL_COMMON_ENTRY) {
        const std::size_t count = programs.size();
        number(std::uint32_t{0x3B031B01});
        number(std::uint32_t{0});
        number(static_cast<std::uint32_t>(count));
        const std::size_t rows = m_bytes.size();
        m_bytes.resize(rows + count * 8);
        const std::size_t common_place = m_bytes.size();
        entry(common);
        for (std::size_t index = 0; index < count; ++index) {
            const std::size_t place = m_bytes.size();
            const auto code = static_cast<std::int32_t>(4096 + index * CODE_SIZE);
            BYTES body(13);
            store(body, 0, static_cast<std::int32_t>(place + 4 - common_place));
            store(body, 4, code - static_cast<std::int32_t>(place + 8));
            store(body, 8, CODE_SIZE);
            body.insert(body.end(), programs[index].begin(), programs[index].end());
            store(m_bytes, rows + index * 8, code);
            store(m_bytes, rows + index * 8 + 4, static_cast<std::int32_t>(place));
            entry(body);
        }
        map();
    }
    ~UNWIND_IMAGE() { munmap(m_pages, 3 * PAGE); }
    UNWIND_IMAGE(const UNWIND_IMAGE&) = delete;
    UNWIND_IMAGE& operator=(const UNWIND_IMAGE&) = delete;

    std::uint8_t* begin() const { return m_pages + 2 * PAGE - m_bytes.size(); }
    std::size_t size() const { return m_bytes.size(); }
    std::uintptr_t code(std::int32_t offset) const {
        return tables().begin + static_cast<std::uintptr_t>(4096 + std::int64_t{offset});
    }
    ERR_UNWIND_TABLES tables() const {
        const auto header = reinterpret_cast<std::uintptr_t>(begin());
        return {header, header + size(), header};
    }
    // Moves the first `length` bytes to the end of the readable memory: nothing may be read behind them.
    ERR_UNWIND_TABLES truncate(std::size_t length) {
        m_bytes.resize(length);
        std::memcpy(begin(), m_bytes.data(), length);
        return tables();
    }
    void reset(const BYTES& bytes) {
        m_bytes = bytes;
        std::memcpy(begin(), m_bytes.data(), m_bytes.size());
    }
    const BYTES& bytes() const { return m_bytes; }

  private:
    static constexpr std::size_t PAGE = 4096;

    template <class NUMBER>
    static void store(BYTES& bytes, std::size_t at, NUMBER value) {
        std::memcpy(bytes.data() + at, &value, sizeof value);
    }
    void number(std::uint32_t value) {
        m_bytes.resize(m_bytes.size() + 4);
        store(m_bytes, m_bytes.size() - 4, value);
    }
    // With its length in front, filled up to whole words.
    void entry(BYTES body) {
        body.resize((body.size() + 3) / 4 * 4);
        number(static_cast<std::uint32_t>(body.size()));
        m_bytes.insert(m_bytes.end(), body.begin(), body.end());
    }
    void map() {
        void* const pages =
            mmap(nullptr, 3 * PAGE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (pages == MAP_FAILED || m_bytes.size() > 2 * PAGE)
            throw std::runtime_error("no memory for the image");
        m_pages = static_cast<std::uint8_t*>(pages);
        mprotect(m_pages + 2 * PAGE, PAGE, PROT_NONE);
        std::memcpy(begin(), m_bytes.data(), m_bytes.size());
    }

    BYTES m_bytes;
    std::uint8_t* m_pages = nullptr;
};
