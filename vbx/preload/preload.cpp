// Brings the library into an unmodified program: first of all that comes up, last of all that goes down.
//
//     LD_PRELOAD="libtbbamalloc.so libvbx_mem_preload.so" program
//
// Standard output of such a program is its data and its streams are its own: what the library prints goes to
// descriptor 2, by write().

#include "vbx/mem/host/preload_seam.h"
#include "vbx/platform/os/write.h"
#include "vbx/preload/expand_tag.h"

#include <vbx/mem.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <string_view>

extern "C" int __cxa_atexit(void (*function)(void*), void* argument, void* module) noexcept;

namespace {

// The file behind descriptor 2 as the program was given it. When the program has put another file there, that
// file is the program's data, and our lines are dropped.
class MESSAGE_DESCRIPTOR {
  public:
    // The first call is made before the program itself runs.
    bool is_still_ours() {
        struct stat now;
        if (fstat(STDERR_FILENO, &now) != 0)
            now = {};
        if (!m_is_known.load(std::memory_order_acquire)) {
            m_file = now;
            m_is_known.store(true, std::memory_order_release);
        }
        return now.st_ino != 0 && now.st_dev == m_file.st_dev && now.st_ino == m_file.st_ino;
    }

  private:
    std::atomic<bool> m_is_known{false};
    struct stat m_file {};
};

constinit MESSAGE_DESCRIPTOR message_descriptor;

// The initialiser that keeps the library up until everything else of the process is gone.
alignas(MEM_INITIALIZER) constinit unsigned char last_initializer[sizeof(MEM_INITIALIZER)] = {};

void bring_library_down(void*) {
    std::launder(reinterpret_cast<MEM_INITIALIZER*>(last_initializer))->~MEM_INITIALIZER();
}

[[gnu::constructor]] void bring_library_up() {
    message_descriptor.is_still_ours();
    new (last_initializer) MEM_INITIALIZER("preload");
    if (const char* const tag = std::getenv("TARVANE_MEM_PRELOAD_TAG"))
        mem_set_tbb_exe_string(mem_expand_tag(tag, program_invocation_short_name, getpid()).c_str());
    // A handler that belongs to no module runs behind the destructors of all modules.
    __cxa_atexit(bring_library_down, nullptr, nullptr);
}

} // namespace

// Lines are cut at about 1000 characters: this can run on a small stack, inside an allocation.
void mem_preload_print(const char* format, std::va_list args) {
    if (!message_descriptor.is_still_ours())
        return;
    char text[1024];
    const int wanted = std::vsnprintf(text, sizeof text, format, args);
    if (wanted <= 0)
        return;
    const std::size_t length = std::min(static_cast<std::size_t>(wanted), sizeof text - 1);
    // A line that is cut ends as a line still, or the next one would be glued to it.
    if (std::string_view(format).ends_with('\n'))
        text[length - 1] = '\n';
    os_write(STDERR_FILENO, text, length);
}
