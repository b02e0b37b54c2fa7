// Facts about the process.
#pragma once

#include <string>

// Path of the running executable, or where it was when it has been removed; empty when the kernel doesn't
// tell.
std::string os_executable_path();

// Whether the process is still before the first initialiser of any library but the one that asks. Other
// modules can be found and resolved then, but nothing in them has been constructed.
bool os_is_before_other_initialisers();
void os_other_initialisers_begin();
