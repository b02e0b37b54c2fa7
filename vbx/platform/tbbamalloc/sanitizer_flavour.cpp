// The flavour for sanitizer builds: the sanitizer's malloc stays in place and its hooks feed ours, so that
// multi-threaded tests run with real events. The new mode is kept but nothing asks for it here.
#include "vbx/platform/tbbamalloc/gate.h"
#include "vbx/platform/tbbamalloc/hook.h"
#include "vbx/platform/tbbamalloc/size_table.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <stdlib.h>

// No header of the compiler declares these.
extern "C" {
int __sanitizer_install_malloc_and_free_hooks(void (*malloc_hook)(const volatile void*, std::size_t),
                                              void (*free_hook)(const volatile void*));
std::size_t __sanitizer_get_allocated_size(const volatile void* block);
}

namespace {

constinit std::atomic<bool> is_installed = false;

void* plain(const volatile void* block) noexcept {
    return const_cast<void*>(block);
}

void on_allocation(const volatile void* block, std::size_t requested) {
    if (block == nullptr)
        return;
    TBBK_ENTRY entry;
    const tbbk_mem_tracker_callback hook = tbbk_hook_now();
    // Remembered without a hook as well: it may be there when the block is freed.
    const std::size_t allocated = __sanitizer_get_allocated_size(block);
    if (tbbk_size_table_add(plain(block), allocated) && hook != nullptr)
        tbbk_report_event(hook, TBBK_FRAME, {plain(block), requested, allocated, true});
}

void on_free(const volatile void* block) {
    if (block == nullptr)
        return;
    TBBK_ENTRY entry;
    const tbbk_mem_tracker_callback hook = tbbk_hook_now();
    if (hook != nullptr)
        tbbk_give_notice_of_free(plain(block));
    std::size_t allocated = 0;
    if (tbbk_size_table_take(plain(block), allocated) == TBBK_LOOKUP::found && hook != nullptr)
        tbbk_report_event(hook, TBBK_FRAME, {plain(block), 0, allocated, false});
}

// The runtime can't remove hooks: installed once, for good.
__attribute__((constructor)) void install() {
    is_installed = __sanitizer_install_malloc_and_free_hooks(on_allocation, on_free) != 0;
}

} // namespace

bool tbbk_process_malloc_is_shim() noexcept {
    return is_installed;
}

void* tbbk_obtain_quietly(std::size_t size) noexcept {
    return malloc(size);
}

void tbbk_give_back_quietly(void* block) noexcept {
    free(block);
}

std::size_t _msize(void* block) noexcept {
    return block == nullptr ? 0 : __sanitizer_get_allocated_size(block);
}
