// The C library knows the program's name only if its own initialiser runs with the right arguments.
#define _GNU_SOURCE
#include <err.h>
#include <errno.h>
#include <stdio.h>

int main(void) {
    printf("%s\n", program_invocation_short_name);
    warnx("has a name");
    return 0;
}
