// The rule for a return address, from memory where that can be trusted.
#pragma once

#include "vbx/platform/vbx_err/frame_rule.h"

#include <cstdint>

// address  return address of a frame, not 0
// Takes no lock and doesn't allocate; safe in signal handlers.
ERR_FRAME_RULE err_rule_of_frame(std::uint64_t address);
