// A library of the suite that a program loads when it runs already.
#include <vbx/mem.h>

static MEM_INITIALIZER mem_initializer("plugin");

static char* volatile kept = nullptr;

extern "C" __attribute__((visibility("default"))) void plugin_work() {
    kept = new char[5000];
}
