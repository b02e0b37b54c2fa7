// Looking up functions of other modules.
#pragma once

#include "vbx/platform/os/loaded_library.h"

// Address of a function by its undecorated name in a module that is in the process, or null. A null module
// gives null.
void* thr_drl_find_function(const OS_LIBRARY* module, const char* function_name);
