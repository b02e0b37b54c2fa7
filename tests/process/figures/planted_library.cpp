#include "planted.h"

#include <dlfcn.h>

#include <thread>

char* library_buffer() {
    char* const buffer = new char[3000]; // SITE library
    KEEP(buffer);
    return buffer;
}

const void* library_base() {
    Dl_info info;
    return dladdr(reinterpret_cast<const void*>(&library_base), &info) != 0 ? info.dli_fbase : nullptr;
}

void run_on_thread(void (*function)()) {
    std::thread(function).join();
}
