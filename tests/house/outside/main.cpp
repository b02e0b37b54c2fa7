// A host outside of the source tree. It refers to nothing of the shim by name, and loads a library at run
// time.
#include <vbx/mem.h>

#include <dlfcn.h>

static MEM_INITIALIZER mem_initializer("outside");

static char* volatile kept = nullptr;

int main(int, char** arguments) {
    kept = new char[3000];
    reinterpret_cast<void (*)()>(dlsym(dlopen(arguments[1], RTLD_NOW), "plugin_work"))();
    return 0;
}
