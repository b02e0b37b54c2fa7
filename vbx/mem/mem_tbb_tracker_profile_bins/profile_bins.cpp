#include "vbx/mem/mem_tbb_tracker_profile_bins/profile_bins.h"

#include "vbx/mem/base/check.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/platform/os/thread.h"

constinit std::atomic<MEM_PROFILE_BINS*> MEM_PROFILE_BINS::s_instance{nullptr};

namespace {

// Elects the thread that builds the singleton.
class CLAIM {
  public:
    bool take() { return !m_is_taken.exchange(true, std::memory_order_acquire); }
    void give_up() { m_is_taken.store(false, std::memory_order_release); }

  private:
    std::atomic<bool> m_is_taken{false};
};
constinit CLAIM claim;

} // namespace

MEM_PROFILE_BINS& MEM_PROFILE_BINS::make_instance() {
    OS_PATIENCE patience;
    for (;;) {
        if (MEM_PROFILE_BINS* const instance = s_instance.load(std::memory_order_acquire))
            return *instance;
        if (claim.take())
            break;
        patience.wait();
    }
    MEM_CHECK(!s_instance);
    // An event of this thread would ask for the instance and wait for itself.
    const MEM_BLOCK_SCOPE own_heap_use;
    try {
        s_instance.store(new MEM_PROFILE_BINS, std::memory_order_release);
    } catch (...) {
        claim.give_up();
        throw;
    }
    return *s_instance.load(std::memory_order_relaxed);
}
