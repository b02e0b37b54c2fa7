// A stream that is wide from its first character on: one narrow write in front would make the rest fail.
#include <stdio.h>
#include <stdlib.h>
#include <wchar.h>

int main(void) {
    free(malloc(100));
    const int written = wprintf(L"wide %ls\n", L"text");
    fwprintf(stderr, L"wide error\n");
    return written == 10 ? 3 : 4;
}
