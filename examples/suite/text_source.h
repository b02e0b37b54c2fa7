// The documents of the suite. A shared library of its own, hence a row of its own in the reports.
#pragma once

#define TEXT_API __attribute__((visibility("default")))

constexpr int TEXT_WORDS = 10;

// Keeps a header of the archive for good. This is the planted leak: nobody ever gives it back.
TEXT_API void text_open_archive();

// A document of TEXT_WORDS words with a blank behind each, for text_release_document.
TEXT_API char* text_read_document(int number);
// May be called on another thread than the one that read the document.
TEXT_API void text_release_document(char* document);
