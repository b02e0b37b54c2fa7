// A library that tests load, replace and take apart. VARIANT makes builds that differ in name.
#include <cstdlib>
#ifndef VARIANT
#define VARIANT plugin_first
#endif
extern "C" void* VARIANT(std::size_t size) {
    void* block = std::malloc(size);
    return size > 100 ? std::realloc(block, size * 2) : block; // a use of the block after the call
}
extern "C" void* plugin_code() {
    return reinterpret_cast<void*>(&VARIANT);
}
