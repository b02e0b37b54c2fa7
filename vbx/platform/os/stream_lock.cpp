#include "vbx/platform/os/stream_lock.h"

#include "vbx/platform/os/thread.h"

bool os_lock_stream(std::FILE* stream, unsigned tries) {
    OS_PATIENCE patience;
    while (ftrylockfile(stream) != 0) {
        if (--tries == 0)
            return false;
        patience.wait();
    }
    return true;
}
