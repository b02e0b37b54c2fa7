/* Runs a program once: wall time from before its start to after its end, processor time, peak resident
   memory.

       spawn_and_measure NAME=VALUE... -- PROGRAM ARGUMENTS...

   The variables are added to the program's environment alone. Prints "WALL CPU KIB STATUS", times in ns.

   A program of its own because the kernel's peak begins with that of the process which starts another, up to
   exec: started from an interpreter, every program would show the interpreter's megabytes. Hence also C and
   no stdio before the start. */
#define _GNU_SOURCE
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { MOST_VARIABLES = 512 };

static long long now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

static long long nanoseconds(struct timeval time) {
    return time.tv_sec * 1000000000LL + time.tv_usec * 1000LL;
}

int main(int argc, char** argv) {
    static char* environment[MOST_VARIABLES + 1];
    int count = 0;
    int at = 1;
    for (; at < argc && strcmp(argv[at], "--") != 0 && count < MOST_VARIABLES; ++at)
        environment[count++] = argv[at];
    if (at + 1 >= argc)
        return 2;
    for (char** variable = environ; *variable != NULL && count < MOST_VARIABLES; ++variable)
        environment[count++] = *variable;

    char** const program = argv + at + 1;
    pid_t child = 0;
    int status = 0;
    struct rusage usage;
    const long long start = now();
    if (posix_spawn(&child, program[0], NULL, NULL, program, environment) != 0)
        return 1;
    if (wait4(child, &status, 0, &usage) != child)
        return 1;
    const long long wall = now() - start;
    printf("%lld %lld %ld %d\n", wall, nanoseconds(usage.ru_utime) + nanoseconds(usage.ru_stime),
           usage.ru_maxrss, status);
    return 0;
}
