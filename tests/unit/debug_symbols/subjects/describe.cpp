// Describes the code of a module through the service, one line an address:
//   describe LIBRARY|self MOST      loads the library; "self" stands for this program; MOST addresses spread
//   over its code
// Output: "0xADDRESS|function|file|line", the address as the symbol file counts.
#include "tests/unit/debug_symbols/ask.h"

#include <dlfcn.h>
#include <link.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct CODE_RANGE {
    const char* name;
    std::uint64_t base;
    std::uint64_t start;
    std::uint64_t end;
};

int find_code(dl_phdr_info* info, std::size_t, void* opaque) {
    auto& range = *static_cast<CODE_RANGE*>(opaque);
    if (std::strcmp(info->dlpi_name, range.name) != 0) {
        return 0;
    }
    for (int index = 0; index < info->dlpi_phnum; ++index) {
        const auto& header = info->dlpi_phdr[index];
        if (header.p_type == PT_LOAD && (header.p_flags & PF_X) != 0) {
            range.base = info->dlpi_addr;
            range.start = info->dlpi_addr + header.p_vaddr;
            range.end = range.start + header.p_memsz;
        }
    }
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    CODE_RANGE range{std::strcmp(argv[1], "self") == 0 ? "" : argv[1], 0, 0, 0};
    if (*range.name != '\0' && dlopen(range.name, RTLD_NOW | RTLD_LOCAL) == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 3;
    }
    dl_iterate_phdr(find_code, &range);
    const std::uint64_t most = std::strtoull(argv[2], nullptr, 10);
    const std::uint64_t step = (range.end - range.start) / most + 1;
    for (std::uint64_t code = range.start; code < range.end; code += step) {
        const ANSWER answer = ask(code + 1); // as a return address
        std::printf("0x%lx|%s|%s|%u\n", static_cast<unsigned long>(code - range.base),
                    answer.function.c_str(), answer.file.c_str(), answer.line);
    }
    sym_release();
    return 0;
}
