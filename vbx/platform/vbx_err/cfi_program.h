// Runs the call frame instructions of a description.
#pragma once

#include "vbx/platform/vbx_err/eh_frame.h"
#include "vbx/platform/vbx_err/frame_rule.h"

// The rule of the frame that is at `address`, an address in the range of the description and inside of an
// instruction: for a return address, the one before it.
// `unsupported` for signal frames, for expressions, and wherever the return address, the stack pointer or rbp
// are kept in an unusual way. Safe anywhere; reads nothing but the description's instructions.
ERR_FRAME_RULE err_run_call_frame_program(const ERR_FRAME_DESCRIPTION& description, std::uintptr_t address);
