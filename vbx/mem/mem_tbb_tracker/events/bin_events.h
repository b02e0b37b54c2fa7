// The charging of blocks to profile bins and tags. It runs outside the gate of the tracker and rests on the
// block map and on the gate of the two tables.
#pragma once

#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <cstdint>

// words  of the calling thread
void mem_charge_bin_and_tag(TBBK_THREAD_WORDS* words, void* block, std::uint64_t size) noexcept;
void mem_credit_bin_and_tag(TBBK_THREAD_WORDS* words, void* block, std::uint64_t size) noexcept;
// Copies the current figures of both tables into their peak figures.
void mem_snapshot_bin_and_tag_peaks();
