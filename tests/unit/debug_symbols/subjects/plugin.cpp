// A library that tests load, replace and take apart. VARIANT makes builds that differ in name and line.
#include <cstdlib>

#ifndef VARIANT
#define VARIANT plugin_first
#endif

extern "C" __attribute__((visibility("default"))) void* VARIANT(std::size_t size) {
    void* block = std::malloc(size);
    return size > 100 ? std::realloc(block, size * 2) : block; // a use of the block after the call
}

extern "C" __attribute__((visibility("default"))) void* plugin_code() {
    return reinterpret_cast<void*>(&VARIANT);
}
