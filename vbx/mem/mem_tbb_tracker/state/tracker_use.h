// Calls of hosts that use the tracker's objects.
//
// The allocator shim knows when no event is under way; a host's call from one of its threads is no event, and
// could be in the middle of the objects when the last initialiser of the process goes. The teardown waits for
// such calls, and calls that come later find nothing to use.
#pragma once

#include <cstdint>

class MEM_TRACKER_USE {
  public:
    MEM_TRACKER_USE();
    ~MEM_TRACKER_USE();
    MEM_TRACKER_USE(const MEM_TRACKER_USE&) = delete;
    MEM_TRACKER_USE& operator=(const MEM_TRACKER_USE&) = delete;

    // Whether the objects are there, and stay for as long as this lives.
    explicit operator bool() const { return m_objects_exist; }

  private:
    bool m_objects_exist;
};

// From here on a use finds no objects. For the teardown.
void mem_end_tracker_use();
// Waits until no use lives. False when that takes longer than timeout_ms.
bool mem_tracker_uses_have_ended(unsigned timeout_ms);
// In a forked child: the users are gone.
void mem_forget_tracker_uses();
