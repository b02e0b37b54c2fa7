// Memory runs out in the middle of events. The host gets its null and its bad_alloc, lives on, and the
// tracker's figures stay sane.
#include <vbx/mem.h>

#include <sys/resource.h>

#include <cstdlib>
#include <new>
#include <vector>

namespace {

// Small blocks until nothing is left, so that the tracker's own tables run out too.
bool fill_memory(std::vector<void*>& blocks) {
    while (blocks.size() < blocks.capacity()) {
        void* const block = std::malloc(2000);
        if (block == nullptr)
            return true;
        blocks.push_back(block);
    }
    return false;
}

} // namespace

int main() {
    mem_set_tbb_exe_string("limited");
    std::vector<void*> blocks;
    blocks.reserve(1'000'000);
    const rlimit limit{250U << 20, 250U << 20};
    if (setrlimit(RLIMIT_AS, &limit) != 0 || !fill_memory(blocks))
        return 2;
    try {
        void* volatile block = ::operator new (std::size_t{1} << 30);
        ::operator delete(block);
        return 3;
    } catch (const std::bad_alloc&) {
    }
    for (void* const block : blocks)
        std::free(block);
    void* const again = std::malloc(1'000'000);
    if (again == nullptr)
        return 4;
    std::free(again);
    return mem_get_global_current().bytes.load() >= 0 ? 9 : 5;
}
