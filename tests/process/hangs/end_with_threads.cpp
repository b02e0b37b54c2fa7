// The process ends while threads allocate: by the return of main, by exit() on another thread, by exit() on
// two threads' heels, and by pthread_exit of main.
#include "busy.h"

#include <pthread.h>
#include <unistd.h>

#include <cstring>

int main(int, char** arguments) {
    const auto* const busy = new BUSY_THREADS(3);
    usleep(20000);
    if (std::strcmp(arguments[1], "return") == 0)
        return 9;
    std::thread([] { std::exit(9); }).detach();
    if (std::strcmp(arguments[1], "leave_main") == 0)
        pthread_exit(nullptr);
    for (;;)
        pause();
    delete busy;
}
