// The registry of the suite's code modules: which workload each was last compiled for with profile-guided
// optimisation. With the configuration key `debug_msg` on while the library comes up, the process ends with
// a line on standard output for each pair.
#pragma once

#include <vbx/mem/export.h>

// Registers one pair. A pair that is registered already is not added twice; one module may stand there with
// several workloads.
// module        name of the code module; copied
// pgo_workload  name of the workload; copied
//
// Neither may be null: such a pair is dropped. One thread at a time: a host that registers from several has
// to see to it. Takes time in proportion to the logarithm of the number of pairs. Without memory nothing is
// added: the process ends where out-of-memory handling is asked for, else std::bad_alloc is thrown. The
// memory of the registry is not tracked.
VBX_MEM_API void mem_register_dll_for_pgo(const char* module, const char* pgo_workload);
