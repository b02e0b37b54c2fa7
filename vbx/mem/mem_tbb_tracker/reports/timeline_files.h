// The timeline logs of the process end.
#pragma once

// Takes the last samples and writes the logs that the report flags ask for: the auxiliary timeline, the
// module timelines of bytes and of cumulative blocks, the bin-tag timeline with the statistics of tags and
// bins. For the shutdown, inside the gate as a cat. A file that can't be written is just missing. Throws
// std::bad_alloc.
void mem_write_timeline_reports();
