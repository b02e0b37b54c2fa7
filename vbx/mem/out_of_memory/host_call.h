// The calls of hosts in which the library needs memory, maybe under a lock.
//
// A failing allocation in there is a std::bad_alloc at first, so that the locks are given up. At the edge of
// the call it becomes what it would be in the host's own code. Such a function has a function-try-block,
// because its own objects are gone in the handler, and because a destructor of it would not even run in a
// host that catches nothing:
//
//     void mem_set_tbb_exe_string(const char* exe_string) try {
//         ...
//     } catch (const std::bad_alloc&) {
//         mem_fail_host_call();
//     }
#pragma once

#include <new>

// Where failing allocations lead to mem_out_of_memory, calls that; else, and inside of another operation of
// the library, throws the exception again that is being handled.
[[noreturn]] void mem_fail_host_call();
