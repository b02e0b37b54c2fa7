#include "vbx/platform/os/process.h"

#include <unistd.h>

#include <string_view>

namespace {

constinit bool before_other_initialisers = false;

// A library that the loader initialises before all others runs before libc has set `environ` up, so getenv
// would answer nothing. The loader hands the environment to every constructor; this one comes before all
// others of its library. It stands in the loader's list itself: optimisation at link time calls what is
// marked as a constructor from one function of its own, and without these arguments.
void adopt_environment(int, char**, char** environment) {
    if (environ == nullptr) {
        environ = environment;
        before_other_initialisers = true;
    }
}
using INITIALISER = void(int, char**, char**);
[[gnu::section(".init_array.00101"), gnu::used]] constinit INITIALISER* first_initialiser = adopt_environment;

} // namespace

std::string os_executable_path() {
    constexpr std::string_view REMOVED = " (deleted)"; // the kernel's remark
    std::string path(256, '\0');
    for (;;) {
        const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
        if (length < 0)
            return {};
        if (static_cast<std::size_t>(length) < path.size()) {
            path.resize(static_cast<std::size_t>(length));
            if (path.ends_with(REMOVED))
                path.resize(path.size() - REMOVED.size());
            return path;
        }
        path.resize(path.size() * 2);
    }
}

bool os_is_before_other_initialisers() {
    return before_other_initialisers;
}
void os_other_initialisers_begin() {
    before_other_initialisers = false;
}
