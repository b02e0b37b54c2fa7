// The stack by remembered call frame rules: 7 ns a frame, 35 in an object that could be closed.
//
// Sees what libgcc sees, frame by frame. Whatever is out of the ordinary on the way (signal frames, generated
// code, unusual unwind information, a stack that isn't the thread's own) is left to libgcc, and then the
// whole capture is.

#include "vbx/platform/tbbamalloc/tbbamalloc.h"
#include "vbx/platform/vbx_err/call_frame_rules.h"
#include "vbx/platform/vbx_err/permanent_objects.h"
#include "vbx/platform/vbx_err/stack_bounds.h"
#include "vbx/platform/vbx_err/unwinders.h"

#include <atomic>

namespace {

constexpr std::uintptr_t WORD = 8;

struct REGISTERS {
    std::uint64_t rip;
    std::uint64_t rsp;
    std::uint64_t rbp;
};

// Stack words as they are: other functions' frames, which sanitizers keep from being read.
using STACK_WORD [[gnu::may_alias]] = std::uint64_t;
[[gnu::always_inline, gnu::no_sanitize_address]] inline std::uint64_t stack_word(std::uintptr_t address) {
    return *reinterpret_cast<const STACK_WORD*>(address);
}

enum class RBP { unknown, known };
enum class WALK { is_complete, needs_rbp, needs_libgcc };

enum class VISIT { go_on, end };

// Takes the frames down.
struct FRAME_WRITER {
    ERR_CAPTURE capture;

    VISIT visit(std::uint64_t address) {
        if (capture.skip_frames > 0)
            --capture.skip_frames;
        else
            capture.frames[capture.count++] = address;
        return capture.count == capture.max_frames ? VISIT::end : VISIT::go_on;
    }
};

struct FRAME_ASKER {
    ERR_FRAME_QUESTION question;
    std::int32_t frames_left;
    std::uint64_t answer = 0;

    VISIT visit(std::uint64_t address) {
        answer = question(address);
        return answer != 0 || --frames_left == 0 ? VISIT::end : VISIT::go_on;
    }
};

// Walks up from a frame, at most to `stack_end`, and shows the visitor the frames from the floor on.
// rbp  whether its register is given; if not, a frame that is found by it ends the walk with needs_rbp
template <class VISITOR>
[[gnu::no_sanitize_address]] WALK walk(REGISTERS frame, RBP rbp, std::uintptr_t floor,
                                       std::uintptr_t stack_end, VISITOR& visitor) {
    ERR_FRAME_RULES rules;
    for (;;) {
        if (frame.rip == 0)
            return WALK::is_complete;
        if (frame.rsp >= floor && visitor.visit(frame.rip) == VISIT::end)
            return WALK::is_complete;
        const ERR_FRAME_RULE rule = rules.rule_of(frame.rip);
        std::uintptr_t cfa = static_cast<std::uintptr_t>(std::int64_t{rule.cfa_offset});
        switch (rule.kind) {
        case ERR_FRAME_RULE::KIND::from_rsp:
            cfa += frame.rsp;
            break;
        case ERR_FRAME_RULE::KIND::from_rbp:
            if (rbp == RBP::unknown)
                return WALK::needs_rbp;
            cfa += frame.rbp;
            break;
        case ERR_FRAME_RULE::KIND::outermost:
            return WALK::is_complete;
        default:
            return WALK::needs_libgcc;
        }
        // Every frame lies above its callee's and within the stack, so all that is read below can be read.
        if (cfa <= frame.rsp || cfa > stack_end || cfa % WORD != 0)
            return WALK::needs_libgcc;
        if (rule.rbp_offset != 0) {
            const std::uintptr_t saved_at = cfa + static_cast<std::uintptr_t>(std::int64_t{rule.rbp_offset});
            if (saved_at < frame.rsp || saved_at % WORD != 0)
                return WALK::needs_libgcc;
            frame.rbp = stack_word(saved_at);
            rbp = RBP::known;
        }
        frame.rip = stack_word(cfa - WORD);
        frame.rsp = cfa;
    }
}

// The frames behind the allocator's, or behind the function that this is expanded in when no allocator call
// is under way; the visitor sees them from the first on, maybe after some of them have been in vain. floor
// gets where they begin
template <class VISITOR>
[[gnu::always_inline]] inline WALK walk_own_stack(VISITOR& visitor, std::uintptr_t& floor) {
    // The lookup is for the instruction in front of the address, so there has to be one that leaves the
    // stack pointer alone.
    REGISTERS own;
    asm volatile("nop\n"
                 "1: leaq 1b(%%rip), %0\n\t"
                 "movq %%rsp, %1\n\t"
                 "movq %%rbp, %2"
                 : "=&r"(own.rip), "=&r"(own.rsp), "=&r"(own.rbp));

    const void* const entry_frame = tbbk_entry_frame();
    floor = reinterpret_cast<std::uintptr_t>(entry_frame != nullptr ? entry_frame : __builtin_dwarf_cfa());
    const std::uintptr_t stack_end = err_readable_stack_end(own.rsp);
    if (floor < own.rsp || floor >= stack_end)
        return WALK::needs_libgcc;
    // All that the frame at the floor lacks is its rbp, and most stacks tell it before it is needed. Else the
    // walk begins here, with the frames of the tracker and of the allocator.
    const VISITOR fresh = visitor;
    const WALK outcome = walk({stack_word(floor - WORD), floor, 0}, RBP::unknown, floor, stack_end, visitor);
    if (outcome != WALK::needs_rbp)
        return outcome;
    visitor = fresh;
    return walk(own, RBP::known, floor, stack_end, visitor);
}

class CACHED_UNWINDER final : public ERR_UNWINDER {
  public:
    const char* describe() const override { return "cached call frame rules"; }
    std::int32_t capture_stack(std::uint64_t* frames, std::int32_t max_frames, std::int32_t skip_frames,
                               std::uint64_t reserved) override;
    std::uint64_t ask_frames(ERR_FRAME_QUESTION question, std::int32_t max_frames) override;
};

constinit CACHED_UNWINDER cached_unwinder;
constinit std::atomic<std::uint64_t> libgcc_captures = 0;

[[gnu::noinline]] std::int32_t leave_to_libgcc(ERR_CAPTURE capture) {
    libgcc_captures.fetch_add(1, std::memory_order_relaxed);
    err_capture_by_libgcc(capture);
    return capture.count;
}

[[gnu::noinline]] std::int32_t CACHED_UNWINDER::capture_stack(std::uint64_t* frames, std::int32_t max_frames,
                                                              std::int32_t skip_frames, std::uint64_t) {
    if (max_frames <= 0)
        return 0;
    FRAME_WRITER writer{{frames, max_frames, skip_frames, 0, 0}};
    std::uintptr_t floor = 0;
    if (walk_own_stack(writer, floor) == WALK::is_complete)
        return writer.capture.count;
    return leave_to_libgcc({frames, max_frames, skip_frames, 0, floor});
}

[[gnu::noinline]] std::uint64_t CACHED_UNWINDER::ask_frames(ERR_FRAME_QUESTION question,
                                                            std::int32_t max_frames) {
    FRAME_ASKER asker{question, max_frames};
    std::uintptr_t floor = 0;
    return walk_own_stack(asker, floor) == WALK::is_complete ? asker.answer : ERR_NO_ANSWER;
}

} // namespace

// The call that is under way has put the address down, whatever the stack is.
std::uint64_t err_caller_of_allocator() {
    const void* const entry_frame = tbbk_entry_frame();
    return entry_frame != nullptr ? stack_word(reinterpret_cast<std::uintptr_t>(entry_frame) - WORD) : 0;
}

std::uint64_t err_count_of_libgcc_captures() {
    return libgcc_captures.load(std::memory_order_relaxed);
}

ERR_UNWINDER* ERR_UNWINDER::get_default_unwinder() {
    static constinit bool is_prepared = false;
    if (!is_prepared) {
        if (err_libgcc_unwinder() == nullptr)
            return nullptr;
        err_note_permanent_objects();
        err_note_main_thread();
        is_prepared = true;
    }
    return &cached_unwinder;
}
