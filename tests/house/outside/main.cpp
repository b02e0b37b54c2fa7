// A host outside of the source tree. It refers to nothing of the shim by name, and loads a library at run
// time.
#include <vbx/mem.h>

#include <dlfcn.h>

static MEM_INITIALIZER mem_initializer("outside");

static char* volatile kept = nullptr;

int main(int, char** arguments) {
    kept = new char[3000];
    void* const plugin = dlopen(arguments[1], RTLD_NOW);
    void* const work = plugin != nullptr ? dlsym(plugin, "plugin_work") : nullptr;
    if (work == nullptr)
        return 1;
    reinterpret_cast<void (*)()>(work)();
    return 0;
}
