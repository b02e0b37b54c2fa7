// The lock of a stdio stream, for those who can't wait for it without end: another thread may hold it for
// good.
#pragma once

#include <cstdio>

// Locks the stream; funlockfile gives it back.
// tries  at least 1. Between two of them the thread yields, and from the 65th on sleeps for moments
// Returns false when another thread held the lock each time. Any thread; no cancellation point.
bool os_lock_stream(std::FILE* stream, unsigned tries);
