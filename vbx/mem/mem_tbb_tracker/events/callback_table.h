// The table of event callbacks behind the allocator's one hook.
//
//     table {}              hook null
//     table {A}             hook -> A
//     table {A, B, C}       hook -> dispatcher -> A, B, C in this order
//
// An event sees one state of the table: changes publish a whole new one.
#pragma once

#include <vbx/mem/callbacks.h>
#include <vbx/mem/control.h>

// Adds behind the entries that are there; removes and closes the gap. Both set the hook afresh. They take the
// callback lock; nothing that they do is tracked.
void mem_table_add(MEM_EVENT_CALLBACK callback);
void mem_table_remove(MEM_EVENT_CALLBACK callback);

// Removes at the teardown: a hook that the shutdown has left off stays off for those that remain.
void mem_table_retire(MEM_EVENT_CALLBACK callback);

// Puts the mask in place at tracker start, with the event handler if it isn't 0.
void mem_start_tracking(MEM_TRACKING_GRANULARITY mask);

// For the child of a fork, where tracking has ended: the mask is 0, the table empty, the hook null, the locks
// are free.
void mem_drop_tracking_after_fork();
