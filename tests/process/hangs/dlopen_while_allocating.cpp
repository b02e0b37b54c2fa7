// The loader's locks and the tracker's: first allocations from new code inside a dl_iterate_phdr callback,
// which holds the loader's lock, while other threads load and unload libraries.
#include "busy.h"

#include <dlfcn.h>
#include <link.h>

namespace {

void (*allocate_from_new_code)() = nullptr;

int allocate_inside(dl_phdr_info*, std::size_t, void*) {
    allocate_from_new_code();
    allocate_and_free(1, 10);
    return 0;
}

void load_and_unload(const char* library, int rounds) {
    for (int round = 0; round < rounds; ++round) {
        void* const handle = dlopen(library, RTLD_NOW);
        if (handle == nullptr)
            std::_Exit(2);
        dlclose(handle);
    }
}

} // namespace

int main(int, char** arguments) {
    const BUSY_THREADS busy(2);
    std::thread loader(load_and_unload, arguments[1], 300);
    for (int round = 0; round < 60; ++round) {
        void* const handle = dlopen(arguments[2], RTLD_NOW);
        if (handle == nullptr)
            return 3;
        allocate_from_new_code = reinterpret_cast<void (*)()>(dlsym(handle, "allocate_from_new_code"));
        dl_iterate_phdr(allocate_inside, nullptr);
        dlclose(handle);
    }
    loader.join();
}
