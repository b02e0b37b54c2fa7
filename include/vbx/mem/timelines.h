// The timelines: how the memory of each module and tag moves over the run.
//
// A sample is taken every so many allocations and frees, when a new peak is recorded, at process end, and
// when a host asks for one. The time axis is the number of samples; no clock stands behind it.
#pragma once

#include <vbx/mem/export.h>

#include <iosfwd>
#include <string>

// Names what the process is doing, from the next sample on: the first cell of the rows of the module
// timeline.
// label  copied; empty means none, which rows show as "Other"
// Outside the life of the tracker nothing happens. Waits while a module timeline is being reported. Throws
// std::bad_alloc, with the label as it was.
VBX_MEM_API void mem_set_timeline_label(const std::string& label);

// Samples every timeline at once, whatever is switched on. Needs a started tracker; after its teardown
// nothing happens.
VBX_MEM_API void mem_user_snapshot_tracking_data();

// The bytes of each module, one row a sample taken so far, with one tab between columns.
// plain     the 18 modules with the largest maxima, and the sum of all others in a column "Misc"
// detailed  every module
// Figures are written in the number format that the streams are set to. Holds up events that take a sample,
// and mem_set_timeline_label, until it is done. Throws std::bad_alloc, and what the streams are set to throw.
// Returns false, with nothing written, when either stream has failed before or there is no tracker
VBX_MEM_API bool mem_dump_tbb_module_tracking(std::ostream& plain, std::ostream& detailed);

// The bytes of each tag of the profile bins, one row a sample since the start or the last reset. Format,
// waits and errors as above.
// plain     the 18 tags with the largest maxima, and the sum of all others in a column "Misc"
// detailed  every tag
// Returns true
VBX_MEM_API bool mem_dump_tbb_profile_bin_tag_timeline_tracking(std::ostream& plain, std::ostream& detailed);
