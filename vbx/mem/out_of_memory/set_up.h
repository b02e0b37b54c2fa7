// The steps that lead failed allocations to mem_out_of_memory.
#pragma once

// Whether somebody has called for them in this process.
bool mem_out_of_memory_end_is_asked_for();

// Whether failing allocations lead there.
bool mem_out_of_memory_end_is_installed();

// Installs new mode and new handler; from now on they count as asked for.
void mem_ask_for_out_of_memory_end();

// The same for a thread that starts.
void mem_install_out_of_memory_end();

// Does once, while there is memory, what the last steps do: raises the stored peak, and finds what the query
// of that needs.
void mem_warm_up_last_steps();
