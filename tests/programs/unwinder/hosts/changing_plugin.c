// Built twice with another frame size and so the same code layout: what is at one address in one is at the same
// address in the other.
#include <stdlib.h>
#include <string.h>

__attribute__((noinline)) static int nest(int depth) {
    volatile char room[FRAME_SIZE];
    room[depth] = 1;
    char* const block = malloc(10);
    memset(block, 1, 10);
    const int sum = (depth > 0 ? nest(depth - 1) : 0) + room[depth];
    free(block);
    return sum;
}

__attribute__((visibility("default"))) int work(int depth);
int work(int depth) {
    return nest(depth) + 1;
}
