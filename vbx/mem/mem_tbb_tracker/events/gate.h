// The gate of the tracker: event threads pass as mice, the peak walk, the reset and the shutdown as cats.
#pragma once

#include "vbx/mem/base/tracker_gate.h"

// Never freed: a thread that waits in it while the tracker is torn down still finds a gate to leave.
inline constinit MEM_TRACKER_GATE mem_tracker_gate;
inline constinit MEM_TRACKER_GATE* const mem_tbb_gate = &mem_tracker_gate;
