// What becomes of the registered code modules at the end of the process.
#pragma once

// Prints the registered pairs in order, if the key "debug_msg" was on at load. For an exit handler: lets no
// write end the process, throws nothing.
void mem_list_code_modules();
