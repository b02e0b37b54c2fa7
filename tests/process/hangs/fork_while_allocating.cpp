// Children of a process whose other threads are in the middle of the allocator and of events. They use the
// heap, free what is their parent's, and end by exit(), the whole way down. They leave no file behind.
#include "busy.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

int main() {
    if (mkdir("children", 0700) != 0)
        return 1;
    const BUSY_THREADS busy(3);
    void* inherited[64];
    for (void*& block : inherited)
        block = std::malloc(5000);
    for (int round = 0; round < 120; ++round) {
        const pid_t child = fork();
        if (child < 0)
            return 2;
        if (child == 0) {
            for (void* const block : inherited)
                std::free(block);
            allocate_and_free(static_cast<unsigned>(round), 200);
            std::exit(chdir("children") == 0 ? 5 : 6);
        }
        int status = 0;
        if (waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 5)
            return 3;
    }
    return rmdir("children") == 0 ? 0 : 4;
}
