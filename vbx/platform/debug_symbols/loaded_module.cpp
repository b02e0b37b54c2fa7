#include "vbx/platform/debug_symbols/loaded_module.h"

#include "vbx/platform/os/process.h"

#include <dlfcn.h>
#include <limits.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// The first page of the first segment is mapped as long as the module is; nothing beyond it is relied upon
// before the program headers in it have been read.
constexpr std::size_t header_page = 4096;
constexpr std::size_t largest_notes = 1u << 16;

void* code_pointer(std::uint64_t address) {
    return reinterpret_cast<void*>(address);
}

// Notes may lie on any page, so they are read only inside a readable segment as the program headers give it.
bool is_readable_in(const std::vector<Elf64_Phdr>& headers, const Elf64_Phdr& part) {
    for (const Elf64_Phdr& segment : headers) {
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_R) != 0 && part.p_vaddr >= segment.p_vaddr &&
            part.p_vaddr - segment.p_vaddr <= segment.p_filesz &&
            part.p_filesz <= segment.p_filesz - (part.p_vaddr - segment.p_vaddr)) {
            return true;
        }
    }
    return false;
}

// Copies memory of the module without a fault where it can't be read.
bool copy_image(const char* from, void* out, std::size_t size) {
    iovec local{out, size};
    iovec remote{const_cast<char*>(from), size};
    const ssize_t got = process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
    if (got < 0 && (errno == EPERM || errno == ENOSYS)) {
        // Not allowed in this sandbox. The loader mapped these bytes itself, so the usual case is that all is
        // well.
        std::memcpy(out, from, size);
        return true;
    }
    return got == static_cast<ssize_t>(size);
}

bool read_program_headers(const char* image, std::vector<Elf64_Phdr>& headers) {
    Elf64_Ehdr header;
    if (!copy_image(image, &header, sizeof(header)) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_phentsize != sizeof(Elf64_Phdr) || header.e_phoff > header_page ||
        header.e_phnum > (header_page - header.e_phoff) / sizeof(Elf64_Phdr)) {
        return false;
    }
    headers.resize(header.e_phnum);
    return copy_image(image + header.e_phoff, headers.data(), headers.size() * sizeof(Elf64_Phdr));
}

void read_identity(SYM_LOADED_MODULE& module) {
    SYM_IMAGE_IDENTITY& identity = module.identity;
    const auto* image = reinterpret_cast<const char*>(module.map_start);
    if (!read_program_headers(image, identity.program_headers)) {
        identity.program_headers.clear();
        return;
    }
    for (const Elf64_Phdr& part : identity.program_headers) {
        if (part.p_type != PT_NOTE || part.p_filesz > largest_notes ||
            !is_readable_in(identity.program_headers, part)) {
            continue;
        }
        const auto* notes = reinterpret_cast<const char*>(module.base + part.p_vaddr);
        std::vector<char> copy(part.p_filesz);
        std::size_t offset = 0;
        if (copy_image(notes, copy.data(), copy.size())) {
            identity.build_id = sym_find_build_id(copy.data(), copy.size(), &offset);
        }
        if (!identity.build_id.empty()) {
            const char* in_memory = notes + offset;
            if (in_memory > image && in_memory + identity.build_id.size() <= image + header_page) {
                identity.build_id_in_memory = in_memory;
            }
            return;
        }
    }
}

} // namespace

bool sym_find_loaded_module(std::uint64_t address, SYM_LOADED_MODULE& module) {
    dl_find_object object;
    if (_dl_find_object(code_pointer(address), &object) != 0) {
        return false;
    }
    module.map_start = reinterpret_cast<std::uint64_t>(object.dlfo_map_start);
    module.map_end = reinterpret_cast<std::uint64_t>(object.dlfo_map_end);
    module.loader_entry = object.dlfo_link_map;
    module.base = object.dlfo_link_map->l_addr;
    module.loader_name = object.dlfo_link_map->l_name;
    read_identity(module);
    return true;
}

bool sym_is_module_at(const SYM_LOADED_MODULE& module, std::uint64_t address) {
    dl_find_object object;
    const SYM_IMAGE_IDENTITY& identity = module.identity;
    return _dl_find_object(code_pointer(address), &object) == 0 &&
           object.dlfo_link_map == module.loader_entry &&
           reinterpret_cast<std::uint64_t>(object.dlfo_map_start) == module.map_start &&
           reinterpret_cast<std::uint64_t>(object.dlfo_map_end) == module.map_end &&
           object.dlfo_link_map->l_addr == module.base &&
           module.loader_name == object.dlfo_link_map->l_name &&
           (identity.build_id_in_memory == nullptr ||
            std::memcmp(identity.build_id_in_memory, identity.build_id.data(), identity.build_id.size()) ==
                0);
}

bool sym_may_be_loaded(const SYM_LOADED_MODULE& module) {
    dl_find_object object;
    return _dl_find_object(code_pointer(module.map_start), &object) == 0 &&
           object.dlfo_link_map == module.loader_entry &&
           reinterpret_cast<std::uint64_t>(object.dlfo_map_start) == module.map_start &&
           reinterpret_cast<std::uint64_t>(object.dlfo_map_end) == module.map_end;
}

std::string sym_loaded_module_path(const SYM_LOADED_MODULE& module) {
    if (module.loader_name.empty()) {
        return os_executable_path();
    }
    if (module.loader_name.find('/') == std::string::npos) {
        return {}; // the kernel's vdso
    }
    if (module.loader_name.front() == '/') {
        return module.loader_name;
    }
    // The host may change its directory before the file is opened.
    char directory[PATH_MAX];
    if (getcwd(directory, sizeof(directory)) == nullptr || directory[0] != '/') {
        return module.loader_name;
    }
    return std::string(directory) + '/' + module.loader_name;
}

bool sym_is_file_of_image(const SYM_ELF_FILE& file, const SYM_IMAGE_IDENTITY& identity) {
    const SYM_BUILD_ID build_id = file.build_id();
    if (!build_id.empty() && !identity.build_id.empty()) {
        return build_id == identity.build_id;
    }
    const auto& headers = file.program_headers();
    return !headers.empty() && headers.size() == identity.program_headers.size() &&
           std::memcmp(headers.data(), identity.program_headers.data(),
                       headers.size() * sizeof(Elf64_Phdr)) == 0;
}
