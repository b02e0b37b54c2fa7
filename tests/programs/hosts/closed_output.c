// Standard output and error are closed, and their numbers belong to the program's own file when it ends.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int main(void) {
    if (write(STDOUT_FILENO, "before\n", 7) != 7)
        return 1;
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    if (open("data", O_RDWR | O_CREAT | O_TRUNC, 0600) != STDOUT_FILENO ||
        open("data", O_RDWR | O_APPEND) != STDERR_FILENO)
        return 2;
    char* const text = strdup("data alone\n");
    if (write(STDOUT_FILENO, text, strlen(text)) < 0)
        return 3;
    free(text);
    return 5;
}
