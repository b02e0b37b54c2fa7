// What a forked child needs of the gate beyond the public calls.
#pragma once

struct TBBK_SLOT;

// In a forked child: takes back what the threads that the fork left behind had raised, and their slots.
// Gives whether one of them was inside an entry point at the fork.
bool tbbk_quiesce_keep_only(TBBK_SLOT& own) noexcept;
