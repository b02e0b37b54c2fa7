// The words that were found, and where. The second shared library of the suite.
#pragma once

#include <string_view>

#define TABLE_API __attribute__((visibility("default")))

struct WORD {
    WORD* next;
    long document;
    char spelling[24];
};

// Puts a word in front of a list and gives the new head.
TABLE_API WORD* table_add_word(WORD* list, std::string_view spelling, long document);
// Frees a list, on whatever thread. Returns the number of its words.
TABLE_API int table_drop_words(WORD* list);

// Bytes in, room for as many bytes out; the contents move along. Begins with null.
TABLE_API char* table_grow_postings(char* postings, unsigned long size);
TABLE_API void table_drop_postings(char* postings);
