// How a frame leads to its caller's, in 64 bits.
//
// A frame is known by three registers: its instruction pointer, its stack pointer and rbp. Its canonical
// frame address (CFA) is what the stack pointer will be back in the caller; the return address is the word
// below.
//
//     lower   rsp ->  locals           CFA = rsp + cfa_offset        (or rbp + cfa_offset)
//                     caller's rbp     at CFA + rbp_offset
//                     return address   at CFA - 8
//     higher  CFA ->  caller's frame
#pragma once

#include <cstdint>

struct ERR_FRAME_RULE {
    enum class KIND : std::uint8_t {
        unsupported, // only libgcc can go on from here
        outermost,   // has no caller
        from_rsp,
        from_rbp,
    };

    std::int32_t cfa_offset = 0;
    // 0: rbp still has the caller's value.
    std::int16_t rbp_offset = 0;
    KIND kind = KIND::unsupported;
    std::uint8_t padding = 0;

    bool operator==(const ERR_FRAME_RULE&) const = default;
};

static_assert(sizeof(ERR_FRAME_RULE) == sizeof(std::uint64_t));
