#include "vbx/mem/host/messages.h"

#include "vbx/mem/host/host_slots.h"
#include "vbx/mem/host/preload_seam.h"
#include "vbx/platform/os/stream_lock.h"
#include "vbx/platform/os/thread.h"
#include "vbx/platform/os/write.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

// Messages can come from inside an event, in the middle of anything that the host does. Printing is a
// cancellation point, which an allocation must not be. (errno is kept by the allocator shim.)

namespace {

// In a preloaded program. Events come before the preload library fills the debug slot: those of the program's
// libraries, whose constructors run first. Not even then may a line of ours go through the program's streams;
// the buffer of standard output would be one that the program frees and never got.
bool print_preloaded(const char* tag, const char* format, std::va_list args) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, args);
    mem_print_stdout("%s: %s\n", tag, text);
    return true;
}

// Three writes, so lines of several threads can mix.
bool print_message(const char* tag, const char* format, std::va_list args) {
    if (mem_preload_print != nullptr)
        return print_preloaded(tag, format, args);
    const OS_NO_CANCELLATION no_cancellation;
    std::fprintf(stdout, "%s: ", tag);
    std::vfprintf(stdout, format, args);
    std::fprintf(stdout, "\n");
    return true;
}

bool send_message(MEM_MESSAGE_CALLBACK callback, const char* tag, const char* format, std::va_list args) {
    const OS_NO_CANCELLATION no_cancellation;
    return callback != nullptr ? callback(tag, format, args) : print_message(tag, format, args);
}

} // namespace

bool mem_msg_local_vdebug(const char* tag, const char* format, MEM_MESSAGE_ARGUMENTS args) {
    return send_message(mem_load_slot(mem_host_slots.debug_message), tag, format, args);
}

bool mem_msg_local_vinfo(const char* tag, const char* format, MEM_MESSAGE_ARGUMENTS args) {
    return send_message(mem_load_slot(mem_host_slots.info_message), tag, format, args);
}

bool mem_msg_debug(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    const bool result = mem_msg_local_vdebug("MEM", format, args);
    va_end(args);
    return result;
}

void mem_print_stdout(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    if (mem_preload_print != nullptr) {
        mem_preload_print(format, args);
    } else {
        const OS_NO_CANCELLATION no_cancellation;
        std::vfprintf(stdout, format, args);
    }
    va_end(args);
}

MEM_STDOUT_AT_END::MEM_STDOUT_AT_END()
    : m_can_be_used(mem_preload_print != nullptr || os_lock_stream(stdout, 300)) {}

MEM_STDOUT_AT_END::~MEM_STDOUT_AT_END() {
    if (mem_preload_print == nullptr && m_can_be_used)
        funlockfile(stdout);
}

void mem_warn(const char* format, ...) {
    constexpr char PREFIX[] = "MEM: ";
    constexpr std::size_t PREFIX_LENGTH = sizeof PREFIX - 1;
    char line[512];
    std::memcpy(line, PREFIX, PREFIX_LENGTH);
    // One place is kept for the newline.
    constexpr std::size_t ROOM = sizeof line - PREFIX_LENGTH - 1;
    std::va_list args;
    va_start(args, format);
    const int wanted = std::vsnprintf(line + PREFIX_LENGTH, ROOM, format, args);
    va_end(args);
    if (wanted < 0)
        return;
    std::size_t length = PREFIX_LENGTH + std::min(static_cast<std::size_t>(wanted), ROOM - 1);
    line[length++] = '\n';
    // Late in the life of a program descriptor 2 may be a file of its own; the preload library looks.
    if (mem_preload_print != nullptr)
        mem_print_stdout("%.*s", static_cast<int>(length), line);
    else
        os_write(STDERR_FILENO, line, length);
}
