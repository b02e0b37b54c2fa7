// What may be remembered for how long.
//
// The rule of a frame in a permanent object is remembered as it is. Any other object can be closed and
// another one can come to stand at its place, and nothing that can be asked without the loader's lock tells
// two objects apart that were at one place in turn: neither address nor name, and not the loader's record of
// it, which is memory used again as well. So for these only the place of the description is remembered, which
// saves the search. It is read and run again at each frame: the rule then comes from the object that is there
// now. (A cache that an interposed dlclose clears would miss what libc closes by itself.) A frame costs 5 ns
// in a permanent object, 45 in another one.

#include "vbx/platform/vbx_err/call_frame_rules.h"

#include "vbx/platform/vbx_err/cfi_program.h"
#include "vbx/platform/vbx_err/permanent_objects.h"
#include "vbx/platform/vbx_err/rule_cache.h"

#include <dlfcn.h>

#include <array>
#include <bit>
#include <cstring>

namespace {

constinit ERR_RULE_CACHE cache;

// Stored in place of a kind: cfa_offset is the distance from the object's header to the description.
constexpr auto PLACE_ONLY = static_cast<ERR_FRAME_RULE::KIND>(0xFF);

ERR_UNWIND_TABLES tables_at(std::uint64_t address) {
    dl_find_object object;
    if (_dl_find_object(reinterpret_cast<void*>(address), &object) != 0)
        return {};
    return {reinterpret_cast<std::uintptr_t>(object.dlfo_map_start),
            reinterpret_cast<std::uintptr_t>(object.dlfo_map_end),
            reinterpret_cast<std::uintptr_t>(object.dlfo_eh_frame)};
}

// What the description at `place` says about an address.
ERR_LOOKUP read_rule(const ERR_UNWIND_TABLES& tables, std::uintptr_t place, std::uint64_t address,
                     ERR_FRAME_RULE& rule) {
    ERR_FRAME_DESCRIPTION description;
    if (!err_read_description(tables, place, description))
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

[[gnu::noinline]] ERR_FRAME_RULE find_rule(std::uint64_t address) {
    // The call itself: what follows a call that doesn't return can be another function.
    const std::uint64_t call = address - 1;
    const ERR_UNWIND_TABLES tables = tables_at(call);
    if (tables.header == 0)
        return {}; // generated code, or an object that registers its tables: libgcc may know them
    ERR_FRAME_RULE rule;
    std::uintptr_t place = 0;
    ERR_LOOKUP lookup = err_find_description(tables, call, place);
    if (lookup == ERR_LOOKUP::found)
        lookup = read_rule(tables, place, call, rule);
    if (lookup == ERR_LOOKUP::unusual)
        return {};
    if (lookup == ERR_LOOKUP::none)
        rule = rule_without_description(tables, address);
    if (err_is_permanent_object(tables.begin)) {
        cache.store(address, std::bit_cast<std::uint64_t>(rule));
    } else if (const auto distance = static_cast<std::int64_t>(place - tables.header);
               lookup == ERR_LOOKUP::found && distance == static_cast<std::int32_t>(distance)) {
        const ERR_FRAME_RULE stored{static_cast<std::int32_t>(distance), 0, PLACE_ONLY, 0};
        cache.store(address, std::bit_cast<std::uint64_t>(stored));
    }
    return rule;
}

[[gnu::noinline]] ERR_FRAME_RULE read_again(std::uint64_t address, std::int32_t distance) {
    const ERR_UNWIND_TABLES tables = tables_at(address - 1);
    const std::uintptr_t place = tables.header + static_cast<std::uintptr_t>(std::int64_t{distance});
    ERR_FRAME_RULE rule;
    // In another object than the one that was there, the place doesn't describe this address.
    return read_rule(tables, place, address - 1, rule) == ERR_LOOKUP::found ? rule : find_rule(address);
}

} // namespace

ERR_FRAME_RULE err_rule_of_frame(std::uint64_t address) {
    std::uint64_t value;
    if (!cache.find(address, value))
        return find_rule(address);
    const ERR_FRAME_RULE rule = std::bit_cast<ERR_FRAME_RULE>(value);
    return rule.kind == PLACE_ONLY ? read_again(address, rule.cfa_offset) : rule;
}
