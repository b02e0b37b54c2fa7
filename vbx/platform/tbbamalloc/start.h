// What the shim sets up once: fork handlers, thread ends, membarrier.
#pragma once

// Runs with the first entry of the process, the constructor or tbbk_guard_forks, whichever is first; calls
// after the first do nothing. A second thread doesn't wait for the first one to be done.
void tbbk_start() noexcept;
