#include "vbx/mem_utils/out_of_memory.h"

#include <vbx/mem/info.h>

#include <cstdio>
#include <cstdlib>

void mem_utils_out_of_memory() {
    std::fflush(stdout);
    std::fflush(stderr);
    const auto megabytes = static_cast<int>(mem_info_get_process_peak_virtual_used() / 1'000'000);
    std::fprintf(stderr, "\nOut of memory (%d megabytes used)\n", megabytes);
    std::fflush(stderr);
    std::exit(1);
}
