/* A program that knows nothing of the library, but may load one that does. */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>

static void* volatile kept;

int main(int count, char** arguments) {
    kept = malloc(3000);
    if (count > 1)
        ((void (*)(void))dlsym(dlopen(arguments[1], RTLD_NOW), "plugin_work"))();
    puts("done");
    return 0;
}
