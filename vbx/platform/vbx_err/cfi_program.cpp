// Follows libgcc to the letter where libgcc departs from the standard, because both have to see the same
// frames: "restore" makes a register unsaved instead of giving it the rule of the common entry, and an
// undefined register other than the return address counts as unsaved.

#include "vbx/platform/vbx_err/cfi_program.h"

#include "vbx/platform/vbx_err/byte_reader.h"

#include <array>
#include <limits>

namespace {

constexpr std::uint64_t RBP = 6;
constexpr std::uint64_t RSP = 7;
constexpr std::uint64_t RETURN_ADDRESS = 16;

constexpr std::int64_t WORD = 8;

enum class HOW : std::uint8_t { unsaved, at_offset, undefined, other };

struct SAVED {
    HOW how = HOW::unsaved;
    std::int64_t offset = 0; // from the CFA
};

struct ROW {
    std::uint64_t cfa_register = 0;
    std::int64_t cfa_offset = 0;
    bool cfa_is_expression = false;
    SAVED rbp;
    SAVED rsp;
    SAVED return_address;
};

class MACHINE {
  public:
    MACHINE(const ERR_FRAME_DESCRIPTION& description, std::uintptr_t address)
        : m_description(description), m_address(address), m_location(description.code_begin) {}

    // Up to the last row that begins at or before the address. False on anything it can't follow.
    bool run(std::uintptr_t begin, std::uintptr_t end) {
        ERR_BYTE_READER reader(begin, end);
        while (!reader.at_end() && m_location <= m_address)
            if (!step(reader) || reader.has_failed())
                return false;
        return true;
    }

    const ROW& row() const { return m_row; }

  private:
    bool step(ERR_BYTE_READER& reader);
    bool step_extended(ERR_BYTE_READER& reader, std::uint8_t code);

    void advance(std::uint64_t units) { m_location += units * m_description.code_factor; }
    std::int64_t factored(std::int64_t units) const {
        // Wraps where hostile input would overflow.
        return static_cast<std::int64_t>(static_cast<std::uint64_t>(units) *
                                         static_cast<std::uint64_t>(m_description.data_factor));
    }
    std::int64_t factored(std::uint64_t units) const { return factored(static_cast<std::int64_t>(units)); }

    void save(std::uint64_t number, SAVED saved) {
        if (number == RBP)
            m_row.rbp = saved;
        else if (number == RSP)
            m_row.rsp = saved;
        else if (number == RETURN_ADDRESS)
            m_row.return_address = saved;
    }
    void define_cfa(std::uint64_t number, std::int64_t offset) {
        m_row.cfa_register = number;
        m_row.cfa_offset = offset;
        m_row.cfa_is_expression = false;
    }

    const ERR_FRAME_DESCRIPTION& m_description;
    const std::uintptr_t m_address;
    std::uintptr_t m_location;
    ROW m_row;
    // Compilers remember one row at a time; a program that goes deeper is left to libgcc.
    std::array<ROW, 4> m_remembered;
    std::size_t m_remembered_count = 0;
};

bool MACHINE::step(ERR_BYTE_READER& reader) {
    const std::uint8_t code = reader.byte();
    const std::uint8_t operand = code & 0x3F;
    switch (code & 0xC0) {
    case 0x40: // advance_loc
        advance(operand);
        return true;
    case 0x80: // offset
        save(operand, {HOW::at_offset, factored(reader.uleb())});
        return true;
    case 0xC0: // restore
        save(operand, {});
        return true;
    default:
        return step_extended(reader, code);
    }
}

bool MACHINE::step_extended(ERR_BYTE_READER& reader, std::uint8_t code) {
    switch (code) {
    case 0x00: // nop
        return true;
    case 0x02: // advance_loc1
        advance(reader.byte());
        return true;
    case 0x03: // advance_loc2
        advance(reader.fixed<std::uint16_t>());
        return true;
    case 0x04: // advance_loc4
        advance(reader.fixed<std::uint32_t>());
        return true;
    case 0x05: { // offset_extended
        const std::uint64_t number = reader.uleb();
        save(number, {HOW::at_offset, factored(reader.uleb())});
        return true;
    }
    case 0x06: // restore_extended
    case 0x08: // same_value
        save(reader.uleb(), {});
        return true;
    case 0x07: // undefined
        save(reader.uleb(), {HOW::undefined, 0});
        return true;
    case 0x09: // register
        save(reader.uleb(), {HOW::other, 0});
        reader.uleb();
        return true;
    case 0x0A: // remember_state
        if (m_remembered_count == m_remembered.size())
            return false;
        m_remembered[m_remembered_count++] = m_row;
        return true;
    case 0x0B: // restore_state
        if (m_remembered_count == 0)
            return false;
        m_row = m_remembered[--m_remembered_count];
        return true;
    case 0x0C: { // def_cfa
        const std::uint64_t number = reader.uleb();
        define_cfa(number, static_cast<std::int64_t>(reader.uleb()));
        return true;
    }
    case 0x0D: // def_cfa_register
        define_cfa(reader.uleb(), m_row.cfa_offset);
        return true;
    case 0x0E: // def_cfa_offset
        m_row.cfa_offset = static_cast<std::int64_t>(reader.uleb());
        return true;
    case 0x0F: // def_cfa_expression
        reader.skip(reader.uleb());
        m_row.cfa_is_expression = true;
        return true;
    case 0x10: // expression
    case 0x16: // val_expression
        save(reader.uleb(), {HOW::other, 0});
        reader.skip(reader.uleb());
        return true;
    case 0x11: { // offset_extended_sf
        const std::uint64_t number = reader.uleb();
        save(number, {HOW::at_offset, factored(reader.sleb())});
        return true;
    }
    case 0x12: { // def_cfa_sf
        const std::uint64_t number = reader.uleb();
        define_cfa(number, factored(reader.sleb()));
        return true;
    }
    case 0x13: // def_cfa_offset_sf
        m_row.cfa_offset = factored(reader.sleb());
        return true;
    case 0x14: // val_offset
    case 0x15: // val_offset_sf
        save(reader.uleb(), {HOW::other, 0});
        reader.uleb(); // as long in its signed form
        return true;
    case 0x2E: // GNU_args_size: of interest to landing pads only
        reader.uleb();
        return true;
    case 0x2F: { // GNU_negative_offset_extended
        const std::uint64_t number = reader.uleb();
        save(number, {HOW::at_offset, factored(std::uint64_t{0} - reader.uleb())});
        return true;
    }
    default:
        return false;
    }
}

template <class NUMBER>
bool fits(std::int64_t value) {
    return value >= std::numeric_limits<NUMBER>::min() && value <= std::numeric_limits<NUMBER>::max();
}

ERR_FRAME_RULE rule_of(const ROW& row) {
    ERR_FRAME_RULE rule;
    if (row.return_address.how == HOW::undefined) {
        rule.kind = ERR_FRAME_RULE::KIND::outermost;
        return rule;
    }
    if (row.return_address.how != HOW::at_offset || row.return_address.offset != -WORD ||
        row.rsp.how != HOW::unsaved || row.cfa_is_expression || !fits<std::int32_t>(row.cfa_offset))
        return rule;
    if (row.rbp.how == HOW::at_offset) {
        if (!fits<std::int16_t>(row.rbp.offset) || row.rbp.offset > -WORD)
            return rule;
        rule.rbp_offset = static_cast<std::int16_t>(row.rbp.offset);
    } else if (row.rbp.how == HOW::other) {
        return rule;
    }
    rule.cfa_offset = static_cast<std::int32_t>(row.cfa_offset);
    if (row.cfa_register == RSP)
        rule.kind = ERR_FRAME_RULE::KIND::from_rsp;
    else if (row.cfa_register == RBP)
        rule.kind = ERR_FRAME_RULE::KIND::from_rbp;
    return rule.kind == ERR_FRAME_RULE::KIND::unsupported ? ERR_FRAME_RULE{} : rule;
}

} // namespace

ERR_FRAME_RULE err_run_call_frame_program(const ERR_FRAME_DESCRIPTION& description, std::uintptr_t address) {
    MACHINE machine(description, address);
    if (description.is_signal_frame || !machine.run(description.initial_begin, description.initial_end) ||
        !machine.run(description.program_begin, description.program_end))
        return {};
    return rule_of(machine.row());
}
