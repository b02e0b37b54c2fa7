// The debug aids over invented events: what they write where, what they report, and what is left of them when
// the tracker has gone.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/debug_aids/breakpoint.h"
#include "vbx/mem/debug_aids/settings.h"
#include "vbx/mem/tracker.h"

#include <algorithm>
#include <bitset>
#include <cstring>
#include <iterator>
#include <optional>

namespace {

constexpr std::size_t SLAB = 16384;

// Three slabs, all zero. Where patterns go is counted from the middle one's beginning.
alignas(SLAB) unsigned char memory[3 * SLAB];

std::uint64_t address(std::ptrdiff_t at) {
    return reinterpret_cast<std::uint64_t>(memory + SLAB + at);
}

// What a pattern byte has been written to since the last call: "first..last", "none", or "holes".
std::string take_filled(int byte) {
    const auto first = std::ranges::find(memory, byte);
    const auto behind = std::find_if(first, std::end(memory), [byte](int each) { return each != byte; });
    const auto length = behind - first;
    const bool is_one_stretch = std::ranges::count(memory, 0) + length == std::ssize(memory);
    std::ranges::fill(memory, 0);
    const auto begin = first - memory - std::ptrdiff_t{SLAB};
    return length == 0       ? "none"
           : !is_one_stretch ? "holes"
                             : std::to_string(begin) + ".." + std::to_string(begin + length);
}

class DEBUG_AIDS_TEST : public TRACKER_TEST {};

TEST_F(DEBUG_AIDS_TEST, PatternsAreWrittenFromTheBeginningOfTheSlot) {
    const struct {
        std::ptrdiff_t at;
        std::uint64_t requested, allocated;
        std::string filled;
    } cases[] = {
        {64, 100, 128, "64..164"},
        {64, 0, 128, "64..192"},
        {10000, 700, 1024, "10000..10700"},  // up to 1024 a block begins its slot
        {10000, 700, 8129, "10000..10700"},  // above 8128 there are no slots
        {14336, 2000, 2048, "14336..16336"}, // on a slot's boundary
        {15384, 2500, 3000, "13384..15884"}, // 1000 below the end of the slab, 2000 into its slot
        {15384, 0, 3000, "13384..16384"},
        {0, 5000, 8128, "-8000..-3000"}, // 16384 below the end: 128 more than two slots
        {128, 8128, 8128, "128..8256"},
        {15459, 500, 1025, "15359..15859"},
    };
    mem_set_alloc_pattern(0x1AB);
    for (const auto& [at, requested, allocated, filled] : cases) {
        SCOPED_TRACE(filled);
        fake_allocate(address(at), requested, allocated, {});
        EXPECT_EQ(take_filled(0xAB), filled);
        fake_free(address(at), allocated);
        EXPECT_EQ(take_filled(0xAB), "none");
    }
    mem_set_free_pattern(0xDD);
    fake_free(address(64), 128);
    EXPECT_EQ(take_filled(0xDD), "64..192");
    mem_disable_alloc_patterns();
    EXPECT_FALSE(fake_hook_is_installed());
    mem_set_free_pattern(0xEE);
    fake_allocate(address(64), 100, 128, {});
    EXPECT_EQ(take_filled(0xAB), "none");
    fake_free(address(64), 128);
    EXPECT_EQ(take_filled(0xEE), "64..192");
}

TEST_F(DEBUG_AIDS_TEST, KeysSetPatternsAndTheHexadecimalOneWins) {
    const struct {
        std::string decimal, hexadecimal;
        int byte;
        std::string filled;
        int lines;
    } cases[] = {
        {"171", "", 171, "64..164", 0},
        {" +12ab", "", 12, "64..164", 0},
        {"171", "0x1F", 31, "64..164", 0},
        {"", "-1", 255, "64..164", 0},
        {"x", "", 255, "none", 1},
        {"7", "FFFFFFFF", 7, "64..164", 1},
        {"99999999999", "5", 5, "64..164", 1},
    };
    for (const auto& [decimal, hexadecimal, byte, filled, lines] : cases) {
        SCOPED_TRACE(decimal + "/" + hexadecimal);
        set_variable("mem_alloc_pattern", decimal.c_str());
        set_variable("mem_alloc_pattern_hex", hexadecimal.c_str());
        testing::internal::CaptureStderr();
        EXPECT_EQ(mem_read_debug_aid_settings(), filled != "none");
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_EQ(std::ranges::count(said, '\n'), lines) << said;
        EXPECT_EQ(said.starts_with("MEM: mem_alloc_pattern"), lines != 0) << said;
        fake_allocate(address(64), 100, 128, {});
        EXPECT_EQ(take_filled(byte), filled);
        mem_disable_alloc_patterns();
    }
}

constexpr std::uint64_t BLOCK = 0xA0000;

// Frees and allocations of one block: + and -; b is a free on a thread that the host has blocked, w an
// allocation by an operation of the library; S a shutdown by the host, during which nothing is seen, e one
// that an exit() inside an event has cut short; h a host's callback, which brings the hook back.
void play(const std::string& events) {
    for (const char event : events) {
        std::optional<MEM_BLOCK_SCOPE> own_work;
        if (event == 'w' || event == 'e')
            own_work.emplace();
        if (event == 'b')
            mem_block_thread_tracking();
        if (event == 'S' || event == 'e')
            mem_shutdown_tbb_tracking();
        else if (event == 'h')
            mem_add_callback_function([](void*, std::uint64_t, std::uint64_t, bool) {});
        else if (event == '-' || event == 'b')
            fake_free(BLOCK, 112);
        else
            fake_allocate(BLOCK, 100, 112, {PARSE});
        mem_unblock_thread_tracking();
    }
}

TEST_F(DEBUG_AIDS_TEST, OnlyASecondFreeEndsTheProcess) {
    const EMPTY_FOLDER folder;
    set_variable("mem_check_double_free", "on");
    const std::string fault = "MEM: internal error: Double free detected \\(";
    const std::string sites =
        "^MEM: block 0xa0000 was allocated at parse \\(/src/parse.cpp:10\\), first freed at parse "
        "\\(/src/parse.cpp:10\\)\n";
    const struct {
        std::uint32_t mask;
        std::string events, message;
    } cases[] = {
        {0, "-+-+-", ""},
        {0, "--", "^" + fault},
        {0, "+-+--", "^" + fault},
        {8, "+--", sites + fault},
        {4, "+-+--", sites + fault},
        {8, "--", "^" + fault}, // allocated before the check began
        {8, "-bb+bb-", ""},     // a blocked thread frees unseen
        {8, "-w-", ""},
        {8, "-S-", ""}, // may have been allocated meanwhile
        {8, "-S--", "^" + fault + "|" + fault},
        {8, "+-S--", "^" + fault}, // what was known may be of another block
        {8, "-e+h-", ""},          // the host turns events on again in the middle of it
    };
    for (const auto& [mask, events, message] : cases) {
        SCOPED_TRACE(events);
        const auto run = [mask, events] {
            start(mask);
            play(events);
            std::_Exit(0);
        };
        if (message.empty())
            EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
        else
            EXPECT_EXIT(run(), testing::KilledBySignal(SIGABRT), message);
    }
}

TEST_F(DEBUG_AIDS_TEST, TheLogHasALineForEachEventWhileItIsOn) {
    const EMPTY_FOLDER folder;
    mem_set_print_allocations_callback_enabled(true);
    fake_allocate(0x1000, 0, 16, {});
    mem_set_print_allocations_callback_enabled(false);
    fake_free(0x1000, 16);
    mem_set_print_allocations_callback_enabled(true);
    fake_allocate(0x2000, 100, 112, {});
    start(0);
    mem_shutdown_tbb_tracking();
    EXPECT_FALSE(fake_hook_is_installed());
    for (const auto& descriptor : std::filesystem::directory_iterator("/proc/self/fd"))
        EXPECT_NE(std::filesystem::read_symlink(descriptor).extension(), ".log");
    const std::string lines = "ptr=0x1000, requested_size =0, allocated_size=16, type=alloc\n"
                              "ptr=0x2000, requested_size =100, allocated_size=112, type=alloc\n";
    EXPECT_EQ(test_read_file("mem_allocations.log"), lines);
    mem_set_print_allocations_callback_enabled(true);
    fake_free(0x2000, 112);
    EXPECT_EQ(test_read_file("mem_allocations.log"),
              lines + "ptr=0x2000, requested_size =0, allocated_size=112, type=free\n");
}

// Each set of aids, tracked and untracked: the hook after the shutdown is that of the one callback left, if
// it was taken off with the tracker's handler; behind the teardown an event finds nothing that is gone.
TEST_F(DEBUG_AIDS_TEST, TheEndLeavesTheHookAndNoFreedObjectBehind) {
    const EMPTY_FOLDER folder;
    const char* const keys[] = {"mem_free_pattern", "mem_check_double_free", "mem_breakpoint_callback",
                                "mem_print_allocations"};
    for (const std::uint32_t mask : {0U, 95U})
        for (unsigned aids = 0; aids < 16; ++aids) {
            SCOPED_TRACE(std::bitset<4>(aids).to_string() + " of 95: " + std::to_string(mask));
            const auto run = [&] {
                for (unsigned aid = 0; aid < 4; ++aid)
                    set_variable(keys[aid], (aids >> aid & 1) != 0 ? "1" : "");
                start(mask);
                allocate(address(64), 128, {PARSE});
                mem_tbb_tracker_teardown();
                allocate(address(64), 128, {QUERY});
                release(address(64), 128);
                std::_Exit(fake_hook_is_installed() ? 1 : 0);
            };
            const unsigned left = aids & 0b101; // log and check are taken off the table
            const bool is_one = left == 1 || left == 4;
            EXPECT_EXIT(run(), testing::ExitedWithCode(mask != 0 && is_one && (aids & 2) == 0 ? 1 : 0), "");
        }
}

TEST_F(DEBUG_AIDS_TEST, TheBreakpointKeepsTheFirstBlock) {
    set_variable("mem_breakpoint_callback", "on");
    start(0);
    fake_allocate(0x3000, 1, 8, {});
    fake_free(0x4000, 8);
    EXPECT_EQ(mem_breakpoint_address.load(), reinterpret_cast<void*>(0x3000));
}

} // namespace
