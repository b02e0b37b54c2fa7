// A tracker over the fakes, and the language in which tests speak of events.
#pragma once

#include "tests/fakes/fakes.h"
#include "tests/support/run_child.h"

#include <vbx/mem.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

// Three sites of two modules, and frames that are passed over.
constexpr std::uint64_t PARSE = 0x1000;   // parser!parse, parse.cpp:10
constexpr std::uint64_t EXPAND = 0x1100;  // parser!expand, parse.cpp:20
constexpr std::uint64_t QUERY = 0x2000;   // engine!query, query.cpp:30
constexpr std::uint64_t FILTERED = 0x100; // up to 0x1FF: std::vector's growth

class TRACKER_TEST : public testing::Test {
  protected:
    TRACKER_TEST();

    // Starts the tracker as the library's start does, with these features and so many events a sample.
    static void start(std::uint32_t mask, const char* sample_period = nullptr);
    // The debug messages since the last call, a line each.
    static std::string take_messages();
};

// An empty directory, in which the process is from now on.
struct EMPTY_FOLDER : TEST_DIRECTORY {
    EMPTY_FOLDER() { std::filesystem::current_path(path()); }
};

// One allocation, one free, seen from a stack.
void allocate(std::uint64_t block, std::uint64_t size, FAKE_STACK stack, std::uint64_t requested_size = 0);
void release(std::uint64_t block, std::uint64_t size);
// The three figures, "open close peak".
std::string close_bin(const std::string& tag = {});

// The charged sites, one a line, in the order of their addresses:
// "parse cur 100/1 max 200/2 peak 0/0 cum 300/3 req 290 mis 0". The catch-all is "OTHER".
std::string rendered_sites();
MEMORY_TRACKER_BASE module_record(const std::string& name);
MEMORY_TRACKER_BASE catch_all();
// A timeline's detailed output, from the line of the columns to the footer.
std::string rows_of(bool (*report)(std::ostream&, std::ostream&));

// A configuration key, as an environment variable, for the process of this test.
void set_variable(const char* name, const char* value);

// Runs a job on threads of their own, which it gets the numbers of. They end with the result.
std::vector<std::jthread> run_on_threads(int count, std::function<void(std::uint64_t)> job);
