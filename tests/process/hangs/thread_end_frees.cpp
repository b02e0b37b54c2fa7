// Destructors of thread-local objects and of thread-specific data run behind everything else of a thread, and
// use the heap; those of cancelled threads too.
#include "busy.h"

#include <pthread.h>
#include <unistd.h>

#include <string>

namespace {

pthread_key_t key;

void destroy_value(void* value) {
    std::free(value);
    allocate_and_free(3, 20);
}

struct LATE {
    std::string text = std::string(500, 'x');
    ~LATE() { allocate_and_free(4, 20); }
};
thread_local LATE late;

void work() {
    pthread_setspecific(key, std::malloc(700));
    late.text += "y";
    allocate_and_free(5, 50);
}

// Allocation is no cancellation point: the cancellation waits for the sleep.
void* be_cancelled(void*) {
    work();
    for (;;) {
        allocate_and_free(6, 5);
        usleep(1);
    }
}

} // namespace

int main() {
    pthread_key_create(&key, destroy_value);
    for (int round = 0; round < 20; ++round) {
        pthread_t cancelled;
        pthread_create(&cancelled, nullptr, be_cancelled, nullptr);
        std::thread ended(work);
        usleep(1000);
        pthread_cancel(cancelled);
        pthread_join(cancelled, nullptr);
        ended.join();
    }
}
