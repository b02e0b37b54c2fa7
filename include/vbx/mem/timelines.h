// The time axis of the reports.
#pragma once

#include <vbx/mem/export.h>

#include <string>

// Sets the label of the samples that follow; empty for none.
VBX_MEM_API void mem_set_timeline_label(const std::string& label);
