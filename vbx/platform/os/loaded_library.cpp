#include "vbx/platform/os/loaded_library.h"

#include <algorithm>
#include <cstring>

namespace {

struct SEARCH {
    const char* file_name;
    OS_LIBRARY* library;
};

const char* base_name(const char* path) {
    const char* const slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

int look_at_module(dl_phdr_info* info, std::size_t, void* argument) {
    const SEARCH& search = *static_cast<const SEARCH*>(argument);
    if (info->dlpi_name == nullptr || std::strcmp(base_name(info->dlpi_name), search.file_name) != 0)
        return 0;
    OS_LIBRARY& library = *search.library;
    library.base = info->dlpi_addr;
    for (const ElfW(Phdr)* header = info->dlpi_phdr; header != info->dlpi_phdr + info->dlpi_phnum; ++header) {
        const std::uintptr_t begin = info->dlpi_addr + header->p_vaddr;
        if (header->p_type == PT_DYNAMIC) {
            library.dynamic = reinterpret_cast<const ElfW(Dyn)*>(begin);
        } else if (header->p_type == PT_LOAD && (header->p_flags & PF_X) != 0) {
            library.code_begin = begin;
            library.code_end = begin + header->p_memsz;
        }
    }
    return 1;
}

// The tables of a module's exported symbols.
struct SYMBOLS {
    const ElfW(Sym) * symbols = nullptr;
    const char* names = nullptr;
    const ElfW(Versym) * versions = nullptr;
    const std::uint32_t* hash = nullptr;
    const std::uint32_t* gnu_hash = nullptr;

    std::uint32_t count() const { return hash != nullptr ? hash[1] : count_of_gnu_hash(); }

  private:
    // The GNU table doesn't tell how many symbols there are: the last chain ends with the last symbol.
    std::uint32_t count_of_gnu_hash() const {
        if (gnu_hash == nullptr)
            return 0;
        const std::uint32_t bucket_count = gnu_hash[0];
        const std::uint32_t first_hashed = gnu_hash[1];
        const std::uint32_t bloom_words = gnu_hash[2] * std::uint32_t{sizeof(ElfW(Addr)) / 4};
        const std::uint32_t* const buckets = gnu_hash + 4 + bloom_words;
        const std::uint32_t* const chains = buckets + bucket_count;
        std::uint32_t last = *std::max_element(buckets, buckets + bucket_count);
        if (last < first_hashed)
            return first_hashed;
        while ((chains[last - first_hashed] & 1) == 0)
            ++last;
        return last + 1;
    }
};

SYMBOLS symbols_of(const OS_LIBRARY& library) {
    SYMBOLS tables;
    for (const ElfW(Dyn)* entry = library.dynamic; entry != nullptr && entry->d_tag != DT_NULL; ++entry) {
        // The loader turns these into addresses where the section can be written to.
        const std::uintptr_t value = entry->d_un.d_ptr;
        const std::uintptr_t address = value < library.base ? library.base + value : value;
        switch (entry->d_tag) {
        case DT_SYMTAB:
            tables.symbols = reinterpret_cast<const ElfW(Sym)*>(address);
            break;
        case DT_STRTAB:
            tables.names = reinterpret_cast<const char*>(address);
            break;
        case DT_VERSYM:
            tables.versions = reinterpret_cast<const ElfW(Versym)*>(address);
            break;
        case DT_HASH:
            tables.hash = reinterpret_cast<const std::uint32_t*>(address);
            break;
        case DT_GNU_HASH:
            tables.gnu_hash = reinterpret_cast<const std::uint32_t*>(address);
            break;
        default:
            break;
        }
    }
    return tables;
}

constexpr ElfW(Versym) OLD_VERSION = 0x8000;

} // namespace

bool os_find_library(const char* file_name, OS_LIBRARY& library) {
    SEARCH search{file_name, &library};
    return dl_iterate_phdr(look_at_module, &search) != 0;
}

void* os_find_function(const OS_LIBRARY& library, const char* name) {
    const SYMBOLS tables = symbols_of(library);
    if (tables.symbols == nullptr || tables.names == nullptr)
        return nullptr;
    const std::uint32_t count = tables.count(); // a walk through the whole hash table
    for (std::uint32_t index = 0; index < count; ++index) {
        const ElfW(Sym)& symbol = tables.symbols[index];
        const bool is_old = tables.versions != nullptr && (tables.versions[index] & OLD_VERSION) != 0;
        if (symbol.st_shndx != SHN_UNDEF && ELF64_ST_TYPE(symbol.st_info) == STT_FUNC && !is_old &&
            std::strcmp(tables.names + symbol.st_name, name) == 0)
            return reinterpret_cast<void*>(library.base + symbol.st_value);
    }
    return nullptr;
}
