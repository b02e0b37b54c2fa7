#include "vbx/mem/out_of_memory/report_room.h"

#include "vbx/mem/out_of_memory/set_up.h"
#include "vbx/platform/os/address_room.h"

namespace {

// Enough for the reports of some ten thousand sites. A piece is what the heap asks the system for at a time
// and what alignment takes of it.
constexpr std::size_t MEGABYTE = std::size_t{1} << 20;
constexpr std::size_t PIECE_BYTES = 2 * MEGABYTE;
constexpr std::size_t ROOM_BYTES = 4 * PIECE_BYTES;

constinit OS_ADDRESS_ROOM room;
constinit std::atomic<bool> is_open{false};

} // namespace

void mem_hold_report_room() {
    room.hold(ROOM_BYTES);
}

void mem_open_report_room() {
    if (mem_out_of_memory_end_is_installed())
        is_open.store(true, std::memory_order_relaxed);
    else
        room.give_all_back();
}

bool mem_give_report_room(std::size_t failed_bytes) {
    // A block that no piece has room for can't be had, and would only use the others' up.
    return is_open.load(std::memory_order_relaxed) && failed_bytes < MEGABYTE && room.give_back(PIECE_BYTES);
}
