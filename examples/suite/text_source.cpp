#include "text_source.h"

#include <vbx/mem.h>

#include <cstdio>
#include <cstdlib>

// All that a module does to be tracked. The name is for load messages; reports take the file's.
static MEM_INITIALIZER mem_initializer("text_source");

static char* volatile newest_archive = nullptr;

void text_open_archive() {
    newest_archive = new char[200];
}

char* text_read_document(int number) {
    constexpr std::size_t size = 1000;
    auto* const document = static_cast<char*>(std::malloc(size));
    if (document == nullptr)
        std::abort();
    int length = 0;
    for (int word = 0; word < TEXT_WORDS; ++word)
        length += std::snprintf(document + length, size - static_cast<std::size_t>(length), "word%d ",
                                (number + word) % 100);
    return document;
}

void text_release_document(char* document) {
    std::free(document);
}
