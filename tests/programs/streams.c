// A C program whose streams and name the library could spoil.
#define _GNU_SOURCE
#include <err.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <wchar.h>

int main(void) {
    char* const text = strdup("data alone\n");
    // Wide from the first character on: one narrow write in front would make the rest fail. And the C library
    // knows the name only if its own initialiser runs with the right arguments.
    if (wprintf(L"wide %s\n", program_invocation_short_name) != 13 || fflush(stdout) != 0)
        return 1;
    fwprintf(stderr, L"wide error\n");
    warnx("has a name");
    // At the end the numbers of standard output and error belong to the program's own file.
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    if (open("data", O_RDWR | O_CREAT | O_TRUNC, 0600) != STDOUT_FILENO ||
        open("data", O_RDWR | O_APPEND) != STDERR_FILENO)
        return 2;
    const long written = write(STDOUT_FILENO, text, strlen(text));
    free(text);
    return written > 0 ? 0 : 3;
}
