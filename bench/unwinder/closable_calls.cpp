// Calls through frames of a library that can be closed.
using CALL = void (*)(void*);

extern "C" [[gnu::visibility("default")]] void call_nested(int depth, CALL call, void* argument);

[[gnu::noinline]] void call_nested(int depth, CALL call, void* argument) {
    if (depth > 0)
        call_nested(depth - 1, call, argument);
    else
        call(argument);
    asm volatile("" ::: "memory"); // keeps the loop out that the recursion could become
}
