// Allocates where the stack isn't the thread's own: in coroutines and in signal handlers, on the thread's stack
// and on one of their own.
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <ucontext.h>
#include <unistd.h>

enum { STACK_SIZE = 1 << 18 };

static ucontext_t outside, inside;
static volatile int handled;

__attribute__((noinline)) static int nest(int depth) {
    char* const block = malloc((size_t)depth + 1);
    memset(block, 1, (size_t)depth + 1);
    const int below = depth > 0 ? nest(depth - 1) : 0;
    const int sum = below + block[depth];
    free(block);
    return sum;
}

static void coroutine(void) {
    for (;;) {
        nest(20);
        swapcontext(&inside, &outside);
    }
}

static void handle(int number) {
    (void)number;
    handled += nest(5) == 6;
}

static void raise_some(int flags) {
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = handle;
    action.sa_flags = flags;
    sigaction(SIGUSR1, &action, NULL);
    for (int round = 0; round < 100; ++round) {
        raise(SIGUSR1);
        nest(3);
    }
}

static void* run(void* unused) {
    void* const signal_stack = malloc(STACK_SIZE);
    const stack_t description = {.ss_sp = signal_stack, .ss_size = STACK_SIZE};
    const stack_t none = {.ss_flags = SS_DISABLE};
    raise_some(0);
    sigaltstack(&description, NULL);
    raise_some(SA_ONSTACK);
    sigaltstack(&none, NULL);
    free(signal_stack);
    return unused;
}

int main(void) {
    getcontext(&inside);
    void* const stack = malloc(STACK_SIZE);
    inside.uc_stack.ss_sp = stack;
    inside.uc_stack.ss_size = STACK_SIZE;
    makecontext(&inside, coroutine, 0);
    for (int round = 0; round < 100; ++round) {
        swapcontext(&outside, &inside);
        nest(3);
    }
    run(NULL);
    pthread_t thread;
    pthread_create(&thread, NULL, run, NULL);
    pthread_join(thread, NULL);
    free(stack);
    printf("%d handled\n", handled);
    return 0;
}
