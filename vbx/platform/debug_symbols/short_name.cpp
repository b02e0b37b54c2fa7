#include "vbx/platform/debug_symbols/short_name.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::array<std::string_view, 18> runtime_names = {
    "c",      "ld-linux-x86-64", "m",    "pthread", "dl",    "rt",   "stdc++", "gcc_s", "c++",
    "c++abi", "unwind",          "asan", "tsan",    "ubsan", "lsan", "hwasan", "msan",  "linux-vdso",
};

// Of the extension of a shared library: "libfoo.so", "libfoo.so.1", and not "my.solver".
std::size_t find_so(std::string_view name) {
    std::size_t at = name.find(".so");
    while (at != std::string_view::npos && at + 3 != name.size() && name[at + 3] != '.')
        at = name.find(".so", at + 1);
    return at;
}

} // namespace

std::string sym_short_module_name(std::string_view path) {
    std::string_view name = path.substr(path.rfind('/') + 1);
    const std::size_t shared = find_so(name);
    if (shared != std::string_view::npos && shared > 0) {
        name = name.substr(0, shared);
        if (name.starts_with("lib") && name.size() > 3) {
            name.remove_prefix(3);
        }
    } else if (name.ends_with(".exe")) {
        name.remove_suffix(4);
    }
    return std::string(name);
}

bool sym_is_runtime_module(std::string_view short_name) {
    return short_name.starts_with("clang_rt.") ||
           std::find(runtime_names.begin(), runtime_names.end(), short_name) != runtime_names.end();
}
