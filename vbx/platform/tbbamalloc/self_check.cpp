// Whether the process's malloc is ours.
#include "vbx/platform/tbbamalloc/gate.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <dlfcn.h>
#include <stdlib.h>

namespace {

using MALLOC = void* (*)(std::size_t);

constinit void* volatile probe_block = nullptr;

void allocate_and_free() {
    const MALLOC process_malloc = reinterpret_cast<MALLOC>(dlsym(RTLD_DEFAULT, "malloc"));
    probe_block = process_malloc(1);
    free(probe_block);
}

} // namespace

// Addresses can't be compared: in an executable with fixed addresses that of malloc may be a stub of its own.
// So one block is allocated, and seen to come by the gate or not.
bool tbbk_process_malloc_is_shim() noexcept {
    return tbbk_action_enters(allocate_and_free);
}
