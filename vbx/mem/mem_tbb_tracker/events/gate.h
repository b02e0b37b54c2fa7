// The gate of the tracker: event threads pass as mice, the peak walk, the reset and the shutdown as cats.
#pragma once

#include "vbx/mem/base/tracker_gate.h"

// From tracker start to teardown.
inline constinit MEM_TRACKER_GATE* mem_tbb_gate = nullptr;
