#include "vbx/platform/vbx_thr/vbx_thr.h"

void* thr_drl_find_function(const OS_LIBRARY* module, const char* function_name) {
    return module == nullptr ? nullptr : os_find_function(*module, function_name);
}
