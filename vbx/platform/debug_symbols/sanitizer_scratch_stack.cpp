// A sanitizer keeps account of each thread's one stack, and its builds run on stacks of ordinary size.
#include "vbx/platform/debug_symbols/scratch_stack.h"

void sym_run_on_scratch_stack(void (*work)(void*), void* argument) {
    work(argument);
}
