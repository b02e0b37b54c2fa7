// Looking up functions of other modules.
#pragma once

// Handle of a module that is already in the process, or null. Never loads it.
// file_name  name of the shared library, without directory
void* thr_drl_find_module(const char* file_name);

// Address of a function by its undecorated name, or null. A null handle gives null. Both take the loader's
// lock: never call them inside an event.
void* thr_drl_find_function(void* module, const char* function_name);
