// The debug aids that the configuration asks for.
#pragma once

// Reads the keys and switches their aids on, in a fixed order, which is that of the handlers on each event. A
// pattern that is no number is told of in a line "MEM: ..." on standard error, and its aid stays off.
// Returns whether an aid is on. At tracker start, once. Throws std::bad_alloc.
bool mem_read_debug_aid_settings();
