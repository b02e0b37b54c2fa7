// Undecorating of C++ names, with limits that hold for any text found in a symbol table.
#pragma once

#include <cstddef>

// Writes `name` undecorated, with parameters and without return type, into out: at most length characters,
// the terminating NUL included. A name that is not decorated, is longer than the limit or does not undecorate
// is copied as it stands. Allocates nothing. Any thread, on a stack as large as the service's own.
void sym_demangle(const char* name, char* out, std::size_t length);

// The same for an entry of a symbol table, whose name may carry a version ("memcpy@@GLIBC_2.14").
void sym_demangle_symbol(const char* name, char* out, std::size_t length);
