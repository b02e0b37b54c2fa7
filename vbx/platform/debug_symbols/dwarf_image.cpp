#include "vbx/platform/debug_symbols/dwarf_image.h"

#include <endian.h>

#include <array>
#include <cstring>
#include <new>
#include <string>

namespace {

constexpr std::array<std::string_view, 9> wanted_sections = {
    "info", "abbrev", "line", "line_str", "str", "str_offsets", "addr", "ranges", "rnglists",
};

// What a compressed section may expand to: as much as no compiler ever wrote, and as is no danger to the
// host.
constexpr std::uint64_t most_expansion = 64;
constexpr std::uint64_t largest_expanded_section = std::uint64_t{1} << 31;

struct CHOSEN_SECTION {
    std::string name;
    std::uint64_t size;
    std::uint64_t flags;
    const Elf64_Shdr* source;  // in the file, or null
    std::string_view contents; // when it comes from elsewhere
    std::uint64_t offset = 0;  // in the image
};

constexpr std::uint64_t align(std::uint64_t value) {
    return (value + 15) & ~std::uint64_t{15};
}

// Reads the size that a compressed section claims to expand to.
bool read_expanded_size(const SYM_ELF_FILE& file, const Elf64_Shdr& section, std::string_view name,
                        std::uint64_t& size) {
    if ((section.sh_flags & SHF_COMPRESSED) != 0) {
        Elf64_Chdr header;
        if (section.sh_size < sizeof(header) || !file.read(section.sh_offset, &header, sizeof(header))) {
            return false;
        }
        size = header.ch_size;
        return header.ch_type == ELFCOMPRESS_ZLIB;
    }
    if (name.starts_with(".z")) {
        struct {
            char magic[4];
            std::uint64_t size;
        } __attribute__((packed)) header;
        if (section.sh_size < sizeof(header) || !file.read(section.sh_offset, &header, sizeof(header)) ||
            std::memcmp(header.magic, "ZLIB", sizeof(header.magic)) != 0) {
            return false;
        }
        size = be64toh(header.size);
        return true;
    }
    size = section.sh_size;
    return true;
}

bool is_worth_loading(const SYM_ELF_FILE& file, const Elf64_Shdr& section, std::string_view name) {
    std::uint64_t size = 0;
    return read_expanded_size(file, section, name, size) && size <= largest_expanded_section &&
           size / most_expansion <= section.sh_size;
}

std::vector<CHOSEN_SECTION> choose_sections(const SYM_ELF_FILE& file, SYM_SECTION_NAMES names,
                                            std::span<const SYM_EXTRA_SECTION> extra) {
    std::vector<CHOSEN_SECTION> chosen;
    for (const std::string_view wanted : wanted_sections) {
        for (const char* prefix : {".debug_", ".zdebug_"}) {
            std::string name = std::string(prefix).append(wanted);
            const Elf64_Shdr* section =
                file.find_section(names == SYM_SECTION_NAMES::split ? name + ".dwo" : name);
            if (section != nullptr && is_worth_loading(file, *section, name)) {
                chosen.push_back(
                    {std::move(name), section->sh_size, section->sh_flags & SHF_COMPRESSED, section, {}});
                break;
            }
        }
    }
    for (const SYM_EXTRA_SECTION& section : extra) {
        if (!section.contents.empty()) {
            chosen.push_back({section.name, section.contents.size(), 0, nullptr, section.contents});
        }
    }
    return chosen;
}

Elf64_Ehdr make_header(std::uint64_t section_table, std::size_t section_count) {
    Elf64_Ehdr header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = ELFCLASS64;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_ident[EI_VERSION] = EV_CURRENT;
    header.e_type = ET_EXEC;
    header.e_machine = EM_X86_64;
    header.e_version = EV_CURRENT;
    header.e_ehsize = sizeof(Elf64_Ehdr);
    header.e_shoff = section_table;
    header.e_shentsize = sizeof(Elf64_Shdr);
    header.e_shnum = static_cast<Elf64_Half>(section_count);
    header.e_shstrndx = static_cast<Elf64_Half>(section_count - 1);
    return header;
}

// Lays the image out as header, section contents, section names, section table.
bool build_image(const SYM_ELF_FILE& file, std::vector<CHOSEN_SECTION>& chosen, SYM_BYTES& image) {
    std::uint64_t end = sizeof(Elf64_Ehdr);
    for (CHOSEN_SECTION& section : chosen) {
        section.offset = align(end);
        end = section.offset + section.size;
    }
    std::string names(1, '\0');
    std::vector<Elf64_Shdr> table(1);
    for (const CHOSEN_SECTION& section : chosen) {
        Elf64_Shdr entry{};
        entry.sh_name = static_cast<Elf64_Word>(names.size());
        entry.sh_type = SHT_PROGBITS;
        entry.sh_flags = section.flags;
        entry.sh_offset = section.offset;
        entry.sh_size = section.size;
        entry.sh_addralign = 1;
        table.push_back(entry);
        names.append(section.name).push_back('\0');
    }
    Elf64_Shdr names_entry{};
    names_entry.sh_type = SHT_STRTAB;
    names_entry.sh_offset = align(end);
    names_entry.sh_size = names.size();
    names_entry.sh_addralign = 1;
    table.push_back(names_entry);
    const std::uint64_t table_offset = align(names_entry.sh_offset + names.size());

    image.size = table_offset + table.size() * sizeof(Elf64_Shdr);
    image.data = std::make_unique_for_overwrite<char[]>(image.size);
    for (const CHOSEN_SECTION& section : chosen) {
        char* const to = image.data.get() + section.offset;
        if (section.source == nullptr) {
            std::memcpy(to, section.contents.data(), section.size);
        } else if (!file.read(section.source->sh_offset, to, section.size)) {
            return false;
        }
    }
    const Elf64_Ehdr header = make_header(table_offset, table.size());
    std::memcpy(image.data.get(), &header, sizeof(header));
    std::memcpy(image.data.get() + names_entry.sh_offset, names.data(), names.size());
    std::memcpy(image.data.get() + table_offset, table.data(), table.size() * sizeof(Elf64_Shdr));
    return true;
}

// libdw ends the process when it runs out of memory unless told otherwise. Its frames hold nothing that an
// exception would have to release; what it had begun to build stays with the handle.
__attribute__((noreturn)) void throw_out_of_memory() {
    throw std::bad_alloc();
}

} // namespace

SYM_DWARF_IMAGE::~SYM_DWARF_IMAGE() {
    if (m_dwarf != nullptr) {
        dwarf_end(m_dwarf);
    }
    if (m_elf != nullptr) {
        elf_end(m_elf);
    }
}

bool SYM_DWARF_IMAGE::load(const SYM_ELF_FILE& file, SYM_SECTION_NAMES names,
                           std::span<const SYM_EXTRA_SECTION> extra) {
    std::vector<CHOSEN_SECTION> chosen = choose_sections(file, names, extra);
    if (chosen.empty() || !chosen.front().name.ends_with("info") || !build_image(file, chosen, m_image)) {
        return false;
    }
    elf_version(EV_CURRENT);
    m_elf = elf_memory(m_image.data.get(), m_image.size);
    if (m_elf == nullptr) {
        return false;
    }
    m_dwarf = dwarf_begin_elf(m_elf, DWARF_C_READ, nullptr);
    if (m_dwarf == nullptr) {
        return false;
    }
    dwarf_new_oom_handler(m_dwarf, throw_out_of_memory);
    return true;
}

std::string_view SYM_DWARF_IMAGE::section(std::string_view name) const {
    std::size_t names = 0;
    if (elf_getshdrstrndx(m_elf, &names) != 0) {
        return {};
    }
    for (Elf_Scn* section = elf_nextscn(m_elf, nullptr); section != nullptr;
         section = elf_nextscn(m_elf, section)) {
        const Elf64_Shdr* header = elf64_getshdr(section);
        const char* found = header == nullptr ? nullptr : elf_strptr(m_elf, names, header->sh_name);
        const Elf_Data* data = found == nullptr || name != found ? nullptr : elf_getdata(section, nullptr);
        if (data != nullptr && data->d_buf != nullptr) {
            return {static_cast<const char*>(data->d_buf), data->d_size};
        }
    }
    return {};
}
