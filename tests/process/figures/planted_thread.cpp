// Apart from the sites, because starting a thread allocates too.
#include "planted.h"

#include <thread>

void run_on_thread(void (*function)()) {
    std::thread(function).join();
}
