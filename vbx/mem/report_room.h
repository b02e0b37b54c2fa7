// Room for the reports of a process that has none left: held from the tracker's start, given back when the
// reports are written. They are wanted most where memory has run out.
#pragma once

#include "vbx/platform/os/address_room.h"

inline constinit OS_ADDRESS_ROOM mem_report_room;

// Enough for the reports of some ten thousand sites; the heap asks the system for one megabyte at a time.
constexpr std::size_t MEM_REPORT_ROOM_BYTES = std::size_t{4} << 20;
