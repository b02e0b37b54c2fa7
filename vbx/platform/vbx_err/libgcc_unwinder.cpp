// The stack as libgcc sees it: the truth about every frame with unwind information, at 2 us and more for 14
// frames.
//
// libgcc finds the tables of a frame through the loader's lock-free lookup. It takes no lock and allocates
// nothing, unless the process has registered unwind tables of generated code: then it holds a lock of its own
// while it sorts them, and allocates inside. An event that comes from there must not unwind, or its thread
// waits for itself (see allocated_by_libgcc); and whoever calls for a stack must hold nothing that such an
// event goes on to need.

#include "vbx/platform/os/loaded_library.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"
#include "vbx/platform/vbx_err/unwinders.h"

#include <unwind.h>

namespace {

using BACKTRACE_FUNCTION = _Unwind_Reason_Code (*)(_Unwind_Trace_Fn, void*);

_Unwind_Reason_Code store_frame(_Unwind_Context* context, void* argument) {
    ERR_CAPTURE& capture = *static_cast<ERR_CAPTURE*>(argument);
    if (_Unwind_GetCFA(context) < capture.floor)
        return _URC_NO_REASON;
    if (capture.skip_frames > 0) {
        --capture.skip_frames;
        return _URC_NO_REASON;
    }
    if (capture.count == capture.max_frames)
        return _URC_END_OF_STACK;
    int is_interrupted = 0;
    std::uint64_t address = _Unwind_GetIPInfo(context, &is_interrupted);
    if (address == 0)
        return _URC_END_OF_STACK;
    // A frame that a signal interrupted stands at the instruction itself, not behind a call. One more makes
    // it look like a return address, which is what every reader of a frame takes it for.
    if (is_interrupted != 0)
        ++address;
    capture.frames[capture.count++] = address;
    return capture.count == capture.max_frames ? _URC_END_OF_STACK : _URC_NO_REASON;
}

class LIBGCC_UNWINDER final : public ERR_UNWINDER {
  public:
    // False when the process has no libgcc.
    bool prepare();

    const char* describe() const override { return "libgcc"; }
    std::int32_t capture_stack(std::uint64_t* frames, std::int32_t max_frames, std::int32_t skip_frames,
                               std::uint64_t reserved) override;
    void capture(ERR_CAPTURE& capture) const;

  private:
    bool allocated_by_libgcc(const void* entry_frame) const;

    BACKTRACE_FUNCTION m_backtrace = nullptr;
    OS_LIBRARY m_libgcc;
};

bool LIBGCC_UNWINDER::prepare() {
    if (m_backtrace != nullptr)
        return true;
    // Other libraries export functions of the same name, with locks and caches of their own, and may stand
    // first in the search order; so ask libgcc itself. This library depends on it: it is always there.
    if (!os_find_library("libgcc_s.so.1", m_libgcc))
        return false;
    m_backtrace = reinterpret_cast<BACKTRACE_FUNCTION>(os_find_function(m_libgcc, "_Unwind_Backtrace"));
    return m_backtrace != nullptr;
}

bool LIBGCC_UNWINDER::allocated_by_libgcc(const void* entry_frame) const {
    if (entry_frame == nullptr)
        return false;
    const std::uintptr_t caller = static_cast<const std::uintptr_t*>(entry_frame)[-1];
    return caller >= m_libgcc.code_begin && caller < m_libgcc.code_end;
}

void LIBGCC_UNWINDER::capture(ERR_CAPTURE& capture) const {
    if (!allocated_by_libgcc(tbbk_entry_frame()))
        m_backtrace(store_frame, &capture);
}

std::int32_t LIBGCC_UNWINDER::capture_stack(std::uint64_t* frames, std::int32_t max_frames,
                                            std::int32_t skip_frames, std::uint64_t) {
    const void* const entry_frame = tbbk_entry_frame();
    if (max_frames <= 0)
        return 0;
    ERR_CAPTURE wanted{frames, max_frames, skip_frames, 0, reinterpret_cast<std::uintptr_t>(entry_frame)};
    // Outside the hook there is no entry frame; the walk then begins behind this function.
    if (entry_frame == nullptr)
        wanted.floor = reinterpret_cast<std::uintptr_t>(__builtin_dwarf_cfa());
    capture(wanted);
    return wanted.count;
}

constinit LIBGCC_UNWINDER libgcc_unwinder;

} // namespace

ERR_UNWINDER* err_libgcc_unwinder() {
    return libgcc_unwinder.prepare() ? &libgcc_unwinder : nullptr;
}

void err_capture_by_libgcc(ERR_CAPTURE& capture) {
    libgcc_unwinder.capture(capture);
}
