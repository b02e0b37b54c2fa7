#include "vbx/platform/tbbamalloc/new_handler.h"

#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <errno.h>

#include <atomic>

namespace {

constinit std::atomic<int> new_mode = 0;
constinit std::atomic<tbbk_new_handler> new_handler = nullptr;

} // namespace

int _set_new_mode(int mode) noexcept {
    return mode == 0 || mode == 1 ? new_mode.exchange(mode) : -1;
}

tbbk_new_handler _set_new_handler(tbbk_new_handler handler) noexcept {
    return new_handler.exchange(handler);
}

bool tbbk_should_retry(std::size_t size) noexcept {
    const tbbk_new_handler handler = new_handler.load();
    if (new_mode.load() == 1 && handler != nullptr && handler(size) != 0)
        return true;
    errno = ENOMEM;
    return false;
}
