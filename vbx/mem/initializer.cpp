#include "vbx/mem/allocator_information.h"
#include "vbx/mem/base/library_lock.h"
#include "vbx/mem/fork_policy.h"
#include "vbx/mem/host/messages.h"
#include "vbx/mem/out_of_memory/out_of_memory.h"
#include "vbx/mem/out_of_memory/reserves.h"
#include "vbx/mem/tracker.h"

#include <vbx/mem/control.h>
#include <vbx/mem/facade.h>
#include <vbx/mem/initializer.h>

#include <atomic>
#include <cstdlib>

unsigned int MEM_INITIALIZER::s_init_counter = 0;

namespace {

// The switch of the load and unload lines is read twice in the life of a process: at the first construction
// and at the first destruction of any initialiser. Whatever the variable holds turns the lines on.
class PRINT_SWITCH {
  public:
    bool is_on() {
        STATE state = m_state.load(std::memory_order_relaxed);
        if (state == STATE::unread) {
            state = std::getenv("MEM_PRINT_LIB_LOAD") != nullptr ? STATE::on : STATE::off;
            m_state.store(state, std::memory_order_relaxed);
        }
        return state == STATE::on;
    }

  private:
    enum class STATE { unread, off, on };
    std::atomic<STATE> m_state{STATE::unread};
};

constinit PRINT_SWITCH load_lines;
constinit PRINT_SWITCH unload_lines;

void start_library() {
    mem_install_fork_policy();
    mem_install_thread_wrapper();
    mem_keep_allocator_information();
    mem_provide_reserves();
    mem_tbb_tracker_start(mem_get_tracking_granularity_from_env());
}

const char* printable(const char* module_name) {
    return module_name != nullptr ? module_name : "(null)";
}

void print_unload_line(const char* module_name) {
    const MEM_STDOUT_AT_END standard_output;
    if (standard_output.can_be_used())
        mem_print_stdout("Unloading: %s\n", printable(module_name));
}

} // namespace

MEM_INITIALIZER::MEM_INITIALIZER(const char* module_name) : m_module_name(module_name) {
    // Libraries can be loaded on several threads at once, and no lock is held here.
    if (std::atomic_ref(s_init_counter).fetch_add(1) == 0) {
        mem_manager.initialize();
        start_library();
    }
    if (load_lines.is_on())
        mem_print_stdout("Loading: %s\n", printable(m_module_name));
}

MEM_INITIALIZER::~MEM_INITIALIZER() {
    const bool prints_line = unload_lines.is_on();
    const MEM_LIBRARY_GUARD guard;
    if (prints_line)
        print_unload_line(m_module_name);
    if (std::atomic_ref(s_init_counter).fetch_sub(1) == 1) {
        mem_tbb_tracker_teardown();
        mem_release_reserves();
        mem_print_kept_allocator_information();
        mem_library_lock.destroy();
    }
}

MEM_INITIALIZER& MEM_INITIALIZER::operator=(const MEM_INITIALIZER& other) {
    m_module_name = other.m_module_name;
    return *this;
}
