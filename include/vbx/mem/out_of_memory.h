// The end of a process that has no memory left: a reserve is given back, the host's handler runs or one line
// goes to standard error, and the process leaves through exit() with status 1, so reports are written.
//
// Nothing of this is on until a host calls mem_set_out_of_memory_handler or, in a linked process, starts a
// thread: before that a failed allocation is the host's own affair. In a preloaded program threads change
// nothing. docs/out-of-memory.md tells the whole of it.
#pragma once

#include <vbx/err.h>
#include <vbx/mem/export.h>

// What a host does about exhausted memory; see mem_set_out_of_memory_handler.
using MEM_OUT_OF_MEMORY_HANDLER = void (*)();

extern "C" {
// Ends the process as told above. Of several threads that call it one does so, and the others wait for the
// end. A call from inside the handler, or from what exit() runs, goes on with the exit at once. Any thread,
// but none that holds locks which exit handlers of the host take. Allocates nothing itself.
[[noreturn]] VBX_MEM_API void mem_out_of_memory();
}

// From now on a failing malloc or operator new of any thread ends the process; so does a call of the library
// that fails for want of memory. What the library needs inside of an allocation or for a report it goes
// without: a block is not recorded, a report is missing, and a line says so.
// handler  runs once, in place of the line on standard error, on the thread that ran out first; it may use
//          the reserve of a few kilobytes, and can't save the process. Null selects the line
// Any thread. Reads a file of the kernel.
VBX_MEM_API void mem_set_out_of_memory_handler(MEM_OUT_OF_MEMORY_HANDLER handler);

// For hosts that tell of exhausted memory by an exception. The library never throws it.
class VBX_MEM_API MEM_OUT_OF_MEMORY : public ERR_EXCEPTION {
  public:
    MEM_OUT_OF_MEMORY();
    MEM_OUT_OF_MEMORY(const MEM_OUT_OF_MEMORY&);
    MEM_OUT_OF_MEMORY(MEM_OUT_OF_MEMORY&&) noexcept;
    MEM_OUT_OF_MEMORY& operator=(const MEM_OUT_OF_MEMORY&);
    MEM_OUT_OF_MEMORY& operator=(MEM_OUT_OF_MEMORY&&) noexcept;
    ~MEM_OUT_OF_MEMORY() override;
};
