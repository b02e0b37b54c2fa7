// Sites in C: the slot sizes of 100, 70, and 5000 bytes are 112, 80 and 5376.
#include "planted.h"

#include <stdlib.h>

static void* from_malloc[10];
static void* from_calloc[3];
static void* grown;

void c_allocate(void) {
    for (int index = 0; index < 10; ++index) {
        from_malloc[index] = malloc(100); // SITE c_malloc
        KEEP(from_malloc[index]);
    }
    for (int index = 0; index < 3; ++index)
        from_calloc[index] = calloc(7, 10); // SITE c_calloc
    grown = malloc(100);                    // SITE c_before_growth
    KEEP(grown);
    grown = realloc(grown, 5000); // SITE c_growth
    KEEP(grown);
}

void c_free_before_tide(void) {
    for (int index = 0; index < 4; ++index)
        free(from_malloc[index]);
}

// Four of the ten stay.
void c_free_after_tide(void) {
    free(from_malloc[4]);
    free(from_malloc[5]);
    for (int index = 0; index < 3; ++index)
        free(from_calloc[index]);
    free(grown);
}
