// A host outside of the source tree. It refers to nothing of the shim by name.
#include <vbx/mem.h>

static MEM_INITIALIZER mem_initializer("outside");

static char* volatile kept = nullptr;

int main() {
    kept = new char[3000];
    return 0;
}
