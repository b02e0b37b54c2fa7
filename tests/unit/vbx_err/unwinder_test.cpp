// What real programs don't show: broken unwind information, races for a rule, interrupted captures.
#include "vbx/platform/os/address_cache.h"
#include "vbx/platform/vbx_err/cfi_program.h"
#include "vbx/platform/vbx_err/stack_bounds.h"
#include "vbx/platform/vbx_err/unwinders.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <random>
#include <thread>

namespace {

using BYTES = std::vector<std::uint8_t>;
// An object's tables as tools write them, for one function of 100 bytes that begins 4096 bytes behind them.
BYTES tables_with(const std::string& program) {
    BYTES bytes = {1,  0x1B, 3,  0x3B, 0,    0,    0, 0, 1,    0,   0,   0, // header
                   0,  16,   0,  0,    44,   0,    0, 0,                    // row: code and entry
                   20, 0,    0,  0,    0,    0,    0, 0, 1,    'z', 'R', 0, // common entry
                   1,  0x78, 16, 1,    0x1B, 0x0C, 7, 8, 0x90, 1,   0,   0, // factors 1 and -8; CFA rsp + 8
                   28, 0,    0,  0,    28,   0,    0, 0, 0xCC, 15,  0,   0, 100, 0, 0, 0, 0}; // entry
    for (std::size_t at = 0; at < program.size(); at += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(program.substr(at, 2), nullptr, 16)));
    bytes.resize(76);
    return bytes;
}

// For the function's 10th byte. The tables end where memory does: one byte too far is a crash.
ERR_FRAME_RULE rule_in(const BYTES& bytes) {
    static std::uint8_t* const pages = static_cast<std::uint8_t*>(
        mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(pages + 4096, 4096, PROT_NONE);
    std::copy_backward(bytes.begin(), bytes.end(), pages + 4096);
    const auto end = reinterpret_cast<std::uintptr_t>(pages + 4096), address = end - bytes.size() + 4106;
    const ERR_UNWIND_TABLES tables = {end - bytes.size(), end, end - bytes.size()};
    std::uint32_t row = 0;
    ERR_DESCRIPTION_BYTES found;
    ERR_FRAME_DESCRIPTION description;
    if (err_find_row(tables, address, row) != ERR_LOOKUP::found ||
        !err_description_in_row(tables, row, address, found) || !err_read_description(found, description))
        return {};
    return err_run_call_frame_program(description, address);
}

TEST(CallFrames, ThatAreRareLeadToTheCallerOrToLibgcc) {
    using enum ERR_FRAME_RULE::KIND;
    const std::pair<std::string, ERR_FRAME_RULE> programs[] = {
        {"0409000000120770", {128, 0, from_rsp}}, // advance_loc4, def_cfa_sf
        {"1360110604", {256, -32, from_rsp}},     // def_cfa_offset_sf, offset_extended_sf
        {"860207060503020603", {8, 0, from_rsp}}, // undefined
        {"0F0277080C0610", {16, 0, from_rbp}},    // an expression, taken back
        {"1003027600150F70", {8, 0, from_rsp}},   // others, of what doesn't matter
        {"0710", {0, 0, outermost}}};
    for (const auto& [program, rule] : programs)
        EXPECT_EQ(rule_in(tables_with(program)), rule) << program;
    // The CFA by an expression, by r10; rbp above it, too far below, in a register, by an expression, by
    // value; return address elsewhere; rsp saved; state that wasn't remembered, or too often; no instruction.
    for (const char* program : {"0F027708", "0C0A00", "2F0603", "86FF7F", "090603", "1006027600", "140602",
                                "16060100", "9002", "8702", "0B", "0A0A0A0A0A", "3F"})
        EXPECT_EQ(rule_in(tables_with(program)), ERR_FRAME_RULE{}) << program;
    // Version, augmentation (one tells a signal frame), return address column, encoding.
    for (const auto& [at, byte] : {std::pair{28, 2}, {29, 'q'}, {30, 'Q'}, {30, 'S'}, {34, 17}, {36, 0x9B}}) {
        BYTES bytes = tables_with("");
        bytes[static_cast<std::size_t>(at)] = static_cast<std::uint8_t>(byte);
        EXPECT_EQ(rule_in(bytes), ERR_FRAME_RULE{}) << at;
    }
}

TEST(CallFrames, CanBeCutShortOrChangedAnywhere) {
    std::mt19937 random;
    for (int round = 0; round < 20000; ++round) {
        BYTES bytes = tables_with("0A0F0277080B050602");
        for (int change = 0; change < 3; ++change)
            bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
        bytes.resize(bytes.size() - random() % 2 * (random() % 19 * 4));
        rule_in(bytes);
    }
}

// Addresses of one set, three times as many as there is room for: two threads overwrite each other's entries.
TEST(RuleCache, NeverMixesTwoEntries) {
    static constinit OS_ADDRESS_CACHE cache;
    static std::atomic<int> hits = 0;
    const auto work = [](std::mt19937 random) {
        for (std::uint64_t turn = 0, value = 0; turn < 1000000; ++turn) {
            const std::uint64_t address = 4096 + (random() % std::uint64_t{12} << 30);
            if (!cache.find(address, value))
                cache.store(address, address * 3 + 1);
            else if (++hits; value != address * 3 + 1)
                ADD_FAILURE() << address;
        }
    };
    std::thread other(work, std::mt19937(1));
    work(std::mt19937(2));
    other.join();
    EXPECT_GT(hits, 1000);
}

TEST(StackBounds, EndWhereTheThreadsStackEnds) {
    const auto check = [](std::uintptr_t below) {
        const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
        errno = 99;
        const std::uintptr_t end = err_readable_stack_end(here);
        static_cast<void>(*reinterpret_cast<volatile const char*>(end - 1)); // a crash if it is too high
        EXPECT_EQ(err_readable_stack_end(end) + err_readable_stack_end(here - below), 0U);
        EXPECT_TRUE(err_readable_stack_end(here) == end && errno == 99);
    };
    std::thread(check, 16 << 20).join(); // behind the guard page, as far as a stack could reach
    err_note_main_thread();
    check(1 << 30);
}

volatile sig_atomic_t interruptions = 0;

TEST(Unwinder, SeesWhatLibgccSeesAlsoWhenInterrupted) {
    std::array<std::uint64_t, 64> frames[2] = {};
    ERR_UNWINDER* const unwinders[] = {err_libgcc_unwinder(), ERR_UNWINDER::get_default_unwinder()};
    signal(SIGALRM, [](int) {
        std::uint64_t own[9];
        interruptions = interruptions + ERR_UNWINDER::get_default_unwinder()->capture_stack(own, 9, 0, 0) / 9;
    });
    ualarm(100, 100);
    for (std::size_t round = 0; round < 3000000 && interruptions < 300; ++round) {
        // One call for both, so that even the first frames are equal.
        const std::size_t which = std::min(round, std::size_t{1});
        unwinders[which]->capture_stack(frames[which].data(), 64, 0, 0);
        ASSERT_TRUE(which == 0 || frames[0] == frames[1]);
    }
    ualarm(0, 0);
    EXPECT_GT(interruptions, 0);
    EXPECT_EQ(unwinders[1]->capture_stack(frames[1].data(), 2, 2, 0), 2);
    EXPECT_TRUE(std::equal(&frames[1][0], &frames[1][2], &frames[0][2]) && frames[1][2] == frames[0][2]);
}

} // namespace
