// A C program whose streams and name the library could spoil; the argument says how.
#define _GNU_SOURCE
#include <err.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <wchar.h>

// Wide from the first character on: one narrow write in front would make the rest fail.
static int print_wide(void) {
    free(malloc(100));
    const int written = wprintf(L"wide %ls\n", L"text");
    fwprintf(stderr, L"wide error\n");
    return written == 10 ? 0 : 1;
}

// Standard output and error are closed, and their numbers belong to the program's own file when it ends.
static int close_both(void) {
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    if (open("data", O_RDWR | O_CREAT | O_TRUNC, 0600) != STDOUT_FILENO ||
        open("data", O_RDWR | O_APPEND) != STDERR_FILENO)
        return 2;
    char* const text = strdup("data alone\n");
    const long written = write(STDOUT_FILENO, text, strlen(text));
    free(text);
    return written > 0 ? 0 : 3;
}

// The C library knows the name only if its own initialiser runs with the right arguments.
static int tell_name(void) {
    printf("%s\n", program_invocation_short_name);
    warnx("has a name");
    return 0;
}

int main(int count, char** arguments) {
    const char how = count > 1 ? arguments[1][0] : ' ';
    return how == 'w' ? print_wide() : how == 'c' ? close_both() : tell_name();
}
