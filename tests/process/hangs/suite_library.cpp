#include <vbx/mem.h>

#include <cstdlib>

static MEM_INITIALIZER mem_initializer("suite_library");

extern "C" __attribute__((visibility("default"))) void suite_work() {
    for (int round = 0; round < 1000; ++round) {
        void* volatile block = std::malloc(1000);
        std::free(block);
    }
}
