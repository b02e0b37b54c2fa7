#include "vbx/mem/mem_tbb_tracker/attribution/known_frames.h"

#include "vbx/mem/mem_tbb_tracker/attribution/attribute_stack.h"

namespace {

std::uint64_t verdict_of(std::uint64_t address) {
    std::uint64_t verdict = 0;
    return address != 0 && mem_frame_verdicts.find(address, verdict) ? verdict : ERR_NO_ANSWER;
}

} // namespace

MEM_KNOWN_SITE mem_find_known_site_by_walk(MEM_SITE& catch_all, std::uint64_t generation) {
    const std::uint64_t answer =
        mem_tbb_unwinder->ask_frames(verdict_of, MEM_CAPTURE_FRAMES + MEM_DEEP_CAPTURE_FRAMES);
    if (answer == ERR_NO_ANSWER)
        return {};
    return {answer != 0 ? reinterpret_cast<MEM_SITE*>(answer) : &catch_all, generation};
}

void mem_remember_frame(MEM_SITE& frame) {
    if (frame.address == 0)
        return;
    const std::uint64_t verdict = frame.filtered ? 0 : reinterpret_cast<std::uint64_t>(&frame);
    std::uint64_t known = 0;
    // Other threads are reading what is there.
    if (!mem_frame_verdicts.find(frame.address, known) || known != verdict)
        mem_frame_verdicts.store(frame.address, verdict);
}

void mem_forget_known_frames() {
    mem_frame_verdicts.clear();
    mem_table_generation.fetch_add(1, std::memory_order_release);
}
