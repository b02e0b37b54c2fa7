// A symbol file, read piece by piece and never mapped: a mapped file that somebody truncates kills the
// process.
//
// Everything in the file is taken for hostile. Whatever this class hands out lies within the file as it was
// when opened, so nothing that a file claims makes us allocate more than its own size.
#pragma once

#include <elf.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct SYM_BYTES {
    std::unique_ptr<char[]> data;
    std::size_t size = 0;

    // Text that starts at offset and ends with a NUL within these bytes; empty when there is none.
    const char* text_at(std::uint64_t offset) const;
};

using SYM_BUILD_ID = std::vector<unsigned char>;

// Looks through notes as they stand in memory or in a file; an empty id when there is none. Sets *offset, if
// given, to where the id stands in them.
SYM_BUILD_ID sym_find_build_id(const char* notes, std::size_t size, std::size_t* offset = nullptr);

class SYM_ELF_FILE {
  public:
    SYM_ELF_FILE() = default;
    ~SYM_ELF_FILE() { close(); }
    SYM_ELF_FILE(const SYM_ELF_FILE&) = delete;
    SYM_ELF_FILE& operator=(const SYM_ELF_FILE&) = delete;

    // Opens a regular file without ever blocking (a FIFO is refused) and reads its headers. False when it
    // can't be opened, is no 64-bit ELF file of this machine or its tables don't lie within it.
    bool open(const char* path);
    void close();

    // Behind opens or reads that failed: whether the cause may pass. For any of them the process was out of
    // descriptors or memory, or the host has closed ours.
    bool may_succeed_later() const { return m_was_refused || (m_descriptor >= 0 && !is_intact()); }

    // Reads exactly `size` bytes at `offset`; false at the end of the file and on errors.
    bool read(std::uint64_t offset, void* out, std::size_t size) const;

    // Whether our descriptor still is the file that was opened: hosts close descriptors they don't own.
    bool is_intact() const;

    const std::vector<Elf64_Shdr>& sections() const { return m_sections; }
    const std::vector<Elf64_Phdr>& program_headers() const { return m_program_headers; }
    std::string_view section_name(const Elf64_Shdr& section) const;

    // First section of that name with contents in this file, or null.
    const Elf64_Shdr* find_section(std::string_view name) const;

    // False when the section has no contents, is not within the file or can't be read.
    bool read_section(const Elf64_Shdr& section, SYM_BYTES& out) const;

    SYM_BUILD_ID build_id() const;
    std::uint64_t size() const { return m_size; }
    const std::string& path() const { return m_path; }

    // The path with symbolic links resolved; path() where that can't be told.
    std::string real_path() const;

  private:
    bool read_headers();
    bool has_contents(const Elf64_Shdr& section) const;

    int m_descriptor = -1;
    bool m_was_refused = false;
    std::uint64_t m_size = 0;
    dev_t m_device = 0;
    ino_t m_inode = 0;
    std::string m_path;
    std::vector<Elf64_Shdr> m_sections;
    std::vector<Elf64_Phdr> m_program_headers;
    SYM_BYTES m_section_names;
};
