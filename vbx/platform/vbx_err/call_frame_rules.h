// The rules of the frames of one walk, from memory where that can be trusted.
//
// A rule in a permanent object is remembered by its address. At any other address dlclose can put another
// object in the place of the one that was there, and nothing that can be asked without the loader's lock
// tells the two apart: neither place nor name, and not the loader's record of it, which is memory used again
// as well. (Clearing the memory in an interposed dlclose would miss what libc closes by itself.) There a rule
// is remembered by its source, a hash of the bytes of the description that are there now; by the address only
// where the description stands, which saves the search.
#pragma once

#include "vbx/platform/os/address_cache.h"
#include "vbx/platform/vbx_err/eh_frame.h"
#include "vbx/platform/vbx_err/frame_rule.h"

#include <bit>

// For one walk on one thread: what it keeps holds as long as the walked frames exist. Takes no lock and
// doesn't allocate; safe in signal handlers.
class ERR_FRAME_RULES {
  public:
    // address  return address of a frame, not 0
    ERR_FRAME_RULE rule_of(std::uint64_t address) {
        std::uint64_t stored;
        if (!s_cache.find(address, stored))
            return find_rule(address);
        const ERR_FRAME_RULE rule = std::bit_cast<ERR_FRAME_RULE>(stored);
        return rule.kind == ROW_ONLY ? rule_in_row(address, std::bit_cast<std::uint32_t>(rule.cfa_offset))
                                     : rule;
    }

  private:
    // Stored in place of a kind: cfa_offset is a number of a row.
    static constexpr auto ROW_ONLY = static_cast<ERR_FRAME_RULE::KIND>(0xFF);

    ERR_FRAME_RULE find_rule(std::uint64_t address);
    ERR_FRAME_RULE rule_in_row(std::uint64_t address, std::uint32_t row);
    void find_tables(std::uint64_t address);

    static OS_ADDRESS_CACHE s_cache;

    ERR_UNWIND_TABLES m_tables; // of the frame looked at last
};
