#include "vbx/platform/debug_symbols/scratch_stack.h"

#include <sys/mman.h>

#include <csignal>
#include <initializer_list>
#include <new>

// void sym_switch_stack(void (*work)(void*), void* argument, void* top)
//
// The frame hangs on rbp, which the work keeps, and its address is told to the unwinder: stack walks go on
// through the switch into the caller, and so do exceptions.
extern "C" void sym_switch_stack(void (*work)(void*), void* argument, void* top);
asm(R"(
    .text
    .p2align 4
    .hidden sym_switch_stack
    .globl sym_switch_stack
    .type sym_switch_stack, @function
sym_switch_stack:
    .cfi_startproc
    pushq %rbp
    .cfi_def_cfa_offset 16
    .cfi_offset %rbp, -16
    movq %rsp, %rbp
    .cfi_def_cfa_register %rbp
    movq %rdx, %rsp
    movq %rdi, %rax
    movq %rsi, %rdi
    callq *%rax
    movq %rbp, %rsp
    popq %rbp
    .cfi_def_cfa %rsp, 8
    retq
    .cfi_endproc
    .size sym_switch_stack, . - sym_switch_stack
)");

namespace {

constexpr std::size_t guard_bytes = 4096;

constinit char* stack_top = nullptr;

char* map_stack() {
    const std::size_t size = guard_bytes + SYM_SCRATCH_STACK_BYTES;
    void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    if (mprotect(memory, guard_bytes, PROT_NONE) != 0) {
        munmap(memory, size);
        throw std::bad_alloc();
    }
    return static_cast<char*>(memory) + size;
}

class SIGNALS_HELD {
  public:
    SIGNALS_HELD() {
        sigset_t held;
        sigfillset(&held);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT}) {
            sigdelset(&held, fault);
        }
        pthread_sigmask(SIG_BLOCK, &held, &m_before);
    }
    ~SIGNALS_HELD() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SIGNALS_HELD(const SIGNALS_HELD&) = delete;
    SIGNALS_HELD& operator=(const SIGNALS_HELD&) = delete;

  private:
    sigset_t m_before;
};

} // namespace

void sym_run_on_scratch_stack(void (*work)(void*), void* argument) {
    const SIGNALS_HELD signals_held;
    if (stack_top == nullptr) {
        stack_top = map_stack();
    }
    sym_switch_stack(work, argument, stack_top);
}
