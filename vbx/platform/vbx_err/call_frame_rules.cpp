#include "vbx/platform/vbx_err/call_frame_rules.h"

#include "vbx/platform/vbx_err/cfi_program.h"
#include "vbx/platform/vbx_err/permanent_objects.h"

#include <dlfcn.h>

#include <array>
#include <cstring>

constinit OS_ADDRESS_CACHE ERR_FRAME_RULES::s_cache;

namespace {

// What a description says about an address.
ERR_LOOKUP read_rule(const ERR_DESCRIPTION_BYTES& bytes, std::uint64_t address, ERR_FRAME_RULE& rule) {
    ERR_FRAME_DESCRIPTION description;
    if (!err_read_description(bytes, description))
        return ERR_LOOKUP::unusual;
    if (address < description.code_begin || address >= description.code_end)
        return ERR_LOOKUP::none;
    rule = err_run_call_frame_program(description, address);
    return ERR_LOOKUP::found;
}

// A frame that has no description is the outermost, as far as libgcc can tell too: the loader's own start is
// one, below all initialisers. But libgcc knows by its code the function that ends a signal handler.
ERR_FRAME_RULE rule_without_description(const ERR_UNWIND_TABLES& tables, std::uint64_t address) {
    constexpr std::array<unsigned char, 9> SIGRETURN = {0x48, 0xC7, 0xC0, 0x0F, 0, 0, 0, 0x0F, 0x05};
    ERR_FRAME_RULE rule;
    if (tables.end - address >= SIGRETURN.size() &&
        std::memcmp(reinterpret_cast<const void*>(address), SIGRETURN.data(), SIGRETURN.size()) != 0)
        rule.kind = ERR_FRAME_RULE::KIND::outermost;
    return rule;
}

// The hash of all that a description says about an address, in the half of the address space where no code
// is. The place itself is part of it: the description's pointers are relative.
std::uint64_t key_of_source(const ERR_DESCRIPTION_BYTES& bytes, std::uint64_t address) {
    constexpr std::uint64_t MULTIPLIER = 0x9E3779B97F4A7C15;
    std::uint64_t hash = address - bytes.entry_begin;
    const auto mix = [&hash](std::uint64_t word) {
        hash = (hash ^ word) * MULTIPLIER;
        hash ^= hash >> 29;
    };
    const auto mix_range = [&mix](std::uintptr_t begin, std::uintptr_t end) {
        std::uint64_t word = 0;
        for (; end - begin >= sizeof word; begin += sizeof word) {
            std::memcpy(&word, reinterpret_cast<const void*>(begin), sizeof word);
            mix(word);
        }
        for (word = end - begin; begin < end; ++begin)
            word = word << 8 | *reinterpret_cast<const unsigned char*>(begin);
        mix(word);
    };
    mix_range(bytes.entry_begin, bytes.entry_end);
    mix_range(bytes.common_begin, bytes.common_end);
    return hash | std::uint64_t{1} << 63;
}

} // namespace

void ERR_FRAME_RULES::find_tables(std::uint64_t address) {
    if (address >= m_tables.begin && address < m_tables.end)
        return;
    dl_find_object object;
    if (_dl_find_object(reinterpret_cast<void*>(address), &object) == 0)
        m_tables = {reinterpret_cast<std::uintptr_t>(object.dlfo_map_start),
                    reinterpret_cast<std::uintptr_t>(object.dlfo_map_end),
                    reinterpret_cast<std::uintptr_t>(object.dlfo_eh_frame)};
    else
        m_tables = {};
}

[[gnu::noinline]] ERR_FRAME_RULE ERR_FRAME_RULES::find_rule(std::uint64_t address) {
    // The call itself: what follows a call that doesn't return can be another function.
    const std::uint64_t call = address - 1;
    find_tables(call);
    if (m_tables.header == 0)
        return {}; // generated code, or an object that registers its tables: libgcc may know them
    ERR_FRAME_RULE rule;
    ERR_DESCRIPTION_BYTES bytes;
    std::uint32_t row = 0;
    ERR_LOOKUP lookup = err_find_row(m_tables, call, row);
    if (lookup == ERR_LOOKUP::found)
        lookup = err_description_in_row(m_tables, row, call, bytes) ? read_rule(bytes, call, rule)
                                                                    : ERR_LOOKUP::unusual;
    if (lookup == ERR_LOOKUP::unusual)
        return {};
    if (lookup == ERR_LOOKUP::none)
        rule = rule_without_description(m_tables, address);
    if (err_is_permanent_object(m_tables.begin)) {
        s_cache.store(address, std::bit_cast<std::uint64_t>(rule));
    } else if (lookup == ERR_LOOKUP::found) {
        const ERR_FRAME_RULE stored{std::bit_cast<std::int32_t>(row), 0, ROW_ONLY, 0};
        s_cache.store(address, std::bit_cast<std::uint64_t>(stored));
    }
    return rule;
}

[[gnu::noinline]] ERR_FRAME_RULE ERR_FRAME_RULES::rule_in_row(std::uint64_t address, std::uint32_t row) {
    const std::uint64_t call = address - 1;
    find_tables(call);
    ERR_DESCRIPTION_BYTES bytes;
    // Another object than the one that was there mostly has another row for the address.
    if (!err_description_in_row(m_tables, row, call, bytes))
        return find_rule(address);
    const std::uint64_t key = key_of_source(bytes, call);
    std::uint64_t stored;
    if (s_cache.find(key, stored))
        return std::bit_cast<ERR_FRAME_RULE>(stored);
    ERR_FRAME_RULE rule;
    if (read_rule(bytes, call, rule) != ERR_LOOKUP::found)
        return find_rule(address);
    s_cache.store(key, std::bit_cast<std::uint64_t>(rule));
    return rule;
}
