// What threads that end and forked children need of the gate beyond the public calls.
#pragma once

#include <cstdint>

struct TBBK_SLOT;

// In a forked child: takes back what the threads that the fork left behind had raised, and their slots.
// Gives whether one of them was inside an entry point at the fork.
bool tbbk_quiesce_keep_only(TBBK_SLOT& own) noexcept;

// Takes back what a thread raised and will never lower: `tid` owned the slot until it ended, or is about to
// give it back. Does nothing for a slot without a raise. May set errno.
void tbbk_quiesce_drop(TBBK_SLOT& slot, std::uint32_t tid) noexcept;
