// The samples of the timelines, as the events take them. A sample that there is no memory for is left out;
// the event goes on. The caller's in-tracker byte or block byte is set: the timelines use the heap.
#pragma once

#include <cstdint>

// Inside the gate or outside, with no other lock held.
void mem_sample_modules() noexcept;
void mem_sample_bins_and_tags() noexcept;
// The end of a sample: the label of the row, and what the operating system sees, as far as the mask asks.
void mem_sample_labels_and_auxiliary(std::uint32_t mask) noexcept;
