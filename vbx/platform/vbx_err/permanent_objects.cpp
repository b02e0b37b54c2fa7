#include "vbx/platform/vbx_err/permanent_objects.h"

#include "vbx/platform/os/process.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/auxv.h>

#include <algorithm>
#include <array>

namespace {

// Those of a larger program that don't fit are looked at again at each frame, which is slower and as right.
constinit std::array<std::uintptr_t, 512> map_starts{};
constinit std::size_t map_start_count = 0;

// The loader lists objects in the order in which they came, so those in front of the loader itself came with
// the program. A few that it lists behind itself may have, too; nothing tells them from what was opened
// later.
struct LISTING {
    std::uintptr_t loader;
    bool is_past_loader;
};

bool is_never_unloaded(const dl_phdr_info& info) {
    for (const ElfW(Phdr)* header = info.dlpi_phdr; header != info.dlpi_phdr + info.dlpi_phnum; ++header) {
        if (header->p_type != PT_DYNAMIC)
            continue;
        const auto* entry = reinterpret_cast<const ElfW(Dyn)*>(info.dlpi_addr + header->p_vaddr);
        for (; entry->d_tag != DT_NULL; ++entry)
            if (entry->d_tag == DT_FLAGS_1)
                return (entry->d_un.d_val & DF_1_NODELETE) != 0;
    }
    return false;
}

std::uintptr_t map_start_of(const dl_phdr_info& info) {
    for (const ElfW(Phdr)* header = info.dlpi_phdr; header != info.dlpi_phdr + info.dlpi_phnum; ++header) {
        dl_find_object object;
        if (header->p_type == PT_LOAD &&
            _dl_find_object(reinterpret_cast<void*>(info.dlpi_addr + header->p_vaddr), &object) == 0)
            return reinterpret_cast<std::uintptr_t>(object.dlfo_map_start);
    }
    return 0;
}

int note_object(dl_phdr_info* info, std::size_t, void* argument) {
    LISTING& listing = *static_cast<LISTING*>(argument);
    if (!listing.is_past_loader || is_never_unloaded(*info)) {
        if (map_start_count == map_starts.size())
            return 1;
        if (const std::uintptr_t map_start = map_start_of(*info))
            map_starts[map_start_count++] = map_start;
    }
    if (info->dlpi_addr == listing.loader && !os_is_before_other_initialisers())
        listing.is_past_loader = true;
    return 0;
}

} // namespace

void err_note_permanent_objects() {
    LISTING listing{getauxval(AT_BASE), false};
    // A loader that was started as a command doesn't know itself by this address; everything is then in
    // front.
    if (listing.loader == 0)
        listing.is_past_loader = !os_is_before_other_initialisers();
    map_start_count = 0;
    dl_iterate_phdr(note_object, &listing);
    std::sort(map_starts.begin(), map_starts.begin() + map_start_count);
}

bool err_is_permanent_object(std::uintptr_t map_start) {
    return std::binary_search(map_starts.begin(), map_starts.begin() + map_start_count, map_start);
}
