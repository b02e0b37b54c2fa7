#include "vbx/platform/vbx_thr/vbx_thr.h"

#include <dlfcn.h>

void* thr_drl_find_module(const char* file_name) {
    return dlopen(file_name, RTLD_LAZY | RTLD_NOLOAD);
}

void* thr_drl_find_function(void* module, const char* function_name) {
    return module == nullptr ? nullptr : dlsym(module, function_name);
}
