#include "vbx/platform/debug_symbols/debug_file_finder.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

constexpr const char* debug_directory = "/usr/lib/debug";
constexpr std::size_t longest_link_section = 1u << 16;

constexpr std::array<std::uint32_t, 256> make_crc_table() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
        std::uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value & 1) != 0 ? (value >> 1) ^ 0xEDB88320u : value >> 1;
        }
        table[byte] = value;
    }
    return table;
}

constexpr auto crc_table = make_crc_table();

bool has_checksum(const SYM_ELF_FILE& file, std::uint32_t wanted) {
    constexpr std::size_t piece = 1u << 16;
    const auto buffer = std::make_unique_for_overwrite<unsigned char[]>(piece);
    std::uint32_t crc = ~0u;
    for (std::uint64_t offset = 0; offset < file.size();) {
        const std::size_t size =
            static_cast<std::size_t>(std::min<std::uint64_t>(piece, file.size() - offset));
        if (!file.read(offset, buffer.get(), size)) {
            return false;
        }
        for (std::size_t index = 0; index < size; ++index) {
            crc = crc_table[(crc ^ buffer[index]) & 0xFF] ^ (crc >> 8);
        }
        offset += size;
    }
    return ~crc == wanted;
}

std::string build_id_path(const SYM_BUILD_ID& id) {
    constexpr const char* digits = "0123456789abcdef";
    std::string path = std::string(debug_directory) + "/.build-id/";
    for (std::size_t index = 0; index < id.size(); ++index) {
        path.push_back(digits[id[index] >> 4]);
        path.push_back(digits[id[index] & 15]);
        if (index == 0) {
            path.push_back('/');
        }
    }
    return path + ".debug";
}

bool open_by_build_id(const SYM_BUILD_ID& id, SYM_ELF_FILE& file) {
    if (id.size() < 2) {
        return false;
    }
    if (file.open(build_id_path(id).c_str()) && file.build_id() == id) {
        return true;
    }
    file.close();
    return false;
}

bool read_link_section(const SYM_ELF_FILE& file, const char* section_name, SYM_BYTES& link) {
    const Elf64_Shdr* section = file.find_section(section_name);
    return section != nullptr && section->sh_size <= longest_link_section &&
           file.read_section(*section, link) && *link.text_at(0) != '\0';
}

std::string folder_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

bool open_by_link(const SYM_ELF_FILE& module, const SYM_BUILD_ID& id, SYM_ELF_FILE& file) {
    SYM_BYTES link;
    if (!read_link_section(module, ".gnu_debuglink", link)) {
        return false;
    }
    const std::string name = link.text_at(0);
    // The checksum follows the name at the next multiple of four.
    const std::size_t checksum_at = (name.size() + 4) & ~std::size_t{3};
    std::uint32_t checksum = 0;
    if (checksum_at > link.size || link.size - checksum_at < sizeof(checksum)) {
        return false;
    }
    std::memcpy(&checksum, link.data.get() + checksum_at, sizeof(checksum));

    // A library is loaded by one of its names; packages place debug files by the real one.
    std::vector<std::string> candidates;
    for (const std::string& folder : {folder_of(module.path()), folder_of(module.real_path())}) {
        candidates.insert(candidates.end(), {folder + '/' + name, folder + "/.debug/" + name,
                                             debug_directory + folder + '/' + name});
    }
    for (const std::string& candidate : candidates) {
        if (candidate == module.path() || !file.open(candidate.c_str())) {
            continue;
        }
        const SYM_BUILD_ID candidate_id = file.build_id();
        if (!id.empty() && !candidate_id.empty() ? id == candidate_id : has_checksum(file, checksum)) {
            return true;
        }
        file.close();
    }
    return false;
}

} // namespace

bool sym_open_debug_file(const SYM_ELF_FILE& module, SYM_ELF_FILE& debug_file) {
    const SYM_BUILD_ID id = module.build_id();
    return open_by_build_id(id, debug_file) || open_by_link(module, id, debug_file);
}

bool sym_open_shared_debug_file(const SYM_ELF_FILE& file, SYM_ELF_FILE& shared_file) {
    SYM_BYTES link;
    if (!read_link_section(file, ".gnu_debugaltlink", link)) {
        return false;
    }
    const std::string name = link.text_at(0);
    const auto* id_start = reinterpret_cast<const unsigned char*>(link.data.get());
    const SYM_BUILD_ID id(id_start + name.size() + 1, id_start + link.size);
    if (open_by_build_id(id, shared_file)) {
        return true;
    }
    const std::string path = name.front() == '/' ? name : folder_of(file.path()) + '/' + name;
    if (shared_file.open(path.c_str()) && shared_file.build_id() == id) {
        return true;
    }
    shared_file.close();
    return false;
}
