// Opens two libraries in turn, and each comes to stand where the other one was, while other threads allocate.
// Arguments: the two libraries. Prints how often a function came to its predecessor's address.
#include <dlfcn.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>

static atomic_int is_over;

static void* allocate(void* unused) {
    while (!is_over)
        free(malloc(100));
    return unused;
}

int main(int count, char** arguments) {
    if (count != 3)
        return 2;
    pthread_t thread;
    pthread_create(&thread, NULL, allocate, NULL);
    void* last = NULL;
    int same = 0;
    for (int round = 0; round < 500; ++round) {
        void* const library = dlopen(arguments[1 + round % 2], RTLD_NOW);
        if (library == NULL)
            return 3;
        int (*work)(int);
        *(void**)&work = dlsym(library, "work");
        same += (void*)work == last;
        last = (void*)work;
        if (work(10) != 12)
            return 4;
        dlclose(library);
    }
    is_over = 1;
    pthread_join(thread, NULL);
    printf("%s\n", same > 400 ? "at the same address" : "elsewhere");
    return 0;
}
