#include "tests/fakes/fakes.h"
#include "vbx/platform/os/clock.h"
#include "vbx/platform/vbx_err/vbx_err.h"

#include <algorithm>
#include <utility>

namespace {

thread_local FAKE_STACK current_stack;
thread_local std::vector<FAKE_CAPTURE> captures;

class FAKE_UNWINDER final : public ERR_UNWINDER {
  public:
    const char* describe() const override { return "fake"; }
    std::int32_t capture_stack(std::uint64_t* frames, std::int32_t max_frames, std::int32_t skip_frames,
                               std::uint64_t) override {
        captures.push_back({max_frames, skip_frames});
        const auto size = static_cast<std::int32_t>(current_stack.size());
        const std::int32_t first = std::min(skip_frames, size);
        const std::int32_t count = std::min(max_frames, size - first);
        std::copy_n(current_stack.begin() + first, count, frames);
        return count;
    }
};

FAKE_UNWINDER fake_unwinder;
std::vector<std::int64_t> clock_readings{0};

} // namespace

ERR_UNWINDER* ERR_UNWINDER::get_default_unwinder() {
    return &fake_unwinder;
}

FAKE_STACK_SCOPE::FAKE_STACK_SCOPE(FAKE_STACK stack)
    : m_outer(std::exchange(current_stack, std::move(stack))) {}
FAKE_STACK_SCOPE::~FAKE_STACK_SCOPE() {
    current_stack = std::move(m_outer);
}

std::vector<FAKE_CAPTURE>& fake_captures() {
    return captures;
}

void fake_set_clock(std::vector<std::int64_t> readings) {
    clock_readings = std::move(readings);
}

std::int64_t os_clock() {
    const std::int64_t now = clock_readings.front();
    if (clock_readings.size() > 1)
        clock_readings.erase(clock_readings.begin());
    return now;
}
