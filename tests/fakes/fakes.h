// The platform as tests script it: events that tests fire, stacks and symbols that tests invent, a clock that
// tests set. Link vbx_fakes in place of the platform's archives.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

using FAKE_STACK = std::vector<std::uint64_t>; // innermost frame first

// Fires the installed hook, if any, as the shim does: with the calling thread inside an allocator call, whose
// stack captures see.
void fake_allocate(std::uint64_t block, std::uint64_t requested_size, std::uint64_t size, FAKE_STACK stack);
void fake_free(std::uint64_t block, std::uint64_t size);
bool fake_hook_is_installed();
bool fake_free_notice_is_installed();
// From now on there was no memory for the words of the calling thread.
void fake_live_without_words();
// How often all threads were fenced.
extern std::atomic<int> fake_fences;

struct FAKE_CAPTURE {
    std::int32_t max_frames;
    std::int32_t skip_frames;
};
// Called once, by the next capture.
extern std::function<void()> fake_capture_hook;
// The captures that the calling thread has made.
std::vector<FAKE_CAPTURE>& fake_captures();

struct FAKE_SYMBOL {
    std::string function;
    std::string file;
    std::uint32_t line = 0;
    std::string module;
    bool is_listed = true; // false: a line query says so until the module list is refreshed
};
// Set before events arrive; queries come under the tracker's own lock.
void fake_define_symbol(std::uint64_t address, FAKE_SYMBOL symbol);
// How often a line was asked for, and how often the module list was refreshed.
extern int fake_line_queries, fake_refreshes;
// Called at the beginning of each line query.
extern std::function<void(std::uint64_t)> fake_symbol_query_hook;

// What os_clock gives, call by call; the last one stays.
void fake_set_clock(std::vector<std::int64_t> readings);
