#include "vbx/platform/debug_symbols/function_index.h"

#include <algorithm>
#include <cstring>

namespace {

bool is_function(const Elf64_Sym& symbol) {
    const unsigned type = ELF64_ST_TYPE(symbol.st_info);
    return (type == STT_FUNC || type == STT_GNU_IFUNC) && symbol.st_shndx != SHN_UNDEF &&
           symbol.st_value != 0 && symbol.st_name != 0;
}

// Which of several names of one function is shown; the higher the better.
int binding_rank(const Elf64_Sym& symbol) {
    switch (ELF64_ST_BIND(symbol.st_info)) {
    case STB_GLOBAL:
    case STB_GNU_UNIQUE:
        return 2;
    case STB_WEAK:
        return 1;
    default:
        return 0;
    }
}

std::uint64_t section_end(const SYM_ELF_FILE& file, const Elf64_Sym& symbol) {
    if (symbol.st_shndx >= file.sections().size()) {
        return symbol.st_value;
    }
    const Elf64_Shdr& section = file.sections()[symbol.st_shndx];
    const std::uint64_t end = section.sh_addr + section.sh_size;
    return symbol.st_value >= section.sh_addr && end >= section.sh_addr ? std::max(end, symbol.st_value)
                                                                        : symbol.st_value;
}

std::uint64_t symbol_end(const Elf64_Sym& symbol) {
    const std::uint64_t end = symbol.st_value + symbol.st_size;
    return end < symbol.st_value ? UINT64_MAX : end;
}

} // namespace

bool SYM_FUNCTION_INDEX::load(const SYM_ELF_FILE& file) {
    for (const Elf64_Word type : {Elf64_Word{SHT_SYMTAB}, Elf64_Word{SHT_DYNSYM}}) {
        for (const Elf64_Shdr& section : file.sections()) {
            if (section.sh_type == type && load_table(file, section)) {
                return true;
            }
        }
    }
    return false;
}

bool SYM_FUNCTION_INDEX::load_table(const SYM_ELF_FILE& file, const Elf64_Shdr& table) {
    SYM_BYTES raw;
    if (table.sh_entsize != sizeof(Elf64_Sym) || table.sh_link >= file.sections().size() ||
        !file.read_section(table, raw) || !file.read_section(file.sections()[table.sh_link], m_names)) {
        return false;
    }
    auto* const first = reinterpret_cast<Elf64_Sym*>(raw.data.get());
    auto* const last = std::remove_if(first, first + raw.size / sizeof(Elf64_Sym),
                                      [](const Elf64_Sym& symbol) { return !is_function(symbol); });
    // Of equal ranges the index answers with the one added last, so the preferred names come last. The name
    // makes the choice stable whatever the order of the table.
    std::sort(first, last, [this](const Elf64_Sym& left, const Elf64_Sym& right) {
        if (left.st_value != right.st_value) {
            return left.st_value < right.st_value;
        }
        const int left_rank = binding_rank(left);
        const int right_rank = binding_rank(right);
        return left_rank != right_rank
                   ? left_rank < right_rank
                   : std::strcmp(m_names.text_at(left.st_name), m_names.text_at(right.st_name)) > 0;
    });
    m_functions.reserve(static_cast<std::size_t>(last - first));
    std::uint64_t covered = 0;     // end of the ranges seen so far
    const Elf64_Sym* next = first; // first symbol behind the start of the current one
    for (const Elf64_Sym* symbol = first; symbol != last; ++symbol) {
        std::uint64_t end = symbol_end(*symbol);
        if (symbol->st_size == 0) {
            // Hand-written code has no sizes: such a function reaches to the next one. Inside a function that
            // has a size it is a mere label.
            while (next != last && next->st_value <= symbol->st_value) {
                ++next;
            }
            end = section_end(file, *symbol);
            if (next != last) {
                end = std::min<std::uint64_t>(end, next->st_value);
            }
            if (symbol->st_value < covered) {
                continue;
            }
        } else {
            covered = std::max(covered, end);
        }
        m_functions.add(symbol->st_value, end, symbol->st_name);
    }
    m_functions.seal();
    return true;
}

bool SYM_FUNCTION_INDEX::find(std::uint64_t address, FUNCTION& function) const {
    const auto* interval = m_functions.find(address);
    if (interval == nullptr) {
        return false;
    }
    function = {m_names.text_at(interval->payload), interval->start};
    return *function.name != '\0';
}
