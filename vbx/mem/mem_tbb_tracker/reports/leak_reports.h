// What the process still holds at its end. Both run inside the gate as a cat. A file that can't be written is
// just missing.
#pragma once

// One line an allocation site that still holds bytes, largest first.
void mem_write_full_leak_report();

// The two global figures, appended to a file that collects a block a process.
void mem_write_fast_leak_report();
