#include "vbx/mem/mem_tbb_tracker/attribution/known_frames.h"

#include "vbx/mem/mem_tbb_tracker/attribution/attribute_stack.h"
#include "vbx/platform/os/address_cache.h"
#include "vbx/platform/vbx_err/vbx_err.h"

#include <atomic>

namespace {

// Of a filtered frame 0, of any other the place of its record.
constinit OS_ADDRESS_CACHE verdicts;
constinit std::atomic<std::uint64_t> table_generation{0};

std::uint64_t verdict_of(std::uint64_t address) {
    std::uint64_t verdict = 0;
    return address != 0 && verdicts.find(address, verdict) ? verdict : ERR_NO_ANSWER;
}

} // namespace

MEM_KNOWN_SITE mem_find_known_site() {
    // In front of all that is looked up: what is found then belongs to this generation or to an older one.
    const std::uint64_t generation = table_generation.load(std::memory_order_acquire);
    // Where the catch-all is missing, the length of a stack decides whether it is made: see the capture.
    MEM_SITE* const catch_all = mem_known_catch_all.load(std::memory_order_acquire);
    if (catch_all == nullptr)
        return {};
    const std::uint64_t answer =
        mem_tbb_unwinder->ask_frames(verdict_of, MEM_CAPTURE_FRAMES + MEM_DEEP_CAPTURE_FRAMES);
    if (answer == ERR_NO_ANSWER)
        return {};
    return {answer != 0 ? reinterpret_cast<MEM_SITE*>(answer) : catch_all, generation};
}

bool mem_is_still_known(const MEM_KNOWN_SITE& known) {
    return known.table_generation == table_generation.load(std::memory_order_relaxed);
}

void mem_remember_frame(MEM_SITE& frame) {
    if (frame.address == 0)
        return;
    const std::uint64_t verdict = frame.filtered ? 0 : reinterpret_cast<std::uint64_t>(&frame);
    std::uint64_t known = 0;
    // Other threads are reading what is there.
    if (!verdicts.find(frame.address, known) || known != verdict)
        verdicts.store(frame.address, verdict);
}

void mem_forget_known_frames() {
    verdicts.clear();
    table_generation.fetch_add(1, std::memory_order_release);
}
