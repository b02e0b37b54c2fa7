// exit() from where the tracker is in the middle of its work: a host's callback inside an event, and the new
// handler of a failing allocation.
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <vbx/mem.h>

#include <sys/resource.h>

#include <cstdlib>
#include <cstring>

namespace {

void exit_at_marked_size(void*, std::uint64_t, std::uint64_t size, bool is_allocation) {
    if (is_allocation && size == 123'456)
        std::exit(9);
}

int exit_from_handler(std::size_t) {
    std::exit(9);
}

void fail_to_allocate() {
    const rlimit limit{1U << 30, 1U << 30};
    setrlimit(RLIMIT_AS, &limit);
    void* volatile block = std::malloc(std::size_t{1} << 40);
    std::free(block);
}

} // namespace

int main(int, char** arguments) {
    if (std::strcmp(arguments[1], "callback") == 0) {
        mem_add_callback_function(exit_at_marked_size);
        void* volatile block = std::malloc(123'456);
        std::free(block);
    } else {
        _set_new_handler(exit_from_handler);
        _set_new_mode(1);
        fail_to_allocate();
    }
    return 8;
}
