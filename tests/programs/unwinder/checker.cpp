// A preload library beside the shim: at every allocation of a program it captures the stack in both ways, by
// remembered rules and by libgcc, and compares frame by frame. Its verdict is a file at the end of the
// process.

#include "vbx/platform/tbbamalloc/tbbamalloc.h"
#include "vbx/platform/vbx_err/unwinders.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace {

using FRAMES = std::array<std::uint64_t, 61>;

struct VERDICT {
    std::atomic<long long> captures = 0;
    std::atomic<long long> frames = 0;
    std::atomic<long long> differences = 0;
};

constinit VERDICT verdict;
constinit __thread bool is_capturing = false;

void report_difference(const FRAMES& rules, std::int32_t rules_count, const FRAMES& libgcc,
                       std::int32_t libgcc_count) {
    if (verdict.differences.fetch_add(1) != 0)
        return;
    std::fprintf(stderr, "unwinder: %d frames by rules, %d by libgcc\n", rules_count, libgcc_count);
    for (std::size_t index = 0; index < static_cast<std::size_t>(std::max(rules_count, libgcc_count));
         ++index)
        std::fprintf(stderr, "unwinder: %16llx %16llx\n", static_cast<unsigned long long>(rules[index]),
                     static_cast<unsigned long long>(libgcc[index]));
}

void compare_captures(void*, std::uint64_t, std::uint64_t, bool is_allocation) {
    if (!is_allocation || is_capturing)
        return;
    is_capturing = true;
    FRAMES rules{};
    FRAMES libgcc{};
    const auto room = static_cast<std::int32_t>(rules.size());
    const std::int32_t rules_count =
        ERR_UNWINDER::get_default_unwinder()->capture_stack(rules.data(), room, 0, 0);
    const std::int32_t libgcc_count = err_libgcc_unwinder()->capture_stack(libgcc.data(), room, 0, 0);
    verdict.captures.fetch_add(1, std::memory_order_relaxed);
    verdict.frames.fetch_add(libgcc_count, std::memory_order_relaxed);
    // Out of libgcc itself only the rules lead: libgcc must not be entered a second time.
    if (libgcc_count != 0 && (rules_count != libgcc_count || rules != libgcc))
        report_difference(rules, rules_count, libgcc, libgcc_count);
    is_capturing = false;
}

[[gnu::destructor]] void write_verdict() {
    tbbk_set_mem_tracker_callback(nullptr);
    const char* const directory = std::getenv("VBX_TEST_VERDICTS");
    if (directory == nullptr)
        return;
    char path[4096];
    char text[256];
    std::snprintf(path, sizeof path, "%s/unwinder.%d", directory, getpid());
    const int length =
        std::snprintf(text, sizeof text, "captures=%lld\nframes=%lld\ndifferences=%lld\nlibgcc=%llu\n",
                      verdict.captures.load(), verdict.frames.load(), verdict.differences.load(),
                      static_cast<unsigned long long>(err_count_of_libgcc_captures()));
    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (file < 0 || write(file, text, static_cast<std::size_t>(length)) != length)
        std::abort();
    close(file);
}

[[gnu::constructor]] void begin() {
    if (ERR_UNWINDER::get_default_unwinder() == nullptr)
        std::abort();
    tbbk_set_mem_tracker_callback(compare_captures);
}

} // namespace
