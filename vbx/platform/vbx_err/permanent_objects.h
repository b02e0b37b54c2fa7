// The loaded objects that stay for the life of the process: the program, what it was linked with and what was
// preloaded.
//
// What is known about their code stays true. Behind every other object dlclose can put another one at the
// same place.
#pragma once

#include <cstdint>

// Takes note of them. Takes the loader's lock: call it once, at start, before the first question.
void err_note_permanent_objects();

// Whether the object that is mapped at `map_start` is known to stay. Safe anywhere.
bool err_is_permanent_object(std::uintptr_t map_start);
