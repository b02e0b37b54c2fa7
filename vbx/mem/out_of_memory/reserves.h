// Memory that is held for the last steps of a process that runs out of it: one reserve for the process, one
// for each thread that the library sees start.
//
// They make no events: no figure shows them, whoever looks.
#pragma once

#include "vbx/mem/base/library_lock.h"

constexpr unsigned MEM_RESERVE_BYTES = 4096;

// Makes the reserves of the calling thread and of the process where they are missing. False when there is no
// memory for one. The caller must give the lock up before it does anything about that.
[[nodiscard]] bool mem_allocate_reserves() MEM_REQUIRES(mem_library_lock);

// Frees both. Other threads keep theirs; the next thread to start makes that of the process again.
void mem_release_reserves() MEM_REQUIRES(mem_library_lock);
