#include "vbx/platform/debug_symbols/elf_file.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr std::uint64_t most_section_headers = 1u << 20;
constexpr std::size_t largest_note_section = 1u << 16;

std::size_t align_note(std::size_t size) {
    return (size + 3) & ~std::size_t{3};
}

} // namespace

const char* SYM_BYTES::text_at(std::uint64_t offset) const {
    if (offset >= size || std::memchr(data.get() + offset, '\0', size - offset) == nullptr) {
        return "";
    }
    return data.get() + offset;
}

SYM_BUILD_ID sym_find_build_id(const char* notes, std::size_t size, std::size_t* offset) {
    std::size_t at = 0;
    while (size - at >= sizeof(Elf64_Nhdr)) {
        Elf64_Nhdr note;
        std::memcpy(&note, notes + at, sizeof(note));
        at += sizeof(note);
        const std::size_t name_size = align_note(note.n_namesz);
        const std::size_t data_size = align_note(note.n_descsz);
        if (name_size > size - at || data_size > size - at - name_size) {
            break;
        }
        if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == 4 &&
            std::memcmp(notes + at, ELF_NOTE_GNU, 4) == 0) {
            if (offset != nullptr) {
                *offset = at + name_size;
            }
            const auto* id = reinterpret_cast<const unsigned char*>(notes + at + name_size);
            return SYM_BUILD_ID(id, id + note.n_descsz);
        }
        at += name_size + data_size;
    }
    return {};
}

bool SYM_ELF_FILE::open(const char* path) {
    close();
    // A FIFO or a device must not stop the thread that is inside malloc, nor become its terminal.
    m_descriptor = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (m_descriptor < 0) {
        m_was_refused |= errno == EMFILE || errno == ENFILE || errno == ENOMEM;
        return false;
    }
    m_path = path;
    struct stat status;
    if (fstat(m_descriptor, &status) != 0) {
        m_descriptor = -1;
        return false;
    }
    m_size = static_cast<std::uint64_t>(status.st_size);
    m_device = status.st_dev;
    m_inode = status.st_ino;
    if (!S_ISREG(status.st_mode) || !read_headers()) {
        close();
        return false;
    }
    return true;
}

void SYM_ELF_FILE::close() {
    // If the host closed our descriptor and got the number back for a file of its own, that file stays open.
    if (m_descriptor >= 0 && is_intact()) {
        ::close(m_descriptor);
    }
    m_descriptor = -1;
    m_sections.clear();
    m_program_headers.clear();
    m_section_names = {};
}

bool SYM_ELF_FILE::is_intact() const {
    struct stat status;
    return m_descriptor >= 0 && fstat(m_descriptor, &status) == 0 && status.st_dev == m_device &&
           status.st_ino == m_inode;
}

bool SYM_ELF_FILE::read(std::uint64_t offset, void* out, std::size_t size) const {
    if (offset > m_size || size > m_size - offset) {
        return false;
    }
    auto* to = static_cast<char*>(out);
    while (size > 0) {
        const ssize_t got = pread(m_descriptor, to, size, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        const auto taken = static_cast<std::size_t>(got);
        to += taken;
        offset += taken;
        size -= taken;
    }
    return true;
}

bool SYM_ELF_FILE::read_headers() {
    Elf64_Ehdr header;
    if (!read(0, &header, sizeof(header)) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_ident[EI_DATA] != ELFDATA2LSB ||
        header.e_machine != EM_X86_64) {
        return false;
    }
    if (header.e_phnum > 0) {
        if (header.e_phentsize != sizeof(Elf64_Phdr)) {
            return false;
        }
        m_program_headers.resize(header.e_phnum);
        if (!read(header.e_phoff, m_program_headers.data(), header.e_phnum * sizeof(Elf64_Phdr))) {
            return false;
        }
    }
    if (header.e_shoff == 0) {
        return true; // stripped of its section headers: the module is known, nothing else
    }
    Elf64_Shdr first;
    if (header.e_shentsize != sizeof(Elf64_Shdr) || !read(header.e_shoff, &first, sizeof(first))) {
        return false;
    }
    // Counts that do not fit the header stand in the first section.
    const std::uint64_t count = header.e_shnum != 0 ? header.e_shnum : first.sh_size;
    const std::uint64_t names = header.e_shstrndx != SHN_XINDEX ? header.e_shstrndx : first.sh_link;
    if (count > most_section_headers || count > m_size / sizeof(Elf64_Shdr)) {
        return false;
    }
    m_sections.resize(count);
    if (!read(header.e_shoff, m_sections.data(), count * sizeof(Elf64_Shdr))) {
        return false;
    }
    return names < count && read_section(m_sections[names], m_section_names);
}

std::string_view SYM_ELF_FILE::section_name(const Elf64_Shdr& section) const {
    return m_section_names.text_at(section.sh_name);
}

bool SYM_ELF_FILE::has_contents(const Elf64_Shdr& section) const {
    return section.sh_type != SHT_NOBITS && section.sh_type != SHT_NULL && section.sh_size > 0 &&
           section.sh_offset <= m_size && section.sh_size <= m_size - section.sh_offset;
}

const Elf64_Shdr* SYM_ELF_FILE::find_section(std::string_view name) const {
    for (const Elf64_Shdr& section : m_sections) {
        if (has_contents(section) && section_name(section) == name) {
            return &section;
        }
    }
    return nullptr;
}

bool SYM_ELF_FILE::read_section(const Elf64_Shdr& section, SYM_BYTES& out) const {
    if (!has_contents(section)) {
        return false;
    }
    out.data = std::make_unique_for_overwrite<char[]>(section.sh_size);
    out.size = section.sh_size;
    return read(section.sh_offset, out.data.get(), out.size);
}

SYM_BUILD_ID SYM_ELF_FILE::build_id() const {
    for (const Elf64_Shdr& section : m_sections) {
        SYM_BYTES notes;
        if (section.sh_type == SHT_NOTE && section.sh_size <= largest_note_section &&
            read_section(section, notes)) {
            SYM_BUILD_ID id = sym_find_build_id(notes.data.get(), notes.size);
            if (!id.empty()) {
                return id;
            }
        }
    }
    // A file without section headers still has its notes. Of a debug file the program headers say nothing:
    // they are the module's, with offsets that don't hold in it.
    if (m_sections.empty()) {
        for (const Elf64_Phdr& part : m_program_headers) {
            std::vector<char> notes;
            if (part.p_type == PT_NOTE && part.p_filesz <= largest_note_section) {
                notes.resize(part.p_filesz);
                if (read(part.p_offset, notes.data(), notes.size())) {
                    SYM_BUILD_ID id = sym_find_build_id(notes.data(), notes.size());
                    if (!id.empty()) {
                        return id;
                    }
                }
            }
        }
    }
    return {};
}

std::string SYM_ELF_FILE::real_path() const {
    const std::string link = "/proc/self/fd/" + std::to_string(m_descriptor);
    char path[PATH_MAX];
    const ssize_t size = readlink(link.c_str(), path, sizeof(path));
    return size > 0 && path[0] == '/' ? std::string(path, static_cast<std::size_t>(size)) : m_path;
}
