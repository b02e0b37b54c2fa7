#include "word_table.h"

#include <vbx/mem.h>

#include <cstdlib>
#include <memory>

static MEM_INITIALIZER mem_initializer("word_table");

WORD* table_add_word(WORD* list, std::string_view spelling, long document) {
    auto* const word = new WORD{list, document, {}};
    spelling.copy(word->spelling, sizeof word->spelling - 1);
    return word;
}

int table_drop_words(WORD* list) {
    int count = 0;
    while (list != nullptr) {
        const std::unique_ptr<WORD> word(list);
        list = word->next;
        ++count;
    }
    return count;
}

char* table_grow_postings(char* postings, unsigned long size) {
    auto* const grown = static_cast<char*>(std::realloc(postings, size));
    if (grown == nullptr)
        std::abort();
    return grown;
}

void table_drop_postings(char* postings) {
    std::free(postings);
}
