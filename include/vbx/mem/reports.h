// The reports of the tracker, at process end and on demand.
#pragma once

#include <vbx/mem/export.h>

#include <iosfwd>

// Ends tracking and writes every report that is asked for, into the current working directory. The teardown
// of the library does it; hosts may do it earlier. Does nothing unless the tracker has started. A file that
// can't be written is just missing.
VBX_MEM_API void mem_shutdown_tbb_tracking();

// Sets the tag in the names of the report files: mem_tbb_fileline.TAG.log. "tvx" unless set.
// exe_string  copied; must not be null
// Needs a started tracker. One thread at a time. Throws std::bad_alloc, with the tag as it was.
VBX_MEM_API void mem_set_tbb_exe_string(const char* exe_string);

// Writes one line an allocation site (a module), highest peak first. Needs a started tracker; holds up events
// that need a site until it is done. Throws std::bad_alloc, and what the stream is set to throw.
// stream  gets the lines
// Returns true, whatever became of the stream
VBX_MEM_API bool mem_dump_tbb_fileline_tracking(std::ostream& stream);
VBX_MEM_API bool mem_dump_tbb_subsystem_tracking(std::ostream& stream);
