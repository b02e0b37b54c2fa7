// A library of the suite that comes into a process late, while other threads allocate through the shim, and
// goes again. The library stays and writes its reports at the end.
#include "busy.h"

#include <dlfcn.h>

int main(int, char** arguments) {
    const BUSY_THREADS busy(3);
    for (int round = 0; round < 3; ++round) {
        void* const handle = dlopen(arguments[1], RTLD_NOW);
        if (handle == nullptr)
            return 2;
        for (int count = 0; count < 50; ++count)
            reinterpret_cast<void (*)()>(dlsym(handle, "allocate_from_new_code"))();
        dlclose(handle);
    }
    return 9;
}
