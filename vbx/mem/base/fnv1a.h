// The hash of the library's own maps: 64-bit FNV-1a.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

constexpr std::size_t mem_fnv1a(std::string_view bytes) {
    std::uint64_t hash = 0xcbf29ce484222325;
    for (const char byte : bytes) {
        hash ^= static_cast<unsigned char>(byte);
        hash *= 0x100000001b3;
    }
    return hash;
}
